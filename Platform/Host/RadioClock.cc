#include "RadioClock.h"

#include <time.h>

#include "CounterClock.h"

namespace rhyddal {

uint64_t monotonicNanoseconds() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<uint64_t>(now.tv_sec) * kNanosecondsPerSecond + static_cast<uint64_t>(now.tv_nsec);
}

RadioTime radioTimeAt(uint64_t nanoseconds) {
  const uint64_t fine = unitsAt(nanoseconds, kBtuPerSecond * kFinePerBtu);
  return RadioTime{(fine / kFinePerFrame) % kFrameCounterModulo, static_cast<uint32_t>(fine % kFinePerFrame)};
}

namespace {

RadioTime radioTimeOfFrames(uint64_t frames, uint32_t nanosecondsInFrame) {
  // 1/40 BTU per ns is 1.2288 = 768/625.
  constexpr uint64_t kFineNumerator = 768, kFineDenominator = 625;
  static_assert(kFinePerFrame * kFineDenominator == kNanosecondsPerFrame * kFineNumerator, "1.2288 fine units per ns");
  const uint64_t fine = uint64_t{nanosecondsInFrame} * kFineNumerator / kFineDenominator;
  return RadioTime{frames % kFrameCounterModulo, static_cast<uint32_t>(fine)};
}

}  // namespace

RadioTime radioTimeNow() {
  const uint64_t now = counterMonotonicNanoseconds();
  return radioTimeOfFrames(now / kNanosecondsPerFrame, static_cast<uint32_t>(now % kNanosecondsPerFrame));
}

uint32_t lteSymbolAt(uint64_t nanoseconds) {
  const uint64_t btu = unitsAt(nanoseconds, kBtuPerSecond);
  const uint64_t frame = (btu / kBtuPerFrame) % kSymbolCycleFrames;
  const uint64_t symbolInFrame = (btu % kBtuPerFrame) * kSymbolsPerFrame / kBtuPerFrame;
  return static_cast<uint32_t>(frame * kSymbolsPerFrame + symbolInFrame);
}

uint64_t cdmaCountAt(uint64_t nanoseconds) { return unitsAt(nanoseconds, kCdmaUnitsPerSecond); }

}  // namespace rhyddal
