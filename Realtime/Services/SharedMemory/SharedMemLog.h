// Failure lines of the shared-memory functions: "<signature> - <what failed>", at error severity
// without a feature, as the platform's own shared-memory utilities word them.
#pragma once

namespace Olm {

// Logs "<signature> - " followed by the formatted text.
void logSharedMemFailure(const char* signature, const char* format, ...) __attribute__((format(printf, 2, 3)));

// The text of an errno value; never null.
const char* errnoText(int error);

}  // namespace Olm
