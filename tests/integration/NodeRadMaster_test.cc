// The R&D master in a real master node beside the broker server, talking over the host platform
// with a node that the test serves itself (WireNode) as slave and as client: registrations, a
// client's set passed on to the node, the node registering again after a restart, and a master
// that restarts learning the node's domain from the node.
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "AaConfigRadMsg.h"
#include "NodeProcess.h"
#include "TestNamespace.h"
#include "WireNode.h"

namespace {

using OlmTest::hex;
using OlmTest::NodeProcess;
using OlmTest::WireNode;
using Words = std::vector<uint32_t>;

constexpr uint16_t kClientCpid = 0x0777;
constexpr uint32_t kDomain = 5;
constexpr int kPhaseTimeoutMs = 20000;

uint32_t sicad(uint16_t nid, uint16_t cpid) { return (uint32_t{nid} << 16) | cpid; }

std::unique_ptr<NodeProcess> startMaster(uint16_t nid) {
  auto master = std::make_unique<NodeProcess>(std::vector<std::string>{
      "--nid", hex(nid), "--masternid", hex(nid), "--wait", "1000", "--load-local", OLM_TEST_BROKER_SERVER,
      "--load-local", OLM_TEST_RAD_MASTER});
  EXPECT_TRUE(master->waitForOutput("R&D master: serving on node")) << master->output();
  return master;
}

// The node of the test as slave and client of the master on node master.
class WireSlave {
 public:
  WireSlave(uint16_t nid, uint16_t master) : m_node(nid), m_master(sicad(master, AACONFIG_RAD_MASTER_CPID)) {}
  bool ok() const { return m_node.ok(); }
  uint32_t slave() const { return sicad(m_node.nid(), AACONFIG_RAD_SLAVE_CPID); }
  uint32_t client() const { return sicad(m_node.nid(), kClientCpid); }
  uint32_t clientDomain() const { return uint32_t{m_node.nid()} << 16 | kDomain; }

  // Registers the domain with index 1 (default 10) and 2 (default 20) at the given values; true
  // when the answer gives the values expected.
  bool registerDomain(uint32_t value1, uint32_t value2, const Words& expected) {
    return m_node.send(AACONFIG_RAD_DOMAIN_REGISTER_REQ_MSG, m_master, slave(),
                       Words{slave(), kDomain, AACONFIG_RAD_REGISTER_CONSTANT, 2, 1, 4, 10, value1, 0, 0, 2, 4, 20,
                             value2, 0, 0}) &&
           answered(AACONFIG_RAD_DOMAIN_REGISTER_RSP_MSG, Words{kDomain, 0, 0, 2, 1, 4, expected[0], 2, 4, expected[1]});
  }
  // As a client: index 2 set to value through the master; the node's slave must get the set.
  bool setThroughMaster(uint32_t value) {
    return m_node.send(AACONFIG_RAD_SET_PARAMS_REQ_MSG, m_master, client(), Words{clientDomain(), 1, 1, 2, 4, value}) &&
           answered(AACONFIG_RAD_SET_PARAMS_REQ_MSG, Words{kDomain, 1, 1, 2, 4, value}) &&
           answered(AACONFIG_RAD_SET_PARAMS_RESP_MSG, Words{clientDomain(), 0});
  }
  // As a client: what the master keeps of the domain.
  bool masterHas(uint16_t request, uint16_t response, uint32_t value1, uint32_t value2) {
    return m_node.send(request, m_master, client(), Words{clientDomain()}) &&
           answered(response, Words{clientDomain(), 2, 1, 4, value1, 2, 4, value2});
  }
  // As the slave: answers a starting master's questions until both of the domain's are answered.
  bool answerStartQuestions(uint32_t value1, uint32_t value2) {
    bool defaultsGiven = false, valuesGiven = false;
    while (!defaultsGiven || !valuesGiven) {
      WireNode::Message question;
      if (!m_node.receiveAny(question) || question.payload.size() < 4) return false;
      const uint32_t domain = question.words()[0];
      const bool ours = domain == kDomain;
      if (question.id == AACONFIG_RAD_GET_DEFAULT_PARAMS_REQ_MSG) {
        defaultsGiven = defaultsGiven || ours;
        m_node.send(AACONFIG_RAD_GET_DEFAULT_PARAMS_RESP_MSG, m_master, slave(),
                    ours ? Words{domain, 2, 1, 4, 10, 2, 4, 20} : Words{domain, 0});
      } else if (question.id == AACONFIG_RAD_GET_PARAMS_REQ_MSG) {
        valuesGiven = valuesGiven || ours;
        m_node.send(AACONFIG_RAD_GET_PARAMS_RESP_MSG, m_master, slave(),
                    ours ? Words{domain, 2, 1, 4, value1, 2, 4, value2} : Words{domain, 0});
      }
    }
    return true;
  }

