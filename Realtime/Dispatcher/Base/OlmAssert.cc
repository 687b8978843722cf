#include "OlmAssert.h"

// The C library's report writer. <assert.h> declares it only without NDEBUG, and our assertions
// stay on in every build, so it is declared here.
extern "C" [[noreturn]] void __assert_fail(const char* expression, const char* file, unsigned int line,
                                           const char* function) noexcept;

namespace Olm {

void assertFail(const char* expression, const char* sourceName, unsigned line, const char* function) {
  // "<program>: <source>:<line>: <function>: Assertion `<expression>' failed." then abort.
  __assert_fail(expression, sourceName, line, function);
}

}  // namespace Olm
