// A command of olmctl ("rad", "ping", "send", ...) and how it ends.
#pragma once

#include <string>
#include <vector>

#include "CommandLine.h"

namespace Olmctl {

// The exit status and, unless it is 0, the one line for standard error.
struct Outcome {
  int status = kExitOk;
  std::string message;
};
inline Outcome succeeded() { return Outcome{}; }
inline Outcome failed(std::string message) { return Outcome{kExitFailure, std::move(message)}; }
inline Outcome misused(std::string message) { return Outcome{kExitUsage, std::move(message)}; }

struct Command {
  const char* name;
  const char* summary;  // the command's lines in "olmctl --help"
  const char* usage;    // the hint after a malformed command line
  const char* help;     // "olmctl <name> --help", before the common options
  Outcome (*run)(const CommonOptions& options, const Arguments& arguments);
  // The options of this command besides the common ones.
  std::vector<CommandOption> options = {};
};

}  // namespace Olmctl
