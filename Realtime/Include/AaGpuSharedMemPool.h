/* A pool of fixed-size blocks in one named POSIX shared-memory object, used by several processes at
 * once: each creates or opens the pool by name, maps it at an address of its own, and allocates and
 * frees blocks concurrently with the others. Block size and count are fixed when the pool is
 * created.
 *
 * Ownership. Every allocated block records its owner: the allocating process, named by its pid and
 * its start time (so a reused pid is never mistaken for the owner). Any process may free any
 * allocated block, since blocks travel between processes; a process that receives a block and keeps
 * it takes it over with AaGpuSharedMemPool_Adopt. When a process dies holding blocks, they stay
 * allocated until they are reclaimed: AaGpuSharedMemPool_Reclaim frees every block whose owner has
 * ended, and AaGpuSharedMemPool_Alloc does the same once by itself before it reports the pool dry.
 * A block still in use by another process whose owner died (one it never adopted) is reclaimed too:
 * adopt what you keep. All users of a pool must share one pid namespace.
 *
 * A process dying anywhere, also inside an allocation or a free, leaves the pool consistent: a block
 * changes hands with one atomic compare-and-swap of its owner word, so it is at every moment either
 * free or owned by a process, never half taken, and there is no lock to be left held. A creator
 * dying while it initialises the pool leaves an object that opens refuse (Mismatch) and that the
 * next AaGpuSharedMemPool_Create initialises afresh.
 *
 * Blocks are addressed by pointers in the calling process only; between processes pass the block's
 * index (AaGpuSharedMemPool_BlockIndex, AaGpuSharedMemPool_BlockAddress), never a pointer.
 *
 * Threads: every function may be called from any thread of any process, concurrently, except that
 * a handle must not be used after, or while, AaGpuSharedMemPool_Close runs on it. A free
 * happens-before the allocation that hands the same block out again (release/acquire), so the next
 * owner sees everything written to the block before it was freed.
 *
 * Refused calls are logged with AaSysLogPrintE at error severity, feature AASYSLOG_FEATURE_NONE, the
 * text starting with the function's name and "(): ". */
#ifndef OLM_AAGPUSHAREDMEMPOOL_H
#define OLM_AAGPUSHAREDMEMPOOL_H

#include <stdint.h>

#include "OlmApi.h"

OLM_API_BEGIN

