// The server's rules, command by command: what it sends the proxies for what it receives.
#include "BrokerServer.h"

#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "AaCpuBit.h"
#include "AaSysCom.h"
#include "FakeRuntime.h"

namespace {

constexpr uint16_t kNodeA = 0x2001;
constexpr uint16_t kNodeB = 0x2002;
constexpr uint16_t kNodeC = 0x2003;
constexpr uint16_t kNews = 0x3A01;
constexpr uint32_t kPublisherA = uint32_t{kNodeA} << 16 | 0x0704;
constexpr uint32_t kPublisherC = uint32_t{kNodeC} << 16 | 0x0704;
constexpr uint32_t kSubscriberA = uint32_t{kNodeA} << 16 | 0x0702;
constexpr uint32_t kSubscriberB = uint32_t{kNodeB} << 16 | 0x0702;
constexpr uint32_t kSubscriberC = uint32_t{kNodeC} << 16 | 0x0702;
constexpr uint32_t kServerAddress = uint32_t{OlmTest::kOwnNid} << 16 | AASYSMB_SERVER_CPID;

uint32_t proxyOf(uint16_t nid) { return uint32_t{nid} << 16 | AASYSMB_PROXY_CPID; }

// A command the server sent: id, the node it went to, its header and the first payload word.
struct Command {
  uint32_t id;
  uint16_t node;
  SAaSysMbCmdHeader header;
  uint32_t value;
};

class BrokerServerTest : public OlmTest::FakeRuntimeTest {
 protected:
  static SAaSysMbCmdHeader header(uint32_t mode, uint32_t address, uint16_t size = 0,
                                  uint32_t zone = EAaSysMbZone_System) {
    SAaSysMbCmdHeader header = {};
    header.marker = AASYSMB_MARKER_CLIENT;
    header.mode = mode;
    header.zone = zone;
    header.address = address;
    header.msgId = kNews;
    header.size = size;
    header.apfWord = 1u << AASYSMB_APF_SHIFT;
    return header;
  }
  // A command as it arrives at the server; payloadSize counts the header.
  void* command(uint32_t id, const SAaSysMbCmdHeader& header, uint32_t payloadSize = AASYSMB_CMD_HEADER_SIZE) {
    void* msg = AaSysComMsgCreate(id, payloadSize, kServerAddress);
    std::memset(AaSysComMsgGetPayload(msg), 0, payloadSize);
    std::memcpy(AaSysComMsgGetPayload(msg), &header, std::min<size_t>(sizeof(header), payloadSize));
    AaSysComMsgSetSender(msg, header.address);
    return msg;
  }
  void deliver(void* msg) {
    m_from = runtime.sent().size();
    server.ProcessMessage(msg);
    EXPECT_EQ(msg, nullptr) << "the server left its message in the reference";
  }
  void publish(uint32_t publisher, uint32_t mode, uint32_t value) {
    void* msg = command(AASYSMB_PUBL_CMD_MSG, header(mode, publisher, sizeof(value)),
                        sizeof(value) + AASYSMB_PUBL_CMD_OVERHEAD);
    std::memcpy(static_cast<uint8_t*>(AaSysComMsgGetPayload(msg)) + AASYSMB_CMD_HEADER_SIZE, &value, sizeof(value));
    deliver(msg);
  }
  void subscribe(uint32_t subscriber, uint32_t mode) { deliver(command(AASYSMB_SUBS_CMD_MSG, header(mode, subscriber))); }
  void announce(uint16_t nid) {
    SAaSysMbCmdHeader reset = header(0, proxyOf(nid), 0, 0);
    reset.marker = AASYSMB_MARKER_PROXY;
    reset.msgId = 0;
    deliver(command(SYSMB_RESET_IND_MSG, reset));
  }

