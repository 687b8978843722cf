// Runs test code in a child process whose system log the test receives (SystemLogCapture), and
// gives back how the child ended and the exception report lines it wrote.
#pragma once

#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "SystemLogCapture.h"

namespace OlmTest {

// The exit status of a child whose body returned.
constexpr int kChildBodyReturned = 0;

struct ChildOutcome {
  pid_t pid = -1;
  int status = -1;                        // wait status
  std::vector<SystemLogRecord> records;   // everything the child sent to the system log
  std::vector<std::string> reportLines;   // the texts of identity "ERR"
  std::string standardError;              // what the child wrote there
};

namespace ErrorTestChildDetail {

constexpr int kChildRedirectFailed = 125;
constexpr char kReportIdentity[] = "ERR";

inline std::string readAll(FILE* file) {
  std::string text;
  std::rewind(file);
  char buffer[4096];
  for (size_t got; (got = std::fread(buffer, 1, sizeof(buffer), file)) > 0;) text.append(buffer, got);
  return text;
}

}  // namespace ErrorTestChildDetail

// Forks, redirects the child's system log and standard error, runs body in the child and ends it
// with kChildBodyReturned if body returns; waits for the child. reportLines stay empty when the
// child could not redirect its system log (the tests skip before, see SystemLogCapture).
inline ChildOutcome runInChild(void (*body)()) {
  ChildOutcome outcome;
  // Received here, not on a thread: the child may start threads of its own.
  SystemLogCapture capture(SystemLogCapture::Receiving::ByCaller);
  FILE* standardError = std::tmpfile();
  int lifeline[2];
  if (standardError == nullptr || pipe(lifeline) != 0) return outcome;
  std::fflush(nullptr);
  outcome.pid = fork();
  if (outcome.pid == 0) {
    close(lifeline[0]);
    dup2(fileno(standardError), STDERR_FILENO);
    if (!capture.redirectThisProcess()) _exit(ErrorTestChildDetail::kChildRedirectFailed);
    body();
    _exit(kChildBodyReturned);
  }
  close(lifeline[1]);
  // The child holds the lifeline's write end until it ends; what it logged has arrived by then.
  if (outcome.pid > 0) capture.receiveUntilClosed(lifeline[0]);
  close(lifeline[0]);
  while (outcome.pid > 0 && waitpid(outcome.pid, &outcome.status, 0) < 0 && errno == EINTR) {
  }
  outcome.records = capture.finish();
  outcome.reportLines = textsOf(outcome.records, ErrorTestChildDetail::kReportIdentity);
  outcome.standardError = ErrorTestChildDetail::readAll(standardError);
  std::fclose(standardError);
  return outcome;
}

// The number of exception reports among the lines (fatal and non-fatal banners).
inline size_t reportCount(const std::vector<std::string>& lines) {
  size_t count = 0;
  for (const std::string& line : lines) {
    if (line == "NEW -=-= Olm Error Handler exception report =-=-" ||
        line == "-=-= Olm Error Handler exception report =-=-") {
      ++count;
    }
  }
  return count;
}

// The rest of the first line that starts with label ("" when there is none).
inline std::string valueOf(const std::vector<std::string>& lines, const std::string& label) {
  for (const std::string& line : lines) {
    if (line.compare(0, label.size(), label) == 0) return line.substr(label.size());
  }
  return "";
}

}  // namespace OlmTest
