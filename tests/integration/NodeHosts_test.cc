// Nodes on two hosts: each host a network namespace with a /dev/shm of its own, joined by a
// virtual Ethernet link, with real node processes talking through the hosts' bridges over TCP.
// A third host is in the map but never comes up.
#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <memory>
#include <string>

#include "NodeProcess.h"
#include "Rhyddal.h"
#include "TestHost.h"
#include "TestNamespace.h"
#include "WireNode.h"

#if defined(__SANITIZE_THREAD__)
// The bridges hand message bytes to and take them from libzmq, whose own synchronisation the
// sanitizer cannot see (the library is not instrumented).
extern "C" const char* __tsan_default_suppressions() { return "called_from_lib:libzmq.so\nrace:libzmq.so\n"; }
#endif

namespace {

using OlmTest::hex;
using OlmTest::NodeProcess;
using OlmTest::TestHost;
using OlmTest::WireNode;

constexpr char kAddressA[] = "169.254.52.1";
constexpr char kAddressB[] = "169.254.52.2";
constexpr char kAddressDown[] = "169.254.52.3";  // host C: on the link's subnet, never answers
constexpr uint16_t kStatisticsCpid = 0x0610;       // echoes every message to its sender
constexpr uint16_t kTestCpid = 0x0700;
constexpr uint16_t kTestMsgId = 0x3A77;
constexpr uint32_t kHeaderBytes = 16;
constexpr uint32_t kLargestMessage = 65535;
constexpr uint32_t kInFlight = 8;  // 8 of the largest fill half a sender's lane in the bridge's mailbox
constexpr auto kReachableWithin = std::chrono::seconds(15);
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
// Two gigabytes each way through instrumented copies would take minutes: every 29th length there.
constexpr uint32_t kLengthStep = 29;
#else
constexpr uint32_t kLengthStep = 1;
#endif
constexpr uint32_t kLengths = (kLargestMessage - kHeaderBytes + kLengthStep - 1) / kLengthStep + 1;

// The index-th length: from the smallest message up in steps, the last one the largest.
uint32_t lengthAt(uint32_t index) { return std::min(kHeaderBytes + index * kLengthStep, kLargestMessage); }

uint32_t sic(uint16_t nid, uint16_t cpid) { return uint32_t{nid} << 16 | cpid; }

class NodeHosts : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!OlmTest::deadLockOwnersAreDetected()) GTEST_SKIP() << "under emulation: no hosts of their own here";
    const std::string why = OlmTest::whyHostsCannotBeMade();
    if (!why.empty()) GTEST_SKIP() << why;
    m_a = std::make_unique<TestHost>();
    m_b = std::make_unique<TestHost>();
    ASSERT_TRUE(m_a->ok() && m_b->ok());
    ASSERT_TRUE(OlmTest::joinHosts(*m_a, kAddressA, *m_b, kAddressB));
    m_map = "/tmp/olm-hosts-map-" + OlmTest::testNamespace();
    std::ofstream(m_map) << "# node ids    endpoint\n"
                         << "0x1000-0x1fff tcp://" << kAddressA << ":5601\n"
                         << "0x2000-0x2fff tcp://" << kAddressB << ":5601\n"
                         << "0x3000-0x3fff tcp://" << kAddressDown << ":5601\n";
  }
  void TearDown() override { std::remove(m_map.c_str()); }

  std::unique_ptr<NodeProcess> startNode(const TestHost& host, uint16_t nid, const std::vector<std::string>& extra = {},
                                         const std::vector<std::string>& environment = {}) {
    std::vector<std::string> args{"--nid", hex(nid), "--wait", "0"};
    args.insert(args.end(), extra.begin(), extra.end());
    std::vector<std::string> variables{"RHYDDAL_NODE_MAP=" + m_map};
    variables.insert(variables.end(), environment.begin(), environment.end());
    return std::make_unique<NodeProcess>(args, variables, [&host] {
      if (!host.enter()) _exit(125);
    });
  }

  // body in a child process that is a process of host; its exit status.
  int inHost(const TestHost& host, const std::function<int()>& body) {
    return OlmTest::exitStatusOfChild([&] {
      if (!host.enter()) return 125;
      setenv("RHYDDAL_NODE_MAP", m_map.c_str(), 1);
      return body();
    });
  }

  std::unique_ptr<TestHost> m_a, m_b;
  std::string m_map;
};

