#include "RadioClock.h"

#include <time.h>

namespace rhyddal {

uint64_t monotonicNanoseconds() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<uint64_t>(now.tv_sec) * kNanosecondsPerSecond + static_cast<uint64_t>(now.tv_nsec);
}

// The sub-second product stays below 1e9 * unitsPerSecond, which fits 64 bits for every rate used
// here (the largest, 1/40 BTU, is 1.2288e9 per second).
uint64_t unitsAt(uint64_t nanoseconds, uint64_t unitsPerSecond) {
  const uint64_t seconds = nanoseconds / kNanosecondsPerSecond;
  const uint64_t rest = nanoseconds % kNanosecondsPerSecond;
  return seconds * unitsPerSecond + rest * unitsPerSecond / kNanosecondsPerSecond;
}

RadioTime radioTimeAt(uint64_t nanoseconds) {
  const uint64_t fine = unitsAt(nanoseconds, kBtuPerSecond * kFinePerBtu);
  return RadioTime{(fine / kFinePerFrame) % kFrameCounterModulo, static_cast<uint32_t>(fine % kFinePerFrame)};
}

uint32_t lteSymbolAt(uint64_t nanoseconds) {
  const uint64_t btu = unitsAt(nanoseconds, kBtuPerSecond);
  const uint64_t frame = (btu / kBtuPerFrame) % kSymbolCycleFrames;
  const uint64_t symbolInFrame = (btu % kBtuPerFrame) * kSymbolsPerFrame / kBtuPerFrame;
  return static_cast<uint32_t>(frame * kSymbolsPerFrame + symbolInFrame);
}

uint64_t cdmaCountAt(uint64_t nanoseconds) { return unitsAt(nanoseconds, kCdmaUnitsPerSecond); }

}  // namespace rhyddal
