// The controller node started with olm-controller, as an operator starts it, with real nodes: it
// collects the system log of the groups that have no collector of their own and leaves the others
// to theirs, prints nodes appearing and going, and passes lines on to followers (nodes the test
// serves itself, as a tool would), several at once, dropping one that dies; olmctl log follows it
// as the operator runs it.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
// GCC 12 warns of a maybe-uninitialized std::function inside its own <regex> when it inlines the
// automaton under the sanitizers' optimisation; the warning is about the library, not this file.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif
#include <regex>
#include <set>
#include <string>
#include <vector>

#include "NodeProcess.h"
#include "Rendezvous.h"
#include "SysLogFollow.h"
#include "TestNamespace.h"
#include "WireNode.h"

namespace {

using OlmTest::hex;
using OlmTest::NodeProcess;
using OlmTest::WireNode;
using Args = std::vector<std::string>;

// Fixed node ids, so that the groups are known: each test runs in a platform namespace of its own.
constexpr uint16_t kController = 0x30F0;
constexpr uint16_t kNodeOfGroup1 = 0x3011;
constexpr uint16_t kSecondNodeOfGroup1 = 0x3012;
constexpr uint16_t kNodeOfGroup2 = 0x3021;
constexpr uint16_t kCollectorOfGroup2 = 0x302D;
constexpr uint16_t kFollowerCpid = 0x0777;
constexpr char kPingPeriodMs[] = "20";  // a log line every ten pongs: five a second
constexpr int kLinesToCheck = 5;
constexpr int kMostCopiesRead = 500;

uint32_t sicad(uint16_t nid, uint16_t cpid) { return (uint32_t{nid} << 16) | cpid; }

// olmctl with a fresh node id of its own (under user-mode emulation a node id once served stays
// taken) and the controller as its master.
Args olmctl(const Args& args) {
  Args command{OLM_TEST_OLMCTL, "--nid", hex(OlmTest::nextTestNid()), "--master", hex(kController)};
  command.insert(command.end(), args.begin(), args.end());
  return command;
}

std::vector<std::string> linesOf(const std::string& text) {
  std::vector<std::string> lines;
  for (size_t from = 0, end = 0; from < text.size(); from = end + 1) {
    end = text.find('\n', from);
    if (end == std::string::npos) end = text.size();
    lines.push_back(text.substr(from, end - from));
  }
  return lines;
}

std::unique_ptr<NodeProcess> startController() {
  auto controller = std::make_unique<NodeProcess>(NodeProcess::Program{{OLM_TEST_CONTROLLER, "--nid", hex(kController)}});
  EXPECT_TRUE(controller->waitForOutput("log collector: collecting the system log on node " + hex(kController)))
      << controller->output();
  return controller;
}

// A node of the controller's system that pings peer and logs a line every ten pongs.
std::unique_ptr<NodeProcess> startPinger(uint16_t nid, uint16_t peer) {
  return std::make_unique<NodeProcess>(
      Args{"--nid", hex(nid), "--masternid", hex(kController), "--wait", "1000", "--load-local", OLM_TEST_PING_EU},
      Args{"OLM_PING_PEER=" + hex(peer), std::string("OLM_PING_PERIOD_MS=") + kPingPeriodMs});
}

// What node nid logs about the pongs of its peer, as the line's text ends.
std::string pongLineOf(uint16_t peer) { return "pongs from node " + hex(peer); }

// A tool that follows the collector's log from node nid: 0 when the request was answered and
// lines of exactly the nodes asked for (of every one of them) came, else what went wrong.
class Follower {
 public:
  Follower(uint16_t nid, const std::vector<uint16_t>& nids) : m_node(nid), m_nids(nids) {}

