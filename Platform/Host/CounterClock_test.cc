#include "CounterClock.h"

#include <gtest/gtest.h>

#include "RadioClock.h"

namespace rhyddal {
namespace {

constexpr uint64_t kCountsPerNanosecond = 3;  // a 3 GHz counter
constexpr uint64_t kMillisecond = 1000000;

// A counter that moves on by `step` counts at every read (the time a read takes) and a clock set
// by the test.
struct FakeTime {
  static uint64_t counter;
  static uint64_t step;
  static uint64_t clock;
  static uint64_t readCounter() {
    const uint64_t value = counter;
    counter += step;
    return value;
  }
  static uint64_t readClock() { return clock; }
  // Both at ns, the clock exact and the counter at the same instant.
  static void setBoth(uint64_t ns) {
    clock = ns;
    counter = ns * kCountsPerNanosecond;
  }
};
uint64_t FakeTime::counter = 0;
uint64_t FakeTime::step = 0;
uint64_t FakeTime::clock = 0;

class CounterExtrapolatorTest : public ::testing::Test {
 protected:
  CounterExtrapolatorTest() { FakeTime::step = 0; }

  // Anchors at `start` and calibrates at start + 1 ms, as the first reads of a thread do.
  void calibrateFrom(uint64_t start) {
    FakeTime::setBoth(start);
    EXPECT_EQ(clock.now(), start);
    FakeTime::setBoth(start + kMillisecond / 2);
    EXPECT_EQ(clock.now(), start + kMillisecond / 2) << "the clock itself until calibrated";
    EXPECT_FALSE(clock.calibrated());
    FakeTime::setBoth(start + kMillisecond);
    EXPECT_EQ(clock.now(), start + kMillisecond);
    ASSERT_TRUE(clock.calibrated());
  }

  CounterExtrapolator<FakeTime::readCounter, FakeTime::readClock> clock;
};

TEST_F(CounterExtrapolatorTest, BetweenAnchorsTheCounterGivesTheClock) {
  const uint64_t start = 5000 * kMillisecond;
  calibrateFrom(start);
  FakeTime::clock = 0;  // not read: a wrong value would show
  FakeTime::counter += 100000 * kCountsPerNanosecond;
  EXPECT_EQ(clock.now(), start + kMillisecond + 100000);
  FakeTime::counter += 899999 * kCountsPerNanosecond;
  EXPECT_EQ(clock.now(), start + 2 * kMillisecond - 1) << "the last extrapolated nanosecond";
}

TEST_F(CounterExtrapolatorTest, AnchorsAgainEveryMillisecondAndFollowsTheClocksRate) {
  const uint64_t start = 7 * kMillisecond;
  calibrateFrom(start);
  FakeTime::counter += (kMillisecond - 1) * kCountsPerNanosecond;
  EXPECT_EQ(clock.now(), start + 2 * kMillisecond - 1);
  // The clock ran 1 us slow over that millisecond (an adjustment of its rate): the re-anchor reads
  // it, and the extrapolation after it uses the new rate.
  FakeTime::counter += kCountsPerNanosecond;
  FakeTime::clock = start + 2 * kMillisecond - 1000;
  EXPECT_EQ(clock.now(), start + 2 * kMillisecond - 1) << "never before a value already returned";
  FakeTime::counter += kMillisecond / 2 * kCountsPerNanosecond;
  EXPECT_EQ(clock.now(), start + 2 * kMillisecond - 1000 + (kMillisecond / 2 - 500));
}

TEST_F(CounterExtrapolatorTest, AnInterruptedPairGivesTheClockButNeverAnAnchor) {
  const uint64_t start = 9 * kMillisecond;
  calibrateFrom(start);
  FakeTime::step = (decltype(clock)::kMaxPairWidthNanoseconds + 1) * kCountsPerNanosecond;
  FakeTime::counter = (start + 3 * kMillisecond) * kCountsPerNanosecond;
  FakeTime::clock = start + 2 * kMillisecond;  // far from the wide pair's midpoint
  EXPECT_EQ(clock.now(), start + 2 * kMillisecond) << "the clock as read";
  FakeTime::step = 0;
  FakeTime::setBoth(start + 4 * kMillisecond);
  EXPECT_EQ(clock.now(), start + 4 * kMillisecond);
  FakeTime::counter += 100 * kCountsPerNanosecond;
  EXPECT_EQ(clock.now(), start + 4 * kMillisecond + 100) << "a rate from the narrow pairs alone";
}

TEST_F(CounterExtrapolatorTest, ACounterThatFallsBehindOrALongSilenceAnchorsAgain) {
  const uint64_t start = 11 * kMillisecond;
  calibrateFrom(start);
  FakeTime::setBoth(start + kMillisecond / 2);
  FakeTime::counter -= 1000;  // another processor's counter, a little behind
  FakeTime::clock = start + kMillisecond + 300;
  EXPECT_EQ(clock.now(), start + kMillisecond + 300);

  const uint64_t hourLater = start + 3600 * 1000 * kMillisecond;
  FakeTime::setBoth(hourLater);
  EXPECT_EQ(clock.now(), hourLater);
  FakeTime::counter += 1000 * kCountsPerNanosecond;
  EXPECT_EQ(clock.now(), hourLater + 1000) << "the rate from before the silence";
}

// With the real counter and CLOCK_MONOTONIC, every reading lies between the clock's values around
// it, give or take a margin far above the tens of nanoseconds the extrapolation strays and far
// below the whole milliseconds a wrong rate or a missed re-anchor would give.
TEST(CounterClock, ReadingsFollowTheMonotonicClock) {
  constexpr uint64_t kMarginNanoseconds = 20000;
  for (int i = 0; i < 200000; ++i) {
    const uint64_t before = monotonicNanoseconds();
    const uint64_t reading = counterMonotonicNanoseconds();
    const uint64_t after = monotonicNanoseconds();
    ASSERT_GE(reading + kMarginNanoseconds, before) << "reading " << i;
    ASSERT_LE(reading, after + kMarginNanoseconds) << "reading " << i;
  }
  if (!counterClockInUse()) GTEST_SKIP() << "the clock is read directly here (no cycle counter under it)";
}

}  // namespace
}  // namespace rhyddal
