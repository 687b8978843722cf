// The broker as a node's EUs see it: the client functions, and what the proxy makes of them.
#include <gtest/gtest.h>

#include "AaSysMbTestNode.h"

namespace {

using OlmTest::kNews;
using OlmTest::kPublisherA;
using OlmTest::kPublisherB;
using OlmTest::kSubscriberA;
using OlmTest::kSubscriberB;
using Values = std::vector<uint32_t>;

class AaSysMbTest : public OlmTest::BrokerTest {};

TEST_F(AaSysMbTest, PublicationModesAgainstEarlyAndLateSubscribers) {
  subscribe(kSubscriberA, EAaSysMbSubsMode_StoredAndKeep);
  publish(kPublisherA, EAaSysMbPublMode_NotStored, 1);
  EXPECT_EQ(receivedBy(kSubscriberA), Values{1});
  // Mode 0 is not stored, mode 1 is, and replaces whatever was stored of the id.
  subscribe(kSubscriberB, EAaSysMbSubsMode_StoredOnly);
  EXPECT_EQ(receivedBy(kSubscriberB), Values{});
  publish(kPublisherA, EAaSysMbPublMode_Replace, 2);
  publish(kPublisherB, EAaSysMbPublMode_Replace, 3);
  subscribe(kSubscriberB, EAaSysMbSubsMode_StoredOnly);
  EXPECT_EQ(receivedBy(kSubscriberB), Values{3});
  // The sender of every delivery is the publisher.
  const auto delivered = sentMessages(kNews);
  EXPECT_EQ(delivered.back().sender, kPublisherB);
  EXPECT_EQ(receivedBy(kSubscriberA), (Values{1, 2, 3}));
}

TEST_F(AaSysMbTest, PerPublisherPublicationsReplaceOnlyTheirOwnAndRefuseOtherModes) {
  publish(kPublisherA, EAaSysMbPublMode_PerPublisher, 1);
  publish(kPublisherB, EAaSysMbPublMode_PerPublisher, 2);
  publish(kPublisherA, EAaSysMbPublMode_PerPublisher, 3);
  subscribe(kSubscriberA, EAaSysMbSubsMode_StoredOnly);
  EXPECT_EQ(receivedBy(kSubscriberA), (Values{2, 3}));

  // A mode-1 publication replaces all of them; a mode-2 one after it is refused and not delivered.
  publish(kPublisherA, EAaSysMbPublMode_Replace, 4);
  subscribe(kSubscriberB, EAaSysMbSubsMode_StoredAndKeep);
  publish(kPublisherB, EAaSysMbPublMode_PerPublisher, 5);
  EXPECT_TRUE(logged("Invalid publication detected by AaSysMb."));
  EXPECT_EQ(receivedBy(kSubscriberB), Values{4});
}

TEST_F(AaSysMbTest, OneShotPublicationIsStoredOnlyUntilOneSubscriberHasIt) {
  subscribe(kSubscriberA, EAaSysMbSubsMode_KeepOnly);
  publish(kPublisherA, EAaSysMbPublMode_OneShot, 1);
  subscribe(kSubscriberB, EAaSysMbSubsMode_StoredOnly);
  EXPECT_EQ(receivedBy(kSubscriberA), Values{1});
  EXPECT_EQ(receivedBy(kSubscriberB), Values{}) << "served at once, so not stored";

  ASSERT_EQ(AaSysMbUnsubscribe(kNews, kSubscriberA, EAaSysMbZone_Node), 0u);
  pump();
  publish(kPublisherA, EAaSysMbPublMode_OneShot, 2);
  subscribe(kSubscriberB, EAaSysMbSubsMode_StoredOnly);
  subscribe(kSubscriberA, EAaSysMbSubsMode_StoredOnly);
  EXPECT_EQ(receivedBy(kSubscriberB), Values{2});
  EXPECT_EQ(receivedBy(kSubscriberA), Values{1}) << "a stored one-shot publication goes once";
}

TEST_F(AaSysMbTest, SubscriptionModes) {
  publish(kPublisherA, EAaSysMbPublMode_Replace, 1);
  subscribe(kSubscriberA, EAaSysMbSubsMode_KeepOnly);
  EXPECT_EQ(receivedBy(kSubscriberA), Values{}) << "mode 1 does not get the stored publication";
  subscribe(kSubscriberB, EAaSysMbSubsMode_StoredOnly);
  EXPECT_EQ(receivedBy(kSubscriberB), Values{1});
  publish(kPublisherA, EAaSysMbPublMode_Replace, 2);
  EXPECT_EQ(receivedBy(kSubscriberA), Values{2});
  EXPECT_EQ(receivedBy(kSubscriberB), Values{1}) << "mode 2 keeps no subscription";
}

TEST_F(AaSysMbTest, OneShotSubscriptionInBothDirections) {
  // Early: kept until the first publication, then gone.
  subscribe(kSubscriberA, EAaSysMbSubsMode_OneShot);
  publish(kPublisherA, EAaSysMbPublMode_Replace, 1);
  publish(kPublisherA, EAaSysMbPublMode_Replace, 2);
  EXPECT_EQ(receivedBy(kSubscriberA), Values{1});
  // Late: the stored publication, and no subscription kept.
  subscribe(kSubscriberB, EAaSysMbSubsMode_OneShot);
  publish(kPublisherA, EAaSysMbPublMode_Replace, 3);
  EXPECT_EQ(receivedBy(kSubscriberB), Values{2});
}

TEST_F(AaSysMbTest, ASecondSubscriptionOfTheSameIdIsIgnored) {
  subscribe(kSubscriberA, EAaSysMbSubsMode_KeepOnly);
  subscribe(kSubscriberA, EAaSysMbSubsMode_KeepOnly);
  EXPECT_TRUE(logged("LocalSubscriptionBook(): Subscriber 0x12340701 already subscribed message 0x3a01, ignoring "
                     "subscription."));
  publish(kPublisherA, EAaSysMbPublMode_NotStored, 1);
  EXPECT_EQ(receivedBy(kSubscriberA), Values{1});
}

TEST_F(AaSysMbTest, UnsubscribeUnpublishAndFlushModes) {
  publish(kPublisherA, EAaSysMbPublMode_PerPublisher, 1);
  publish(kPublisherB, EAaSysMbPublMode_PerPublisher, 2);
  ASSERT_EQ(AaSysMbUnpublish(kNews, kPublisherA, EAaSysMbZone_Node), 0u);
  pump();
  subscribe(kSubscriberA, EAaSysMbSubsMode_StoredAndKeep);
  EXPECT_EQ(receivedBy(kSubscriberA), Values{2});

  // Flush mode 1 removes only the subscriptions of the address, mode 0 only its publications.
  ASSERT_EQ(AaSysMbFlush(kSubscriberA, EAaSysMbFlushMode_Subscriptions, EAaSysMbZone_Node), 0u);
  ASSERT_EQ(AaSysMbFlush(kPublisherA, EAaSysMbFlushMode_Publications, EAaSysMbZone_Node), 0u);
  pump();
  publish(kPublisherA, EAaSysMbPublMode_NotStored, 3);
  subscribe(kSubscriberB, EAaSysMbSubsMode_StoredAndKeep);
  EXPECT_EQ(receivedBy(kSubscriberA), Values{2});
  EXPECT_EQ(receivedBy(kSubscriberB), Values{2}) << "kPublisherB's publication outlived kPublisherA's flush";

  // Mode 2 on kPublisherB's address takes its publication; the node form (CPID 0xFFFF) every
  // subscription of the node.
  ASSERT_EQ(AaSysMbFlush(kPublisherB, EAaSysMbFlushMode_Both, EAaSysMbZone_Node), 0u);
  ASSERT_EQ(AaSysMbFlush(0x0F01FFFF, EAaSysMbFlushMode_Subscriptions, EAaSysMbZone_All - 1), 0u);
  ASSERT_EQ(AaSysMbFlush(0x0F01FFFF, EAaSysMbFlushMode_Subscriptions, EAaSysMbZone_Node), 0u);
  pump();
  publish(kPublisherA, EAaSysMbPublMode_NotStored, 4);
  subscribe(kSubscriberA, EAaSysMbSubsMode_StoredOnly);
  EXPECT_EQ(receivedBy(kSubscriberB), Values{2});
  EXPECT_EQ(receivedBy(kSubscriberA), Values{2});

  ASSERT_EQ(AaSysMbUnsubscribe(kNews, kSubscriberA, EAaSysMbZone_Node), 0u);
  pump();
}

TEST_F(AaSysMbTest, ArgumentChecksAndTargets) {
  EXPECT_EQ(AaSysMbPrepare(4, kNews, kPublisherA, 0, 2), nullptr);
  EXPECT_EQ(AaSysMbPrepare(4, kNews, kPublisherA, 4, EAaSysMbZone_Node), nullptr);
  EXPECT_EQ(AaSysMbPrepare(4, kNews, 0x23450801, 0, EAaSysMbZone_Node), nullptr);
  EXPECT_TRUE(logged("Invalid parameter (node) given to function AaSysMbPrepare"));
  EXPECT_EQ(AaSysMbSubscribe(kNews, kSubscriberA, 0, EAaSysMbZone_All), EAaSysMbRetVal_InvalidParameter);
  EXPECT_EQ(AaSysMbSubscribe(kNews, 0x23450701, 0, EAaSysMbZone_Node), EAaSysMbRetVal_InvalidParameter);
  EXPECT_EQ(AaSysMbUnsubscribe(kNews, kSubscriberA, 2), EAaSysMbRetVal_InvalidParameter);
  EXPECT_EQ(AaSysMbUnpublish(kNews, kPublisherA, 0), EAaSysMbRetVal_InvalidParameter);
  EXPECT_EQ(AaSysMbFlush(kSubscriberA, 0, 0), EAaSysMbRetVal_InvalidParameter);
  EXPECT_EQ(AaSysMbFlush(kSubscriberA, 3, 1), EAaSysMbRetVal_InvalidParameter);
  EXPECT_EQ(AaSysMbFlush(0, 0, 1), EAaSysMbRetVal_InvalidParameter);
  EXPECT_TRUE(logged("Invalid parameter (address) given to function AaSysMbFlush"));
  const size_t refusedAll = sentMessages(AASYSMB_SUBS_CMD_MSG).size() + sentMessages(AASYSMB_FLUSH_CMD_MSG).size();
  EXPECT_EQ(refusedAll, 0u);

  // Zone 15 goes to the server with the own-node alias replaced; flush takes 255 there too, and
  // sends any other zone to the proxy.
  ASSERT_EQ(AaSysMbSubscribe(kNews, 0x0F010701, 1, EAaSysMbZone_System), 0u);
  ASSERT_EQ(AaSysMbFlush(0x0F010701, 0, EAaSysMbZone_All), 0u);
  ASSERT_EQ(AaSysMbFlush(0x0F010701, 0, 2), 0u);
  const auto subs = sentMessages(AASYSMB_SUBS_CMD_MSG);
  ASSERT_EQ(subs.size(), 1u);
  EXPECT_EQ(AaSysComSicadGetCpid(subs[0].receiver), AASYSMB_SERVER_CPID);
  EXPECT_EQ(headerOf(subs[0].msg).address, kSubscriberA);
  EXPECT_EQ(subs[0].sender, kSubscriberA);
  const auto flushes = sentMessages(AASYSMB_FLUSH_CMD_MSG);
  ASSERT_EQ(flushes.size(), 2u);
  EXPECT_EQ(AaSysComSicadGetCpid(flushes[0].receiver), AASYSMB_SERVER_CPID);
  EXPECT_EQ(flushes[1].receiver, OlmTest::kProxyAddress);
  EXPECT_EQ(headerOf(flushes[1].msg).address, kSubscriberA);
}

TEST_F(AaSysMbTest, PreparedPublicationApfAndRecall) {
  void* payload = AaSysMbPrepare(0, kNews, 0x0F010801, 1, EAaSysMbZone_System);
  ASSERT_NE(payload, nullptr);
  EXPECT_EQ(AaSysMbSetApf(&payload, 2), EAaSysMbRetVal_InvalidParameter);
  EXPECT_TRUE(logged("AaSysMbSetApf(): Not allowed to set message APF to endianness opposite of publisher environment."));
  EXPECT_EQ(AaSysMbSetApf(&payload, 4), EAaSysMbRetVal_InvalidParameter);
  EXPECT_EQ(AaSysMbSetApf(&payload, 3), EAaSysMbRetVal_Ok);
  ASSERT_EQ(AaSysMbPublish(&payload), 0u);
  const auto published = sentMessages(AASYSMB_PUBL_CMD_MSG);
  ASSERT_EQ(published.size(), 1u);
  EXPECT_EQ(AaSysComMsgGetPayloadSize(published[0].msg), AASYSMB_PUBL_CMD_OVERHEAD);
  EXPECT_EQ(AaSysComMsgGetApf(published[0].msg), 3u);
  EXPECT_EQ(headerOf(published[0].msg).apfWord, 3u << 24);
  EXPECT_EQ(published[0].sender, kPublisherA);
  EXPECT_EQ(headerOf(published[0].msg).marker, AASYSMB_MARKER_CLIENT);

  payload = AaSysMbPrepare(8, kNews, kPublisherA, 1, EAaSysMbZone_Node);
  EXPECT_EQ(AaSysMbRecall(&payload), 0u);
  EXPECT_EQ(payload, nullptr);
  EXPECT_EQ(AaSysMbRecall(&payload), EAaSysMbRetVal_InvalidParameter);
  EXPECT_EQ(AaSysMbPublish(nullptr), EAaSysMbRetVal_InvalidParameter);
  EXPECT_EQ(AaSysMbPrepare(0x10000, kNews, kPublisherA, 1, EAaSysMbZone_Node), nullptr);
}

TEST_F(AaSysMbTest, StartAnnouncesTheProxyToTheServerAndAStoppedBrokerDropsCommands) {
  const auto resets = sentMessages(SYSMB_RESET_IND_MSG);
  ASSERT_EQ(resets.size(), 1u);
  EXPECT_EQ(AaSysComSicadGetCpid(resets[0].receiver), AASYSMB_SERVER_CPID);
  EXPECT_EQ(resets[0].sender, OlmTest::kProxyAddress);
  EXPECT_EQ(headerOf(resets[0].msg).marker, AASYSMB_MARKER_PROXY);
  EXPECT_EQ(headerOf(resets[0].msg).address, OlmTest::kProxyAddress);
  EXPECT_EQ(AaSysMbInit(), 1u) << "already running";

  subscribe(kSubscriberA, EAaSysMbSubsMode_KeepOnly);
  ASSERT_EQ(AaSysMbExit(), 0u);
  ASSERT_EQ(AaSysMbInit(), 0u) << "restarts with the proxy still bound";
  publish(kPublisherA, EAaSysMbPublMode_NotStored, 1);
  EXPECT_EQ(receivedBy(kSubscriberA), Values{}) << "a restarted broker has forgotten its subscriptions";
  AaSysMbExit();
  publish(kPublisherA, EAaSysMbPublMode_NotStored, 2);
}

}  // namespace
