/* The processor time base: the generic timer's counters and frequency.
 *
 * On ARM these are the real counter registers (CNTPCT, CNTVCT, CNTFRQ). On x86 they are the
 * invariant time-stamp counter at half its rate, with the rate measured once (the first frequency
 * read may wait up to 20 ms from the library's load). Elsewhere, where x86 has no invariant
 * counter, and in ARM builds made for user-mode emulation (which refuses the 32-bit coprocessor
 * reads), they come from the monotonic clock at 1 GHz. Both counters are the same count outside
 * ARM. Safe from any thread. */
#ifndef OLM_AACPUTIMEBASE_H
#define OLM_AACPUTIMEBASE_H

#include <stdint.h>

#include "OlmApi.h"

OLM_API_BEGIN

#ifdef __cplusplus
extern "C" {
#endif

/* The physical count (CNTPCT). */
uint64_t AaCpuTimeBasePhysicalCountGet(void);
/* The virtual count (CNTVCT). */
uint64_t AaCpuTimeBaseVirtualCountGet(void);
/* Counts per second (CNTFRQ). */
uint32_t AaCpuTimeBaseFrequencyGet(void);

#ifdef __cplusplus
}
#endif

OLM_API_END

#endif /* OLM_AACPUTIMEBASE_H */
