#include "RadioClock.h"

#include <time.h>

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

RadioTime radioTimeNow() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  const uint32_t nanoseconds = static_cast<uint32_t>(now.tv_nsec);
  const uint64_t frames = static_cast<uint64_t>(now.tv_sec) * kFramesPerSecond + nanoseconds / kNanosecondsPerFrame;
  // 1/40 BTU per ns is 1.2288 = 768/625.
  constexpr uint64_t kFineNumerator = 768, kFineDenominator = 625;
  static_assert(kFinePerFrame * kFineDenominator == kNanosecondsPerFrame * kFineNumerator, "1.2288 fine units per ns");
  const uint64_t fine = (nanoseconds % kNanosecondsPerFrame) * kFineNumerator / kFineDenominator;
  return RadioTime{frames % kFrameCounterModulo, static_cast<uint32_t>(fine)};
}

uint32_t lteSymbolAt(uint64_t nanoseconds) {
  const uint64_t btu = unitsAt(nanoseconds, kBtuPerSecond);
  const uint64_t frame = (btu / kBtuPerFrame) % kSymbolCycleFrames;
  const uint64_t symbolInFrame = (btu % kBtuPerFrame) * kSymbolsPerFrame / kBtuPerFrame;
  return static_cast<uint32_t>(frame * kSymbolsPerFrame + symbolInFrame);
}

uint64_t cdmaCountAt(uint64_t nanoseconds) { return unitsAt(nanoseconds, kCdmaUnitsPerSecond); }

}  // namespace rhyddal
