// Start-up as users meet it: the real hosting executable with its command line.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include "NodeProcess.h"
#include "TestNamespace.h"

namespace {

using OlmTest::hex;
using OlmTest::NodeProcess;

constexpr const char kHelpText[] =
    "Allowed options:\n"
    "  --nid arg             Dispatcher Node ID\n"
    "  --masternid arg       Master Node ID\n"
    "  --rt_mask arg         Realtime mask\n"
    "  --wait arg            Wait time between message dispatches\n"
    "  --load-local arg      Load shared Eu object file\n"
    "  --load-global arg     Load shared Eu object file\n"
    "  --timing              Generate Timing Logs\n"
    "  --cpu arg             CPU affinity\n"
    "  --verbose             Enable print logging\n"
    "  --logsize arg         Set size of memory log\n"
    "  --msg-fil-enabled arg Enable message filter logging.0=disabled,1=enabled,2=msg header logging only\n"
    "  --msg-fil-size arg    Set message filter log size in bytes, default 2MB\n"
    "  --msg-fil-ids  arg    Enable logging by providing comma delimited msg ids \"24 id max\" e.g. 0x26B8,0x26B9 \n"
    "  --help                Produce help message\n";

TEST(NodeStartup, HelpPrintsTheOptionsAndExitsWithStatusZero) {
  NodeProcess node({"--help"});
  const int status = node.waitForExit();
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0);
  EXPECT_EQ(node.output(), kHelpText);
}

TEST(NodeStartup, MissingNidEndsTheNodeWithStatus255) {
  NodeProcess node({"--wait", "0"});
  const int status = node.waitForExit();
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 255);
  EXPECT_NE(node.output().find("NID was not set\n"), std::string::npos) << node.output();
}

TEST(NodeStartup, OptionsAreLoggedAndUnknownOptionsSkipped) {
  const unsigned nid = OlmTest::nextTestNid();
  NodeProcess node({"--bogus", "--nid", hex(nid), "--masternid", "0x1011", "--wait", "0", "--rt_mask", "3"});
  EXPECT_TRUE(node.waitForOutput("NID was set to " + std::to_string(nid) + "\n")) << node.output();
  EXPECT_TRUE(node.waitForOutput("Master NID was set to 4113\n")) << node.output();
  EXPECT_TRUE(node.waitForOutput("wait time between dispatches was set to 0\n")) << node.output();
  EXPECT_NE(node.output().find("bogus"), std::string::npos);  // the option parser's own complaint
  EXPECT_TRUE(node.running());
}

TEST(NodeStartup, LibraryThatCannotBeOpenedEndsTheNodeWithStatusZero) {
  NodeProcess node({"--load-local", "/nonexistent/libNothing.so", "--nid", hex(OlmTest::nextTestNid())});
  const int status = node.waitForExit();
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0);
  EXPECT_NE(node.output().find("Loading /nonexistent/libNothing.so\n"), std::string::npos);
  EXPECT_NE(node.output().find("dlopen error: "), std::string::npos);
}

TEST(NodeStartup, LibraryWithoutEuMainIsReportedAndTheNodeRuns) {
  const std::string library = OlmTest::libraryPath("NoEntryTestEu");
  NodeProcess node({"--load-local", library, "--nid", hex(OlmTest::nextTestNid()), "--wait", "0"});
  EXPECT_TRUE(node.waitForOutput("Shared Eu Library " + library + " missing entry point\n")) << node.output();
  EXPECT_TRUE(node.waitForOutput("Initializing " + library + "\n")) << node.output();
  EXPECT_TRUE(node.waitForOutput("Shared Eu Library " + library + " invalid entry point, not executing\n"))
      << node.output();
  EXPECT_TRUE(node.running());
}

TEST(NodeStartup, GlobalLibraryIsLoadedFirstAndItsEntryPointRunsFirst) {
  const std::string first = OlmTest::libraryPath("NoEntryTestEu");
  const std::string second = OlmTest::pingEuPath();
  NodeProcess node({"--load-global", first, "--load-local", second, "--nid", hex(OlmTest::nextTestNid())},
                   {"OLM_PING_PEER=0x0001"});
  ASSERT_TRUE(node.waitForOutput("Initializing " + second + "\n")) << node.output();
  const std::string& out = node.output();
  EXPECT_LT(out.find("Loading " + first), out.find("Loading " + second));
  EXPECT_LT(out.find("Initializing " + first), out.find("Initializing " + second));
}

TEST(NodeStartup, SecondNodeWithTheSameNidIsRefused) {
  const std::string nid = hex(OlmTest::nextTestNid());
  const std::string library = OlmTest::libraryPath("NoEntryTestEu");
  NodeProcess first({"--nid", nid, "--wait", "0", "--load-local", library});
  // Libraries are initialised once the node serves its id.
  ASSERT_TRUE(first.waitForOutput("Initializing " + library)) << first.output();
  NodeProcess second({"--nid", nid, "--wait", "0"});
  const int status = second.waitForExit();
  ASSERT_TRUE(WIFEXITED(status)) << second.output();
  EXPECT_EQ(WEXITSTATUS(status), 255);
  EXPECT_NE(second.output().find("Em socket init failed. error: "), std::string::npos) << second.output();
  EXPECT_TRUE(first.running());
}

}  // namespace
