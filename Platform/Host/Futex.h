// Shared (inter-process) futex calls and absolute CLOCK_MONOTONIC deadlines.
#pragma once

#include <time.h>

#include <atomic>
#include <cstdint>

namespace rhyddal {

constexpr uint32_t kNoTimeLimit = 0xFFFFFFFFu;  // seconds value that means "wait without limit"

timespec monotonicNow();

// now + seconds + nanoseconds, normalised (nanoseconds may exceed a second). Saturates at the
// largest time_t instead of wrapping: with a 32-bit time_t (Debian armhf) a large finite timeout
// would otherwise turn into a deadline in the past.
timespec deadlineAfter(const timespec& now, uint32_t seconds, uint32_t nanoseconds);

bool reached(const timespec& deadline);

// Sleeps while *word == expected, until woken or the absolute CLOCK_MONOTONIC deadline (null: no
// limit). Not FUTEX_PRIVATE: waiter and wakers may be different processes. Returns at once when
// the word already differs; spurious returns are possible, callers re-check their condition.
void futexWaitUntil(std::atomic<uint32_t>* word, uint32_t expected, const timespec* deadline);

// Wakes at most count waiters of word.
void futexWake(std::atomic<uint32_t>* word, int count);

}  // namespace rhyddal
