// CLOCK_MONOTONIC, read for the radio clock at the cost of the processor's cycle counter.
//
// The radio clock is read several times for every message a node handles (the loop, each history
// record), and a vDSO clock_gettime costs two to three times a bare counter read. Where the kernel
// keeps CLOCK_MONOTONIC on the same counter (x86-64 with the "tsc" clock source), each thread
// extrapolates CLOCK_MONOTONIC from the counter and re-anchors to the real clock every
// kReanchorNanoseconds, so it never strays from the clock every other process reads by more than
// the rate error over that interval (tens of nanoseconds: about one LTE basic time unit).
// Elsewhere (32-bit ARM, other clock sources) the clock is read directly.
#pragma once

#include <cstdint>

namespace rhyddal {
namespace counter_clock {

struct Pair {
  uint64_t counter;      // midpoint of the counter reads around the clock read
  uint64_t nanoseconds;  // the clock read
  uint64_t width;        // counts between the counter reads
};

// The anchor and the counter's rate: the part of the extrapolation that does not read anything.
struct Rate {
  Pair anchor;
  uint64_t nanosecondsPerCountQ32;  // 32.32 fixed point; 0 until calibrated
  uint64_t reanchorCounts;
  uint64_t maxPairWidthCounts;

  // Anchors at pair, and takes the rate since the former anchor when its interval is usable.
  void take(const Pair& pair, uint64_t reanchorNanoseconds, uint64_t maxPairWidthNanoseconds);
};

// (a * b) >> 32, rounded to nearest, without a 128-bit type (32-bit ARM has none); exact while the
// result fits 64 bits. Only the low halves' product has a fraction to round.
inline uint64_t multiplyQ32(uint64_t a, uint64_t b) {
  constexpr uint64_t kHalf = uint64_t{1} << 31;
  const uint64_t aHigh = a >> 32, aLow = a & 0xFFFFFFFFu;
  const uint64_t bHigh = b >> 32, bLow = b & 0xFFFFFFFFu;
  return (aHigh * bHigh << 32) + aHigh * bLow + aLow * bHigh + ((aLow * bLow + kHalf) >> 32);
}

}  // namespace counter_clock


// The arithmetic of the extrapolation, over any counter and any nanosecond clock: the tests drive
// it with fake ones, production with the cycle counter and CLOCK_MONOTONIC. Template arguments, so
// that the reads are direct calls the compiler can inline. Constant-initialised (no guard on a
// thread_local of this type). One per thread: not safe to share.
template <uint64_t (*ReadCounter)(), uint64_t (*ReadClock)()>
class CounterExtrapolator {
 public:
  static constexpr uint64_t kCalibrationNanoseconds = 1000000;  // first rate measured over 1 ms
  static constexpr uint64_t kReanchorNanoseconds = 1000000;
  // A counter-clock-counter pair read wider than this was interrupted: its midpoint says little
  // about when the clock was read, so the rate is not taken from it.
  static constexpr uint64_t kMaxPairWidthNanoseconds = 500;
  static constexpr int kPairAttempts = 3;

  // Nanoseconds of the clock, never less than a value this object returned before.
  uint64_t now() {
    if (!calibrated()) return calibrate();
    const uint64_t elapsed = ReadCounter() - m_rate.anchor.counter;
    // A counter behind the anchor (a thread moved to a processor whose counter lags) wraps to a
    // huge elapsed count and re-anchors too.
    if (elapsed >= m_rate.reanchorCounts) return reanchor();
    return notBefore(m_rate.anchor.nanoseconds + counter_clock::multiplyQ32(elapsed, m_rate.nanosecondsPerCountQ32));
  }

  bool calibrated() const { return m_rate.nanosecondsPerCountQ32 != 0; }

 private:
  counter_clock::Pair readPair() const {
    counter_clock::Pair best = {0, 0, UINT64_MAX};
    for (int attempt = 0; attempt < kPairAttempts; ++attempt) {
      const uint64_t before = ReadCounter();
      const uint64_t nanoseconds = ReadClock();
      const uint64_t width = ReadCounter() - before;
      if (width < best.width) best = counter_clock::Pair{before + width / 2, nanoseconds, width};
    }
    return best;
  }

  uint64_t calibrate() {
    const counter_clock::Pair pair = readPair();
    if (!m_anchored) {
      m_rate.anchor = pair;
      m_anchored = true;
    } else if (pair.nanoseconds - m_rate.anchor.nanoseconds >= kCalibrationNanoseconds) {
      m_rate.take(pair, kReanchorNanoseconds, kMaxPairWidthNanoseconds);
    }
    return notBefore(pair.nanoseconds);
  }

  uint64_t reanchor() {
    const counter_clock::Pair pair = readPair();
    if (pair.width <= m_rate.maxPairWidthCounts) m_rate.take(pair, kReanchorNanoseconds, kMaxPairWidthNanoseconds);
    return notBefore(pair.nanoseconds);
  }

  uint64_t notBefore(uint64_t nanoseconds) {
    if (nanoseconds > m_last) m_last = nanoseconds;
    return m_last;
  }

  bool m_anchored = false;
  counter_clock::Rate m_rate = {};
  uint64_t m_last = 0;
};

// CLOCK_MONOTONIC in nanoseconds, through this thread's extrapolator when counterClockInUse().
uint64_t counterMonotonicNanoseconds();
bool counterClockInUse();

}  // namespace rhyddal
