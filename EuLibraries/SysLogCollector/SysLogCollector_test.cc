// The collector's handling of what arrives: lines of every shape, follow requests of either byte
// order and their refusals, followers that fail, and what a look at the running nodes brings.
#include "SysLogCollector.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "AaSysCom.h"
#include "AaSysComMsgHeader.h"
#include "FakeRuntime.h"
#include "SysLogFollow.h"

namespace {

using Words = std::vector<uint32_t>;

constexpr uint16_t kNode = 0x1011;
constexpr uint16_t kOtherNode = 0x1022;
constexpr uint32_t kFollowerA = 0x1FF00777;
constexpr uint32_t kFollowerB = 0x1FF10777;
constexpr uint32_t kCollectorAddress = uint32_t{OlmTest::kOwnNid} << 16 | SYSLOG_COLLECTOR_CPID;
constexpr uint32_t kBigEndianWords = AASYSCOM_APF_BIG_ENDIAN_WORDS;
constexpr TAaSysComMsgId kRescanMsgId = 0x097B;

uint32_t logSender(uint16_t nid) { return uint32_t{nid} << 16 | 0xFFFE; }

// A copy a follower got: its header words and text.
struct Copy {
  uint32_t receiver;
  uint32_t kind;
  uint32_t nid;
  uint32_t lte[2];
  std::string text;
};

class SysLogCollectorTest : public OlmTest::FakeRuntimeTest {
 protected:
  SysLogCollectorTest() { runtime.time.setNow(Olm::LteTime(517, 391, 3, 12)); }

  SysLogCollector::Hooks hooks() {
    SysLogCollector::Hooks hooks;
    hooks.liveNodes = [this](std::vector<uint16_t>& nodes) {
      nodes = m_live;
      return m_tableReadable;
    };
    hooks.takeAlias = [this](uint16_t nid) {
      m_aliasesAsked.push_back(nid);
      const auto refusal = m_aliasRefusals.find(nid);
      return refusal == m_aliasRefusals.end() ? 0 : refusal->second;
    };
    hooks.transmit = [this](void* msg) {
      const auto refusal = m_sendRefusals.find(AaSysComMsgGetReceiver(msg));
      if (refusal != m_sendRefusals.end()) return refusal->second;
      runtime.sendMessage(msg);
      return 0;
    };
    hooks.print = [this](const std::string& line) { m_printed.push_back(line); };
    hooks.quiet = m_quiet;
    return hooks;
  }

  void deliver(void* msg) {
    collector.ProcessMessage(msg);
    EXPECT_EQ(msg, nullptr) << "the collector left its message in the reference";
  }
  void* message(TAaSysComMsgId id, uint32_t sender, const void* payload, uint32_t size) {
    void* msg = AaSysComMsgCreate(id, static_cast<TAaSysComMsgSize>(size), kCollectorAddress);
    if (size != 0) std::memcpy(AaSysComMsgGetPayload(msg), payload, size);
    AaSysComMsgSetSender(msg, sender);
    return msg;
  }
  void line(uint16_t nid, const std::string& text) { deliver(message(SYSLOG_LINE_MSG, logSender(nid), text.c_str(), text.size() + 1)); }
  void followRequest(uint32_t follower, const Words& words, uint32_t apf = AASYSCOM_APF_HOST_WORDS) {
    void* msg = message(SYSLOG_FOLLOW_REQ_MSG, follower, words.data(), static_cast<uint32_t>(words.size() * 4));
    AaSysComMsgSetApf(msg, apf);
    deliver(msg);
  }
  void rescan(const std::vector<uint16_t>& live) {
    m_live = live;
    deliver(message(kRescanMsgId, kCollectorAddress, nullptr, 0));
  }

