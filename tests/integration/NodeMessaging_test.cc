// Nodes talking through the host platform: real processes, each running the example PingEu.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <memory>

#include "NodeProcess.h"

namespace {

using OlmTest::hex;
using OlmTest::NodeProcess;

std::unique_ptr<NodeProcess> startPingNode(unsigned nid, unsigned peer) {
  return std::make_unique<NodeProcess>(
      std::vector<std::string>{"--nid", hex(nid), "--wait", "1000", "--load-local", OlmTest::pingEuPath()},
      std::vector<std::string>{"OLM_PING_PEER=" + hex(peer), "OLM_PING_PERIOD_MS=50"});
}


TEST(NodeMessaging, TwoNodesExchangePingsAndPongs) {
  const unsigned a = OlmTest::uniqueNid(10), b = OlmTest::uniqueNid(11);
  auto nodeA = startPingNode(a, b);
  auto nodeB = startPingNode(b, a);
  EXPECT_TRUE(nodeA->waitForOutput("pong #")) << nodeA->output();
  EXPECT_TRUE(nodeB->waitForOutput("pong #")) << nodeB->output();
  EXPECT_TRUE(nodeA->waitForOutput("from node " + hex(b))) << nodeA->output();
  EXPECT_TRUE(nodeB->waitForOutput("ping #")) << nodeB->output();
}

TEST(NodeMessaging, SendingToANodeThatIsNotRunningDropsTheMessagesAndTheSenderCarriesOn) {
  const unsigned a = OlmTest::uniqueNid(12), absent = OlmTest::uniqueNid(13);
  auto nodeA = startPingNode(a, absent);
  ASSERT_TRUE(nodeA->waitForOutput("Initializing")) << nodeA->output();
  EXPECT_FALSE(nodeA->waitForOutput("pong #", std::chrono::milliseconds(700)));
  EXPECT_TRUE(nodeA->running());
  // Once the peer exists, the same sends go through.
  auto nodeB = startPingNode(absent, a);
  EXPECT_TRUE(nodeA->waitForOutput("pong #")) << nodeA->output();
}

// A killed node is recognised by its locks passing to the next locker (robust futex lists), which
// user-mode emulation does not implement.
bool deadLockOwnersAreDetected() {
  void* head = nullptr;
  size_t length = 0;
  return syscall(SYS_get_robust_list, 0, &head, &length) == 0;
}

TEST(NodeMessaging, NodeKilledAndRestartedWhilePeerKeepsSendingIsReachedAgain) {
  if (!deadLockOwnersAreDetected()) GTEST_SKIP() << "no robust futex lists here: a killed node looks alive";
  const unsigned a = OlmTest::uniqueNid(14), b = OlmTest::uniqueNid(15);
  auto nodeA = startPingNode(a, b);
  auto nodeB = startPingNode(b, a);
  ASSERT_TRUE(nodeA->waitForOutput("pong #")) << nodeA->output();

  nodeB->kill(SIGKILL);
  nodeB->waitForExit();
  // While B is gone A keeps pinging into the void; let it try a few times.
  nodeA->waitForOutput("never printed", std::chrono::milliseconds(400));
  EXPECT_TRUE(nodeA->running());

  nodeB = startPingNode(b, a);
  EXPECT_TRUE(nodeB->waitForOutput("ping #")) << nodeB->output();
  EXPECT_TRUE(nodeA->waitForOutput("pong #")) << nodeA->output();
  EXPECT_TRUE(nodeB->waitForOutput("pong #")) << nodeB->output();
}

}  // namespace
