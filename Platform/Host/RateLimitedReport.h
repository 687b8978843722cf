// One line on stderr for an event that may repeat at the message rate (a dropped message): the
// first at once, then at most one a second, saying how many were not reported in between.
#pragma once

#include <cstdarg>
#include <cstdint>
#include <cstdio>

namespace rhyddal {

class RateLimitedReport {
 public:
  static constexpr uint64_t kIntervalNs = 1000000000;

  // printf-style; the line gets "rhyddal: " in front and the count of unreported ones behind.
  __attribute__((format(printf, 3, 4))) void report(uint64_t nowNs, const char* format, ...) {
    if (reported_ && nowNs - lastNs_ < kIntervalNs) {
      ++unreported_;
      return;
    }
    char line[256];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(line, sizeof(line), format, arguments);
    va_end(arguments);
    if (unreported_ != 0) {
      std::fprintf(stderr, "rhyddal: %s (and %llu more like it)\n", line, static_cast<unsigned long long>(unreported_));
    } else {
      std::fprintf(stderr, "rhyddal: %s\n", line);
    }
    reported_ = true;
    lastNs_ = nowNs;
    unreported_ = 0;
  }

 private:
  bool reported_ = false;
  uint64_t lastNs_ = 0;
  uint64_t unreported_ = 0;
};

}  // namespace rhyddal
