#include "CounterClock.h"

#include <fstream>
#include <string>

#include "RadioClock.h"

#if defined(__x86_64__)
#include <x86intrin.h>
#endif

namespace rhyddal {
namespace counter_clock {
namespace {

// A rate is measured only over an interval between these: a shorter one is mostly the jitter of
// its two pairs; a longer one (a thread that did not read the clock for seconds) would not fit 64
// bits once shifted into 32.32 fixed point. Any other interval re-anchors without a new rate, and
// so does a clock or counter that went backwards (a huge unsigned difference).
constexpr uint64_t kLongestRateInterval = uint64_t{1} << 31;
constexpr uint64_t kLargestForwardCount = uint64_t{1} << 62;

bool rateIntervalUsable(uint64_t nanoseconds, uint64_t counts, uint64_t reanchorNanoseconds) {
  return nanoseconds >= reanchorNanoseconds / 2 && nanoseconds < kLongestRateInterval && counts != 0 &&
         counts < kLargestForwardCount;
}

}  // namespace

void Rate::take(const Pair& pair, uint64_t reanchorNanoseconds, uint64_t maxPairWidthNanoseconds) {
  const uint64_t nanoseconds = pair.nanoseconds - anchor.nanoseconds;
  const uint64_t counts = pair.counter - anchor.counter;
  anchor = pair;
  if (!rateIntervalUsable(nanoseconds, counts, reanchorNanoseconds)) return;
  const uint64_t rate = (nanoseconds << 32) / counts;
  if (rate == 0) return;  // more than 4e9 counts per ns: not a cycle counter
  nanosecondsPerCountQ32 = rate;
  reanchorCounts = (reanchorNanoseconds << 32) / rate;
  maxPairWidthCounts = (maxPairWidthNanoseconds << 32) / rate;
}

}  // namespace counter_clock

#if defined(__x86_64__)

namespace {

inline uint64_t readCycleCounter() { return __rdtsc(); }

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
__attribute__((tls_model("initial-exec"))) thread_local CounterExtrapolator<readCycleCounter, monotonicNanoseconds>
    t_clock;

}  // namespace

uint64_t counterMonotonicNanoseconds() { return g_counterClockInUse ? t_clock.now() : monotonicNanoseconds(); }

bool counterClockInUse() { return g_counterClockInUse; }

#else

uint64_t counterMonotonicNanoseconds() { return monotonicNanoseconds(); }

bool counterClockInUse() { return false; }

#endif

}  // namespace rhyddal
