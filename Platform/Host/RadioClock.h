// The host's radio clock: LTE frame timing and a CDMA counter derived from CLOCK_MONOTONIC.
//
// CLOCK_MONOTONIC is one clock for every process of the host, so every node agrees on radio time
// the way nodes on one board agree through the shared timing hardware. Time zero is the host's
// boot; only differences and positions within frames carry meaning.
#pragma once

#include <cstdint>

namespace rhyddal {

constexpr uint64_t kNanosecondsPerSecond = 1000000000;
constexpr uint64_t kBtuPerSecond = 30720000;  // LTE basic time unit: 1 / 30.72 MHz
constexpr uint64_t kFinePerBtu = 40;          // the fine position counts 1/40 BTU
constexpr uint64_t kBtuPerFrame = 307200;     // 10 ms
constexpr uint64_t kFinePerFrame = kBtuPerFrame * kFinePerBtu;
constexpr uint64_t kFrameCounterModulo = 1u << 20;  // 10 bits frame, 10 bits hyper frame
constexpr uint64_t kFramesPerSecond = 100;
constexpr uint32_t kNanosecondsPerFrame = 10000000;
constexpr uint64_t kSymbolsPerFrame = 140;          // 10 subframes of 14 symbols
constexpr uint64_t kSymbolCycleFrames = 4096;       // the symbol counter wraps at 573440
// The CDMA counter counts sixteenths of a 1.2288 MHz chip.
constexpr uint64_t kCdmaUnitsPerSecond = 1228800 * 16;

struct RadioTime {
  uint64_t frameCounter;  // frames mod 2^20: bits 0-9 frame, bits 10-19 hyper frame
  uint32_t fine;          // position within the frame in 1/40 BTU, below kFinePerFrame
};

uint64_t monotonicNanoseconds();

// ns * unitsPerSecond / 1e9 without overflow for any 64-bit ns (no 128-bit type on 32-bit ARM).
// The sub-second product stays below 1e9 * unitsPerSecond, which fits 64 bits for every rate used
// here (the largest, 1/40 BTU, is 1.2288e9 per second). Inline, so that with a constant rate every
// division is by a constant and costs a multiplication: the radio clock is read on every loop
// iteration of every node.
inline uint64_t unitsAt(uint64_t nanoseconds, uint64_t unitsPerSecond) {
  const uint64_t seconds = nanoseconds / kNanosecondsPerSecond;
  const uint64_t rest = nanoseconds % kNanosecondsPerSecond;
  return seconds * unitsPerSecond + rest * unitsPerSecond / kNanosecondsPerSecond;
}

RadioTime radioTimeAt(uint64_t nanoseconds);
// The radio time now: radioTimeAt of the monotonic clock, read through the cycle counter where
// that is the kernel's clock source (CounterClock.h). ddal_sfn_get_bcn runs on every loop
// iteration of every node and for every history record.
RadioTime radioTimeNow();
// The simulated LTE symbol counter: symbols since frame 0 of a 4096-frame cycle, below 573440.
uint32_t lteSymbolAt(uint64_t nanoseconds);
uint64_t cdmaCountAt(uint64_t nanoseconds);

}  // namespace rhyddal
