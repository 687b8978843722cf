// Helpers shared by the implementation files of the message service; not part of its interface.
//
// Every size that bounds a read or write of a message comes from the header's total length, and
// a message whose total length cannot hold its own envelope is treated as having no payload words
// and no trailer, so a corrupt length never leads outside the buffer.
#pragma once

#include <cstdint>
#include <cstring>

#include "AaSysCom.h"
#include "AaSysComMsgHeader.h"
#include "IRuntime.h"

namespace Olm::syscom {

constexpr uint32_t kWordSize = 4;

inline void logFailure(const char* text) {
  AaSysLogPrintE(EAaSysLogSeverityLevel_Warning, AASYSCOM_FEATURE_ID, "%s", text);
}

inline void logNoDispatcher() {
  AaSysLogPrintE(EAaSysLogSeverityLevel_Error, AASYSLOG_FEATURE_NONE, "Unable to get Dispatcher instance");
}

// The common refusal of a null argument: true, with text logged, when ptr is null.
inline bool refusedAsNull(const void* ptr, const char* text) {
  if (ptr != nullptr) return false;
  logFailure(text);
  return true;
}

inline bool isNullHandle(void* const* handle) { return handle == nullptr || *handle == nullptr; }

// The same for the address of a handle: a null address and a null handle are refused alike.
inline bool refusedAsNullHandle(void* const* handle, const char* text) {
  if (!isNullHandle(handle)) return false;
  logFailure(text);
  return true;
}

// The runtime (the Dispatcher), or null with the absence logged.
inline IRuntime* runtimeOrLog() {
  IRuntime* runtime = IRuntime::getTheRuntime();
  if (runtime == nullptr) logNoDispatcher();
  return runtime;
}

inline uint32_t mefOf(const void* msg) { return msgHeader(msg)->flags & AASYSCOM_MEF_MASK; }
inline uint32_t apfOf(const void* msg) {
  return (msgHeader(msg)->flags & AASYSCOM_APF_MASK) >> AASYSCOM_APF_SHIFT;
}
inline uint32_t totalLengthOf(const void* msg) { return msgHeader(msg)->totalLength; }

// Header plus trailer when MEF is 3, else the header: the least a total length must hold.
inline uint32_t envelopeSizeOf(const void* msg) {
  return AASYSCOM_HEADER_SIZE + (mefOf(msg) == AASYSCOM_MEF_TRAILER ? AASYSCOM_TRAILER_SIZE : 0u);
}

// MEF 3 on a message whose total length cannot hold header and trailer: there is no trailer to
// touch, since it would start before the buffer.
inline bool trailerMissing(const void* msg) {
  return mefOf(msg) == AASYSCOM_MEF_TRAILER && totalLengthOf(msg) < envelopeSizeOf(msg);
}

// The payload of a well-formed message, or false when the total length is shorter than the
// envelope (the 16-bit payload size would then have wrapped to a huge figure).
inline bool payloadLength(const void* msg, uint32_t& length) {
  if (totalLengthOf(msg) < envelopeSizeOf(msg)) return false;
  length = totalLengthOf(msg) - envelopeSizeOf(msg);
  return true;
}

// Number of 32-bit payload words; false unless the payload is a whole number of words.
inline bool payloadWordCount(const void* msg, uint32_t& words) {
  uint32_t length = 0;
  if (!payloadLength(msg, length) || length % kWordSize != 0) return false;
  words = length / kWordSize;
  return true;
}

inline uint32_t wordsCovering(uint32_t bytes) {
  return static_cast<uint32_t>((uint64_t{bytes} + kWordSize - 1) / kWordSize);
}

// False only when first lies inside the message and first + bytes runs past its total length.
// A pointer outside the message names the caller's own memory and is the caller's to vouch for.
inline bool staysInsideMessage(const void* msg, const void* first, uint64_t bytes) {
  const auto start = reinterpret_cast<uintptr_t>(msg);
  const auto end = start + totalLengthOf(msg);
  const auto at = reinterpret_cast<uintptr_t>(first);
  if (at < start || at >= end) return true;
  return bytes <= end - at;
}

inline uint32_t loadWord(const void* at) {
  uint32_t word;
  std::memcpy(&word, at, sizeof(word));
  return word;
}

inline void storeWord(void* at, uint32_t word) { std::memcpy(at, &word, sizeof(word)); }

}  // namespace Olm::syscom
