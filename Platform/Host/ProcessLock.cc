#include "ProcessLock.h"

#include <linux/futex.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

namespace rhyddal {
namespace {

constexpr int kSpinsBeforeSleeping = 100;

void relax() {
#if defined(__x86_64__) || defined(__i386__)
  __builtin_ia32_pause();
#elif defined(__aarch64__) || defined(__arm__)
  asm volatile("yield" ::: "memory");
#endif
}

// Private futex (threads of this process only), relative timeout.
void sleepWhileTaken(std::atomic<uint32_t>* word, uint32_t nanoseconds) {
  const timespec timeout{0, static_cast<long>(nanoseconds)};
#if defined(SYS_futex_time64) && !defined(__LP64__)
  if (sizeof(timeout.tv_sec) == 8) {
    syscall(SYS_futex_time64, word, FUTEX_WAIT_PRIVATE, 1u, &timeout, nullptr, 0);
    return;
  }
#endif
  syscall(SYS_futex, word, FUTEX_WAIT_PRIVATE, 1u, &timeout, nullptr, 0);
}

}  // namespace

void ProcessLock::unlock() {
  state_.store(0, std::memory_order_release);
  if (waiters_.load(std::memory_order_relaxed) != 0) syscall(SYS_futex, &state_, FUTEX_WAKE_PRIVATE, 1, nullptr, nullptr, 0);
}

void ProcessLock::lockContended() {
  for (int spin = 0; spin < kSpinsBeforeSleeping; ++spin) {
    relax();
    uint32_t expected = 0;
    if (state_.load(std::memory_order_relaxed) == 0 &&
        state_.compare_exchange_strong(expected, 1, std::memory_order_acquire, std::memory_order_relaxed)) {
      return;
    }
  }
  waiters_.fetch_add(1, std::memory_order_seq_cst);
  for (;;) {
    uint32_t expected = 0;
    if (state_.compare_exchange_strong(expected, 1, std::memory_order_acquire, std::memory_order_relaxed)) break;
    sleepWhileTaken(&state_, kWaiterRecheckNs);
  }
  waiters_.fetch_sub(1, std::memory_order_relaxed);
}

}  // namespace rhyddal
