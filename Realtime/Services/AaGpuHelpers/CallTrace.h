// The call-trace walk behind the AaGpuHelpersBacktraceDumpIps* printers: it formats one line per
// frame into a stack buffer and hands each to a sink, which decides where lines go.
#pragma once

#include <cstdint>

#include "AaGpuHelpers.h"

namespace Olm {

// Longest line handed to a sink, terminating zero included.
constexpr unsigned kCallTraceLineSize = 256;

using CallTraceSink = void (*)(const char* line, void* sinkState);

struct CallTraceStart {
  // A ucontext_t* as an SA_SIGINFO handler receives it, or null to start at the caller.
  const void* signalContext;
  // Without a signal context: the return address into the printer's caller. The frames of the
  // printer itself, however many inlining and tail calls left, are those before the one that
  // holds this address.
  const void* callerReturnAddress;
  uint32_t innermostFramesToSkip;
};

// Writes the trace, at most AAGPUHELPERS_BACKTRACE_MAX_FRAMES frames and a line when it was cut.
// EAaGpuHelpersRet_NoCallTrace when the unwinder cannot start (nothing is written).
EAaGpuHelpersRet writeCallTrace(const CallTraceStart& start, CallTraceSink sink, void* sinkState);

}  // namespace Olm
