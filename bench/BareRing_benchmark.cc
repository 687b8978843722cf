// The floor of any transport between node processes on a host: a minimal shared-memory SPSC ring
// per direction with futex wake-ups, ping-ponging 64-byte messages between two processes. Linked
// into each round-trip benchmark so that it is measured in the same run as what it is compared to.
#include <linux/futex.h>
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

void bareSend(BareChannel& channel, const unsigned char* message) {
  const uint32_t tail = channel.tail.load(std::memory_order_relaxed);
  std::memcpy(channel.slots[tail % kSlots], message, kMessageBytes);
  channel.tail.store(tail + 1, std::memory_order_seq_cst);
  channel.sequence.fetch_add(1, std::memory_order_seq_cst);
  if (channel.sleeping.load(std::memory_order_seq_cst) != 0) futex(&channel.sequence, FUTEX_WAKE, 1);
}

void bareReceive(BareChannel& channel, unsigned char* message) {
  const uint32_t head = channel.head.load(std::memory_order_relaxed);
  while (channel.tail.load(std::memory_order_seq_cst) == head) {
    const uint32_t sequence = channel.sequence.load(std::memory_order_seq_cst);
    channel.sleeping.store(1, std::memory_order_seq_cst);
    if (channel.tail.load(std::memory_order_seq_cst) == head) futex(&channel.sequence, FUTEX_WAIT, sequence);
    channel.sleeping.store(0, std::memory_order_relaxed);
  }
  std::memcpy(message, channel.slots[head % kSlots], kMessageBytes);
  channel.head.store(head + 1, std::memory_order_release);
}

void runBareEcho(BarePair& pair) {
  pinTo(kEchoCpu);
  unsigned char message[kMessageBytes];
  for (;;) {
    bareReceive(pair.toEcho, message);
    if (message[0] == 0xFF) _exit(0);
    bareSend(pair.toBench, message);
  }
}

void BM_BareRingRoundTrip(benchmark::State& state) {
  void* memory = mmap(nullptr, sizeof(BarePair), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  auto* pair = new (memory) BarePair;
  const pid_t echo = fork();
  if (echo == 0) runBareEcho(*pair);
  pinTo(kBenchCpu);
  unsigned char message[kMessageBytes] = {};
  RoundTripTimes times(static_cast<size_t>(state.max_iterations));
  for (auto _ : state) {
    const auto start = std::chrono::steady_clock::now();
    bareSend(pair->toEcho, message);
    bareReceive(pair->toBench, message);
    times.add(state, std::chrono::steady_clock::now() - start);
  }
  message[0] = 0xFF;
  bareSend(pair->toEcho, message);
  waitpid(echo, nullptr, 0);
  times.report(state);
  munmap(memory, sizeof(BarePair));
}
BENCHMARK(BM_BareRingRoundTrip)->Iterations(kRoundTrips)->UseManualTime()->Unit(benchmark::kMicrosecond);

}  // namespace
