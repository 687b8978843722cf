// The allocation trace of a running node, switched and written by the signals a developer sends.
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <unistd.h>

#include <fstream>
#include <string>
#include <vector>

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
  // One dump: the sum, one line per live block, the separator.
  std::ifstream trace(traceFile);
  std::vector<std::string> lines;
  for (std::string line; std::getline(trace, line);) lines.push_back(line);
  ASSERT_GE(lines.size(), 2u);
  EXPECT_EQ(lines.front().rfind("Sum of memory allocations performed: ", 0), 0u) << lines.front();
  EXPECT_NE(lines.front().find(", current time: "), std::string::npos) << lines.front();
  for (size_t index = 1; index + 1 < lines.size(); ++index) EXPECT_EQ(lines[index].rfind("allocTime:", 0), 0u);
  EXPECT_EQ(lines.back(), std::string(75, '='));
  unlink(traceFile);
  rmdir(root);
}

}  // namespace
