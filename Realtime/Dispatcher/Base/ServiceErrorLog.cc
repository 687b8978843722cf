#include "ServiceErrorLog.h"

#include <cstdio>

#include "AaSysLog.h"

namespace Olm {

namespace {
constexpr size_t kErrorTextSize = 256;
}  // namespace

void vlogServiceError(const char* prefix, const char* separator, const char* format, va_list args) {
  char text[kErrorTextSize];
  std::vsnprintf(text, sizeof(text), format, args);
  AaSysLogPrintE(EAaSysLogSeverityLevel_Error, AASYSLOG_FEATURE_NONE, "%s%s%s", prefix, separator, text);
}

}  // namespace Olm
