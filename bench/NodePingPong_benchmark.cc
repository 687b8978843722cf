// Two node processes talking through the host platform. This process runs node A with its loop
// stepped by the benchmark; node B is a real OLMLiteExe with --wait 0, whose built-in statistics EU
// (CPID 0x610) echoes every message back to its sender. 64-byte messages.
//
//   NodeRoundTrip:  one message in flight; p50_us and p99_us of the round trips as counters, to be
//                   read beside BareRingRoundTrip (BareRing_benchmark.cc), measured in the same run.
//   NodeStream:     a window of messages in flight; echoes per second = one-way messages per second.
#include <benchmark/benchmark.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <vector>

#include "AaSysCom.h"
#include "BenchNode.h"
#include "RoundTrip.h"

namespace {

constexpr TAaSysComCpid kClientCpid = 0x0703;
constexpr TAaSysComCpid kEchoCpid = 0x0610;
constexpr TAaSysComMsgId kProbeMsgId = 0x0B02;
constexpr uint32_t kPayloadSize = roundtrip::kMessageBytes - 16;
constexpr unsigned kStreamWindow = 64;

using Clock = std::chrono::steady_clock;

constexpr TAaSysComMsgId kWakeUpMsgId = 0x0B03;
constexpr uint64_t kWakeUpPeriod = Olm::LteTime::BasicTimeUnitsPerSecond / 1000;  // 1 ms

class ClientEu : public Olm::IAaSysDispatcherSicHandler {
 public:
  int PrioritizeMessage(void*&) override { return 3; }
  void ProcessMessage(void*& msg) override {
    if (AaSysComMsgGetId(msg) == kProbeMsgId) ++echoes;
  }
  unsigned long echoes = 0;
};

ClientEu client;
TAaSysComNid peerNid = 0;
pid_t peerPid = -1;

void stopPeer() {
  if (peerPid > 0) {
    kill(peerPid, SIGKILL);
    waitpid(peerPid, nullptr, 0);
    peerPid = -1;
  }
}

void startPeer() {
  peerNid = OlmTest::nextTestNid();
  const std::string nid = std::to_string(peerNid);
  peerPid = fork();
  if (peerPid == 0) {
    roundtrip::pinEchoProcess();
    if (freopen("/dev/null", "w", stdout) == nullptr) _exit(126);
    execl(OLM_BENCH_EXECUTABLE, OLM_BENCH_EXECUTABLE, "--nid", nid.c_str(), "--wait", "0", static_cast<char*>(nullptr));
    _exit(127);
  }
  atexit(stopPeer);
}

Olm::Dispatcher& node() {
  static Olm::Dispatcher* dispatcher = [] {
    roundtrip::pinBenchProcess();
    startPeer();
    Olm::Dispatcher* d = &bench::startNode("NodePingPong_benchmark");
    d->AaSysDispatcherCpidBind(client, kClientCpid);
    return d;
  }();
  return *dispatcher;
}

void sendProbe() {
  void* msg = AaSysComMsgCreate(kProbeMsgId, kPayloadSize, AaSysComSicadGet(kEchoCpid, peerNid));
  AaSysComMsgSetSender(msg, AaSysComSicadGet(kClientCpid, AaSysComGetOwnNid()));
  AaSysComMsgSend(&msg);
}

void runUntilEchoes(Olm::Dispatcher& dispatcher, unsigned long target) {
  while (client.echoes < target) dispatcher.runIteration();
}

// The peer may still be starting, and a probe sent before it is up is lost: probe until it echoes,
// with a 1 ms timer keeping the loop from waiting for an echo that never comes.
void waitForPeer(Olm::Dispatcher& dispatcher) {
  void* wakeUp = AaSysComMsgCreate(kWakeUpMsgId, 0, AaSysComSicadGet(kClientCpid, AaSysComGetOwnNid()));
  const uint64_t first = (dispatcher.getLteTime().getSamples() + kWakeUpPeriod) % Olm::LteTime::MaxSamples;
  const unsigned timer = dispatcher.startTimer(Olm::LteTime(first), Olm::LteTime(kWakeUpPeriod), wakeUp);
  const auto deadline = Clock::now() + std::chrono::seconds(10);
  while (client.echoes == 0 && Clock::now() < deadline) {
    sendProbe();
    const auto retry = Clock::now() + std::chrono::milliseconds(20);
    while (client.echoes == 0 && Clock::now() < retry) dispatcher.runIteration();
  }
  // Echoes of the extra probes may still be on their way; let them land before measuring.
  const auto settle = Clock::now() + std::chrono::milliseconds(50);
  while (Clock::now() < settle) dispatcher.runIteration();
  wakeUp = dispatcher.cancelTimer(timer);
  AaSysComMsgDestroy(&wakeUp);
}

void BM_NodeRoundTrip(benchmark::State& state) {
  Olm::Dispatcher& dispatcher = node();
  waitForPeer(dispatcher);
  roundtrip::RoundTripTimes times(static_cast<size_t>(state.max_iterations));
  for (auto _ : state) {
    const auto start = Clock::now();
    const unsigned long target = client.echoes + 1;
    sendProbe();
    runUntilEchoes(dispatcher, target);
    times.add(state, Clock::now() - start);
  }
  times.report(state);
}

void BM_NodeStream(benchmark::State& state) {
  Olm::Dispatcher& dispatcher = node();
  waitForPeer(dispatcher);
  const unsigned long first = client.echoes;
  unsigned long sent = first;
  for (auto _ : state) {
    while (sent - client.echoes < kStreamWindow) {
      sendProbe();
      ++sent;
    }
    dispatcher.runIteration();
  }
  state.counters["one_way_msgs_per_s"] = benchmark::Counter(static_cast<double>(client.echoes - first), benchmark::Counter::kIsRate);
  // Let the window drain so the next benchmark starts clean.
  const auto deadline = Clock::now() + std::chrono::seconds(2);
  while (client.echoes < sent && Clock::now() < deadline) dispatcher.runIteration();
}

BENCHMARK(BM_NodeRoundTrip)->Iterations(roundtrip::kRoundTrips)->UseManualTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_NodeStream)->UseRealTime();

}  // namespace
