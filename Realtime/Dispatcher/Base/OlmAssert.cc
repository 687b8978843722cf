#include "OlmAssert.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "AaError.h"

// The C library's report writer. <assert.h> declares it only without NDEBUG, and our assertions
// stay on in every build, so it is declared here.
extern "C" [[noreturn]] void __assert_fail(const char* expression, const char* file, unsigned int line,
                                           const char* function) noexcept;

namespace Olm {

namespace {

constexpr char kServiceSourcePrefix[] = "Realtime/Services/";

bool isServiceSource(const char* sourceName) {
  return std::strncmp(sourceName, kServiceSourcePrefix, sizeof(kServiceSourcePrefix) - 1) == 0;
}

}  // namespace

void assertFail(const char* expression, const char* sourceName, unsigned line, const char* function) {
  if (isServiceSource(sourceName)) {
    // The standard line first, which names the function, then the service's exception report in
    // the system log with the call trace.
    std::fprintf(stderr, "%s: %s:%u: %s: Assertion `%s' failed.\n", program_invocation_short_name, sourceName, line,
                 function, expression);
    AaErrorAssertion(expression, sourceName, line);
  }
  // "<program>: <source>:<line>: <function>: Assertion `<expression>' failed." then abort.
  __assert_fail(expression, sourceName, line, function);
}

}  // namespace Olm