  // What the collector sent from here on: acknowledgements as words, copies decoded.
  Words acknowledgement(size_t index) const {
    const void* msg = runtime.sent().at(index);
    EXPECT_EQ(AaSysComMsgGetId(msg), SYSLOG_FOLLOW_ACK_MSG);
    EXPECT_EQ(AaSysComMsgGetSender(msg), kCollectorAddress);
    Words words(AaSysComMsgGetPayloadSize(msg) / 4);
    std::memcpy(words.data(), AaSysComMsgGetPayload(msg), words.size() * 4);
    return words;
  }
  std::vector<Copy> copies() const {
    std::vector<Copy> copies;
    for (const void* msg : runtime.sent()) {
      if (AaSysComMsgGetId(msg) != SYSLOG_FOLLOW_LINE_MSG) continue;
      const auto* payload = static_cast<const uint8_t*>(AaSysComMsgGetPayload(msg));
      SSysLogFollowLineHeader header{};
      std::memcpy(&header, payload, sizeof(header));
      const auto* text = reinterpret_cast<const char*>(payload + sizeof(header));
      EXPECT_EQ(text[AaSysComMsgGetPayloadSize(msg) - sizeof(header) - 1], '\0') << "a copy's text ends with its NUL";
      copies.push_back(Copy{AaSysComMsgGetReceiver(msg), header.kind, header.nid,
                            {header.hyperFrameAndFrame, header.slotAndBasicTU}, text});
    }
    return copies;
  }
  bool printed(const std::string& text) const {
    return std::find(m_printed.begin(), m_printed.end(), text) != m_printed.end();
  }
  size_t printedContaining(const std::string& text) const {
    return static_cast<size_t>(std::count_if(m_printed.begin(), m_printed.end(),
                                             [&](const std::string& line) { return line.find(text) != std::string::npos; }));
  }

