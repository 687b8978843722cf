// The system log line: prefix, optional source position, the caller's text, line feed and zero
// byte. Kept apart from the sending so that the exact layout can be checked without a node.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <cstdint>

#include "AaSysLog.h"
#include "AaSysTime.h"

namespace Olm {

// The text is built in an area of this size; longer lines are cut.
constexpr size_t kSysLogAreaSize = 512;
// The line feed and the zero byte that end every line, both part of the log message's payload.
constexpr size_t kSysLogLineEndSize = 2;

// Who logs and when: the fields of the prefix.
struct SysLogStamp {
  uint16_t nid;           // own node id
  SAaTime localTime;      // date and time of day; its milliseconds are not printed
  uint32_t microseconds;  // from the Unix time, printed after the seconds
  uint32_t pid;
};

// The "File: %s, line %u: " part of AaSysLogPrintD.
struct SysLogSource {
  const char* file;
  uint32_t line;
};

struct SysLogLine {
  char text[kSysLogAreaSize + kSysLogLineEndSize];
  uint32_t payloadSize;  // text length + 2: the text, its line feed and its zero byte
};

// The printed name of a level ("ERR"); "?N?" above the scale.
const char* sysLogLevelName(EAaSysLogSeverityLevel level);

// Builds the line. A null source leaves out the file part and a null format the caller's text.
// Returns false when a formatting step reports an error (then the line must not be used).
bool formatSysLogLine(SysLogLine& line, const SysLogStamp& stamp, EAaSysLogSeverityLevel level,
                      const SysLogSource* source, const char* format, va_list args);

}  // namespace Olm
