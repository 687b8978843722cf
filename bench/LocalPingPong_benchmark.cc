// Two EUs in one node ping-ponging through the whole runtime with --wait 0: every loop iteration
// dispatches one message, whose EU answers the other EU. Reported as messages per second.
//
//   Reply:   each message is answered with a new one (create, send; the runtime frees the old).
//   Forward: the same buffer goes back and forth (no allocation on the path).
//
// Reply again with the operation trace on (--verbose), every operation of every message traced:
//   ReplyTracedToHistory: into the history log, as a verbose node does
//   ReplyTracedToPrint:   printed as --verbose --nohistory does, to standard output redirected to
//                         /dev/null
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cstdio>
#include <string>

#include "AaSysCom.h"
#include "BenchNode.h"
#include "EMAssembly.h"
#include "TrivialLog.h"

namespace {

constexpr TAaSysComCpid kPingCpid = 0x0701;
constexpr TAaSysComCpid kPongCpid = 0x0702;
constexpr TAaSysComMsgId kBallMsgId = 0x0B01;
constexpr uint32_t kPayloadSize = 16;

enum class Mode { Reply, Forward };
enum class Trace { Off, History, Print };

class PlayerEu : public Olm::IAaSysDispatcherSicHandler {
 public:
  PlayerEu(TAaSysComCpid peer) : m_peer(peer) {}
  Mode mode = Mode::Reply;
  bool catchBall = false;  // end of a rally: keep the ball out of play (the runtime frees it)

  int PrioritizeMessage(void*&) override { return 3; }
  void ProcessMessage(void*& msg) override {
    if (catchBall) return;
    if (mode == Mode::Forward) {
      AaSysComMsgForward(&msg, AaSysComSicadGet(m_peer, AaSysComGetOwnNid()));
      return;
    }
    void* reply = AaSysComMsgCreateReply(kBallMsgId, kPayloadSize, msg);
    AaSysComMsgSetReceiver(&reply, AaSysComSicadGet(m_peer, AaSysComGetOwnNid()));
    AaSysComMsgSend(&reply);
  }

 private:
  TAaSysComCpid m_peer;
};

PlayerEu ping(kPongCpid);
PlayerEu pong(kPingCpid);

Olm::Dispatcher& node() {
  static Olm::Dispatcher* dispatcher = [] {
    Olm::Dispatcher* d = &bench::startNode("LocalPingPong_benchmark");
    d->AaSysDispatcherCpidBind(ping, kPingCpid);
    d->AaSysDispatcherCpidBind(pong, kPongCpid);
    return d;
  }();
  return *dispatcher;
}

void serve(Mode mode) {
  ping.mode = mode;
  pong.mode = mode;
  void* ball = AaSysComMsgCreate(kBallMsgId, kPayloadSize, AaSysComSicadGet(kPongCpid, AaSysComGetOwnNid()));
  AaSysComMsgSetSender(ball, AaSysComSicadGet(kPingCpid, AaSysComGetOwnNid()));
  AaSysComMsgSend(&ball);
}

// Where the trace goes while a benchmark runs; the node is left untraced afterwards.
void traceTo(Trace trace) {
  Olm::EMAssembly& assembly = *Olm::EMAssembly::getInstance();
  static Olm::TrivialLog printed = [&] {
    Olm::TrivialLog log(std::fopen("/dev/null", "w"));
    log.setItsITimeSource(&assembly.getItsAifTimeSource());
    return log;
  }();
  Olm::Dispatcher& dispatcher = assembly.getItsDispatcher();
  dispatcher.setVerbose(trace != Trace::Off);
  dispatcher.setItsILog(trace == Trace::Print ? static_cast<Olm::ILog*>(&printed) : &assembly.getItsHistoryLog());
}

void BM_LocalPingPong(benchmark::State& state, Mode mode, Trace trace = Trace::Off) {
  Olm::Dispatcher& dispatcher = node();
  traceTo(trace);
  serve(mode);
  for (auto _ : state) dispatcher.runIteration();
  state.SetItemsProcessed(state.iterations());
  // Leave no ball in play for the next benchmark.
  ping.catchBall = pong.catchBall = true;
  dispatcher.runIteration();
  ping.catchBall = pong.catchBall = false;
  traceTo(Trace::Off);
}

BENCHMARK_CAPTURE(BM_LocalPingPong, Reply, Mode::Reply);
BENCHMARK_CAPTURE(BM_LocalPingPong, Forward, Mode::Forward);
BENCHMARK_CAPTURE(BM_LocalPingPong, ReplyTracedToHistory, Mode::Reply, Trace::History);
BENCHMARK_CAPTURE(BM_LocalPingPong, ReplyTracedToPrint, Mode::Reply, Trace::Print);

}  // namespace
