#include <gtest/gtest.h>

#include "AaSysCom.h"
#include "AaSysComTestFixture.h"

namespace OlmTest {
namespace {

using AccessorTest = SysComTest;

TEST_F(AccessorTest, NewMessageHasHostOrderFlagsAndOnlyTheLow16BitsOfItsId) {
  void* msg = AaSysComMsgCreate(0x12345, 20, kOtherSicad);
  ASSERT_NE(msg, nullptr);
  EXPECT_EQ(AaSysComMsgGetId(msg), 0x2345u);
  EXPECT_EQ(Olm::msgHeader(msg)->control, 0u);
  EXPECT_EQ(Olm::msgHeader(msg)->flags, 0x0004u);
  EXPECT_EQ(AaSysComMsgGetSender(msg), 0u);
  EXPECT_EQ(AaSysComMsgGetReceiver(msg), kOtherSicad);
  EXPECT_EQ(AaSysComMsgGetBulkMsgLength(msg), 36u);
  EXPECT_EQ(AaSysComMsgGetPayload(msg), static_cast<char*>(msg) + 16);
  EXPECT_EQ(AaSysComMsgGetTrailer(msg), nullptr);
  AaSysComMsgDestroy(&msg);
}

TEST_F(AccessorTest, FieldSettersChangeOnlyTheirOwnBits) {
  void* msg = AaSysComMsgCreate(1, 0, kOtherSicad);
  Olm::msgHeader(msg)->control = 0x8001;
  AaSysComMsgSetPriority(msg, 3);
  AaSysComMsgSetPriority(msg, 1);
  EXPECT_EQ(Olm::msgHeader(msg)->control, 0x8401u);
  EXPECT_EQ(AaSysComMsgGetPriority(msg), 1u);

  AaSysComMsgSetMtm(msg, 1);
  AaSysComMsgSetMtm(msg, 2);  // not a flag value: ignored
  EXPECT_EQ(AaSysComMsgGetMtm(msg), 1u);
  AaSysComMsgSetApf(msg, 2);
  EXPECT_EQ(Olm::msgHeader(msg)->flags, 0x0018u);
  AaSysComMsgSetMtm(msg, 0);
  EXPECT_EQ(Olm::msgHeader(msg)->flags, 0x0008u);

  AaSysComMsgSetApf(msg, 0);
  AaSysComMsgSetApf2B(msg);  // big-endian words become little-endian 2-byte aligned, not 2
  EXPECT_EQ(AaSysComMsgGetApf(msg), 3u);
  AaSysComMsgDestroy(&msg);
}

TEST_F(AccessorTest, MefRefusesReservedAndTrailerAndOnlyTheStepToZeroDropsTheTrailer) {
  void* msg = AaSysComMsgCreate(1, 12, kOtherSicad);
  AaSysComMsgSetMef(msg, 1);
  AaSysComMsgSetMef(msg, 3);
  EXPECT_EQ(AaSysComMsgGetMef(msg), 0u);
  EXPECT_EQ(log.count("AaSysComMsgSetMef(): MEF Reserved not allowed"), 1u);
  EXPECT_EQ(log.count("AaSysComMsgSetMef(): MEF with trailer not allowed"), 1u);
  AaSysComMsgDestroy(&msg);

  void* plain = createTrailerMessage(12, 0);
  AaSysComMsgSetMef(plain, 0);
  EXPECT_EQ(AaSysComMsgGetPayloadSize(plain), 12u);
  AaSysComMsgDestroy(&plain);

  void* two = createTrailerMessage(12, 0);
  AaSysComMsgSetMef(two, 2);
  EXPECT_EQ(AaSysComMsgGetPayloadSize(two), 20u);
  AaSysComMsgDestroy(&two);
}

TEST_F(AccessorTest, TrailerOfAMessageTooShortForItIsNeverTouched) {
  void* msg = AaSysComMsgCreate(1, 4, kOtherSicad);  // total length 20, below header + trailer
  Olm::msgHeader(msg)->flags |= AASYSCOM_MEF_TRAILER;
  EXPECT_EQ(AaSysComMsgGetPayloadSize(msg), 65532u);  // wraps, as the 16-bit field does
  EXPECT_EQ(AaSysComMsgGetTrailer(msg), nullptr);
  EXPECT_EQ(AaSysComMsgGetTtlValue(msg), 15u);
  AaSysComMsgSetTtlValue(msg, 3);
  EXPECT_EQ(AaSysComMsgCheckTtl(msg), 15u);
  EXPECT_EQ(log.count("AaSysComMsgGetTtlValue(): trailer is NULL"), 1u);
  EXPECT_EQ(log.count("AaSysComMsgSetTtlValue(): trailer is NULL"), 1u);
  EXPECT_EQ(log.count("AaSysComMsgCheckTtl(): trailer is NULL"), 1u);
  AaSysComMsgDestroy(&msg);
}

TEST_F(AccessorTest, TtlIsReadWrittenAndCountedDownOnlyWhenPresent) {
  void* plain = AaSysComMsgCreate(1, 8, kOtherSicad);
  EXPECT_EQ(AaSysComMsgGetTtlValue(plain), 15u);
  EXPECT_EQ(AaSysComMsgCheckTtl(plain), 15u);
  AaSysComMsgDestroy(&plain);

  void* absent = createTrailerMessage(8, 0x50);  // value bits set, present bit clear
  AaSysComMsgSetTtlValue(absent, 2);
  EXPECT_EQ(trailerWord(absent, 1), kTrailerUninterpretedBytes | 0x50);
  EXPECT_EQ(AaSysComMsgGetTtlValue(absent), 15u);
  AaSysComMsgDestroy(&absent);

  void* msg = createTrailerMessage(8, 0x5F);  // TTL 5, present, bits 1-3 set
  EXPECT_EQ(AaSysComMsgGetTtlValue(msg), 5u);
  AaSysComMsgSetTtlValue(msg, 1);
  EXPECT_EQ(trailerWord(msg, 1), kTrailerUninterpretedBytes | 0x1F);
  EXPECT_EQ(AaSysComMsgCheckTtl(msg), 0u);
  EXPECT_EQ(AaSysComMsgCheckTtl(msg), 0u);  // no wrap-around
  EXPECT_EQ(trailerWord(msg, 1), kTrailerUninterpretedBytes | 0x0F);
  EXPECT_EQ(trailerWord(msg, 0), kTrailerFirstWord);
  AaSysComMsgDestroy(&msg);
}

TEST_F(AccessorTest, SicadTakesTheCpidFirst) {
  const TAaSysComSicad sicad = AaSysComSicadGet(0x1234, 0x0F01);
  EXPECT_EQ(sicad, 0x0F011234u);
  EXPECT_EQ(AaSysComSicadGetNid(sicad), 0x0F01u);
  EXPECT_EQ(AaSysComSicadGetCpid(sicad), 0x1234u);
  EXPECT_EQ(AaSysComGetOwnNid(), kOwnNid);
}

TEST_F(AccessorTest, HeaderLineShowsTheFieldsInOrder) {
  void* msg = AaSysComMsgCreate(0x0123, 4, 0x12040042);
  AaSysComMsgSetSender(msg, 0x12030077);
  AaSysComMsgPrintHeader(EAaSysLogSeverityLevel_Info, "caller", msg);
  EXPECT_EQ(log.count("caller Msg header: id 0x0123, snd 0x12030077, rcv 0x12040042, size 20, flags 0x0004"), 1u);
  AaSysComMsgHeaderPrint(EAaSysLogSeverityLevel_Info, 0, "x", nullptr);
  EXPECT_EQ(log.count("HeaderPrint(), message was null"), 1u);
  AaSysComMsgDestroy(&msg);
}

TEST_F(AccessorTest, NullMessageIsToleratedEverywhere) {
  EXPECT_EQ(AaSysComMsgGetPayload(nullptr), nullptr);
  EXPECT_EQ(AaSysComMsgGetPayloadSize(nullptr), 0u);
  EXPECT_EQ(AaSysComMsgGetTrailer(nullptr), nullptr);
  EXPECT_EQ(AaSysComMsgGetTtlValue(nullptr), 15u);
  EXPECT_EQ(AaSysComMsgCheckTtl(nullptr), 15u);
  EXPECT_EQ(AaSysComMsgGetApf(nullptr), 0u);
  EXPECT_EQ(AaSysComMsgSetSender(nullptr, 1), nullptr);
  void* none = nullptr;
  AaSysComMsgSetReceiver(&none, 1);
  AaSysComMsgSetReceiver(nullptr, 1);
  AaSysComMsgSetPriority(nullptr, 1);
  AaSysComMsgSetMef(nullptr, 0);
  AaSysComMsgSetTtlValue(nullptr, 1);
  EXPECT_EQ(log.count("AaSysComMsgGetApf(): message is NULL"), 1u);
  EXPECT_EQ(log.count("AaSysComMsgSetTtlValue(): message is NULL"), 1u);
}

TEST(AccessorWithoutDispatcherTest, OwnNidIsZeroAndTheMaximumPayloadStands) {
  ASSERT_EQ(Olm::IRuntime::getTheRuntime(), nullptr);
  EXPECT_EQ(AaSysComGetOwnNid(), 0u);
  EXPECT_EQ(AaSysComMsgGetMaxPayload(), 65466u);
}

}  // namespace
}  // namespace OlmTest
