// What one history-log record costs the Dispatcher, beside what it is measured against, all with
// the node's own time source (the radio clock through the platform library):
//
//   HistoryMessage:  the operation trace's record through the ILog, as the Dispatcher writes it
//                    for every message operation (logMsgOperation)
//   HistoryLine:     a line of four arguments, two of them 64-bit (the StartTimer trace)
//   BareRecord:      the time read and one 88-byte record copied into a ring: the floor
//   SpdlogNullSink:  a synchronous spdlog call of the same trace line to a null sink (only when
//                    spdlog was found at configuration)
//   TimeRead:        the time read alone
//   .../FixedTime:   HistoryMessage and BareRecord with a time source that returns a constant: the
//                    record's own cost without the clock
#include <benchmark/benchmark.h>

#include <cstring>

#include "AaSysComMsgHeader.h"
#include "BenchNode.h"
#include "EMAssembly.h"
#include "HistoryRecord.h"

#ifdef OLM_BENCH_HAVE_SPDLOG
#include <spdlog/logger.h>
#include <spdlog/sinks/null_sink.h>
#endif

namespace {

constexpr uint16_t kCpid = 0x0701;
constexpr unsigned kBareRingRecords = 23831;

Olm::EMAssembly& node() {
  static Olm::EMAssembly* assembly = [] {
    bench::startNode("HistoryLog_benchmark");
    return Olm::EMAssembly::getInstance();
  }();
  return *assembly;
}

SAaSysComMsgHeader s_message{0x2101, 0, 0x10110701, 0x10110702, 4, 16};

class FixedTimeSource : public Olm::ITimeSource {
 public:
  Olm::LteTime getLTETime() override { return m_time; }
  int getCdmaTime(unsigned long long*, unsigned int, unsigned int) override { return 0; }
  unsigned long long getTS() override { return 0; }
  void wait(unsigned int) override {}

 private:
  Olm::LteTime m_time{12, 345, 7, 1234};
};

FixedTimeSource s_fixedTime;

Olm::ITimeSource& timeSource(bool fixed) {
  if (fixed) return s_fixedTime;
  return node().getItsAifTimeSource();
}

// The node's history log, or one of its own reading the fixed time.
Olm::ILog& historyLog(bool fixed) {
  if (!fixed) return node().getItsHistoryLog();
  static Olm::HistoryLog* log = [] {
    auto* created = new Olm::HistoryLog();
    created->initHistoryLog("fixed_time_HistoryLog.bin");
    created->setItsITimeSource(&s_fixedTime);
    return created;
  }();
  return *log;
}

void BM_HistoryMessage(benchmark::State& state, bool fixedTime) {
  Olm::ILog& log = historyLog(fixedTime);
  for (auto _ : state) log.logMsgOperation(kCpid, "Process", static_cast<void*>(&s_message));
  state.SetItemsProcessed(state.iterations());
}

void BM_HistoryLine(benchmark::State& state) {
  Olm::ILog& log = node().getItsHistoryLog();
  unsigned long long expiry = 316544716800ull;
  for (auto _ : state) {
    log.logf(4, "(%04x)->StartTimer(%p,%llu,%llu)\n", kCpid, static_cast<void*>(&s_message), expiry, 30720ull);
    ++expiry;
  }
  state.SetItemsProcessed(state.iterations());
}

// The same time read and a record of the same size, without looking at a format or arguments.
void BM_BareRecord(benchmark::State& state, bool fixedTime) {
  Olm::ITimeSource& time = timeSource(fixedTime);
  static Olm::history::SHistoryRecord ring[kBareRingRecords];
  unsigned next = 0;
  for (auto _ : state) {
    Olm::history::SHistoryRecord record;
    Olm::history::storeTime(record, time.getLTETime());
    record.type = Olm::history::kMessageRecord;
    record.count = 3;
    record.format = kCpid;
    std::memset(record.payload, 0, sizeof(record.payload));
    std::memcpy(&ring[next], &record, sizeof(record));
    if (++next == kBareRingRecords) next = 0;
    benchmark::DoNotOptimize(ring);
  }
  state.SetItemsProcessed(state.iterations());
}

void BM_TimeRead(benchmark::State& state) {
  Olm::ITimeSource& time = timeSource(false);
  for (auto _ : state) benchmark::DoNotOptimize(time.getLTETime());
  state.SetItemsProcessed(state.iterations());
}

BENCHMARK_CAPTURE(BM_HistoryMessage, Clock, false);
BENCHMARK(BM_HistoryLine);
BENCHMARK_CAPTURE(BM_BareRecord, Clock, false);
BENCHMARK(BM_TimeRead);
BENCHMARK_CAPTURE(BM_HistoryMessage, FixedTime, true);
BENCHMARK_CAPTURE(BM_BareRecord, FixedTime, true);

#ifdef OLM_BENCH_HAVE_SPDLOG
void BM_SpdlogNullSink(benchmark::State& state) {
  node();
  spdlog::logger logger("history", std::make_shared<spdlog::sinks::null_sink_st>());
  logger.set_level(spdlog::level::info);
  for (auto _ : state) logger.info("({:04x})->{}({})", kCpid, "Process", static_cast<void*>(&s_message));
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_SpdlogNullSink);
#endif

}  // namespace
