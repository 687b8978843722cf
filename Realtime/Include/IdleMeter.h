/* The idle meter: the node's CPU load as the Dispatcher sees it, measured periodically by the
 * statistics EU (CPID 0x610) on the Dispatcher's own timer queue.
 *
 * Each measurement takes the busy share of the Dispatcher loop's time since the meter was started
 * or the load was last read: ticks of busy loop iterations / (those + ticks of idle iterations),
 * in hundredths of a percent (10000 = 100 %). Idle iterations are counted up to the moment the
 * loop starts waiting for events; the wait itself is not counted.
 *
 * Threads: only on the Dispatcher's thread, i.e. from an EU's callbacks or its EuMain. Every
 * function needs the Dispatcher: without one the process ends with the assertion
 * "theDispatcher != 0". Failures are reported on standard output; none reaches the caller. */
#ifndef OLM_IDLEMETER_H
#define OLM_IDLEMETER_H

#include <stdint.h>

#include "OlmApi.h"

OLM_API_BEGIN

#ifdef __cplusplus
extern "C" {
#endif

/* Starts measuring every milliseconds (0 means 10), the first measurement at once. Longer
 * periods are cut to 0xA00000 ms, and a period of 0xA00000 ms (one whole LTE time cycle) is too
 * long for the timer queue: asking for 0xA00000 ms or more ends the process with the assertion
 * "m_samples < MaxSamples". This limit is deliberate; ask for less.
 * Resets the minimum to 10000 and the maximum to 0. Prints "OLMLite IdleMeterStart is called before
 * meter being closed." and changes nothing while the meter runs; prints "Failed to alloc stats
 * meter timer msg." when no message buffer is to be had. */
void IdleMeterStart(uint32_t milliseconds);

/* Stops the meter; nothing when it is not running. The last load, minimum and maximum stay
 * readable. */
void IdleMeterStop(void);

/* The load measured last, or 10000 when nothing was measured since the previous call, and the
 * minimum and maximum measured since the meter was started (10000 and 0 before the first
 * measurement). Starts the next averaging period: the next measurement covers the time from this
 * call on. With a null pointer prints "IdleMeter : input param null. " and writes nothing. */
void IdleMeterGetCpuLoad(uint32_t* load, uint32_t* minLoad, uint32_t* maxLoad);

/* Kept for callers of an older interface; always 0. */
uint32_t IdleMeterGetCycleCounter(void);

#ifdef __cplusplus
}
#endif

OLM_API_END

#endif /* OLM_IDLEMETER_H */
