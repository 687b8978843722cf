/* Spin locks in one 32-bit word, for threads of one process or processes sharing memory.
 *
 * The lock word is 0 when the lock is free and holds the owner's Linux thread id (gettid) while
 * it is held. It contains no pointer, so a lock in shared memory works at whatever address each
 * process maps it, for processes of one PID namespace (thread ids are unique only there). Owning
 * by thread id lets the functions refuse an unlock by a thread that does not hold the lock and a
 * second lock by the holder (which would otherwise spin forever), and lets a diagnosis name the
 * thread holding a lock: AaCpuSpinLockOwnerGet. A lock whose owner died stays held; nothing frees
 * it behind anybody's back, since the data it protects may be half written.
 *
 * A spin lock is for short critical sections that neither sleep nor block. A waiter polls the
 * word without writing it (it tries to take the lock only when it reads 0), with the processor's
 * spin-wait hint between polls (x86 "pause", ARM "yield"); after
 * AACPUSPINLOCK_POLLS_BEFORE_YIELD polls it gives up the processor (sched_yield) between polls,
 * so that a holder preempted on the same processor can run.
 *
 * Memory ordering: taking the lock is an acquire, releasing it a release, so everything the
 * previous holder wrote before its unlock is seen by the next holder after its lock.
 *
 * The lock's thread ids are cached per thread; a child made by fork() gets its own. Every function
 * may be called from any thread. Argument errors are logged with AaSysLogPrintE (feature
 * AASYSLOG_FEATURE_NONE, the text starting with the function's name) and returned. */
#ifndef OLM_AACPUSPINLOCK_H
#define OLM_AACPUSPINLOCK_H

#include <stdint.h>

#include "OlmApi.h"

OLM_API_BEGIN

#ifdef __cplusplus
extern "C" {
#endif

/* Polls of a held lock with the spin-wait hint only, before a waiter also yields the processor. */
#define AACPUSPINLOCK_POLLS_BEFORE_YIELD 100u

/* A free lock, for static initialisation of an SAaCpuSpinLock. */
#define AACPUSPINLOCK_INITIALIZER {0}

typedef enum EAaCpuSpinLockRet {
  EAaCpuSpinLockRet_Ok = 0,
  EAaCpuSpinLockRet_InvalidParameter = 1, /* null or not 4-byte aligned lock; logged */
  EAaCpuSpinLockRet_Busy = 2,             /* another thread holds the lock; not logged */
  EAaCpuSpinLockRet_Deadlock = 3,         /* the calling thread holds the lock already; logged */
  EAaCpuSpinLockRet_NotOwner = 4          /* unlock by a thread that does not hold it; logged */
} EAaCpuSpinLockRet;

/* The lock. Touch owner only through these functions. A zeroed lock is a free lock, so a lock in
 * static or freshly mapped memory needs no AaCpuSpinLockInit. */
typedef struct SAaCpuSpinLock {
  volatile uint32_t owner; /* 0 free, else the holder's thread id */
} SAaCpuSpinLock;

/* Make lock free, whatever it held (only while no thread uses it).
 * Returns EAaCpuSpinLockRet_Ok or EAaCpuSpinLockRet_InvalidParameter. */
EAaCpuSpinLockRet AaCpuSpinLockInit(SAaCpuSpinLock* lock);

/* Take lock, waiting as long as it takes. Acquire.
 * Returns EAaCpuSpinLockRet_Ok (the caller holds the lock), EAaCpuSpinLockRet_InvalidParameter or
 * EAaCpuSpinLockRet_Deadlock (the caller held it already and still does). */
EAaCpuSpinLockRet AaCpuSpinLockLock(SAaCpuSpinLock* lock);

/* Take lock if it is free, without waiting. Acquire when it succeeds.
 * Returns EAaCpuSpinLockRet_Ok, EAaCpuSpinLockRet_Busy, EAaCpuSpinLockRet_InvalidParameter or
 * EAaCpuSpinLockRet_Deadlock. */
EAaCpuSpinLockRet AaCpuSpinLockTryLock(SAaCpuSpinLock* lock);

/* Take lock, reading it at most maxPolls times while another thread holds it (0: as
 * AaCpuSpinLockTryLock). A bound in polls rather than time keeps clock reads off the waiting path;
 * a poll takes tens of nanoseconds before AACPUSPINLOCK_POLLS_BEFORE_YIELD polls and a
 * sched_yield after. Acquire when it succeeds.
 * Returns EAaCpuSpinLockRet_Ok, EAaCpuSpinLockRet_Busy (still held after maxPolls polls),
 * EAaCpuSpinLockRet_InvalidParameter or EAaCpuSpinLockRet_Deadlock. */
EAaCpuSpinLockRet AaCpuSpinLockLockLimited(SAaCpuSpinLock* lock, uint32_t maxPolls);

/* Release lock, held by the caller. Release.
 * Returns EAaCpuSpinLockRet_Ok, EAaCpuSpinLockRet_InvalidParameter or EAaCpuSpinLockRet_NotOwner
 * (the lock is free or another thread holds it; it is left as it is). */
EAaCpuSpinLockRet AaCpuSpinLockUnlock(SAaCpuSpinLock* lock);

/* The thread id of lock's holder, 0 when it is free or lock is null or misaligned (logged). A
 * snapshot for diagnosis: the lock may change hands at once. Relaxed. */
uint32_t AaCpuSpinLockOwnerGet(const SAaCpuSpinLock* lock);

#ifdef __cplusplus
}
#endif

OLM_API_END

#endif /* OLM_AACPUSPINLOCK_H */
