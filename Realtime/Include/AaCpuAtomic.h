/* Atomic operations on 32-bit words.
 *
 * Each function acts on one 32-bit word, which may be shared by threads of one process or, in
 * shared memory, by several processes. The word may be any uint32_t, volatile or not, and need not
 * be declared TAaCpuAtomic; it must be accessed only through these functions while it is shared.
 *
 * Memory ordering:
 * - every read-modify-write function (Add, Sub, Inc, Dec, Swap, CompareAndSwap, And, Or, Xor) is
 *   a full barrier: sequentially consistent, so no load or store of the caller moves across it in
 *   either direction, and all threads see all of these operations in one order;
 * - AaCpuAtomicLoad is an acquire load: what the thread reads or writes after it stays after it;
 * - AaCpuAtomicStore is a release store: what the thread read or wrote before it stays before it.
 *   A store followed by a load of another word may still be reordered (a plain store and load are,
 *   on every processor the runtime runs on); put AaCpuAtomicMemoryBarrier between them, or use
 *   AaCpuAtomicSwap for the store, where the order matters.
 *
 * A word pointer that is null or not 4-byte aligned (such a word is not atomic: on ARM the
 * exclusive accesses fault, on x86 it is atomic only by accident) is refused: the function logs
 * "<function>(): atomic <pointer> is null or not 4-byte aligned" with AaSysLogPrintE (error,
 * feature 0xFFFF), touches nothing and returns 0; AaCpuAtomicCompareAndSwap returns ~expected,
 * so that its caller sees a failed exchange. The check is one test of the pointer's low bits beside
 * an instruction that orders memory.
 *
 * Safe from any thread and from signal handlers (no function takes a lock or allocates; only the
 * refusal of a bad pointer logs). */
#ifndef OLM_AACPUATOMIC_H
#define OLM_AACPUATOMIC_H

#include <stdint.h>

#include "OlmApi.h"

OLM_API_BEGIN

#ifdef __cplusplus
extern "C" {
#endif

/* A 32-bit word shared between threads or processes. */
typedef volatile uint32_t TAaCpuAtomic;

/* The value of *atomic. Acquire. */
uint32_t AaCpuAtomicLoad(const TAaCpuAtomic* atomic);
/* Set *atomic to value. Release. No result. */
void AaCpuAtomicStore(TAaCpuAtomic* atomic, uint32_t value);

/* Add value to *atomic, wrapping modulo 2^32. Return the new value. Full barrier. */
uint32_t AaCpuAtomicAdd(TAaCpuAtomic* atomic, uint32_t value);
/* Subtract value from *atomic, wrapping modulo 2^32. Return the new value. Full barrier. */
uint32_t AaCpuAtomicSub(TAaCpuAtomic* atomic, uint32_t value);
/* As AaCpuAtomicAdd and AaCpuAtomicSub, but return the value before the change. Full barrier. */
uint32_t AaCpuAtomicFetchAdd(TAaCpuAtomic* atomic, uint32_t value);
uint32_t AaCpuAtomicFetchSub(TAaCpuAtomic* atomic, uint32_t value);
/* Add or subtract 1, wrapping. Return the new value (so 0 from AaCpuAtomicDec means the count has
 * just dropped to zero). Full barrier. */
uint32_t AaCpuAtomicInc(TAaCpuAtomic* atomic);
uint32_t AaCpuAtomicDec(TAaCpuAtomic* atomic);

/* Set *atomic to value. Return the value before. Full barrier. */
uint32_t AaCpuAtomicSwap(TAaCpuAtomic* atomic, uint32_t value);
/* If *atomic equals expected, set it to desired. Return the value *atomic held before: it equals
 * expected exactly when desired was written. Full barrier, also when nothing was written. */
uint32_t AaCpuAtomicCompareAndSwap(TAaCpuAtomic* atomic, uint32_t expected, uint32_t desired);

/* *atomic = *atomic & mask, | mask or ^ mask. Return the value before, so the caller sees which
 * of the mask's bits were set: AaCpuAtomicOr(word, bit) & bit is 0 for the one caller that set
 * the bit. Full barrier. */
uint32_t AaCpuAtomicAnd(TAaCpuAtomic* atomic, uint32_t mask);
uint32_t AaCpuAtomicOr(TAaCpuAtomic* atomic, uint32_t mask);
uint32_t AaCpuAtomicXor(TAaCpuAtomic* atomic, uint32_t mask);

/* A full memory barrier: no load or store of the calling thread moves across it, in either
 * direction, store-to-load included. No result. */
void AaCpuAtomicMemoryBarrier(void);

#ifdef __cplusplus
}
#endif

OLM_API_END

#endif /* OLM_AACPUATOMIC_H */
