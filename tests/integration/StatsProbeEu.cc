// An EU library that uses the statistics EU (CPID 0x610) the way an application does. On every
// tick (OLM_PROBE_PERIOD_MS, default 100) it sends a numbered probe to the statistics EU of its own
// node and, when OLM_STATS_PEER names one, of that node, and prints each echo that comes back. It
// starts the idle meter on the first tick (period OLM_METER_MS, default 0), tries to start it a
// second time, and prints a reading on every later tick; with OLM_PROBE_QUIET=1 it prints neither
// echoes nor readings, so that a node kept busy for long never fills its output. Lines:
//   StatsProbeEu ready
//   echo #<n> id 0x<id> from 0x<sender> to 0x<receiver> payload <text>
//   meter load=<load> min=<minimum> max=<maximum>
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "AaSysCom.h"
#include "AaSysTime.h"
#include "IAaSysDispatcher.h"
#include "IdleMeter.h"

namespace {

constexpr TAaSysComCpid kProbeCpid = 0x0720;
constexpr TAaSysComCpid kStatisticsCpid = 0x0610;
constexpr TAaSysComMsgId kTickMsgId = 0x0B00;
constexpr TAaSysComMsgId kProbeMsgId = 0x0B01;
constexpr uint32_t kPayloadSize = 16;
constexpr uint32_t kUsPerMs = 1000;

uint32_t envNumber(const char* name, uint32_t fallback) {
  const char* value = std::getenv(name);
  return value != nullptr ? static_cast<uint32_t>(std::strtoul(value, nullptr, 0)) : fallback;
}

class StatsProbeEu : public Olm::IAaSysDispatcherSicHandler {
 public:
  void start(Olm::IAaSysDispatcher& dispatcher) {
    dispatcher.AaSysDispatcherCpidBind(*this, kProbeCpid);
    m_peerNid = envNumber("OLM_STATS_PEER", 0);
    m_meterMs = envNumber("OLM_METER_MS", 0);
    m_quiet = envNumber("OLM_PROBE_QUIET", 0) != 0;
    void* tick = AaSysComMsgCreate(kTickMsgId, 0, ownAddress());
    AaSysComMsgSetSender(tick, ownAddress());
    const uint32_t periodUs = envNumber("OLM_PROBE_PERIOD_MS", 100) * kUsPerMs;
    TAaSysTimerId timer = 0;
    if (AaSysTimermCreate(&timer, periodUs, periodUs, tick) != EAaSysTimeRetVal_Ok) std::puts("StatsProbeEu: no timer");
  }

  int PrioritizeMessage(void*&) override { return 3; }

  void ProcessMessage(void*& msg) override {
    if (AaSysComMsgGetId(msg) == kTickMsgId) {
      onTick();
    } else if (!m_quiet) {
      printEcho(msg);
    }
    std::fflush(stdout);
  }

 private:
  TAaSysComSicad ownAddress() const { return AaSysComSicadGet(kProbeCpid, AaSysComGetOwnNid()); }

  void onTick() {
    ++m_ticks;
    if (m_ticks == 1) {
      IdleMeterStart(m_meterMs);
      IdleMeterStart(m_meterMs);
    } else {
      uint32_t load = 0, minLoad = 0, maxLoad = 0;
      IdleMeterGetCpuLoad(&load, &minLoad, &maxLoad);
      if (!m_quiet) std::printf("meter load=%u min=%u max=%u\n", load, minLoad, maxLoad);
    }
    sendProbe(AaSysComGetOwnNid());
    if (m_peerNid != 0) sendProbe(static_cast<TAaSysComNid>(m_peerNid));
  }

  void sendProbe(TAaSysComNid nid) {
    void* probe = AaSysComMsgCreate(kProbeMsgId, kPayloadSize, AaSysComSicadGet(kStatisticsCpid, nid));
    if (probe == nullptr) return;
    std::snprintf(static_cast<char*>(AaSysComMsgGetPayload(probe)), kPayloadSize, "probe #%u", ++m_probes);
    AaSysComMsgSendS(&probe, ownAddress());
  }

  void printEcho(const void* msg) const {
    char text[kPayloadSize + 1] = {};
    std::memcpy(text, AaSysComMsgGetPayload(msg), std::min<size_t>(AaSysComMsgGetPayloadSize(msg), kPayloadSize));
    std::printf("echo #%u id 0x%04x from 0x%08x to 0x%08x payload %s\n", m_probes, AaSysComMsgGetId(msg),
                AaSysComMsgGetSender(msg), AaSysComMsgGetReceiver(msg), text);
  }

  uint32_t m_peerNid = 0;
  uint32_t m_meterMs = 0;
  bool m_quiet = false;
  uint32_t m_ticks = 0;
  uint32_t m_probes = 0;
};

}  // namespace

extern "C" void EuMain(Olm::IAaSysDispatcher* dispatcher) {
  static StatsProbeEu eu;
  eu.start(*dispatcher);
  std::puts("StatsProbeEu ready");
  std::fflush(stdout);
}
