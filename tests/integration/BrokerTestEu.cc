// An EU library that publishes and subscribes on its node through the broker, as applications do.
// At start two subscribers are bound; subscriber 0x0702 subscribes (mode 0) before the publisher
// publishes one stored publication (mode 1), and subscriber 0x0703 only after it, so it is served
// from the store. Each subscriber prints what it receives:
//   subscriber 0x<address> got <value> from 0x<sender>
#include <cstdio>
#include <cstring>

#include <unistd.h>

#include "AaSysCom.h"
#include "AaSysMb.h"
#include "IAaSysDispatcher.h"

namespace {

constexpr TAaSysComCpid kEarlySubscriberCpid = 0x0702;
constexpr TAaSysComCpid kLateSubscriberCpid = 0x0703;
constexpr TAaSysComCpid kPublisherCpid = 0x0704;
constexpr TAaSysComMsgId kNewsId = 0x3A01;
constexpr uint32_t kNews = 42;

TAaSysComSicad onThisNode(TAaSysComCpid cpid) { return AaSysComSicadGet(cpid, AASYSCOM_NID_THIS_NODE); }

class Subscriber : public Olm::IAaSysDispatcherSicHandler {
 public:
  explicit Subscriber(TAaSysComCpid cpid) : m_cpid(cpid) {}
  void start(Olm::IAaSysDispatcher& dispatcher) { dispatcher.AaSysDispatcherCpidBind(*this, m_cpid); }
  void subscribe() { AaSysMbSubscribe(kNewsId, onThisNode(m_cpid), EAaSysMbSubsMode_StoredAndKeep, EAaSysMbZone_Node); }

  int PrioritizeMessage(void*&) override { return 3; }
  void ProcessMessage(void*& msg) override {
    uint32_t value = 0;
    if (AaSysComMsgGetId(msg) == kNewsId && AaSysComMsgGetPayloadSize(msg) == sizeof(value)) {
      std::memcpy(&value, AaSysComMsgGetPayload(msg), sizeof(value));
      // One write per line: a stdio buffer could be copied into a process the node forks meanwhile.
      char line[64];
      const int length = std::snprintf(line, sizeof(line), "subscriber 0x%08x got %u from 0x%08x\n",
                                       AaSysComMsgGetReceiver(msg), value, AaSysComMsgGetSender(msg));
      if (write(STDOUT_FILENO, line, static_cast<size_t>(length)) != length) return;
    }
  }

 private:
  TAaSysComCpid m_cpid;
};

void publish() {
  void* payload = AaSysMbPrepare(sizeof(kNews), kNewsId, onThisNode(kPublisherCpid), EAaSysMbPublMode_Replace,
                                 EAaSysMbZone_Node);
  if (payload == nullptr) return;
  std::memcpy(payload, &kNews, sizeof(kNews));
  AaSysMbPublish(&payload);
}

}  // namespace

extern "C" void EuMain(Olm::IAaSysDispatcher* dispatcher) {
  static Subscriber early(kEarlySubscriberCpid);
  static Subscriber late(kLateSubscriberCpid);
  early.start(*dispatcher);
  late.start(*dispatcher);
  // The proxy takes the commands in the order they were sent.
  early.subscribe();
  publish();
  late.subscribe();
}