  int follow() {
    if (!m_node.ok()) return 1;
    std::vector<uint32_t> request{static_cast<uint32_t>(m_nids.size())};
    request.insert(request.end(), m_nids.begin(), m_nids.end());
    if (!m_node.send(SYSLOG_FOLLOW_REQ_MSG, sicad(kController, SYSLOG_COLLECTOR_CPID), address(), request)) return 2;
    const std::vector<uint32_t> started{SYSLOG_FOLLOW_STATUS_OK, static_cast<uint32_t>(m_nids.size()), 1};
    WireNode::Message ack;
    return m_node.receive(SYSLOG_FOLLOW_ACK_MSG, ack) && ack.words() == started ? 0 : 3;
  }

  // Lines of the pinging nodes (the controller's own lines and nodes appearing come too when
  // every node is followed): at least kLinesToCheck, from each of the nodes followed.
  int expectLines() {
    std::set<uint16_t> seen;
    int lines = 0;
    for (int read = 0; lines < kLinesToCheck || seen.size() < expectedSenders(); ++read) {
      WireNode::Message copy;
      if (read == kMostCopiesRead || !m_node.receive(SYSLOG_FOLLOW_LINE_MSG, copy) || copy.words().size() < 4) return 4;
      const uint32_t kind = copy.words()[0];
      const auto nid = static_cast<uint16_t>(copy.words()[1]);
      if (!m_nids.empty() && std::find(m_nids.begin(), m_nids.end(), nid) == m_nids.end()) return 5;
      if (kind != SYSLOG_FOLLOW_KIND_LINE || (nid != kNodeOfGroup1 && nid != kSecondNodeOfGroup1)) continue;
      const std::string text(reinterpret_cast<const char*>(copy.payload.data()) + SYSLOG_FOLLOW_LINE_HEADER_SIZE);
      if (text.find("PingEu:") == std::string::npos) return 6;
      seen.insert(nid);
      ++lines;
    }
    return 0;
  }

  bool cancel() { return m_node.send(SYSLOG_FOLLOW_CANCEL_MSG, sicad(kController, SYSLOG_COLLECTOR_CPID), address(), nullptr, 0); }
  uint32_t address() const { return sicad(m_node.nid(), kFollowerCpid); }

 private:
  size_t expectedSenders() const { return m_nids.empty() ? 2 : m_nids.size(); }

