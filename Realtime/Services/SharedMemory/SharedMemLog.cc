#include "SharedMemLog.h"

#include <cstdarg>
#include <cstring>

#include "ServiceErrorLog.h"

namespace Olm {

void logSharedMemFailure(const char* signature, const char* format, ...) {
  va_list args;
  va_start(args, format);
  vlogServiceError(signature, " - ", format, args);
  va_end(args);
}

// strerror is not safe from several threads; the GNU strerror_r returns the static text for every
// known errno and formats into the buffer only for unknown ones.
const char* errnoText(int error) {
  thread_local char buffer[64];
  return strerror_r(error, buffer, sizeof(buffer));
}

}  // namespace Olm
