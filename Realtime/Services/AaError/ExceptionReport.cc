#include "ExceptionReport.h"

#include <fcntl.h>
#include <sys/syscall.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdio>

#include "AaError.h"
#include "AaGpuHelpers.h"
#include "AaSysLog.h"

namespace Olm {

namespace {

constexpr char kSysLogIdentity[] = "ERR";
// Every line of a fatal report also goes to standard error: on a host without a syslog daemon
// the report is then still where the node was started.
constexpr int kSysLogOptions = LOG_PERROR;
// The continuation lines of "extra" start under the values of the lines above.
constexpr char kValueIndent[] = "                 ";
constexpr uint32_t kOlmCodeBase = 0x10000;
// The room of one service log line.
constexpr size_t kServiceLogLineSize = 512;
// The hex dump of extra data: 4-byte groups, one blank between them, with the characters.
constexpr uint32_t kDumpBytesPerGroup = 4;
constexpr uint32_t kDumpGroupBlanks = 1;
constexpr uint32_t kDumpWithCharacters = 1;

const char* const kFatalityNames[] = {"EAaErrorFatality_NonFatal", "EAaErrorFatality_Fatal",
                                      "EAaErrorFatality_System", "EAaErrorFatality_Supervision"};

// Non-fatal reports go to the service log, the others to the system log.
class ReportSink {
 public:
  explicit ReportSink(uint32_t fatality) : m_toSystemLog(fatality != EAaErrorFatality_NonFatal) {}

  bool toSystemLog() const { return m_toSystemLog; }

  __attribute__((format(printf, 2, 3))) void line(const char* format, ...) const {
    va_list args;
    va_start(args, format);
    if (m_toSystemLog) {
      vsyslog(LOG_ERR, format, args);
    } else {
      char text[kServiceLogLineSize];
      std::vsnprintf(text, sizeof(text), format, args);
      AaSysLogPrintE(EAaSysLogSeverityLevel_Error, AASYSLOG_FEATURE_NONE, "%s", text);
    }
    va_end(args);
  }

 private:
  bool m_toSystemLog;
};

void writeCode(const ReportSink& sink, uint32_t code) {
  if (code < AAERROR_CODE_INTERNAL_LIMIT) {
    sink.line("code           : internal (%u)", code);
  } else if (code > AAERROR_CODE_OLM_LAST) {
    sink.line("code           :  %u (0x%X)", code, code);
  } else {
    sink.line("code           : Olm (%u)", code - kOlmCodeBase);  // wraps below 0x10000, as it always has
  }
}

void writeExtra(const ExceptionReport& report, const ReportSink& sink) {
  if (report.extraData == nullptr) {
    sink.line("extra          : not defined");
    return;
  }
  sink.line("extra          : %p, length: %i", report.extraData, static_cast<int>(report.extraDataLength));
  if (report.code == AAERROR_CODE_ASSERTION) {
    // The precision keeps the text within the given length when it has no terminator there.
    const int textLimit = report.extraDataLength > INT_MAX ? INT_MAX : static_cast<int>(report.extraDataLength);
    sink.line("%s%.*s", kValueIndent, textLimit, static_cast<const char*>(report.extraData));
    return;
  }
  const void* cursor = report.extraData;
  uint32_t remaining = report.extraDataLength;
  char dumpLine[AAGPUHELPERS_HEXDUMP_LINE_SIZE];
  while (remaining != 0) {
    AaGpuHelpersHexdumpBuild(&cursor, &remaining, dumpLine, kDumpBytesPerGroup, kDumpGroupBlanks,
                             kDumpWithCharacters);
    sink.line("%s%s", kValueIndent, dumpLine);
  }
}

void writeCallTrace(const ExceptionReport& report, const ReportSink& sink) {
  sink.line("calltrace:");
  if (sink.toSystemLog()) {
    AaGpuHelpersBacktraceDumpIpsSysLog(report.fatality, report.savedContext);
  } else {
    AaGpuHelpersBacktraceDumpIps(0, report.savedContext);
  }
}

void writeLastLine(const ExceptionReport& report, const ReportSink& sink) {
  if (report.fatality == EAaErrorFatality_Fatal) sink.line("===>>> aborting current EE");
  if (report.fatality == EAaErrorFatality_System) sink.line("===>>> letting OS handle the error");
}

}  // namespace

size_t joinCommandLineArguments(char* text, size_t length) {
  for (size_t i = 0; i < length; ++i) {
    if (text[i] != '\0') continue;
    if (i + 1 == length || text[i + 1] == '\0') return i;
    text[i] = ' ';
  }
  text[length] = '\0';
  return length;
}

void readCommandLine(char (&text)[kCommandLineMaxBytes + 1]) {
  text[0] = '\0';
  char path[32];
  std::snprintf(path, sizeof(path), "/proc/%u/cmdline", static_cast<unsigned>(getpid()));
  const int fd = open(path, O_RDONLY | O_CLOEXEC);
  if (fd < 0) return;
  size_t length = 0;
  while (length < kCommandLineMaxBytes) {
    const ssize_t got = read(fd, text + length, kCommandLineMaxBytes - length);
    if (got > 0) {
      length += static_cast<size_t>(got);
    } else if (got == 0 || errno != EINTR) {
      break;
    }
  }
  close(fd);
  joinCommandLineArguments(text, length);
}

void writeExceptionReport(const ExceptionReport& report) {
  char commandLine[kCommandLineMaxBytes + 1];
  readCommandLine(commandLine);
  const unsigned processId = static_cast<unsigned>(getpid());
  const unsigned threadId = static_cast<unsigned>(syscall(SYS_gettid));
  const ReportSink sink(report.fatality);

  openlog(kSysLogIdentity, kSysLogOptions, LOG_USER);
  sink.line(sink.toSystemLog() ? "NEW -=-= Olm Error Handler exception report =-=-"
                               : "-=-= Olm Error Handler exception report =-=-");
  sink.line("fatality       : %i (%s)", static_cast<int>(report.fatality), kFatalityNames[report.fatality]);
  writeCode(sink, report.code);
  sink.line("description    : %s", report.description != nullptr ? report.description : "(null)");
  sink.line("EU name        : %s", "");  // the EE has no EU names to give
  writeExtra(report, sink);
  sink.line("EE id (OS)     : %u (0x%X)", processId, processId);
  sink.line("EU id (OS)     : %u (0x%X)", threadId, threadId);
  sink.line("EE command     : %s", commandLine);
  sink.line("filename       : %s", report.fileName != nullptr ? report.fileName : "not defined");
  sink.line("line number    : %i", static_cast<int>(report.lineNumber));
  writeCallTrace(report, sink);
  writeLastLine(report, sink);
  if (sink.toSystemLog()) std::fflush(stdout);
  closelog();
}

}  // namespace Olm
