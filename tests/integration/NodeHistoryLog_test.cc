// A node's history log as a developer reads it: through the RAM file mount while the node runs,
// converted inside the node by Olm::outputHistoryLog, and converted by olm-history after the node
// has been killed.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <memory>
#include <string>

#include "FileTestUtil.h"
#include "NodeProcess.h"
#include "TestNamespace.h"

namespace {

using OlmTest::fileContents;
using OlmTest::hex;
using OlmTest::NodeProcess;

constexpr char kBanner[] = "*********** History Log *************\n";
constexpr char kEndBanner[] = "*********** End history *************\n\n";
constexpr size_t kDefaultSize = 0x200000;

std::unique_ptr<NodeProcess> startPingNode(unsigned nid, unsigned peer, std::vector<std::string> extra = {}) {
  std::vector<std::string> args{"--nid", hex(nid), "--wait", "1000", "--load-local", OlmTest::pingEuPath()};
  args.insert(args.end(), extra.begin(), extra.end());
  return std::make_unique<NodeProcess>(args, std::vector<std::string>{"OLM_PING_PEER=" + hex(peer), "OLM_PING_PERIOD_MS=50"});
}


// What olm-history writes for a file.
std::string convertOffline(const std::string& file) {
  std::string text;
  std::FILE* pipe = popen((std::string(OLM_TEST_HISTORY_TOOL) + " " + file).c_str(), "r");
  if (pipe == nullptr) return "<popen: " + std::string(std::strerror(errno)) + ">";
  char buffer[4096];
  size_t n;
  while ((n = std::fread(buffer, 1, sizeof(buffer), pipe)) > 0) text.append(buffer, n);
  const int status = pclose(pipe);
  if (status != 0) text += "<exit status " + std::to_string(status) + ">";
  return text;
}

class NodeHistoryLog : public ::testing::Test {
 protected:
  void SetUp() override {
    if (access("/dev/fuse", R_OK | W_OK) != 0) GTEST_SKIP() << "/dev/fuse is not usable: " << std::strerror(errno);
  }
  // Skips when the node could not mount its RAM files (user-mode emulation).
  bool mounted(NodeProcess& node, const std::string& readyText) {
    if (node.waitForOutput(readyText)) return true;
    if (node.output().find("fuse_mount failed") != std::string::npos ||
        node.output().find("AaStartupEeStartup failure") != std::string::npos) {
      m_skipReason = "the node cannot mount its RAM files here: " + node.output();
    } else {
      ADD_FAILURE() << node.output();
    }
    return false;
  }
  std::string m_skipReason;
};

TEST_F(NodeHistoryLog, AVerboseNodeTracesIntoItsHistoryLogAndItReadsBackAfterTheNodeIsKilled) {
  const unsigned a = OlmTest::nextTestNid(), b = OlmTest::nextTestNid();
  auto nodeA = startPingNode(a, b, {"--verbose", "--load-local", OlmTest::libraryPath("HistoryDumpTestEu")});
  auto nodeB = startPingNode(b, a);
  if (!mounted(*nodeA, "HistoryDumpTestEu dumped")) GTEST_SKIP() << m_skipReason;

  // Converted inside the node at the end of its start-up: the EUs' registrations and first timer.
  const std::string nodeDirectory = nodeA->workingArea() + "/olm_lite/" + hex(a);
  const std::string inProcess = fileContents(nodeDirectory + "/history.txt");
  EXPECT_EQ(inProcess.rfind(kBanner, 0), 0u) << inProcess;
  EXPECT_NE(inProcess.find("] (0700)->Register(0x"), std::string::npos) << inProcess;
  EXPECT_NE(inProcess.find("] (0000)->StartTimer(0x"), std::string::npos) << inProcess;
  EXPECT_NE(inProcess.find(")->Allocate(0x"), std::string::npos) << inProcess;
  EXPECT_NE(inProcess.find(" (UNKNOWN)\n"), std::string::npos) << inProcess;

  ASSERT_TRUE(nodeA->waitForOutput("pong #")) << nodeA->output();
  const std::string ramFile = nodeA->ramFileMount(a) + "/" + OlmTest::historyLogFileName(a);
  const std::string copy = nodeA->workingArea() + "/history.bin";
  {
    const std::string bytes = fileContents(ramFile);
    ASSERT_EQ(bytes.size(), kDefaultSize) << ramFile;
    std::ofstream(copy, std::ios::binary) << bytes;
  }
  nodeA->kill(SIGKILL);
  nodeA->waitForExit();

  const std::string text = convertOffline(copy);
  EXPECT_EQ(text.rfind(kBanner, 0), 0u) << text.substr(0, 2000);
  EXPECT_NE(text.find(kEndBanner), std::string::npos) << text.substr(0, 2000);
  // The pong arrived: taken in, queued and processed, each with its message fields.
  const std::string pongFields = " {Id:0a02 Target:" + std::string(hex(a)).substr(2) + "0700 Sender:";
  EXPECT_NE(text.find(")->Input(0x"), std::string::npos) << text.substr(0, 2000);
  EXPECT_NE(text.find("(0700)->Process(0x"), std::string::npos) << text.substr(0, 2000);
  EXPECT_NE(text.find(pongFields), std::string::npos) << text.substr(0, 2000);
  EXPECT_EQ(text.find("<format"), std::string::npos) << text.substr(0, 2000);
  // And none of it went to the node's output.
  EXPECT_EQ(nodeA->countOutput("->Process("), 0u) << nodeA->output();
}

TEST_F(NodeHistoryLog, LogsizeSetsTheLengthOfTheRamFile) {
  const unsigned a = OlmTest::nextTestNid();
  NodeProcess node({"--nid", hex(a), "--wait", "1000", "--logsize", "0x1000", "--load-local",
                    OlmTest::libraryPath("HistoryDumpTestEu")});
  if (!mounted(node, "HistoryDumpTestEu dumped")) GTEST_SKIP() << m_skipReason;
  EXPECT_EQ(fileContents(node.ramFileMount(a) + "/" + OlmTest::historyLogFileName(a)).size(), 0x1000u);
}

}  // namespace
