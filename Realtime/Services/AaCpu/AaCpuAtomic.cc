#include "AaCpuAtomic.h"

#include <cstdint>

#include "AaSysLog.h"

namespace {

constexpr uintptr_t kWordAlignmentMask = sizeof(uint32_t) - 1;

// Out of line and cold, so the check costs the callers a test and a not-taken branch.
[[gnu::noinline, gnu::cold]] void reportBadWord(const char* function, const volatile void* atomic) {
  AaSysLogPrintE(EAaSysLogSeverityLevel_Error, AASYSLOG_FEATURE_NONE, "%s(): atomic %p is null or not 4-byte aligned",
                 function, const_cast<const void*>(atomic));
}

// A null pointer has its low bits clear, so it needs its own test; both fold into one branch.
inline bool isBadWord(const TAaCpuAtomic* atomic) {
  const auto address = reinterpret_cast<uintptr_t>(atomic);
  return (address & kWordAlignmentMask) != 0 || address == 0;
}

// Refuses a bad word: logs and leaves the function with result (nothing for a void function).
#define OLM_REFUSE_BAD_WORD(atomic, ...)          \
  do {                                           \
    if (__builtin_expect(isBadWord(atomic), 0)) { \
      reportBadWord(__func__, atomic);           \
      return __VA_ARGS__;                        \
    }                                            \
  } while (false)

constexpr uint32_t kRefused = 0;

}  // namespace

extern "C" {

uint32_t AaCpuAtomicLoad(const TAaCpuAtomic* atomic) {
  OLM_REFUSE_BAD_WORD(atomic, kRefused);
  return __atomic_load_n(atomic, __ATOMIC_ACQUIRE);
}

void AaCpuAtomicStore(TAaCpuAtomic* atomic, uint32_t value) {
  OLM_REFUSE_BAD_WORD(atomic);
  __atomic_store_n(atomic, value, __ATOMIC_RELEASE);
}

uint32_t AaCpuAtomicAdd(TAaCpuAtomic* atomic, uint32_t value) {
  OLM_REFUSE_BAD_WORD(atomic, kRefused);
  return __atomic_add_fetch(atomic, value, __ATOMIC_SEQ_CST);
}

uint32_t AaCpuAtomicSub(TAaCpuAtomic* atomic, uint32_t value) {
  OLM_REFUSE_BAD_WORD(atomic, kRefused);
  return __atomic_sub_fetch(atomic, value, __ATOMIC_SEQ_CST);
}

uint32_t AaCpuAtomicFetchAdd(TAaCpuAtomic* atomic, uint32_t value) {
  OLM_REFUSE_BAD_WORD(atomic, kRefused);
  return __atomic_fetch_add(atomic, value, __ATOMIC_SEQ_CST);
}

uint32_t AaCpuAtomicFetchSub(TAaCpuAtomic* atomic, uint32_t value) {
  OLM_REFUSE_BAD_WORD(atomic, kRefused);
  return __atomic_fetch_sub(atomic, value, __ATOMIC_SEQ_CST);
}

uint32_t AaCpuAtomicInc(TAaCpuAtomic* atomic) {
  OLM_REFUSE_BAD_WORD(atomic, kRefused);
  return __atomic_add_fetch(atomic, 1u, __ATOMIC_SEQ_CST);
}

uint32_t AaCpuAtomicDec(TAaCpuAtomic* atomic) {
  OLM_REFUSE_BAD_WORD(atomic, kRefused);
  return __atomic_sub_fetch(atomic, 1u, __ATOMIC_SEQ_CST);
}

uint32_t AaCpuAtomicSwap(TAaCpuAtomic* atomic, uint32_t value) {
  OLM_REFUSE_BAD_WORD(atomic, kRefused);
  return __atomic_exchange_n(atomic, value, __ATOMIC_SEQ_CST);
}

uint32_t AaCpuAtomicCompareAndSwap(TAaCpuAtomic* atomic, uint32_t expected, uint32_t desired) {
  // Refused with a value other than expected, so the caller sees that nothing was written.
  OLM_REFUSE_BAD_WORD(atomic, ~expected);
  // A failed exchange writes the value found into expected.
  __atomic_compare_exchange_n(atomic, &expected, desired, false, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST);
  return expected;
}

uint32_t AaCpuAtomicAnd(TAaCpuAtomic* atomic, uint32_t mask) {
  OLM_REFUSE_BAD_WORD(atomic, kRefused);
  return __atomic_fetch_and(atomic, mask, __ATOMIC_SEQ_CST);
}

uint32_t AaCpuAtomicOr(TAaCpuAtomic* atomic, uint32_t mask) {
  OLM_REFUSE_BAD_WORD(atomic, kRefused);
  return __atomic_fetch_or(atomic, mask, __ATOMIC_SEQ_CST);
}

uint32_t AaCpuAtomicXor(TAaCpuAtomic* atomic, uint32_t mask) {
  OLM_REFUSE_BAD_WORD(atomic, kRefused);
  return __atomic_fetch_xor(atomic, mask, __ATOMIC_SEQ_CST);
}

// The thread sanitizer does not model fences (and GCC warns so); the fence still orders the
// hardware's accesses, which is its purpose, so the warning is silenced here and nowhere else.
#if defined(__SANITIZE_THREAD__) && !defined(__clang__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wtsan"
#endif
void AaCpuAtomicMemoryBarrier(void) { __atomic_thread_fence(__ATOMIC_SEQ_CST); }
#if defined(__SANITIZE_THREAD__) && !defined(__clang__)
#pragma GCC diagnostic pop
#endif

}  // extern "C"
