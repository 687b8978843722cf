#include "AaCpuSpinLock.h"

#include <pthread.h>
#include <sched.h>
#include <unistd.h>

#include <cstdint>

#include "AaSysLog.h"

// Only the processor's spin-wait hint differs between processors.
#if defined(__x86_64__) || defined(__i386__)
#include "X86/AaCpuSpinPauseX86.inc"
#elif defined(__arm__) || defined(__aarch64__)
#include "Arm/AaCpuSpinPauseArm.inc"
#else
namespace {
inline void spinPause() { __atomic_signal_fence(__ATOMIC_SEQ_CST); }
}  // namespace
#endif

namespace {

constexpr uint32_t kFree = 0;
constexpr uintptr_t kWordAlignmentMask = sizeof(uint32_t) - 1;

// The calling thread's id, 0 until first asked for. gettid is a system call, far dearer than the
// lock itself, so it is made once per thread. Initial-exec: the library is loaded with the program
// (or, dlopened, fits the static TLS reserve), and the lock's fast path then reads the id with one
// load instead of a call to the TLS resolver.
[[gnu::tls_model("initial-exec")]] thread_local uint32_t t_threadId = 0;

// A forked child runs on a new thread id, but with a copy of the forking thread's cache.
void forgetThreadIdInChild() { t_threadId = 0; }

[[maybe_unused]] const int kForkHandlerRegistered = pthread_atfork(nullptr, nullptr, forgetThreadIdInChild);

inline uint32_t ownThreadId() {
  if (__builtin_expect(t_threadId == 0, 0)) t_threadId = static_cast<uint32_t>(gettid());
  return t_threadId;
}

bool isValidLock(const SAaCpuSpinLock* lock, const char* function) {
  const auto address = reinterpret_cast<uintptr_t>(lock);
  if (address != 0 && (address & kWordAlignmentMask) == 0) return true;
  AaSysLogPrintE(EAaSysLogSeverityLevel_Error, AASYSLOG_FEATURE_NONE, "%s(): lock %p is null or not 4-byte aligned",
                 function, static_cast<const void*>(lock));
  return false;
}

inline uint32_t readOwner(const SAaCpuSpinLock* lock) { return __atomic_load_n(&lock->owner, __ATOMIC_RELAXED); }

inline bool tryTake(SAaCpuSpinLock* lock, uint32_t self) {
  uint32_t expected = kFree;
  return __atomic_compare_exchange_n(&lock->owner, &expected, self, false, __ATOMIC_ACQUIRE, __ATOMIC_RELAXED);
}

EAaCpuSpinLockRet refuseRelock(const char* function, const SAaCpuSpinLock* lock, uint32_t self) {
  AaSysLogPrintE(EAaSysLogSeverityLevel_Error, AASYSLOG_FEATURE_NONE,
                 "%s(): thread %u already holds lock %p", function, self, static_cast<const void*>(lock));
  return EAaCpuSpinLockRet_Deadlock;
}

void waitBeforePoll(uint32_t pollsDone) {
  if (pollsDone < AACPUSPINLOCK_POLLS_BEFORE_YIELD) {
    spinPause();
  } else {
    sched_yield();
  }
}

// Test and test-and-set: waiters only read the word, which stays in their caches, until it reads
// free; then one of them wins the exchange. unlimited ignores maxPolls.
EAaCpuSpinLockRet take(SAaCpuSpinLock* lock, bool unlimited, uint32_t maxPolls, const char* function) {
  if (!isValidLock(lock, function)) return EAaCpuSpinLockRet_InvalidParameter;
  const uint32_t self = ownThreadId();
  if (tryTake(lock, self)) return EAaCpuSpinLockRet_Ok;
  // Only this thread ever writes its own id, so a word that reads it stays so.
  if (readOwner(lock) == self) return refuseRelock(function, lock, self);
  for (uint32_t polls = 0; unlimited || polls < maxPolls; ++polls) {
    waitBeforePoll(polls);
    if (readOwner(lock) == kFree && tryTake(lock, self)) return EAaCpuSpinLockRet_Ok;
  }
  return EAaCpuSpinLockRet_Busy;
}

}  // namespace

extern "C" {

EAaCpuSpinLockRet AaCpuSpinLockInit(SAaCpuSpinLock* lock) {
  if (!isValidLock(lock, __func__)) return EAaCpuSpinLockRet_InvalidParameter;
  __atomic_store_n(&lock->owner, kFree, __ATOMIC_RELEASE);
  return EAaCpuSpinLockRet_Ok;
}

EAaCpuSpinLockRet AaCpuSpinLockLock(SAaCpuSpinLock* lock) { return take(lock, true, 0, __func__); }

EAaCpuSpinLockRet AaCpuSpinLockTryLock(SAaCpuSpinLock* lock) { return take(lock, false, 0, __func__); }

EAaCpuSpinLockRet AaCpuSpinLockLockLimited(SAaCpuSpinLock* lock, uint32_t maxPolls) {
  return take(lock, false, maxPolls, __func__);
}

EAaCpuSpinLockRet AaCpuSpinLockUnlock(SAaCpuSpinLock* lock) {
  if (!isValidLock(lock, __func__)) return EAaCpuSpinLockRet_InvalidParameter;
  const uint32_t self = ownThreadId();
  // Nobody but the holder changes a held word, so the holder may release with a plain store.
  const uint32_t owner = readOwner(lock);
  if (owner != self) {
    AaSysLogPrintE(EAaSysLogSeverityLevel_Error, AASYSLOG_FEATURE_NONE,
                   "AaCpuSpinLockUnlock(): thread %u does not hold lock %p (holder %u)", self,
                   static_cast<const void*>(lock), owner);
    return EAaCpuSpinLockRet_NotOwner;
  }
  __atomic_store_n(&lock->owner, kFree, __ATOMIC_RELEASE);
  return EAaCpuSpinLockRet_Ok;
}

uint32_t AaCpuSpinLockOwnerGet(const SAaCpuSpinLock* lock) {
  if (!isValidLock(lock, __func__)) return 0;
  return readOwner(lock);
}

}  // extern "C"
