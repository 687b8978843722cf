// The system zone across real nodes: a master node running the broker server library, and nodes
// whose EUs (BrokerSystemTestEu) publish and subscribe there.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "NodeProcess.h"
#include "TestNamespace.h"

namespace {

using OlmTest::hex;
using OlmTest::NodeProcess;

constexpr auto kPollPeriod = std::chrono::milliseconds(10);
constexpr auto kLivenessTimeout = std::chrono::seconds(10);

class NodeBrokerServer : public ::testing::Test {
 protected:
  std::unique_ptr<NodeProcess> startServer() {
    auto server = std::make_unique<NodeProcess>(
        std::vector<std::string>{"--nid", hex(m_master), "--masternid", hex(m_master), "--wait", "1000", "--load-local",
                                 OLM_TEST_BROKER_SERVER},
        std::vector<std::string>{"OLM_BROKER_SERVER_VERBOSE=1"});
    EXPECT_TRUE(server->waitForOutput("serving the system zone")) << server->output();
    return server;
  }
  std::unique_ptr<NodeProcess> startNode(unsigned nid, const std::string& actions = "") {
    return std::make_unique<NodeProcess>(
        std::vector<std::string>{"--nid", hex(nid), "--masternid", hex(m_master), "--wait", "1000", "--load-local",
                                 OlmTest::libraryPath("BrokerSystemTestEu")},
        std::vector<std::string>{"OLM_BROKER_ACTIONS=" + actions});
  }
  static std::string announced(unsigned nid) { return "node " + hex(nid) + " announced itself"; }
  static std::string subscriber(unsigned nid) { return "0x" + hex(nid).substr(2) + "0702"; }
  static std::string publisher(unsigned nid) { return "0x" + hex(nid).substr(2) + "0704"; }
  static std::string got(unsigned nid, unsigned value, unsigned from) {
    return "subscriber " + subscriber(nid) + " got " + std::to_string(value) + " from " + publisher(from);
  }
  static std::string subscribed(unsigned nid) { return subscriber(nid) + " subscribed 0x3a01"; }

  const unsigned m_master = OlmTest::nextTestNid();
  const unsigned m_a = OlmTest::nextTestNid();
  const unsigned m_b = OlmTest::nextTestNid();
  const unsigned m_c = OlmTest::nextTestNid();
  const unsigned m_driver = OlmTest::nextTestNid();
};

// Lines of different nodes come in any order: whether text was printed times times in all, by
// now or soon.
bool printed(NodeProcess& node, const std::string& text, size_t times = 1) {
  const auto deadline = std::chrono::steady_clock::now() + kLivenessTimeout;
  while (node.countOutput(text) < times) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    node.waitForOutput("\n", kPollPeriod);
  }
  return true;
}

TEST_F(NodeBrokerServer, APublicationOnOneNodeReachesTheSubscribersOfTwoOthers) {
  auto server = startServer();
  auto nodeB = startNode(m_b, "sub0");
  auto nodeC = startNode(m_c, "sub1");
  ASSERT_TRUE(printed(*server, subscribed(m_b))) << server->output();
  ASSERT_TRUE(printed(*server, subscribed(m_c))) << server->output();
  auto nodeA = startNode(m_a, "pub0=7");
  EXPECT_TRUE(nodeB->waitForOutput(got(m_b, 7, m_a))) << nodeB->output();
  EXPECT_TRUE(nodeC->waitForOutput(got(m_c, 7, m_a))) << nodeC->output();
  EXPECT_TRUE(printed(*server, "forwarded to 2 node(s) for 2 subscriber(s)")) << server->output();
}

TEST_F(NodeBrokerServer, LateSubscribersAreServedFromThePublishersStoreAndOneShotEndsWithIt) {
  auto server = startServer();
  auto nodeA = startNode(m_a, "pub1=7");
  ASSERT_TRUE(printed(*server, "publication 0x3a01 of " + publisher(m_a))) << server->output();
  auto nodeB = startNode(m_b, "sub0");
  auto nodeC = startNode(m_c, "sub3");
  EXPECT_TRUE(nodeB->waitForOutput(got(m_b, 7, m_a))) << nodeB->output();
  EXPECT_TRUE(nodeC->waitForOutput(got(m_c, 7, m_a))) << nodeC->output();
  ASSERT_TRUE(printed(*server, subscribed(m_c))) << server->output();

  // The next publication reaches B's kept subscription, and not C, whose one shot is spent.
  auto driver = startNode(m_driver, "tell" + hex(m_a).substr(2) + ":pub1=8");
  EXPECT_TRUE(nodeB->waitForOutput(got(m_b, 8, m_a))) << nodeB->output();
  EXPECT_TRUE(printed(*server, "forwarded to 2 node(s) for 1 subscriber(s)")) << server->output();
  EXPECT_EQ(nodeB->countOutput(" got "), 2u) << nodeB->output();
  EXPECT_EQ(nodeC->countOutput(" got "), 1u) << nodeC->output();
}

TEST_F(NodeBrokerServer, ARestartedNodeIsForgottenAndSubscribesAfresh) {
  if (!OlmTest::deadLockOwnersAreDetected()) GTEST_SKIP() << "no robust futex lists here: a stopped node looks alive";
  auto server = startServer();
  auto nodeB = startNode(m_b, "sub0");
  ASSERT_TRUE(printed(*server, subscribed(m_b))) << server->output();
  nodeB->kill(SIGTERM);
  ASSERT_EQ(nodeB->waitForExit(), 0);
  // The same subscription again: a server that still held the old one would ignore it, and the
  // new proxy would never book it.
  nodeB = startNode(m_b, "sub0");
  ASSERT_TRUE(printed(*server, announced(m_b), 2)) << server->output();
  ASSERT_TRUE(printed(*server, subscribed(m_b), 2)) << server->output();
  auto nodeA = startNode(m_a, "pub0=5");
  EXPECT_TRUE(nodeB->waitForOutput(got(m_b, 5, m_a))) << nodeB->output();
  EXPECT_TRUE(printed(*server, "forwarded to 1 node(s) for 1 subscriber(s)")) << server->output();
}

TEST_F(NodeBrokerServer, AServerStartedAfterTheNodesAsksThemToAnnounceThemselves) {
  auto nodeA = startNode(m_a);
  auto nodeB = startNode(m_b);
  ASSERT_TRUE(OlmTest::waitUntilShownLive(m_a) && OlmTest::waitUntilShownLive(m_b));
  auto server = startServer();
  EXPECT_TRUE(printed(*server, announced(m_a))) << server->output();
  EXPECT_TRUE(printed(*server, announced(m_b))) << server->output();
  auto driver = startNode(m_driver, "tell" + hex(m_b).substr(2) + ":sub0 tell" + hex(m_a).substr(2) + ":pub1=9");
  EXPECT_TRUE(nodeB->waitForOutput(got(m_b, 9, m_a))) << nodeB->output() << server->output();
}

}  // namespace
