#include "AaLteTime.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "FakeRuntime.h"
#include "LteTime.h"

namespace {

using Olm::LteTime;

constexpr TAaLteTimerId kUntouchedId = 0xDEADBEEF;
constexpr u32 kGarbage = 0xFFFFFFFF;

// BTUs of an instant.
uint64_t samples(uint16_t hyperFrame, uint16_t frame, uint8_t slot, uint16_t basicTU) {
  return LteTime(hyperFrame, frame, slot, basicTU).getSamples();
}

class AaLteTimeTest : public OlmTest::FakeRuntimeTest {
 protected:
  EAaLteTimeRetVal createAt(TAaLteBtsHyperFrameNr hyperFrame, TAaLteBtsFrameNr frame, TAaLteBtsSlotNr slot,
                            TAaLteBtsBasicTUNr basicTU, u32 periodFrames = 0, u32 periodSlots = 0,
                            u32 periodBasicTUs = 0) {
    message = newMessage();
    return AaLteTimermSyncCreate(&id, hyperFrame, frame, slot, basicTU, periodFrames, periodSlots,
                                 periodBasicTUs, message);
  }

  // After a refused create the message is still the test's.
  void expectRefused(EAaLteTimeRetVal result, const char* text) {
    EXPECT_EQ(result, EAaLteTimeRetVal_InvalidParameter);
    EXPECT_EQ(log.count(text), 1u);
    EXPECT_TRUE(runtime.timers().empty());
    runtime.deleteMessage(message);
  }

