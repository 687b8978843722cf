#include "SignalDescription.h"

#include <signal.h>

#include <cstdarg>
#include <cstdio>

namespace Olm {

namespace {

// Reason texts by si_code, from 1 on. The spelling is what log filters match; keep it.
const char* const kSegvReasons[] = {"address not mapped to object", "invalid permissions for mapped object"};
const char* const kIllReasons[] = {"illegal operation code",     "illegal operand",      "illegal addressing mode",
                                   "illegal trap",               "priviledged operation code",
                                   "priviledged register",       "coprocessor error",    "internal stack error"};
const char* const kFpeReasons[] = {"integer divide by zero"};
const char* const kBusReasons[] = {"invalid address aligment"};

constexpr uint32_t kSegvLine = 118;
constexpr uint32_t kIllLine = 179;
constexpr uint32_t kFpeLine = 211;
constexpr uint32_t kBusLine = 243;
constexpr uint32_t kAbrtLine = 263;

template <size_t N>
const char* reasonText(const char* const (&reasons)[N], int reasonCode) {
  return reasonCode >= 1 && static_cast<size_t>(reasonCode) <= N ? reasons[reasonCode - 1] : "unknown";
}

__attribute__((format(printf, 3, 4))) bool describe(SignalDescription& description, uint32_t line,
                                                    const char* format, ...) {
  va_list args;
  va_start(args, format);
  std::vsnprintf(description.text, sizeof(description.text), format, args);
  va_end(args);
  description.line = line;
  return true;
}

}  // namespace

bool describeFatalSignal(int signalNumber, int reasonCode, const void* address, SignalDescription& description) {
  const char* const detectedBy = reasonCode > 0 ? "kernel" : "user";
  switch (signalNumber) {
    case SIGSEGV:
      return describe(description, kSegvLine,
                      "Invalid memory reference (reason: %i '%s') detected by %s at address %p from ?", reasonCode,
                      reasonText(kSegvReasons, reasonCode), detectedBy, address);
    case SIGILL:
      return describe(description, kIllLine, "Invalid instruction (reason: %i '%s') detected by %s at address %p from ?",
                      reasonCode, reasonText(kIllReasons, reasonCode), detectedBy, address);
    case SIGFPE:
      return describe(description, kFpeLine, "Floating point error (reason: %i '%s') detected by %s at address %p from ?",
                      reasonCode, reasonText(kFpeReasons, reasonCode), detectedBy, address);
    case SIGBUS:
      return describe(description, kBusLine, "Bus error (reason: %i '%s') detected by %s at address %p from ?",
                      reasonCode, reasonText(kBusReasons, reasonCode), detectedBy, address);
    case SIGABRT:
      return describe(description, kAbrtLine, "Abort signal received - detected by %s at address %p from ?",
                      detectedBy, address);
    default:
      return false;
  }
}

}  // namespace Olm
