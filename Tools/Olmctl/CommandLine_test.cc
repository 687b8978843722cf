// The command line's edge cases: numbers that must not wrap or be read as octal, options in any
// position, and the parameter selectors of rad.
#include "CommandLine.h"

#include <gtest/gtest.h>

#include "RadCommand.h"

namespace {

using Olmctl::CommandLine;
using Olmctl::parseNumber;

constexpr uint32_t kMax16 = 0xFFFF;
constexpr uint32_t kMax32 = 0xFFFFFFFF;

// The options of ping and send, as the tool knows them all before it knows the command.
const std::vector<Olmctl::CommandOption> kCommandOptions = {{"-c", true}, {"-i", true}, {"--wait", false}};

bool parses(const std::vector<std::string>& args, CommandLine& line, const char* master = nullptr,
            const char* ramRoot = nullptr) {
  std::string error;
  const bool ok = Olmctl::parseCommandLine(args, Olmctl::Environment{master, ramRoot}, kCommandOptions, line, error);
  EXPECT_EQ(ok, error.empty()) << error;
  return ok;
}

TEST(OlmctlCommandLine, NumbersAndOptions) {
  EXPECT_EQ(parseNumber("4113", kMax16), 4113u);
  EXPECT_EQ(parseNumber("0x1011", kMax16), 0x1011u);
  EXPECT_EQ(parseNumber("0XfF", kMax16), 0xFFu);
  EXPECT_EQ(parseNumber("010", kMax16), 10u) << "a leading zero is not octal";
  EXPECT_EQ(parseNumber("0xFFFFFFFF", kMax32), kMax32);
  EXPECT_EQ(parseNumber("4294967295", kMax32), kMax32);
  for (const char* bad :
       {"", "0x", "-1", "+1", " 1", "1 ", "0x1g", "1e3", "0b1", "0x10000", "65536", "99999999999999999999999"}) {
    EXPECT_EQ(parseNumber(bad, kMax16), std::nullopt) << "'" << bad << "'";
  }
  EXPECT_EQ(parseNumber("4294967296", kMax32), std::nullopt) << "a value beyond 32 bits must not wrap";
  EXPECT_EQ(parseNumber("0x100000000", kMax32), std::nullopt);

  CommandLine line;
  ASSERT_TRUE(parses({"rad", "--timeout=150", "get", "--json", "0x1011", "--nid", "0x1ff9", "50"}, line, "0x2000"));
  EXPECT_EQ(line.words, (std::vector<std::string>{"rad", "get", "0x1011", "50"}));
  EXPECT_EQ(line.options.timeoutMs, 150u);
  EXPECT_TRUE(line.options.json);
  EXPECT_EQ(line.options.ownNid, 0x1ff9);
  EXPECT_EQ(line.options.masterNid, 0x2000) << "the environment replaces the default master";
  ASSERT_TRUE(parses({"--master", "4113", "--", "-5", "--json"}, line, "0x2000"));
  EXPECT_EQ(line.options.masterNid, 4113) << "the option wins over the environment";
  EXPECT_EQ(line.words, (std::vector<std::string>{"-5", "--json"})) << "after -- nothing is an option";
  EXPECT_FALSE(line.options.json);
  ASSERT_TRUE(parses({}, line));
  EXPECT_EQ(line.options.masterNid, Olmctl::kDefaultMasterNid);
  EXPECT_EQ(line.options.ownNid, std::nullopt);

  for (const std::vector<std::string>& bad : std::vector<std::vector<std::string>>{{"--timeout", "0"},
                                                                                   {"--timeout"},
                                                                                   {"--timeout=1s"},
                                                                                   {"--master", "0x10000"},
                                                                                   {"--nid", "-1"},
                                                                                   {"--nid="},
                                                                                   {"--verbose"},
                                                                                   {"-x"}}) {
    std::string error;
    EXPECT_FALSE(Olmctl::parseCommandLine(bad, {}, kCommandOptions, line, error)) << bad[0];
    EXPECT_FALSE(error.empty());
  }
  std::string error;
  EXPECT_FALSE(Olmctl::parseCommandLine({"rad"}, {"master", nullptr}, {}, line, error))
      << "a malformed OLM_MASTER_NID is told";
  EXPECT_NE(error.find("OLM_MASTER_NID"), std::string::npos) << error;
}

TEST(OlmctlCommandLine, CommandOptionsAndTheRamRoot) {
  CommandLine line;
  ASSERT_TRUE(parses({"ping", "-c", "3", "0x1011", "-i=200", "--wait"}, line, nullptr, "/tmp/ram"));
  EXPECT_EQ(line.words, (std::vector<std::string>{"ping", "0x1011"}));
  EXPECT_EQ(line.commandOptions, (std::map<std::string, std::string>{{"-c", "3"}, {"-i", "200"}, {"--wait", ""}}));
  EXPECT_EQ(line.options.ramRoot, "/tmp/ram") << "OLM_RAM_ROOT, as the nodes take it";
  ASSERT_TRUE(parses({"--ram-root", "/srv/ram", "top"}, line, nullptr, "/tmp/ram"));
  EXPECT_EQ(line.options.ramRoot, "/srv/ram") << "the option wins over the environment";
  ASSERT_TRUE(parses({"top"}, line, nullptr, ""));
  EXPECT_EQ(line.options.ramRoot, Olmctl::kDefaultRamRoot) << "an empty OLM_RAM_ROOT is unset, as for the nodes";
  ASSERT_TRUE(parses({"send", "0x10110610", "1", "--", "-c"}, line));
  EXPECT_EQ(line.words.back(), "-c") << "after -- a command option is a word";

  for (const std::vector<std::string>& bad : std::vector<std::vector<std::string>>{
           {"ping", "-c"}, {"--ram-root", "ram"}, {"--ram-root", "/ram/"}, {"--ram-root=/"}, {"--wait=1"}}) {
    std::string error;
    EXPECT_FALSE(Olmctl::parseCommandLine(bad, {}, kCommandOptions, line, error)) << bad.back();
    EXPECT_FALSE(error.empty());
  }
  std::string error;
  EXPECT_FALSE(Olmctl::parseCommandLine({"top"}, {nullptr, "relative"}, kCommandOptions, line, error));
  EXPECT_NE(error.find("OLM_RAM_ROOT"), std::string::npos) << error;

  Olmctl::Arguments arguments{{}, {{"-c", "0"}, {"-i", "0x10"}}};
  uint32_t value = 0;
  EXPECT_FALSE(Olmctl::optionNumber(arguments, "-c", 1, 10, 5, value, error)) << "below the minimum";
  EXPECT_NE(error.find("-c '0' is not a number from 1 to 10"), std::string::npos) << error;
  ASSERT_TRUE(Olmctl::optionNumber(arguments, "-i", 1, 100, 5, value, error));
  EXPECT_EQ(value, 16u);
  ASSERT_TRUE(Olmctl::optionNumber(arguments, "-n", 1, 100, 5, value, error));
  EXPECT_EQ(value, 5u) << "an option not given has its default";
}

TEST(OlmctlCommandLine, ParameterSelectors) {
  struct Case {
    const char* text;
    uint16_t domain;
    std::optional<uint16_t> index;
  };
  for (const Case& good : {Case{"50", 50, std::nullopt}, Case{"0x32:0x1", 50, 1}, Case{"50:65535", 50, 0xFFFF},
                           Case{"1:AaSysLogOutputMode", 1, 0x41}, Case{"AaSysLogOutputMode", 1, 0x41},
                           Case{"1:AaLogCollectorCompressionDisable", 1, 152}, Case{"AaSysCom", 1, 0}}) {
    Olmctl::ParameterSelector selector;
    std::string error;
    ASSERT_TRUE(Olmctl::parseParameterSelector(good.text, selector, error)) << good.text << ": " << error;
    EXPECT_EQ(selector.domain, good.domain) << good.text;
    EXPECT_EQ(selector.index, good.index) << good.text;
  }
  for (const char* bad : {"", ":", "50:", ":5", "65536", "50:65536", "50:AaSysLogOutputMode", "NoSuchParameter",
                          "aasyslogoutputmode", "1:1:1", "1:AaSysLogOutputMode:1", "50:-1"}) {
    Olmctl::ParameterSelector selector;
    std::string error;
    EXPECT_FALSE(Olmctl::parseParameterSelector(bad, selector, error)) << "'" << bad << "'";
    EXPECT_FALSE(error.empty()) << "'" << bad << "'";
  }
}

}  // namespace
