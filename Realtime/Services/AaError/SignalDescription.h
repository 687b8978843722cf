// The description line of a fatal signal's exception report: what the signal means, its reason
// code in words, who sent it and where it struck, with the line number that the report's readers
// know each signal by.
#pragma once

#include <cstddef>
#include <cstdint>

namespace Olm {

// Descriptions hold at most 149 characters.
inline constexpr size_t kSignalDescriptionSize = 150;

// The line number of reports of signals without a description of their own.
inline constexpr uint32_t kUnknownSignalLine = 304;

struct SignalDescription {
  char text[kSignalDescriptionSize];
  uint32_t line;
};

// Describes SIGSEGV, SIGILL, SIGFPE, SIGBUS and SIGABRT from the siginfo_t's si_code (a positive
// code means the kernel raised the signal, any other a process) and si_addr. Returns false, with
// description untouched, for any other signal. Async-signal-safe in practice: formats into the
// caller's buffer with snprintf of integers, texts and pointers only.
bool describeFatalSignal(int signalNumber, int reasonCode, const void* address, SignalDescription& description);

}  // namespace Olm
