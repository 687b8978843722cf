#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "AaConfig.h"
#include "AaSysCom.h"
#include "AaSysComTestFixture.h"

namespace OlmTest {
namespace {

using LifecycleTest = SysComTest;

constexpr char kMasterNidTag[] = "olm.service.aasyscom.masternid";

TEST_F(LifecycleTest, CreateAcceptsPayloadsUpToTheSixteenBitTotalLength) {
  void* largest = AaSysComMsgCreate(1, 65519, kOtherSicad);
  ASSERT_NE(largest, nullptr);
  EXPECT_EQ(AaSysComMsgGetBulkMsgLength(largest), 65535u);
  AaSysComMsgDestroy(&largest);

  EXPECT_EQ(AaSysComMsgCreate(1, 65520, kOtherSicad), nullptr);
  EXPECT_EQ(log.count("AaSysComMsgCreate(): messagePayloadSize too high"), 1u);
  runtime.failAllocations(true);
  EXPECT_EQ(AaSysComMsgCreate(1, 4, kOtherSicad), nullptr);
  runtime.failAllocations(false);
}

TEST_F(LifecycleTest, ReplyGoesBackFromTheAddressedPoint) {
  void* request = AaSysComMsgCreate(1, 4, kOwnSicad);
  AaSysComMsgSetSender(request, kOtherSicad);
  void* reply = AaSysComMsgCreateReply(2, 8, request);
  EXPECT_EQ(AaSysComMsgGetReceiver(reply), kOtherSicad);
  EXPECT_EQ(AaSysComMsgGetSender(reply), kOwnSicad);
  EXPECT_EQ(AaSysComMsgGetPayloadSize(reply), 8u);
  EXPECT_EQ(AaSysComMsgCreateReply(2, 8, nullptr), nullptr);
  AaSysComMsgDestroy(&request);
  AaSysComMsgDestroy(&reply);
}

TEST_F(LifecycleTest, CopiesEqualTheSourceExceptForTheCopyClearedFlag) {
  void* source = createTrailerMessage(12, 0x31);
  AaSysComMsgSetSender(source, kOwnSicad);
  Olm::msgHeader(source)->flags |= AASYSCOM_FLAGS_COPY_CLEARED;
  fillPayload(source, 0x40);
  const uint16_t total = AaSysComMsgGetBulkMsgLength(source);

  void* copy = AaSysComMsgCreateCopy(source);
  ASSERT_NE(copy, nullptr);
  EXPECT_EQ(Olm::msgHeader(copy)->flags, Olm::msgHeader(source)->flags & ~AASYSCOM_FLAGS_COPY_CLEARED);
  Olm::msgHeader(copy)->flags = Olm::msgHeader(source)->flags;
  EXPECT_EQ(std::memcmp(copy, source, total), 0);

  void* redirected = AaSysComMsgCreateCopyTo(source, 0x12050001);
  ASSERT_NE(redirected, nullptr);
  EXPECT_EQ(AaSysComMsgGetReceiver(redirected), 0x12050001u);
  EXPECT_EQ(Olm::msgHeader(redirected)->flags & AASYSCOM_FLAGS_COPY_CLEARED, 0u);
  EXPECT_EQ(std::memcmp(static_cast<char*>(redirected) + 8, static_cast<char*>(source) + 8, 4), 0);
  EXPECT_EQ(std::memcmp(AaSysComMsgGetPayload(redirected), AaSysComMsgGetPayload(source), total - 16), 0);
  EXPECT_EQ(AaSysComMsgCreateCopy(nullptr), nullptr);
  EXPECT_EQ(AaSysComMsgCreateCopyTo(nullptr, 1), nullptr);
  for (void* msg : {source, copy, redirected}) AaSysComMsgDestroy(&msg);
}

TEST_F(LifecycleTest, ResizeKeepsTheHeaderAndAsMuchPayloadAsFits) {
  void* msg = AaSysComMsgCreate(7, 100, kOtherSicad);
  AaSysComMsgSetSender(msg, kOwnSicad);
  AaSysComMsgSetPriority(msg, 2);
  fillPayload(msg, 0);
  AaSysComMsgSetPayloadSize(&msg, 40);
  ASSERT_NE(msg, nullptr);
  EXPECT_EQ(AaSysComMsgGetBulkMsgLength(msg), 56u);
  EXPECT_EQ(AaSysComMsgGetSender(msg), kOwnSicad);
  EXPECT_EQ(AaSysComMsgGetPriority(msg), 2u);
  EXPECT_EQ(static_cast<unsigned char*>(AaSysComMsgGetPayload(msg))[39], 39);

  AaSysComMsgSetPayloadSize(&msg, 100);
  EXPECT_EQ(AaSysComMsgGetPayloadSize(msg), 100u);
  EXPECT_EQ(static_cast<unsigned char*>(AaSysComMsgGetPayload(msg))[39], 39);
  EXPECT_EQ(runtime.leakedBuffers(), 1u) << "the old buffers are freed";
  AaSysComMsgDestroy(&msg);
}

TEST_F(LifecycleTest, RefusedResizeLeavesTheMessageWithTheCaller) {
  void* msg = AaSysComMsgCreate(7, 10, kOtherSicad);
  void* const original = msg;
  AaSysComMsgSetPayloadSize(&msg, 65520);
  EXPECT_EQ(msg, original);
  runtime.failAllocations(true);
  AaSysComMsgSetPayloadSize(&msg, 20);
  runtime.failAllocations(false);
  EXPECT_EQ(msg, original);
  EXPECT_EQ(AaSysComMsgGetPayloadSize(msg), 10u);
  EXPECT_EQ(log.count("AaSysComMsgSetPayloadSize(): messagePayloadSize too high"), 1u);
  void* none = nullptr;
  AaSysComMsgSetPayloadSize(&none, 4);
  AaSysComMsgSetPayloadSize(nullptr, 4);
  AaSysComMsgDestroy(&msg);
  AaSysComMsgDestroy(&none);
  AaSysComMsgDestroy(nullptr);
  EXPECT_EQ(msg, nullptr);
}

// The message is the runtime's once handed over, also when the runtime refuses it.
TEST_F(LifecycleTest, SendHandsTheMessageToTheRuntimeClearsTheHandleAndPassesOnTheResult) {
  void* msg = AaSysComMsgCreate(1, 4, kOtherSicad);
  void* const buffer = msg;
  EXPECT_EQ(AaSysComMsgSendS(&msg, kOwnSicad), 1);
  EXPECT_EQ(msg, nullptr);
  ASSERT_EQ(sentMessages().size(), 1u);
  EXPECT_EQ(sentMessages()[0], buffer);
  EXPECT_EQ(AaSysComMsgGetSender(buffer), kOwnSicad);

  runtime.setSendResult(false);
  msg = AaSysComMsgCreate(1, 4, kOtherSicad);
  EXPECT_EQ(AaSysComMsgSendS(&msg, kOwnSicad), 0);
  EXPECT_EQ(msg, nullptr);
  EXPECT_EQ(sentMessages().size(), 2u);
}

TEST_F(LifecycleTest, MessageWithoutSenderIsDestroyedByEverySendFunction) {
  void* msgs[4];
  for (void*& msg : msgs) msg = AaSysComMsgCreate(1, 4, kOtherSicad);
  AaSysComMsgSend(&msgs[0]);
  EXPECT_EQ(AaSysComMsgSendS(&msgs[1], 0), 0);
  AaSysComMsgSendWithPriority(&msgs[2], 1);
  AaSysComMsgSendViaLink(&msgs[3], 1);
  for (void* msg : msgs) EXPECT_EQ(msg, nullptr);
  EXPECT_TRUE(sentMessages().empty());
  EXPECT_EQ(runtime.leakedBuffers(), 0u);
  EXPECT_EQ(log.count("AaSysComMsgSendS(): Message sender not set."), 1u);

  void* none = nullptr;
  AaSysComMsgSend(&none);
  AaSysComMsgSendS(nullptr, 1);
  EXPECT_EQ(log.count("AaSysComMsgSendS(): Tried to send NULL msg."), 1u);
}

// 0x0F01 becomes the own node; 0x0FF0 node 3D of the own group, or the node the master tag names.
TEST_F(LifecycleTest, PlaceholderReceiversAreResolvedBeforeTheMessageLeaves) {
  AaConfig_TagDatabaseEarlyStartup();
  for (TAaSysComSicad receiver : {0x0F010123u, 0x0FF00007u}) {
    void* msg = AaSysComMsgCreate(1, 4, receiver);
    AaSysComMsgSendS(&msg, kOtherSicad);
  }
  EXPECT_EQ(AaSysComMsgGetReceiver(sentMessages().at(0)), 0x12340123u);
  EXPECT_EQ(AaSysComMsgGetReceiver(sentMessages().at(1)), 0x123D0007u);

  ASSERT_EQ(AaConfigTagSetU16(kMasterNidTag, 0x1011), 0u);
  void* msg = AaSysComMsgCreate(1, 4, 0x0FF00007);
  AaSysComMsgSendS(&msg, kOwnSicad);
  AaConfig_TagDatabaseEarlyStartup();  // forgets the tag again
  EXPECT_EQ(AaSysComMsgGetReceiver(sentMessages().at(2)), 0x10110007u);
}

TEST_F(LifecycleTest, ForwardMakesTheOldReceiverTheSenderAndRelayKeepsTheSender) {
  const TAaSysComSicad a = 0x12350001, b = 0x12360002, c = 0x12370003;
  void* forwarded = AaSysComMsgCreate(1, 4, b);
  AaSysComMsgSetSender(forwarded, a);
  AaSysComMsgForward(&forwarded, c);
  void* relayed = AaSysComMsgCreate(1, 4, b);
  AaSysComMsgSetSender(relayed, a);
  AaSysComMsgRelay(&relayed, c);
  const std::vector<void*> sent = sentMessages();
  ASSERT_EQ(sent.size(), 2u);
  EXPECT_EQ(AaSysComMsgGetSender(sent[0]), b);
  EXPECT_EQ(AaSysComMsgGetReceiver(sent[0]), c);
  EXPECT_EQ(AaSysComMsgGetSender(sent[1]), a);
  EXPECT_EQ(AaSysComMsgGetReceiver(sent[1]), c);
}

TEST(LifecycleWithoutDispatcherTest, NothingIsCreatedAndHandedOverMessagesAreDropped) {
  ASSERT_EQ(Olm::IRuntime::getTheRuntime(), nullptr);
  EXPECT_EQ(AaSysComMsgCreate(1, 4, kOtherSicad), nullptr);
  alignas(4) unsigned char buffer[24] = {};
  Olm::msgHeader(buffer)->totalLength = sizeof(buffer);
  EXPECT_EQ(AaSysComMsgCreateCopy(buffer), nullptr);
  void* msg = buffer;
  AaSysComMsgSendS(&msg, kOwnSicad);
  EXPECT_EQ(msg, nullptr);
  msg = buffer;
  AaSysComMsgDestroy(&msg);
  EXPECT_EQ(msg, nullptr);
}

}  // namespace
}  // namespace OlmTest
