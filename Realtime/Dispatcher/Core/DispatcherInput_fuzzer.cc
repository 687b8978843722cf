// libFuzzer target: arbitrary bytes arriving from the message port, as another node's message.
// The transport hands over a message only when its header's total length equals the bytes that
// arrived; everything else (ids, addresses, flags, byte-order format, trailer format) is the
// sender's to get wrong. The loop takes the message in, converts its byte order, queues it for
// whatever EU its receiver names and dispatches it; nothing may be read or written outside the
// message, and nothing may leak.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "AaSysComMsgHeader.h"
#include "CapturingLog.h"
#include "Dispatcher.h"
#include "FakeMsgPort.h"
#include "FakeTimeSource.h"

namespace {

constexpr uint16_t kOwnNid = 0x1234;
constexpr uint16_t kBoundCpids[] = {0x0100, 0x0101, 0x0102};
constexpr size_t kTotalLengthOffset = 14;
constexpr int kIterationsPerMessage = 4;

// Accepts in any queue (the priority comes from the message) and keeps nothing.
class AnyPriorityEu : public Olm::IAaSysDispatcherSicHandler {
 public:
  int PrioritizeMessage(void*& msg) override { return Olm::msgHeader(msg)->control & 3; }
  void ProcessMessage(void*&) override {}
};

struct Node {
  Node() {
    dispatcher.setItsIMsgPort(&port);
    dispatcher.setItsITimeSource(&time);
    dispatcher.setItsILog(&log);
    dispatcher.setOwnNid(kOwnNid);
    dispatcher.setWait(0);
    for (uint16_t cpid : kBoundCpids) dispatcher.AaSysDispatcherCpidBind(eu, cpid);
  }
  OlmTest::FakeMsgPort port;
  OlmTest::FakeTimeSource time;
  OlmTest::CapturingLog log;
  AnyPriorityEu eu;
  Olm::Dispatcher dispatcher;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < AASYSCOM_HEADER_SIZE || size > UINT16_MAX) return 0;
  static Node node;
  void* msg = node.port.allocMsg(size);
  std::memcpy(msg, data, size);
  const uint16_t totalLength = static_cast<uint16_t>(size);
  std::memcpy(static_cast<uint8_t*>(msg) + kTotalLengthOffset, &totalLength, sizeof(totalLength));
  node.port.deliver(msg);
  for (int i = 0; i < kIterationsPerMessage; ++i) node.dispatcher.runIteration();
  node.log.clear();
  // What the node sent meanwhile (its system log lines about the message) is not the point here.
  node.port.releaseSent();
  if (node.port.liveBuffers() != 0 || node.port.doubleFrees() != 0) std::abort();
  return 0;
}
