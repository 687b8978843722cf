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

// What each frame's text holds and how deep the walk goes.
struct CallTraceLayout {
  uint32_t maxFrames;
  // false: numbered lines with the address ("#01 0x... symbol+0x.. (object+0x..)") and a last line
  // when the trace was cut; true: only "symbol+0x.. (object+0x..)", and nothing said about a cut.
  bool symbolsOnly;
};

inline constexpr CallTraceLayout kNumberedCallTrace{AAGPUHELPERS_BACKTRACE_MAX_FRAMES, false};

// Writes the trace, at most layout.maxFrames frames (skipped ones included). The sink gets one
// text per frame, then with numbered lines one when the trace was cut.
// EAaGpuHelpersRet_NoCallTrace when the unwinder cannot start (nothing is written).
EAaGpuHelpersRet writeCallTrace(const CallTraceStart& start, CallTraceSink sink, void* sinkState,
                                const CallTraceLayout& layout = kNumberedCallTrace);

}  // namespace Olm
