/* LTE air-interface time and LTE timers: the C interface for EU code.
 *
 * Time is counted in basic time units (BTU, 1/30.72 MHz): 15360 BTUs a slot, 20 slots a frame,
 * 1024 frames a hyper frame, 1024 hyper frames a cycle. All functions run on the Dispatcher's
 * thread (inside EU callbacks or start-up code). */
#ifndef OLM_AALTETIME_H
#define OLM_AALTETIME_H

#include <stdint.h>

#include "OlmApi.h"

OLM_API_BEGIN

#ifdef __cplusplus
extern "C" {
#endif

typedef uint32_t u32;
typedef uint32_t TAaLteBtsHyperFrameNr; /* 0..1023 */
typedef uint32_t TAaLteBtsFrameNr;      /* 0..1023 */
typedef uint32_t TAaLteBtsSubFrameNr;   /* 0..9 */
typedef uint32_t TAaLteBtsSlotNr;       /* 0..19 */
typedef uint32_t TAaLteBtsBasicTUNr;    /* 0..15359 */
typedef uint32_t TAaLteTimerId;         /* 0 is never a valid id */

typedef enum EAaLteTimeRetVal {
  EAaLteTimeRetVal_Ok = 0,
  EAaLteTimeRetVal_NoDispatcher = 1,
  EAaLteTimeRetVal_InvalidParameter = 2,
  EAaLteTimeRetVal_ClockUnreadable = 3, /* the time source could not read the radio clock */
  EAaLteTimeRetVal_Max = 0x7FFFFFFF
} EAaLteTimeRetVal;

typedef enum EAaLteMatchLevel {
  EAaLteMatchLevel_BasicTimeUnit = 0,
  EAaLteMatchLevel_Slot = 1,
  EAaLteMatchLevel_Frame = 2,
  EAaLteMatchLevel_HyperFrame = 3
} EAaLteMatchLevel;

typedef enum EAaLteTimePriority {
  EAaLteTimePriority_High = 0,
  EAaLteTimePriority_Medium = 1,
  EAaLteTimePriority_Low = 2
} EAaLteTimePriority;

typedef void (*TAaLteTimeFunctionPtr)(const void* argument, u32 argumentSize);

/* Timer type selector of AaLteTimerCreate. */
enum {
  EAaLteTimerType_CallbackMatch = 0,
  EAaLteTimerType_MessageMatch = 1,
  EAaLteTimerType_CallbackSync = 2,
  EAaLteTimerType_MessageSync = 3
};

/* Parameter record of AaLteTimerCreate: nine words; each flavour reads only its own. The pointer
 * words are 32 bits on the 32-bit target and hold full pointers on a 64-bit build. */
typedef struct SAaLteTimerParams {
  u32 periodFrames;           /* sync flavours */
  u32 periodSlots;            /* sync flavours */
  u32 periodBasicTUs;         /* sync flavours */
  u32 matchLevel;             /* match flavours (EAaLteMatchLevel) */
  u32 priority;               /* callback flavours (EAaLteTimePriority) */
  uintptr_t messagePtr;       /* message flavours: the SysCom message to deliver */
  uintptr_t functionPtr;      /* callback flavours: TAaLteTimeFunctionPtr */
  uintptr_t argumentPtr;      /* callback flavours */
  u32 argumentSize;           /* callback flavours */
} SAaLteTimerParams;

/* Current LTE time; null outputs are skipped. Returns 0, 1 (no Dispatcher) or the time source's
 * status (3: radio clock unreadable); outputs are written only on 0. */
EAaLteTimeRetVal AaLteTimeGet(TAaLteBtsHyperFrameNr* hyperFrame, TAaLteBtsFrameNr* frame,
                              TAaLteBtsSubFrameNr* subFrame, TAaLteBtsSlotNr* slot,
                              TAaLteBtsBasicTUNr* basicTU);

/* Periodic message timer: first expiry at (hyperFrame, frame, slot, basicTU), hyperFrame 0xFFFF
 * meaning the next occurrence, then every period. The message passes to the runtime on success.
 * Returns 0, 1 (no Dispatcher), 2 (a value out of range, or a null pointer) or the time status. */
EAaLteTimeRetVal AaLteTimermSyncCreate(TAaLteTimerId* timerId, TAaLteBtsHyperFrameNr hyperFrame,
                                       TAaLteBtsFrameNr frame, TAaLteBtsSlotNr slot,
                                       TAaLteBtsBasicTUNr basicTU, u32 periodFrames, u32 periodSlots,
                                       u32 periodBasicTUs, void* message);

/* Not supported here: returns 0 and arms nothing. */
EAaLteTimeRetVal AaLteTimercSyncCreate(TAaLteTimerId* timerId, TAaLteBtsHyperFrameNr hyperFrame,
                                       TAaLteBtsFrameNr frame, TAaLteBtsSlotNr slot,
                                       TAaLteBtsBasicTUNr basicTU, u32 periodFrames, u32 periodSlots,
                                       u32 periodBasicTUs, EAaLteTimePriority priority,
                                       TAaLteTimeFunctionPtr functionPtr, const void* argumentPtr,
                                       u32 argumentSize);

/* Not supported here: abort the process. */
EAaLteTimeRetVal AaLteTimercMatchCreate(TAaLteTimerId* timerId, TAaLteBtsHyperFrameNr hyperFrame,
                                        TAaLteBtsFrameNr frame, TAaLteBtsSlotNr slot,
                                        TAaLteBtsBasicTUNr basicTU, EAaLteMatchLevel matchLevel,
                                        EAaLteTimePriority priority, TAaLteTimeFunctionPtr functionPtr,
                                        const void* argumentPtr, u32 argumentSize);
EAaLteTimeRetVal AaLteTimermMatchCreate(TAaLteTimerId* timerId, TAaLteBtsHyperFrameNr hyperFrame,
                                        TAaLteBtsFrameNr frame, TAaLteBtsSlotNr slot,
                                        TAaLteBtsBasicTUNr basicTU, EAaLteMatchLevel matchLevel,
                                        const void* message);

/* Generic entry: type 0..3 selects the flavour. Returns 2 for a null record or a type above 3. */
EAaLteTimeRetVal AaLteTimerCreate(TAaLteTimerId* timerId, TAaLteBtsHyperFrameNr hyperFrame,
                                  TAaLteBtsFrameNr frame, TAaLteBtsSlotNr slot,
                                  TAaLteBtsBasicTUNr basicTU, u32 type, const SAaLteTimerParams* params);

/* Cancels a timer and destroys its message. Returns 0 (also for an unknown id) or 1. */
EAaLteTimeRetVal AaLteTimerDelete(TAaLteTimerId timerId);

/* Cancels a timer and hands its message to the caller; null for an unknown id or no Dispatcher. */
void* AaLteTimermDelete(TAaLteTimerId timerId);

#ifdef __cplusplus
}
#endif

OLM_API_END

#endif /* OLM_AALTETIME_H */
