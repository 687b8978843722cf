#include "RadioClock.h"

#include <unistd.h>

#include <gtest/gtest.h>

#include "HostTestUtil.h"
#include "Rhyddal.h"

namespace rhyddal {
namespace {

using namespace testing;

constexpr uint64_t kMillisecond = 1000000;

// Frame counter and fine position as one count of 1/40 BTU, across the 20-bit counter's wrap.
uint64_t fineOf(unsigned long long counter, uint32_t fine) { return counter * kFinePerFrame + fine; }
uint64_t fineAt(uint64_t ns) {
  const RadioTime time = radioTimeAt(ns);
  return fineOf(time.frameCounter, time.fine);
}

// A reading lies between the clock's values just before and just after the call, whatever the
// machine's load: ddal_sfn_get_bcn is CLOCK_MONOTONIC at 30.72 MHz, the same clock in every
// process. Read through the cycle counter it may stray by tens of nanoseconds; the margin is far
// above that and far below the milliseconds a wrong rate or a missed re-anchor would give.
constexpr uint64_t kCounterClockMargin = 20000;

::testing::AssertionResult readingIsBracketedByTheClock() {
  unsigned long long counter = 0;
  uint32_t fine = 0;
  const uint64_t before = monotonicNanoseconds();
  if (ddal_sfn_get_bcn(&counter, &fine, 0) != 0) return ::testing::AssertionFailure() << "unreadable";
  const uint64_t after = monotonicNanoseconds();
  if (counter >= kFrameCounterModulo || fine >= kFinePerFrame) return ::testing::AssertionFailure() << "out of range";
  const uint64_t low = fineAt(before - kCounterClockMargin);
  const uint64_t high = fineAt(after + kCounterClockMargin);
  const uint64_t reading = fineOf(counter, fine);
  const bool inside = low <= high ? low <= reading && reading <= high : reading >= low || reading <= high;
  if (inside) return ::testing::AssertionSuccess();
  return ::testing::AssertionFailure() << reading << " outside [" << low << ", " << high << "]";
}

TEST(RadioClock, ReadingsFollowTheMonotonicClockInEveryProcess) {
  for (int i = 0; i < 1000; ++i) ASSERT_TRUE(readingIsBracketedByTheClock());
  ChildProcess process([] {
    for (int i = 0; i < 1000; ++i) {
      if (!readingIsBracketedByTheClock()) return 1;
    }
    return 0;
  });
  EXPECT_EQ(process.wait(), 0);
}

TEST(RadioClock, NullOutputsAreSkipped) {
  unsigned long long counter = kFrameCounterModulo;
  uint32_t fine = 0xFFFFFFFF;
  EXPECT_EQ(ddal_sfn_get_bcn(nullptr, nullptr, 0), 0);
  EXPECT_EQ(ddal_sfn_get_bcn(&counter, nullptr, 0), 0);
  EXPECT_EQ(ddal_sfn_get_bcn(nullptr, &fine, 0), 0);
  EXPECT_LT(counter, kFrameCounterModulo);
  EXPECT_LT(fine, kFinePerFrame);
}

TEST(RadioClock, FramesAndFinePositionsAtTheirBoundaries) {
  const RadioTime frameOne = radioTimeAt(10 * kMillisecond);
  EXPECT_EQ(frameOne.frameCounter, 1u);
  EXPECT_EQ(frameOne.fine, 0u);
  const RadioTime lastBeforeIt = radioTimeAt(10 * kMillisecond - 1);
  EXPECT_EQ(lastBeforeIt.frameCounter, 0u);
  EXPECT_EQ(lastBeforeIt.fine, 12287998u);  // 9999999 ns * 1.2288 fine units per ns, truncated
  const RadioTime hyperFrameOne = radioTimeAt(1024 * 10 * kMillisecond + 1000);
  EXPECT_EQ(hyperFrameOne.frameCounter, 0x400u);
  EXPECT_EQ(hyperFrameOne.fine, 1228u);
  EXPECT_EQ(radioTimeAt(kFrameCounterModulo * 10 * kMillisecond).frameCounter, 0u) << "20-bit counter wraps";
}

#ifdef __SIZEOF_INT128__
TEST(RadioClock, LargeTimesScaleExactlyWithoutOverflow) {
  const uint64_t rate = kBtuPerSecond * kFinePerBtu;
  for (const uint64_t ns : {uint64_t{999999999}, uint64_t{1} << 40, (uint64_t{1} << 63) + 123456789, ~uint64_t{0} / 2}) {
    const unsigned __int128 exact = static_cast<unsigned __int128>(ns) * rate / kNanosecondsPerSecond;
    EXPECT_EQ(unitsAt(ns, rate), static_cast<uint64_t>(exact)) << ns;
  }
}
#endif

TEST(RadioClock, SymbolCounterCountsFourteenSymbolsAMillisecondAndWrapsAfter4096Frames) {
  EXPECT_EQ(lteSymbolAt(kMillisecond), 14u);
  EXPECT_EQ(lteSymbolAt(10 * kMillisecond + 71000), 140u) << "a symbol lasts 71.43 us";
  EXPECT_EQ(lteSymbolAt(10 * kMillisecond + 72000), 141u);
  EXPECT_EQ(lteSymbolAt(4096 * 10 * kMillisecond - 1), 573439u);
  EXPECT_EQ(lteSymbolAt(4096 * 10 * kMillisecond), 0u);
}

TEST(RadioClock, CdmaCounterCountsSixteenthChips) {
  EXPECT_EQ(cdmaCountAt(1000000000), 19660800u);
  EXPECT_EQ(cdmaCountAt(uint64_t{300} * 1000000000) >> 32, 1u) << "the high word turns after 218 s";
}

}  // namespace
}  // namespace rhyddal
