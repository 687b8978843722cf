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

// The arithmetic of the extrapolation, over any counter and any nanosecond clock: the tests drive
// it with fake ones, production with the cycle counter and CLOCK_MONOTONIC. Constant-initialised
// (no guard on a thread_local of this type). One per thread: not safe to share.
class CounterExtrapolator {
 public:
  using ReadFn = uint64_t (*)();

  static constexpr uint64_t kCalibrationNanoseconds = 1000000;  // first rate measured over 1 ms
  static constexpr uint64_t kReanchorNanoseconds = 1000000;
  // A counter-clock-counter pair read wider than this was interrupted: its midpoint says little
  // about when the clock was read, so the rate is not taken from it.
  static constexpr uint64_t kMaxPairWidthNanoseconds = 500;
  static constexpr int kPairAttempts = 3;

  constexpr CounterExtrapolator(ReadFn readCounter, ReadFn readClock)
      : m_readCounter(readCounter), m_readClock(readClock) {}

  // Nanoseconds of the clock, never less than a value this object returned before.
  uint64_t now();

  bool calibrated() const { return m_nanosecondsPerCountQ32 != 0; }

 private:
  struct Pair {
    uint64_t counter;      // midpoint of the counter reads around the clock read
    uint64_t nanoseconds;  // the clock read
    uint64_t width;        // counts between the counter reads
  };

  Pair readPair() const;
  uint64_t calibrate();
  uint64_t reanchor();
  void takeRate(const Pair& pair);
  uint64_t notBefore(uint64_t nanoseconds);

  ReadFn m_readCounter;
  ReadFn m_readClock;
  bool m_anchored = false;
  Pair m_anchor = {0, 0, 0};
  uint64_t m_nanosecondsPerCountQ32 = 0;  // 32.32 fixed point; 0 until calibrated
  uint64_t m_reanchorCounts = 0;
  uint64_t m_maxPairWidthCounts = 0;
  uint64_t m_last = 0;
};

// CLOCK_MONOTONIC in nanoseconds, through this thread's extrapolator when counterClockInUse().
uint64_t counterMonotonicNanoseconds();
bool counterClockInUse();

}  // namespace rhyddal
