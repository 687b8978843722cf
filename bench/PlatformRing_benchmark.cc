// Messages of 64 bytes between two processes on one host through libRHYDDAL.so, as two nodes talk
// on a development host, beside the bare ring of BareRing_benchmark.cc in the same run.
//   RhyddalRoundTrip:         one message in flight; the receiver waits in vakem_wait_for_event
//                             (RHYDDAL_SPIN_US applies). p50_us and p99_us are the median and 99th
//                             percentile of the round trips, each timed on its own.
//   RhyddalRoundTripPolling:  both sides poll vakem_receive and never wait (apart only), to read
//                             beside BareRingRoundTripPolling.
//   RhyddalStream:            one-way: the benchmark allocates and sends, the sink receives and
//                             frees; items_per_second is messages per second through the platform.
//   RhyddalLoopback:          alloc, send to the own node, receive, free, in one thread: the CPU
//                             cost of the four calls without any crossing between cores.
// Runs in a namespace of its own (RHYDDAL_NAMESPACE=bench<pid>), beside any real nodes.
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <string>

#include "Rhyddal.h"

#include "RoundTrip.h"

namespace {

using namespace roundtrip;

constexpr uint32_t kNoCpu = 0xFFFFFFFFu;
constexpr uint16_t kBenchNid = 0xF001;
constexpr uint16_t kDataMsgId = 1;
constexpr uint16_t kDoneMsgId = 2;
uint16_t nextEchoNid = 0xF100;

uint32_t sicAddress(uint16_t nid) { return uint32_t{nid} << 16 | 1; }

void* newMessage(uint32_t receiver, uint32_t sender, uint16_t msgId) {
  auto* message = static_cast<unsigned char*>(vakem_alloc(kMessageBytes));
  if (message == nullptr) return nullptr;
  const uint16_t totalLength = kMessageBytes;
  std::memset(message, 0, kMessageBytes);
  std::memcpy(message, &msgId, 2);
  std::memcpy(message + 4, &receiver, 4);
  std::memcpy(message + 8, &sender, 4);
  std::memcpy(message + 14, &totalLength, 2);
  return message;
}

uint16_t msgIdOf(const void* message) {
  uint16_t msgId = 0;
  std::memcpy(&msgId, message, 2);
  return msgId;
}

void* receiveBlocking(uint16_t nid) {
  void* message = vakem_receive(nid);
  while (message == nullptr) {
    vakem_wait_for_event(kNoTimeLimit, 0);
    message = vakem_receive(nid);
  }
  return message;
}

void* receivePolling(uint16_t nid) {
  void* message = vakem_receive(nid);
  while (message == nullptr) {
    cpuRelax();
    message = vakem_receive(nid);
  }
  return message;
}

void sendOrDrop(void* message, uint32_t receiver) {
  if (vakem_send(message, receiver) != 0) vakem_free(message);
}

enum class EchoMode { kEcho, kEchoPolling, kSink };

// The echo node: sends every message back (kEcho*), or frees it and answers the stop marker with
// a message whose id says it is done (kSink).
[[noreturn]] void runEcho(uint16_t nid, int ready, EchoMode mode) {
  pinEchoProcess();
  uint32_t handle = 0;
  const int rc = vak_em_server_init(nid, kNoCpu, 0, &handle);
  (void)!write(ready, &rc, sizeof(rc));
  if (rc != 0) _exit(1);
  for (;;) {
    void* message = mode == EchoMode::kEchoPolling ? receivePolling(nid) : receiveBlocking(nid);
    uint32_t sender = 0;
    std::memcpy(&sender, static_cast<unsigned char*>(message) + 8, 4);
    if (msgIdOf(message) == kStopMarker) {
      if (mode == EchoMode::kSink) {
        std::memcpy(message, &kDoneMsgId, 2);
        std::memcpy(static_cast<unsigned char*>(message) + 4, &sender, 4);
        sendOrDrop(message, sender);
      }
      _exit(0);
    }
    if (mode == EchoMode::kSink) {
      vakem_free(message);
    } else {
      std::memcpy(static_cast<unsigned char*>(message) + 4, &sender, 4);
      sendOrDrop(message, sender);
    }
  }
}

bool becomeBenchNode() {
  static const int rc = [] {
    pinBenchProcess();
    uint32_t handle = 0;
    return vak_em_server_init(kBenchNid, kNoCpu, 0, &handle);
  }();
  return rc == 0;
}

class EchoProcess {
 public:
  EchoProcess(benchmark::State& state, EchoMode mode) : nid_(nextEchoNid++) {
    int ready[2];
    if (pipe(ready) != 0) return;
    pid_ = fork();
    if (pid_ == 0) runEcho(nid_, ready[1], mode);
    int rc = -1;
    started_ = read(ready[0], &rc, sizeof(rc)) == sizeof(rc) && rc == 0;
    close(ready[0]);
    close(ready[1]);
    if (!started_) state.SkipWithError("echo node did not start");
  }
  ~EchoProcess() {
    if (pid_ <= 0) return;
    void* stop = newMessage(address(), sicAddress(kBenchNid), kStopMarker);
    if (stop == nullptr || vakem_send(stop, address()) != 0) {
      vakem_free(stop);
      kill(pid_, SIGKILL);
    }
    waitpid(pid_, nullptr, 0);
  }
  bool started() const { return started_; }
  uint32_t address() const { return sicAddress(nid_); }
  void stopAndWaitForDone() {
    void* stop = newMessage(address(), sicAddress(kBenchNid), kStopMarker);
    while (vakem_send(stop, address()) != 0) cpuRelax();
    for (;;) {
      void* reply = receiveBlocking(kBenchNid);
      const bool done = msgIdOf(reply) == kDoneMsgId;
      vakem_free(reply);
      if (done) break;
    }
    waitpid(pid_, nullptr, 0);
    pid_ = -1;
  }

