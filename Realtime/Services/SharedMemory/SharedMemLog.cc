#include "SharedMemLog.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "AaSysLog.h"

namespace Olm {

namespace {
constexpr size_t kFailureTextSize = 256;
}  // namespace

void logSharedMemFailure(const char* signature, const char* format, ...) {
  char text[kFailureTextSize];
  va_list args;
  va_start(args, format);
  std::vsnprintf(text, sizeof(text), format, args);
  va_end(args);
  AaSysLogPrintE(EAaSysLogSeverityLevel_Error, AASYSLOG_FEATURE_NONE, "%s - %s", signature, text);
}

// strerror is not safe from several threads; the GNU strerror_r returns the static text for every
// known errno and formats into the buffer only for unknown ones.
const char* errnoText(int error) {
  thread_local char buffer[64];
  return strerror_r(error, buffer, sizeof(buffer));
}

}  // namespace Olm