  WireNode m_node;
  std::vector<uint16_t> m_nids;
};

TEST(NodeController, CollectsTheLinesOfGroupsWithoutACollectorAndLeavesTheOthersToTheirs) {
  auto controller = startController();
  NodeProcess collectorOfGroup2({"--nid", hex(kCollectorOfGroup2), "--masternid", hex(kController), "--wait", "1000",
                                 "--load-local", OLM_TEST_SYSLOG_PRINTER_EU});
  ASSERT_TRUE(OlmTest::waitUntilShownLive(kCollectorOfGroup2));
  auto group1 = startPinger(kNodeOfGroup1, kNodeOfGroup2);
  auto group2 = startPinger(kNodeOfGroup2, kNodeOfGroup1);

  ASSERT_TRUE(controller->waitForOutput("log collector: collecting the lines of group 0x3010, sent to node 0x301d"))
      << controller->output();
  EXPECT_TRUE(controller->waitForOutput("log collector: group 0x3020 has a collector of its own, node 0x302d"))
      << controller->output();
  ASSERT_TRUE(controller->waitForOutput(pongLineOf(kNodeOfGroup2) + "\n")) << controller->output();
  const std::regex stamped("(^|\n)0x3011 \\[\\d{4},\\d{4},\\d{2},\\d{5}\\] 3011 <[^>]+> [0-9A-F]+ INF/PingEu: \\d+ " +
                           pongLineOf(kNodeOfGroup2) + "\n");
  EXPECT_TRUE(std::regex_search(controller->output(), stamped)) << controller->output();

  ASSERT_TRUE(collectorOfGroup2.waitForOutput(pongLineOf(kNodeOfGroup1) + "\n")) << collectorOfGroup2.output();
  ASSERT_TRUE(collectorOfGroup2.waitForOutput(pongLineOf(kNodeOfGroup1) + "\n")) << collectorOfGroup2.output();
  EXPECT_EQ(controller->countOutput(pongLineOf(kNodeOfGroup1)), 0u) << "the group's own collector got them";
  EXPECT_EQ(collectorOfGroup2.countOutput(pongLineOf(kNodeOfGroup2)), 0u);
}

// The node gives the controller its group's collector id as it starts, before its first line.
TEST(NodeController, CollectsANewGroupsLinesFromItsFirstNodesFirstLineOn) {
  auto controller = startController();
  auto pinger = startPinger(kNodeOfGroup1, kSecondNodeOfGroup1);
  EXPECT_TRUE(controller->waitForOutput("INF/PingEu: pinging node " + hex(kSecondNodeOfGroup1) + " every " +
                                        kPingPeriodMs + " ms\n"))
      << controller->output();
}

TEST(NodeController, PrintsNodesAppearingAndGoing) {
  auto controller = startController();
  NodeProcess node({"--nid", hex(kNodeOfGroup1), "--masternid", hex(kController), "--wait", "1000"});
  ASSERT_TRUE(controller->waitForOutput("log collector: node 0x3011 appeared\n")) << controller->output();
  node.kill(SIGTERM);
  ASSERT_GE(node.waitForExit(), 0);
  EXPECT_TRUE(controller->waitForOutput("log collector: node 0x3011 gone\n")) << controller->output();
}

TEST(NodeController, FollowersGetTheLinesOfTheNodesTheyAskedForAndOneThatDiesIsDropped) {
  auto controller = startController();
  auto first = startPinger(kNodeOfGroup1, kSecondNodeOfGroup1);
  auto second = startPinger(kSecondNodeOfGroup1, kNodeOfGroup1);
  ASSERT_TRUE(controller->waitForOutput(pongLineOf(kSecondNodeOfGroup1))) << controller->output();

  const uint16_t oneNodeNid = OlmTest::nextTestNid();
  const uint16_t everyNodeNid = OlmTest::nextTestNid();
  OlmTest::Rendezvous bothFollow;
  const pid_t oneNode = OlmTest::startChild([&] {
    Follower follower(oneNodeNid, {kNodeOfGroup1});
    if (const int rc = follower.follow()) return rc;
    bothFollow.notify();
    if (const int rc = follower.expectLines()) return rc;
    return follower.cancel() ? 0 : 7;
  });
  const pid_t everyNode = OlmTest::startChild([&] {
    Follower follower(everyNodeNid, {});
    if (const int rc = follower.follow()) return rc;
    bothFollow.notify();
    return follower.expectLines();
  });
  ASSERT_TRUE(bothFollow.waitFor() == 1 && bothFollow.waitFor() == 1) << controller->output();
  EXPECT_EQ(OlmTest::exitStatusOf(oneNode), 0) << controller->output();
  EXPECT_EQ(OlmTest::exitStatusOf(everyNode), 0) << controller->output();
  EXPECT_TRUE(controller->waitForOutput("log collector: " + hex(oneNodeNid) + "0777 follows node 0x3011\n"))
      << controller->output();
  EXPECT_TRUE(controller->waitForOutput("log collector: " + hex(oneNodeNid) + "0777 stopped following\n"))
      << controller->output();

  if (!OlmTest::deadLockOwnersAreDetected()) GTEST_SKIP() << "no robust futex lists here: a killed follower looks alive";
  const uint16_t dyingNid = OlmTest::nextTestNid();
  OlmTest::Rendezvous following;
  const pid_t dying = OlmTest::startChild([&] {
    Follower follower(dyingNid, {});
    if (const int rc = follower.follow()) return rc;
    following.notify();
    pause();
    return 0;
  });
  ASSERT_EQ(following.waitFor(), 1u) << controller->output();
  kill(dying, SIGKILL);
  OlmTest::exitStatusOf(dying);
  EXPECT_TRUE(controller->waitForOutput("log collector: dropped follower " + hex(dyingNid) + "0777: it has gone\n"))
      << controller->output();
}

class NodeControllerOlmctlLog : public ::testing::Test {
 protected:
  void SetUp() override {
    m_controller = startController();
    m_first = startPinger(kNodeOfGroup1, kSecondNodeOfGroup1);
    m_second = startPinger(kSecondNodeOfGroup1, kNodeOfGroup1);
    ASSERT_TRUE(m_controller->waitForOutput(pongLineOf(kNodeOfGroup1))) << m_controller->output();
  }