  // What the last delivered message made the server send, every message from its own address.
  std::vector<Command> sent() const {
    std::vector<Command> commands;
    for (size_t i = m_from; i < runtime.sent().size(); ++i) {
      const void* msg = runtime.sent()[i];
      if (AaSysComMsgGetSender(msg) != kServerAddress) continue;
      EXPECT_EQ(AaSysComSicadGetCpid(AaSysComMsgGetReceiver(msg)), AASYSMB_PROXY_CPID);
      Command command{AaSysComMsgGetId(msg), AaSysComSicadGetNid(AaSysComMsgGetReceiver(msg)), {}, 0};
      const auto* payload = static_cast<const uint8_t*>(AaSysComMsgGetPayload(msg));
      std::memcpy(&command.header, payload, sizeof(command.header));
      EXPECT_EQ(command.header.marker, AASYSMB_MARKER_SERVER);
      if (command.id == AASYSMB_FWD_CMD_MSG) {
        EXPECT_EQ(AaSysComMsgGetPayloadSize(msg), command.header.size + AASYSMB_PUBL_CMD_OVERHEAD);
        std::memcpy(&command.value, payload + AASYSMB_CMD_HEADER_SIZE, sizeof(command.value));
      }
      commands.push_back(command);
    }
    return commands;
  }
  std::vector<uint16_t> nodesSent(uint32_t id) const {
    std::vector<uint16_t> nodes;
    for (const Command& command : sent()) {
      if (command.id == id) nodes.push_back(command.node);
    }
    return nodes;
  }
  size_t count(const TAaSysMbList* list) const {
    size_t records = 0;
    for (const TAaSysMbList* e = list->next; e != list; e = e->next) ++records;
    return records;
  }

  BrokerServer server;

