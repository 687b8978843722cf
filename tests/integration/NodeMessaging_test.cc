// Nodes talking through the host platform: real processes, each running the example PingEu.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <memory>

#include "NodeProcess.h"
#include "TestNamespace.h"

namespace {

using OlmTest::hex;
using OlmTest::NodeProcess;

// A verbose node without its history log prints every message it hands to the transport as
// "->Output(".
constexpr const char kSendTrace[] = "->Output(";
constexpr int kPingsIntoTheVoid = 3;

std::unique_ptr<NodeProcess> startPingNode(unsigned nid, unsigned peer, bool verbose = false) {
  std::vector<std::string> args{"--nid", hex(nid), "--wait", "1000", "--load-local", OlmTest::pingEuPath()};
  if (verbose) args.insert(args.end(), {"--verbose", "--nohistory"});
  return std::make_unique<NodeProcess>(args, std::vector<std::string>{"OLM_PING_PEER=" + hex(peer), "OLM_PING_PERIOD_MS=50"});
}

// Waits until the node has handed this many more messages to the transport.
bool sendsMore(NodeProcess& node, int sends) {
  for (int i = 0; i < sends; ++i) {
    if (!node.waitForOutput(kSendTrace)) return false;
  }
  return true;
}


TEST(NodeMessaging, TwoNodesExchangePingsAndPongs) {
  const unsigned a = OlmTest::nextTestNid(), b = OlmTest::nextTestNid();
  auto nodeA = startPingNode(a, b);
  auto nodeB = startPingNode(b, a);
  EXPECT_TRUE(nodeA->waitForOutput("pong #")) << nodeA->output();
  EXPECT_TRUE(nodeB->waitForOutput("pong #")) << nodeB->output();
  EXPECT_TRUE(nodeA->waitForOutput("from node " + hex(b))) << nodeA->output();
  EXPECT_TRUE(nodeB->waitForOutput("ping #")) << nodeB->output();
}

TEST(NodeMessaging, SendingToANodeThatIsNotRunningDropsTheMessagesAndTheSenderCarriesOn) {
  const unsigned a = OlmTest::nextTestNid(), absent = OlmTest::nextTestNid();
  auto nodeA = startPingNode(a, absent, true);
  ASSERT_TRUE(sendsMore(*nodeA, kPingsIntoTheVoid)) << nodeA->output();
  EXPECT_EQ(nodeA->countOutput("pong #"), 0u);
  EXPECT_TRUE(nodeA->running());
  // Once the peer exists, the same sends go through.
  auto nodeB = startPingNode(absent, a);
  EXPECT_TRUE(nodeA->waitForOutput("pong #")) << nodeA->output();
}

TEST(NodeMessaging, NodeKilledAndRestartedWhilePeerKeepsSendingIsReachedAgain) {
  if (!OlmTest::deadLockOwnersAreDetected()) GTEST_SKIP() << "no robust futex lists here: a killed node looks alive";
  const unsigned a = OlmTest::nextTestNid(), b = OlmTest::nextTestNid();
  auto nodeA = startPingNode(a, b, true);
  auto nodeB = startPingNode(b, a);
  ASSERT_TRUE(nodeA->waitForOutput("pong #")) << nodeA->output();

  nodeB->kill(SIGKILL);
  nodeB->waitForExit();
  // While B is gone A keeps pinging into the void.
  ASSERT_TRUE(sendsMore(*nodeA, kPingsIntoTheVoid)) << nodeA->output();
  EXPECT_TRUE(nodeA->running());

  nodeB = startPingNode(b, a);
  EXPECT_TRUE(nodeB->waitForOutput("ping #")) << nodeB->output();
  EXPECT_TRUE(nodeA->waitForOutput("pong #")) << nodeA->output();
  EXPECT_TRUE(nodeB->waitForOutput("pong #")) << nodeB->output();
}

}  // namespace
