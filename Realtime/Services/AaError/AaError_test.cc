#include <signal.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "AaError.h"
#include "AaSysComMsgHeader.h"
#include "ErrorTestChild.h"
#include "ExceptionReport.h"
#include "FakeRuntime.h"
#include "OlmAssert.h"

namespace {

using OlmTest::ChildOutcome;
using OlmTest::reportCount;
using OlmTest::runInChild;
using OlmTest::valueOf;

constexpr char kFatalBanner[] = "NEW -=-= Olm Error Handler exception report =-=-";
constexpr char kNonFatalBanner[] = "-=-= Olm Error Handler exception report =-=-";
constexpr int kUserErrorPriority = LOG_USER | LOG_ERR;

std::string hexUpper(unsigned value) {
  char text[16];
  std::snprintf(text, sizeof(text), "%X", value);
  return text;
}

// The service log lines the fake runtime received: the text after the level.
std::vector<std::string> serviceLogLines(const OlmTest::FakeRuntime& runtime, size_t firstMessage = 0) {
  std::vector<std::string> lines;
  for (size_t i = firstMessage; i < runtime.sent().size(); ++i) {
    const std::string text = runtime.sentText(i);
    const size_t level = text.find("ERR/");
    if (level != std::string::npos) lines.push_back(text.substr(level + 4, text.find('\n') - level - 4));
  }
  return lines;
}

// The non-fatal report: through the service log, in this process

class AaErrorNonFatal : public OlmTest::FakeRuntimeTest {
 protected:
  // The lines of one more report.
  std::vector<std::string> raise(uint32_t code, const void* extra = nullptr, uint32_t length = 0) {
    const size_t firstMessage = runtime.sent().size();
    EXPECT_EQ(AaErrorExceptionRaise(EAaErrorFatality_NonFatal, code, extra, length, "what went wrong",
                                    "Realtime/Services/Foo/Bar", 42),
              1u);
    return serviceLogLines(runtime, firstMessage);
  }
};

TEST_F(AaErrorNonFatal, TheReportGoesToTheServiceLogLineByLineAndTheCallerContinues) {
  const std::vector<std::string> lines = raise(0x10001);
  ASSERT_GE(lines.size(), 13u) << testing::PrintToString(lines);
  const unsigned pid = static_cast<unsigned>(getpid());
  const unsigned tid = static_cast<unsigned>(syscall(SYS_gettid));
  const std::vector<std::string> head(lines.begin(), lines.begin() + 12);
  const std::vector<std::string> expected = {
      kNonFatalBanner,
      "fatality       : 0 (EAaErrorFatality_NonFatal)",
      "code           : Olm (1)",
      "description    : what went wrong",
      "EU name        : ",
      "extra          : not defined",
      "EE id (OS)     : " + std::to_string(pid) + " (0x" + hexUpper(pid) + ")",
      "EU id (OS)     : " + std::to_string(tid) + " (0x" + hexUpper(tid) + ")",
      "EE command     : " + head[8].substr(17),
      "filename       : Realtime/Services/Foo/Bar",
      "line number    : 42",
      "calltrace:"};
  EXPECT_EQ(head, expected);
  EXPECT_EQ(head[8].compare(17, std::strlen(program_invocation_name), program_invocation_name), 0) << head[8];
  // The trace runs from the report up through this test; no last line follows it.
  bool namesThisTest = false;
  for (size_t i = 12; i < lines.size(); ++i) {
    EXPECT_EQ(lines[i][0], '#') << lines[i];
    namesThisTest = namesThisTest || lines[i].find("TheCallerContinues") != std::string::npos;
  }
  EXPECT_TRUE(namesThisTest) << testing::PrintToString(lines);
}

TEST_F(AaErrorNonFatal, CodesPrintAsInternalAsTheRuntimesOrAsPlainNumbers) {
  const struct {
    uint32_t code;
    const char* line;
  } cases[] = {
      {0, "code           : internal (0)"},
      {3, "code           : internal (3)"},
      {4, "code           : Olm (4294901764)"},  // the 32-bit wrap-around of 4 - 0x10000
      {0x10000, "code           : Olm (0)"},
      {0x1005E, "code           : Olm (94)"},
      {0x1005F, "code           :  65631 (0x1005F)"},
      {0x20000, "code           :  131072 (0x20000)"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(raise(c.code).at(2), c.line) << c.code;
  }
}

TEST_F(AaErrorNonFatal, ExtraDataPrintsAsTextForCodeOneWithinItsLengthAndAsAHexDumpOtherwise) {
  const char text[] = "x == 1 && y";
  std::vector<std::string> lines = raise(AAERROR_CODE_ASSERTION, text, 6);
  char pointer[32];
  std::snprintf(pointer, sizeof(pointer), "%p", static_cast<const void*>(text));
  EXPECT_EQ(lines.at(5), std::string("extra          : ") + pointer + ", length: 6");
  EXPECT_EQ(lines.at(6), "                 x == 1");
  EXPECT_EQ(lines.at(7).compare(0, 11, "EE id (OS) "), 0) << lines.at(7);

  uint8_t bytes[20];
  for (uint8_t i = 0; i < sizeof(bytes); ++i) bytes[i] = i;
  lines = raise(0x10002, bytes, sizeof(bytes));
  EXPECT_EQ(lines.at(6), "                 00010203 04050607 08090a0b  |............|");
  EXPECT_EQ(lines.at(7).compare(0, 35, "                 0c0d0e0f 10111213 "), 0) << lines.at(7);
  EXPECT_EQ(lines.at(8).compare(0, 11, "EE id (OS) "), 0) << lines.at(8);
}

TEST_F(AaErrorNonFatal, AFatalityOutOfRangeGivesANonFatalReportOfCodeThreeWithTheCallersPlace) {
  EXPECT_EQ(AaErrorExceptionRaise(static_cast<EAaErrorFatality>(7), 0x20000, "ignored", 7, "ignored", "caller.cc", 77),
            1u);
  const std::vector<std::string> lines = serviceLogLines(runtime);
  ASSERT_GE(lines.size(), 12u);
  EXPECT_EQ(std::vector<std::string>(lines.begin(), lines.begin() + 4),
            (std::vector<std::string>{kNonFatalBanner, "fatality       : 0 (EAaErrorFatality_NonFatal)",
                                      "code           : internal (3)",
                                      "description    : Invalid paramters given to call AaErrorExceptionRaise"}));
  EXPECT_EQ(lines[5], "extra          : not defined");
  EXPECT_EQ(lines[9], "filename       : caller.cc");
  EXPECT_EQ(lines[10], "line number    : 77");
}

// The command line of the report

TEST(AaErrorCommandLine, ArgumentsAreJoinedByBlanksUpToTheFirstEmptyOneOrTheEnd) {
  const struct {
    std::string raw;
    const char* joined;
  } cases[] = {
      {std::string("OLMLiteExe\0--nid\0000x1011\0", 23), "OLMLiteExe --nid 0x1011"},
      {std::string("a\0\0b\0", 5), "a"},
      {std::string("cut-without-terminator", 22), "cut-without-terminator"},
      {std::string("\0x\0", 3), " x"},  // an empty first argument is no end
  };
  for (const auto& c : cases) {
    std::vector<char> text(c.raw.begin(), c.raw.end());
    text.push_back('#');  // the room for the terminator
    const size_t length = Olm::joinCommandLineArguments(text.data(), c.raw.size());
    EXPECT_EQ(std::string(text.data(), length), c.joined);
    EXPECT_EQ(text[length], '\0');
  }
}

TEST(AaErrorCommandLine, TheReportsCommandLineIsThisProcesssCutAt255Bytes) {
  char commandLine[Olm::kCommandLineMaxBytes + 1];
  Olm::readCommandLine(commandLine);
  EXPECT_EQ(std::string(commandLine).compare(0, std::strlen(program_invocation_name), program_invocation_name), 0)
      << commandLine;
  EXPECT_LE(std::strlen(commandLine), 255u);
}

// The system-log reports, in child processes

class AaErrorSystemLog : public testing::Test {
 protected:
  void SetUp() override {
    const std::string reason = OlmTest::SystemLogCapture::unavailableReason();
    if (!reason.empty()) GTEST_SKIP() << "the system log cannot be captured here: " << reason;
  }
};

TEST_F(AaErrorSystemLog, AFatalReportAbortsOnceEvenWithTheHandlersInstalled) {
  const ChildOutcome child = runInChild([] {
    AaErrorEeStartup();
    AaErrorExceptionRaise(EAaErrorFatality_Fatal, 0x20000, nullptr, 0, "cannot go on", "Realtime/Services/Foo/Bar",
                          7);
  });
  const std::vector<std::string>& lines = child.reportLines;
  EXPECT_TRUE(WIFSIGNALED(child.status) && WTERMSIG(child.status) == SIGABRT) << child.status;
  ASSERT_EQ(reportCount(lines), 1u) << testing::PrintToString(lines);
  for (const OlmTest::SystemLogRecord& record : child.records) EXPECT_EQ(record.priority, kUserErrorPriority);
  const std::vector<std::string> head(lines.begin(), lines.begin() + 6);
  const std::vector<std::string> expected = {kFatalBanner,
                                             "fatality       : 1 (EAaErrorFatality_Fatal)",
                                             "code           :  131072 (0x20000)",
                                             "description    : cannot go on",
                                             "EU name        : ",
                                             "extra          : not defined"};
  EXPECT_EQ(head, expected);
  const std::string pid = std::to_string(child.pid);
  EXPECT_EQ(valueOf(lines, "EE id (OS)     : "), pid + " (0x" + hexUpper(static_cast<unsigned>(child.pid)) + ")");
  EXPECT_EQ(valueOf(lines, "EU id (OS)     : "), valueOf(lines, "EE id (OS)     : "));
  EXPECT_EQ(valueOf(lines, "filename       : "), "Realtime/Services/Foo/Bar");
  EXPECT_EQ(valueOf(lines, "line number    : "), "7");
  EXPECT_EQ(lines.back(), "===>>> aborting current EE");
  // Every line also went to standard error, for hosts without a syslog daemon.
  EXPECT_NE(child.standardError.find(std::string("ERR: ") + kFatalBanner), std::string::npos) << child.standardError;
}

TEST_F(AaErrorSystemLog, SystemAndSupervisionReportsReturnOneWithTheirLastLines) {
  const ChildOutcome system = runInChild([] {
    _exit(static_cast<int>(AaErrorExceptionRaise(EAaErrorFatality_System, 2, nullptr, 0, "d", nullptr, 1)));
  });
  EXPECT_TRUE(WIFEXITED(system.status) && WEXITSTATUS(system.status) == 1) << system.status;
  ASSERT_EQ(reportCount(system.reportLines), 1u) << testing::PrintToString(system.reportLines);
  EXPECT_EQ(system.reportLines[1], "fatality       : 2 (EAaErrorFatality_System)");
  EXPECT_EQ(valueOf(system.reportLines, "filename       : "), "not defined");
  EXPECT_EQ(system.reportLines.back(), "===>>> letting OS handle the error");

  const ChildOutcome supervision = runInChild([] {
    _exit(static_cast<int>(AaErrorExceptionRaise(EAaErrorFatality_Supervision, 2, nullptr, 0, "d", nullptr, 1)));
  });
  EXPECT_TRUE(WIFEXITED(supervision.status) && WEXITSTATUS(supervision.status) == 1) << supervision.status;
  ASSERT_EQ(reportCount(supervision.reportLines), 1u);
  EXPECT_EQ(supervision.reportLines[1], "fatality       : 3 (EAaErrorFatality_Supervision)");
  // No last line: the report ends with its call trace.
  EXPECT_EQ(supervision.reportLines.back()[0], '#') << supervision.reportLines.back();
}

TEST_F(AaErrorSystemLog, AnAssertionReportsTheExpressionAsTextAndAborts) {
  static const char kExpression[] = "m_count < kLimit";
  const ChildOutcome child = runInChild([] {
    AaErrorEeStartup();
    AaErrorAssertion(kExpression, "Realtime/Services/Foo/Bar", 99);
  });
  const std::vector<std::string>& lines = child.reportLines;
  EXPECT_TRUE(WIFSIGNALED(child.status) && WTERMSIG(child.status) == SIGABRT) << child.status;
  ASSERT_EQ(reportCount(lines), 1u) << testing::PrintToString(lines);
  EXPECT_EQ(lines[1], "fatality       : 1 (EAaErrorFatality_Fatal)");
  EXPECT_EQ(lines[2], "code           : internal (1)");
  EXPECT_EQ(lines[3], "description    : Assertion error occurred");
  char pointer[32];
  std::snprintf(pointer, sizeof(pointer), "%p", static_cast<const void*>(kExpression));
  EXPECT_EQ(lines[5], std::string("extra          : ") + pointer + ", length: 16");
  EXPECT_EQ(lines[6], "                 m_count < kLimit");
  EXPECT_EQ(valueOf(lines, "line number    : "), "99");
  EXPECT_EQ(lines.back(), "===>>> aborting current EE");
}

TEST_F(AaErrorSystemLog, ServiceAssertionsReportThroughTheErrorHandlerAndTheDispatchersDoNot) {
  const ChildOutcome service = runInChild([] { Olm::assertFail("0", "Realtime/Services/Foo/Bar", 12, "void f()"); });
  EXPECT_TRUE(WIFSIGNALED(service.status) && WTERMSIG(service.status) == SIGABRT) << service.status;
  EXPECT_EQ(reportCount(service.reportLines), 1u) << testing::PrintToString(service.reportLines);
  EXPECT_EQ(valueOf(service.reportLines, "filename       : "), "Realtime/Services/Foo/Bar");
  EXPECT_NE(service.standardError.find("Realtime/Services/Foo/Bar:12: void f(): Assertion `0' failed."),
            std::string::npos)
      << service.standardError;

  const ChildOutcome dispatcher = runInChild([] { Olm::assertFail("0", "Realtime/Dispatcher/Foo", 12, "void f()"); });
  EXPECT_TRUE(WIFSIGNALED(dispatcher.status) && WTERMSIG(dispatcher.status) == SIGABRT) << dispatcher.status;
  EXPECT_TRUE(dispatcher.records.empty()) << testing::PrintToString(dispatcher.reportLines);
  EXPECT_NE(dispatcher.standardError.find("Realtime/Dispatcher/Foo:12: void f(): Assertion `0' failed."),
            std::string::npos)
      << dispatcher.standardError;
}

}  // namespace
