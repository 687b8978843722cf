// The floor of any transport between node processes on a host: a minimal shared-memory SPSC ring
// per direction, ping-ponging 64-byte messages between two processes. Linked into each round-trip
// benchmark so that it is measured in the same run as what it is compared to.
//   BareRingRoundTrip:         the receiver sleeps on a futex when its ring is empty; the sender
//                              wakes it only when it sleeps.
//   BareRingRoundTripPolling:  both sides busy-poll and never sleep (only meaningful apart).
#include <linux/futex.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <new>

#include "RoundTrip.h"

namespace {

using namespace roundtrip;

constexpr uint32_t kSlots = 64;

struct alignas(64) BareChannel {
  alignas(64) std::atomic<uint32_t> tail{0};
  alignas(64) std::atomic<uint32_t> head{0};
  alignas(64) std::atomic<uint32_t> sequence{0};
  std::atomic<uint32_t> sleeping{0};
  alignas(64) unsigned char slots[kSlots][kMessageBytes];
};

struct BarePair {
  BareChannel toEcho;
  BareChannel toBench;
};

void futex(std::atomic<uint32_t>* word, int operation, uint32_t value) {
  syscall(SYS_futex, word, operation, value, nullptr, nullptr, 0);
}

void bareSend(BareChannel& channel, const unsigned char* message, bool polling) {
  const uint32_t tail = channel.tail.load(std::memory_order_relaxed);
  std::memcpy(channel.slots[tail % kSlots], message, kMessageBytes);
  if (polling) {
    channel.tail.store(tail + 1, std::memory_order_release);
    return;
  }
  channel.tail.store(tail + 1, std::memory_order_seq_cst);
  channel.sequence.fetch_add(1, std::memory_order_seq_cst);
  if (channel.sleeping.load(std::memory_order_seq_cst) != 0) futex(&channel.sequence, FUTEX_WAKE, 1);
}

void bareReceive(BareChannel& channel, unsigned char* message, bool polling) {
  const uint32_t head = channel.head.load(std::memory_order_relaxed);
  while (channel.tail.load(std::memory_order_seq_cst) == head) {
    if (polling) {
      cpuRelax();
      continue;
    }
    const uint32_t sequence = channel.sequence.load(std::memory_order_seq_cst);
    channel.sleeping.store(1, std::memory_order_seq_cst);
    if (channel.tail.load(std::memory_order_seq_cst) == head) futex(&channel.sequence, FUTEX_WAIT, sequence);
    channel.sleeping.store(0, std::memory_order_relaxed);
  }
  std::memcpy(message, channel.slots[head % kSlots], kMessageBytes);
  channel.head.store(head + 1, std::memory_order_release);
}

void runBareEcho(BarePair& pair, bool polling) {
  pinEchoProcess();
  unsigned char message[kMessageBytes];
  for (;;) {
    bareReceive(pair.toEcho, message, polling);
    if (message[0] == 0xFF) _exit(0);
    bareSend(pair.toBench, message, polling);
  }
}

void bareRoundTrips(benchmark::State& state, bool polling) {
  void* memory = mmap(nullptr, sizeof(BarePair), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  auto* pair = new (memory) BarePair;
  const pid_t echo = fork();
  if (echo == 0) runBareEcho(*pair, polling);
  pinBenchProcess();
  unsigned char message[kMessageBytes] = {};
  RoundTripTimes times(static_cast<size_t>(state.max_iterations));
  for (auto _ : state) {
    const auto start = std::chrono::steady_clock::now();
    bareSend(pair->toEcho, message, polling);
    bareReceive(pair->toBench, message, polling);
    times.add(state, std::chrono::steady_clock::now() - start);
  }
  message[0] = 0xFF;
  bareSend(pair->toEcho, message, polling);
  waitpid(echo, nullptr, 0);
  times.report(state);
  munmap(memory, sizeof(BarePair));
}

void BM_BareRingRoundTrip(benchmark::State& state) { bareRoundTrips(state, false); }
BENCHMARK(BM_BareRingRoundTrip)->Iterations(kRoundTrips)->UseManualTime()->Unit(benchmark::kMicrosecond);

// Two busy-polling processes on one CPU would each spin away the other's time slice.
void BM_BareRingRoundTripPolling(benchmark::State& state) {
  if (placement() != Placement::kApart) return state.SkipWithError("polling needs OLM_BENCH_PLACEMENT=apart");
  bareRoundTrips(state, true);
}
BENCHMARK(BM_BareRingRoundTripPolling)->Iterations(kRoundTrips)->UseManualTime()->Unit(benchmark::kMicrosecond);

}  // namespace
