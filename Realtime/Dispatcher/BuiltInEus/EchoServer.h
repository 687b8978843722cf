// Olm::EchoServer: the built-in statistics EU at CPID 0x610. It owns the Dispatcher's tick
// accounting (idle, messaging and total loop ticks) and echoes every message back to its sender.
#pragma once

#include <cstddef>
#include <cstdint>

#include "IAaSysDispatcherSicHandler.h"

namespace Olm {

class EchoServer : public IAaSysDispatcherSicHandler {
 public:
  static constexpr unsigned kHistorySlots = 12;

  // The statistics record, also the content of the file "olmliteStatsRaw.bin": 416 bytes,
  // little-endian, the same layout on every word size.
  struct OLMLiteStatsRaw {
    uint64_t idleTicks;
    uint64_t messagingTicks;
    uint64_t totalLoopTicks;
    uint64_t idleTicksHistory[kHistorySlots];
    uint64_t messagingTicksHistory[kHistorySlots];
    uint64_t totalLoopTicksHistory[kHistorySlots];
    uint32_t nextHistorySlot;
    uint32_t padding0;
    uint64_t lastReadIdleTicks;
    uint64_t lastReadMessagingTicks;
    uint64_t lastReadTotalLoopTicks;
    uint32_t load;  // hundredths of a percent
    uint32_t minLoad;
    uint32_t maxLoad;
    uint32_t meterPeriodMs;
    uint32_t measurementCount;
    uint32_t padding1;
    uint64_t referenceSnapshot[3];
    uint64_t latestSnapshot[3];
  };

  static constexpr uint16_t kOwnCpid = 0x0610;

  EchoServer() = default;
  ~EchoServer() override;
  EchoServer(const EchoServer&) = delete;
  EchoServer& operator=(const EchoServer&) = delete;

  int PrioritizeMessage(void*& msg) override;
  void ProcessMessage(void*& msg) override;

  // Creates the record once; a second call keeps it. Returns 0.
  int initStatsRaw();
  OLMLiteStatsRaw* getStatsRaw() const { return m_stats; }

  // The ten-second history sampling; the Dispatcher starts it before its loop.
  void startHistTimer();
  void stopHistTimer();

  // A periodic Dispatcher timer, first due now, period in milliseconds; returns its id.
  uint32_t startTimer(uint32_t milliseconds, void* msg);
  // Cancels a running timer and zeroes the id; the returned message is not released.
  void stopTimer(uint32_t& id);

  // Tick accounting; a no-op until initStatsRaw has run.
  void addIdleTicks(uint64_t ticks) { if (m_stats) m_stats->idleTicks += ticks; }
  void addMessagingTicks(uint64_t ticks) { if (m_stats) m_stats->messagingTicks += ticks; }
  void addTotalLoopTicks(uint64_t ticks) { if (m_stats) m_stats->totalLoopTicks += ticks; }

  static int lockFn(void* context);
  static int unlockFn(void* context);

 private:
  void recordHistory();
  void echo(void*& msg);
  uint32_t ownAddress() const;
  void* createTimerMsg(uint16_t msgId);

  uint16_t m_ownCpid = kOwnCpid;
  uint32_t m_histTimerId = 0;
  [[maybe_unused]] uint32_t m_idleMeterTimerId = 0;  // the idle meter's timer, once it exists
  OLMLiteStatsRaw* m_stats = nullptr;
};

static_assert(sizeof(EchoServer::OLMLiteStatsRaw) == 416, "olmliteStatsRaw.bin is 416 bytes");
static_assert(offsetof(EchoServer::OLMLiteStatsRaw, idleTicksHistory) == 24, "stats layout");
static_assert(offsetof(EchoServer::OLMLiteStatsRaw, messagingTicksHistory) == 120, "stats layout");
static_assert(offsetof(EchoServer::OLMLiteStatsRaw, totalLoopTicksHistory) == 216, "stats layout");
static_assert(offsetof(EchoServer::OLMLiteStatsRaw, nextHistorySlot) == 312, "stats layout");
static_assert(offsetof(EchoServer::OLMLiteStatsRaw, lastReadIdleTicks) == 320, "stats layout");
static_assert(offsetof(EchoServer::OLMLiteStatsRaw, load) == 344, "stats layout");
static_assert(offsetof(EchoServer::OLMLiteStatsRaw, meterPeriodMs) == 356, "stats layout");
static_assert(offsetof(EchoServer::OLMLiteStatsRaw, referenceSnapshot) == 368, "stats layout");
static_assert(offsetof(EchoServer::OLMLiteStatsRaw, latestSnapshot) == 392, "stats layout");

}  // namespace Olm
