#include <cctype>
#include <cstdio>
#include <cstring>

#include "AaConfigTagInternal.h"
#include "AaSysLog.h"

namespace Olm {

namespace {

constexpr uint32_t kHexDumpBytesPerRow = 16;
constexpr uint32_t kHexDumpCharsPerByte = 3;  // two digits and a space

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
  for (uint32_t row = 0; row < length; row += kHexDumpBytesPerRow) {
    char text[kHexDumpBytesPerRow * kHexDumpCharsPerByte + 1] = {};
    for (uint32_t i = row; i < length && i < row + kHexDumpBytesPerRow; ++i) {
      std::snprintf(text + (i - row) * kHexDumpCharsPerByte, kHexDumpCharsPerByte + 1, "%02x ", value[i]);
    }
    AaSysLogPrintE(EAaSysLogSeverityLevel_Info, kAaConfigTagFeatureId, "%s", text);
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

bool isTagNameTooLong(const char* name) {
  return name != nullptr && strnlen(name, AACONFIG_TAG_NAME_MAX_LENGTH + 1) > AACONFIG_TAG_NAME_MAX_LENGTH;
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
