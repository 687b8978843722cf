#include "AaSysTime.h"

#include <sys/time.h>

#include <ctime>

#include "AaCpuTimeBase.h"
#include "AaLteTime.h"
#include "AaSysLog.h"
#include "AaSysTimeCalendar.h"
#include "IRuntime.h"
#include "LteTime.h"
#include "Rhyddal.h"

namespace {

constexpr uint32_t kTmYearBase = 1900;
constexpr uint32_t kTmMonthBase = 1;
constexpr uint32_t kMicrosecondsPerMillisecond = 1000;
constexpr uint64_t kBasicTimeUnitsPerMillisecond = 30720;
// The BTS clock packs the frame counter above a 24-bit fine position.
constexpr unsigned kBcnFineBits = 24;
constexpr uint64_t kBcnFineMask = (uint64_t{1} << kBcnFineBits) - 1;
constexpr uint32_t kBcnFlags = 0;

using BreakDownFn = std::tm* (*)(const std::time_t*, std::tm*);

// One calendar flavour: how it splits the seconds and the texts it reports failures with.
struct CalendarClock {
  BreakDownFn breakDown;
  const char* nullPointerText;
  const char* clockFailureText;
  const char* conversionFailureText;
};

const CalendarClock kUtcClock = {gmtime_r, "AaUtcTimeGet(): timePtr is null",
                                 "AaUtcTimeGet(): error gettimeofday: %m",
                                 "AaUtcTimeGet(): error gmtime_r: %m\n"};
const CalendarClock kLocalClock = {localtime_r, "AaLocalTimeGet(): timePtr is null",
                                   "AaLocalTimeGet(): error gettimeofday: %m",
                                   "AaLocalTimeGet(): error localtime_r: %m\n"};

// The texts may hold %m, so they go through as the format; every one is a literal of this file.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-security"
void logError(const char* text) { AaSysLogPrintE(EAaSysLogSeverityLevel_Error, AASYSLOG_FEATURE_NONE, text); }
#pragma GCC diagnostic pop

EAaSysTimeRetVal calendarTimeGet(const CalendarClock& clock, SAaTime* timePtr) {
  if (timePtr == nullptr) {
    logError(clock.nullPointerText);
    return EAaSysTimeRetVal_InvalidParameter;
  }
  timeval now;
  if (gettimeofday(&now, nullptr) != 0) {
    logError(clock.clockFailureText);
    return EAaSysTimeRetVal_Error;
  }
  const std::time_t seconds = now.tv_sec;
  std::tm broken;
  if (clock.breakDown(&seconds, &broken) == nullptr) {
    logError(clock.conversionFailureText);
    return EAaSysTimeRetVal_Error;
  }
  Olm::fillCalendarTime(broken, static_cast<uint32_t>(now.tv_usec), *timePtr);
  return EAaSysTimeRetVal_Ok;
}

// Truncating: 1 us is 30 BTUs (30.72), 1000 us exactly 30720.
uint64_t microsecondsToBasicTimeUnits(uint32_t microseconds) {
  return uint64_t{microseconds} * kBasicTimeUnitsPerMillisecond / kMicrosecondsPerMillisecond;
}

// now + delay within the LTE cycle; an invalid operand stays the invalid marker, which the LteTime
// built from it rejects.
uint64_t timerStartSamples(uint64_t now, uint64_t delay) {
  constexpr uint64_t kInvalid = Olm::LteTime::MaxSamples;
  if (now == kInvalid || delay == kInvalid) return kInvalid;
  return (now + delay) % Olm::LteTime::MaxSamples;
}

}  // namespace

namespace Olm {

void fillCalendarTime(const std::tm& broken, uint32_t microseconds, SAaTime& out) {
  out.year = static_cast<uint32_t>(broken.tm_year) + kTmYearBase;
  out.month = static_cast<uint32_t>(broken.tm_mon) + kTmMonthBase;
  out.day = static_cast<uint32_t>(broken.tm_mday);
  out.hour = static_cast<uint32_t>(broken.tm_hour);
  out.minute = static_cast<uint32_t>(broken.tm_min);
  out.second = static_cast<uint32_t>(broken.tm_sec);
  out.millisecond = microseconds / kMicrosecondsPerMillisecond;
}

}  // namespace Olm

extern "C" {

uint32_t AaTicksGet(void) { return static_cast<uint32_t>(AaCpuTimeBasePhysicalCountGet()); }

uint64_t AaTicks64Get(void) { return AaCpuTimeBasePhysicalCountGet(); }

uint32_t AaTickResolutionGet(void) { return AaCpuTimeBaseFrequencyGet(); }

EAaSysTimeRetVal AaUnixTimeGet(SAaUnixTime* unixTime) {
  if (unixTime == nullptr) return EAaSysTimeRetVal_InvalidParameter;
  timeval now;
  if (gettimeofday(&now, nullptr) != 0) {
    logError("AaUnixTimeGet(): gettimeofday() failed");
    return EAaSysTimeRetVal_Error;
  }
  unixTime->seconds = static_cast<uint32_t>(now.tv_sec);
  unixTime->microseconds = static_cast<uint32_t>(now.tv_usec);
  return EAaSysTimeRetVal_Ok;
}

EAaSysTimeRetVal AaUtcTimeGet(SAaTime* timePtr) { return calendarTimeGet(kUtcClock, timePtr); }

EAaSysTimeRetVal AaLocalTimeGet(SAaTime* timePtr) { return calendarTimeGet(kLocalClock, timePtr); }

EAaSysTimeRetVal AaSysTimermCreate(TAaSysTimerId* timerId, uint32_t delayUs, uint32_t periodUs,
                                   void* message) {
  if (timerId == nullptr || message == nullptr) {
    AaSysLogPrint(EAaSysLogSeverityLevel_Error,
                  "AaSysTimermCreate(): Invalid parameter (messagePtr or timerIdPtr is NULL)!");
    return EAaSysTimeRetVal_InvalidParameter;
  }
  // Unlike the LTE timer functions, a missing Dispatcher is fatal here.
  Olm::IRuntime& runtime = Olm::IRuntime::getRuntimeInstance();
  const uint64_t now = runtime.getLteTime().getSamples();
  const Olm::LteTime start(timerStartSamples(now, microsecondsToBasicTimeUnits(delayUs)));
  const Olm::LteTime period(microsecondsToBasicTimeUnits(periodUs));
  *timerId = runtime.startTimer(start, period, message);
  return EAaSysTimeRetVal_Ok;
}

EAaSysTimeRetVal AaSysTimerDelete(TAaSysTimerId timerId) {
  return AaLteTimerDelete(timerId) == EAaLteTimeRetVal_Ok ? EAaSysTimeRetVal_Ok : EAaSysTimeRetVal_Error;
}

void* AaSysTimermDelete(TAaSysTimerId timerId) { return AaLteTimermDelete(timerId); }

EAaSysTimeRetVal AaSysTimeSleep(uint32_t, uint32_t) { return EAaSysTimeRetVal_Ok; }

uint64_t AaSysTimeBcnGet(void) {
  unsigned long long counter = 0;
  uint32_t fine = 0;
  ddal_sfn_get_bcn(&counter, &fine, kBcnFlags);
  return (uint64_t{counter} << kBcnFineBits) | (fine & kBcnFineMask);
}

}  // extern "C"
