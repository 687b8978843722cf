#include <syslog.h>

#include <cstring>

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

// Frames joined into the caller's text, each followed by ';'; the first that does not fit closes it.
struct SymbolText {
  char* text;
  size_t size;
  size_t length;
  bool full;
};

void toSymbolText(const char* frame, void* state) {
  SymbolText& joined = *static_cast<SymbolText*>(state);
  if (joined.full) return;
  const size_t frameLength = std::strlen(frame);
  // The frame, its ';' and the terminating zero.
  if (joined.length + frameLength + 2 > joined.size) {
    joined.full = true;
    return;
  }
  std::memcpy(joined.text + joined.length, frame, frameLength);
  joined.length += frameLength;
  joined.text[joined.length++] = ';';
  joined.text[joined.length] = '\0';
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

extern "C" __attribute__((noinline)) EAaGpuHelpersRet AaGpuHelpersBacktraceSymbols(char* text, uint32_t textSize,
                                                                                uint32_t maxFrames) {
  if (text == nullptr || textSize == 0 || maxFrames == 0 || maxFrames > AAGPUHELPERS_BACKTRACE_MAX_FRAMES) {
    AaSysLogPrintE(EAaSysLogSeverityLevel_Error, AASYSLOG_FEATURE_NONE,
                   "AaGpuHelpersBacktraceSymbols(): text %p, textSize %u, maxFrames %u out of range",
                   static_cast<void*>(text), textSize, maxFrames);
    return EAaGpuHelpersRet_InvalidParameter;
  }
  text[0] = '\0';
  SymbolText joined{text, textSize, 0, false};
  const Olm::CallTraceStart start{nullptr, __builtin_return_address(0), 0};
  return Olm::writeCallTrace(start, toSymbolText, &joined, Olm::CallTraceLayout{maxFrames, true});
}
