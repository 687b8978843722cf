#include "AaCpuTimeBase.h"

#include <gtest/gtest.h>

#include <chrono>
#include <thread>

namespace {

struct Counter {
  const char* name;
  uint64_t (*read)(void);
};
constexpr Counter kCounters[] = {{"physical", AaCpuTimeBasePhysicalCountGet},
                                 {"virtual", AaCpuTimeBaseVirtualCountGet}};

TEST(AaCpuTimeBaseTest, CountersNeverGoBackwards) {
  constexpr int kReads = 10000;
  for (const Counter& counter : kCounters) {
    SCOPED_TRACE(counter.name);
    uint64_t previous = counter.read();
    for (int i = 0; i < kReads; ++i) {
      const uint64_t next = counter.read();
      ASSERT_GE(next, previous);
      previous = next;
    }
  }
}

// The frequency turns counts into time for AaTickResolutionGet and the logs' timestamps; a counter
// and a frequency in different units show here as a wildly wrong interval.
TEST(AaCpuTimeBaseTest, FrequencyConvertsCountsToElapsedTime) {
  using Seconds = std::chrono::duration<double>;
  constexpr auto kInterval = std::chrono::milliseconds(50);
  constexpr double kTolerance = 0.1;
  const double ticksPerSecond = AaCpuTimeBaseFrequencyGet();
  ASSERT_GT(ticksPerSecond, 0);

  for (const Counter& counter : kCounters) {
    SCOPED_TRACE(counter.name);
    const auto startTime = std::chrono::steady_clock::now();
    const uint64_t start = counter.read();
    std::this_thread::sleep_for(kInterval);
    const uint64_t end = counter.read();
    const Seconds elapsed = std::chrono::steady_clock::now() - startTime;

    const double counted = (end - start) / ticksPerSecond;
    EXPECT_GE(counted, Seconds(kInterval).count() * (1 - kTolerance));
    EXPECT_LE(counted, elapsed.count() * (1 + kTolerance));
  }
}

}  // namespace
