#include "TimerQueue.h"

#include <gtest/gtest.h>

namespace Olm {
namespace {

constexpr uint64_t kSecond = LteTime::BasicTimeUnitsPerSecond;

class TimerQueueTest : public testing::Test {
 protected:
  // The generation counter is per process: start each test fresh and restore it afterwards.
  void SetUp() override {
    m_savedGeneration = TimerQueue::getGeneration();
    TimerQueue::setGeneration(1);
  }
  void TearDown() override { TimerQueue::setGeneration(m_savedGeneration); }

  void* message(unsigned n) { return &m_messages[n]; }

  unsigned arm(unsigned n, uint64_t expiry, uint64_t period = 0) {
    return queue.activate(queue.getLastTime(), message(n), LteTime(expiry), LteTime(period));
  }

  const TimerQueue::Entry& entryOf(unsigned id) const { return queue.getEntry(id & 0xFF); }

  // Gives the queue a valid last time, so that later count-downs are bounded by the jump limit.
  void startClockAt(uint64_t samples) { queue.countDown(LteTime(samples)); }

  TimerQueue queue;

 private:
  uint32_t m_savedGeneration = 0;
  int m_messages[TimerQueue::kEntryCount + 1] = {};
};

using TimerQueueDeathTest = TimerQueueTest;

TEST_F(TimerQueueTest, IdentifiersCarryIndexAndGenerationWhichWrapsAfter0x1000000Activations) {
  EXPECT_EQ(arm(0, 100), 256u);
  EXPECT_EQ(arm(1, 100), 513u);
  EXPECT_EQ(TimerQueue::getGeneration(), 3u);
  queue.deactivate(256);
  queue.deactivate(513);

  TimerQueue::setGeneration(0xFFFFFF);
  EXPECT_EQ(arm(0, 100), 0xFFFFFF00u);
  // Generation 0x1000000 shifts out of 32 bits: the identifier is the bare entry index.
  EXPECT_EQ(arm(1, 100), 1u);
  EXPECT_EQ(arm(2, 100), 2u + 256u);
  EXPECT_EQ(TimerQueue::getGeneration(), 2u);
  // Even a bare identifier of 0 names its timer.
  EXPECT_EQ(queue.deactivate(0xFFFFFF00u), message(0));
  TimerQueue::setGeneration(0x1000000);
  EXPECT_EQ(arm(3, 100), 0u);
  EXPECT_EQ(queue.deactivate(0), message(3));
}

TEST_F(TimerQueueTest, ActivationTakesTheLowestFreeEntry) {
  arm(0, 100);
  const unsigned second = arm(1, 100);
  arm(2, 100);
  queue.deactivate(second);
  const unsigned reused = arm(3, 100);
  EXPECT_EQ(reused & 0xFF, 1u);
  EXPECT_NE(reused, second);
  EXPECT_EQ(queue.deactivate(second), nullptr);
  EXPECT_EQ(queue.deactivate(reused), message(3));
}

TEST_F(TimerQueueTest, RemainingTimeCountsFromTheLastTime) {
  startClockAt(1000);
  const unsigned ahead = arm(0, 5000, 300);
  EXPECT_EQ(entryOf(ahead).remaining, 4000u);
  EXPECT_EQ(entryOf(ahead).period, 300u);
  // An expiry already behind the last time is almost a whole cycle away.
  EXPECT_EQ(entryOf(arm(1, 500)).remaining, LteTime::MaxSamples - 500);
}

TEST_F(TimerQueueDeathTest, SeventeenthTimerAborts) {
  for (unsigned n = 0; n < TimerQueue::kEntryCount; ++n) arm(n, 100);
  EXPECT_DEATH(arm(TimerQueue::kEntryCount, 100), "Realtime/Dispatcher/TimerQueue:[0-9]+: .*Assertion `0' failed");
}

TEST_F(TimerQueueTest, CancelReturnsTheMessageOnceAndIgnoresStaleIdentifiers) {
  EXPECT_EQ(queue.deactivate(0), nullptr);
  EXPECT_EQ(queue.deactivate(256), nullptr);
  const unsigned cancelled = arm(1, 100, 50);
  EXPECT_EQ(queue.deactivate(cancelled), message(1));
  EXPECT_EQ(queue.deactivate(cancelled), nullptr);
  EXPECT_EQ(entryOf(cancelled).id, 0u);
  const unsigned fired = arm(0, 100);
  startClockAt(200);
  TimerQueue::Expiry expiry;
  ASSERT_TRUE(queue.takeExpired(expiry));
  EXPECT_EQ(queue.deactivate(fired), nullptr);
}

TEST_F(TimerQueueDeathTest, IndexBeyondTheTableAborts) {
  const char report[] = "Assertion `id < sizeof\\(entries\\)/sizeof\\(entries\\[0\\]\\)' failed";
  EXPECT_DEATH(queue.deactivate(256 + 16), report);
  EXPECT_DEATH(queue.deactivate(0xFF), report);
}

TEST_F(TimerQueueTest, InvalidNowLeavesEverythingAsItIs) {
  startClockAt(1000);
  const unsigned id = arm(0, 2000);
  queue.countDown(LteTime(1500, 0, EAaLteTimeRetVal_ClockUnreadable));
  queue.countDown(LteTime::unreadable(EAaLteTimeRetVal_ClockUnreadable));
  EXPECT_EQ(entryOf(id).remaining, 1000u);
  EXPECT_EQ(queue.getLastTime().getSamples(), 1000u);
}

TEST_F(TimerQueueTest, FirstCountDownIsAcceptedWhateverItsLength) {
  const unsigned id = arm(0, 2000 * kSecond);
  queue.countDown(LteTime(1000 * kSecond));
  EXPECT_EQ(entryOf(id).remaining, 1000 * kSecond);
}

TEST_F(TimerQueueTest, ClockJumpFreezesTimersUntilTheClockComesBack) {
  startClockAt(100 * kSecond);
  const unsigned id = arm(0, 101 * kSecond);
  queue.countDown(LteTime(111 * kSecond));  // 11 s forward
  queue.countDown(LteTime(99 * kSecond));   // backwards: almost a whole cycle
  EXPECT_FALSE(entryOf(id).expired);
  EXPECT_EQ(entryOf(id).remaining, kSecond);
  EXPECT_EQ(queue.getLastTime().getSamples(), 100 * kSecond);
  queue.countDown(LteTime(100 * kSecond + kSecond / 2));
  EXPECT_EQ(entryOf(id).remaining, kSecond / 2);
  // Exactly ten seconds is still a count-down.
  queue.countDown(LteTime(110 * kSecond + kSecond / 2));
  EXPECT_TRUE(entryOf(id).expired);
}

TEST_F(TimerQueueTest, CountDownRunsAcrossTheCycleWrap) {
  startClockAt(LteTime::MaxSamples - 10);
  const unsigned id = arm(0, 10);
  EXPECT_EQ(entryOf(id).remaining, 20u);
  queue.countDown(LteTime(5));
  EXPECT_EQ(entryOf(id).remaining, 5u);
}

TEST_F(TimerQueueTest, LatePeriodicTimerFiresOnceAndKeepsItsPhase) {
  startClockAt(0);
  const unsigned manyPeriodsLate = arm(0, 100, 1000);
  const unsigned withinOnePeriod = arm(1, 2000, 1000);
  const unsigned exactlyOnePeriodLate = arm(2, 1650, 1000);
  queue.countDown(LteTime(2650));
  EXPECT_EQ(entryOf(manyPeriodsLate).remaining, 450u);  // overshoot 2550, 2550 mod 1000 = 550
  EXPECT_EQ(entryOf(withinOnePeriod).remaining, 350u);  // overshoot 650
  EXPECT_EQ(entryOf(exactlyOnePeriodLate).remaining, 0u);
  TimerQueue::Expiry expiry;
  for (int fired = 0; fired < 3; ++fired) ASSERT_TRUE(queue.takeExpired(expiry));
  EXPECT_FALSE(queue.takeExpired(expiry));
}

TEST_F(TimerQueueTest, ExpiredTimersAreDeliveredOneAtATimeLowestEntryFirst) {
  startClockAt(0);
  arm(0, 200);
  arm(1, 100);
  queue.countDown(LteTime(300));
  TimerQueue::Expiry expiry;
  ASSERT_TRUE(queue.takeExpired(expiry));
  EXPECT_EQ(expiry.msg, message(0));
  ASSERT_TRUE(queue.takeExpired(expiry));
  EXPECT_EQ(expiry.msg, message(1));
  EXPECT_FALSE(queue.takeExpired(expiry));
}

TEST_F(TimerQueueTest, OneShotIsFreedAndPeriodicStaysArmed) {
  startClockAt(0);
  const unsigned oneShot = arm(0, 100);
  const unsigned periodic = arm(1, 100, 1000);
  queue.countDown(LteTime(100));
  EXPECT_TRUE(entryOf(oneShot).expired);
  EXPECT_EQ(entryOf(oneShot).remaining, 100u);  // kept until delivery
  TimerQueue::Expiry expiry;
  ASSERT_TRUE(queue.takeExpired(expiry));
  EXPECT_FALSE(expiry.periodic);
  EXPECT_EQ(entryOf(oneShot).id, 0u);
  ASSERT_TRUE(queue.takeExpired(expiry));
  EXPECT_TRUE(expiry.periodic);
  EXPECT_EQ(expiry.msg, message(1));
  EXPECT_EQ(entryOf(periodic).msg, message(1));
  EXPECT_EQ(entryOf(periodic).remaining, 1000u);
}

TEST_F(TimerQueueTest, CancelledAfterMarkingDeliversNoMessage) {
  startClockAt(0);
  const unsigned id = arm(0, 100, 1000);
  queue.countDown(LteTime(150));
  EXPECT_EQ(queue.deactivate(id), message(0));
  TimerQueue::Expiry expiry;
  ASSERT_TRUE(queue.takeExpired(expiry));
  EXPECT_EQ(expiry.msg, nullptr);
  EXPECT_FALSE(queue.takeExpired(expiry));
  // The entry is free for the next activation.
  EXPECT_EQ(arm(1, 500) & 0xFF, 0u);
}

// Due timers and those at or beyond the longest wait give no deadline.
TEST_F(TimerQueueTest, NextDeadlineIsTheNearestTimerInSecondsAndNanoseconds) {
  uint32_t seconds = 0;
  uint32_t nanoseconds = 0;
  EXPECT_FALSE(queue.nextDeadline(seconds, nanoseconds));
  startClockAt(0);
  arm(0, 0);
  arm(1, TimerQueue::kMaxDeadline);
  arm(2, TimerQueue::kMaxDeadline + 1);
  EXPECT_FALSE(queue.nextDeadline(seconds, nanoseconds));
  arm(3, TimerQueue::kMaxDeadline - 1);
  ASSERT_TRUE(queue.nextDeadline(seconds, nanoseconds));
  EXPECT_EQ(seconds, 139u);
  EXPECT_EQ(nanoseconds, 810133268u);
  arm(4, 60 * kSecond);
  const unsigned nearest = arm(5, 46080000);
  ASSERT_TRUE(queue.nextDeadline(seconds, nanoseconds));
  EXPECT_EQ(seconds, 1u);
  EXPECT_EQ(nanoseconds, 500000000u);
  // A cancelled timer no longer shortens the wait.
  queue.deactivate(nearest);
  ASSERT_TRUE(queue.nextDeadline(seconds, nanoseconds));
  EXPECT_EQ(seconds, 60u);
  EXPECT_EQ(nanoseconds, 0u);
}

}  // namespace
}  // namespace Olm
