// How late a periodic 1 ms LTE timer fires on an idle node with --wait 0, beside a bare timerfd
// loop on the same thread: the floor of what a process can get from the kernel for a 1 ms period.
//
//   node:     the node's loop waits on the event machine until the timer's deadline, delivers the
//             timer message and dispatches it; the EU reads the LTE time.
//   timerfd:  the thread blocked in read() on a periodic timerfd reads the monotonic clock when
//             it wakes.
// The two alternate in phases of kTicksPerPhase periods, so that both see the same machine (a
// VM's timer latency drifts over seconds); the first ticks of each phase, which catch up on the
// periods the other phase took, are left out. Counters: node_p50_us, node_p99_us,
// timerfd_p50_us, timerfd_p99_us.
#include <benchmark/benchmark.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <ctime>
#include <vector>

#include "AaSysCom.h"
#include "BenchNode.h"
#include "RoundTrip.h"

namespace {

constexpr unsigned kPhases = 20;
constexpr unsigned kTicksPerPhase = 150;
constexpr unsigned kCatchUpTicks = 3;
constexpr TAaSysComCpid kTimerCpid = 0x0704;
constexpr TAaSysComMsgId kTickMsgId = 0x0B04;
constexpr uint64_t kPeriodBtu = Olm::LteTime::BasicTimeUnitsPerSecond / 1000;  // 1 ms
constexpr double kBtuPerMicrosecond = Olm::LteTime::BasicTimeUnitsPerSecond / 1e6;
constexpr int64_t kPeriodNs = 1000000;
constexpr int64_t kNanosecondsPerSecond = 1000000000;

void report(benchmark::State& state, const char* name, std::vector<double>& latenessUs) {
  if (latenessUs.empty()) return;
  std::sort(latenessUs.begin(), latenessUs.end());
  state.counters[std::string(name) + "_p50_us"] = latenessUs[latenessUs.size() / 2];
  state.counters[std::string(name) + "_p99_us"] = latenessUs[latenessUs.size() * 99 / 100];
}

// Records, at every tick, how far the LTE time has gone past the tick's due time. A periodic timer
// keeps its phase (a late tick does not push the next), so the due time is the last period
// boundary counted from the first.
class TickEu : public Olm::IAaSysDispatcherSicHandler {
 public:
  int PrioritizeMessage(void*&) override { return 3; }
  void ProcessMessage(void*&) override {
    const uint64_t now = m_runtime->getLteTime().getSamples();
    const uint64_t sinceFirst = (now + Olm::LteTime::MaxSamples - m_first) % Olm::LteTime::MaxSamples;
    latenessUs.push_back(static_cast<double>(sinceFirst % kPeriodBtu) / kBtuPerMicrosecond);
  }
  void expectFirstAt(uint64_t first, Olm::IRuntime* runtime) {
    m_first = first;
    m_runtime = runtime;
  }
  std::vector<double> latenessUs;

 private:
  uint64_t m_first = 0;
  Olm::IRuntime* m_runtime = nullptr;
};

int64_t monotonicNs() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<int64_t>(now.tv_sec) * kNanosecondsPerSecond + now.tv_nsec;
}

class TimerfdLoop {
 public:
  TimerfdLoop() : m_fd(timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC)), m_first(monotonicNs() + kPeriodNs) {
    const itimerspec period{{0, kPeriodNs},
                            {static_cast<time_t>(m_first / kNanosecondsPerSecond), static_cast<long>(m_first % kNanosecondsPerSecond)}};
    timerfd_settime(m_fd, TFD_TIMER_ABSTIME, &period, nullptr);
  }
  ~TimerfdLoop() { close(m_fd); }
  // Waits for the next expiry and returns its lateness.
  double next() {
    uint64_t expirations = 0;
    while (read(m_fd, &expirations, sizeof(expirations)) != sizeof(expirations)) {
    }
    return static_cast<double>((monotonicNs() - m_first) % kPeriodNs) / 1000.0;
  }

 private:
  int m_fd;
  int64_t m_first;
};

void BM_TimerLateness(benchmark::State& state) {
  roundtrip::pinBenchProcess();
  static TickEu tickEu;
  static Olm::Dispatcher& dispatcher = [] () -> Olm::Dispatcher& {
    Olm::Dispatcher& created = bench::startNode("TimerLateness_benchmark");
    created.AaSysDispatcherCpidBind(tickEu, kTimerCpid);
    return created;
  }();
  const TAaSysComSicad self = AaSysComSicadGet(kTimerCpid, AaSysComGetOwnNid());
  void* tick = AaSysComMsgCreate(kTickMsgId, 0, self);
  AaSysComMsgSetSender(tick, self);
  const uint64_t first = (dispatcher.getLteTime().getSamples() + kPeriodBtu) % Olm::LteTime::MaxSamples;
  tickEu.expectFirstAt(first, &dispatcher);
  tickEu.latenessUs.clear();
  const unsigned timer = dispatcher.startTimer(Olm::LteTime(first), Olm::LteTime(kPeriodBtu), tick);
  TimerfdLoop timerfd;
  std::vector<double> nodeUs, timerfdUs;
  for (auto _ : state) {
    for (unsigned phase = 0; phase < kPhases; ++phase) {
      tickEu.latenessUs.clear();
      while (tickEu.latenessUs.size() < kTicksPerPhase) dispatcher.runIteration();
      nodeUs.insert(nodeUs.end(), tickEu.latenessUs.begin() + kCatchUpTicks, tickEu.latenessUs.end());
      for (unsigned i = 0; i < kTicksPerPhase; ++i) {
        const double late = timerfd.next();
        if (i >= kCatchUpTicks) timerfdUs.push_back(late);
      }
    }
  }
  tick = dispatcher.cancelTimer(timer);
  AaSysComMsgDestroy(&tick);
  report(state, "node", nodeUs);
  report(state, "timerfd", timerfdUs);
}

BENCHMARK(BM_TimerLateness)->Iterations(1)->Unit(benchmark::kMillisecond);

}  // namespace
