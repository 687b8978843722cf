// The allocation trace of a running node, switched and written by the signals a developer sends.
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <unistd.h>

#include <fstream>
#include <regex>
#include <sstream>
#include <string>

#include "NodeProcess.h"
#include "TestNamespace.h"

namespace {

using OlmTest::hex;
using OlmTest::NodeProcess;

TEST(NodeMemoryTrace, Sigusr2SwitchesTracingAndSigusr1AppendsTheTableBelowTheRamRoot) {
  char root[] = "/tmp/olm_ram_root.XXXXXX";
  ASSERT_NE(mkdtemp(root), nullptr);
  const unsigned nid = OlmTest::nextTestNid();
  char traceFile[sizeof(root) + 64];
  std::snprintf(traceFile, sizeof(traceFile), "%s/OLMLiteMemActiveAllocks_%x.log", root, nid);
  {
    NodeProcess node({"--nid", hex(nid), "--wait", "1000"}, {std::string("OLM_RAM_ROOT=") + root});
    ASSERT_TRUE(node.waitForOutput("NID was set to " + std::to_string(nid) + "\n")) << node.output();
    node.kill(SIGUSR2);
    EXPECT_TRUE(node.waitForOutput("Allocation trace enabled\n")) << node.output();
    node.kill(SIGUSR1);
    EXPECT_TRUE(node.waitForOutput("Check file \"" + std::string(traceFile) + "\" for allocation trace\n"))
        << node.output();
    node.kill(SIGUSR2);
    EXPECT_TRUE(node.waitForOutput("Allocation trace disabled\n")) << node.output();
    EXPECT_TRUE(node.running());
  }
  std::stringstream text;
  text << std::ifstream(traceFile).rdbuf();
  EXPECT_TRUE(std::regex_match(text.str(), std::regex("Sum of memory allocations performed: [0-9]+, current time: "
                                                      "[0-9]+\n(allocTime:[^\n]*\n)*={75}\n")))
      << text.str();
  unlink(traceFile);
  rmdir(root);
}

}  // namespace
