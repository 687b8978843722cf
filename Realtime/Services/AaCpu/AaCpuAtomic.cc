#include "AaCpuAtomic.h"

#include <cstdint>

#include "OlmAssert.h"

OLM_ASSERT_SOURCE("Realtime/Services/AaCpu/AaCpuAtomic")

namespace {

constexpr uintptr_t kWordAlignmentMask = sizeof(uint32_t) - 1;

// Out of line and cold, so the check costs the callers a test and a not-taken branch.
[[noreturn, gnu::noinline, gnu::cold]] void failBadWord(unsigned line, const char* function) {
  Olm::assertFail("atomic word not null and 4-byte aligned", kOlmAssertSource, line, function);
}

// A null pointer has its low bits clear, so it needs its own test; both fold into one branch.
inline bool isBadWord(const TAaCpuAtomic* atomic) {
  const auto address = reinterpret_cast<uintptr_t>(atomic);
  return (address & kWordAlignmentMask) != 0 || address == 0;
}

#define OLM_CHECK_WORD(atomic) \
  (__builtin_expect(isBadWord(atomic), 0) ? failBadWord(__LINE__, __func__) : static_cast<void>(0))

}  // namespace

extern "C" {

uint32_t AaCpuAtomicLoad(const TAaCpuAtomic* atomic) {
  OLM_CHECK_WORD(atomic);
  return __atomic_load_n(atomic, __ATOMIC_ACQUIRE);
}

void AaCpuAtomicStore(TAaCpuAtomic* atomic, uint32_t value) {
  OLM_CHECK_WORD(atomic);
  __atomic_store_n(atomic, value, __ATOMIC_RELEASE);
}

uint32_t AaCpuAtomicAdd(TAaCpuAtomic* atomic, uint32_t value) {
  OLM_CHECK_WORD(atomic);
  return __atomic_add_fetch(atomic, value, __ATOMIC_SEQ_CST);
}

uint32_t AaCpuAtomicSub(TAaCpuAtomic* atomic, uint32_t value) {
  OLM_CHECK_WORD(atomic);
  return __atomic_sub_fetch(atomic, value, __ATOMIC_SEQ_CST);
}

uint32_t AaCpuAtomicFetchAdd(TAaCpuAtomic* atomic, uint32_t value) {
  OLM_CHECK_WORD(atomic);
  return __atomic_fetch_add(atomic, value, __ATOMIC_SEQ_CST);
}

uint32_t AaCpuAtomicFetchSub(TAaCpuAtomic* atomic, uint32_t value) {
  OLM_CHECK_WORD(atomic);
  return __atomic_fetch_sub(atomic, value, __ATOMIC_SEQ_CST);
}

uint32_t AaCpuAtomicInc(TAaCpuAtomic* atomic) {
  OLM_CHECK_WORD(atomic);
  return __atomic_add_fetch(atomic, 1u, __ATOMIC_SEQ_CST);
}

uint32_t AaCpuAtomicDec(TAaCpuAtomic* atomic) {
  OLM_CHECK_WORD(atomic);
  return __atomic_sub_fetch(atomic, 1u, __ATOMIC_SEQ_CST);
}

uint32_t AaCpuAtomicSwap(TAaCpuAtomic* atomic, uint32_t value) {
  OLM_CHECK_WORD(atomic);
  return __atomic_exchange_n(atomic, value, __ATOMIC_SEQ_CST);
}

uint32_t AaCpuAtomicCompareAndSwap(TAaCpuAtomic* atomic, uint32_t expected, uint32_t desired) {
  OLM_CHECK_WORD(atomic);
  // A failed exchange writes the value found into expected.
  __atomic_compare_exchange_n(atomic, &expected, desired, false, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST);
  return expected;
}

uint32_t AaCpuAtomicAnd(TAaCpuAtomic* atomic, uint32_t mask) {
  OLM_CHECK_WORD(atomic);
  return __atomic_fetch_and(atomic, mask, __ATOMIC_SEQ_CST);
}

uint32_t AaCpuAtomicOr(TAaCpuAtomic* atomic, uint32_t mask) {
  OLM_CHECK_WORD(atomic);
  return __atomic_fetch_or(atomic, mask, __ATOMIC_SEQ_CST);
}

uint32_t AaCpuAtomicXor(TAaCpuAtomic* atomic, uint32_t mask) {
  OLM_CHECK_WORD(atomic);
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
