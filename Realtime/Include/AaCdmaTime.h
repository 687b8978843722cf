/* CDMA time: the node's CDMA time from the radio's timing hardware, the asynchronous form with the
 * platform's offset, the CDMA synchronisation mode, and the state of the cdma2000 1xRTT long-code
 * generator at a given time.
 *
 * The synchronisation mode and the asynchronous offset are words of the platform's BTS time
 * synchronisation object, a shared-memory object the first call that needs it maps (with
 * OpenAndMapShmObj, AaGpuSharedMem.h) and keeps mapped for the life of the process. A failed
 * mapping is tried again on the next call, so a node started before the platform has created the
 * object picks it up once it exists. On a development host our platform library creates it, and
 * rhyddal-cdma-sync sets its words (Platform/Host/README.md).
 *
 * The time functions run on the Dispatcher's thread; AaCdmaLongCodeState1XRTT may be called from
 * any thread. */
#ifndef OLM_AACDMATIME_H
#define OLM_AACDMATIME_H

#include <stdint.h>

#include "OlmApi.h"

OLM_API_BEGIN

#ifdef __cplusplus
extern "C" {
#endif

typedef enum EAaCdmaTimeRetVal {
  EAaCdmaTimeRetVal_Ok = 0,
  EAaCdmaTimeRetVal_NoTimeObject = 1,    /* the BTS time synchronisation object cannot be mapped */
  EAaCdmaTimeRetVal_InvalidParameter = 2 /* a null time pointer */
} EAaCdmaTimeRetVal;

/* The CDMA time from the Dispatcher's time source: the counter of the timing hardware with the
 * 12-bit fraction ((fractionHigh << 10) | fractionLow) & 0xFFF below it, in the low 40 bits of
 * *cdmaTime (in simulation mode, what the platform's clock call gives). Returns 0; 2 (logged) when
 * cdmaTime is null. Without a Dispatcher the process aborts ("theDispatcher != 0"). */
EAaCdmaTimeRetVal AaCdmaTimeGet(uint64_t* cdmaTime, uint32_t fractionHigh, uint32_t fractionLow);

/* The asynchronous CDMA time: the asynchronous offset is read first, then AaCdmaTimeGet; a time of
 * 0 (no time) is left at 0, any other becomes time * 1536 + offset / 6510 (integer division,
 * modulo 2^64). Returns 0; 1 when the synchronisation object cannot be mapped (nothing is read,
 * *cdmaTime is untouched; the mapping failure is logged by OpenAndMapShmObj); 2 (logged) when
 * cdmaTime is null. Without a Dispatcher the process aborts, as in AaCdmaTimeGet. */
EAaCdmaTimeRetVal AaCdmaTimeAsyncGet(uint64_t* cdmaTime, uint32_t fractionHigh, uint32_t fractionLow);

/* The CDMA synchronisation mode, word 43 of the synchronisation object as the platform wrote it
 * (on a host: 1 synchronous, 2 asynchronous, see RhyddalBtsTimeSync.h); 0 when the object cannot
 * be mapped. */
uint32_t AaCdmaSyncModeGet(void);

/* The 42-bit state of the cdma2000 1xRTT long-code generator (characteristic polynomial x^42 + x^35
 * + x^33 + x^31 + x^27 + x^26 + x^25 + x^22 + x^21 + x^19 + x^18 + x^17 + x^16 + x^10 + x^7 + x^6
 * + x^5 + x^3 + x^2 + x + 1) at time t: x^(41 + e) modulo the polynomial, where e = (t * 12288
 * modulo 2^64) modulo (2^42 - 1), as a polynomial over GF(2) with bit i the coefficient of x^i. So
 * t = 0, and every t with t * 12288 a multiple of 2^42 - 1, gives 0x20000000000. */
uint64_t AaCdmaLongCodeState1XRTT(uint64_t t);

#ifdef __cplusplus
}
#endif

OLM_API_END

#endif /* OLM_AACDMATIME_H */
