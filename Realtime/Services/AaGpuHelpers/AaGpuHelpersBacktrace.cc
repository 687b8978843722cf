#include <syslog.h>

#include "AaGpuHelpers.h"
#include "AaSysLog.h"
#include "CallTrace.h"

namespace {

constexpr uint32_t kFatalityNonFatal = 0;
constexpr uint32_t kLastFatality = 3;

void toSystemLog(const char* line, void* priority) { syslog(*static_cast<int*>(priority), "%s", line); }

void toServiceLog(const char* line, void*) {
  AaSysLogPrintE(EAaSysLogSeverityLevel_Error, AASYSLOG_FEATURE_NONE, "%s", line);
}

}  // namespace

// Never inlined: the trace without a signal context starts at the frame this function returns
// to, and an inlined copy would have no return address of its own.
extern "C" __attribute__((noinline)) EAaGpuHelpersRet AaGpuHelpersBacktraceDumpIpsSysLog(uint32_t fatality,
                                                                                      void* savedContext) {
  if (fatality > kLastFatality) {
    AaSysLogPrintE(EAaSysLogSeverityLevel_Error, AASYSLOG_FEATURE_NONE,
                   "AaGpuHelpersBacktraceDumpIpsSysLog(): fatality %u out of range", fatality);
    return EAaGpuHelpersRet_InvalidParameter;
  }
  int priority = fatality == kFatalityNonFatal ? LOG_WARNING : LOG_ERR;
  const Olm::CallTraceStart start{savedContext, __builtin_return_address(0), 0};
  return Olm::writeCallTrace(start, toSystemLog, &priority);
}

extern "C" __attribute__((noinline)) EAaGpuHelpersRet AaGpuHelpersBacktraceDumpIps(uint32_t innermostFramesToSkip,
                                                                                void* savedContext) {
  const Olm::CallTraceStart start{savedContext, __builtin_return_address(0), innermostFramesToSkip};
  return Olm::writeCallTrace(start, toServiceLog, nullptr);
}
