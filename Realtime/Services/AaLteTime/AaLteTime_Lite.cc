#include "AaLteTime.h"

#include "AaSysCom.h"
#include "AaSysLog.h"
#include "IRuntime.h"
#include "LteTime.h"
#include "OlmAssert.h"

OLM_ASSERT_SOURCE("Realtime/Services/AaLteTime/AaLteTime_Lite")

namespace {

// Limits of the start instant.
constexpr TAaLteBtsHyperFrameNr kHyperFrameCount = 1024;
constexpr TAaLteBtsHyperFrameNr kNextHyperFrame = 0xFFFF;  // "whichever comes first from now"
constexpr TAaLteBtsFrameNr kFrameCount = 1024;
constexpr TAaLteBtsSlotNr kLastSlot = 19;
constexpr TAaLteBtsBasicTUNr kBasicTUCount = 15360;
// Limits of the period. A period may be a whole frame's worth of slots or a whole slot's worth
// of BTUs, which the start instant may not: the asymmetry is deliberate.
constexpr u32 kMaxPeriodFrames = 0x100000;
constexpr u32 kMaxPeriodSlots = 20;
constexpr u32 kMaxPeriodBasicTUs = 15360;

constexpr unsigned kSlotsPerSubFrame = 2;

const char* const kNoDispatcherText = "Unable to get Dispatcher instance";

// The match flavours die with the report an application developer knows from the full platform,
// so the function text is their full signature.
const char* const kCallbackMatchSignature =
    "AaLteTimercMatchCreate(TAaLteTimerId*, TAaLteBtsHyperFrameNr, TAaLteBtsFrameNr, "
    "TAaLteBtsSlotNr, TAaLteBtsBasicTUNr, EAaLteMatchLevel, EAaLteTimePriority, "
    "TAaLteTimeFunctionPtr, const void*, u32)";
const char* const kMessageMatchSignature =
    "AaLteTimermMatchCreate(TAaLteTimerId*, TAaLteBtsHyperFrameNr, TAaLteBtsFrameNr, "
    "TAaLteBtsSlotNr, TAaLteBtsBasicTUNr, EAaLteMatchLevel, const void*)";

void logError(const char* text) { AaSysLogPrintE(EAaSysLogSeverityLevel_Error, AASYSLOG_FEATURE_NONE, "%s", text); }

Olm::IRuntime* findDispatcher() {
  Olm::IRuntime* runtime = Olm::IRuntime::getTheRuntime();
  if (runtime == nullptr) logError(kNoDispatcherText);
  return runtime;
}

bool isStartInRange(TAaLteBtsHyperFrameNr hyperFrame, TAaLteBtsFrameNr frame, TAaLteBtsSlotNr slot,
                    TAaLteBtsBasicTUNr basicTU) {
  return (hyperFrame < kHyperFrameCount || hyperFrame == kNextHyperFrame) && frame < kFrameCount &&
         slot <= kLastSlot && basicTU < kBasicTUCount;
}

bool isPeriodInRange(u32 periodFrames, u32 periodSlots, u32 periodBasicTUs) {
  return periodFrames <= kMaxPeriodFrames && periodSlots <= kMaxPeriodSlots &&
         periodBasicTUs <= kMaxPeriodBasicTUs;
}

// For the next-occurrence marker: the instant in the current hyper frame, or in the following one
// when now has reached it already (an instant equal to now counts as past).
TAaLteBtsHyperFrameNr chooseHyperFrame(TAaLteBtsHyperFrameNr hyperFrame, const Olm::LteTime& now,
                                       TAaLteBtsFrameNr frame, TAaLteBtsSlotNr slot,
                                       TAaLteBtsBasicTUNr basicTU) {
  if (hyperFrame != kNextHyperFrame) return hyperFrame;
  Olm::LteTime::SLteTime current;
  now.vector(current);
  const Olm::LteTime candidate(current.hyperFrame, static_cast<uint16_t>(frame), static_cast<uint8_t>(slot),
                               static_cast<uint16_t>(basicTU));
  if (now.getSamples() >= candidate.getSamples()) return (current.hyperFrame + 1u) % kHyperFrameCount;
  return current.hyperFrame;
}

// The frame count goes in through the constructor's 16-bit frame field: the range check admits up
// to 0x100000 frames, and 65536 frames and more are then taken modulo 65536. Deliberately kept.
Olm::LteTime makePeriod(u32 periodFrames, u32 periodSlots, u32 periodBasicTUs) {
  return Olm::LteTime(0, static_cast<uint16_t>(periodFrames), static_cast<uint8_t>(periodSlots),
                      static_cast<uint16_t>(periodBasicTUs));
}

[[noreturn]] void failUnsupported(const char* signature, unsigned line) {
  Olm::assertFail("0", kOlmAssertSource, line, signature);
}

}  // namespace

