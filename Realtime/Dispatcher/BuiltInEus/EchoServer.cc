#include "EchoServer.h"

#include <cstdio>

#include "AaSysCom.h"
#include "IRuntime.h"
#include "LteTime.h"

namespace Olm {

namespace {

constexpr uint16_t kHistoryTickMsgId = 10;
constexpr uint32_t kTimerMsgPayloadSize = 2;
constexpr uint32_t kHistoryPeriodMs = 10000;
constexpr uint64_t kBasicTimeUnitsPerMs = LteTime::BasicTimeUnitsPerSecond / 1000;
// Accumulators are reset before their sum can overflow.
constexpr uint64_t kAccumulatorResetThreshold = 0xFFFFFFFF00000000ull;
constexpr int kLowPriority = 3;

}  // namespace

EchoServer::~EchoServer() { delete m_stats; }

int EchoServer::PrioritizeMessage(void*&) { return kLowPriority; }

int EchoServer::initStatsRaw() {
  if (m_stats == nullptr) m_stats = new OLMLiteStatsRaw{};
  return 0;
}

void EchoServer::ProcessMessage(void*& msg) {
  if (AaSysComMsgGetId(msg) == kHistoryTickMsgId) {
    recordHistory();
    return;  // the Dispatcher frees the tick
  }
  echo(msg);
}

void EchoServer::recordHistory() {
  if (m_stats == nullptr) return;
  const uint32_t slot = m_stats->nextHistorySlot;
  m_stats->idleTicksHistory[slot] = m_stats->idleTicks;
  m_stats->messagingTicksHistory[slot] = m_stats->messagingTicks;
  m_stats->totalLoopTicksHistory[slot] = m_stats->totalLoopTicks;
  m_stats->nextHistorySlot = (slot + 1) % kHistorySlots;
  if (m_stats->idleTicks + m_stats->totalLoopTicks > kAccumulatorResetThreshold) {
    m_stats->idleTicks = 0;
    m_stats->messagingTicks = 0;
    m_stats->totalLoopTicks = 0;
  }
}

// Any other message goes back to where it came from, sent from this EU's own address.
void EchoServer::echo(void*& msg) {
  void** handle = &msg;
  AaSysComMsgSetReceiver(handle, AaSysComMsgGetSender(msg));
  AaSysComMsgSendS(handle, ownAddress());
  msg = nullptr;
}

uint32_t EchoServer::ownAddress() const { return AaSysComSicadGet(m_ownCpid, AaSysComGetOwnNid()); }

void* EchoServer::createTimerMsg(uint16_t msgId) {
  void* msg = AaSysComMsgCreate(msgId, kTimerMsgPayloadSize, ownAddress());
  if (msg != nullptr) AaSysComMsgSetSender(msg, ownAddress());
  return msg;
}

uint32_t EchoServer::startTimer(uint32_t milliseconds, void* msg) {
  IRuntime& runtime = IRuntime::getRuntimeInstance();
  const LteTime first = runtime.getLteTime();
  return runtime.startTimer(first, LteTime(milliseconds * kBasicTimeUnitsPerMs), msg);
}

void EchoServer::stopTimer(uint32_t& id) {
  IRuntime& runtime = IRuntime::getRuntimeInstance();
  if (id == 0) return;
  runtime.cancelTimer(id);
  id = 0;
}

void EchoServer::startHistTimer() {
  if (m_stats == nullptr) {
    std::puts("OLMLite stats is not initialized yet.");
    return;
  }
  void* msg = createTimerMsg(kHistoryTickMsgId);
  if (msg == nullptr) {
    std::puts("Failed to alloc stats history timer msg.");
    return;
  }
  m_histTimerId = startTimer(kHistoryPeriodMs, msg);
}

void EchoServer::stopHistTimer() { stopTimer(m_histTimerId); }

int EchoServer::lockFn(void*) { return 0; }

int EchoServer::unlockFn(void*) { return 0; }

}  // namespace Olm
