// The lines of an exception report and where they go.
#pragma once

#include <cstddef>
#include <cstdint>

namespace Olm {

// The command line of the report: at most this many bytes of /proc/<pid>/cmdline.
inline constexpr size_t kCommandLineMaxBytes = 255;

struct ExceptionReport {
  uint32_t fatality;  // 0 to 3
  uint32_t code;
  const void* extraData;  // null: none
  uint32_t extraDataLength;
  const char* description;
  const char* fileName;  // null: "not defined"
  uint32_t lineNumber;
  void* savedContext;  // where the call trace starts (an SA_SIGINFO context), null: at the writer
};

// Turns the argument separators of a raw /proc/<pid>/cmdline (length bytes, text[length]
// writable) into blanks; the text ends at the first double zero byte, at a last zero byte, or
// after length bytes. Returns the text's length.
size_t joinCommandLineArguments(char* text, size_t length);

// The process's command line as the report shows it, zero-terminated; empty when unreadable.
void readCommandLine(char (&text)[kCommandLineMaxBytes + 1]);

// Writes the report lines from the banner to the last line: fatalities 1 to 3 to the system log
// (opened with the identity "ERR", facility LOG_USER and priority LOG_ERR, copied to standard
// error), fatality 0 through AaSysLogPrintE. Opens and closes the system log around them, and
// flushes standard output in the system-log case.
void writeExceptionReport(const ExceptionReport& report);

}  // namespace Olm
