// Round trips of 64-byte messages between two processes on one host through libRHYDDAL.so
// (vakem_send, vakem_wait_for_event, vakem_receive), as two nodes talk on a development host,
// beside the bare ring of BareRing_benchmark.cc. Each iteration is one round trip timed on its
// own; the p50_us and p99_us counters are the median and 99th percentile of those round trips.
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

#include "RoundTrip.h"

namespace {

using namespace roundtrip;

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
