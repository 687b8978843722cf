/* Memory: reference-counted heap blocks, and an allocation trace for finding leaks on a running node.
 *
 * A block is a prefix followed by the caller's bytes; the caller gets the address after the
 * prefix. The last 8 bytes of the prefix are two 32-bit words, the magic AAMEM_BLOCK_MAGIC and
 * the reference count (1 after allocation), so the 8 bytes before a block's address identify it
 * on every word size. The prefix is 8 bytes on 32-bit targets and 16 on 64-bit ones, where the
 * heap and operator new hand out 16-byte aligned memory; blocks keep the heap's alignment.
 *
 * The library's global operator new and operator delete (every form but the align_val_t ones) are
 * these blocks: new is AaMemMalloc, delete releases one reference. Memory from new may be passed
 * to AaMemRef, and a block from AaMemMalloc may be deleted, but AaMemRef on a block whose owner
 * deletes it later only delays the free: delete releases one reference like AaMemUnRef.
 *
 * Allocation trace. While glo_AllocTraceEnabled is 1, every allocation is entered in a table of
 * AAMEM_ALLOC_TABLE_SIZE live blocks with its size, time and call stack, its bytes are filled with
 * the word AAMEM_TRACE_FILL_WORD (so that words never written can be counted), and every release
 * removes its block. SIGUSR2 switches tracing on and off, SIGUSR1 appends the table to
 * "<root>/OLMLiteMemActiveAllocks_<own node id in hex>.log", <root> being /ram or the directory
 * OLM_RAM_ROOT names. The hosting executable's start-up installs both handlers. The table is a
 * diagnostic: allocations from several threads at once can leave it inconsistent (see
 * AaMemMalloc), and tracing costs a call-stack walk per allocation and a search of the table per
 * allocation and release.
 *
 * Threads: every function may be called from any thread; reference counts change atomically.
 * Diagnostics go to standard error with write(2): the memory service cannot log through services
 * that allocate. */
#ifndef OLM_AAMEM_H
#define OLM_AAMEM_H

#include <stdint.h>

#include "OlmApi.h"

#ifdef __cplusplus
#include <new>
#endif

OLM_API_BEGIN

