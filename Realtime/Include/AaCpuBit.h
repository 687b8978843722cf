/* Byte-order reversal of 16-, 32- and 64-bit values.
 *
 * Every function works in place on memory the caller names, reverses the bytes of each value and
 * nothing else; none knows which order the data is in, so applying one twice restores the data.
 * Values need not be aligned: message payloads marked 2-byte aligned hand over fields at any even
 * address, and the functions read and write through byte copies. A null pointer or a count of 0
 * does nothing. Safe from any thread on memory that thread owns. */
#ifndef OLM_AACPUBIT_H
#define OLM_AACPUBIT_H

#include <stdint.h>

#include "OlmApi.h"

OLM_API_BEGIN

#ifdef __cplusplus
extern "C" {
#endif

/* Reverse the 2 bytes at value. No result. */
void AaCpuBitSwapByteOrder16(void* value);
/* Reverse the 4 bytes at value. No result. */
void AaCpuBitSwapByteOrder32(void* value);
/* Reverse the 8 bytes at value. No result. */
void AaCpuBitSwapByteOrder64(void* value);

/* Reverse each of count consecutive 16-, 32- or 64-bit values starting at first. No result. */
void AaCpuBitSwapMultiByteOrder16(void* first, uint32_t count);
void AaCpuBitSwapMultiByteOrder32(void* first, uint32_t count);
void AaCpuBitSwapMultiByteOrder64(void* first, uint32_t count);

/* Copy count 32-bit words from source to destination, reversing the bytes of each. The two ranges
 * are either the same (a plain in-place swap) or do not overlap at all. No result. */
void AaCpuBitCopySwapMultiByteOrder32(void* destination, const void* source, uint32_t count);

#ifdef __cplusplus
}
#endif

OLM_API_END

#endif /* OLM_AACPUBIT_H */