  TAaLteTimerId id = kUntouchedId;
  void* message = nullptr;
};

// Reading the time

TEST_F(AaLteTimeTest, TimeGetSplitsTheCurrentTimeAndHalvesTheSlotForTheSubframe) {
  runtime.time.setNow(LteTime(5, 100, 19, 7));
  TAaLteBtsHyperFrameNr hyperFrame = 0;
  TAaLteBtsFrameNr frame = 0;
  TAaLteBtsSubFrameNr subFrame = 0;
  TAaLteBtsSlotNr slot = 0;
  TAaLteBtsBasicTUNr basicTU = 0;
  ASSERT_EQ(AaLteTimeGet(&hyperFrame, &frame, &subFrame, &slot, &basicTU), EAaLteTimeRetVal_Ok);
  EXPECT_EQ((std::vector<unsigned>{hyperFrame, frame, subFrame, slot, basicTU}),
            (std::vector<unsigned>{5, 100, 9, 19, 7}));
  EXPECT_EQ(AaLteTimeGet(nullptr, nullptr, nullptr, nullptr, nullptr), EAaLteTimeRetVal_Ok);

  // An unreadable clock: its status comes back and nothing is written.
  runtime.time.setNow(LteTime::unreadable(EAaLteTimeRetVal_ClockUnreadable));
  EXPECT_EQ(AaLteTimeGet(nullptr, &frame, nullptr, nullptr, nullptr), EAaLteTimeRetVal_ClockUnreadable);
  EXPECT_EQ(frame, 100u);
}

// Arming a message sync timer

TEST_F(AaLteTimeTest, SyncCreateRefusesEveryValueOutOfRange) {
  struct Case {
    TAaLteBtsHyperFrameNr hyperFrame;
    TAaLteBtsFrameNr frame;
    TAaLteBtsSlotNr slot;
    TAaLteBtsBasicTUNr basicTU;
    u32 periodFrames, periodSlots, periodBasicTUs;
  };
  const Case cases[] = {
      {1024, 0, 0, 0, 0, 0, 0},       {0xFFFE, 0, 0, 0, 0, 0, 0}, {0, 1024, 0, 0, 0, 0, 0},
      {0, 0, 20, 0, 0, 0, 0},         {0, 0, 0, 15360, 0, 0, 0},  {0, 0, 0, 0, 0x100001, 0, 0},
      {0, 0, 0, 0, 0, 21, 0},         {0, 0, 0, 0, 0, 0, 15361},
  };
  for (const Case& c : cases) {
    log.clear();
    expectRefused(createAt(c.hyperFrame, c.frame, c.slot, c.basicTU, c.periodFrames, c.periodSlots, c.periodBasicTUs),
                  "AaLteTimermSyncCreate(): invalid parameters detected.");
    EXPECT_EQ(id, kUntouchedId);
  }
}

// A period may be a whole frame of slots or a whole slot of BTUs, where the start instant may not.
// The period's frame count keeps only its low 16 bits.
TEST_F(AaLteTimeTest, SyncCreateAcceptsThePeriodLimitsAndTruncatesThePeriodFrames) {
  ASSERT_EQ(createAt(1023, 1023, 19, 15359, 0x100000, 20, 15360), EAaLteTimeRetVal_Ok);
  EXPECT_EQ(runtime.timers()[0].period.getSamples(), samples(0, 0, 20, 15360));
  ASSERT_EQ(createAt(0, 0, 0, 0, 65536, 2, 5), EAaLteTimeRetVal_Ok);
  EXPECT_EQ(runtime.timers()[1].period.getSamples(), 2 * LteTime::BasicTimeUnitsPerSlot + 5);
  ASSERT_EQ(createAt(0, 0, 0, 0, 65537, 0, 0), EAaLteTimeRetVal_Ok);
  EXPECT_EQ(runtime.timers()[2].period.getSamples(), LteTime::BasicTimeUnitsPerFrame);
}

TEST_F(AaLteTimeTest, SyncCreateRefusesNullPointersAfterTheRanges) {
  const char* nullText = "AaLteTimermSyncCreate(): Invalid parameter (functionPtr or timerIdPtr is NULL)!";
  EXPECT_EQ(AaLteTimermSyncCreate(&id, 0, 0, 0, 0, 0, 0, 0, nullptr), EAaLteTimeRetVal_InvalidParameter);
  message = newMessage();
  EXPECT_EQ(AaLteTimermSyncCreate(nullptr, 0, 0, 0, 0, 0, 0, 0, message), EAaLteTimeRetVal_InvalidParameter);
  EXPECT_EQ(log.count(nullText), 2u);

  // The range check comes first.
  EXPECT_EQ(AaLteTimermSyncCreate(nullptr, 1024, 0, 0, 0, 0, 0, 0, nullptr), EAaLteTimeRetVal_InvalidParameter);
  EXPECT_EQ(log.count(nullText), 2u);
  EXPECT_EQ(log.count("invalid parameters detected."), 1u);
  runtime.deleteMessage(message);
}

TEST_F(AaLteTimeTest, SyncCreateWithAnUnreadableClockClearsTheIdAndKeepsTheMessageWithTheCaller) {
  runtime.time.setNow(LteTime::unreadable(EAaLteTimeRetVal_ClockUnreadable));
  EXPECT_EQ(createAt(0, 0, 0, 0), EAaLteTimeRetVal_ClockUnreadable);
  EXPECT_EQ(id, 0u);
  EXPECT_TRUE(runtime.timers().empty());
  runtime.deleteMessage(message);
}

// Hyper frame 0xFFFF: the next occurrence of (frame, slot, BTU). An instant equal to now is past.
TEST_F(AaLteTimeTest, NextOccurrenceChoosesTheCurrentOrTheFollowingHyperFrame) {
  struct Case {
    LteTime now;
    uint16_t expectedHyperFrame;
  };
  const Case cases[] = {
      {LteTime(7, 10, 3, 99), 7},     // ahead: this hyper frame
      {LteTime(7, 10, 3, 100), 8},    // exactly now: the next one
      {LteTime(1023, 10, 3, 100), 0}, // the next one after the last wraps to 0
  };
  unsigned entry = 0;
  for (const Case& c : cases) {
    runtime.time.setNow(c.now);
    ASSERT_EQ(createAt(0xFFFF, 10, 3, 100), EAaLteTimeRetVal_Ok);
    EXPECT_EQ(runtime.timers().at(entry++).expiry.getSamples(), samples(c.expectedHyperFrame, 10, 3, 100))
        << "expected hyper frame " << c.expectedHyperFrame;
  }
}

// The other flavours and the generic entry

// Callback sync succeeds and arms nothing; a null record or unknown type is refused without a log line.
TEST_F(AaLteTimeTest, CallbackSyncArmsNothingAndBadTimerCreateArgumentsAreRefusedSilently) {
  EXPECT_EQ(AaLteTimercSyncCreate(&id, 0, 0, 0, 0, 1, 0, 0, EAaLteTimePriority_High, nullptr, nullptr, 0),
            EAaLteTimeRetVal_Ok);
  const SAaLteTimerParams params = {1, 2, 3, 0, 0, 0, 0, 0, 0};
  EXPECT_EQ(AaLteTimerCreate(&id, 0, 0, 0, 0, EAaLteTimerType_CallbackSync, &params), EAaLteTimeRetVal_Ok);
  EXPECT_EQ(AaLteTimerCreate(&id, 0, 0, 0, 0, EAaLteTimerType_MessageSync, nullptr), EAaLteTimeRetVal_InvalidParameter);
  EXPECT_EQ(AaLteTimerCreate(&id, 0, 0, 0, 0, 4, &params), EAaLteTimeRetVal_InvalidParameter);
  EXPECT_TRUE(log.lines().empty());
  EXPECT_EQ(id, kUntouchedId);
  EXPECT_TRUE(runtime.timers().empty());
}

TEST_F(AaLteTimeTest, TimerCreateForwardsOnlyTheMessageSyncWords) {
  message = newMessage();
  const SAaLteTimerParams params = {1, 2, 3, kGarbage, kGarbage, reinterpret_cast<uintptr_t>(message),
                                    kGarbage, kGarbage, kGarbage};
  ASSERT_EQ(AaLteTimerCreate(&id, 4, 5, 6, 7, EAaLteTimerType_MessageSync, &params), EAaLteTimeRetVal_Ok);
  const OlmTest::FakeRuntime::Timer& timer = runtime.timers().at(0);
  EXPECT_EQ(id, timer.id);
  EXPECT_EQ(timer.msg, message);
  EXPECT_EQ(timer.expiry.getSamples(), samples(4, 5, 6, 7));
  EXPECT_EQ(timer.period.getSamples(), samples(0, 1, 2, 3));
}

using AaLteTimeDeathTest = AaLteTimeTest;

const char* const kCallbackMatchReport =
    "AaLteTimercMatchCreate(TAaLteTimerId*, TAaLteBtsHyperFrameNr, TAaLteBtsFrameNr, TAaLteBtsSlotNr, "
    "TAaLteBtsBasicTUNr, EAaLteMatchLevel, EAaLteTimePriority, TAaLteTimeFunctionPtr, const void*, u32): "
    "Assertion `0' failed";
const char* const kMessageMatchReport =
    "AaLteTimermMatchCreate(TAaLteTimerId*, TAaLteBtsHyperFrameNr, TAaLteBtsFrameNr, TAaLteBtsSlotNr, "
    "TAaLteBtsBasicTUNr, EAaLteMatchLevel, const void*): Assertion `0' failed";

// The death test's regular expression for a fixed report text.
std::string reportPattern(const std::string& report) {
  std::string pattern = "Realtime/Services/AaLteTime/AaLteTime_Lite:[0-9]+: ";
  for (char c : report) {
    if (std::strchr("()[]{}*+?.^$|\\", c) != nullptr) pattern += '\\';
    pattern += c;
  }
  return pattern;
}

TEST_F(AaLteTimeDeathTest, MatchFlavoursAbortNamingTheirSignatureAlsoThroughTimerCreate) {
  const SAaLteTimerParams params{};
  EXPECT_DEATH(AaLteTimercMatchCreate(&id, 0, 0, 0, 0, EAaLteMatchLevel_Slot, EAaLteTimePriority_High, nullptr,
                                      nullptr, 0),
               reportPattern(kCallbackMatchReport));
  EXPECT_DEATH(AaLteTimermMatchCreate(&id, 0, 0, 0, 0, EAaLteMatchLevel_Slot, nullptr),
               reportPattern(kMessageMatchReport));
  EXPECT_DEATH(AaLteTimerCreate(&id, 0, 0, 0, 0, EAaLteTimerType_CallbackMatch, &params),
               reportPattern(kCallbackMatchReport));
  EXPECT_DEATH(AaLteTimerCreate(&id, 0, 0, 0, 0, EAaLteTimerType_MessageMatch, &params),
               reportPattern(kMessageMatchReport));
}

// Cancelling

// A stale id is no error: AaLteTimerDelete still succeeds, AaLteTimermDelete gives null.
TEST_F(AaLteTimeTest, DeleteDestroysTheMessageAndmDeleteHandsItBack) {
  ASSERT_EQ(createAt(1, 0, 0, 0), EAaLteTimeRetVal_Ok);
  EXPECT_EQ(AaLteTimermDelete(id), message);
  EXPECT_EQ(AaLteTimermDelete(id), nullptr);
  runtime.deleteMessage(message);

  ASSERT_EQ(createAt(1, 0, 0, 0), EAaLteTimeRetVal_Ok);
  EXPECT_EQ(AaLteTimerDelete(id), EAaLteTimeRetVal_Ok);
  EXPECT_FALSE(runtime.timers().at(1).armed);
  EXPECT_EQ(runtime.liveBuffers(), 0u);
  EXPECT_EQ(AaLteTimerDelete(id), EAaLteTimeRetVal_Ok);
}

// Without a Dispatcher nothing can be read, armed or cancelled, and nothing aborts.
TEST(AaLteTimeWithoutDispatcher, EveryFunctionFailsSoftly) {
  ASSERT_EQ(Olm::IRuntime::getTheRuntime(), nullptr);
  TAaLteBtsFrameNr frame = 77;
  EXPECT_EQ(AaLteTimeGet(nullptr, &frame, nullptr, nullptr, nullptr), EAaLteTimeRetVal_NoDispatcher);
  EXPECT_EQ(frame, 77u);
  TAaLteTimerId id = kUntouchedId;
  int message = 0;
  EXPECT_EQ(AaLteTimermSyncCreate(&id, 0, 0, 0, 0, 0, 0, 0, &message), EAaLteTimeRetVal_NoDispatcher);
  EXPECT_EQ(id, kUntouchedId);
  EXPECT_EQ(AaLteTimerDelete(256), EAaLteTimeRetVal_NoDispatcher);
  EXPECT_EQ(AaLteTimermDelete(256), nullptr);
}

}  // namespace