 private:
  size_t m_from = 0;
};

using Nodes = std::vector<uint16_t>;

TEST_F(BrokerServerTest, APublicationIsForwardedToTheNodesOfItsSubscribersAndToItsPublishersForKeeping) {
  subscribe(kSubscriberB, EAaSysMbSubsMode_StoredAndKeep);
  EXPECT_EQ(nodesSent(AASYSMB_SND_CMD_MSG), Nodes{kNodeB}) << "the subscriber's proxy books it";
  subscribe(kSubscriberC, EAaSysMbSubsMode_KeepOnly);
  publish(kPublisherA, EAaSysMbPublMode_Replace, 7);
  const std::vector<Command> commands = sent();
  ASSERT_EQ(commands.size(), 3u);
  for (const Command& forward : commands) {
    EXPECT_EQ(forward.id, AASYSMB_FWD_CMD_MSG);
    EXPECT_EQ(forward.header.address, kPublisherA);
    EXPECT_EQ(forward.header.mode, uint32_t{EAaSysMbPublMode_Replace});
    EXPECT_EQ(forward.header.apfWord, 1u << AASYSMB_APF_SHIFT) << "the content's APF without the flags";
    EXPECT_EQ(forward.value, 7u);
  }
  EXPECT_EQ(nodesSent(AASYSMB_FWD_CMD_MSG), (Nodes{kNodeB, kNodeC, kNodeA}));
  EXPECT_EQ(count(server.publications()), 1u);

  // Not stored: only where subscribers are.
  publish(kPublisherA, EAaSysMbPublMode_NotStored, 8);
  EXPECT_EQ(nodesSent(AASYSMB_FWD_CMD_MSG), (Nodes{kNodeB, kNodeC}));
  EXPECT_EQ(count(server.publications()), 1u);
}

TEST_F(BrokerServerTest, ALateSubscriberIsServedByDirectDeliveryFromEveryOtherNodeHoldingOne) {
  publish(kPublisherA, EAaSysMbPublMode_PerPublisher, 1);
  publish(kPublisherC, EAaSysMbPublMode_PerPublisher, 2);
  EXPECT_EQ(nodesSent(AASYSMB_FWD_CMD_MSG), Nodes{kNodeC}) << "the publisher's own proxy keeps it";

  subscribe(kSubscriberC, EAaSysMbSubsMode_StoredAndKeep);
  const std::vector<Command> commands = sent();
  ASSERT_EQ(commands.size(), 2u);
  EXPECT_EQ(commands[0].node, kNodeC);
  EXPECT_EQ(commands[0].header.mode, uint32_t{EAaSysMbSubsMode_StoredAndKeep}) << "C serves its own stored one";
  EXPECT_EQ(commands[1].node, kNodeA);
  EXPECT_EQ(commands[1].header.mode, AASYSMB_MODE_DIRECT_DELIVERY);
  EXPECT_EQ(commands[1].header.address, kSubscriberC);

  subscribe(kSubscriberB, EAaSysMbSubsMode_KeepOnly);
  EXPECT_EQ(nodesSent(AASYSMB_SND_CMD_MSG), Nodes{kNodeB}) << "mode 1 is not served what is stored";
  subscribe(kSubscriberA, EAaSysMbSubsMode_StoredOnly);
  EXPECT_EQ(nodesSent(AASYSMB_SND_CMD_MSG), (Nodes{kNodeA, kNodeC}));
  EXPECT_EQ(count(server.subscriptions()), 2u) << "mode 2 keeps no subscription";
}

TEST_F(BrokerServerTest, OneShotSubscriptionsAreServedOnceFromTheStoreOrByTheNextPublication) {
  publish(kPublisherA, EAaSysMbPublMode_Replace, 1);
  subscribe(kSubscriberB, EAaSysMbSubsMode_OneShot);
  ASSERT_EQ(sent().size(), 2u);
  EXPECT_EQ(sent()[0].header.mode, uint32_t{EAaSysMbSubsMode_StoredOnly}) << "served now, so B books nothing";
  EXPECT_EQ(count(server.subscriptions()), 0u);

  subscribe(kSubscriberC, EAaSysMbSubsMode_OneShot);  // again nothing kept: the publication stays stored
  deliver(command(AASYSMB_UNPUBL_CMD_MSG, header(0, kPublisherA)));
  EXPECT_EQ(nodesSent(AASYSMB_DEL_CMD_MSG), Nodes{kNodeA});
  subscribe(kSubscriberC, EAaSysMbSubsMode_OneShot);
  EXPECT_EQ(sent().size(), 1u);
  EXPECT_EQ(sent()[0].header.mode, uint32_t{EAaSysMbSubsMode_OneShot});
  EXPECT_EQ(count(server.subscriptions()), 1u);

  publish(kPublisherA, EAaSysMbPublMode_NotStored, 2);
  EXPECT_EQ(nodesSent(AASYSMB_FWD_CMD_MSG), Nodes{kNodeC});
  EXPECT_EQ(count(server.subscriptions()), 0u) << "C's proxy ended it with the delivery";
  publish(kPublisherA, EAaSysMbPublMode_NotStored, 3);
  EXPECT_TRUE(sent().empty());

  // Served from C's own store: C's proxy tells the server, which forgets the subscription.
  subscribe(kSubscriberC, EAaSysMbSubsMode_OneShot);
  SAaSysMbCmdHeader served = header(EAaSysMbSubsMode_OneShot, kSubscriberC);
  served.marker = AASYSMB_MARKER_PROXY;
  deliver(command(AASYSMB_DEL_CMD_MSG, served));
  EXPECT_EQ(count(server.subscriptions()), 0u);
}

TEST_F(BrokerServerTest, AOneShotPublicationIsKeptOnlyWhenNobodyGotItAndGoesToOneLateSubscriber) {
  subscribe(kSubscriberB, EAaSysMbSubsMode_StoredAndKeep);
  publish(kPublisherA, EAaSysMbPublMode_OneShot, 1);
  EXPECT_EQ(nodesSent(AASYSMB_FWD_CMD_MSG), (Nodes{kNodeB, kNodeA}));
  EXPECT_EQ(nodesSent(AASYSMB_DEL_CMD_MSG), Nodes{kNodeA}) << "A's proxy saw no subscriber and kept it";
  EXPECT_EQ(count(server.publications()), 0u);

  deliver(command(AASYSMB_UNSUBS_CMD_MSG, header(0, kSubscriberB)));
  EXPECT_EQ(nodesSent(AASYSMB_UNSUBS_CMD_MSG), Nodes{kNodeB});
  publish(kPublisherA, EAaSysMbPublMode_OneShot, 2);
  EXPECT_TRUE(nodesSent(AASYSMB_DEL_CMD_MSG).empty());
  EXPECT_EQ(count(server.publications()), 1u);

  subscribe(kSubscriberC, EAaSysMbSubsMode_StoredAndKeep);
  EXPECT_EQ(nodesSent(AASYSMB_SND_CMD_MSG), (Nodes{kNodeC, kNodeA}));
  EXPECT_EQ(count(server.publications()), 0u) << "A's proxy deleted it when it sent it";
  subscribe(kSubscriberB, EAaSysMbSubsMode_StoredAndKeep);
  EXPECT_EQ(nodesSent(AASYSMB_SND_CMD_MSG), Nodes{kNodeB});
}

TEST_F(BrokerServerTest, ReplacementsAreDeletedWhereTheyAreKeptAndModeTwoMeetingAnotherModeIsRefused) {
  publish(kPublisherC, EAaSysMbPublMode_Replace, 1);
  publish(kPublisherA, EAaSysMbPublMode_Replace, 2);
  EXPECT_EQ(nodesSent(AASYSMB_DEL_CMD_MSG), Nodes{kNodeC});
  EXPECT_EQ(sent()[0].header.address, kPublisherC);
  EXPECT_EQ(count(server.publications()), 1u);

  publish(kPublisherC, EAaSysMbPublMode_PerPublisher, 3);
  EXPECT_TRUE(sent().empty()) << "refused: a mode-1 publication of the id is stored";
  EXPECT_EQ(count(server.publications()), 1u);
}

TEST_F(BrokerServerTest, ANodeThatAnnouncesItselfIsAcknowledgedAndItsEarlierRecordsForgotten) {
  subscribe(kSubscriberB, EAaSysMbSubsMode_StoredAndKeep);
  subscribe(kSubscriberB, EAaSysMbSubsMode_StoredAndKeep);
  EXPECT_TRUE(sent().empty()) << "a second subscription of the id is ignored";
  subscribe(kSubscriberC, EAaSysMbSubsMode_StoredAndKeep);
  publish(uint32_t{kNodeB} << 16 | 0x0704, EAaSysMbPublMode_Replace, 1);

  EXPECT_FALSE(server.knows(kNodeB));
  announce(kNodeB);
  EXPECT_TRUE(server.knows(kNodeB));
  EXPECT_EQ(nodesSent(SYSMB_RESET_ACK_MSG), Nodes{kNodeB});
  EXPECT_EQ(count(server.publications()), 0u);
  EXPECT_EQ(count(server.subscriptions()), 1u) << "C's subscription stays";

  // The restarted node's proxy has nothing booked: the same subscription is booked again.
  subscribe(kSubscriberB, EAaSysMbSubsMode_StoredAndKeep);
  EXPECT_EQ(nodesSent(AASYSMB_SND_CMD_MSG), Nodes{kNodeB});
}

TEST_F(BrokerServerTest, AtStartLiveNodesButItsOwnAreAskedToAnnounceThemselves) {
  server.start({kNodeA, OlmTest::kOwnNid, kNodeC});
  EXPECT_EQ(nodesSent(SYSMB_RESET_REQ_MSG), (Nodes{kNodeA, kNodeC}));
  EXPECT_TRUE(server.knows(OlmTest::kOwnNid));
  EXPECT_FALSE(server.knows(kNodeA)) << "until it answers";
  ASSERT_EQ(runtime.timers().size(), 1u);

  // A node starting as the server asked announces itself twice, with commands in between: these
  // stay until the answers are due.
  announce(kNodeA);
  subscribe(kSubscriberA, EAaSysMbSubsMode_StoredAndKeep);
  announce(kNodeA);
  EXPECT_TRUE(server.knows(kNodeA));
  EXPECT_EQ(count(server.subscriptions()), 1u);

  void* due = AaSysComMsgCreateCopy(runtime.timers()[0].msg);
  deliver(due);
  announce(kNodeA);
  EXPECT_EQ(count(server.subscriptions()), 0u) << "after that, an announcement is a restart";
}

TEST_F(BrokerServerTest, FlushesAreKeptAndRelayedToTheNodeInTheSystemZone) {
  subscribe(kSubscriberC, EAaSysMbSubsMode_StoredAndKeep);
  subscribe(kSubscriberA, EAaSysMbSubsMode_StoredAndKeep);
  publish(kPublisherC, EAaSysMbPublMode_PerPublisher, 1);
  publish(kPublisherA, EAaSysMbPublMode_PerPublisher, 2);

  deliver(command(AASYSMB_FLUSH_CMD_MSG, header(EAaSysMbFlushMode_Both, uint32_t{kNodeC} << 16 | 0xFFFF, 0,
                                                EAaSysMbZone_All)));
  ASSERT_EQ(nodesSent(AASYSMB_FLUSH_CMD_MSG), Nodes{kNodeC});
  EXPECT_EQ(sent()[0].header.zone, uint32_t{EAaSysMbZone_System});
  EXPECT_EQ(count(server.publications()), 1u) << "only node C's";
  EXPECT_EQ(count(server.subscriptions()), 1u);

  deliver(command(AASYSMB_FLUSH_CMD_MSG, header(EAaSysMbFlushMode_Subscriptions, kSubscriberA)));
  EXPECT_EQ(count(server.subscriptions()), 0u);
  EXPECT_EQ(count(server.publications()), 1u);
}

// What the server refuses leaves nothing behind and sends nothing.
TEST_F(BrokerServerTest, MalformedCommandsAreDiscarded) {
  deliver(command(AASYSMB_SUBS_CMD_MSG, header(0, kSubscriberB), AASYSMB_CMD_HEADER_SIZE - 1));
  deliver(command(AASYSMB_PUBL_CMD_MSG, header(1, kPublisherA, 200), 40));  // size beyond the message
  deliver(command(AASYSMB_SUBS_CMD_MSG, header(4, kSubscriberB)));
  deliver(command(AASYSMB_SUBS_CMD_MSG, header(0, kSubscriberB, 0, EAaSysMbZone_Node)));
  deliver(command(AASYSMB_SUBS_CMD_MSG, header(0, uint32_t{AASYSCOM_NID_THIS_NODE} << 16 | 0x0702)));
  deliver(command(AASYSMB_FLUSH_CMD_MSG, header(3, kSubscriberB)));
  deliver(command(AASYSMB_SND_CMD_MSG, header(0, kSubscriberB)));
  EXPECT_EQ(count(server.subscriptions()), 0u);
  EXPECT_EQ(count(server.publications()), 0u);
  for (const void* msg : runtime.sent()) EXPECT_NE(AaSysComMsgGetSender(msg), kServerAddress);
}

// A peer of the other byte order writes every header word and the 16-bit id and size swapped and
// marks its content with APF 2 (big-endian, 2-byte aligned), which the receive path leaves alone.
TEST_F(BrokerServerTest, ACommandOfTheOtherByteOrderIsReadAfterConversion) {
  SAaSysMbCmdHeader wire = header(EAaSysMbSubsMode_StoredAndKeep, kSubscriberB);
  AaCpuBitSwapMultiByteOrder32(&wire.marker, 5);
  AaCpuBitSwapByteOrder16(&wire.msgId);
  AaCpuBitSwapByteOrder16(&wire.size);
  AaCpuBitSwapByteOrder32(&wire.apfWord);
  void* msg = command(AASYSMB_SUBS_CMD_MSG, wire);
  AaSysComMsgSetApf(msg, 2);
  deliver(msg);
  ASSERT_EQ(nodesSent(AASYSMB_SND_CMD_MSG), Nodes{kNodeB});
  EXPECT_EQ(sent()[0].header.msgId, kNews);
  EXPECT_EQ(sent()[0].header.address, kSubscriberB);
}

}  // namespace
