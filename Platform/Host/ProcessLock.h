// The mutual exclusion of the threads of one process inside the event machine.
//
// Taken once per C call, so on the runtime's message path (one thread, never contended) its cost
// is per message: one compare-and-swap to take it, and to give it back a plain release store and
// a plain load of the waiter count, where a C library mutex spends a second locked instruction.
// The price is a wake-up that can be missed: the unlocking thread may read the waiter count
// before its store of 0 is visible to a thread that is just going to sleep. A waiter therefore
// never sleeps longer than kWaiterRecheckNs before it looks again: contention (several threads
// of one process calling the platform at once) can cost that much latency, nothing more. A thread
// stopped while holding the lock stops only the other threads of its own process.
#pragma once

#include <atomic>
#include <cstdint>

namespace rhyddal {

class ProcessLock {
 public:
  static constexpr uint32_t kWaiterRecheckNs = 1000000;

  // Acquire on success: pairs with the release store in unlock.
  void lock() {
    uint32_t expected = 0;
    if (!state_.compare_exchange_strong(expected, 1, std::memory_order_acquire, std::memory_order_relaxed)) {
      lockContended();
    }
  }
  void unlock();

  // In a forked child: threads that waited in the parent do not exist here.
  void resetInChild() {
    state_.store(0, std::memory_order_relaxed);
    waiters_.store(0, std::memory_order_relaxed);
  }

 private:
  void lockContended();

  std::atomic<uint32_t> state_{0};  // 0 free, 1 taken
  std::atomic<uint32_t> waiters_{0};
};

class ProcessLockGuard {
 public:
  explicit ProcessLockGuard(ProcessLock& lock) : lock_(lock) { lock_.lock(); }
  ~ProcessLockGuard() { lock_.unlock(); }
  ProcessLockGuard(const ProcessLockGuard&) = delete;
  ProcessLockGuard& operator=(const ProcessLockGuard&) = delete;

 private:
  ProcessLock& lock_;
};

}  // namespace rhyddal
