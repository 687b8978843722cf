// The Dispatcher's fixed table of sixteen LTE timers. Each armed entry holds a message that is
// delivered when its time comes, once or periodically. Used only on the Dispatcher's thread.
#pragma once

#include <cstdint>

#include "LteTime.h"

namespace Olm {

class TimerQueue {
 public:
  static constexpr unsigned kEntryCount = 16;
  // A count-down of more than this many BTUs (10 s) is taken as a clock jump.
  static constexpr uint64_t kMaxCountDown = 10 * LteTime::BasicTimeUnitsPerSecond;
  // Timers this far away (about 139.8 s) or further do not shorten the Dispatcher's idle wait.
  static constexpr uint64_t kMaxDeadline = 0xFFFFFFFFull;

  struct Entry {
    bool expired = false;
    void* msg = nullptr;     // null: the entry is free
    uint64_t remaining = 0;  // BTUs from the last time until due
    uint64_t period = 0;     // BTUs; 0 = one-shot
    uint32_t id = 0;         // 0 in a free entry
  };

  // What delivery takes out of the table.
  struct Expiry {
    void* msg = nullptr;  // null: the timer was cancelled after it had been marked
    bool periodic = false;
  };

  TimerQueue();

  // Arms the first free entry: expiry is absolute, period a duration (its sample count). Returns
  // the identifier (entry index in bits 0-7, the process-wide generation in bits 8-31). Aborts
  // when all sixteen entries are armed.
  unsigned activate(LteTime lastTime, void* msg, LteTime expiry, LteTime period);

  // Disarms the entry the identifier names and returns its message; null for a stale identifier.
  void* deactivate(unsigned id);

  // Counts every armed entry down to now and marks the ones that are due. Skipped for an invalid
  // now; a jump of more than 10 s after the first count-down freezes all timers instead.
  void countDown(const LteTime& now);

  // Takes the lowest expired entry: a one-shot entry is freed, a periodic one keeps its message
  // for the next period. Returns false when nothing is due.
  bool takeExpired(Expiry& expiry);

  // The nearest non-zero remaining time below kMaxDeadline, as seconds and nanoseconds; false
  // (outputs untouched) when none.
  bool nextDeadline(uint32_t& seconds, uint32_t& nanoseconds) const;

  const LteTime& getLastTime() const { return m_lastTime; }
  const Entry& getEntry(unsigned index) const { return m_entries[index]; }

  // The process-wide generation counter that the next activation uses (1 in a fresh process).
  static uint32_t getGeneration();
  static void setGeneration(uint32_t generation);

 private:
  void release(unsigned index);
  void countDownEntry(unsigned index, uint64_t elapsed);

  LteTime m_lastTime;
  Entry m_entries[kEntryCount];
  // Mirrors of the entries' msg != null and expired fields, one bit per entry, so that the loop's
  // count-down and delivery, run on every iteration, touch only the entries that matter.
  uint32_t m_armed = 0;
  uint32_t m_expired = 0;
};

}  // namespace Olm