 private:
  bool answered(uint16_t id, const Words& expected) {
    WireNode::Message answer;
    if (!m_node.receive(id, answer)) {
      std::fprintf(stderr, "no message 0x%x\n", id);
      return false;
    }
    if (answer.words() == expected) return true;
    std::fprintf(stderr, "message 0x%x:", id);
    for (uint32_t word : answer.words()) std::fprintf(stderr, " %u", word);
    std::fprintf(stderr, "\n");
    return false;
  }

  WireNode m_node;
  uint32_t m_master;
};

TEST(NodeRadMaster, ClientSetsReachTheNodeAndSurviveItsRestart) {
  const uint16_t masterNid = OlmTest::nextTestNid();
  const uint16_t nid = OlmTest::nextTestNid();
  auto master = startMaster(masterNid);
  const int status = OlmTest::exitStatusOfChild([&] {
    WireSlave node(nid, masterNid);
    if (!node.ok()) return 1;
    if (!node.registerDomain(11, 21, {11, 21})) return 2;
    if (!node.setThroughMaster(222)) return 3;
    // Restarted: the node registers its defaults and gets the master's values back.
    if (!node.registerDomain(10, 20, {11, 222})) return 4;
    if (!node.masterHas(AACONFIG_RAD_GET_DEFAULT_PARAMS_REQ_MSG, AACONFIG_RAD_GET_DEFAULT_PARAMS_RESP_MSG, 10, 20)) return 5;
    return 0;
  });
  EXPECT_EQ(status, 0) << master->output();
  const std::string registered = "R&D master: node " + hex(nid) + " registered domain 5 with 2 parameters";
  EXPECT_TRUE(master->waitForOutput(registered) && master->waitForOutput(registered)) << master->output();
}

TEST(NodeRadMaster, ARestartedMasterLearnsTheDomainsOfTheRunningNodes) {
  if (!OlmTest::deadLockOwnersAreDetected()) GTEST_SKIP() << "no robust futex lists here: a stopped node looks alive";
  const uint16_t masterNid = OlmTest::nextTestNid();
  const uint16_t nid = OlmTest::nextTestNid();
  auto master = startMaster(masterNid);
  int phase[2];
  ASSERT_EQ(pipe(phase), 0);
  const pid_t child = OlmTest::startChild([&] {
    WireSlave node(nid, masterNid);
    if (!node.ok() || !node.registerDomain(11, 21, {11, 21}) || !node.setThroughMaster(222)) return 1;
    const char registered = 1;
    if (write(phase[1], &registered, 1) != 1) return 2;
    if (!node.answerStartQuestions(11, 222)) return 3;
    if (!node.masterHas(AACONFIG_RAD_GET_PARAMS_REQ_MSG, AACONFIG_RAD_GET_PARAMS_RESP_MSG, 11, 222)) return 4;
    if (!node.masterHas(AACONFIG_RAD_GET_DEFAULT_PARAMS_REQ_MSG, AACONFIG_RAD_GET_DEFAULT_PARAMS_RESP_MSG, 10, 20)) return 5;
    return 0;
  });
  ASSERT_GT(child, 0);
  pollfd registered{phase[0], POLLIN, 0};
  ASSERT_EQ(poll(&registered, 1, kPhaseTimeoutMs), 1) << master->output();
  // The master asks the nodes the platform shows as running when it starts.
  ASSERT_TRUE(OlmTest::waitUntilShownLive(nid));
  master->kill(SIGTERM);
  ASSERT_GE(master->waitForExit(), 0);
  master = startMaster(masterNid);
  EXPECT_EQ(OlmTest::exitStatusOf(child), 0) << master->output();
  close(phase[0]);
  close(phase[1]);
}

}  // namespace
