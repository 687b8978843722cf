// The proxy's side of the wire: the server's and other proxies' commands, the message API's checks
// and replies, commands of older senders and of the other byte order, and bytes that are no
// command at all.
#include <gtest/gtest.h>

#include "AaCpuBit.h"
#include "AaSysMbCommand.h"
#include "AaSysMbTestNode.h"

namespace {

using OlmTest::kNews;
using OlmTest::kPublisherA;
using OlmTest::kRemotePublisher;
using OlmTest::kRemoteSubscriber;
using OlmTest::kSubscriberA;
using Values = std::vector<uint32_t>;

class AaSysMbLocalTest : public OlmTest::BrokerTest {
 protected:
  // The delete commands the proxy sent the server.
  std::vector<SAaSysMbCmdHeader> deletesToServer() const {
    std::vector<SAaSysMbCmdHeader> found;
    for (const auto& sent : sentMessages(AASYSMB_DEL_CMD_MSG)) {
      EXPECT_EQ(AaSysComSicadGetCpid(sent.receiver), AASYSMB_SERVER_CPID);
      EXPECT_EQ(sent.sender, OlmTest::kProxyAddress);
      found.push_back(headerOf(sent.msg));
    }
    return found;
  }
  void sendCommand(uint32_t mode, uint32_t subscriber) {
    deliver(command(AASYSMB_SND_CMD_MSG, header(AASYSMB_MARKER_SERVER, mode, EAaSysMbZone_System, subscriber, kNews)));
  }
  // A message-API command from an application, answered to address.
  void messageApi(uint32_t id, uint32_t mode, uint32_t zone, uint32_t address) {
    deliver(command(id, header(AASYSMB_MARKER_MESSAGE_API, mode, zone, address, kNews), AASYSMB_CMD_HEADER_SIZE,
                    kSubscriberA));
  }
  const SAaSysMbReplyMsg& lastReply(uint32_t replyId) const {
    const auto replies = sentMessages(replyId);
    EXPECT_FALSE(replies.empty());
    return *static_cast<const SAaSysMbReplyMsg*>(AaSysComMsgGetPayload(replies.back().msg));
  }
};

TEST_F(AaSysMbLocalTest, ForwardedPublicationsReachLocalSubscribersAndOnlyLocalPublishersAreStored) {
  sendCommand(EAaSysMbSubsMode_KeepOnly, kSubscriberA);
  deliver(forward(AASYSMB_MARKER_SERVER, EAaSysMbPublMode_Replace, kRemotePublisher, 1));
  EXPECT_EQ(receivedBy(kSubscriberA), Values{1});
  EXPECT_EQ(sentMessages(kNews).back().sender, kRemotePublisher);

  // A one-shot publication of a local publisher that nobody here takes is kept for a later send
  // command, which hands it to the subscriber's node once.
  deliver(forward(AASYSMB_MARKER_SERVER, EAaSysMbPublMode_OneShot, kPublisherA, 2));
  EXPECT_EQ(receivedBy(kSubscriberA), (Values{1, 2}));
  deliver(forward(AASYSMB_MARKER_SERVER, EAaSysMbPublMode_Replace, kRemotePublisher, 3));
  ASSERT_EQ(AaSysMbUnsubscribe(kNews, kSubscriberA, EAaSysMbZone_Node), 0u);
  pump();
  deliver(forward(AASYSMB_MARKER_SERVER, EAaSysMbPublMode_OneShot, kPublisherA, 4));
  sendCommand(EAaSysMbSubsMode_StoredAndKeep, kRemoteSubscriber);
  sendCommand(EAaSysMbSubsMode_StoredAndKeep, kRemoteSubscriber);
  const auto forwarded = sentMessages(AASYSMB_FWD_CMD_MSG);
  ASSERT_EQ(forwarded.size(), 1u) << "the remote publisher's publication is not this proxy's to keep";
  EXPECT_EQ(forwarded[0].receiver, OlmTest::kRemoteNode << 16 | AASYSMB_PROXY_CPID);
  EXPECT_EQ(forwarded[0].sender, OlmTest::kProxyAddress);
  const SAaSysMbCmdHeader& fwd = headerOf(forwarded[0].msg);
  EXPECT_EQ(fwd.marker, AASYSMB_MARKER_PROXY);
  EXPECT_EQ(fwd.address, kPublisherA);
  EXPECT_EQ(fwd.size, 4u);
  EXPECT_EQ(AaSysComMsgGetPayloadSize(forwarded[0].msg), 4u + AASYSMB_PUBL_CMD_OVERHEAD);
  uint32_t value = 0;
  std::memcpy(&value, &fwd + 1, sizeof(value));
  EXPECT_EQ(value, 4u);
}

TEST_F(AaSysMbLocalTest, DirectDeliveryToARemoteSubscriberComesFromThePublisher) {
  deliver(forward(AASYSMB_MARKER_SERVER, EAaSysMbPublMode_Replace, kPublisherA, 7));
  sendCommand(AASYSMB_MODE_DIRECT_DELIVERY, kRemoteSubscriber);
  const auto direct = sentMessages(kNews);
  ASSERT_EQ(direct.size(), 1u);
  EXPECT_EQ(direct[0].receiver, kRemoteSubscriber);
  EXPECT_EQ(direct[0].sender, kPublisherA);
  EXPECT_EQ(direct[0].firstWord, 7u);
  EXPECT_TRUE(sentMessages(AASYSMB_FWD_CMD_MSG).empty());
}

TEST_F(AaSysMbLocalTest, SendCommandsForLocalSubscribers) {
  // One-shot with a stored publication: served, nothing booked, and the server told so.
  deliver(forward(AASYSMB_MARKER_SERVER, EAaSysMbPublMode_Replace, kPublisherA, 1));
  sendCommand(EAaSysMbSubsMode_OneShot, kSubscriberA);
  EXPECT_EQ(receivedBy(kSubscriberA), Values{1});
  auto deletes = deletesToServer();
  ASSERT_EQ(deletes.size(), 1u);
  EXPECT_EQ(deletes[0].marker, AASYSMB_MARKER_PROXY);
  EXPECT_EQ(deletes[0].mode, EAaSysMbSubsMode_OneShot);
  EXPECT_EQ(deletes[0].address, kSubscriberA);

  // Mode 1 books without serving; the same subscription again is refused with a delete command.
  sendCommand(EAaSysMbSubsMode_KeepOnly, kSubscriberA);
  EXPECT_EQ(receivedBy(kSubscriberA), Values{1});
  sendCommand(EAaSysMbSubsMode_KeepOnly, kSubscriberA);
  EXPECT_TRUE(logged("already subscribed message 0x3a01, ignoring subscription."));
  deletes = deletesToServer();
  ASSERT_EQ(deletes.size(), 2u);
  EXPECT_EQ(deletes[1].mode, AASYSMB_MODE_PROXY_DELETE);
  EXPECT_EQ(deletes[1].zone, static_cast<uint32_t>(EAaSysMbZone_System));
  EXPECT_EQ(deletes[1].msgId, kNews);
  deliver(forward(AASYSMB_MARKER_SERVER, EAaSysMbPublMode_NotStored, kRemotePublisher, 2));
  EXPECT_EQ(receivedBy(kSubscriberA), (Values{1, 2}));
}

TEST_F(AaSysMbLocalTest, AForwardThatContradictsTheStoreResynchronisesWithTheServer) {
  publish(kPublisherA, EAaSysMbPublMode_Replace, 1);
  deliver(forward(AASYSMB_MARKER_SERVER, EAaSysMbPublMode_PerPublisher, kPublisherA, 2));
  EXPECT_TRUE(logged("Possible synchronization failure in SysMb proxy and server!"));
  const auto deletes = deletesToServer();
  ASSERT_EQ(deletes.size(), 1u);
  EXPECT_EQ(deletes[0].address, kPublisherA);
  // The server's delete command removes the stored publication.
  deliver(command(AASYSMB_DEL_CMD_MSG, header(AASYSMB_MARKER_SERVER, 0, EAaSysMbZone_Node, kPublisherA, kNews)));
  subscribe(kSubscriberA, EAaSysMbSubsMode_StoredOnly);
  EXPECT_EQ(receivedBy(kSubscriberA), Values{});
}

TEST_F(AaSysMbLocalTest, ResetRequestsNotificationsAndUnknownIds) {
  deliver(command(SYSMB_RESET_REQ_MSG, header(AASYSMB_MARKER_SERVER, 0, 0, 0, 0)));
  deliver(command(SYSMB_RESET_ACK_MSG, header(AASYSMB_MARKER_SERVER, 0, 0, 0, 0)));
  deliver(command(AASYSMB_NOTIF_IND_MSG, header(AASYSMB_MARKER_SERVER, 0, 0, 0, 0), 0));
  deliver(command(0x08A3, header(AASYSMB_MARKER_SERVER, 0, 0, 0, 0)));
  EXPECT_EQ(sentMessages(SYSMB_RESET_IND_MSG).size(), 2u);
  EXPECT_TRUE(logged("AaSysMbLocal: notif is null"));
  EXPECT_TRUE(logged("AaSysMbLocal: Received unknown message with id 0x8a3. Discarding."));
}

TEST_F(AaSysMbLocalTest, MessageApiChecksAndReplies) {
  messageApi(AASYSMB_SUBS_CMD_MSG, EAaSysMbSubsMode_KeepOnly, EAaSysMbZone_Node, kSubscriberA);
  EXPECT_EQ(lastReply(AASYSMB_SUBS_REPLY_MSG).result, EAaSysMbCheckResult_UnsupportedZone);
  EXPECT_TRUE(logged("CheckParamsSubscribe(): Subscribe message on unsupported zone 0x1."));
  messageApi(AASYSMB_FLUSH_CMD_MSG, 3, EAaSysMbZone_System, kSubscriberA);
  EXPECT_EQ(lastReply(AASYSMB_FLUSH_REPLY_MSG).result, EAaSysMbCheckResult_UnsupportedMode);
  messageApi(AASYSMB_UNSUBS_CMD_MSG, 0, EAaSysMbZone_System, 0);
  EXPECT_TRUE(logged("CheckParamsUnsubscribe(): Subscribe message with invalid sicad 0x0."));
  EXPECT_TRUE(sentMessages(AASYSMB_UNSUBS_REPLY_MSG).empty()) << "an invalid address gets no reply";
  messageApi(AASYSMB_SND_CMD_MSG, 0, EAaSysMbZone_System, kSubscriberA);
  EXPECT_TRUE(logged("Unexpected message id 0x8a2 received via message API."));

  // A valid one is answered and executed; the reply echoes the header with the flags set.
  messageApi(AASYSMB_SUBS_CMD_MSG, EAaSysMbSubsMode_KeepOnly, EAaSysMbZone_System, kSubscriberA);
  const SAaSysMbReplyMsg& reply = lastReply(AASYSMB_SUBS_REPLY_MSG);
  EXPECT_EQ(reply.result, EAaSysMbCheckResult_Valid);
  EXPECT_EQ(reply.header.marker, AASYSMB_MARKER_MESSAGE_API);
  EXPECT_EQ(reply.header.apfWord, 1u << 24 | AASYSMB_FLAG_REPLY_WANTED | AASYSMB_FLAG_MESSAGE_API);
  EXPECT_EQ(sentMessages(AASYSMB_SUBS_REPLY_MSG).back().receiver, kSubscriberA);
  deliver(forward(AASYSMB_MARKER_SERVER, EAaSysMbPublMode_NotStored, kRemotePublisher, 5));
  EXPECT_EQ(receivedBy(kSubscriberA), Values{5});
  EXPECT_EQ(sentMessages(AASYSMB_SUBS_REPLY_MSG).size(), 2u);
  EXPECT_EQ(sentMessages(AASYSMB_FLUSH_REPLY_MSG).size(), 1u);
}

TEST_F(AaSysMbLocalTest, TheServerWantsRepliesOnlyForFailures) {
  SAaSysMbCmdHeader fields = header(AASYSMB_MARKER_SERVER, EAaSysMbPublMode_Replace, EAaSysMbZone_System,
                                    kRemotePublisher, kNews, 4);
  fields.apfWord |= AASYSMB_FLAG_REPLY_WANTED;
  deliver(command(AASYSMB_FWD_CMD_MSG, fields, 4 + AASYSMB_PUBL_CMD_OVERHEAD));
  EXPECT_TRUE(sentMessages(AASYSMB_PUBL_REPLY_MSG).empty());
  deliver(command(AASYSMB_FWD_CMD_MSG, fields, 4 + AASYSMB_PUBL_CMD_OVERHEAD, kSubscriberA));
  EXPECT_EQ(lastReply(AASYSMB_PUBL_REPLY_MSG).result, EAaSysMbCheckResult_Valid);
}

TEST_F(AaSysMbLocalTest, OlderSendersCommandsAreHandledAsTheyStand) {
  publish(kPublisherA, EAaSysMbPublMode_Replace, 1);
  deliver(command(AASYSMB_UNPUBL_CMD_MSG_OLD, header(AASYSMB_MARKER_CLIENT, 0, EAaSysMbZone_Node, kPublisherA, kNews)));
  subscribe(kSubscriberA, EAaSysMbSubsMode_StoredAndKeep);
  EXPECT_EQ(receivedBy(kSubscriberA), Values{}) << "0x09CE unpublished";

  // A publication whose payload is not its size + 32: no check (zone 1 passes), no reply, and its
  // content APF is the message's.
  SAaSysMbCmdHeader fields =
      header(AASYSMB_MARKER_MESSAGE_API, EAaSysMbPublMode_NotStored, EAaSysMbZone_Node, kPublisherA, kNews, 4);
  void* old = command(AASYSMB_PUBL_CMD_MSG, fields, 4 + AASYSMB_CMD_HEADER_SIZE, kPublisherA);
  AaSysComMsgSetApf(old, 3);
  deliver(old);
  ASSERT_EQ(receivedBy(kSubscriberA).size(), 1u);
  EXPECT_EQ(AaSysComMsgGetApf(sentMessages(kNews).back().msg), 3u);
  EXPECT_TRUE(sentMessages(AASYSMB_PUBL_REPLY_MSG).empty());
}

// A peer of the other byte order writes an APF-2 command with every header field big-endian in
// its place (words at 0 to 16 and 24 as 32-bit values, id and size as 16-bit ones) and its
// content as its application lays it out; the Dispatcher passes it on unconverted.
TEST_F(AaSysMbLocalTest, ACommandOfABigEndianPeer) {
  subscribe(kSubscriberA, EAaSysMbSubsMode_KeepOnly);
  SAaSysMbCmdHeader fields =
      header(AASYSMB_MARKER_SERVER, EAaSysMbPublMode_Replace, EAaSysMbZone_System, kPublisherA, kNews, 4);
  const uint32_t content = 0x01020304;
  AaCpuBitSwapMultiByteOrder32(&fields, 5);
  AaCpuBitSwapByteOrder16(&fields.msgId);
  AaCpuBitSwapByteOrder16(&fields.size);
  fields.apfWord = 2u;  // APF 2, big-endian: in the word's first byte
  void* peer = command(AASYSMB_FWD_CMD_MSG, fields, 4 + AASYSMB_PUBL_CMD_OVERHEAD);
  std::memcpy(static_cast<uint8_t*>(AaSysComMsgGetPayload(peer)) + AASYSMB_CMD_HEADER_SIZE, &content, 4);
  AaSysComMsgSetApf(peer, 2);
  deliver(peer);
  ASSERT_EQ(receivedBy(kSubscriberA), Values{content}) << "content of APF 2 is the application's to convert";
  EXPECT_EQ(AaSysComMsgGetApf(sentMessages(kNews).back().msg), 2u);
  subscribe(OlmTest::kSubscriberB, EAaSysMbSubsMode_StoredOnly);
  EXPECT_EQ(receivedBy(OlmTest::kSubscriberB), Values{content}) << "stored under the converted header";

  // Handed on to another node, the header is in this host's order and the content still APF 2.
  sendCommand(EAaSysMbSubsMode_KeepOnly, kRemoteSubscriber);
  const auto forwards = sentMessages(AASYSMB_FWD_CMD_MSG);
  ASSERT_EQ(forwards.size(), 1u);
  EXPECT_EQ(AaSysComMsgGetApf(forwards[0].msg), 3u);
  EXPECT_EQ(commandHeaderOf(forwards[0].msg)->apfWord >> AASYSMB_APF_SHIFT, 2u);
}

// Whatever the bytes, the proxy reads nothing outside the message (the sanitizer build checks) and
// leaves nothing to free.
TEST_F(AaSysMbLocalTest, CommandsShorterThanTheirHeaderOrPayload) {
  const uint32_t ids[] = {AASYSMB_PUBL_CMD_MSG,   AASYSMB_FWD_CMD_MSG, AASYSMB_SND_CMD_MSG,   AASYSMB_DEL_CMD_MSG,
                          AASYSMB_SUBS_CMD_MSG,   AASYSMB_UNSUBS_CMD_MSG, AASYSMB_UNPUBL_CMD_MSG,
                          AASYSMB_FLUSH_CMD_MSG,  AASYSMB_NOTIF_IND_MSG, SYSMB_RESET_REQ_MSG};
  for (uint32_t id : ids) {
    for (uint32_t size : {0u, 4u, 27u, 28u, 31u, 40u}) {
      SAaSysMbCmdHeader fields = header(AASYSMB_MARKER_MESSAGE_API, 1, EAaSysMbZone_System, kSubscriberA, kNews, 0xFFFF);
      for (uint32_t apf : {1u, 2u}) {
        void* msg = command(id, fields, size, kSubscriberA);
        AaSysComMsgSetApf(msg, apf);
        deliver(msg);
      }
    }
  }
  EXPECT_TRUE(logged("LocalHandleFwdCmdMsg(): fwdCmd is null"));
  EXPECT_TRUE(logged("LocalHandlePublMsg(): Publication size 0xffff exceeds the message, discarding."));
  EXPECT_EQ(receivedBy(kSubscriberA), Values{});
}

}  // namespace
