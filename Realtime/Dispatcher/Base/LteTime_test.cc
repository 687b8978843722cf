#include "LteTime.h"

#include <array>

#include <gtest/gtest.h>

namespace Olm {
namespace {

constexpr char kOutOfCycle[] = "Realtime/Dispatcher/LteTime:[0-9]+: .*Assertion `m_samples < MaxSamples' failed";

using Parts = std::array<unsigned, 4>;  // hyper frame, frame, slot, BTU

Parts partsOf(const LteTime& time) {
  LteTime::SLteTime out{};
  time.vector(out);
  return {out.hyperFrame, out.frame, out.slot, out.basicTimeUnit};
}

LteTime hardwareReading(uint64_t samples, uint64_t frameCounter, uint32_t fineOffset) {
  LteTime reading(samples, fineOffset, EAaLteTimeRetVal_Ok);
  reading.setRawFrameCounter(frameCounter);
  return reading;
}

TEST(LteTimeConstruction, CountsBasicTimeUnitsAndChecksOnlyTheTotal) {
  EXPECT_EQ(LteTime(1, 1, 1, 1).getSamples(), 314572800u + 307200u + 15360u + 1u);
  EXPECT_EQ(LteTime(1023, 1023, 19, 15359).getSamples(), 322122547199u);
  // Parts beyond their range overflow into the next unit.
  EXPECT_EQ(LteTime(0, 1024, 0, 0).getSamples(), LteTime(1, 0, 0, 0).getSamples());
  EXPECT_EQ(LteTime(0, 0, 20, 0).getSamples(), LteTime(0, 1, 0, 0).getSamples());
  EXPECT_EQ(LteTime(0, 0, 0, 15360).getSamples(), LteTime(0, 0, 1, 0).getSamples());
}

TEST(LteTimeConstructionDeathTest, AWholeCycleOrMoreAborts) {
  EXPECT_DEATH(static_cast<void>(LteTime(1024, 0, 0, 0)), kOutOfCycle);
  EXPECT_DEATH(static_cast<void>(LteTime(LteTime::MaxSamples)), kOutOfCycle);
  EXPECT_DEATH(static_cast<void>(LteTime(LteTime::MaxSamples, 0, EAaLteTimeRetVal_Ok)), kOutOfCycle);
}

TEST(LteTimeVector, SplitsTheSampleCount) {
  EXPECT_EQ(partsOf(LteTime(0)), (Parts{0, 0, 0, 0}));
  EXPECT_EQ(partsOf(LteTime(1023, 1023, 19, 15359)), (Parts{1023, 1023, 19, 15359}));
}

TEST(LteTimeVector, IsExactOnBothSidesOfEveryHyperFrameBoundary) {
  for (unsigned hyperFrame = 1; hyperFrame < LteTime::HyperFramesPerCycle; ++hyperFrame) {
    const LteTime start(static_cast<uint16_t>(hyperFrame), 0, 0, 0);
    ASSERT_EQ(partsOf(start), (Parts{hyperFrame, 0, 0, 0}));
    ASSERT_EQ(partsOf(LteTime(start.getSamples() - 1)), (Parts{hyperFrame - 1, 1023, 19, 15359}));
  }
}

TEST(LteTimeVector, HardwareReadingIsSplitFromItsCounters) {
  EXPECT_EQ(partsOf(hardwareReading(1025u * 307200u + 2u, 0x00401, 80)), (Parts{1, 1, 0, 2}));
  // The counters win even when the sample count says otherwise.
  EXPECT_EQ(partsOf(hardwareReading(0, (5u << 10) | 100u, 3u * 614400u + 7u * 40u + 39u)),
            (Parts{5, 100, 3, 7}));
  // Bits above the hyper frame number are not part of it.
  EXPECT_EQ(partsOf(hardwareReading(0, (1u << 20) | (2u << 10) | 3u, 40)), (Parts{2, 3, 0, 1}));
  // The sample count is used unless both counters are set.
  const uint64_t samples = LteTime(5, 100, 3, 7).getSamples();
  EXPECT_EQ(partsOf(hardwareReading(samples, 0x00401, 0)), (Parts{5, 100, 3, 7}));
  EXPECT_EQ(partsOf(hardwareReading(samples, 0, 80)), (Parts{5, 100, 3, 7}));
}

TEST(LteTimeDifference, IsTakenModuloOneCycle) {
  EXPECT_EQ((LteTime(1001) - LteTime(1000)).getSamples(), 1u);
  EXPECT_EQ((LteTime(1000) - LteTime(1000)).getSamples(), 0u);
  EXPECT_EQ((LteTime(0, 0, 0, 10) - LteTime(1023, 1023, 19, 15350)).getSamples(), 20u);
  // A time in the past is nearly a whole cycle ahead, never negative.
  EXPECT_EQ((LteTime(1000) - LteTime(1001)).getSamples(), LteTime::MaxSamples - 1);
}

TEST(LteTimeDifference, IsAPlainDurationWhateverTheOperands) {
  const LteTime later = hardwareReading(LteTime(1, 1, 0, 2).getSamples(), 0x00401, 80);
  const LteTime earlier = hardwareReading(0, 0x00400, 40);
  const LteTime difference = later - earlier;
  EXPECT_EQ(difference.getRawFrameCounter(), 0u);
  EXPECT_EQ(difference.getFineOffset(), 0u);
  EXPECT_EQ(partsOf(difference), (Parts{1, 1, 0, 2}));
  // The status is not the operator's business: the timer queue subtracts from a never-set time.
  const LteTime sinceUnread = LteTime(500) - LteTime::unreadable(EAaLteTimeRetVal_ClockUnreadable);
  EXPECT_EQ(sinceUnread.getSamples(), 500u);
  EXPECT_EQ(sinceUnread.getStatus(), EAaLteTimeRetVal_Ok);
}

}  // namespace
}  // namespace Olm
