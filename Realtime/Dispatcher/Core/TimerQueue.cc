#include "TimerQueue.h"

#include "OlmAssert.h"

OLM_ASSERT_SOURCE("Realtime/Dispatcher/TimerQueue")

namespace Olm {

namespace {

// Identifier layout: entry index in bits 0-7, generation in bits 8-31.
constexpr unsigned kIndexBits = 8;
constexpr uint32_t kIndexMask = (1u << kIndexBits) - 1;
// The generation runs 1 .. 0x1000000 and starts over; 0x1000000 itself shifts out of the
// identifier, so that one activation yields the bare index.
constexpr uint32_t kGenerationMask = 0xFFFFFF;
constexpr uint32_t kFirstGeneration = 1;
static_assert(TimerQueue::kEntryCount <= kIndexMask + 1, "the index fits its identifier bits");
static_assert(TimerQueue::kEntryCount <= 32, "one bit per entry in a 32-bit mask");

constexpr uint64_t kNanosecondsPerSlot = 500000;

// One counter for the whole process, not per queue: identifiers stay unique even if a queue is
// ever rebuilt.
uint32_t g_generation = kFirstGeneration;

uint32_t takeGeneration() {
  const uint32_t generation = g_generation;
  g_generation = (g_generation & kGenerationMask) + 1;
  return generation;
}

// A periodic timer that missed several periods fires once and keeps its phase.
uint64_t remainingAfterOvershoot(uint64_t period, uint64_t overshoot) {
  if (overshoot <= period) return period - overshoot;
  return period - overshoot % period;
}

uint32_t bitOf(unsigned index) { return 1u << index; }

}  // namespace

// Leaves the expired mark alone: a mark left behind by a cancel is consumed by delivery.
void TimerQueue::release(unsigned index) {
  Entry& entry = m_entries[index];
  entry.msg = nullptr;
  entry.remaining = 0;
  entry.period = 0;
  entry.id = 0;
  m_armed &= ~bitOf(index);
}

void TimerQueue::countDownEntry(unsigned index, uint64_t elapsed) {
  Entry& entry = m_entries[index];
  if (entry.remaining > elapsed) {
    entry.remaining -= elapsed;
    return;
  }
  entry.expired = true;
  m_expired |= bitOf(index);
  // A one-shot entry keeps its remaining time until it is delivered and freed.
  if (entry.period != 0) entry.remaining = remainingAfterOvershoot(entry.period, elapsed - entry.remaining);
}

TimerQueue::TimerQueue() : m_lastTime(LteTime::unreadable(EAaLteTimeRetVal_ClockUnreadable)) {}

unsigned TimerQueue::activate(LteTime lastTime, void* msg, LteTime expiry, LteTime period) {
  unsigned index = 0;
  while (index < kEntryCount && m_entries[index].msg != nullptr) ++index;
  OLM_ASSERT_TEXT(index < kEntryCount, "0");
  Entry& entry = m_entries[index];
  entry.expired = false;
  m_expired &= ~bitOf(index);
  entry.msg = msg;
  m_armed |= bitOf(index);
  // An expiry already behind the last time wraps to almost a whole cycle.
  entry.remaining = (expiry - lastTime).getSamples();
  entry.period = period.getSamples();
  entry.id = index + (takeGeneration() << kIndexBits);
  return entry.id;
}

void* TimerQueue::deactivate(unsigned id) {
  const unsigned index = id & kIndexMask;
  OLM_ASSERT_TEXT(index < kEntryCount, "id < sizeof(entries)/sizeof(entries[0])");
  Entry& entry = m_entries[index];
  if (entry.id != id) return nullptr;
  // A free entry holds id 0 as well; 0 never names a free timer, so it is stale like any other.
  if (entry.msg == nullptr && id == 0) return nullptr;
  OLM_ASSERT_TEXT(entry.msg != nullptr, "entries[id].msg != 0");
  void* msg = entry.msg;
  release(index);
  return msg;
}

void TimerQueue::countDown(const LteTime& now) {
  if (!now.isValid()) return;
  const uint64_t elapsed = (now - m_lastTime).getSamples();
  // A jump of the clock (backwards shows as almost a whole cycle) freezes every timer until the
  // clock is back within reach of the last time. Before the first count-down any length goes.
  const bool lastTimeSet = m_lastTime.getStatus() == EAaLteTimeRetVal_Ok;
  if (elapsed > kMaxCountDown && lastTimeSet) return;
  for (uint32_t armed = m_armed; armed != 0; armed &= armed - 1) {
    countDownEntry(static_cast<unsigned>(__builtin_ctz(armed)), elapsed);
  }
  m_lastTime = now;
}

bool TimerQueue::takeExpired(Expiry& expiry) {
  if (m_expired == 0) return false;
  const unsigned index = static_cast<unsigned>(__builtin_ctz(m_expired));
  Entry& entry = m_entries[index];
  entry.expired = false;
  m_expired &= ~bitOf(index);
  expiry.msg = entry.msg;
  expiry.periodic = entry.period != 0;
  if (!expiry.periodic) release(index);
  return true;
}

// Only armed entries: release zeroes a free entry's remaining time, so the others never count.
bool TimerQueue::nextDeadline(uint32_t& seconds, uint32_t& nanoseconds) const {
  uint64_t nearest = kMaxDeadline;
  for (uint32_t armed = m_armed; armed != 0; armed &= armed - 1) {
    const uint64_t remaining = m_entries[__builtin_ctz(armed)].remaining;
    if (remaining != 0 && remaining < nearest) nearest = remaining;
  }
  if (nearest == kMaxDeadline) return false;
  seconds = static_cast<uint32_t>(nearest / LteTime::BasicTimeUnitsPerSecond);
  nanoseconds = static_cast<uint32_t>((nearest % LteTime::BasicTimeUnitsPerSecond) * kNanosecondsPerSlot /
                                      LteTime::BasicTimeUnitsPerSlot);
  return true;
}

uint32_t TimerQueue::getGeneration() { return g_generation; }

void TimerQueue::setGeneration(uint32_t generation) { g_generation = generation; }

}  // namespace Olm
