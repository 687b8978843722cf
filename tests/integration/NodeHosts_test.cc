// Nodes on several hosts: each host a network namespace with a /dev/shm of its own, all on one
// virtual Ethernet segment, with real node processes talking through the hosts' bridges over TCP.
// Hosts A, B and C come up; a fourth, D, is in the map but never does. Messages of every length
// cross; broker publications, R&D parameters and system log lines cross with nothing changed above
// the platform; and what goes wrong between hosts: a node restarted, the link down and up again, a
// peer sending what is not of the bridges' protocol.
#include <gtest/gtest.h>
#include <signal.h>
#include <zmq.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "BridgeWire.h"
#include "NodeProcess.h"
#include "Rhyddal.h"
#include "TestHost.h"
#include "TestNamespace.h"
#include "WireNode.h"

#if defined(__SANITIZE_THREAD__)
// The bridges hand message bytes to and take them from libzmq (and, on links with keys, libsodium
// decrypts them in libzmq's threads), whose own synchronisation the sanitizer cannot see: neither
// library is instrumented.
extern "C" const char* __tsan_default_suppressions() { return "called_from_lib:libzmq.so\nrace:libzmq.so\ncalled_from_lib:libsodium.so\nrace:libsodium.so\n"; }
#endif

namespace {

using OlmTest::hex;
using OlmTest::NodeProcess;
using OlmTest::TestHost;
using OlmTest::WireNode;

constexpr char kAddressA[] = "169.254.52.1";
constexpr char kAddressB[] = "169.254.52.2";
constexpr char kAddressC[] = "169.254.52.3";
constexpr char kAddressDown[] = "169.254.52.4";  // host D: on the segment's subnet, never answers
constexpr uint16_t kStatisticsCpid = 0x0610;       // echoes every message to its sender
constexpr uint16_t kTestCpid = 0x0700;
constexpr uint16_t kMasterNid = 0x30F0;
constexpr uint16_t kTestMsgId = 0x3A77;
constexpr uint16_t kSequencedMsgId = 0x3A78;
constexpr uint16_t kForgedMsgId = 0x3A79;
constexpr char kBridgePort[] = "5601";
constexpr auto kSendPeriodNs = 1000 * 1000;
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

std::string endpointOf(const char* address) { return std::string("tcp://") + address + ":" + kBridgePort; }

class NodeHosts : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!OlmTest::deadLockOwnersAreDetected()) GTEST_SKIP() << "under emulation: no hosts of their own here";
    const std::string why = OlmTest::whyHostsCannotBeMade();
    if (!why.empty()) GTEST_SKIP() << why;
    m_switch = std::make_unique<TestHost>();
    m_a = std::make_unique<TestHost>();
    m_b = std::make_unique<TestHost>();
    m_c = std::make_unique<TestHost>();
    ASSERT_TRUE(m_switch->ok() && m_a->ok() && m_b->ok() && m_c->ok());
    ASSERT_TRUE(OlmTest::makeSwitch(*m_switch));
    ASSERT_TRUE(OlmTest::plugIn(*m_switch, *m_a, kAddressA, "to-a") && OlmTest::plugIn(*m_switch, *m_b, kAddressB, "to-b") &&
                OlmTest::plugIn(*m_switch, *m_c, kAddressC, "to-c"));
    m_map = "/tmp/olm-hosts-map-" + OlmTest::testNamespace();
    std::ofstream(m_map) << "# node ids    endpoint\n"
                         << "0x1000-0x101c " << endpointOf(kAddressA) << "\n"
                         << "0x101d        " << endpointOf(kAddressB) << "  # the log collector of nodes 0x1010-0x101f\n"
                         << "0x101e-0x1fff " << endpointOf(kAddressA) << "\n"
                         << "0x2000-0x2fff " << endpointOf(kAddressB) << "\n"
                         << "0x3000-0x3fff " << endpointOf(kAddressC) << "\n"
                         << "0x4000-0x4fff " << endpointOf(kAddressDown) << "\n";
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

  // A program (olm-controller, olmctl) running on host with the map, while the test watches it.
  std::unique_ptr<NodeProcess> startProgram(const TestHost& host, const std::vector<std::string>& command,
                                            const std::vector<std::string>& environment = {}) {
    std::vector<std::string> variables{"RHYDDAL_NODE_MAP=" + m_map};
    variables.insert(variables.end(), environment.begin(), environment.end());
    return std::make_unique<NodeProcess>(NodeProcess::Program{command}, variables, [&host] {
      if (!host.enter()) _exit(125);
    });
  }
  // olmctl run on host to its end, with the master node kMasterNid.
  OlmTest::ProgramRun olmctlOn(const TestHost& host, const std::vector<std::string>& args) {
    std::vector<std::string> command{OLM_TEST_OLMCTL, "--master", hex(kMasterNid)};
    command.insert(command.end(), args.begin(), args.end());
    return OlmTest::runProgram(command, [&] {
      if (!host.enter()) _exit(125);
      setenv("RHYDDAL_NODE_MAP", m_map.c_str(), 1);
    });
  }

  // body in a child process that is a process of host; its exit status.
  int inHost(const TestHost& host, const std::function<int()>& body) { return OlmTest::exitStatusOf(startInHost(host, body)); }
  // The same, running on while the test goes on: exitStatusOf(pid) waits for it.
  pid_t startInHost(const TestHost& host, const std::function<int()>& body) {
    return OlmTest::startChild([&] {
      if (!host.enter()) return 125;
      setenv("RHYDDAL_NODE_MAP", m_map.c_str(), 1);
      return body();
    });
  }
  // The master node on host C, with the broker server and whatever else extra loads.
  std::unique_ptr<NodeProcess> startMaster(const std::vector<std::string>& extra = {}) {
    std::vector<std::string> args{"--masternid", hex(kMasterNid), "--load-local", OLM_TEST_BROKER_SERVER};
    args.insert(args.end(), extra.begin(), extra.end());
    auto master = startNode(*m_c, kMasterNid, args, {"OLM_BROKER_SERVER_VERBOSE=1"});
    EXPECT_TRUE(master->waitUntilPrinted("serving the system zone")) << master->output();
    return master;
  }

  // The host's link to the others taken down or up.
  static bool setLink(const TestHost& host, const char* state) {
    return host.run({"/usr/sbin/ip", "link", "set", OlmTest::kLinkName, state}) == 0;
  }

  std::unique_ptr<TestHost> m_switch, m_a, m_b, m_c;
  std::string m_map;
};

