// An example EU library for the system zone of the broker: every node that loads it subscribes
// to the news (message 0x3B01) of the whole system and periodically publishes its own, which
// replaces the stored news of every other node. Each node prints what it receives, so a
// publication is seen crossing nodes through the broker server on the master node (--masternid).
// A node that starts later is served the stored news at once.
//
// Its two settings are R&D parameters of domain 50, "NEWS", so they can be changed while the node
// runs (olmctl rad set 0x1011 50:0 500): index 0, NewsPeriodMs, the publication period (default
// OLM_NEWS_PERIOD_MS, else 2000; 0 stops publishing), and index 1, NewsPrintReceived, whether
// received news is printed (default 1). A change takes effect at once and the node prints one line
// about it.
//
//   OLMLiteExe --nid 0x10F0 --masternid 0x10F0 --load-local libBrokerServer.so
//   OLMLiteExe --nid 0x1011 --masternid 0x10F0 --load-local libNewsEu.so
//   OLMLiteExe --nid 0x1012 --masternid 0x10F0 --load-local libNewsEu.so
#include <unistd.h>

#include <algorithm>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "AaConfigRad.h"
#include "AaConfigRadMsg.h"
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
constexpr uint32_t kDefaultPeriodMs = 2000;
// The timer takes microseconds in 32 bits: about 71 minutes at most.
constexpr uint32_t kMaxPeriodMs = UINT32_MAX / kUsPerMs;

constexpr uint32_t kRadDomain = 50;
constexpr char kRadDomainName[] = "NEWS";
constexpr uint32_t kPeriodIndex = 0;
constexpr uint32_t kPrintReceivedIndex = 1;
constexpr uint32_t kRadTagCount = 2;
constexpr uint32_t kPeriodTag = kRadDomain << AACONFIG_RAD_DOMAIN_SHIFT | kPeriodIndex;
constexpr uint32_t kPrintReceivedTag = kRadDomain << AACONFIG_RAD_DOMAIN_SHIFT | kPrintReceivedIndex;

struct News {
  uint32_t sequence;
};

// The default of NewsPeriodMs.
uint32_t periodMsFromEnvironment() {
  const char* value = std::getenv("OLM_NEWS_PERIOD_MS");
  return value != nullptr ? static_cast<uint32_t>(std::strtoul(value, nullptr, 0)) : kDefaultPeriodMs;
}

void newsDomainInit() {
  AaConfigRadSetMaxTagCount(kRadDomain, kRadTagCount);
  AaConfigRadSetDefault(kPeriodTag, "NewsPeriodMs", periodMsFromEnvironment());
  AaConfigRadSetDefault(kPrintReceivedTag, "NewsPrintReceived", 1);
}

// One write per line, so the lines of the nodes' outputs never mix.
void printLine(const char* format, ...) __attribute__((format(printf, 1, 2)));
void printLine(const char* format, ...) {
  char line[128];
  va_list args;
  va_start(args, format);
  const int length = std::vsnprintf(line, sizeof(line), format, args);
  va_end(args);
  if (length > 0 && write(STDOUT_FILENO, line, std::min(static_cast<size_t>(length), sizeof(line) - 1)) < 0) return;
}

class NewsEu : public Olm::IAaSysDispatcherSicHandler {
 public:
  void start(Olm::IAaSysDispatcher& dispatcher) {
    dispatcher.AaSysDispatcherCpidBind(*this, kNewsCpid);
    AaSysMbSubscribe(kNewsId, address(), EAaSysMbSubsMode_StoredAndKeep, EAaSysMbZone_System);
    // The master's answer to the registration may change the values: the subscriptions see it.
    AaConfigRadRegisterDomain(kRadDomain, kRadDomainName, newsDomainInit);
    AaConfigRadSubscribeNotifs(kPeriodTag, address());
    AaConfigRadSubscribeNotifs(kPrintReceivedTag, address());
    startPublishing(kFirstTickUs, AaConfigRadGetValue(kPeriodTag));
  }

  int PrioritizeMessage(void*&) override { return 3; }
  void ProcessMessage(void*& msg) override {
    const TAaSysComMsgId id = AaSysComMsgGetId(msg);
    if (id == kTickMsgId) publish();
    if (id == kNewsId && AaSysComMsgGetPayloadSize(msg) == sizeof(News) &&
        AaConfigRadGetValue(kPrintReceivedTag) != 0) {
      report(msg);
    }
    if (id == AACONFIG_RAD_CHANGE_NOTIF_MSG && AaSysComMsgGetPayloadSize(msg) >= sizeof(SAaConfigRadChangeNotif)) {
      SAaConfigRadChangeNotif change;
      std::memcpy(&change, AaSysComMsgGetPayload(msg), sizeof(change));
      applyChange(change);
    }
  }

 private:
  static TAaSysComSicad address() { return AaSysComSicadGet(kNewsCpid, AASYSCOM_NID_THIS_NODE); }

  // Publishes every periodMs from firstUs on; period 0 publishes nothing.
  void startPublishing(uint32_t firstUs, uint32_t periodMs) {
    if (m_timer != 0) AaSysTimerDelete(m_timer);
    m_timer = 0;
    if (periodMs == 0) return;
    const uint32_t periodUs = std::min(periodMs, kMaxPeriodMs) * kUsPerMs;
    void* tick = AaSysComMsgCreate(kTickMsgId, 0, address());
    AaSysComMsgSetSender(tick, address());
    AaSysTimermCreate(&m_timer, firstUs, periodUs, tick);
  }

  void applyChange(const SAaConfigRadChangeNotif& change) {
    const uint32_t own = AaSysComGetOwnNid();
    if (change.tagId == kPeriodTag) {
      startPublishing(std::min(change.value, kMaxPeriodMs) * kUsPerMs, change.value);
      if (change.value == 0) {
        printLine("node 0x%04x: NewsPeriodMs set to 0, news no longer published\n", own);
      } else {
        printLine("node 0x%04x: NewsPeriodMs set to %u, news published every %u ms\n", own, change.value,
                  std::min(change.value, kMaxPeriodMs));
      }
    } else if (change.tagId == kPrintReceivedTag) {
      printLine("node 0x%04x: NewsPrintReceived set to %u, received news %s\n", own, change.value,
                change.value != 0 ? "printed" : "no longer printed");
    }
  }

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
    printLine("node 0x%04x: news #%u published on node 0x%04x\n", AaSysComGetOwnNid(), news.sequence,
              AaSysComSicadGetNid(AaSysComMsgGetSender(msg)));
  }

  uint32_t m_sequence = 0;
  TAaSysTimerId m_timer = 0;
};

}  // namespace

extern "C" void EuMain(Olm::IAaSysDispatcher* dispatcher) {
  static NewsEu eu;
  eu.start(*dispatcher);
}
