// Olm::EchoServer: the built-in statistics EU at CPID 0x610. It owns the Dispatcher's tick
// accounting (idle, messaging and total loop ticks), keeps a ten-second history of it, measures the
// CPU load on request (the idle meter) and echoes every other message back to its sender.
//
// Threads: everything runs on the Dispatcher's thread except the RAM file callbacks (lockFn and
// unlockFn here, Dispatcher::lockFn for the text), which the RAM file service calls on its own
// thread. So that both may look at the record, every word of it that the Dispatcher's thread
// changes is written with a relaxed atomic store, and the callbacks read it with relaxed atomic
// loads: each word is whole, but the words are not promised to be from the same instant. The
// "last read" copies are written only by the text callback.
#pragma once

#include <cstddef>
#include <cstdint>

#include "AaFile.h"
#include "IAaSysDispatcherSicHandler.h"

namespace Olm {

class EchoServer : public IAaSysDispatcherSicHandler {
 public:
  static constexpr unsigned kHistorySlots = 12;
  static constexpr uint16_t kOwnCpid = 0x0610;
  static constexpr uint16_t kHistoryTickMsgId = 10;
  static constexpr uint16_t kMeterTickMsgId = 11;
  static constexpr uint32_t kHistoryPeriodMs = 10000;
  // Loads are in hundredths of a percent.
  static constexpr uint32_t kFullLoad = 10000;
  static constexpr uint32_t kDefaultMeterPeriodMs = 10;
  // Longer meter periods are cut to this. It is itself one period too long for an LTE timer
  // (10485760 ms x 30720 BTU/ms is exactly one LTE time cycle), so asking for it or more ends the
  // process with "m_samples < MaxSamples"; the cut is kept as it is deliberately.
  static constexpr uint32_t kMaxMeterPeriodMs = 0xA00000;

  // The three accumulators, in the order the snapshots keep them.
  enum Accumulator : unsigned { IdleTicks = 0, MessagingTicks = 1, TotalLoopTicks = 2, kAccumulators = 3 };

  // The statistics record, also the content of the file "olmliteStatsRaw.bin": 416 bytes,
  // little-endian, the same layout on every word size (proved below the class).
  struct OLMLiteStatsRaw {
    uint64_t idleTicks;       // AaTicksGet ticks of idle loop iterations, up to the wait for events
    uint64_t messagingTicks;  // ticks spent in PrioritizeMessage/ProcessMessage (ingress, dispatch)
    uint64_t totalLoopTicks;  // ticks of busy loop iterations
    uint64_t idleTicksHistory[kHistorySlots];  // one slot per ten-second history period
    uint64_t messagingTicksHistory[kHistorySlots];
    uint64_t totalLoopTicksHistory[kHistorySlots];
    uint32_t nextHistorySlot;  // 0..11
    uint32_t padding0;
    uint64_t lastReadIdleTicks;  // the accumulators at the last read of "olmliteStats.txt"
    uint64_t lastReadMessagingTicks;
    uint64_t lastReadTotalLoopTicks;
    uint32_t load;              // the last measured CPU load, hundredths of a percent
    uint32_t minLoad;           // since the meter was started
    uint32_t maxLoad;           // since the meter was started
    uint32_t meterPeriodMs;     // 0 while the meter is stopped
    uint32_t measurementCount;  // measurements since the load was last read
    uint32_t padding1;
    uint64_t referenceSnapshot[kAccumulators];  // when the meter was started or last read
    uint64_t latestSnapshot[kAccumulators];     // at the latest measurement
  };

  EchoServer() = default;
  ~EchoServer() override;
  EchoServer(const EchoServer&) = delete;
  EchoServer& operator=(const EchoServer&) = delete;

  // Always 3 (LOW).
  int PrioritizeMessage(void*& msg) override;
  // Id 10: history tick; id 11: idle meter tick; both are freed. Anything else goes back to its
  // sender from this EU's address, except what another statistics EU sent: that is an echo
  // already, and echoing it would bounce it between the two for ever. It is freed.
  void ProcessMessage(void*& msg) override;

  // Creates the record (all zero) once; a second call keeps it. Returns 0.
  int initStatsRaw();
  OLMLiteStatsRaw* getStatsRaw() const { return m_stats; }
  // What the RAM file "olmliteStatsRaw.bin" shows: a copy of the record that lockFn refreshes
  // whenever a reader opens the file (the file system reads it without any lock of ours). Null
  // before initStatsRaw.
  OLMLiteStatsRaw* getStatsFileView() const { return m_fileView; }

  // The ten-second history sampling; the Dispatcher starts it before its loop. Without a record
  // or a message buffer a line on standard output says so and nothing starts.
  void startHistTimer();
  void stopHistTimer();

  // A periodic Dispatcher timer, first due at the current LTE time, period in milliseconds;
  // returns its id. Aborts without a Dispatcher ("disp != 0") and for a period of a whole LTE time
  // cycle or more ("m_samples < MaxSamples").
  uint32_t startTimer(uint32_t milliseconds, void* msg);
  // Cancels the timer if id is not 0 and zeroes id. The message the cancel gives back is not
  // released. Aborts without a Dispatcher ("disp != 0").
  void stopTimer(uint32_t& id);

