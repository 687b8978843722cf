#include "CallTrace.h"

#include <dlfcn.h>
#include <link.h>
#include <unistd.h>

#include <cstring>

// Only this process is ever unwound: the local-only entry points need no remote accessors.
#define UNW_LOCAL_ONLY
#include <libunwind.h>

#include "LineWriter.h"

#if defined(__arm__)
#include "Arm/UnwindContextArm.inc"
#else
#include "Ucontext/UnwindContextUcontext.inc"
#endif

namespace Olm {

namespace {

constexpr unsigned kFrameNumberDigits = 2;
constexpr unsigned kAddressDigits = 2 * sizeof(void*);
// Symbols longer than this are cut; the offset stays right.
constexpr size_t kSymbolSize = 128;
constexpr size_t kPathSize = 160;
constexpr char kUnknown[] = "?";

uintptr_t instructionPointer(unw_cursor_t& cursor) {
  unw_word_t ip = 0;
  unw_get_reg(&cursor, UNW_REG_IP, &ip);
  return static_cast<uintptr_t>(ip);
}

// Calls inside the library reach its exported functions through local aliases (it is built with
// -fno-semantic-interposition), which the symbol table names "<name>.localalias": a trace shows
// the function's own name.
void dropLocalAliasSuffix(char* symbol) {
  constexpr char kSuffix[] = ".localalias";
  constexpr size_t kSuffixLength = sizeof(kSuffix) - 1;
  const size_t length = std::strlen(symbol);
  if (length >= kSuffixLength && std::memcmp(symbol + length - kSuffixLength, kSuffix, kSuffixLength) == 0) {
    symbol[length - kSuffixLength] = '\0';
  }
}

// A name cut to the buffer (-UNW_ENOMEM) is still the right symbol.
void writeSymbol(LineWriter& line, unw_cursor_t& cursor) {
  char symbol[kSymbolSize];
  unw_word_t offset = 0;
  const int status = unw_get_proc_name(&cursor, symbol, sizeof(symbol), &offset);
  if (status == 0 || status == -UNW_ENOMEM) {
    dropLocalAliasSuffix(symbol);
    line.text(symbol).text("+0x").hex(symbolOffset(static_cast<uintptr_t>(offset)));
  } else {
    line.text(kUnknown);
  }
}

// The loader names the main program with an empty path; /proc/self/exe has its real one.
const char* objectPath(const link_map& object, char (&programPath)[kPathSize]) {
  if (object.l_name != nullptr && object.l_name[0] != '\0') return object.l_name;
  const ssize_t length = readlink("/proc/self/exe", programPath, sizeof(programPath) - 1);
  if (length <= 0) return kUnknown;
  programPath[length] = '\0';
  return programPath;
}

// _dl_find_object rather than dladdr: it takes no loader lock, which the interrupted thread may
// hold. The offset is from the object's load address, as addr2line takes it.
void writeObject(LineWriter& line, uintptr_t address) {
  dl_find_object found;
  if (_dl_find_object(reinterpret_cast<void*>(address), &found) != 0 || found.dlfo_link_map == nullptr) {
    line.text(" (").text(kUnknown).character(')');
    return;
  }
  char programPath[kPathSize];
  const link_map& object = *found.dlfo_link_map;
  line.text(" (").text(objectPath(object, programPath)).text("+0x").hex(address - object.l_addr).character(')');
}

LineWriter& frameNumber(LineWriter& line, uint32_t frame) {
  return line.character('#').decimal(frame, kFrameNumberDigits).character(' ');
}

void writeFrame(unw_cursor_t& cursor, uint32_t frame, bool symbolsOnly, CallTraceSink sink, void* sinkState) {
  char text[kCallTraceLineSize];
  LineWriter line(text, sizeof(text));
  const uintptr_t address = codeAddress(instructionPointer(cursor));
  if (!symbolsOnly) frameNumber(line, frame).text("0x").hex(address, kAddressDigits).character(' ');
  writeSymbol(line, cursor);
  writeObject(line, address);
  sink(text, sinkState);
}

void writeCut(uint32_t frame, int stepStatus, CallTraceSink sink, void* sinkState) {
  char text[kCallTraceLineSize];
  LineWriter line(text, sizeof(text));
  frameNumber(line, frame);
  if (stepStatus > 0) {
    line.text("cut after ").decimal(frame).text(" frames");
  } else {
    line.text("unwinding stopped (error -").decimal(static_cast<uint32_t>(-stepStatus)).character(')');
  }
  sink(text, sinkState);
}

// The frames of the printer itself, innermost first, up to the one that returns into its caller;
// 0 when that frame is not found within the depth limit (the trace then shows them all).
uint32_t printerFrames(unw_cursor_t& cursor, const void* callerReturnAddress) {
  const uintptr_t wanted = codeAddress(reinterpret_cast<uintptr_t>(callerReturnAddress));
  for (uint32_t frame = 0; frame < AAGPUHELPERS_BACKTRACE_MAX_FRAMES; ++frame) {
    if (codeAddress(instructionPointer(cursor)) == wanted) return frame;
    if (unw_step(&cursor) <= 0) break;
  }
  return 0;
}

void writeFrames(unw_cursor_t& cursor, uint32_t innermostFramesToSkip, const CallTraceLayout& layout,
                 CallTraceSink sink, void* sinkState) {
  for (uint32_t frame = 0; frame < layout.maxFrames; ++frame) {
    if (frame >= innermostFramesToSkip) writeFrame(cursor, frame, layout.symbolsOnly, sink, sinkState);
    const int stepStatus = unw_step(&cursor);
    if (stepStatus == 0) return;
    if (stepStatus < 0 || frame + 1 == layout.maxFrames) {
      if (!layout.symbolsOnly) writeCut(frame + 1, stepStatus, sink, sinkState);
      return;
    }
  }
}

}  // namespace

// The context and the cursor must live in this frame: the walk without a signal context starts
// from the registers unw_getcontext takes here, and they describe this frame only while it lasts.
EAaGpuHelpersRet writeCallTrace(const CallTraceStart& start, CallTraceSink sink, void* sinkState,
                                const CallTraceLayout& layout) {
  unw_context_t context;
  unw_cursor_t cursor;
  if (start.signalContext != nullptr) {
    unwindContextFromSignal(start.signalContext, context);
    if (unw_init_local2(&cursor, &context, UNW_INIT_SIGNAL_FRAME) != 0) return EAaGpuHelpersRet_NoCallTrace;
    writeFrames(cursor, start.innermostFramesToSkip, layout, sink, sinkState);
    return EAaGpuHelpersRet_Ok;
  }
  if (unw_getcontext(&context) != 0 || unw_init_local(&cursor, &context) != 0) return EAaGpuHelpersRet_NoCallTrace;
  // A first walk counts the printer's own frames, a second one from the same registers skips them.
  uint32_t ownFrames = printerFrames(cursor, start.callerReturnAddress);
  if (unw_init_local(&cursor, &context) != 0) return EAaGpuHelpersRet_NoCallTrace;
  for (; ownFrames > 0; --ownFrames) unw_step(&cursor);
  writeFrames(cursor, start.innermostFramesToSkip, layout, sink, sinkState);
  return EAaGpuHelpersRet_Ok;
}

}  // namespace Olm
