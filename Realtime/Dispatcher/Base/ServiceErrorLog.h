// Error lines of the platform utilities: "<prefix><separator><formatted text>" through the system
// log at error severity without a feature id. The prefix (a function's name or signature) is
// passed apart from the text, so that each utility words only what went wrong.
#pragma once

#include <cstdarg>

namespace Olm {

// The text is cut at 255 characters.
void vlogServiceError(const char* prefix, const char* separator, const char* format, va_list args);

}  // namespace Olm
