// Always-on assertions for the runtime's invariants.
//
// The runtime's broken invariants end the process with the standard assertion report, also in
// optimised builds (NDEBUG does not switch them off). Reports name the source from "Realtime" on,
// without its extension ("Realtime/Dispatcher/Dispatcher"), so that a report reads the same
// whatever directory the library was built in.
#pragma once

#include <cstddef>

namespace Olm {

struct AssertSourceName {
  char text[160];
};

// Cuts a __FILE__ path down to its part from the last "Realtime/" on and drops the extension.
constexpr AssertSourceName makeAssertSourceName(const char* path) {
  AssertSourceName name{};
  const char marker[] = "Realtime/";
  const std::size_t markerLength = sizeof(marker) - 1;
  std::size_t start = 0;
  std::size_t length = 0;
  while (path[length] != '\0') ++length;
  for (std::size_t i = 0; i + markerLength <= length; ++i) {
    bool match = true;
    for (std::size_t k = 0; k < markerLength && match; ++k) match = path[i + k] == marker[k];
    if (match) start = i;
  }
  std::size_t end = length;
  for (std::size_t i = length; i > start; --i) {
    if (path[i - 1] == '.') { end = i - 1; break; }
    if (path[i - 1] == '/') break;
  }
  std::size_t out = 0;
  for (std::size_t i = start; i < end && out + 1 < sizeof(name.text); ++i) name.text[out++] = path[i];
  name.text[out] = '\0';
  return name;
}

// Writes the standard assertion report and aborts.
[[noreturn]] void assertFail(const char* expression, const char* sourceName, unsigned line,
                             const char* function);

}  // namespace Olm

#define OLM_ASSERT_SOURCE_NAME()                                                   \
  ([]() -> const char* {                                                           \
    static constexpr ::Olm::AssertSourceName kName = ::Olm::makeAssertSourceName(__FILE__); \
    return kName.text;                                                             \
  }())

// OLM_ASSERT(condition): the report shows the condition's text exactly as written.
#define OLM_ASSERT(condition)                                                                  \
  ((condition) ? static_cast<void>(0)                                                          \
               : ::Olm::assertFail(#condition, OLM_ASSERT_SOURCE_NAME(), __LINE__, __PRETTY_FUNCTION__))

// OLM_ASSERT_TEXT(condition, text): for reports whose wording is fixed and differs from the code.
#define OLM_ASSERT_TEXT(condition, text)                                                       \
  ((condition) ? static_cast<void>(0)                                                          \
               : ::Olm::assertFail(text, OLM_ASSERT_SOURCE_NAME(), __LINE__, __PRETTY_FUNCTION__))
