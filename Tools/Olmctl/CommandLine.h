// The command line of olmctl: the options every command shares, wherever they stand, and the
// numbers in it.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace Olmctl {

constexpr int kExitOk = 0;
constexpr int kExitFailure = 1;
constexpr int kExitUsage = 2;

// The run-example system's master node, where the broker server and the R&D master run.
constexpr uint16_t kDefaultMasterNid = 0x10F0;
constexpr char kMasterNidVariable[] = "OLM_MASTER_NID";
// The tool takes the first of these that is free, so that several tools can run at once.
constexpr uint16_t kFirstToolNid = 0x1FF0;
constexpr uint16_t kLastToolNid = 0x1FF7;
constexpr uint32_t kDefaultTimeoutMs = 2000;
constexpr uint32_t kMaxTimeoutMs = 3600 * 1000;
constexpr uint32_t kMaxNid = 0xFFFF;

struct CommonOptions {
  uint32_t timeoutMs = kDefaultTimeoutMs;
  uint16_t masterNid = kDefaultMasterNid;
  std::optional<uint16_t> ownNid;
  bool json = false;
  bool help = false;
};

struct CommandLine {
  CommonOptions options;
  // The command, its subcommand and their arguments, in order.
  std::vector<std::string> words;
};

// A decimal or 0x-hexadecimal number from 0 to max, the whole text: no sign, no spaces.
std::optional<uint32_t> parseNumber(const std::string& text, uint32_t max);
// What a malformed number is told: "<what> '<text>' is not a number from 0 to <max>".
std::string badNumber(const std::string& what, const std::string& text, uint32_t max);

// The arguments after the program name. Options may stand anywhere before "--", as "--name value"
// or "--name=value"; masterFromEnvironment (OLM_MASTER_NID, may be null) replaces the default
// master. False with the reason in error for a malformed line.
bool parseCommandLine(const std::vector<std::string>& args, const char* masterFromEnvironment, CommandLine& line,
                      std::string& error);

}  // namespace Olmctl
