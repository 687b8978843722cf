// Shared by the round-trip benchmarks between processes: the message size, optional pinning and
// the per-round-trip timing that yields the p50_us and p99_us counters.
//
// Nothing is pinned by default: on a host shared with other work, fixed CPUs make every wake-up
// wait for whatever else runs there. PLATFORM_RING_PIN=1 (and RHYDDAL_PIN_CPU=1 for the nodes of the
// platform benchmark) pins the benchmark to CPU 0 and the echo
// to CPU 1.
#pragma once

#include <sched.h>
#include <unistd.h>

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <vector>

namespace roundtrip {

inline constexpr uint32_t kMessageBytes = 64;
inline constexpr uint32_t kStopMarker = 0xFFFF;
inline constexpr uint32_t kNoTimeLimit = 0xFFFFFFFFu;
inline constexpr uint32_t kBenchCpu = 0;
inline constexpr uint32_t kEchoCpu = 1;
inline constexpr uint32_t kNoCpu = 0xFFFFFFFFu;
inline constexpr int64_t kRoundTrips = 20000;

inline bool pinning() {
  static const bool requested = std::getenv("PLATFORM_RING_PIN") != nullptr;
  return requested;
}

inline uint32_t cpuOrNone(uint32_t cpu) { return pinning() ? cpu : kNoCpu; }

inline void pinTo(uint32_t cpu) {
  if (!pinning() || cpu >= static_cast<uint32_t>(sysconf(_SC_NPROCESSORS_ONLN))) return;
  cpu_set_t set;
  CPU_ZERO(&set);
  CPU_SET(cpu, &set);
  sched_setaffinity(0, sizeof(set), &set);
}

class RoundTripTimes {
 public:
  explicit RoundTripTimes(size_t expected) { nanoseconds_.reserve(expected); }
  void add(benchmark::State& state, std::chrono::steady_clock::duration elapsed) {
    nanoseconds_.push_back(std::chrono::duration_cast<std::chrono::nanoseconds>(elapsed).count());
    state.SetIterationTime(std::chrono::duration<double>(elapsed).count());
  }
  void report(benchmark::State& state) {
    if (nanoseconds_.empty()) return;
    std::sort(nanoseconds_.begin(), nanoseconds_.end());
    state.counters["p50_us"] = static_cast<double>(nanoseconds_[nanoseconds_.size() / 2]) / 1000.0;
    state.counters["p99_us"] = static_cast<double>(nanoseconds_[nanoseconds_.size() * 99 / 100]) / 1000.0;
  }

 private:
  std::vector<int64_t> nanoseconds_;
};

}  // namespace roundtrip