// Sends a message of length bytes whose payload depends on seq, retrying while its receiver is
// not reachable yet; false when that lasts, or for any other failure.
bool sendOnceReachable(WireNode& node, uint32_t receiver, uint32_t length, uint32_t seq,
                       std::chrono::seconds within = kReachableWithin) {
  const auto deadline = std::chrono::steady_clock::now() + within;
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

// Host D is in the map but down; node 0x2032 of host B never starts.
TEST_F(NodeHosts, ASendToANodeOnAHostThatIsDownOrNotRunningFailsAtOnce) {
  auto running = startNode(*m_b, 0x2031);
  const int status = inHost(*m_a, [] {
    WireNode node(0x1031);
    if (!node.ok()) return 1;
    if (!sendOnceReachable(node, sic(0x2031, kStatisticsCpid), 64, 1)) return 2;  // host B is up
    for (const uint16_t unreachable : {0x4031, 0x2032}) {
      void* message = WireNode::newMessage(kTestMsgId, sic(unreachable, kTestCpid), sic(0x1031, kTestCpid), 64);
      const int rc = vakem_send(message, sic(unreachable, kTestCpid));
      vakem_free(message);
      if (rc != -EHOSTUNREACH) return 3;
    }
    return 0;
  });
  EXPECT_EQ(status, 0) << running->output();
}

// As a peer that is no bridge: a DEALER socket calling itself routingId, connected to endpoint,
// sending each message's frames; true once all are handed to the connection.
using RawMessage = std::vector<std::pair<const void*, size_t>>;
bool sendAsRawPeer(const std::string& endpoint, const std::string& routingId, const std::vector<RawMessage>& messages) {
  constexpr int kLingerMs = 10000;
  void* context = zmq_ctx_new();
  void* socket = zmq_socket(context, ZMQ_DEALER);
  zmq_setsockopt(socket, ZMQ_ROUTING_ID, routingId.data(), routingId.size());
  zmq_setsockopt(socket, ZMQ_LINGER, &kLingerMs, sizeof(kLingerMs));
  bool sent = zmq_connect(socket, endpoint.c_str()) == 0;
  for (const RawMessage& message : messages) {
    for (size_t i = 0; i < message.size() && sent; ++i) {
      sent = zmq_send(socket, message[i].first, message[i].second, i + 1 < message.size() ? ZMQ_SNDMORE : 0) >= 0;
    }
  }
  zmq_close(socket);
  zmq_ctx_term(context);
  return sent;
}

// The broker's system zone across hosts, nothing changed above the platform: a publication of a
// node on host A reaches a subscriber on host B through the broker server on host C, which passes
// it on with the publisher as sender.
TEST_F(NodeHosts, ABrokerPublicationReachesASubscriberOnAnotherHostThroughTheServerOnAThird) {
  auto master = startMaster();
  const auto brokerNode = [&](const TestHost& host, uint16_t nid, const std::string& actions) {
    return startNode(host, nid, {"--masternid", hex(kMasterNid), "--load-local", OlmTest::libraryPath("BrokerSystemTestEu")},
                     {"OLM_BROKER_ACTIONS=" + actions});
  };
  auto subscriber = brokerNode(*m_b, 0x2071, "sub0");
  ASSERT_TRUE(master->waitUntilPrinted("0x20710702 subscribed 0x3a01")) << master->output();
  auto publisher = brokerNode(*m_a, 0x1071, "pub0=7");
  EXPECT_TRUE(subscriber->waitUntilPrinted("subscriber 0x20710702 got 7 from 0x10710704"))
      << subscriber->output() << master->output();
}

// An R&D parameter of a node on host B, read and written with olmctl on host A through the R&D
// master on host C. olmctl serves a node id of its own, 0x1ff0 to 0x1ff7, which the map places on
// host A, so the master's answers find their way back.
TEST_F(NodeHosts, OlmctlOnOneHostReadsAndWritesTheParametersOfANodeOnAnotherThroughTheMasterOnAThird) {
  auto master = startMaster({"--load-local", OLM_TEST_RAD_MASTER});
  ASSERT_TRUE(master->waitUntilPrinted("R&D master: serving on node")) << master->output();
  auto news = startNode(*m_b, 0x2081, {"--masternid", hex(kMasterNid), "--load-local", OLM_TEST_NEWS_EU});
  ASSERT_TRUE(master->waitUntilPrinted("R&D master: node 0x2081 registered domain 50 with 2 parameters")) << master->output();
  const OlmTest::ProgramRun set = olmctlOn(*m_a, {"rad", "set", "0x2081", "50:0", "500"});
  EXPECT_EQ(set.status, 0) << set.err;
  EXPECT_TRUE(news->waitUntilPrinted("NewsPeriodMs set to 500")) << news->output();
  const OlmTest::ProgramRun get = olmctlOn(*m_a, {"rad", "get", "0x2081", "50:0"});
  EXPECT_EQ(get.status, 0) << get.err;
  EXPECT_EQ(get.out,
            "INDEX   VALUE                    DEFAULT\n"
            "0x0000  0x000001f4 (500)         0x000007d0 (2000)\n");
}

// System log lines of node 0x1011 on host A go to its group's collector, node 0x101d, which the map
// places on host B.
TEST_F(NodeHosts, SystemLogLinesReachTheGroupsCollectorOnAnotherHost) {
  auto collector = startNode(*m_b, 0x101D, {"--load-local", OLM_TEST_SYSLOG_PRINTER_EU});
  auto logging = startNode(*m_a, 0x1011, {"--load-local", OlmTest::pingEuPath()},
                           {"OLM_PING_PEER=0x1012", "OLM_PING_PERIOD_MS=20"});
  auto peer = startNode(*m_a, 0x1012, {"--load-local", OlmTest::pingEuPath()}, {"OLM_PING_PEER=0x1011", "OLM_PING_PERIOD_MS=20"});
  EXPECT_TRUE(collector->waitUntilPrinted("PingEu: 10 pongs from node 0x1012")) << collector->output() << logging->output();
}

// The controller on host C and the agent of host B (olm-controller --agent): the controller sees
// the nodes of host B come and go and prints their lines, which they send to their group's
// collector id on their own host, where the agent takes them, beside those of its own host's node
// 0x3011; olmctl on host A lists them with their host, pings one and sends it a message, reads their
// load and history log through the agent's RAM file server, and follows their lines.
TEST_F(NodeHosts, TheControllerSeesTheNodesAndLinesOfAnotherHostThroughThatHostsAgent) {
  auto controller = startProgram(*m_c, {OLM_TEST_CONTROLLER, "--nid", hex(kMasterNid)});
  ASSERT_TRUE(controller->waitUntilPrinted("log collector: collecting the system log on node " + hex(kMasterNid)))
      << controller->output();
  // Host B's agent and nodes share one RAM root, as a host's processes do.
  auto agent = startProgram(*m_b, {OLM_TEST_CONTROLLER, "--agent", "--nid", "0x20f0", "--master", hex(kMasterNid)});
  const std::string ramRoot = "OLM_RAM_ROOT=" + agent->workingArea();
  ASSERT_TRUE(agent->waitUntilPrinted("for the controller, node " + hex(kMasterNid))) << agent->output();
  // PingEu prints every ping and pong to the node's output, a pipe this test reads only while it
  // waits for a line: at a few lines a second it holds far more than this test runs, where every
  // 20 ms it filled within the test and stalled the node in its write.
  auto pinger = startNode(*m_b, 0x2011, {"--masternid", hex(kMasterNid), "--load-local", OlmTest::pingEuPath()},
                          {"OLM_PING_PEER=0x2012", "OLM_PING_PERIOD_MS=200", ramRoot});
  auto peer = startNode(*m_b, 0x2012, {"--masternid", hex(kMasterNid), "--load-local", OlmTest::pingEuPath()},
                        {"OLM_PING_PEER=0x2011", "OLM_PING_PERIOD_MS=200", ramRoot});
  auto local = startNode(*m_c, 0x3011, {"--masternid", hex(kMasterNid), "--load-local", OlmTest::pingEuPath()},
                         {"OLM_PING_PEER=0x2012", "OLM_PING_PERIOD_MS=200"});
  EXPECT_TRUE(agent->waitUntilPrinted("collecting the lines of group 0x2010, sent to node 0x201d")) << agent->output();
  EXPECT_TRUE(controller->waitUntilPrinted("log collector: node 0x2011 appeared")) << controller->output();
  // Lines as the nodes wrote them ("2011 <time> ..."), after the sending node and the LTE time of
  // arrival. What a node logs before its group's collector id is taken is lost: any line will do.
  EXPECT_TRUE(controller->waitUntilPrinted("] 2011 <")) << controller->output();
  EXPECT_NE(controller->output().find("\n0x2011 ["), std::string::npos) << "lines carry the sending node";
  EXPECT_TRUE(controller->waitUntilPrinted("] 3011 <")) << "and those of its own host: " << controller->output();

  const OlmTest::ProgramRun nodes = olmctlOn(*m_a, {"nodes", "--json"});
  EXPECT_EQ(nodes.status, 0) << nodes.err;
  EXPECT_NE(nodes.out.find("{\"node\":8209,\"host\":\"" + endpointOf(kAddressB) + "\",\"answers\":true"),
            std::string::npos)
      << nodes.out;
  const OlmTest::ProgramRun ping = olmctlOn(*m_a, {"ping", "-c", "2", "-i", "10", "0x2011"});
  EXPECT_EQ(ping.status, 0) << ping.err;
  EXPECT_NE(ping.out.find("2 sent, 2 received, 0% loss"), std::string::npos) << ping.out;
  const OlmTest::ProgramRun send = olmctlOn(*m_a, {"send", "0x20110610", "0x7001", "0a000000", "--wait"});
  EXPECT_EQ(send.status, 0) << send.err;
  EXPECT_NE(send.out.find("reply 0x7001 to "), std::string::npos) << send.out;
  const OlmTest::ProgramRun stats = olmctlOn(*m_a, {"stats", "0x2011", "-i", "200", "--json"});
  EXPECT_EQ(stats.status, 0) << stats.err;
  EXPECT_NE(stats.out.find("\"sinceStartUp\":{"), std::string::npos) << stats.out;
  const OlmTest::ProgramRun top = olmctlOn(*m_a, {"top", "-n", "2", "-i", "200"});
  EXPECT_EQ(top.status, 0) << top.err;
  const std::string lastTable = top.out.substr(top.out.rfind("NODE"));
  for (const char* nid : {"0x2011 ", "0x2012 ", "0x20f0 "}) {
    const size_t row = lastTable.find(std::string("\n") + nid);
    ASSERT_NE(row, std::string::npos) << nid << " missing from\n" << top.out;
    EXPECT_NE(lastTable.substr(row, lastTable.find('\n', row + 1) - row).find('.'), std::string::npos)
        << "no load read for " << nid << " in\n" << top.out;
  }
  const OlmTest::ProgramRun history = olmctlOn(*m_a, {"history", "0x2011"});
  EXPECT_EQ(history.status, 0) << history.err;
  EXPECT_NE(history.out.find("*********** End history *************"), std::string::npos) << history.out.substr(0, 500);

  const OlmTest::ProgramRun fromB = olmctlOn(*m_b, {"ping", "-c", "1", hex(kMasterNid)});
  EXPECT_EQ(fromB.status, 0) << "on host B the tool takes an id of B's, not one of 0x1ff0-0x1ff7: " << fromB.err;
  const OlmTest::ProgramRun log = olmctlOn(*m_a, {"log", "-n", "1", "0x2011"});
  EXPECT_EQ(log.status, 0) << log.err;
  EXPECT_NE(log.out.find("PingEu: "), std::string::npos) << log.out;

  peer->kill(SIGKILL);
  EXPECT_TRUE(controller->waitUntilPrinted("log collector: node 0x2012 gone")) << controller->output();
  EXPECT_EQ(controller->countOutput("node 0x201d appeared"), 0u) << "an alias is no node";
}

// A sequenced message: its sequence number first, then bytes that depend on it, the length too.
void* newSequenced(uint32_t receiver, uint32_t sender, uint32_t seq) {
  const uint32_t size = sizeof(seq) + seq % 61 * 17;
  void* message = WireNode::newMessage(kSequencedMsgId, receiver, sender, size);
  if (message == nullptr) return nullptr;
  auto* payload = static_cast<uint8_t*>(message) + kHeaderBytes;
  std::memcpy(payload, &seq, sizeof(seq));
  for (uint32_t i = sizeof(seq); i < size; ++i) payload[i] = static_cast<uint8_t>(seq * 7 + i);
  return message;
}

// Whether the message is a sequenced one, whole and unchanged; its sequence number in *seq.
bool isIntactSequenced(const WireNode::Message& message, uint32_t* seq) {
  if (message.payload.size() < sizeof(*seq)) return false;
  std::memcpy(seq, message.payload.data(), sizeof(*seq));
  if (message.payload.size() != sizeof(*seq) + *seq % 61 * 17) return false;
  for (size_t i = sizeof(*seq); i < message.payload.size(); ++i) {
    if (message.payload[i] != static_cast<uint8_t>(*seq * 7 + i)) return false;
  }
  return true;
}

// Receives count sequenced messages, each intact and numbered above the one before and above
// after; the last number, or 0 when one was missing, damaged, repeated or out of order.
uint32_t receiveSequenced(WireNode& node, uint32_t count, uint32_t after) {
  uint32_t last = after;
  for (uint32_t i = 0; i < count; ++i) {
    WireNode::Message message;
    uint32_t seq = 0;
    if (!node.receive(kSequencedMsgId, message) || !isIntactSequenced(message, &seq) || seq <= last) {
      std::fprintf(stderr, "sequenced message %u after %u: missing, damaged or out of order (%u)\n", i, last, seq);
      return 0;
    }
    last = seq;
  }
  return last;
}

// Node 0x2041 on host B stops taking messages and is killed while node 0x1041 on host A sends to it
// every millisecond; started again under the same node id it is reached again, and it gets only
// messages sent after those its predecessor took, each whole, none twice. Node 0x2040 keeps the
// host's bridge meanwhile.
TEST_F(NodeHosts, ANodeRestartedOnAnotherHostIsReachedAgainWithNothingDuplicatedOrDamaged) {
  constexpr uint32_t kMessagesPerLife = 200;
  const uint16_t receiverNid = 0x2041;
  auto keeper = startNode(*m_b, 0x2040);
  ASSERT_TRUE(keeper->waitForOutput("bridge of " + endpointOf(kAddressB))) << keeper->output();
  OlmTest::Signal took, stop;
  const auto receiver = [&](uint32_t after) {
    return startInHost(*m_b, [&, after] {
      WireNode node(receiverNid);
      const uint32_t last = node.ok() ? receiveSequenced(node, kMessagesPerLife, after) : 0;
      took.send(last);
      pause();
      return 0;
    });
  };
  const pid_t first = receiver(0);
  const pid_t sender = startInHost(*m_a, [&] {
    WireNode node(0x1041);
    if (!node.ok()) return 1;
    const uint32_t to = sic(receiverNid, kTestCpid);
    for (uint32_t seq = 1; stop.wait(std::chrono::milliseconds(0)) == 0; ++seq) {
      void* message = newSequenced(to, sic(node.nid(), kTestCpid), seq);
      const int rc = vakem_send(message, to);
      if (rc != 0) vakem_free(message);
      if (rc != 0 && rc != -EHOSTUNREACH && rc != -ENOBUFS) return 2;
      vakem_wait_for_event(0, kSendPeriodNs);
    }
    return 0;
  });
  const uint64_t lastBefore = took.wait();
  kill(first, SIGKILL);
  OlmTest::exitStatusOf(first);
  ASSERT_NE(lastBefore, 0u) << keeper->output();
  const pid_t second = receiver(static_cast<uint32_t>(lastBefore));
  EXPECT_NE(took.wait(), 0u) << keeper->output();
  kill(second, SIGKILL);
  OlmTest::exitStatusOf(second);
  stop.send();
  EXPECT_EQ(OlmTest::exitStatusOf(sender), 0);
}

// Node 0x1051 on host A reaches the echoing node 0x2051 on host B; then A's end of the link goes
// down. Once host B has been silent long enough to count as down, sends to it fail at once, so a
// loop of them ends; with the link up again the echoes resume, of what was sent before too, each
// whole and in order.
TEST_F(NodeHosts, WhileTheLinkIsDownSendsFailAtOnceAndTrafficResumesWhenItIsBack) {
  constexpr uint32_t kFailingSends = 1000;
  // What goes out before host B counts as down arrives there in one burst when the link is back:
  // a few hundred, well within what the echoing node's queue holds (1023).
  constexpr uint32_t kSlowSendPeriodNs = 10 * kSendPeriodNs;
  constexpr auto kCountedDownWithin = std::chrono::seconds(30);
  // Over a connection that outlived the outage, TCP's retransmission backs off for seconds; one
  // that did not is made again.
  constexpr auto kBackWithin = std::chrono::seconds(60);
  auto echoNode = startNode(*m_b, 0x2051);
  OlmTest::Signal reached, linkDown, sendsFail, linkUp;
  const pid_t sender = startInHost(*m_a, [&] {
    WireNode node(0x1051);
    const uint32_t echo = sic(0x2051, kStatisticsCpid), self = sic(0x1051, kTestCpid);
    uint32_t seq = 1, echoed = 0;
    WireNode::Message reply;
    if (!node.ok() || !sendOnceReachable(node, echo, 64, 0) || !node.receive(kTestMsgId, reply)) return 1;
    reached.send();
    if (linkDown.wait() == 0) return 2;
    const auto deadline = std::chrono::steady_clock::now() + kCountedDownWithin;
    for (int rc = 0; rc != -EHOSTUNREACH; ++seq) {
      void* message = newSequenced(echo, self, seq);
      rc = vakem_send(message, echo);
      if (rc != 0) vakem_free(message);
      if ((rc != 0 && rc != -EHOSTUNREACH) || std::chrono::steady_clock::now() > deadline) return 3;
      vakem_wait_for_event(0, kSlowSendPeriodNs);
    }
    for (uint32_t i = 0; i < kFailingSends; ++i) {
      void* message = newSequenced(echo, self, seq);
      const int rc = vakem_send(message, echo);
      vakem_free(message);
      if (rc != -EHOSTUNREACH) return 4;
    }
    sendsFail.send();
    if (linkUp.wait() == 0 || !sendOnceReachable(node, echo, 64, seq, kBackWithin)) return 5;
    // Echoes of what went out before the host counted as down may come first.
    for (uint32_t previous = 0; node.receiveAny(reply); previous = echoed) {
      if (reply.id == kTestMsgId) return isEchoOf(reply, 64, seq) ? 0 : 6;
      if (reply.id == kSequencedMsgId && (!isIntactSequenced(reply, &echoed) || echoed <= previous)) return 7;
    }
    return 8;
  });
  ASSERT_NE(reached.wait(), 0u) << echoNode->output();
  ASSERT_TRUE(setLink(*m_a, "down"));
  linkDown.send();
  EXPECT_NE(sendsFail.wait(), 0u);
  ASSERT_TRUE(setLink(*m_a, "up"));
  linkUp.send();
  EXPECT_EQ(OlmTest::exitStatusOf(sender), 0) << echoNode->output();
}

// A raw ZeroMQ peer on host A's link, calling itself host D (down, in the map) or no host at all,
// sends host B's bridge what is not of the bridges' protocol, or speaks for nodes not its own; all
// of it addressed to node 0x2061, which echoes to node 0x1061 whatever reaches it. Host B's bridge
// drops it all, saying so, and node 0x1061 on host A, whose traffic goes on, never sees any of it.
TEST_F(NodeHosts, WhatARawPeerSendsOutsideTheProtocolIsDroppedAndTheBridgeGoesOn) {
  auto echoNode = startNode(*m_b, 0x2061);
  OlmTest::Signal reached, sent;
  const uint32_t echo = sic(0x2061, kStatisticsCpid), victim = sic(0x1061, kTestCpid);
  const pid_t node = startInHost(*m_a, [&] {
    WireNode self(0x1061);
    WireNode::Message reply;
    if (!self.ok() || !sendOnceReachable(self, echo, 64, 1) || !self.receive(kTestMsgId, reply)) return 1;
    reached.send();
    if (sent.wait() == 0 || !sendOnceReachable(self, echo, 64, 2)) return 2;
    return self.receiveAny(reply) && isEchoOf(reply, 64, 2) ? 0 : 3;
  });
  ASSERT_NE(reached.wait(), 0u) << echoNode->output();
  const int status = inHost(*m_a, [&] {
    unsigned char valid[64] = {};
    const uint16_t id = kForgedMsgId, length = sizeof(valid);
    std::memcpy(valid, &id, sizeof(id));
    std::memcpy(valid + 4, &echo, sizeof(echo));
    std::memcpy(valid + 8, &victim, sizeof(victim));
    std::memcpy(valid + 14, &length, sizeof(length));
    unsigned char longer[sizeof(valid) + 1] = {};
    std::memcpy(longer, valid, sizeof(valid));
    const rhyddal::WireEnvelope asNodeOfD = rhyddal::wireEnvelope(rhyddal::WireTag::kMessage, 0x4061);
    const rhyddal::WireEnvelope asNodeOfA = rhyddal::wireEnvelope(rhyddal::WireTag::kMessage, 0x1061);
    rhyddal::WireEnvelope otherVersion = asNodeOfD;
    otherVersion.version = rhyddal::kWireVersion + 1;
    const rhyddal::WireEnvelope unknownKind = rhyddal::wireEnvelope(static_cast<rhyddal::WireTag>(9), 0x4061);
    const rhyddal::WireEnvelope liveNodes = rhyddal::wireEnvelope(rhyddal::WireTag::kLiveNodes, 0);
    const uint16_t nodesOfA[] = {0x1061};
    const std::vector<std::vector<std::pair<const void*, size_t>>> messages = {
        {{valid, sizeof(valid)}},                                              // no envelope
        {{&asNodeOfD, 3}, {valid, sizeof(valid)}},                             // envelope cut short
        {{&otherVersion, sizeof(otherVersion)}, {valid, sizeof(valid)}},       // another version
        {{&unknownKind, sizeof(unknownKind)}, {valid, sizeof(valid)}},         // no such kind
        {{&asNodeOfD, sizeof(asNodeOfD)}, {valid, 8}},                         // shorter than a header
        {{&asNodeOfD, sizeof(asNodeOfD)}, {longer, sizeof(longer)}},           // longer than it says
        {{&asNodeOfA, sizeof(asNodeOfA)}, {valid, sizeof(valid)}},             // speaking for host A
        {{&asNodeOfD, sizeof(asNodeOfD)}, {valid, sizeof(valid)}, {"", 0}},    // a frame too many
        {{&liveNodes, sizeof(liveNodes)}, {nodesOfA, sizeof(nodesOfA)}},       // host A's nodes as its own
    };
    return sendAsRawPeer(endpointOf(kAddressB), endpointOf(kAddressDown), messages) &&
                   sendAsRawPeer(endpointOf(kAddressB), "nobody", {{{&asNodeOfD, sizeof(asNodeOfD)}, {valid, sizeof(valid)}}})
               ? 0
               : 1;
  });
  ASSERT_EQ(status, 0);
  EXPECT_TRUE(echoNode->waitForOutput("bridge dropped a message")) << echoNode->output();
  sent.send();
  EXPECT_EQ(OlmTest::exitStatusOf(node), 0) << echoNode->output();
}

}  // namespace
