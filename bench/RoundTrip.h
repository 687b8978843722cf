// Shared by the benchmarks between processes: the message size, the placement of the two
// processes and the per-round-trip timing that yields the p50_us and p99_us counters.
//
// Placement, OLM_BENCH_PLACEMENT:
//   unset   nothing is pinned: on a host shared with other work, fixed CPUs make every wake-up
//           wait for whatever else runs there;
//   apart   the benchmark process on CPU 0, the echo process on CPU 1: every message crosses
//           between cores, and every wake-up is one of an idle core;
//   same    both on CPU 0: every message is handed over by a context switch.
// Compare figures only within one run and one placement.
#pragma once

#include <sched.h>
#include <unistd.h>

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace roundtrip {

inline constexpr uint32_t kMessageBytes = 64;
inline constexpr uint32_t kStopMarker = 0xFFFF;
inline constexpr uint32_t kNoTimeLimit = 0xFFFFFFFFu;
inline constexpr int64_t kRoundTrips = 20000;

enum class Placement { kUnpinned, kApart, kSame };

inline Placement placement() {
  static const Placement chosen = [] {
    const char* text = std::getenv("OLM_BENCH_PLACEMENT");
    if (text == nullptr || text[0] == '\0') return Placement::kUnpinned;
    if (std::strcmp(text, "apart") == 0) return Placement::kApart;
    if (std::strcmp(text, "same") == 0) return Placement::kSame;
    std::fprintf(stderr, "OLM_BENCH_PLACEMENT=%s: expected apart or same; not pinning\n", text);
    return Placement::kUnpinned;
  }();
  return chosen;
}

inline void pinCallerTo(int cpu) {
  if (cpu >= static_cast<int>(sysconf(_SC_NPROCESSORS_ONLN))) return;
  cpu_set_t set;
  CPU_ZERO(&set);
  CPU_SET(cpu, &set);
  sched_setaffinity(0, sizeof(set), &set);
}

// Pins the calling thread (and the threads it starts from now on) per OLM_BENCH_PLACEMENT.
inline void pinBenchProcess() {
  if (placement() != Placement::kUnpinned) pinCallerTo(0);
}

inline void pinEchoProcess() {
  if (placement() == Placement::kApart) pinCallerTo(1);
  if (placement() == Placement::kSame) pinCallerTo(0);
}

// One busy-wait step: lets a hyper-threaded sibling run and saves power while polling.
inline void cpuRelax() {
#if defined(__x86_64__) || defined(__i386__)
  __builtin_ia32_pause();
#elif defined(__aarch64__) || defined(__arm__)
  asm volatile("yield" ::: "memory");
#endif
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
