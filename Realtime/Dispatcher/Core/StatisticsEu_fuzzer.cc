// libFuzzer target: the statistics EU (CPID 0x610) of a node, driven through its Dispatcher by
// messages from anywhere and by the idle meter calls of the node's EUs, in any order.
//
// An input is a list of commands. A message command gives a buffer length and the buffer's bytes,
// header included: the receiver is made the own statistics EU, everything else (the id, so also
// the history and meter ticks; the sender, own node or another or none; the header's total length,
// which need not agree with the buffer, above or below it) is the input's. Other commands start,
// stop and read the idle meter and let LTE time pass. Every message is dispatched before the next
// command. Nothing may be read or written outside a buffer, nothing freed twice, and after the
// meter is stopped the port holds only the history timer's message and one message per meter
// timer that was stopped (the statistics EU does not release a cancelled timer's message).
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "AaSysComMsgHeader.h"
#include "Dispatcher.h"
#include "FakeMsgPort.h"
#include "FakeTimeSource.h"
#include "FuzzInput.h"
#include "IdleMeter.h"
#include "TrivialLog.h"

namespace {

constexpr uint16_t kOwnNid = 0x1234;
constexpr size_t kReceiverOffset = 4;
constexpr size_t kMaxMessageLength = 512;
constexpr uint64_t kBtuPerMs = 30720;
constexpr int kIterationsPerCommand = 8;

enum Command : uint8_t { SendMessage = 0, StartMeter = 1, StopMeter = 2, ReadMeter = 3, LetTimePass = 4, kCommands = 5 };

FILE* nullOutput() {
  static FILE* out = std::fopen("/dev/null", "w");
  return out;
}

struct Node {
  Node() : log(nullOutput()) {
    log.setItsITimeSource(&time);
    dispatcher.setItsIMsgPort(&port);
    dispatcher.setItsITimeSource(&time);
    dispatcher.setItsILog(&log);
    dispatcher.setOwnNid(kOwnNid);
    dispatcher.setWait(0);
    dispatcher.setVerbose(true);
    dispatcher.initStatsLog();
    dispatcher.bindBuiltInEus();
  }
  ~Node() { Olm::Dispatcher::setTheDispatcher(nullptr); }

  void sendToStatisticsEu(OlmTest::FuzzInput& input) {
    const size_t length = AASYSCOM_HEADER_SIZE + input.word() % (kMaxMessageLength - AASYSCOM_HEADER_SIZE);
    void* msg = port.allocMsg(length);
    input.bytes(static_cast<uint8_t*>(msg), length);
    const uint32_t receiver = static_cast<uint32_t>(kOwnNid) << 16 | Olm::EchoServer::kOwnCpid;
    std::memcpy(static_cast<uint8_t*>(msg) + kReceiverOffset, &receiver, sizeof(receiver));
    dispatcher.sendMessage(msg);
  }
  void run() {
    for (int i = 0; i < kIterationsPerCommand; ++i) dispatcher.runIteration();
  }
  // Dispatches what is still queued; what the statistics EU sends meanwhile goes to the port.
  void drain() {
    for (unsigned i = 0; i < Olm::Dispatcher::kQueueCount * Olm::MsgQueue::kSlots && !queuesEmpty(); ++i) {
      dispatcher.runIteration();
    }
    port.releaseSent();
  }
  bool queuesEmpty() const {
    return dispatcher.getQueue(Olm::Dispatcher::HighQueue).isEmpty() &&
           dispatcher.getQueue(Olm::Dispatcher::MedQueue).isEmpty() &&
           dispatcher.getQueue(Olm::Dispatcher::LowQueue).isEmpty();
  }
  void stopMeter() {
    if (dispatcher.getItsEchoServer().getStatsRaw()->meterPeriodMs != 0) ++stoppedMeters;
    IdleMeterStop();
  }

  OlmTest::FakeMsgPort port;
  OlmTest::FakeTimeSource time;
  Olm::TrivialLog log;
  Olm::Dispatcher dispatcher;
  size_t stoppedMeters = 0;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  OlmTest::FuzzInput input(data, size);
  Node node;
  uint64_t now = 0;
  while (!input.atEnd()) {
    switch (input.byte() % kCommands) {
      case SendMessage: node.sendToStatisticsEu(input); break;
      // Periods from 0xA00000 ms on abort by design; the input's 16 bits stay far below.
      case StartMeter: IdleMeterStart(input.word()); break;
      case StopMeter: node.stopMeter(); break;
      case ReadMeter: {
        uint32_t load = 0, minLoad = 0, maxLoad = 0;
        IdleMeterGetCpuLoad(&load, &minLoad, &maxLoad);
        if (load > Olm::EchoServer::kFullLoad || minLoad > Olm::EchoServer::kFullLoad) std::abort();
        break;
      }
      case LetTimePass:
        now = (now + input.byte() * kBtuPerMs) % Olm::LteTime::MaxSamples;
        node.time.setSamples(now);
        break;
    }
    node.run();
    node.port.releaseSent();
  }
  node.stopMeter();
  node.drain();
  if (node.port.doubleFrees() != 0) std::abort();
  if (node.port.liveBuffers() != 1 + node.stoppedMeters) std::abort();
  return 0;
}
