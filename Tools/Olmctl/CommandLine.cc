#include "CommandLine.h"

#include <cstdio>

namespace Olmctl {

namespace {

constexpr uint32_t kDecimalBase = 10;
constexpr uint32_t kHexBase = 16;

std::optional<uint32_t> digitValue(char c, uint32_t base) {
  uint32_t digit = base;
  if (c >= '0' && c <= '9') digit = static_cast<uint32_t>(c - '0');
  if (c >= 'a' && c <= 'f') digit = static_cast<uint32_t>(c - 'a' + kDecimalBase);
  if (c >= 'A' && c <= 'F') digit = static_cast<uint32_t>(c - 'A' + kDecimalBase);
  if (digit >= base) return std::nullopt;
  return digit;
}

// An option that takes a value: "--name value" or "--name=value". at is advanced past the value.
bool optionValue(const std::vector<std::string>& args, size_t& at, const std::string& name, std::string& value,
                 std::string& error) {
  const std::string& arg = args[at];
  if (arg.size() > name.size() && arg.compare(0, name.size() + 1, name + "=") == 0) {
    value = arg.substr(name.size() + 1);
    return true;
  }
  if (at + 1 == args.size()) {
    error = "option " + name + " needs a value";
    return false;
  }
  value = args[++at];
  return true;
}

bool isOption(const std::string& arg, const std::string& name) {
  return arg == name || arg.compare(0, name.size() + 1, name + "=") == 0;
}

bool nidFrom(const std::string& what, const std::string& text, uint16_t& nid, std::string& error) {
  const std::optional<uint32_t> number = parseNumber(text, kMaxNid);
  if (!number) {
    error = badNumber(what, text, kMaxNid);
    return false;
  }
  nid = static_cast<uint16_t>(*number);
  return true;
}

// As the nodes take their RAM root: an absolute path without a trailing '/'.
bool ramRootFrom(const std::string& what, const std::string& text, std::string& root, std::string& error) {
  if (text.size() < 2 || text.front() != '/' || text.back() == '/') {
    error = what + " '" + text + "' is not an absolute path without a trailing '/'";
    return false;
  }
  root = text;
  return true;
}

const CommandOption* findCommandOption(const std::vector<CommandOption>& commandOptions, const std::string& arg) {
  for (const CommandOption& option : commandOptions) {
    if (option.takesValue ? isOption(arg, option.name) : arg == option.name) return &option;
  }
  return nullptr;
}

// One option at args[at]; false with error for a malformed or unknown one.
bool parseOption(const std::vector<std::string>& args, size_t& at, const std::vector<CommandOption>& commandOptions,
                 CommandLine& line, std::string& error) {
  const std::string& arg = args[at];
  CommonOptions& options = line.options;
  std::string value;
  if (const CommandOption* option = findCommandOption(commandOptions, arg)) {
    if (option->takesValue && !optionValue(args, at, option->name, value, error)) return false;
    line.commandOptions[option->name] = value;
  } else if (arg == "--json") {
    options.json = true;
  } else if (arg == "--help" || arg == "-h") {
    options.help = true;
  } else if (isOption(arg, "--timeout")) {
    if (!optionValue(args, at, "--timeout", value, error)) return false;
    const std::optional<uint32_t> ms = parseNumber(value, kMaxTimeoutMs);
    if (!ms || *ms == 0) {
      error = "--timeout '" + value + "' is not a number of milliseconds from 1 to " + std::to_string(kMaxTimeoutMs);
      return false;
    }
    options.timeoutMs = *ms;
  } else if (isOption(arg, "--master")) {
    if (!optionValue(args, at, "--master", value, error) || !nidFrom("--master", value, options.masterNid, error)) {
      return false;
    }
  } else if (isOption(arg, "--nid")) {
    uint16_t nid = 0;
    if (!optionValue(args, at, "--nid", value, error) || !nidFrom("--nid", value, nid, error)) return false;
    options.ownNid = nid;
  } else if (isOption(arg, "--ram-root")) {
    if (!optionValue(args, at, "--ram-root", value, error) || !ramRootFrom("--ram-root", value, options.ramRoot, error)) {
      return false;
    }
  } else {
    error = "unknown option " + arg;
    return false;
  }
  return true;
}

}  // namespace

std::optional<uint32_t> parseNumber(const std::string& text, uint32_t max) {
  const bool hex = text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X');
  const uint32_t base = hex ? kHexBase : kDecimalBase;
  const size_t first = hex ? 2 : 0;
  if (text.size() == first) return std::nullopt;
  uint64_t value = 0;
  for (size_t i = first; i < text.size(); ++i) {
    const std::optional<uint32_t> digit = digitValue(text[i], base);
    if (!digit) return std::nullopt;
    value = value * base + *digit;
    if (value > max) return std::nullopt;
  }
  return static_cast<uint32_t>(value);
}

std::string badNumber(const std::string& what, const std::string& text, uint32_t max) {
  char range[32];
  std::snprintf(range, sizeof(range), "%u (0x%x)", max, max);
  return what + " '" + text + "' is not a number from 0 to " + range;
}

bool parseNid(const std::string& text, uint16_t& nid, std::string& error) {
  const std::optional<uint32_t> number = parseNumber(text, kMaxNid);
  if (!number) error = badNumber("NID", text, kMaxNid);
  nid = static_cast<uint16_t>(number.value_or(0));
  return number.has_value();
}

bool parseOnlyNid(const std::string& command, const Arguments& arguments, uint16_t& nid, std::string& error) {
  if (arguments.words.size() == 1) return parseNid(arguments.words[0], nid, error);
  error = command + (arguments.words.empty() ? " needs the node id" : " takes one node id");
  return false;
}

bool intervalOption(const Arguments& arguments, uint32_t& intervalMs, std::string& error) {
  return optionNumber(arguments, "-i", 1, kMaxIntervalMs, kDefaultIntervalMs, intervalMs, error);
}

bool optionNumber(const Arguments& arguments, const std::string& name, uint32_t min, uint32_t max, uint32_t fallback,
                  uint32_t& value, std::string& error) {
  const auto given = arguments.options.find(name);
  if (given == arguments.options.end()) {
    value = fallback;
    return true;
  }
  const std::optional<uint32_t> number = parseNumber(given->second, max);
  if (number && *number >= min) {
    value = *number;
    return true;
  }
  error = name + " '" + given->second + "' is not a number from " + std::to_string(min) + " to " + std::to_string(max);
  return false;
}

bool parseCommandLine(const std::vector<std::string>& args, const Environment& environment,
                      const std::vector<CommandOption>& commandOptions, CommandLine& line, std::string& error) {
  line = CommandLine{};
  if (environment.masterNid != nullptr &&
      !nidFrom(kMasterNidVariable, environment.masterNid, line.options.masterNid, error)) {
    return false;
  }
  if (environment.ramRoot != nullptr && *environment.ramRoot != '\0' &&
      !ramRootFrom(kRamRootVariable, environment.ramRoot, line.options.ramRoot, error)) {
    return false;
  }
  bool optionsEnded = false;
  for (size_t at = 0; at < args.size(); ++at) {
    const std::string& arg = args[at];
    if (!optionsEnded && arg == "--") {
      optionsEnded = true;
    } else if (!optionsEnded && arg.size() > 1 && arg[0] == '-') {
      if (!parseOption(args, at, commandOptions, line, error)) return false;
    } else {
      line.words.push_back(arg);
    }
  }
  return true;
}

}  // namespace Olmctl
