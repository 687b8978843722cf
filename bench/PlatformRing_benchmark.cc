// Round trips of 64-byte messages between two processes on one host:
//   BareRing:  a minimal shared-memory SPSC ring per direction with futex wake-ups, the floor any
//              transport between node processes on a host can reach;
//   Rhyddal:   the same ping-pong through libRHYDDAL.so (vakem_send, vakem_wait_for_event,
//              vakem_receive), as two nodes talk on a development host.
// Each iteration is one round trip timed on its own; besides the mean Google Benchmark reports,
// the p50_us and p99_us counters are the median and 99th percentile of those round trips.
// Nothing is pinned: on a host shared with other work, fixed CPUs make every wake-up wait for
// whatever else runs there. PLATFORM_RING_PIN=1 pins the benchmark to CPU 0 and the echo to CPU 1.
#include <linux/futex.h>
#include <sched.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <benchmark/benchmark.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "Rhyddal.h"

namespace {

constexpr uint32_t kMessageBytes = 64;
constexpr uint32_t kStopMarker = 0xFFFF;
constexpr uint32_t kNoTimeLimit = 0xFFFFFFFFu;
constexpr uint32_t kBenchCpu = 0;
constexpr uint32_t kEchoCpu = 1;
constexpr uint32_t kNoCpu = 0xFFFFFFFFu;
constexpr int64_t kRoundTrips = 20000;

bool pinning() {
  static const bool requested = std::getenv("PLATFORM_RING_PIN") != nullptr;
  return requested;
}

uint32_t cpuOrNone(uint32_t cpu) { return pinning() ? cpu : kNoCpu; }

void pinTo(uint32_t cpu) {
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

// ---- A: the bare ring ----------------------------------------------------------------------

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

// ---- B: through libRHYDDAL.so -----------------------------------------------------------------

// Node ids 0xF000-0xFFFF, clear of the range the unit tests use; fixed by the benchmark process
// before it forks its echo nodes.
uint16_t benchNid() {
  static const uint16_t nid = static_cast<uint16_t>(0xF000 + getpid() % 0x800);
  return nid;
}
uint16_t echoNid() { return static_cast<uint16_t>(benchNid() + 0x800); }
uint32_t sicAddress(uint16_t nid) { return uint32_t{nid} << 16 | 1; }

void* newMessage(uint32_t receiver, uint32_t sender, uint16_t msgId) {
  auto* message = static_cast<unsigned char*>(vakem_alloc(kMessageBytes));
  const uint16_t totalLength = kMessageBytes;
  std::memset(message, 0, kMessageBytes);
  std::memcpy(message, &msgId, 2);
  std::memcpy(message + 4, &receiver, 4);
  std::memcpy(message + 8, &sender, 4);
  std::memcpy(message + 14, &totalLength, 2);
  return message;
}

void* receiveBlocking(uint16_t nid) {
  void* message = vakem_receive(nid);
  while (message == nullptr) {
    vakem_wait_for_event(kNoTimeLimit, 0);
    message = vakem_receive(nid);
  }
  return message;
}

void runRhyddalEcho(uint16_t nid, int ready) {
  uint32_t handle = 0;
  const int rc = vak_em_server_init(nid, cpuOrNone(kEchoCpu), 0, &handle);
  (void)!write(ready, &rc, sizeof(rc));
  if (rc != 0) _exit(1);
  for (;;) {
    auto* message = static_cast<unsigned char*>(receiveBlocking(nid));
    uint16_t msgId = 0;
    uint32_t sender = 0;
    std::memcpy(&msgId, message, 2);
    std::memcpy(&sender, message + 8, 4);
    if (msgId == kStopMarker) _exit(0);
    std::memcpy(message + 4, &sender, 4);
    if (vakem_send(message, sender) != 0) vakem_free(message);
  }
}

bool becomeBenchNode() {
  static const int rc = [] {
    uint32_t handle = 0;
    return vak_em_server_init(benchNid(), cpuOrNone(kBenchCpu), 0, &handle);
  }();
  return rc == 0;
}

void BM_RhyddalRoundTrip(benchmark::State& state) {
  if (!becomeBenchNode()) {
    state.SkipWithError("vak_em_server_init failed");
    return;
  }
  int ready[2];
  if (pipe(ready) != 0) return state.SkipWithError("pipe failed");
  const uint16_t echoNode = echoNid();
  const pid_t echo = fork();
  if (echo == 0) runRhyddalEcho(echoNode, ready[1]);
  int echoRc = -1;
  if (read(ready[0], &echoRc, sizeof(echoRc)) != sizeof(echoRc) || echoRc != 0) {
    state.SkipWithError("echo node did not start");
  }
  close(ready[0]);
  close(ready[1]);
  const uint32_t me = sicAddress(benchNid());
  const uint32_t peer = sicAddress(echoNid());
  RoundTripTimes times(static_cast<size_t>(state.max_iterations));
  for (auto _ : state) {
    void* message = newMessage(peer, me, 1);
    const auto start = std::chrono::steady_clock::now();
    const int rc = vakem_send(message, peer);
    if (rc != 0) {
      state.SkipWithError(("vakem_send failed: " + std::to_string(rc)).c_str());
      vakem_free(message);
      break;
    }
    void* reply = receiveBlocking(benchNid());
    times.add(state, std::chrono::steady_clock::now() - start);
    vakem_free(reply);
  }
  void* stop = newMessage(peer, me, kStopMarker);
  if (vakem_send(stop, peer) != 0) {
    vakem_free(stop);
    kill(echo, SIGKILL);
  }
  waitpid(echo, nullptr, 0);
  times.report(state);
}
BENCHMARK(BM_RhyddalRoundTrip)->Iterations(kRoundTrips)->UseManualTime()->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