// Sends a message of length bytes whose payload depends on seq, retrying while its receiver is
// not reachable yet; false when that lasts, or for any other failure.
bool sendOnceReachable(WireNode& node, uint32_t receiver, uint32_t length, uint32_t seq) {
  const auto deadline = std::chrono::steady_clock::now() + kReachableWithin;
  for (;;) {
    void* message = WireNode::newMessage(kTestMsgId, receiver, sic(node.nid(), kTestCpid), length - kHeaderBytes);
    if (message == nullptr) return false;
    auto* payload = static_cast<uint8_t*>(message) + kHeaderBytes;
    for (uint32_t i = 0; i < length - kHeaderBytes; ++i) payload[i] = static_cast<uint8_t>(seq * 13 + i);
    const int rc = vakem_send(message, receiver);
    if (rc == 0) return true;
    vakem_free(message);
    if (rc != -EHOSTUNREACH || std::chrono::steady_clock::now() > deadline) return false;
    vakem_wait_for_event(0, 10 * 1000 * 1000);
  }
}

bool isEchoOf(const WireNode::Message& echo, uint32_t length, uint32_t seq) {
  if (echo.payload.size() != length - kHeaderBytes) return false;
  for (size_t i = 0; i < echo.payload.size(); ++i) {
    if (echo.payload[i] != static_cast<uint8_t>(seq * 13 + i)) return false;
  }
  return true;
}

TEST_F(NodeHosts, NodesOnTwoHostsPingEachOther) {
  auto nodeA = startNode(*m_a, 0x1011, {"--load-local", OlmTest::pingEuPath()},
                         {"OLM_PING_PEER=0x2011", "OLM_PING_PERIOD_MS=50"});
  auto nodeB = startNode(*m_b, 0x2011, {"--load-local", OlmTest::pingEuPath()},
                         {"OLM_PING_PEER=0x1011", "OLM_PING_PERIOD_MS=50"});
  EXPECT_TRUE(nodeA->waitForOutput("pong #")) << nodeA->output();
  EXPECT_TRUE(nodeA->waitForOutput("ping #")) << nodeA->output();
  EXPECT_TRUE(nodeB->waitForOutput("pong #")) << nodeB->output();
  EXPECT_TRUE(nodeB->waitForOutput("from node 0x1011")) << nodeB->output();
}

// A node of the test on host A sends messages of every length to the statistics EU of a real node
// on host B, a few in flight, and checks each echo in order, byte for byte.
TEST_F(NodeHosts, MessagesOfEveryLengthCrossToAnotherHostAndBackInOrder) {
  auto echoNode = startNode(*m_b, 0x2021);
  const int status = inHost(*m_a, [] {
    WireNode node(0x1021);
    if (!node.ok()) return 1;
    const uint32_t echo = sic(0x2021, kStatisticsCpid);
    uint32_t next = 0;  // index of the next message to send
    for (uint32_t index = 0; index < kLengths; ++index) {
      for (; next < kLengths && next < index + kInFlight; ++next) {
        if (!sendOnceReachable(node, echo, lengthAt(next), next)) {
          std::fprintf(stderr, "send of %u bytes failed\n", lengthAt(next));
          return 2;
        }
      }
      WireNode::Message reply;
      if (!node.receive(kTestMsgId, reply) || !isEchoOf(reply, lengthAt(index), index)) {
        std::fprintf(stderr, "echo of %u bytes missing or wrong\n", lengthAt(index));
        return 3;
      }
    }
    return 0;
  });
  EXPECT_EQ(status, 0) << echoNode->output();
}

// Host C is in the map but down; node 0x2032 of host B never starts.
TEST_F(NodeHosts, ASendToANodeOnAHostThatIsDownOrNotRunningFailsAtOnce) {
  auto running = startNode(*m_b, 0x2031);
  const int status = inHost(*m_a, [] {
    WireNode node(0x1031);
    if (!node.ok()) return 1;
    if (!sendOnceReachable(node, sic(0x2031, kStatisticsCpid), 64, 1)) return 2;  // host B is up
    for (const uint16_t unreachable : {0x3031, 0x2032}) {
      void* message = WireNode::newMessage(kTestMsgId, sic(unreachable, kTestCpid), sic(0x1031, kTestCpid), 64);
      const int rc = vakem_send(message, sic(unreachable, kTestCpid));
      vakem_free(message);
      if (rc != -EHOSTUNREACH) return 3;
    }
    return 0;
  });
  EXPECT_EQ(status, 0) << running->output();
}

}  // namespace