  std::vector<uint16_t> m_live;
  bool m_tableReadable = true;
  std::vector<uint16_t> m_aliasesAsked;
  std::map<uint16_t, int> m_aliasRefusals;
  std::map<uint32_t, int> m_sendRefusals;
  std::vector<std::string> m_printed;
  bool m_quiet = false;
  SysLogCollector collector{hooks()};
};

TEST_F(SysLogCollectorTest, ALineIsPrintedWithItsSenderAndTheLteTimeOfArrival) {
  line(kNode, "1011 <2026-01-02T03:04:05.000006Z> 4433 INF/hello\n");
  ASSERT_EQ(m_printed.size(), 1u);
  EXPECT_EQ(m_printed[0], "0x1011 [0517,0391,03,00012] 1011 <2026-01-02T03:04:05.000006Z> 4433 INF/hello");
}

TEST_F(SysLogCollectorTest, LinesOfAnyShapeArePrintedWithinTheirMessage) {
  deliver(message(SYSLOG_LINE_MSG, logSender(kNode), nullptr, 0));
  const char unterminated[] = {'a', 'b', 'c'};
  deliver(message(SYSLOG_LINE_MSG, logSender(kNode), unterminated, sizeof(unterminated)));
  line(kNode, "first\nsecond\n");
  line(kNode, "bell\a escape\x1b[2J tab\tend");
  const std::string longLine(60000, 'x');
  line(kNode, longLine);
  // A header whose length cannot hold the trailer it claims: the payload size wraps.
  void* cut = message(SYSLOG_LINE_MSG, logSender(kNode), "zz", 3);
  static_cast<SAaSysComMsgHeader*>(cut)->flags |= AASYSCOM_MEF_TRAILER;
  deliver(cut);

  const std::string prefix = "0x1011 [0517,0391,03,00012] ";
  ASSERT_EQ(m_printed.size(), 7u);
  EXPECT_EQ(m_printed[0], prefix);
  EXPECT_EQ(m_printed[1], prefix + "abc");
  EXPECT_EQ(m_printed[2], prefix + "first");
  EXPECT_EQ(m_printed[3], prefix + "second");
  EXPECT_EQ(m_printed[4], prefix + "bell? escape?[2J tab\tend");
  EXPECT_EQ(m_printed[5], prefix + std::string(SYSLOG_FOLLOW_MAX_TEXT_SIZE - 1, 'x'));
  EXPECT_EQ(m_printed[6], prefix);
}

TEST_F(SysLogCollectorTest, ALineInTheOtherByteOrderIsReadAsTheBytesItHolds) {
  const std::string text = "big-endian node\n";
  void* msg = message(SYSLOG_LINE_MSG, logSender(kNode), text.c_str(), static_cast<uint32_t>(text.size() + 1));
  AaSysComMsgSetApf(msg, kBigEndianWords);
  deliver(msg);
  ASSERT_EQ(m_printed.size(), 1u);
  EXPECT_EQ(m_printed[0], "0x1011 [0517,0391,03,00012] big-endian node");
}

TEST_F(SysLogCollectorTest, FollowersGetCopiesOfTheLinesOfTheNodesTheyAskedFor) {
  followRequest(kFollowerA, {0});
  followRequest(kFollowerB, {2, kOtherNode, 0x1033});
  EXPECT_EQ(acknowledgement(0), (Words{SYSLOG_FOLLOW_STATUS_OK, 0, 1}));
  EXPECT_EQ(acknowledgement(1), (Words{SYSLOG_FOLLOW_STATUS_OK, 2, 1}));
  EXPECT_TRUE(printed("log collector: 0x1ff00777 follows every node"));
  EXPECT_TRUE(printed("log collector: 0x1ff10777 follows nodes 0x1022 0x1033"));

  line(kNode, "one\n");
  line(kOtherNode, "two\n");
  const std::vector<Copy> got = copies();
  ASSERT_EQ(got.size(), 3u);
  EXPECT_EQ(got[0].receiver, kFollowerA);
  EXPECT_EQ(got[0].kind, SYSLOG_FOLLOW_KIND_LINE);
  EXPECT_EQ(got[0].nid, kNode);
  EXPECT_EQ(got[0].lte[0], 517u << 16 | 391u);
  EXPECT_EQ(got[0].lte[1], 3u << 16 | 12u);
  EXPECT_EQ(got[0].text, "one");
  EXPECT_EQ(got[1].receiver, kFollowerA);
  EXPECT_EQ(got[2].receiver, kFollowerB);
  EXPECT_EQ(got[2].text, "two");
  for (const void* msg : runtime.sent()) EXPECT_EQ(AaSysComMsgGetSender(msg), kCollectorAddress);
}

TEST_F(SysLogCollectorTest, ARequestInTheOtherByteOrderIsReadInIt) {
  followRequest(kFollowerA, {__builtin_bswap32(1u), __builtin_bswap32(kOtherNode)}, kBigEndianWords);
  EXPECT_EQ(acknowledgement(0), (Words{SYSLOG_FOLLOW_STATUS_OK, 1, 1}));
  line(kNode, "not followed");
  line(kOtherNode, "followed");
  ASSERT_EQ(copies().size(), 1u);
  EXPECT_EQ(copies()[0].text, "followed");
}

TEST_F(SysLogCollectorTest, ANewRequestReplacesTheSelectionAndACancelEndsIt) {
  followRequest(kFollowerA, {1, kOtherNode});
  followRequest(kFollowerA, {1, kOtherNode});
  followRequest(kFollowerA, {1, kNode});
  EXPECT_EQ(collector.followers(), (std::vector<uint32_t>{kFollowerA}));
  EXPECT_EQ(acknowledgement(1), (Words{SYSLOG_FOLLOW_STATUS_OK, 1, 0})) << "a repeat renews, it does not start";
  EXPECT_EQ(printedContaining("0x1ff00777 follows node 0x1022"), 1u) << "a repeat that changes nothing is not printed";
  EXPECT_TRUE(printed("log collector: 0x1ff00777 follows node 0x1011"));
  line(kOtherNode, "no longer followed");
  line(kNode, "followed now");
  deliver(message(SYSLOG_FOLLOW_CANCEL_MSG, kFollowerA, nullptr, 0));
  EXPECT_TRUE(printed("log collector: 0x1ff00777 stopped following"));
  line(kNode, "after the cancel");
  ASSERT_EQ(copies().size(), 1u);
  EXPECT_EQ(copies()[0].text, "followed now");
  EXPECT_TRUE(collector.followers().empty());
}

TEST_F(SysLogCollectorTest, RequestsThatCannotBeServedAreRefusedWithTheirReason) {
  followRequest(kFollowerA, {});
  followRequest(kFollowerA, {3, kNode, kOtherNode});
  followRequest(kFollowerA, {SYSLOG_FOLLOW_MAX_NIDS + 1});
  followRequest(kFollowerA, {1, 0x10000});
  const char stub[] = {1, 0};  // not even a whole count
  deliver(message(SYSLOG_FOLLOW_REQ_MSG, kFollowerA, stub, sizeof(stub)));
  EXPECT_EQ(acknowledgement(0), (Words{SYSLOG_FOLLOW_STATUS_MALFORMED, 0, 0}));
  EXPECT_EQ(acknowledgement(1), (Words{SYSLOG_FOLLOW_STATUS_MALFORMED, 0, 0}));
  EXPECT_EQ(acknowledgement(2), (Words{SYSLOG_FOLLOW_STATUS_TOO_MANY_NIDS, 0, 0}));
  EXPECT_EQ(acknowledgement(3), (Words{SYSLOG_FOLLOW_STATUS_MALFORMED, 0, 0}));
  EXPECT_EQ(acknowledgement(4), (Words{SYSLOG_FOLLOW_STATUS_MALFORMED, 0, 0}));
  EXPECT_TRUE(collector.followers().empty());

  for (uint32_t i = 0; i < SYSLOG_FOLLOW_MAX_FOLLOWERS; ++i) followRequest(kFollowerA + (i << 16), {0});
  followRequest(0x2FFF0777, {0});
  EXPECT_EQ(acknowledgement(runtime.sent().size() - 1), (Words{SYSLOG_FOLLOW_STATUS_TOO_MANY_FOLLOWERS, 0, 0}));
  EXPECT_EQ(collector.followers().size(), SYSLOG_FOLLOW_MAX_FOLLOWERS);
  followRequest(kFollowerA, {SYSLOG_FOLLOW_MAX_NIDS + 1});
  EXPECT_EQ(collector.followers().size(), SYSLOG_FOLLOW_MAX_FOLLOWERS - 1) << "a refused request ends what was followed";
}

TEST_F(SysLogCollectorTest, AFollowerThatCannotTakeACopyIsDroppedAndTheOthersGoOn) {
  followRequest(kFollowerA, {0});
  followRequest(kFollowerB, {0});
  m_sendRefusals[kFollowerA] = -ENOBUFS;
  line(kNode, "first");
  line(kNode, "second");
  EXPECT_EQ(printedContaining("dropped follower 0x1ff00777: its queue is full"), 1u);
  EXPECT_EQ(collector.followers(), (std::vector<uint32_t>{kFollowerB}));
  const std::vector<Copy> got = copies();
  ASSERT_EQ(got.size(), 2u);
  EXPECT_EQ(got[0].receiver, kFollowerB);
  EXPECT_EQ(got[1].text, "second");

  m_sendRefusals[kFollowerB] = -EHOSTUNREACH;
  line(kNode, "third");
  EXPECT_TRUE(printed("log collector: dropped follower 0x1ff10777: it has gone"));
  m_sendRefusals[0x3FF00777] = -EHOSTUNREACH;
  followRequest(0x3FF00777, {0});
  EXPECT_TRUE(collector.followers().empty()) << "a follower whose acknowledgement fails is not kept";

  m_sendRefusals.clear();
  followRequest(kFollowerA, {0});
  EXPECT_EQ(acknowledgement(runtime.sent().size() - 1), (Words{SYSLOG_FOLLOW_STATUS_OK, 0, 1}))
      << "a dropped follower repeating its request learns that it starts again";
}

TEST_F(SysLogCollectorTest, QuietPrintsNoLinesButFollowersStillGetThem) {
  m_quiet = true;
  SysLogCollector quiet(hooks());
  void* request = message(SYSLOG_FOLLOW_REQ_MSG, kFollowerA, Words{0}.data(), 4);
  quiet.ProcessMessage(request);
  void* msg = message(SYSLOG_LINE_MSG, logSender(kNode), "quiet", 6);
  quiet.ProcessMessage(msg);
  EXPECT_EQ(printedContaining("0x1011 ["), 0u);
  ASSERT_EQ(copies().size(), 1u);
  EXPECT_EQ(copies()[0].text, "quiet");
}

TEST_F(SysLogCollectorTest, NodesAppearingAndGoingArePrintedAndPassedOnToTheirFollowers) {
  followRequest(kFollowerA, {1, kOtherNode});
  rescan({kNode, kOtherNode});
  rescan({kNode});
  EXPECT_TRUE(printed("log collector: node 0x1011 appeared"));
  EXPECT_TRUE(printed("log collector: node 0x1022 appeared"));
  EXPECT_TRUE(printed("log collector: node 0x1022 gone"));
  EXPECT_EQ(printedContaining("node 0x1011"), 1u) << "a node still running is not reported again";
  const std::vector<Copy> got = copies();
  ASSERT_EQ(got.size(), 2u);
  EXPECT_EQ(got[0].kind, SYSLOG_FOLLOW_KIND_NODE_APPEARED);
  EXPECT_EQ(got[1].kind, SYSLOG_FOLLOW_KIND_NODE_GONE);
  EXPECT_EQ(got[1].nid, kOtherNode);
  EXPECT_EQ(got[1].text, "");
}

TEST_F(SysLogCollectorTest, TheCollectorIdOfEveryGroupWithoutOneRunningIsTaken) {
  m_aliasRefusals[0x103D] = -EADDRINUSE;  // started between the table's update and the request
  m_aliasRefusals[0x104D] = -EBUSY;
  rescan({0x1011, 0x1012, 0x1021, 0x102D, 0x1031, 0x1041});
  EXPECT_EQ(m_aliasesAsked, (std::vector<uint16_t>{0x101D, 0x103D, 0x104D}));
  EXPECT_TRUE(printed("log collector: collecting the lines of group 0x1010, sent to node 0x101d"));
  EXPECT_TRUE(printed("log collector: group 0x1020 has a collector of its own, node 0x102d"));
  EXPECT_TRUE(printed("log collector: group 0x1030 has a collector of its own, node 0x103d"));
  EXPECT_EQ(printedContaining("cannot collect the lines of group 0x1040"), 1u);

  m_aliasRefusals.clear();
  rescan({0x1011, 0x1021, 0x1031, 0x1041});
  EXPECT_EQ(printedContaining("group 0x1010"), 1u) << "an alias taken again is not reported again";
  EXPECT_TRUE(printed("log collector: collecting the lines of group 0x1020, sent to node 0x102d"));
  EXPECT_TRUE(printed("log collector: collecting the lines of group 0x1040, sent to node 0x104d"));
}

TEST_F(SysLogCollectorTest, StartLooksAtTheNodesAndArmsTheNextLooks) {
  m_live = {kNode};
  collector.start();
  EXPECT_TRUE(printed("log collector: node 0x1011 appeared"));
  ASSERT_EQ(runtime.timers().size(), 1u);
  EXPECT_EQ(AaSysComMsgGetId(runtime.timers()[0].msg), kRescanMsgId);
  EXPECT_FALSE(runtime.timers()[0].period.getSamples() == 0) << "the look is repeated";

  m_live = {};
  deliver(message(kRescanMsgId, logSender(kNode), nullptr, 0));
  EXPECT_FALSE(printed("log collector: node 0x1011 gone")) << "only the collector's own timer makes it look";
}

TEST_F(SysLogCollectorTest, AnUnreadableNodeTableIsReportedOnce) {
  m_tableReadable = false;
  rescan({});
  rescan({});
  EXPECT_EQ(printedContaining("the running nodes cannot be read"), 1u);
  EXPECT_TRUE(m_aliasesAsked.empty());
}

TEST_F(SysLogCollectorTest, NodesOfOtherHostsAreReportedButTheirCollectorIdsAreNotTaken) {
  SysLogCollector::Hooks withRemote = hooks();
  withRemote.remoteNodes = [](std::vector<uint16_t>& nodes) {
    nodes = {0x2011, kNode};  // one listed twice: the table changed between the two reads
    return true;
  };
  SysLogCollector controller(withRemote);
  m_live = {kNode};
  controller.start();
  EXPECT_TRUE(printed("log collector: node 0x2011 appeared"));
  EXPECT_EQ(printedContaining("node 0x1011 appeared"), 1u);
  EXPECT_EQ(m_aliasesAsked, (std::vector<uint16_t>{0x101D})) << "another host's agent collects group 0x2010";
}

TEST_F(SysLogCollectorTest, AnAgentPassesEveryLineOnToItsControllerAsFromTheNodeAndSaysWhenItCannot) {
  constexpr uint16_t kController = 0x30F0;
  constexpr uint32_t kControllerCollector = uint32_t{kController} << 16 | SYSLOG_COLLECTOR_CPID;
  SysLogCollector::Hooks relaying = hooks();
  relaying.relayTo = kController;
  relaying.quiet = true;
  SysLogCollector agent(relaying);
  const auto lineToAgent = [&](const std::string& text) {
    void* msg = message(SYSLOG_LINE_MSG, logSender(kNode), text.c_str(), static_cast<uint32_t>(text.size() + 1));
    agent.ProcessMessage(msg);
    EXPECT_EQ(msg, nullptr);
  };
  lineToAgent("first");
  ASSERT_EQ(runtime.sent().size(), 1u);
  const void* passed = runtime.sent()[0];
  EXPECT_EQ(AaSysComMsgGetId(passed), SYSLOG_LINE_MSG);
  EXPECT_EQ(AaSysComMsgGetReceiver(passed), kControllerCollector);
  EXPECT_EQ(AaSysComMsgGetSender(passed), logSender(kNode)) << "the controller sees the line as the node's";
  ASSERT_EQ(AaSysComMsgGetPayloadSize(passed), 6u);
  EXPECT_STREQ(static_cast<const char*>(AaSysComMsgGetPayload(passed)), "first");
  EXPECT_EQ(printedContaining("first"), 0u) << "the controller prints the lines, not the agent";

  m_sendRefusals[kControllerCollector] = -EHOSTUNREACH;
  lineToAgent("lost");
  lineToAgent("lost too");
  EXPECT_EQ(printedContaining("cannot pass lines on to the controller, node 0x30f0: it has gone"), 1u);
  m_sendRefusals.clear();
  lineToAgent("last");
  EXPECT_EQ(printedContaining("passing lines on to the controller, node 0x30f0, again"), 1u);
  EXPECT_EQ(runtime.sent().size(), 2u);
}

TEST_F(SysLogCollectorTest, OtherMessagesAreDroppedWithALine) {
  deliver(message(0x1234, kFollowerA, nullptr, 0));
  EXPECT_TRUE(printed("log collector: dropped message 0x1234 from 0x1ff00777: neither a log line nor a follow request"));
  EXPECT_TRUE(runtime.sent().empty());
}

}  // namespace