#ifdef __cplusplus
extern "C" {
#endif

/* A memory pool's identifier; this runtime has one heap and ignores it. */
typedef uint32_t TAaMemPoolId;

/* The first of the two words before a block's address. */
#define AAMEM_BLOCK_MAGIC 0xBEEFu
/* Bytes between the heap's memory and the block's address. */
#if UINTPTR_MAX > 0xFFFFFFFFu
#define AAMEM_BLOCK_PREFIX_SIZE 16u
#else
#define AAMEM_BLOCK_PREFIX_SIZE 8u
#endif
/* Live blocks the allocation trace can hold. */
#define AAMEM_ALLOC_TABLE_SIZE 4096
/* Bytes of a call-stack text of the trace, terminating zero included. */
#define AAMEM_STACK_TRACE_SIZE 2048u
/* Return addresses a call-stack text shows at most. */
#define AAMEM_STACK_TRACE_MAX_FRAMES 16u
/* The word a traced block is filled with when allocated. */
#define AAMEM_TRACE_FILL_WORD 0x1234DEADu

/* The trace switch: 1 traces allocations, anything else does not. Written by the SIGUSR2 handler;
 * a tool may set it directly (it is read and written as a whole word). */
extern int32_t glo_AllocTraceEnabled;

/* Allocates a block of size bytes with reference count 1. Never returns null: when the heap has
 * nothing (or size plus the prefix exceeds the address space) the standard assertion
 * "Realtime/Services/AaMem/AaMem_Lite:237: void* AaMemMalloc(u32): Assertion `0' failed." ends
 * the process.
 *
 * Every call first initialises the trace table's process-shared semaphore to 1, whether tracing
 * or not (a failure writes "\nallocArraySem init failed\n" and the call goes on). This is how the
 * service has always behaved and is kept: a thread that allocates while another holds the
 * semaphore resets it, so traced allocations from several threads may overwrite each other's
 * table entries. With tracing on, the allocation is counted, the call stack taken
 * (getStackTrace) and the block entered in the table (addToMemAllocArr) under the semaphore. */
void* AaMemMalloc(uint32_t size);

/* AaMemMalloc(size); poolId is ignored. AaMemAllocSafe is the same function under a second name. */
void* AaMemAlloc(TAaMemPoolId poolId, uint32_t size);
void* AaMemAllocSafe(TAaMemPoolId poolId, uint32_t size);
/* AaMemMalloc(size); poolId is ignored. */
void* AaMemAllocSafeId(TAaMemPoolId poolId, uint32_t size);

/* Adds one reference to block when the magic is before it; anything else (null included) is left
 * alone without a word. */
void AaMemRef(void* block);

/* Releases one reference to the block *handle points to:
 *   - with tracing on, the block leaves the trace table, whatever its count (removeFromAllocArr);
 *   - a block without the magic is refused: "AaMemUnRef: Unknown memory pointer to free" on
 *     standard error, nothing freed, *handle left as it is;
 *   - the count drops by one, and the block (prefix included) goes back to the heap at 0;
 *   - *handle becomes null, also when other references remain.
 * A null handle or a null *handle does nothing. With tracing off, a block still in the table
 * (entered before tracing was switched off) leaves it silently, so that a later trace never
 * reads freed memory. */
void AaMemUnRef(void** handle);

/* SIGUSR1: appends the allocation trace to "<root>/OLMLiteMemActiveAllocks_%x.log" (own node id;
 * 0 without a Dispatcher):
 *     "Sum of memory allocations performed: %d, current time: %ld\n"
 * then one line per live table entry,
 *     "allocTime:%ld:addr:0x%p:sizeAlloc:%d:sizeUsed(RSS):%d:sizeUnused:%d:callStack:%s\n"
 * sizeUnused counting the block's words (size / 4) that still hold AAMEM_TRACE_FILL_WORD and
 * sizeUsed being the size in bytes minus that count of words (a mixed unit, kept as the node's
 * tools read it), and a line of 75 '='. Then "Check file \"%s\" for allocation trace\n" on
 * standard error. A file that cannot be opened is reported on standard error and nothing is
 * written. Async-signal-safe: open, write and formatting into stack buffers only. */
void signalSIGUSR1Handler(void);

/* SIGUSR2: toggles tracing. If glo_AllocTraceEnabled is not 1 it becomes 1 and "Allocation trace
 * enabled\n" goes to standard error, otherwise it becomes 0 with "Allocation trace disabled\n".
 * Async-signal-safe. */
void signalSIGUSR2Handler(void);

/* Writes the call stack of its caller into text (AAMEM_STACK_TRACE_SIZE bytes): at most
 * AAMEM_STACK_TRACE_MAX_FRAMES frames from getStackTrace itself outwards, each
 * "symbol+0xoffset (object+0xoffset)" followed by ';', stopping before the text would reach
 * AAMEM_STACK_TRACE_SIZE characters; always terminated (empty when the stack cannot be walked).
 * Never calls operator new, so the allocator can call it (see AaGpuHelpersBacktraceSymbols).
 * text must not be null. */
void getStackTrace(char* text);

/* The index of the trace table entry holding address, searching from entry 0 upwards; -1 with
 * "!!!!findAddrInAllocArr returns -1\n" on standard error when none does. address 0 marks a free
 * entry, so it finds the first free one. */
int32_t findAddrInAllocArr(uintptr_t address);

/* Fills block with AAMEM_TRACE_FILL_WORD (size / 4 whole words), then enters it in the first free
 * table entry with size, the current time in seconds since the epoch and up to
 * AAMEM_STACK_TRACE_SIZE - 1 characters of stack (null: empty). With no free entry nothing is
 * entered and "!!!!addToMemAllocArr - cant add elem. to table\n" goes to standard error. A null
 * block is neither filled nor entered ("addToMemAllocArr(): block is null\n"). The caller holds
 * the table semaphore (AaMemMalloc does). */
void addToMemAllocArr(void* block, uint32_t size, const char* stack);

/* Clears the address and size of the table entry holding block; when none does (null included),
 * "!!!!removeFromAllocArr - cant remove elem. from table\n" on standard error (after
 * findAddrInAllocArr's line). */
void removeFromAllocArr(void* block);

#ifdef __cplusplus
}

/* The extra forms of the library's operator new and delete, beside those <new> declares. The int
 * and the (file, line) pair are accepted for the callers that pass them and ignored: they
 * allocate with AaMemMalloc(size) and release with AaMemUnRef like the plain forms. */
void* operator new(std::size_t size, int poolId);
void* operator new[](std::size_t size, int poolId);
void* operator new(std::size_t size, const char* file, int line);
void* operator new[](std::size_t size, const char* file, int line);
void operator delete(void* block, int poolId) noexcept;
void operator delete[](void* block, int poolId) noexcept;
void operator delete(void* block, const char* file, int line) noexcept;
void operator delete[](void* block, const char* file, int line) noexcept;
#endif

OLM_API_END

#endif /* OLM_AAMEM_H */
