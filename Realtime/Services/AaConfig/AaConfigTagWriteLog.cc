#include <cctype>
#include <cstdio>
#include <cstring>

#include "AaConfigTagInternal.h"
#include "AaGpuHelpers.h"
#include "AaSysLog.h"

namespace Olm {

namespace {

constexpr uint32_t kHexDumpBytesPerGroup = 1;
constexpr uint32_t kHexDumpGroupBlanks = 1;

template <typename Word>
Word readWord(const uint8_t* value, uint32_t length) {
  Word word = 0;
  std::memcpy(&word, value, length < sizeof(Word) ? length : sizeof(Word));
  return word;
}

// A NUL-terminated text of printable characters fills the value exactly.
bool isPrintableString(const uint8_t* value, uint32_t length) {
  if (length == 0 || value[length - 1] != '\0') return false;
  for (uint32_t i = 0; i + 1 < length; ++i) {
    if (!std::isprint(value[i])) return false;
  }
  return true;
}

bool isTagSwitchOn() { return AaConfigRadGetValue(kAaConfigTagFeatureId) != 0; }

void logHexDump(const char* name, const uint8_t* value, uint32_t length) {
  AaSysLogPrintE(EAaSysLogSeverityLevel_Info, kAaConfigTagFeatureId,
                 "setConfigTag() name = %s, len = %d, type not specified, value:", name, static_cast<int>(length));
  const void* cursor = value;
  uint32_t remaining = length;
  while (remaining != 0) {
    char line[AAGPUHELPERS_HEXDUMP_LINE_SIZE];
    AaGpuHelpersHexdumpBuild(&cursor, &remaining, line, kHexDumpBytesPerGroup, kHexDumpGroupBlanks, 0);
    AaSysLogPrintE(EAaSysLogSeverityLevel_Info, kAaConfigTagFeatureId, "%s", line);
  }
}

void logUnspecifiedWrite(const char* name, const uint8_t* value, uint32_t length) {
  const int len = static_cast<int>(length);
  if (length == sizeof(uint16_t)) {
    AaSysLogPrintE(EAaSysLogSeverityLevel_Info, kAaConfigTagFeatureId,
                   "setConfigTag() name = %s, value = 0x%04x, len = %d, type not specified", name,
                   unsigned{readWord<uint16_t>(value, length)}, len);
  } else if (length == sizeof(uint32_t)) {
    AaSysLogPrintE(EAaSysLogSeverityLevel_Info, kAaConfigTagFeatureId,
                   "setConfigTag() name = %s, value = 0x%08x, len = %d, type not specified", name,
                   readWord<uint32_t>(value, length), len);
  } else if (isPrintableString(value, length)) {
    AaSysLogPrintE(EAaSysLogSeverityLevel_Info, kAaConfigTagFeatureId,
                   "setConfigTag() name = %s, value = %s, len = %d, type not specified (string assumed)",
                   name, reinterpret_cast<const char*>(value), len);
  } else if (isTagSwitchOn()) {
    logHexDump(name, value, length);
  }
}

}  // namespace

bool isValidTagName(const char* name) {
  return name != nullptr && *name != '\0' &&
         strnlen(name, AACONFIG_TAG_NAME_MAX_LENGTH + 1) <= AACONFIG_TAG_NAME_MAX_LENGTH;
}

bool isValidTagType(uint32_t type) {
  return type >= EAaConfigTagType_U16 && type <= EAaConfigTagType_NotSpecified;
}

uint32_t firstValueWord(const void* value, uint32_t length) {
  const auto* bytes = static_cast<const uint8_t*>(value);
  uint32_t word = 0;
  for (uint32_t i = 0; i < length && i < sizeof(word); ++i) word |= uint32_t{bytes[i]} << (8 * i);
  return word;
}

void logTagWrite(const char* name, const uint8_t* value, uint32_t length, uint32_t type) {
  const int len = static_cast<int>(length);
  switch (type) {
    case EAaConfigTagType_U16:
      AaSysLogPrintE(EAaSysLogSeverityLevel_Info, kAaConfigTagFeatureId,
                     "setConfigTag() name = %s, value = 0x%04x, len = %d, u16 type", name,
                     unsigned{readWord<uint16_t>(value, length)}, len);
      break;
    case EAaConfigTagType_U32:
      AaSysLogPrintE(EAaSysLogSeverityLevel_Info, kAaConfigTagFeatureId,
                     "setConfigTag() name = %s, value = 0x%08x, len = %d, u32 type", name,
                     readWord<uint32_t>(value, length), len);
      break;
    case EAaConfigTagType_String:
      // A string value need not carry its terminating zero: print no more than its length.
      AaSysLogPrintE(EAaSysLogSeverityLevel_Info, kAaConfigTagFeatureId,
                     "setConfigTag() name = %s, value = %.*s, len = %d, string type", name, len,
                     reinterpret_cast<const char*>(value), len);
      break;
    default:
      logUnspecifiedWrite(name, value, length);
      break;
  }
}

}  // namespace Olm
