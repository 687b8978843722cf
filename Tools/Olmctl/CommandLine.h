// The command line of olmctl: the options every command shares, wherever they stand, and the
// numbers in it.
#pragma once

#include <cstdint>
#include <map>
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
// The tool takes the first of these that is free, so that several tools can run at once. Where a
// node map places them on another host, it takes the same last ids of another block of 0x1000
// node ids, the first the map places on this host: 0x2FF0 to 0x2FF7 on the host of 0x2000-0x2FFF.
constexpr uint16_t kFirstToolNid = 0x1FF0;
constexpr uint16_t kLastToolNid = 0x1FF7;
constexpr uint16_t kToolNidBlock = 0x1000;
constexpr uint32_t kDefaultTimeoutMs = 2000;
constexpr uint32_t kMaxTimeoutMs = 3600 * 1000;
constexpr uint32_t kMaxNid = 0xFFFF;
constexpr uint32_t kDefaultIntervalMs = 1000;
constexpr uint32_t kMaxIntervalMs = kMaxTimeoutMs;

// Where the nodes keep their RAM files when OLM_RAM_ROOT does not say otherwise, as they do.
constexpr char kDefaultRamRoot[] = "/ram";
constexpr char kRamRootVariable[] = "OLM_RAM_ROOT";

struct CommonOptions {
  uint32_t timeoutMs = kDefaultTimeoutMs;
  uint16_t masterNid = kDefaultMasterNid;
  std::optional<uint16_t> ownNid;
  std::string ramRoot = kDefaultRamRoot;
  bool json = false;
  bool help = false;
};

// An option only some commands take ("-c COUNT" of ping, "--wait" of send).
struct CommandOption {
  const char* name;
  bool takesValue;
};

// A command's words after its name and the command options given, by name (a switch maps to "").
struct Arguments {
  std::vector<std::string> words;
  std::map<std::string, std::string> options;
};

struct CommandLine {
  CommonOptions options;
  // The command, its subcommand and their arguments, in order.
  std::vector<std::string> words;
  std::map<std::string, std::string> commandOptions;
};

// The settings the environment gives before the command line: OLM_MASTER_NID and OLM_RAM_ROOT
// (either may be null).
struct Environment {
  const char* masterNid = nullptr;
  const char* ramRoot = nullptr;
};

// A decimal or 0x-hexadecimal number from 0 to max, the whole text: no sign, no spaces.
std::optional<uint32_t> parseNumber(const std::string& text, uint32_t max);
// What a malformed number is told: "<what> '<text>' is not a number from 0 to <max>".
std::string badNumber(const std::string& what, const std::string& text, uint32_t max);

// A node id given as an argument: "NID '<text>' is not a number ..." in error when malformed.
bool parseNid(const std::string& text, uint16_t& nid, std::string& error);
// The node id that is a command's only argument; false with error for none, more, or a malformed one.
bool parseOnlyNid(const std::string& command, const Arguments& arguments, uint16_t& nid, std::string& error);
// "-i INTERVAL_MS" of the commands that repeat (ping, stats, top): default 1000.
bool intervalOption(const Arguments& arguments, uint32_t& intervalMs, std::string& error);
// The value of a command option from min to max, or fallback when it was not given; false with
// error when it is malformed.
bool optionNumber(const Arguments& arguments, const std::string& name, uint32_t min, uint32_t max, uint32_t fallback,
                  uint32_t& value, std::string& error);

// The arguments after the program name. Options, the common ones and commandOptions (those of
// every command: which command takes which is checked later), may stand anywhere before "--", as
// "--name value" or "--name=value"; the environment replaces the defaults. False with the reason
// in error for a malformed line.
bool parseCommandLine(const std::vector<std::string>& args, const Environment& environment,
                      const std::vector<CommandOption>& commandOptions, CommandLine& line, std::string& error);

}  // namespace Olmctl