#ifdef __cplusplus
extern "C" {
#endif

/* A process's handle of a mapped pool. */
typedef struct SAaGpuSharedMemPool SAaGpuSharedMemPool;

typedef enum EAaGpuSharedMemPoolRet {
  EAaGpuSharedMemPoolRet_Ok = 0,
  EAaGpuSharedMemPoolRet_InvalidParameter = 1, /* null pointer, empty name, zero or too large size or count */
  EAaGpuSharedMemPoolRet_NotFound = 2,         /* no object of that name */
  EAaGpuSharedMemPoolRet_Mismatch = 3,         /* the object is no pool of this layout, was not completely
                                                  initialised, or has another block size or count */
  EAaGpuSharedMemPoolRet_SystemError = 4,      /* a system call failed (its errno is logged) */
  EAaGpuSharedMemPoolRet_ForeignBlock = 5,     /* the pointer is no block of this pool */
  EAaGpuSharedMemPoolRet_NotAllocated = 6      /* the block is free: a double free */
} EAaGpuSharedMemPoolRet;

/* What a pool holds now. */
typedef struct SAaGpuSharedMemPoolInfo {
  uint32_t blockSize;     /* bytes usable in each block, as created */
  uint32_t blockCount;
  uint32_t freeBlocks;    /* a snapshot: other processes may change it at once */
  uint32_t ownedBlocks;   /* of these allocated, the ones the calling process owns */
} SAaGpuSharedMemPoolInfo;

/* Creates the pool name of blockCount blocks of blockSize bytes, or opens it when it exists with
 * the same block size and count, and writes the handle to *pool. Blocks are aligned to 16 bytes
 * (blockSize is rounded up to a multiple of 16 between blocks). The object is created with mode
 * 0666 less the umask; name is as shm_open takes it. Returns:
 *   0  *pool set
 *   1  pool is null, name null or empty, blockSize or blockCount 0, or the pool would exceed the
 *      address space (above 1 GiB in a 32-bit process, 1 TiB in a 64-bit one)
 *   3  the object exists with another block size or count, or is no pool
 *   4  shm_open, flock, fstat, ftruncate or mmap failed
 * On failure *pool is untouched. */
EAaGpuSharedMemPoolRet AaGpuSharedMemPool_Create(const char* name, uint32_t blockSize, uint32_t blockCount,
                                                 SAaGpuSharedMemPool** pool);

/* Opens the existing pool name and writes the handle to *pool. Waits while a creator is still
 * initialising it. Returns 0; 1 for a null pool or a null or empty name; 2 when there is no such
 * object; 3 when the object is no completely initialised pool of this layout; 4 when shm_open,
 * flock, fstat or mmap failed. */
EAaGpuSharedMemPoolRet AaGpuSharedMemPool_Open(const char* name, SAaGpuSharedMemPool** pool);

/* Unmaps the pool and ends the handle. The blocks the process owns stay allocated and owned by it
 * (they are reclaimed once the process has ended). Returns 0, or 1 (logged) for a null pool. */
EAaGpuSharedMemPoolRet AaGpuSharedMemPool_Close(SAaGpuSharedMemPool* pool);

/* Removes the pool's name; processes that have it open keep using it, and the memory goes with the
 * last of them. Returns 0; 1 (logged) for a null or empty name; 2 (logged) when there is no such
 * object; 4 (logged) when shm_unlink failed otherwise. */
EAaGpuSharedMemPoolRet AaGpuSharedMemPool_Remove(const char* name);

/* A free block, now owned by the calling process; its contents are what its last owner left.
 * When none is free, blocks of ended owners are reclaimed first (as AaGpuSharedMemPool_Reclaim).
 * Null when the pool is null (logged) or no block is free even then (not logged: a dry pool is
 * the caller's to report). Lock-free; the search starts where the last allocation of any process
 * ended, so it is short while a fair share of the blocks is free and scans the whole pool only
 * when it is nearly dry. */
void* AaGpuSharedMemPool_Alloc(SAaGpuSharedMemPool* pool);

/* Frees an allocated block of the pool, whoever owns it. Returns 0; 1 (logged) for a null pool or
 * block; 5 (logged) when block is not the start of a block of this pool (another pool's, an
 * address inside a block, any other pointer); 6 (logged) when the block is free already, or was
 * freed by another caller during this one (a double free). A refused free changes nothing. */
EAaGpuSharedMemPoolRet AaGpuSharedMemPool_Free(SAaGpuSharedMemPool* pool, void* block);

/* Makes the calling process the owner of an allocated block, so that the block survives its
 * previous owner's end. Returns 0, or 1, 5, 6 (logged) as AaGpuSharedMemPool_Free. */
EAaGpuSharedMemPoolRet AaGpuSharedMemPool_Adopt(SAaGpuSharedMemPool* pool, void* block);

/* Frees every allocated block whose owner process has ended, and returns how many (0 for a null
 * pool, logged). Reads /proc once per distinct owner: not for a hot path. */
uint32_t AaGpuSharedMemPool_Reclaim(SAaGpuSharedMemPool* pool);

/* The index (0 .. blockCount - 1) of a block of the pool, to pass to another process; 0xFFFFFFFF
 * (logged) for a null pool or a pointer that is no block of the pool. */
uint32_t AaGpuSharedMemPool_BlockIndex(SAaGpuSharedMemPool* pool, const void* block);

/* The address in the calling process of the block with that index, allocated or not; null (logged)
 * for a null pool or an index out of range. */
void* AaGpuSharedMemPool_BlockAddress(SAaGpuSharedMemPool* pool, uint32_t index);

/* Fills *info. Returns 0, or 1 (logged) for a null pool or info. Counts the blocks one by one:
 * not for a hot path. */
EAaGpuSharedMemPoolRet AaGpuSharedMemPool_InfoGet(SAaGpuSharedMemPool* pool, SAaGpuSharedMemPoolInfo* info);

#ifdef __cplusplus
}

static_assert(sizeof(SAaGpuSharedMemPoolInfo) == 16, "SAaGpuSharedMemPoolInfo is four 32-bit words");
#endif

OLM_API_END

#endif /* OLM_AAGPUSHAREDMEMPOOL_H */