  // The idle meter. Start measures every milliseconds (0: every 10 ms; cut to kMaxMeterPeriodMs,
  // see there); without a record, while the meter runs, or without a message buffer a line on
  // standard output says so and nothing changes. getIdleMeterCpuLoad gives the load measured
  // last (kFullLoad when nothing was measured since the previous read) and the minimum and maximum
  // since the start, and starts the next averaging period.
  void startIdleMeter(uint32_t milliseconds);
  void stopIdleMeter();
  void getIdleMeterCpuLoad(uint32_t& load, uint32_t& minLoad, uint32_t& maxLoad);

  // Tick accounting on the Dispatcher's thread; a no-op until initStatsRaw has run.
  void addIdleTicks(uint64_t ticks) { addTo(IdleTicks, ticks); }
  void addMessagingTicks(uint64_t ticks) { addTo(MessagingTicks, ticks); }
  void addTotalLoopTicks(uint64_t ticks) { addTo(TotalLoopTicks, ticks); }

  // The text of "olmliteStats.txt" into buffer (at most size bytes, terminated): the ticks since
  // the previous call and their shares in percent; the accumulators read become the "last read"
  // copies. Safe on the RAM file service's thread. Nothing without a record.
  void writeStatsText(char* buffer, size_t size);

  // The callbacks of "olmliteStatsRaw.bin", context the EchoServer: lockFn refreshes the file
  // view from the record, unlockFn does nothing. Both return EAaFileCallbackAction_Ok.
  static EAaFileCallbackAction lockFn(void* context);
  static EAaFileCallbackAction unlockFn(void* context);

  // Relaxed atomic access to one word of a record shared with the file-system thread.
  template <typename Word>
  static void storeWord(Word& word, Word value) {
    __atomic_store_n(&word, value, __ATOMIC_RELAXED);
  }
  template <typename Word>
  static Word loadWord(const Word& word) {
    return __atomic_load_n(&word, __ATOMIC_RELAXED);
  }

 private:
  uint64_t& accumulator(Accumulator which) const;
  void addTo(Accumulator which, uint64_t ticks) {
    if (m_stats != nullptr) storeWord(accumulator(which), accumulator(which) + ticks);
  }
  void takeSnapshot(uint64_t (&snapshot)[kAccumulators]) const;
  void recordHistory();
  void measureLoad();
  void echo(void*& msg);
  uint32_t ownAddress() const;
  void* createTimerMsg(uint16_t msgId);
  void refreshFileView();

  uint16_t m_ownCpid = kOwnCpid;
  uint32_t m_histTimerId = 0;
  uint32_t m_idleMeterTimerId = 0;
  OLMLiteStatsRaw* m_stats = nullptr;
  OLMLiteStatsRaw* m_fileView = nullptr;
};

// "olmliteStatsRaw.bin" is read by tools: its layout is fixed on every word size and byte order
// the runtime is built for.
static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "olmliteStatsRaw.bin is little-endian");
static_assert(sizeof(EchoServer::OLMLiteStatsRaw) == 416, "olmliteStatsRaw.bin is 416 bytes");
static_assert(offsetof(EchoServer::OLMLiteStatsRaw, idleTicks) == 0, "stats layout");
static_assert(offsetof(EchoServer::OLMLiteStatsRaw, messagingTicks) == 8, "stats layout");
static_assert(offsetof(EchoServer::OLMLiteStatsRaw, totalLoopTicks) == 16, "stats layout");
static_assert(offsetof(EchoServer::OLMLiteStatsRaw, idleTicksHistory) == 24, "stats layout");
static_assert(offsetof(EchoServer::OLMLiteStatsRaw, messagingTicksHistory) == 120, "stats layout");
static_assert(offsetof(EchoServer::OLMLiteStatsRaw, totalLoopTicksHistory) == 216, "stats layout");
static_assert(offsetof(EchoServer::OLMLiteStatsRaw, nextHistorySlot) == 312, "stats layout");
static_assert(offsetof(EchoServer::OLMLiteStatsRaw, padding0) == 316, "stats layout");
static_assert(offsetof(EchoServer::OLMLiteStatsRaw, lastReadIdleTicks) == 320, "stats layout");
static_assert(offsetof(EchoServer::OLMLiteStatsRaw, lastReadMessagingTicks) == 328, "stats layout");
static_assert(offsetof(EchoServer::OLMLiteStatsRaw, lastReadTotalLoopTicks) == 336, "stats layout");
static_assert(offsetof(EchoServer::OLMLiteStatsRaw, load) == 344, "stats layout");
static_assert(offsetof(EchoServer::OLMLiteStatsRaw, minLoad) == 348, "stats layout");
static_assert(offsetof(EchoServer::OLMLiteStatsRaw, maxLoad) == 352, "stats layout");
static_assert(offsetof(EchoServer::OLMLiteStatsRaw, meterPeriodMs) == 356, "stats layout");
static_assert(offsetof(EchoServer::OLMLiteStatsRaw, measurementCount) == 360, "stats layout");
static_assert(offsetof(EchoServer::OLMLiteStatsRaw, padding1) == 364, "stats layout");
static_assert(offsetof(EchoServer::OLMLiteStatsRaw, referenceSnapshot) == 368, "stats layout");
static_assert(offsetof(EchoServer::OLMLiteStatsRaw, latestSnapshot) == 392, "stats layout");
// Whole words for the other thread: 64-bit atomics must not fall back to a lock.
static_assert(__atomic_always_lock_free(sizeof(uint64_t), nullptr), "64-bit statistics words are lock-free");

}  // namespace Olm
