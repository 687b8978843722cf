// The message filter log on the Dispatcher's operation trace, in a node built as OLMLiteExe builds
// it. Two views, each side by side with the same path without the log:
//
// BM_FilterLog: one Dispatcher::logMsgOperation per iteration (the trace runs several times for
// every message: Allocate, Send, Prioritize, Process, Destroy, ...).
//   Off:           filter logging off: the Dispatcher's own test of its flag
//   NoOpLog:       on, with a filter log that does nothing: the cost of the call itself
//   NotListed:     on, MsgFilterLog in mode 2 with a list that lacks the message's id: the price
//                  of a node that logs a few ids while other messages flow (target: close to NoOpLog)
//   ListedHeader:  mode 2, the id listed: one header line per operation
//   ListedDump:    mode 1, the id listed, "Send" of a 16-byte payload: header line and dump
//
// BM_FilterLogOnLocalPath: two EUs of the node pass one message back and forth (the same buffer,
// AaSysComMsgForward), one dispatch per iteration, with filter logging Off, NoOpLog and NotListed
// as above: what the log adds to a whole local message.
#include <benchmark/benchmark.h>

#include "AaSysCom.h"
#include "BenchNode.h"
#include "MsgFilterLog.h"

namespace {

constexpr TAaSysComCpid kCpid = 0x0701;
constexpr TAaSysComMsgId kTracedMsgId = 0x0B01;
constexpr uint32_t kPayloadSize = 16;

class NoOpFilterLog : public Olm::IMsgFilterLog {
 public:
  void vlogfMessage(unsigned int, const char*, va_list) override {}
};

Olm::Dispatcher& node() {
  static Olm::Dispatcher& dispatcher = bench::startNode("MsgFilterLog_benchmark");
  return dispatcher;
}

Olm::MsgFilterLog& filterLog(uint32_t mode, const char* ids, const char* fileName) {
  auto* log = new Olm::MsgFilterLog();  // registered as a RAM file for the rest of the process
  log->setMode(mode);
  log->setMsgFilterIds(ids);
  log->setItsITimeSource(node().getItsITimeSource());
  log->initMsgFilterLog(fileName);
  return *log;
}

Olm::IMsgFilterLog* noLog() { return nullptr; }
Olm::IMsgFilterLog* noOpLog() {
  static NoOpFilterLog log;
  return &log;
}
Olm::IMsgFilterLog* notListedLog() {
  static Olm::MsgFilterLog& log = filterLog(Olm::MsgFilterLog::ModeHeaderOnly, "0x0B02,0x0B03", "notlisted.log");
  return &log;
}

void BM_FilterLog(benchmark::State& state, Olm::IMsgFilterLog* (*makeLog)()) {
  Olm::Dispatcher& dispatcher = node();
  Olm::IMsgFilterLog* log = makeLog();
  dispatcher.setItsIMsgFilterLog(log);
  dispatcher.setMsgFilterLogging(log != nullptr);
  void* msg = AaSysComMsgCreate(kTracedMsgId, kPayloadSize, AaSysComSicadGet(kCpid, AaSysComGetOwnNid()));
  for (auto _ : state) dispatcher.logMsgOperation("Send", msg);
  dispatcher.setMsgFilterLogging(false);
  AaSysComMsgDestroy(&msg);
  state.SetItemsProcessed(state.iterations());
}

BENCHMARK_CAPTURE(BM_FilterLog, Off, noLog);
BENCHMARK_CAPTURE(BM_FilterLog, NoOpLog, noOpLog);
BENCHMARK_CAPTURE(BM_FilterLog, NotListed, notListedLog);
BENCHMARK_CAPTURE(BM_FilterLog, ListedHeader, []() -> Olm::IMsgFilterLog* {
  static Olm::MsgFilterLog& log = filterLog(Olm::MsgFilterLog::ModeHeaderOnly, "0x0B01", "header.log");
  return &log;
});
BENCHMARK_CAPTURE(BM_FilterLog, ListedDump, []() -> Olm::IMsgFilterLog* {
  static Olm::MsgFilterLog& log = filterLog(Olm::MsgFilterLog::ModeHeaderAndDump, "0x0B01", "dump.log");
  return &log;
});

// Passes every message on to its peer until told to keep it (the runtime then frees it).
class ForwardingEu : public Olm::IAaSysDispatcherSicHandler {
 public:
  explicit ForwardingEu(TAaSysComCpid peer) : m_peer(peer) {}
  bool keep = false;
  int PrioritizeMessage(void*&) override { return 3; }
  void ProcessMessage(void*& msg) override {
    if (!keep) AaSysComMsgForward(&msg, AaSysComSicadGet(m_peer, AaSysComGetOwnNid()));
  }

 private:
  TAaSysComCpid m_peer;
};

constexpr TAaSysComCpid kPeerCpid = 0x0702;
ForwardingEu first(kPeerCpid), second(kCpid);

void BM_FilterLogOnLocalPath(benchmark::State& state, Olm::IMsgFilterLog* (*makeLog)()) {
  Olm::Dispatcher& dispatcher = node();
  static const bool bound = [&dispatcher] {
    dispatcher.AaSysDispatcherCpidBind(first, kCpid);
    dispatcher.AaSysDispatcherCpidBind(second, kPeerCpid);
    return true;
  }();
  (void)bound;
  Olm::IMsgFilterLog* log = makeLog();
  dispatcher.setItsIMsgFilterLog(log);
  dispatcher.setMsgFilterLogging(log != nullptr);
  void* msg = AaSysComMsgCreate(kTracedMsgId, kPayloadSize, AaSysComSicadGet(kPeerCpid, AaSysComGetOwnNid()));
  AaSysComMsgSetSender(msg, AaSysComSicadGet(kCpid, AaSysComGetOwnNid()));
  AaSysComMsgSend(&msg);
  for (auto _ : state) dispatcher.runIteration();
  first.keep = second.keep = true;
  dispatcher.runIteration();
  first.keep = second.keep = false;
  dispatcher.setMsgFilterLogging(false);
  state.SetItemsProcessed(state.iterations());
}

BENCHMARK_CAPTURE(BM_FilterLogOnLocalPath, Off, noLog);
BENCHMARK_CAPTURE(BM_FilterLogOnLocalPath, NoOpLog, noOpLog);
BENCHMARK_CAPTURE(BM_FilterLogOnLocalPath, NotListed, notListedLog);

}  // namespace
