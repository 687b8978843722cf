// olmctl: the operator tool. It joins the system as a node of its own (a free node id of
// 0x1FF0..0x1FF7 unless --nid names one) and talks to the nodes and to the counterparts on the
// master node with their own messages; it needs no runtime.
//
//   olmctl nodes      olmctl ping 0x1011 -c 3      olmctl top      olmctl rad get 0x1011 50
//   olmctl log 0x1011
//   olmctl --help     olmctl ping --help
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "Command.h"
#include "CommandLine.h"
#include "Commands.h"
#include "Interruption.h"
#include "Output.h"
#include "RadCommand.h"

namespace {

using Olmctl::Command;

constexpr char kUsage[] = "Usage: olmctl [OPTIONS] COMMAND [ARGUMENTS]\n";

constexpr char kIntroduction[] =
    "\n"
    "Looks at and changes the nodes of a running system from this host, as a node of its own.\n"
    "\n"
    "Commands:\n";

constexpr char kCommonOptions[] =
    "\n"
    "Options (anywhere on the line, before a \"--\"):\n"
    "  --timeout MS  how long to wait for the answers to each request (default 2000)\n"
    "  --master NID  the master node, where the R&D master and the log collector run\n"
    "                (default $OLM_MASTER_NID, else 0x10f0)\n"
    "  --nid NID     the tool's own node id (default: the first free of 0x1ff0 to 0x1ff7, or with a\n"
    "                node map of 0x?ff0 to 0x?ff7 of the first block of 0x1000 ids on this host)\n"
    "  --ram-root DIR\n"
    "                where the nodes keep their RAM files, as their OLM_RAM_ROOT does\n"
    "                (default $OLM_RAM_ROOT, else /ram)\n"
    "  --json        output for scripts: one JSON object (top: one per refresh)\n"
    "  -h, --help    this text; \"olmctl COMMAND --help\" for a command\n"
    "\n"
    "Numbers are decimal or 0x-hexadecimal. Exit status: 0 done, 1 failed (one line on standard\n"
    "error: an unknown node, no answer within the timeout, a refusal), 2 malformed command line.\n";

const Command* const kCommands[] = {&Olmctl::nodesCommand(), &Olmctl::pingCommand(),    &Olmctl::statsCommand(),
                                    &Olmctl::topCommand(),   &Olmctl::sendCommand(),    &Olmctl::historyCommand(),
                                    &Olmctl::logCommand(),   &Olmctl::radCommand()};

// Every command's own options: the command line is read before the command is known.
std::vector<Olmctl::CommandOption> allCommandOptions() {
  std::vector<Olmctl::CommandOption> options;
  for (const Command* command : kCommands) options.insert(options.end(), command->options.begin(), command->options.end());
  return options;
}

// The options given that belong to another command: the first, or null.
const char* foreignOption(const Command& command, const Olmctl::CommandLine& line) {
  for (const auto& given : line.commandOptions) {
    const bool own = std::any_of(command.options.begin(), command.options.end(),
                                 [&](const Olmctl::CommandOption& option) { return given.first == option.name; });
    if (!own) return given.first.c_str();
  }
  return nullptr;
}

const Command* findCommand(const std::string& name) {
  for (const Command* command : kCommands) {
    if (name == command->name) return command;
  }
  return nullptr;
}

void printHelp() {
  std::string text = std::string(kUsage) + kIntroduction;
  for (const Command* command : kCommands) text += command->summary;
  Olmctl::printOut(text + kCommonOptions);
}

// The error, the usage of the command meant (or of the tool) and where to read more.
int usageError(const std::string& error, const Command* command) {
  const std::string more = command != nullptr ? std::string("olmctl ") + command->name + " --help" : "olmctl --help";
  std::fprintf(stderr, "olmctl: %s\n%sTry '%s'.\n", error.c_str(), command != nullptr ? command->usage : kUsage,
               more.c_str());
  return Olmctl::kExitUsage;
}

}  // namespace

int main(int argc, char** argv) {
  Olmctl::takeInterruptions();
  Olmctl::CommandLine line;
  std::string error;
  const Olmctl::Environment environment{std::getenv(Olmctl::kMasterNidVariable),
                                        std::getenv(Olmctl::kRamRootVariable)};
  if (!Olmctl::parseCommandLine({argv + 1, argv + argc}, environment, allCommandOptions(), line, error)) {
    return usageError(error, nullptr);
  }
  if (line.words.empty()) {
    if (!line.options.help) return usageError("no command given", nullptr);
    printHelp();
    return Olmctl::kExitOk;
  }
  const Command* command = findCommand(line.words[0]);
  if (command == nullptr) return usageError("unknown command '" + line.words[0] + "'", nullptr);
  if (line.options.help) {
    Olmctl::printOut(std::string(command->help) + kCommonOptions);
    return Olmctl::kExitOk;
  }
  if (const char* option = foreignOption(*command, line)) {
    return usageError(std::string("option ") + option + " is not an option of " + command->name, command);
  }
  const Olmctl::Outcome outcome =
      command->run(line.options, Olmctl::Arguments{{line.words.begin() + 1, line.words.end()}, line.commandOptions});
  if (outcome.status == Olmctl::kExitUsage) return usageError(outcome.message, command);
  if (outcome.status != Olmctl::kExitOk) std::fprintf(stderr, "olmctl: %s\n", outcome.message.c_str());
  return outcome.status;
}
