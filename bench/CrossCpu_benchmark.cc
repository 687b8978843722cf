// What one cache line costs to move between CPUs 0 and 1: two threads hand a counter back and
// forth, each waiting for the other's increment.
//
//   CacheLineHandOff: one_way_ns, the time of one hand-over (a store on one CPU seen by a load on
//                     the other).
//
// Every message between two nodes moves a few such lines (the record, the ring's indices), so this
// is the floor under NodeStream and the spinning round trips. On a virtual machine it depends on
// where the host places the two virtual CPUs, and it can change from one minute to the next
// (measured 42 to 190 ns on the development VM within one session): read the node benchmarks
// beside the figure of the same run.
#include <pthread.h>
#include <sched.h>

#include <benchmark/benchmark.h>

#include <atomic>
#include <cstdint>
#include <thread>

#include "RoundTrip.h"

namespace {

constexpr int64_t kHandOffs = 1 << 20;

struct alignas(64) Baton {
  std::atomic<int64_t> value{0};
};

void pinThreadTo(int cpu) {
  cpu_set_t set;
  CPU_ZERO(&set);
  CPU_SET(cpu, &set);
  pthread_setaffinity_np(pthread_self(), sizeof(set), &set);
}

// Passes the baton on each time it holds `parity`, until it has reached `end`.
void relay(Baton& baton, int64_t parity, int64_t end) {
  for (int64_t next = parity; next < end; next += 2) {
    while (baton.value.load(std::memory_order_acquire) != next) roundtrip::cpuRelax();
    baton.value.store(next + 1, std::memory_order_release);
  }
}

void BM_CacheLineHandOff(benchmark::State& state) {
  for (auto _ : state) {
    Baton baton;
    const auto start = std::chrono::steady_clock::now();
    std::thread partner([&] {
      pinThreadTo(1);
      relay(baton, 1, kHandOffs);
    });
    pinThreadTo(0);
    relay(baton, 0, kHandOffs);
    partner.join();
    const std::chrono::duration<double, std::nano> elapsed = std::chrono::steady_clock::now() - start;
    state.counters["one_way_ns"] = elapsed.count() / kHandOffs;
  }
}

BENCHMARK(BM_CacheLineHandOff)->Iterations(1)->Unit(benchmark::kMillisecond);

}  // namespace
