/* The BTS time synchronisation object: a 224-byte POSIX shared-memory object under a fixed name,
 * from which the runtime's CDMA time service reads the CDMA synchronisation mode and the
 * asynchronous time offset.
 *
 * On the board the platform provides it. On a development host nothing else does, so the host
 * replacement of libRHYDDAL.so creates it (with the defaults below) when a node attaches, and the
 * tool rhyddal-cdma-sync sets its words for every node of the host; the host keeps it under the
 * name rhyddal_host_shm_name gives for the fixed name (RhyddalHost.h). All words are 32 bits, host
 * order; the rest of the object is reserved and zero on a host. */
#ifndef RHYDDAL_BTS_TIME_SYNC_H
#define RHYDDAL_BTS_TIME_SYNC_H

#include <stdint.h>

#define RHYDDAL_BTS_TIME_SYNC_NAME "AASYSTIME_BTS_TIME_SYNC_BCN"

/* The CDMA synchronisation mode as the host's tool writes it; the runtime hands the word out as it
 * is. 0 is also what the runtime reports when it cannot map the object. */
#define RHYDDAL_CDMA_SYNC_MODE_UNKNOWN 0u
/* CDMA time runs in step with the system time reference: the asynchronous offset is not needed.
 * A host's radio clock is its own reference, so this is the host's default. */
#define RHYDDAL_CDMA_SYNC_MODE_SYNCHRONOUS 1u
/* CDMA time runs free of the reference; readers add the asynchronous offset. */
#define RHYDDAL_CDMA_SYNC_MODE_ASYNCHRONOUS 2u

/* The asynchronous time offset: AaCdmaTimeAsyncGet adds offset / 6510 to the CDMA time scaled by
 * 1536, so the offset counts in 1/6510 of that scaled unit. The host's default is 0. */
#define RHYDDAL_CDMA_ASYNC_OFFSET_DEFAULT 0u

typedef struct SRhyddalBtsTimeSync {
  uint32_t reserved0[43];
  uint32_t cdmaSyncMode;    /* word 43 */
  uint32_t cdmaAsyncOffset; /* word 44 */
  uint32_t reserved45[11];
} SRhyddalBtsTimeSync;

#define RHYDDAL_BTS_TIME_SYNC_BYTES 224u
#define RHYDDAL_BTS_TIME_SYNC_WORD_CDMA_SYNC_MODE 43u
#define RHYDDAL_BTS_TIME_SYNC_WORD_CDMA_ASYNC_OFFSET 44u

#ifdef __cplusplus
#include <cstddef>
static_assert(sizeof(SRhyddalBtsTimeSync) == RHYDDAL_BTS_TIME_SYNC_BYTES, "the object is 224 bytes");
static_assert(offsetof(SRhyddalBtsTimeSync, cdmaSyncMode) == 4 * RHYDDAL_BTS_TIME_SYNC_WORD_CDMA_SYNC_MODE &&
                  offsetof(SRhyddalBtsTimeSync, cdmaSyncMode) == 172,
              "the sync mode is word 43");
static_assert(offsetof(SRhyddalBtsTimeSync, cdmaAsyncOffset) == 4 * RHYDDAL_BTS_TIME_SYNC_WORD_CDMA_ASYNC_OFFSET &&
                  offsetof(SRhyddalBtsTimeSync, cdmaAsyncOffset) == 176,
              "the asynchronous offset is word 44");
#endif

#endif /* RHYDDAL_BTS_TIME_SYNC_H */
