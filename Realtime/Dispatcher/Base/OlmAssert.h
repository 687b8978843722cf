// Always-on assertions for the runtime's invariants.
//
// The runtime's broken invariants end the process, also in optimised builds (NDEBUG does not
// switch them off). The Dispatcher's own invariants give the standard assertion report on standard
// error; those of the services (sources named "Realtime/Services/...") give the same line and then
// the error handler's exception report in the system log (AaErrorAssertion), with the call trace. A report names its source from "Realtime" on,
// without extension ("Realtime/Dispatcher/Dispatcher"). Those names are what users and their log
// filters know, so they do not follow the file system: every file that asserts states its name
// once, after its includes,
//     OLM_ASSERT_SOURCE("Realtime/Dispatcher/Dispatcher")
// and moving or renaming the file leaves its reports as they were. A file that asserts without
// naming its source does not compile.
#pragma once

namespace Olm {

// Writes the assertion report (see above) and aborts.
[[noreturn]] void assertFail(const char* expression, const char* sourceName, unsigned line,
                             const char* function);

}  // namespace Olm

#define OLM_ASSERT_SOURCE(name)                                   \
  namespace {                                                     \
  [[maybe_unused]] constexpr const char kOlmAssertSource[] = name; \
  }

// OLM_ASSERT(condition): the report shows the condition's text exactly as written.
#define OLM_ASSERT(condition) \
  ((condition) ? static_cast<void>(0) : ::Olm::assertFail(#condition, kOlmAssertSource, __LINE__, __PRETTY_FUNCTION__))

// OLM_ASSERT_TEXT(condition, text): for reports whose wording is fixed and differs from the code.
#define OLM_ASSERT_TEXT(condition, text) \
  ((condition) ? static_cast<void>(0) : ::Olm::assertFail(text, kOlmAssertSource, __LINE__, __PRETTY_FUNCTION__))