 private:
  uint16_t nid_;
  pid_t pid_ = -1;
  bool started_ = false;
};

void roundTrips(benchmark::State& state, bool polling) {
  if (!becomeBenchNode()) return state.SkipWithError("vak_em_server_init failed");
  EchoProcess echo(state, polling ? EchoMode::kEchoPolling : EchoMode::kEcho);
  if (!echo.started()) return;
  const uint32_t me = sicAddress(kBenchNid);
  RoundTripTimes times(static_cast<size_t>(state.max_iterations));
  for (auto _ : state) {
    void* message = newMessage(echo.address(), me, kDataMsgId);
    const auto start = std::chrono::steady_clock::now();
    const int rc = vakem_send(message, echo.address());
    if (rc != 0) {
      state.SkipWithError(("vakem_send failed: " + std::to_string(rc)).c_str());
      vakem_free(message);
      break;
    }
    void* reply = polling ? receivePolling(kBenchNid) : receiveBlocking(kBenchNid);
    times.add(state, std::chrono::steady_clock::now() - start);
    vakem_free(reply);
  }
  times.report(state);
}

void BM_RhyddalRoundTrip(benchmark::State& state) { roundTrips(state, false); }
BENCHMARK(BM_RhyddalRoundTrip)->Iterations(kRoundTrips)->UseManualTime()->Unit(benchmark::kMicrosecond);

void BM_RhyddalRoundTripPolling(benchmark::State& state) {
  if (placement() != Placement::kApart) return state.SkipWithError("polling needs OLM_BENCH_PLACEMENT=apart");
  roundTrips(state, true);
}
BENCHMARK(BM_RhyddalRoundTripPolling)->Iterations(kRoundTrips)->UseManualTime()->Unit(benchmark::kMicrosecond);

// A full lane makes the sender wait for the sink: it yields, so that on one CPU the sink runs.
void BM_RhyddalStream(benchmark::State& state) {
  if (!becomeBenchNode()) return state.SkipWithError("vak_em_server_init failed");
  EchoProcess sink(state, EchoMode::kSink);
  if (!sink.started()) return;
  const uint32_t me = sicAddress(kBenchNid);
  const uint32_t to = sink.address();
  const auto start = std::chrono::steady_clock::now();
  for (auto _ : state) {
    void* message = newMessage(to, me, kDataMsgId);
    while (vakem_send(message, to) == -ENOBUFS) sched_yield();
  }
  sink.stopAndWaitForDone();
  state.SetIterationTime(std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_RhyddalStream)->Iterations(2000000)->UseManualTime()->Unit(benchmark::kMillisecond);

void BM_RhyddalLoopback(benchmark::State& state) {
  if (!becomeBenchNode()) return state.SkipWithError("vak_em_server_init failed");
  const uint32_t me = sicAddress(kBenchNid);
  for (auto _ : state) {
    void* message = newMessage(me, me, kDataMsgId);
    vakem_send(message, me);
    vakem_free(vakem_receive(kBenchNid));
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_RhyddalLoopback)->Unit(benchmark::kNanosecond);

}  // namespace
