#include "EchoServer.h"

#include <algorithm>
#include <cstdio>

#include "AaSysCom.h"
#include "AaSysTime.h"
#include "IRuntime.h"
#include "LteTime.h"
#include "OlmAssert.h"

OLM_ASSERT_SOURCE("Realtime/Dispatcher/EchoServer")

namespace Olm {

namespace {

constexpr uint32_t kTimerMsgPayloadSize = 2;
constexpr uint64_t kBasicTimeUnitsPerMs = LteTime::BasicTimeUnitsPerSecond / 1000;
// Accumulators are reset before their sum can overflow.
constexpr uint64_t kAccumulatorResetThreshold = 0xFFFFFFFF00000000ull;
constexpr int kLowPriority = 3;
constexpr double kPercent = 100.0;

using Record = EchoServer::OLMLiteStatsRaw;

template <typename Word, size_t kCount>
void copyWords(const Word (&from)[kCount], Word (&to)[kCount]) {
  for (size_t i = 0; i < kCount; ++i) to[i] = EchoServer::loadWord(from[i]);
}

float share(uint64_t part, uint64_t all) {
  return static_cast<float>(kPercent * static_cast<double>(part) / static_cast<double>(all));
}

IRuntime& dispatcherInstance() {
  IRuntime* disp = IRuntime::getTheRuntime();
  OLM_ASSERT(disp != 0);
  return *disp;
}

}  // namespace

EchoServer::~EchoServer() {
  delete m_stats;
  delete m_fileView;
}

int EchoServer::PrioritizeMessage(void*&) { return kLowPriority; }

int EchoServer::initStatsRaw() {
  if (m_stats == nullptr) {
    m_stats = new OLMLiteStatsRaw{};
    m_fileView = new OLMLiteStatsRaw{};
  }
  return 0;
}

uint64_t& EchoServer::accumulator(Accumulator which) const {
  switch (which) {
    case IdleTicks: return m_stats->idleTicks;
    case MessagingTicks: return m_stats->messagingTicks;
    default: return m_stats->totalLoopTicks;
  }
}

void EchoServer::takeSnapshot(uint64_t (&snapshot)[kAccumulators]) const {
  for (unsigned which = 0; which < kAccumulators; ++which) {
    storeWord(snapshot[which], accumulator(static_cast<Accumulator>(which)));
  }
}

void EchoServer::ProcessMessage(void*& msg) {
  const uint16_t msgId = AaSysComMsgGetId(msg);
  if (msgId == kHistoryTickMsgId) {
    recordHistory();
  } else if (msgId == kMeterTickMsgId) {
    measureLoad();
  } else if (AaSysComSicadGetCpid(AaSysComMsgGetSender(msg)) != kOwnCpid) {
    echo(msg);
    return;
  }
  AaSysComMsgDestroy(&msg);
}

void EchoServer::recordHistory() {
  if (m_stats == nullptr) return;
  const uint32_t slot = m_stats->nextHistorySlot;
  storeWord(m_stats->idleTicksHistory[slot], m_stats->idleTicks);
  storeWord(m_stats->messagingTicksHistory[slot], m_stats->messagingTicks);
  storeWord(m_stats->totalLoopTicksHistory[slot], m_stats->totalLoopTicks);
  storeWord(m_stats->nextHistorySlot, (slot + 1) % kHistorySlots);
  if (m_stats->idleTicks + m_stats->totalLoopTicks > kAccumulatorResetThreshold) {
    storeWord(m_stats->idleTicks, uint64_t{0});
    storeWord(m_stats->messagingTicks, uint64_t{0});
    storeWord(m_stats->totalLoopTicks, uint64_t{0});
  }
}

// The load is the busy share of the loop's time since the meter was started or last read: the
// reference snapshot stays where it is, unless the accumulators were reset meanwhile.
void EchoServer::measureLoad() {
  if (m_stats == nullptr) return;
  takeSnapshot(m_stats->latestSnapshot);
  storeWord(m_stats->measurementCount, m_stats->measurementCount + 1);
  const int64_t idle = static_cast<int64_t>(m_stats->latestSnapshot[IdleTicks] - m_stats->referenceSnapshot[IdleTicks]);
  const int64_t busy =
      static_cast<int64_t>(m_stats->latestSnapshot[TotalLoopTicks] - m_stats->referenceSnapshot[TotalLoopTicks]);
  if (idle < 0 || busy < 0) {
    takeSnapshot(m_stats->referenceSnapshot);
    storeWord(m_stats->load, kFullLoad);
  } else if (idle + busy == 0) {
    storeWord(m_stats->load, kFullLoad);
  } else {
    const double load = static_cast<double>(busy) * kFullLoad / static_cast<double>(idle + busy);
    const uint32_t measured = static_cast<uint32_t>(static_cast<float>(load));
    storeWord(m_stats->load, measured);
    storeWord(m_stats->minLoad, std::min(m_stats->minLoad, measured));
    storeWord(m_stats->maxLoad, std::max(m_stats->maxLoad, measured));
  }
}

void EchoServer::echo(void*& msg) {
  AaSysComMsgSetReceiver(&msg, AaSysComMsgGetSender(msg));
  AaSysComMsgSendS(&msg, ownAddress());
}

uint32_t EchoServer::ownAddress() const { return AaSysComSicadGet(m_ownCpid, AaSysComGetOwnNid()); }

void* EchoServer::createTimerMsg(uint16_t msgId) {
  void* msg = AaSysComMsgCreate(msgId, kTimerMsgPayloadSize, ownAddress());
  if (msg != nullptr) AaSysComMsgSetSender(msg, ownAddress());
  return msg;
}

uint32_t EchoServer::startTimer(uint32_t milliseconds, void* msg) {
  IRuntime& disp = dispatcherInstance();
  const LteTime first = disp.getLteTime();
  return disp.startTimer(first, LteTime(milliseconds * kBasicTimeUnitsPerMs), msg);
}

void EchoServer::stopTimer(uint32_t& id) {
  IRuntime& disp = dispatcherInstance();
  if (id == 0) return;
  disp.cancelTimer(id);
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

void EchoServer::startIdleMeter(uint32_t milliseconds) {
  if (m_stats == nullptr) {
    std::puts("OLMLite stats is not initialized yet.");
    return;
  }
  if (m_idleMeterTimerId != 0) {
    std::puts("OLMLite IdleMeterStart is called before meter being closed.");
    return;
  }
  const uint32_t period = milliseconds == 0 ? kDefaultMeterPeriodMs : std::min(milliseconds, kMaxMeterPeriodMs);
  void* msg = createTimerMsg(kMeterTickMsgId);
  if (msg == nullptr) {
    std::puts("Failed to alloc stats meter timer msg.");
    return;
  }
  storeWord(m_stats->minLoad, kFullLoad);
  storeWord(m_stats->maxLoad, uint32_t{0});
  storeWord(m_stats->load, uint32_t{0});
  takeSnapshot(m_stats->referenceSnapshot);
  storeWord(m_stats->measurementCount, uint32_t{0});
  storeWord(m_stats->meterPeriodMs, period);
  m_idleMeterTimerId = startTimer(period, msg);
}

void EchoServer::stopIdleMeter() {
  stopTimer(m_idleMeterTimerId);
  if (m_stats != nullptr) storeWord(m_stats->meterPeriodMs, uint32_t{0});
}

void EchoServer::getIdleMeterCpuLoad(uint32_t& load, uint32_t& minLoad, uint32_t& maxLoad) {
  if (m_stats == nullptr) {
    std::puts("OLMLite stats is not initialized yet.");
    return;
  }
  if (m_stats->measurementCount != 0) {
    load = m_stats->load;
    storeWord(m_stats->measurementCount, uint32_t{0});
  } else {
    load = kFullLoad;
  }
  minLoad = m_stats->minLoad;
  maxLoad = m_stats->maxLoad;
  takeSnapshot(m_stats->referenceSnapshot);
}

// Runs on the RAM file service's thread. Each accumulator is read once, so that the deltas shown
// and the "last read" copies agree and no tick falls between two reads.
void EchoServer::writeStatsText(char* buffer, size_t size) {
  if (m_stats == nullptr) return;
  const uint64_t idleNow = loadWord(m_stats->idleTicks);
  const uint64_t messagingNow = loadWord(m_stats->messagingTicks);
  const uint64_t loopNow = loadWord(m_stats->totalLoopTicks);
  const uint64_t idle = idleNow - loadWord(m_stats->lastReadIdleTicks);
  const uint64_t messaging = messagingNow - loadWord(m_stats->lastReadMessagingTicks);
  const uint64_t loop = loopNow - loadWord(m_stats->lastReadTotalLoopTicks);
  const uint64_t overhead = loop - messaging;
  const uint64_t all = loop + idle;
  float idlePercent = 0, overheadPercent = 0, messagingPercent = 0;
  if (all != 0) {
    idlePercent = share(idle, all);
    overheadPercent = share(overhead, all);
    messagingPercent = share(messaging, all);
  }
  std::snprintf(buffer, size,
                "Ticks since last read:\nidleTicks=%llu\ndispOverHeadTicks=%llu\nmessagingTicks=%llu\n"
                "Tick resolution=%u\nCPU Usage since last read:\nIdle Time=%.2f\nDispatcher Overhead=%.2f\n"
                "Messaging Callbacks=%.2f\n",
                static_cast<unsigned long long>(idle), static_cast<unsigned long long>(overhead),
                static_cast<unsigned long long>(messaging), static_cast<unsigned>(AaTickResolutionGet()),
                idlePercent, overheadPercent, messagingPercent);
  storeWord(m_stats->lastReadIdleTicks, idleNow);
  storeWord(m_stats->lastReadMessagingTicks, messagingNow);
  storeWord(m_stats->lastReadTotalLoopTicks, loopNow);
}

void EchoServer::refreshFileView() {
  if (m_stats == nullptr) return;
  const Record& from = *m_stats;
  Record& to = *m_fileView;
  to.idleTicks = loadWord(from.idleTicks);
  to.messagingTicks = loadWord(from.messagingTicks);
  to.totalLoopTicks = loadWord(from.totalLoopTicks);
  copyWords(from.idleTicksHistory, to.idleTicksHistory);
  copyWords(from.messagingTicksHistory, to.messagingTicksHistory);
  copyWords(from.totalLoopTicksHistory, to.totalLoopTicksHistory);
  to.nextHistorySlot = loadWord(from.nextHistorySlot);
  to.lastReadIdleTicks = loadWord(from.lastReadIdleTicks);
  to.lastReadMessagingTicks = loadWord(from.lastReadMessagingTicks);
  to.lastReadTotalLoopTicks = loadWord(from.lastReadTotalLoopTicks);
  to.load = loadWord(from.load);
  to.minLoad = loadWord(from.minLoad);
  to.maxLoad = loadWord(from.maxLoad);
  to.meterPeriodMs = loadWord(from.meterPeriodMs);
  to.measurementCount = loadWord(from.measurementCount);
  copyWords(from.referenceSnapshot, to.referenceSnapshot);
  copyWords(from.latestSnapshot, to.latestSnapshot);
}

EAaFileCallbackAction EchoServer::lockFn(void* context) {
  if (context != nullptr) static_cast<EchoServer*>(context)->refreshFileView();
  return EAaFileCallbackAction_Ok;
}

EAaFileCallbackAction EchoServer::unlockFn(void*) { return EAaFileCallbackAction_Ok; }

}  // namespace Olm