extern "C" {

EAaLteTimeRetVal AaLteTimeGet(TAaLteBtsHyperFrameNr* hyperFrame, TAaLteBtsFrameNr* frame,
                              TAaLteBtsSubFrameNr* subFrame, TAaLteBtsSlotNr* slot,
                              TAaLteBtsBasicTUNr* basicTU) {
  Olm::IRuntime* dispatcher = findDispatcher();
  if (dispatcher == nullptr) return EAaLteTimeRetVal_NoDispatcher;
  const Olm::LteTime now = dispatcher->getLteTime();
  if (now.getStatus() != EAaLteTimeRetVal_Ok) return now.getStatus();
  Olm::LteTime::SLteTime parts;
  now.vector(parts);
  if (hyperFrame != nullptr) *hyperFrame = parts.hyperFrame;
  if (frame != nullptr) *frame = parts.frame;
  if (subFrame != nullptr) *subFrame = parts.slot / kSlotsPerSubFrame;
  if (slot != nullptr) *slot = parts.slot;
  if (basicTU != nullptr) *basicTU = parts.basicTimeUnit;
  return EAaLteTimeRetVal_Ok;
}

EAaLteTimeRetVal AaLteTimermSyncCreate(TAaLteTimerId* timerId, TAaLteBtsHyperFrameNr hyperFrame,
                                       TAaLteBtsFrameNr frame, TAaLteBtsSlotNr slot,
                                       TAaLteBtsBasicTUNr basicTU, u32 periodFrames, u32 periodSlots,
                                       u32 periodBasicTUs, void* message) {
  if (!isStartInRange(hyperFrame, frame, slot, basicTU) ||
      !isPeriodInRange(periodFrames, periodSlots, periodBasicTUs)) {
    logError("AaLteTimermSyncCreate(): invalid parameters detected.");
    return EAaLteTimeRetVal_InvalidParameter;
  }
  if (message == nullptr || timerId == nullptr) {
    // The text names functionPtr although this flavour takes a message: kept as applications
    // and log filters know it.
    logError("AaLteTimermSyncCreate(): Invalid parameter (functionPtr or timerIdPtr is NULL)!");
    return EAaLteTimeRetVal_InvalidParameter;
  }
  Olm::IRuntime* dispatcher = findDispatcher();
  if (dispatcher == nullptr) return EAaLteTimeRetVal_NoDispatcher;
  const Olm::LteTime now = dispatcher->getLteTime();
  if (now.getStatus() != EAaLteTimeRetVal_Ok) {
    *timerId = 0;
    return now.getStatus();
  }
  const TAaLteBtsHyperFrameNr startHyperFrame = chooseHyperFrame(hyperFrame, now, frame, slot, basicTU);
  const Olm::LteTime start(static_cast<uint16_t>(startHyperFrame), static_cast<uint16_t>(frame),
                           static_cast<uint8_t>(slot), static_cast<uint16_t>(basicTU));
  // Neither a start in the past nor a zero period is refused here: the timer queue decides.
  *timerId = dispatcher->startTimer(start, makePeriod(periodFrames, periodSlots, periodBasicTUs), message);
  return EAaLteTimeRetVal_Ok;
}

// Kept so that applications built for the full platform link; reports success and arms nothing.
EAaLteTimeRetVal AaLteTimercSyncCreate(TAaLteTimerId*, TAaLteBtsHyperFrameNr, TAaLteBtsFrameNr,
                                       TAaLteBtsSlotNr, TAaLteBtsBasicTUNr, u32, u32, u32,
                                       EAaLteTimePriority, TAaLteTimeFunctionPtr, const void*, u32) {
  return EAaLteTimeRetVal_Ok;
}

EAaLteTimeRetVal AaLteTimercMatchCreate(TAaLteTimerId*, TAaLteBtsHyperFrameNr, TAaLteBtsFrameNr,
                                        TAaLteBtsSlotNr, TAaLteBtsBasicTUNr, EAaLteMatchLevel,
                                        EAaLteTimePriority, TAaLteTimeFunctionPtr, const void*, u32) {
  failUnsupported(kCallbackMatchSignature, __LINE__);
}

EAaLteTimeRetVal AaLteTimermMatchCreate(TAaLteTimerId*, TAaLteBtsHyperFrameNr, TAaLteBtsFrameNr,
                                        TAaLteBtsSlotNr, TAaLteBtsBasicTUNr, EAaLteMatchLevel,
                                        const void*) {
  failUnsupported(kMessageMatchSignature, __LINE__);
}

EAaLteTimeRetVal AaLteTimerCreate(TAaLteTimerId* timerId, TAaLteBtsHyperFrameNr hyperFrame,
                                  TAaLteBtsFrameNr frame, TAaLteBtsSlotNr slot,
                                  TAaLteBtsBasicTUNr basicTU, u32 type, const SAaLteTimerParams* params) {
  if (params == nullptr) return EAaLteTimeRetVal_InvalidParameter;
  // Each flavour gets only the words it reads; the others may hold anything.
  switch (type) {
    case EAaLteTimerType_CallbackMatch:
      return AaLteTimercMatchCreate(timerId, hyperFrame, frame, slot, basicTU,
                                    static_cast<EAaLteMatchLevel>(params->matchLevel),
                                    static_cast<EAaLteTimePriority>(params->priority),
                                    reinterpret_cast<TAaLteTimeFunctionPtr>(params->functionPtr),
                                    reinterpret_cast<const void*>(params->argumentPtr), params->argumentSize);
    case EAaLteTimerType_MessageMatch:
      return AaLteTimermMatchCreate(timerId, hyperFrame, frame, slot, basicTU,
                                    static_cast<EAaLteMatchLevel>(params->matchLevel),
                                    reinterpret_cast<const void*>(params->messagePtr));
    case EAaLteTimerType_CallbackSync:
      return AaLteTimercSyncCreate(timerId, hyperFrame, frame, slot, basicTU, params->periodFrames,
                                   params->periodSlots, params->periodBasicTUs,
                                   static_cast<EAaLteTimePriority>(params->priority),
                                   reinterpret_cast<TAaLteTimeFunctionPtr>(params->functionPtr),
                                   reinterpret_cast<const void*>(params->argumentPtr), params->argumentSize);
    case EAaLteTimerType_MessageSync:
      return AaLteTimermSyncCreate(timerId, hyperFrame, frame, slot, basicTU, params->periodFrames,
                                   params->periodSlots, params->periodBasicTUs,
                                   reinterpret_cast<void*>(params->messagePtr));
    default:
      return EAaLteTimeRetVal_InvalidParameter;
  }
}

EAaLteTimeRetVal AaLteTimerDelete(TAaLteTimerId timerId) {
  Olm::IRuntime* dispatcher = findDispatcher();
  if (dispatcher == nullptr) return EAaLteTimeRetVal_NoDispatcher;
  // A stale id gives back nothing, which is not an error.
  void* message = dispatcher->cancelTimer(timerId);
  AaSysComMsgDestroy(&message);
  return EAaLteTimeRetVal_Ok;
}

void* AaLteTimermDelete(TAaLteTimerId timerId) {
  Olm::IRuntime* dispatcher = findDispatcher();
  if (dispatcher == nullptr) return nullptr;
  return dispatcher->cancelTimer(timerId);
}

}  // extern "C"
