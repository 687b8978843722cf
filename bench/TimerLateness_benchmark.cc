// How late a periodic 1 ms LTE timer fires on an idle node with --wait 0, beside a bare timerfd
// loop measured in the same run and on the same CPU: the floor of what a process can get from the
// kernel for a 1 ms period.
//
//   NodeTimerLateness:    the node's loop waits on the event machine until the timer's deadline,
//                         delivers the timer message and dispatches it; the EU reads the LTE time.
//   TimerfdLateness:      a thread blocked in read() on a periodic timerfd, reading the monotonic
//                         clock when it wakes.
// Both report lateness p50_us and p99_us over kTicks periods, the first ones left out.
#include <benchmark/benchmark.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <ctime>
#include <string>
#include <vector>

#include "AaSysCom.h"
#include "BenchNode.h"
#include "RoundTrip.h"

namespace {

constexpr unsigned kTicks = 3000;
constexpr unsigned kWarmUpTicks = 20;
constexpr TAaSysComCpid kTimerCpid = 0x0704;
constexpr TAaSysComMsgId kTickMsgId = 0x0B04;
constexpr uint64_t kPeriodBtu = Olm::LteTime::BasicTimeUnitsPerSecond / 1000;  // 1 ms
constexpr double kBtuPerMicrosecond = Olm::LteTime::BasicTimeUnitsPerSecond / 1e6;
constexpr int64_t kPeriodNs = 1000000;

void reportLateness(benchmark::State& state, std::vector<double>& latenessUs) {
  if (latenessUs.size() <= kWarmUpTicks) return;
  latenessUs.erase(latenessUs.begin(), latenessUs.begin() + kWarmUpTicks);
  std::sort(latenessUs.begin(), latenessUs.end());
  state.counters["p50_us"] = latenessUs[latenessUs.size() / 2];
  state.counters["p99_us"] = latenessUs[latenessUs.size() * 99 / 100];
}

// Records, at every tick, how far the LTE time has gone past the tick's due time. A periodic timer
// keeps its phase (a late tick does not push the next), so the due time is the last period
// boundary counted from the first.
class TickEu : public Olm::IAaSysDispatcherSicHandler {
 public:
  int PrioritizeMessage(void*&) override { return 3; }
  void ProcessMessage(void*&) override {
    const uint64_t now = m_runtime->getLteTime().getSamples();
    const uint64_t sinceFirst = (now + Olm::LteTime::MaxSamples - m_due) % Olm::LteTime::MaxSamples;
    latenessUs.push_back(static_cast<double>(sinceFirst % kPeriodBtu) / kBtuPerMicrosecond);
  }
  void expectFirstAt(uint64_t due, Olm::IRuntime* runtime) {
    m_due = due;
    m_runtime = runtime;
  }
  std::vector<double> latenessUs;

 private:
  uint64_t m_due = 0;
  Olm::IRuntime* m_runtime = nullptr;
};

TickEu tickEu;

Olm::Dispatcher& node() {
  static Olm::Dispatcher* dispatcher = [] {
    Olm::Dispatcher* d = &bench::startNode("TimerLateness_benchmark");
    d->AaSysDispatcherCpidBind(tickEu, kTimerCpid);
    return d;
  }();
  return *dispatcher;
}

void BM_NodeTimerLateness(benchmark::State& state) {
  roundtrip::pinBenchProcess();
  Olm::Dispatcher& dispatcher = node();
  const TAaSysComSicad self = AaSysComSicadGet(kTimerCpid, AaSysComGetOwnNid());
  void* tick = AaSysComMsgCreate(kTickMsgId, 0, self);
  AaSysComMsgSetSender(tick, self);
  const uint64_t first = (dispatcher.getLteTime().getSamples() + kPeriodBtu) % Olm::LteTime::MaxSamples;
  tickEu.latenessUs.clear();
  tickEu.expectFirstAt(first, &dispatcher);
  const unsigned timer = dispatcher.startTimer(Olm::LteTime(first), Olm::LteTime(kPeriodBtu), tick);
  for (auto _ : state) {
    while (tickEu.latenessUs.size() < kTicks) dispatcher.runIteration();
  }
  tick = dispatcher.cancelTimer(timer);
  AaSysComMsgDestroy(&tick);
  reportLateness(state, tickEu.latenessUs);
}

int64_t monotonicNs() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<int64_t>(now.tv_sec) * 1000000000 + now.tv_nsec;
}

void BM_TimerfdLateness(benchmark::State& state) {
  roundtrip::pinBenchProcess();
  const int fd = timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC);
  const int64_t first = monotonicNs() + kPeriodNs;
  const itimerspec period{{0, kPeriodNs}, {static_cast<time_t>(first / 1000000000), static_cast<long>(first % 1000000000)}};
  timerfd_settime(fd, TFD_TIMER_ABSTIME, &period, nullptr);
  std::vector<double> latenessUs;
  int64_t due = first;
  for (auto _ : state) {
    while (latenessUs.size() < kTicks) {
      uint64_t expirations = 0;
      if (read(fd, &expirations, sizeof(expirations)) != sizeof(expirations)) continue;
      latenessUs.push_back(static_cast<double>(monotonicNs() - due) / 1000.0);
      due += static_cast<int64_t>(expirations) * kPeriodNs;
    }
  }
  close(fd);
  reportLateness(state, latenessUs);
}

BENCHMARK(BM_NodeTimerLateness)->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_TimerfdLateness)->Iterations(1)->Unit(benchmark::kMillisecond);

}  // namespace
