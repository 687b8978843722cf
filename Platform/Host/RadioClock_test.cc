#include "RadioClock.h"

#include <unistd.h>

#include <gtest/gtest.h>

#include "HostTestUtil.h"
#include "Rhyddal.h"

namespace rhyddal {
namespace {

using namespace testing;

constexpr uint64_t kMillisecond = 1000000;
constexpr uint64_t kFinePerMillisecond = kBtuPerSecond * kFinePerBtu / 1000;  // 1228800
constexpr uint64_t kFrameCycleFine = kFrameCounterModulo * kFinePerFrame;

struct Reading {
  uint64_t monotonicNs;
  uint64_t fine;  // frame counter and fine position as one count of 1/40 BTU
};

Reading readClock() {
  unsigned long long counter = 0;
  uint32_t fine = 0;
  const uint64_t before = monotonicNanoseconds();
  EXPECT_EQ(ddal_sfn_get_bcn(&counter, &fine, 0), 0);
  const uint64_t after = monotonicNanoseconds();
  EXPECT_LT(counter, kFrameCounterModulo);
  EXPECT_LT(fine, kFinePerFrame);
  return Reading{before + (after - before) / 2, counter * kFinePerFrame + fine};
}

// Fine units from a to b, across a wrap of the 20-bit frame counter.
uint64_t fineBetween(const Reading& a, const Reading& b) { return (b.fine + kFrameCycleFine - a.fine) % kFrameCycleFine; }

TEST(RadioClock, AdvancesAt30_72MHz) {
  const Reading before = readClock();
  usleep(50000);
  const Reading after = readClock();
  const double expected = static_cast<double>(after.monotonicNs - before.monotonicNs) * kFinePerMillisecond / kMillisecond;
  EXPECT_NEAR(static_cast<double>(fineBetween(before, after)), expected, 0.1 * kFinePerMillisecond);
}

TEST(RadioClock, TwoProcessesReadTheSameTime) {
  Rendezvous childReading;
  Rendezvous childClock;
  ChildProcess process([&] {
    readClock();  // a first call warms the path up (under emulation it is translated only now)
    const Reading reading = readClock();
    childClock.notify(reading.monotonicNs);
    childReading.notify(reading.fine + 1);  // +1: never 0, which means "nothing came"
    return 0;
  });
  const uint64_t childNs = childClock.waitFor();
  const Reading theirs{childNs, childReading.waitFor() - 1};
  ASSERT_NE(childNs, 0u);
  const Reading mine = readClock();
  const double expected = static_cast<double>(mine.monotonicNs - theirs.monotonicNs) * kFinePerMillisecond / kMillisecond;
  EXPECT_NEAR(static_cast<double>(fineBetween(theirs, mine)), expected, 0.5 * kFinePerMillisecond);
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
