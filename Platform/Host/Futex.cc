#include "Futex.h"

#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <limits>

namespace rhyddal {
namespace {

constexpr int64_t kNanosecondsPerSecond = 1000000000;

// 32-bit builds with a 64-bit time_t need the time64 variant of the futex call.
long futexCall(std::atomic<uint32_t>* word, int operation, uint32_t value, const timespec* timeout) {
#if defined(SYS_futex_time64) && !defined(__LP64__)
  if (sizeof(timeout->tv_sec) == 8) {
    return syscall(SYS_futex_time64, word, operation, value, timeout, nullptr, FUTEX_BITSET_MATCH_ANY);
  }
#endif
  return syscall(SYS_futex, word, operation, value, timeout, nullptr, FUTEX_BITSET_MATCH_ANY);
}

}  // namespace

timespec monotonicNow() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return now;
}

timespec deadlineAfter(const timespec& now, uint32_t seconds, uint32_t nanoseconds) {
  constexpr int64_t kLatest = static_cast<int64_t>(std::numeric_limits<time_t>::max());
  int64_t addedSeconds = int64_t{seconds} + nanoseconds / kNanosecondsPerSecond;
  int64_t rest = static_cast<int64_t>(now.tv_nsec) + nanoseconds % kNanosecondsPerSecond;
  if (rest >= kNanosecondsPerSecond) {
    rest -= kNanosecondsPerSecond;
    ++addedSeconds;
  }
  // Compared before adding: the sum itself could overflow a 64-bit time_t.
  if (static_cast<int64_t>(now.tv_sec) > kLatest - addedSeconds) {
    return timespec{static_cast<time_t>(kLatest), static_cast<long>(kNanosecondsPerSecond - 1)};
  }
  return timespec{static_cast<time_t>(now.tv_sec + addedSeconds), static_cast<long>(rest)};
}

bool reached(const timespec& deadline) {
  const timespec now = monotonicNow();
  return now.tv_sec > deadline.tv_sec || (now.tv_sec == deadline.tv_sec && now.tv_nsec >= deadline.tv_nsec);
}

// FUTEX_WAIT_BITSET takes an absolute deadline, so retries after spurious wake-ups never stretch
// the wait.
void futexWaitUntil(std::atomic<uint32_t>* word, uint32_t expected, const timespec* deadline) {
  futexCall(word, FUTEX_WAIT_BITSET, expected, deadline);
}

void futexWake(std::atomic<uint32_t>* word, int count) {
  futexCall(word, FUTEX_WAKE_BITSET, static_cast<uint32_t>(count), nullptr);
}

}  // namespace rhyddal
