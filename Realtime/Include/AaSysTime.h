/* System time: the processor tick counter, wall-clock time, and system timers in microseconds.
 *
 * System timers run on the Dispatcher's LTE timer queue, so they share its sixteen entries and its
 * resolution of one basic time unit (1/30.72 MHz). */
#ifndef OLM_AASYSTIME_H
#define OLM_AASYSTIME_H

#include <stdint.h>

#include "OlmApi.h"

OLM_API_BEGIN

#ifdef __cplusplus
extern "C" {
#endif

typedef enum EAaSysTimeRetVal {
  EAaSysTimeRetVal_Ok = 0,
  EAaSysTimeRetVal_Error = 1,           /* the clock or the conversion failed */
  EAaSysTimeRetVal_InvalidParameter = 2 /* a null pointer */
} EAaSysTimeRetVal;

typedef uint32_t TAaSysTimerId; /* an LTE timer id; 0 is never valid */

/* Unix time as gettimeofday gives it. */
typedef struct SAaUnixTime {
  uint32_t seconds;
  uint32_t microseconds;
} SAaUnixTime;

/* Calendar time. */
typedef struct SAaTime {
  uint32_t year;        /* full year, e.g. 2024 */
  uint32_t month;       /* 1..12 */
  uint32_t day;         /* 1..31 */
  uint32_t hour;        /* 0..23 */
  uint32_t minute;      /* 0..59 */
  uint32_t second;      /* 0..60 (leap second) */
  uint32_t millisecond; /* 0..999, truncated from the microseconds */
} SAaTime;

/* The processor's free-running tick count (low 32 bits). Safe from any thread. */
uint32_t AaTicksGet(void);
/* The processor's free-running tick count. Safe from any thread. */
uint64_t AaTicks64Get(void);
/* Ticks per second. Safe from any thread. */
uint32_t AaTickResolutionGet(void);

/* Returns 0; 1 when gettimeofday failed (logged); 2 for a null pointer (not logged). */
EAaSysTimeRetVal AaUnixTimeGet(SAaUnixTime* unixTime);
/* UTC calendar time. Returns 0; 1 on a clock or conversion failure; 2 for a null pointer. All
 * failures are logged. */
EAaSysTimeRetVal AaUtcTimeGet(SAaTime* timePtr);
/* Local calendar time. Returns 0; 1 on a clock or conversion failure; 2 for a null pointer. All
 * failures are logged. */
EAaSysTimeRetVal AaLocalTimeGet(SAaTime* timePtr);

/* Arms a message timer that first fires delayUs microseconds from now and then every periodUs
 * (0: once). The message passes to the runtime on success. Returns 0, or 2 when timerId or message
 * is null (logged). Without a Dispatcher the process aborts. */
EAaSysTimeRetVal AaSysTimermCreate(TAaSysTimerId* timerId, uint32_t delayUs, uint32_t periodUs,
                                   void* message);
/* Cancels a timer and destroys its message. Returns 0 (also for an unknown id), or 1 when there is
 * no Dispatcher. */
EAaSysTimeRetVal AaSysTimerDelete(TAaSysTimerId timerId);
/* Cancels a timer and hands its message to the caller; null for an unknown id or no Dispatcher. */
void* AaSysTimermDelete(TAaSysTimerId timerId);

/* Returns 0 at once: this runtime never sleeps on the Dispatcher's thread. */
EAaSysTimeRetVal AaSysTimeSleep(uint32_t duration, uint32_t unit);

/* The BTS clock: the platform's frame counter in bits 24 and up, the low 24 bits of its fine
 * position below. 0 when the clock cannot be read. */
uint64_t AaSysTimeBcnGet(void);

#ifdef __cplusplus
}

static_assert(sizeof(SAaUnixTime) == 8, "SAaUnixTime is two 32-bit words");
static_assert(sizeof(SAaTime) == 28, "SAaTime is seven 32-bit words");
#endif

OLM_API_END

#endif /* OLM_AASYSTIME_H */
