// The platform utilities as an EU library calls them, through libOlmLiteRt.so:
//
//   SpinLock vs Mutex:     a lock and unlock pair around the increment of a shared counter, by one
//                          thread (uncontended: the price of the call and the atomic exchanges)
//                          and by two threads on the same lock (contended: the cache line moves
//                          between processors at every pair, and waiters spin or sleep).
//   AtomicInc:             one increment, against a plain std::atomic in the benchmark itself
//                          (the difference is the call into the library and the pointer check).
//   IdFifoGetPut:          taking the oldest free identifier and giving it back, on a FIFO of 1024.
//
// Contended figures depend on where the scheduler puts the two threads; read them beside each
// other within one run.
#include <benchmark/benchmark.h>
#include <pthread.h>

#include <atomic>
#include <cstdint>
#include <thread>

#include "AaCpuAtomic.h"
#include "AaCpuSpinLock.h"
#include "AaGpuIdFifo.h"

namespace {

constexpr uint32_t kFifoIds = 1024;

// The C library skips the atomic instructions of a private mutex while the process has only ever
// had one thread. A node always has more (the RAM file service), and so does this process before
// any figure is taken, or the uncontended mutex would be measured without them.
const bool kMultiThreaded = [] {
  std::thread([] {}).join();
  return true;
}();

// Shared by the threads of a contended run; each on a cache line of its own, so the two locks'
// figures do not disturb each other.
alignas(64) SAaCpuSpinLock g_spinLock = AACPUSPINLOCK_INITIALIZER;
alignas(64) pthread_mutex_t g_mutex = PTHREAD_MUTEX_INITIALIZER;
alignas(64) uint64_t g_spinCounter = 0;
alignas(64) uint64_t g_mutexCounter = 0;
alignas(64) TAaCpuAtomic g_atomicWord = 0;
alignas(64) std::atomic<uint32_t> g_stdAtomicWord{0};

void SpinLock(benchmark::State& state) {
  for (auto _ : state) {
    AaCpuSpinLockLock(&g_spinLock);
    benchmark::DoNotOptimize(++g_spinCounter);
    AaCpuSpinLockUnlock(&g_spinLock);
  }
}

void Mutex(benchmark::State& state) {
  for (auto _ : state) {
    pthread_mutex_lock(&g_mutex);
    benchmark::DoNotOptimize(++g_mutexCounter);
    pthread_mutex_unlock(&g_mutex);
  }
}

void AtomicInc(benchmark::State& state) {
  for (auto _ : state) benchmark::DoNotOptimize(AaCpuAtomicInc(&g_atomicWord));
}

void StdAtomicInc(benchmark::State& state) {
  for (auto _ : state) benchmark::DoNotOptimize(g_stdAtomicWord.fetch_add(1) + 1);
}

void IdFifoGetPut(benchmark::State& state) {
  SAaGpuIdFifo* fifo = nullptr;
  if (AaGpuIdFifo_Create(0, kFifoIds, &fifo) != EAaGpuIdFifoRet_Ok) {
    state.SkipWithError("no FIFO");
    return;
  }
  uint32_t id = 0;
  for (auto _ : state) {
    AaGpuIdFifo_Get(fifo, &id);
    benchmark::DoNotOptimize(id);
    AaGpuIdFifo_Put(fifo, id);
  }
  AaGpuIdFifo_Destroy(fifo);
}

BENCHMARK(SpinLock)->Name("SpinLock/uncontended");
BENCHMARK(Mutex)->Name("Mutex/uncontended");
BENCHMARK(SpinLock)->Name("SpinLock/contended")->Threads(2)->UseRealTime();
BENCHMARK(Mutex)->Name("Mutex/contended")->Threads(2)->UseRealTime();
BENCHMARK(AtomicInc);
BENCHMARK(StdAtomicInc);
BENCHMARK(IdFifoGetPut);

}  // namespace
