// An example EU library for the system zone of the broker: every node that loads it subscribes
// to the news (message 0x3B01) of the whole system and, every OLM_NEWS_PERIOD_MS milliseconds
// (default 2000), publishes its own, which replaces the stored news of every other node. Each
// node prints what it receives, so a publication is seen crossing nodes through the broker server
// on the master node (--masternid). A node that starts later is served the stored news at once.
//
//   OLMLiteExe --nid 0x10F0 --masternid 0x10F0 --load-local libBrokerServer.so
//   OLMLiteExe --nid 0x1011 --masternid 0x10F0 --load-local libNewsEu.so
//   OLMLiteExe --nid 0x1012 --masternid 0x10F0 --load-local libNewsEu.so
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <unistd.h>

#include "AaSysCom.h"
#include "AaSysMb.h"
#include "AaSysTime.h"
#include "IAaSysDispatcher.h"

namespace {

constexpr TAaSysComCpid kNewsCpid = 0x0720;
constexpr TAaSysComMsgId kNewsId = 0x3B01;
constexpr TAaSysComMsgId kTickMsgId = 0x3B02;
constexpr uint32_t kUsPerMs = 1000;
constexpr uint32_t kFirstTickUs = 500 * kUsPerMs;

struct News {
  uint32_t sequence;
};

uint32_t periodMs() {
  const char* value = std::getenv("OLM_NEWS_PERIOD_MS");
  return value != nullptr ? static_cast<uint32_t>(std::strtoul(value, nullptr, 0)) : 2000;
}

class NewsEu : public Olm::IAaSysDispatcherSicHandler {
 public:
  void start(Olm::IAaSysDispatcher& dispatcher) {
    dispatcher.AaSysDispatcherCpidBind(*this, kNewsCpid);
    AaSysMbSubscribe(kNewsId, address(), EAaSysMbSubsMode_StoredAndKeep, EAaSysMbZone_System);
    void* tick = AaSysComMsgCreate(kTickMsgId, 0, address());
    AaSysComMsgSetSender(tick, address());
    TAaSysTimerId timer = 0;
    AaSysTimermCreate(&timer, kFirstTickUs, periodMs() * kUsPerMs, tick);
  }

  int PrioritizeMessage(void*&) override { return 3; }
  void ProcessMessage(void*& msg) override {
    if (AaSysComMsgGetId(msg) == kTickMsgId) publish();
    if (AaSysComMsgGetId(msg) == kNewsId && AaSysComMsgGetPayloadSize(msg) == sizeof(News)) report(msg);
  }

 private:
  static TAaSysComSicad address() { return AaSysComSicadGet(kNewsCpid, AASYSCOM_NID_THIS_NODE); }

  void publish() {
    void* payload = AaSysMbPrepare(sizeof(News), kNewsId, address(), EAaSysMbPublMode_Replace, EAaSysMbZone_System);
    if (payload == nullptr) return;
    const News news{++m_sequence};
    std::memcpy(payload, &news, sizeof(news));
    AaSysMbPublish(&payload);
  }

  static void report(const void* msg) {
    News news;
    std::memcpy(&news, AaSysComMsgGetPayload(msg), sizeof(news));
    char line[96];
    const int length = std::snprintf(line, sizeof(line), "node 0x%04x: news #%u published on node 0x%04x\n",
                                     AaSysComGetOwnNid(), news.sequence, AaSysComSicadGetNid(AaSysComMsgGetSender(msg)));
    // One write per line, so the lines of the nodes' outputs never mix.
    if (length > 0 && write(STDOUT_FILENO, line, static_cast<size_t>(length)) < 0) return;
  }

  uint32_t m_sequence = 0;
};

}  // namespace

extern "C" void EuMain(Olm::IAaSysDispatcher* dispatcher) {
  static NewsEu eu;
  eu.start(*dispatcher);
}
