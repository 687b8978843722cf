#include "CounterClock.h"

#include <fstream>
#include <string>

#include "RadioClock.h"

#if defined(__x86_64__)
#include <x86intrin.h>
#endif

namespace rhyddal {
namespace {

// A rate is measured only over an interval between these: a shorter one is mostly the jitter of
// its two pairs; a longer one (a thread that did not read the clock for seconds) would not fit 64
// bits once shifted into 32.32 fixed point. Any other interval re-anchors without a new rate, and
// so does a clock or counter that went backwards (a huge unsigned difference).
constexpr uint64_t kShortestRateInterval = CounterExtrapolator::kReanchorNanoseconds / 2;
constexpr uint64_t kLongestRateInterval = uint64_t{1} << 31;
constexpr uint64_t kLargestForwardCount = uint64_t{1} << 62;

bool rateIntervalUsable(uint64_t nanoseconds, uint64_t counts) {
  return nanoseconds >= kShortestRateInterval && nanoseconds < kLongestRateInterval && counts != 0 &&
         counts < kLargestForwardCount;
}

// (a * b) >> 32, rounded to nearest, without a 128-bit type (32-bit ARM has none); exact while the
// result fits 64 bits. Only the low halves' product has a fraction to round.
uint64_t multiplyQ32(uint64_t a, uint64_t b) {
  constexpr uint64_t kHalf = uint64_t{1} << 31;
  const uint64_t aHigh = a >> 32, aLow = a & 0xFFFFFFFFu;
  const uint64_t bHigh = b >> 32, bLow = b & 0xFFFFFFFFu;
  return (aHigh * bHigh << 32) + aHigh * bLow + aLow * bHigh + ((aLow * bLow + kHalf) >> 32);
}

}  // namespace

CounterExtrapolator::Pair CounterExtrapolator::readPair() const {
  Pair best = {0, 0, UINT64_MAX};
  for (int attempt = 0; attempt < kPairAttempts; ++attempt) {
    const uint64_t before = m_readCounter();
    const uint64_t nanoseconds = m_readClock();
    const uint64_t width = m_readCounter() - before;
    if (width < best.width) best = Pair{before + width / 2, nanoseconds, width};
  }
  return best;
}

uint64_t CounterExtrapolator::now() {
  if (!calibrated()) return calibrate();
  const uint64_t elapsed = m_readCounter() - m_anchor.counter;
  // A counter behind the anchor (a thread moved to a processor whose counter lags) wraps to a
  // huge elapsed count and re-anchors too.
  if (elapsed >= m_reanchorCounts) return reanchor();
  return notBefore(m_anchor.nanoseconds + multiplyQ32(elapsed, m_nanosecondsPerCountQ32));
}

uint64_t CounterExtrapolator::calibrate() {
  const Pair pair = readPair();
  if (!m_anchored) {
    m_anchor = pair;
    m_anchored = true;
  } else if (pair.nanoseconds - m_anchor.nanoseconds >= kCalibrationNanoseconds) {
    takeRate(pair);
  }
  return notBefore(pair.nanoseconds);
}

uint64_t CounterExtrapolator::reanchor() {
  const Pair pair = readPair();
  if (pair.width <= m_maxPairWidthCounts) takeRate(pair);
  return notBefore(pair.nanoseconds);
}

void CounterExtrapolator::takeRate(const Pair& pair) {
  const uint64_t nanoseconds = pair.nanoseconds - m_anchor.nanoseconds;
  const uint64_t counts = pair.counter - m_anchor.counter;
  m_anchor = pair;
  if (!rateIntervalUsable(nanoseconds, counts)) return;
  const uint64_t rate = (nanoseconds << 32) / counts;
  if (rate == 0) return;  // a counter above 4 GHz per ns: not a cycle counter
  m_nanosecondsPerCountQ32 = rate;
  m_reanchorCounts = (kReanchorNanoseconds << 32) / m_nanosecondsPerCountQ32;
  m_maxPairWidthCounts = (kMaxPairWidthNanoseconds << 32) / m_nanosecondsPerCountQ32;
}

uint64_t CounterExtrapolator::notBefore(uint64_t nanoseconds) {
  if (nanoseconds > m_last) m_last = nanoseconds;
  return m_last;
}

#if defined(__x86_64__)

namespace {

uint64_t readCycleCounter() { return __rdtsc(); }

// The counter stands in for the clock only where the kernel itself derives CLOCK_MONOTONIC from
// it: then the kernel has judged it constant-rate and synchronised across processors.
bool kernelClockSourceIsTheCounter() {
  std::ifstream source("/sys/devices/system/clocksource/clocksource0/current_clocksource");
  std::string name;
  return static_cast<bool>(source >> name) && name == "tsc";
}

const bool g_counterClockInUse = kernelClockSourceIsTheCounter();

// Initial exec: the library is linked by the executable, so its thread-local block is static and
// a read costs no call.
__attribute__((tls_model("initial-exec"))) thread_local CounterExtrapolator t_clock(readCycleCounter,
                                                                                    monotonicNanoseconds);

}  // namespace

uint64_t counterMonotonicNanoseconds() { return g_counterClockInUse ? t_clock.now() : monotonicNanoseconds(); }

bool counterClockInUse() { return g_counterClockInUse; }

#else

uint64_t counterMonotonicNanoseconds() { return monotonicNanoseconds(); }

bool counterClockInUse() { return false; }

#endif

}  // namespace rhyddal
