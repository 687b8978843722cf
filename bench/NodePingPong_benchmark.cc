// Two node processes talking through the host platform. This process runs node A with its loop
// stepped by the benchmark; node B is a real OLMLiteExe with --wait 0, whose built-in statistics EU
// (CPID 0x610) echoes every message back to its sender.
//
//   RoundTrip:  one message in flight; p50 and p99 of the round trip are reported as counters.
//   Stream:     a window of messages in flight; echoes per second = one-way messages per second.
#include <benchmark/benchmark.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <vector>

#include "AaSysCom.h"
#include "Dispatcher.h"

namespace {

constexpr TAaSysComCpid kClientCpid = 0x0703;
constexpr TAaSysComCpid kEchoCpid = 0x0610;
constexpr TAaSysComMsgId kProbeMsgId = 0x0B02;
constexpr uint32_t kPayloadSize = 48;  // 64-byte messages
constexpr unsigned kStreamWindow = 64;

using Clock = std::chrono::steady_clock;

class ClientEu : public Olm::IAaSysDispatcherSicHandler {
 public:
  int PrioritizeMessage(void*&) override { return 3; }
  void ProcessMessage(void*&) override { ++echoes; }
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
  peerNid = static_cast<TAaSysComNid>(0x7000 + (getpid() & 0xFFF));
  const std::string nid = std::to_string(peerNid);
  peerPid = fork();
  if (peerPid == 0) {
    if (freopen("/dev/null", "w", stdout) == nullptr) _exit(126);
    execl(OLM_BENCH_EXECUTABLE, OLM_BENCH_EXECUTABLE, "--nid", nid.c_str(), "--wait", "0", static_cast<char*>(nullptr));
    _exit(127);
  }
  atexit(stopPeer);
}

Olm::Dispatcher& node() {
  static Olm::Dispatcher* dispatcher = [] {
    startPeer();
    std::string nid = std::to_string(0x6800 + (getpid() & 0xFFF));
    std::string argv0 = "NodePingPong_benchmark", nidOption = "--nid", waitOption = "--wait", zero = "0";
    char* argv[] = {argv0.data(), nidOption.data(), nid.data(), waitOption.data(), zero.data(), nullptr};
    auto* d = static_cast<Olm::Dispatcher*>(Olm::IAaSysDispatcher::IAaSysDispatcherCreate(5, argv));
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

// The peer may still be starting: wait until it echoes.
void waitForPeer(Olm::Dispatcher& dispatcher) {
  const auto deadline = Clock::now() + std::chrono::seconds(10);
  while (Clock::now() < deadline) {
    const unsigned long before = client.echoes;
    sendProbe();
    const auto retry = Clock::now() + std::chrono::milliseconds(50);
    while (client.echoes == before && Clock::now() < retry) {
      usleep(1000);
      for (int i = 0; i < 8; ++i) dispatcher.runIteration();
    }
    if (client.echoes > before) return;
  }
}

double percentile(std::vector<double>& samples, double fraction) {
  const size_t index = std::min(samples.size() - 1, static_cast<size_t>(fraction * static_cast<double>(samples.size())));
  std::nth_element(samples.begin(), samples.begin() + static_cast<long>(index), samples.end());
  return samples[index];
}

void BM_NodeRoundTrip(benchmark::State& state) {
  Olm::Dispatcher& dispatcher = node();
  waitForPeer(dispatcher);
  std::vector<double> microseconds;
  for (auto _ : state) {
    const auto start = Clock::now();
    const unsigned long target = client.echoes + 1;
    sendProbe();
    runUntilEchoes(dispatcher, target);
    microseconds.push_back(std::chrono::duration<double, std::micro>(Clock::now() - start).count());
  }
  state.counters["p50_us"] = percentile(microseconds, 0.50);
  state.counters["p99_us"] = percentile(microseconds, 0.99);
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

BENCHMARK(BM_NodeRoundTrip)->UseRealTime();
BENCHMARK(BM_NodeStream)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