  std::unique_ptr<NodeProcess> m_controller, m_first, m_second;
};

TEST_F(NodeControllerOlmctlLog, ShowsTheLinesOfTheNodesNamedAsTheControllerPrintsThem) {
  const OlmTest::ProgramRun run = OlmTest::runProgram(olmctl({"log", hex(kSecondNodeOfGroup1), "-n", "3"}));
  EXPECT_EQ(run.status, 0) << run.err;
  const std::regex line("0x3012 \\[\\d{4},\\d{4},\\d{2},\\d{5}\\] 3012 <[^>]+> [0-9A-F]+ INF/PingEu: \\d+ " +
                        pongLineOf(kNodeOfGroup1));
  const std::vector<std::string> lines = linesOf(run.out);
  ASSERT_EQ(lines.size(), 3u) << run.out;
  for (const std::string& one : lines) EXPECT_TRUE(std::regex_match(one, line)) << one;
  EXPECT_TRUE(m_controller->waitForOutput("stopped following\n")) << "the tool cancels at its end";
}

TEST_F(NodeControllerOlmctlLog, GivesScriptsAJsonObjectPerLine) {
  const OlmTest::ProgramRun run = OlmTest::runProgram(olmctl({"--json", "log", "-n", "2"}));
  EXPECT_EQ(run.status, 0) << run.err;
  size_t logLines = 0;
  for (const std::string& one : linesOf(run.out)) {
    EXPECT_TRUE(std::regex_match(one, std::regex("\\{\"kind\":\"(line|appeared|gone)\",\"node\":\\d+,\"hyperFrame\":\\d+,"
                                                 "\"frame\":\\d+,\"slot\":\\d+,\"basicTimeUnit\":\\d+,\"text\":\".*\"\\}")))
        << one;
    if (one.find("\"kind\":\"line\"") != std::string::npos) ++logLines;
  }
  EXPECT_EQ(logLines, 2u) << run.out;
}

TEST_F(NodeControllerOlmctlLog, EndsOnInterruptAndTheCollectorStopsFollowing) {
  NodeProcess log(NodeProcess::Program{olmctl({"log", hex(kNodeOfGroup1)})});
  ASSERT_TRUE(log.waitForOutput(pongLineOf(kSecondNodeOfGroup1))) << log.output();
  log.kill(SIGINT);
  const int status = log.waitForExit();
  ASSERT_TRUE(WIFEXITED(status)) << log.output();
  EXPECT_EQ(WEXITSTATUS(status), 0) << log.output();
  EXPECT_TRUE(m_controller->waitForOutput("stopped following\n")) << m_controller->output();
}

TEST(NodeControllerOlmctlLogFailures, NoCollectorAnsweringIsOneLineAndStatusOne) {
  const OlmTest::ProgramRun nothing = OlmTest::runProgram(olmctl({"log"}));
  EXPECT_EQ(nothing.status, 1);
  EXPECT_EQ(nothing.err, "olmctl: node " + hex(kController) + " is not running\n");

  NodeProcess bare({"--nid", hex(kController), "--wait", "1000"});
  ASSERT_TRUE(OlmTest::waitUntilShownLive(kController));
  const OlmTest::ProgramRun silent = OlmTest::runProgram(olmctl({"--timeout", "300", "log"}));
  EXPECT_EQ(silent.status, 1);
  EXPECT_EQ(silent.out, "");
  EXPECT_EQ(silent.err, "olmctl: no answer from the log collector on node " + hex(kController) + " within 300 ms\n");
}

}  // namespace
