/* FIFOs of free identifiers.
 *
 * An identifier FIFO hands out the identifiers of one range, first to first + count - 1: each
 * AaGpuIdFifo_Get takes the identifier that has been free longest, each AaGpuIdFifo_Put gives one
 * back to the end of the line. A fresh FIFO holds the whole range in ascending order. Taking the
 * oldest free identifier delays the reuse of a released one as long as possible, so a late
 * message about an object that is gone rarely finds a new object under its identifier. Every
 * operation takes constant time. The FIFO records which identifiers it holds, so a put of an
 * identifier it already holds (a double release) or of one outside its range is refused.
 *
 * AaGpuEuIdFifo_* is the same FIFO for 16-bit identifiers (TAaGpuEuId), such as the CPIDs an
 * application hands to the EUs it binds at run time, at half the memory per identifier.
 *
 * A FIFO lives either in memory the caller provides (_Init: static memory, part of a larger
 * structure, shared memory) or in one block allocated by _Create; nothing is allocated
 * afterwards. It holds no pointer, so a FIFO in shared memory works at whatever address each
 * process maps it (processes of the same word size). Not thread-safe: callers that share a FIFO
 * serialise their calls (an AaCpuSpinLock beside it, for instance). Argument errors, a put out of
 * range, a double put and a failed allocation are logged with AaSysLogPrintE (feature AASYSLOG_FEATURE_NONE, the text
 * starting with the function's name) and returned; an empty FIFO is not logged. */
#ifndef OLM_AAGPUIDFIFO_H
#define OLM_AAGPUIDFIFO_H

#include <stddef.h>
#include <stdint.h>

#include "OlmApi.h"

OLM_API_BEGIN

#ifdef __cplusplus
extern "C" {
#endif

/* The most identifiers one FIFO can hold: AAGPUIDFIFO_MAX_COUNT for AaGpuIdFifo (16 Mi, about
 * 66 MB), and the whole 16-bit range for AaGpuEuIdFifo. */
#define AAGPUIDFIFO_MAX_COUNT 0x1000000u
#define AAGPUEUIDFIFO_MAX_COUNT 0x10000u

typedef enum EAaGpuIdFifoRet {
  EAaGpuIdFifoRet_Ok = 0,
  EAaGpuIdFifoRet_InvalidParameter = 1, /* null pointer, bad range, unusable memory; logged */
  EAaGpuIdFifoRet_Empty = 2,            /* _Get: every identifier is taken; not logged */
  EAaGpuIdFifoRet_OutOfRange = 3,       /* _Put: the identifier is not of the FIFO's range; logged */
  EAaGpuIdFifoRet_AlreadyFree = 4,      /* _Put: the FIFO holds the identifier already; logged */
  EAaGpuIdFifoRet_NoMemory = 5          /* _Create could not allocate; logged */
} EAaGpuIdFifoRet;

typedef struct SAaGpuIdFifo SAaGpuIdFifo;
typedef struct SAaGpuEuIdFifo SAaGpuEuIdFifo;
typedef uint16_t TAaGpuEuId;

/* Bytes a FIFO of count identifiers needs in _Init: a small header, a bit per identifier and the
 * line of identifiers. 0 for a count of 0 or above the maximum, which is refused. */
size_t AaGpuIdFifo_MemorySize(uint32_t count);

/* Make a FIFO of the identifiers firstId to firstId + count - 1, all free, in memory: at least
 * AaGpuIdFifo_MemorySize(count) bytes, aligned as a pointer, which stays the caller's (_Destroy
 * refuses it). *fifo is the FIFO, which starts at memory. Returns EAaGpuIdFifoRet_Ok or
 * EAaGpuIdFifoRet_InvalidParameter (null memory or fifo, count 0 or above AAGPUIDFIFO_MAX_COUNT,
 * a range beyond UINT32_MAX, size too small, memory misaligned; *fifo is untouched). */
EAaGpuIdFifoRet AaGpuIdFifo_Init(void* memory, size_t size, uint32_t firstId, uint32_t count, SAaGpuIdFifo** fifo);

/* As AaGpuIdFifo_Init in one block allocated for it. Returns EAaGpuIdFifoRet_Ok,
 * EAaGpuIdFifoRet_InvalidParameter (null fifo, bad count or range) or EAaGpuIdFifoRet_NoMemory. */
EAaGpuIdFifoRet AaGpuIdFifo_Create(uint32_t firstId, uint32_t count, SAaGpuIdFifo** fifo);

/* Free a FIFO made by AaGpuIdFifo_Create. Returns EAaGpuIdFifoRet_Ok or
 * EAaGpuIdFifoRet_InvalidParameter (null, or made by _Init in the caller's memory, left alone). */
EAaGpuIdFifoRet AaGpuIdFifo_Destroy(SAaGpuIdFifo* fifo);

/* Take the identifier that has been free longest into *id. Returns EAaGpuIdFifoRet_Ok,
 * EAaGpuIdFifoRet_Empty (*id untouched) or EAaGpuIdFifoRet_InvalidParameter (null fifo or id). */
EAaGpuIdFifoRet AaGpuIdFifo_Get(SAaGpuIdFifo* fifo, uint32_t* id);

/* Give id back; it becomes the last to be taken again. Returns EAaGpuIdFifoRet_Ok,
 * EAaGpuIdFifoRet_OutOfRange, EAaGpuIdFifoRet_AlreadyFree (the FIFO is unchanged in both) or
 * EAaGpuIdFifoRet_InvalidParameter (null fifo). */
EAaGpuIdFifoRet AaGpuIdFifo_Put(SAaGpuIdFifo* fifo, uint32_t id);

/* Free identifiers in the FIFO; 0 for a null fifo (logged). */
uint32_t AaGpuIdFifo_Count(const SAaGpuIdFifo* fifo);

/* 1 if the FIFO holds id (it is free), 0 if it is taken or not of the FIFO's range, and 0 for a
 * null fifo (logged). */
uint32_t AaGpuIdFifo_IsFree(const SAaGpuIdFifo* fifo, uint32_t id);

/* The same for 16-bit identifiers: count is at most AAGPUEUIDFIFO_MAX_COUNT and the range ends at
 * 0xFFFF at the latest. Results as their AaGpuIdFifo_* counterparts. */
size_t AaGpuEuIdFifo_MemorySize(uint32_t count);
EAaGpuIdFifoRet AaGpuEuIdFifo_Init(void* memory, size_t size, TAaGpuEuId firstId, uint32_t count,
                                   SAaGpuEuIdFifo** fifo);
EAaGpuIdFifoRet AaGpuEuIdFifo_Create(TAaGpuEuId firstId, uint32_t count, SAaGpuEuIdFifo** fifo);
EAaGpuIdFifoRet AaGpuEuIdFifo_Destroy(SAaGpuEuIdFifo* fifo);
EAaGpuIdFifoRet AaGpuEuIdFifo_Get(SAaGpuEuIdFifo* fifo, TAaGpuEuId* id);
EAaGpuIdFifoRet AaGpuEuIdFifo_Put(SAaGpuEuIdFifo* fifo, TAaGpuEuId id);
uint32_t AaGpuEuIdFifo_Count(const SAaGpuEuIdFifo* fifo);
uint32_t AaGpuEuIdFifo_IsFree(const SAaGpuEuIdFifo* fifo, TAaGpuEuId id);

#ifdef __cplusplus
}
#endif

OLM_API_END

#endif /* OLM_AAGPUIDFIFO_H */
