// An example EU library: every second it pings the EU of the same CPID on a peer node, prints what
// it receives stamped with the LTE time, and answers pings with pongs.
//
//   OLM_PING_PEER=0x1012 OLMLiteExe --nid 0x1011 --wait 1000 --load-local libPingEu.so
//
// OLM_PING_PEER names the peer node (default: this node's id with its lowest bit flipped);
// OLM_PING_PERIOD_MS the ping period (default 1000).
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "AaLteTime.h"
#include "AaSysCom.h"
#include "AaSysLog.h"
#include "AaSysTime.h"
#include "IAaSysDispatcher.h"

namespace {

constexpr TAaSysComCpid kPingCpid = 0x0700;
constexpr TAaSysComMsgId kTickMsgId = 0x0A00;
constexpr TAaSysComMsgId kPingMsgId = 0x0A01;
constexpr TAaSysComMsgId kPongMsgId = 0x0A02;
constexpr uint32_t kMsPerFrame = 10;
constexpr uint32_t kFramesPerHyperFrame = 1024;
constexpr uint32_t kHyperFramesPerCycle = 1024;
constexpr uint32_t kStartDelayFrames = 2;
constexpr uint32_t kPongsPerLogLine = 10;

struct PingPayload {
  uint32_t sequence;
  uint32_t sentSeconds;       // wall clock of the sender, for the round trip
  uint32_t sentMicroseconds;
};

uint32_t envNumber(const char* name, uint32_t fallback) {
  const char* value = std::getenv(name);
  return value != nullptr ? static_cast<uint32_t>(std::strtoul(value, nullptr, 0)) : fallback;
}

void printLteTime() {
  TAaLteBtsHyperFrameNr hyperFrame = 0;
  TAaLteBtsFrameNr frame = 0;
  TAaLteBtsSlotNr slot = 0;
  TAaLteBtsBasicTUNr basicTU = 0;
  if (AaLteTimeGet(&hyperFrame, &frame, nullptr, &slot, &basicTU) == EAaLteTimeRetVal_Ok) {
    std::printf("[%04u,%04u,%02u,%05u] ", hyperFrame, frame, slot, basicTU);
  } else {
    std::printf("[no LTE time] ");
  }
}

uint64_t microsecondsSince(const PingPayload& ping) {
  SAaUnixTime now;
  AaUnixTimeGet(&now);
  return (static_cast<uint64_t>(now.seconds) * 1000000 + now.microseconds) -
         (static_cast<uint64_t>(ping.sentSeconds) * 1000000 + ping.sentMicroseconds);
}

class PingEu : public Olm::IAaSysDispatcherSicHandler {
 public:
  PingEu() : m_peerNid(static_cast<TAaSysComNid>(envNumber("OLM_PING_PEER", AaSysComGetOwnNid() ^ 1))) {}

  void start(Olm::IAaSysDispatcher& dispatcher) {
    dispatcher.AaSysDispatcherCpidBind(*this, kPingCpid);
    const uint32_t periodMs = envNumber("OLM_PING_PERIOD_MS", 1000);
    AaSysLogPrint(EAaSysLogSeverityLevel_Info, "PingEu: pinging node 0x%04x every %u ms", m_peerNid, periodMs);
    armTicks(periodMs);
  }

  int PrioritizeMessage(void*&) override { return 3; }

  void ProcessMessage(void*& msg) override {
    switch (AaSysComMsgGetId(msg)) {
      case kTickMsgId: sendPing(); break;
      case kPingMsgId: answer(msg); break;
      case kPongMsgId: reportPong(msg); break;
      default: break;
    }
  }

 private:
  TAaSysComSicad ownAddress() const { return AaSysComSicadGet(kPingCpid, AaSysComGetOwnNid()); }

  void armTicks(uint32_t periodMs) {
    void* tick = AaSysComMsgCreate(kTickMsgId, 0, ownAddress());
    AaSysComMsgSetSender(tick, ownAddress());
    const uint32_t periodFrames = periodMs / kMsPerFrame;
    const uint32_t periodSlots = (periodMs % kMsPerFrame) * 2;
    // The first tick comes a couple of frames from now.
    TAaLteBtsHyperFrameNr hyperFrame = 0;
    TAaLteBtsFrameNr frame = 0;
    AaLteTimeGet(&hyperFrame, &frame, nullptr, nullptr, nullptr);
    frame += kStartDelayFrames;
    if (frame >= kFramesPerHyperFrame) {
      frame -= kFramesPerHyperFrame;
      hyperFrame = (hyperFrame + 1) % kHyperFramesPerCycle;
    }
    TAaLteTimerId timerId = 0;
    const EAaLteTimeRetVal result =
        AaLteTimermSyncCreate(&timerId, hyperFrame, frame, 0, 0, periodFrames, periodSlots, 0, tick);
    if (result != EAaLteTimeRetVal_Ok) {
      std::printf("PingEu: no timer (%d)\n", static_cast<int>(result));
      AaSysComMsgDestroy(&tick);
    }
  }

  void sendPing() {
    void* ping = AaSysComMsgCreate(kPingMsgId, sizeof(PingPayload), AaSysComSicadGet(kPingCpid, m_peerNid));
    if (ping == nullptr) return;
    SAaUnixTime now;
    AaUnixTimeGet(&now);
    const PingPayload payload{++m_sequence, now.seconds, now.microseconds};
    std::memcpy(AaSysComMsgGetPayload(ping), &payload, sizeof(payload));
    AaSysComMsgSetSender(ping, ownAddress());
    AaSysComMsgSend(&ping);
  }

  void answer(void*& ping) {
    PingPayload payload;
    if (AaSysComMsgGetPayloadSize(ping) < sizeof(payload)) return;
    std::memcpy(&payload, AaSysComMsgGetPayload(ping), sizeof(payload));
    printLteTime();
    std::printf("node 0x%04x: ping #%u from node 0x%04x\n", AaSysComGetOwnNid(), payload.sequence,
                AaSysComSicadGetNid(AaSysComMsgGetSender(ping)));
    void* pong = AaSysComMsgCreateReply(kPongMsgId, sizeof(payload), ping);
    if (pong == nullptr) return;
    std::memcpy(AaSysComMsgGetPayload(pong), &payload, sizeof(payload));
    AaSysComMsgSend(&pong);
  }

  void reportPong(void*& pong) {
    PingPayload payload;
    if (AaSysComMsgGetPayloadSize(pong) < sizeof(payload)) return;
    std::memcpy(&payload, AaSysComMsgGetPayload(pong), sizeof(payload));
    printLteTime();
    std::printf("node 0x%04x: pong #%u from node 0x%04x, round trip %" PRIu64 " us\n", AaSysComGetOwnNid(),
                payload.sequence, AaSysComSicadGetNid(AaSysComMsgGetSender(pong)), microsecondsSince(payload));
    // Now and then a line for the node group's system log collector (see SysLogPrinterEu).
    if (payload.sequence % kPongsPerLogLine == 0) {
      AaSysLogPrint(EAaSysLogSeverityLevel_Info, "PingEu: %u pongs from node 0x%04x", payload.sequence,
                    AaSysComSicadGetNid(AaSysComMsgGetSender(pong)));
    }
  }

  TAaSysComNid m_peerNid;
  uint32_t m_sequence = 0;
};

}  // namespace

extern "C" void EuMain(Olm::IAaSysDispatcher* dispatcher) {
  static PingEu eu;
  eu.start(*dispatcher);
}
