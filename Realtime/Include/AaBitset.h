/* Fixed-size bitsets.
 *
 * A bitset holds a number of bits fixed when it is made, numbered from 0, all clear at first. It
 * lives either in memory the caller provides (AaBitsetInit: static memory, part of a larger
 * structure, shared memory) or in one block allocated by AaBitsetCreate; nothing is allocated
 * afterwards. It holds no pointer, so a bitset in shared memory works at whatever address each
 * process maps it (processes of the same word size: the bits are kept in words as wide as a
 * pointer, 32 bits on 32-bit ARM, 64 on 64-bit processors, and the searches take a word a step).
 *
 * Not thread-safe: callers that share a bitset serialise their calls (an AaCpuSpinLock beside it,
 * for instance). Argument errors and a failed allocation are logged with AaSysLogPrintE (feature
 * AASYSLOG_FEATURE_NONE, the text starting with the function's name) and returned; a search that
 * finds nothing is not logged. */
#ifndef OLM_AABITSET_H
#define OLM_AABITSET_H

#include <stddef.h>
#include <stdint.h>

#include "OlmApi.h"

OLM_API_BEGIN

#ifdef __cplusplus
extern "C" {
#endif

typedef enum EAaBitsetRet {
  EAaBitsetRet_Ok = 0,
  EAaBitsetRet_InvalidParameter = 1, /* null pointer, bit out of range, unusable memory; logged */
  EAaBitsetRet_NotFound = 2,         /* a search found no such bit; not logged */
  EAaBitsetRet_NoMemory = 3          /* AaBitsetCreate could not allocate; logged */
} EAaBitsetRet;

typedef struct SAaBitset SAaBitset;

/* Bytes a bitset of bitCount bits needs in AaBitsetInit: a small header and the bits rounded up
 * to whole words. 0 for a bitCount of 0, which is refused. */
size_t AaBitsetMemorySize(uint32_t bitCount);

/* Make a bitset of bitCount bits, all clear, in memory: at least AaBitsetMemorySize(bitCount)
 * bytes, aligned as a pointer, which stays the caller's (AaBitsetDestroy refuses it). *bitset is
 * the bitset, which starts at memory. Returns EAaBitsetRet_Ok, or EAaBitsetRet_InvalidParameter
 * (null memory or bitset, bitCount 0, size too small, memory misaligned; *bitset is untouched). */
EAaBitsetRet AaBitsetInit(void* memory, size_t size, uint32_t bitCount, SAaBitset** bitset);

/* As AaBitsetInit in one block allocated for it. Returns EAaBitsetRet_Ok,
 * EAaBitsetRet_InvalidParameter (null bitset, bitCount 0) or EAaBitsetRet_NoMemory. */
EAaBitsetRet AaBitsetCreate(uint32_t bitCount, SAaBitset** bitset);

/* Free a bitset made by AaBitsetCreate. Returns EAaBitsetRet_Ok or EAaBitsetRet_InvalidParameter
 * (null, or made by AaBitsetInit in the caller's memory, which is left alone). */
EAaBitsetRet AaBitsetDestroy(SAaBitset* bitset);

/* Set or clear one bit. Return EAaBitsetRet_Ok or EAaBitsetRet_InvalidParameter (null bitset,
 * bit not below the bit count). */
EAaBitsetRet AaBitsetSet(SAaBitset* bitset, uint32_t bit);
EAaBitsetRet AaBitsetClear(SAaBitset* bitset, uint32_t bit);

/* 1 if bit is set, 0 if it is clear, and 0 for a null bitset or a bit not below the bit count
 * (logged). */
uint32_t AaBitsetIsSet(const SAaBitset* bitset, uint32_t bit);

/* The lowest set (or clear) bit at or above startBit, in *bit. A startBit at or beyond the bit
 * count finds nothing, so a loop may go on from the bit found plus one. Return EAaBitsetRet_Ok,
 * EAaBitsetRet_NotFound (*bit untouched) or EAaBitsetRet_InvalidParameter (null bitset or bit). */
EAaBitsetRet AaBitsetFindFirstSet(const SAaBitset* bitset, uint32_t startBit, uint32_t* bit);
EAaBitsetRet AaBitsetFindFirstClear(const SAaBitset* bitset, uint32_t startBit, uint32_t* bit);

/* Set bits; 0 for a null bitset (logged). */
uint32_t AaBitsetCount(const SAaBitset* bitset);
/* The bit count the bitset was made with; 0 for a null bitset (logged). */
uint32_t AaBitsetSizeGet(const SAaBitset* bitset);

/* Clear or set every bit. Return EAaBitsetRet_Ok or EAaBitsetRet_InvalidParameter (null). */
EAaBitsetRet AaBitsetClearAll(SAaBitset* bitset);
EAaBitsetRet AaBitsetSetAll(SAaBitset* bitset);

#ifdef __cplusplus
}
#endif

OLM_API_END

#endif /* OLM_AABITSET_H */
