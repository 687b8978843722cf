#include <signal.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include "AaGpuHelpers.h"
#include "AaSysComMsgHeader.h"
#include "CallTrace.h"
#include "FakeRuntime.h"

// The functions a trace must name: external C names, so the symbols are exactly these, never
// inlined, and each caller does work after the call so that no tail call hides its frame.
extern "C" {
int olmTestCrashInKnownFunction();
int olmTestCallerOfCrash();
uint32_t olmTestTraceFromHere(uint32_t skip);
uint32_t olmTestOuterCaller(uint32_t skip);
uint32_t olmTestRecurse(uint32_t depth, std::vector<std::string>* lines);
uint32_t olmTestSymbolsFromHere(char* text, uint32_t textSize, uint32_t maxFrames);
}

namespace {

#if defined(__SANITIZE_THREAD__)
// What the thread sanitizer may let pass in the fault-trace children: the trace itself allocates
// nothing, but the ends it is written to may. AaSysLogPrintE builds a message (it is not meant for
// signal handlers), and syslog(3) copies each line to standard error through a temporary stdio
// stream whose buffer it allocates and frees.
extern "C" const char* __tsan_default_suppressions() {
  return "signal:AaSysLogPrintE\n"
         "signal:_IO_file_doallocate\n"
         "signal:_IO_default_finish\n";
}
#endif

int* volatile s_nowhere = nullptr;
OlmTest::FakeRuntime* s_runtime = nullptr;

// The ident of the child processes' system log; the C library copies each line to standard error.
constexpr char kIdent[] = "OlmLiteRtTest";
constexpr char kLevelMark[] = "ERR/";

constexpr int kChildHandledTheSignal = 0;
constexpr int kChildSurvivedTheFault = 3;

}  // namespace

// The fault is the point of these functions: the null check of the undefined-behaviour sanitizer
// would report it before the processor does.
extern "C" __attribute__((noinline, no_sanitize("null"))) int olmTestCrashInKnownFunction() { return *s_nowhere; }

extern "C" __attribute__((noinline)) int olmTestCallerOfCrash() { return olmTestCrashInKnownFunction() + 1; }

extern "C" __attribute__((noinline)) uint32_t olmTestTraceFromHere(uint32_t skip) {
  return AaGpuHelpersBacktraceDumpIps(skip, nullptr) + 1;
}

extern "C" __attribute__((noinline)) uint32_t olmTestOuterCaller(uint32_t skip) {
  return olmTestTraceFromHere(skip) + 1;
}

extern "C" __attribute__((noinline)) uint32_t olmTestSymbolsFromHere(char* text, uint32_t textSize,
                                                                   uint32_t maxFrames) {
  return AaGpuHelpersBacktraceSymbols(text, textSize, maxFrames) + 1;
}

namespace {

void collectLine(const char* line, void* lines) { static_cast<std::vector<std::string>*>(lines)->push_back(line); }

}  // namespace

extern "C" __attribute__((noinline)) uint32_t olmTestRecurse(uint32_t depth, std::vector<std::string>* lines) {
  if (depth == 0) {
    const Olm::CallTraceStart start{nullptr, __builtin_return_address(0), 0};
    return Olm::writeCallTrace(start, collectLine, lines) + 1;
  }
  const uint32_t result = olmTestRecurse(depth - 1, lines);
  // Keeps the compiler from turning the recursion into a loop.
  asm volatile("" : : "r"(result) : "memory");
  return result + 1;
}

namespace {

std::string programPath() {
  char path[PATH_MAX] = {};
  const ssize_t length = readlink("/proc/self/exe", path, sizeof(path) - 1);
  return length > 0 ? std::string(path, static_cast<size_t>(length)) : std::string();
}

std::vector<std::string> splitLines(const std::string& text) {
  std::vector<std::string> lines;
  size_t start = 0;
  for (size_t end; (end = text.find('\n', start)) != std::string::npos; start = end + 1) {
    lines.push_back(text.substr(start, end - start));
  }
  return lines;
}

// The trace lines of the system-log lines the fake runtime received: the text after the level.
std::vector<std::string> traceLinesSent(const OlmTest::FakeRuntime& runtime) {
  std::vector<std::string> lines;
  for (size_t i = 0; i < runtime.sent().size(); ++i) {
    const std::string text = runtime.sentText(i);
    const size_t level = text.find(kLevelMark);
    if (level == std::string::npos) continue;
    const size_t start = level + sizeof(kLevelMark) - 1;
    lines.push_back(text.substr(start, text.find('\n') - start));
  }
  return lines;
}

// The line of a frame of the trace, or "" when it has none.
std::string frameLine(const std::vector<std::string>& lines, const std::string& frame) {
  for (const std::string& line : lines) {
    if (line.compare(0, frame.size() + 1, frame + " ") == 0) return line;
  }
  return "";
}

// The instruction address of a function: without the Thumb bit of 32-bit ARM; functions elsewhere
// start at even addresses.
uintptr_t entryOf(const void* function) { return reinterpret_cast<uintptr_t>(function) & ~uintptr_t{1}; }

// A function's name and address, for namesFunctionInProgram.
#define FUNCTION(name) #name, reinterpret_cast<const void*>(&name)

// The line names function at the right offset, and the test program as the object.
testing::AssertionResult namesFunctionInProgram(const std::string& line, const std::string& function,
                                                const void* entry) {
  const size_t name = line.find(" " + function + "+0x");
  if (name == std::string::npos) return testing::AssertionFailure() << "'" << line << "' does not name " << function;
  const uintptr_t address = std::stoull(line.substr(line.find("0x")), nullptr, 16);
  const uintptr_t offset = std::stoull(line.substr(name + function.size() + 2), nullptr, 16);
  if (address - offset != entryOf(entry)) {
    return testing::AssertionFailure() << "'" << line << "': " << function << " starts at 0x" << std::hex
                                       << entryOf(entry);
  }
  if (line.find(" (" + programPath() + "+0x") == std::string::npos) {
    return testing::AssertionFailure() << "'" << line << "' does not name the test program " << programPath();
  }
  return testing::AssertionSuccess();
}

struct ChildResult {
  int status = -1;
  std::vector<std::string> traceLines;  // what the child logged, without the ident
};

// Runs body in a child process with the system log opened as a signal handler finds it, and
// collects the trace lines the child logged until it ended.
ChildResult runChild(void (*body)()) {
  ChildResult result;
  int fds[2];
  if (pipe(fds) != 0) return result;
  const pid_t pid = fork();
  if (pid == 0) {
    dup2(fds[1], STDERR_FILENO);
    openlog(kIdent, LOG_PERROR, LOG_USER);
    // Read before the fault, as in a process that has logged: the first reading allocates.
    tzset();
    body();
    _exit(kChildSurvivedTheFault);
  }
  close(fds[1]);
  std::string output;
  char buffer[4096];
  for (ssize_t got; (got = read(fds[0], buffer, sizeof(buffer))) != 0;) {
    if (got > 0) output.append(buffer, static_cast<size_t>(got));
    if (got < 0 && errno != EINTR) break;
  }
  close(fds[0]);
  while (waitpid(pid, &result.status, 0) < 0 && errno == EINTR) {
  }
  const std::string prefix = std::string(kIdent) + ": ";
  for (const std::string& line : splitLines(output)) {
    if (line.compare(0, prefix.size(), prefix) == 0) result.traceLines.push_back(line.substr(prefix.size()));
  }
  return result;
}

// traceLinesSent for a signal handler: the lines go to standard error as the child's system log
// writes them, and nothing is allocated.
void forwardTraceLinesSent() {
  for (void* msg : s_runtime->sent()) {
    const char* text = reinterpret_cast<const char*>(Olm::msgHeader(msg) + 1);
    const char* level = std::strstr(text, kLevelMark);
    if (level == nullptr) continue;
    char* line = const_cast<char*>(level + sizeof(kLevelMark) - 1);
    char prefix[] = ": ";
    char newline[] = "\n";
    iovec parts[] = {{const_cast<char*>(kIdent), sizeof(kIdent) - 1},
                     {prefix, sizeof(prefix) - 1},
                     {line, std::strcspn(line, "\n")},
                     {newline, 1}};
    if (writev(STDERR_FILENO, parts, sizeof(parts) / sizeof(parts[0])) < 0) return;
  }
}

void (*s_faultHandler)(int, siginfo_t*, void*);

void faultInKnownFunction() {
  struct sigaction action = {};
  action.sa_sigaction = s_faultHandler;
  action.sa_flags = SA_SIGINFO | SA_RESETHAND;
  sigemptyset(&action.sa_mask);
  sigaction(SIGSEGV, &action, nullptr);
  olmTestCallerOfCrash();
}

// A trace from a real fault

class AaGpuHelpersBacktrace : public OlmTest::FakeRuntimeTest {
 protected:
  void SetUp() override { s_runtime = &runtime; }

  void expectTraceOfFault(void (*handler)(int, siginfo_t*, void*)) {
    s_faultHandler = handler;
    const ChildResult child = runChild(faultInKnownFunction);
    const std::string lines = testing::PrintToString(child.traceLines);
    ASSERT_TRUE(WIFEXITED(child.status) && WEXITSTATUS(child.status) == kChildHandledTheSignal)
        << "status " << child.status << ", " << lines;
    EXPECT_TRUE(namesFunctionInProgram(frameLine(child.traceLines, "#00"), FUNCTION(olmTestCrashInKnownFunction))) << lines;
    EXPECT_TRUE(namesFunctionInProgram(frameLine(child.traceLines, "#01"), FUNCTION(olmTestCallerOfCrash))) << lines;
  }
};

TEST_F(AaGpuHelpersBacktrace, ATraceFromTheSignalContextStartsAtTheFaultingFunctionThenItsCaller) {
  expectTraceOfFault([](int, siginfo_t*, void* context) {
    AaGpuHelpersBacktraceDumpIps(0, context);
    forwardTraceLinesSent();
    _exit(kChildHandledTheSignal);
  });
}

TEST_F(AaGpuHelpersBacktrace, TheSystemLogFormWritesTheSameFramesThroughSyslog) {
  expectTraceOfFault([](int, siginfo_t*, void* context) {
    AaGpuHelpersBacktraceDumpIpsSysLog(2, context);
    _exit(kChildHandledTheSignal);
  });
}

// A trace from the caller

TEST_F(AaGpuHelpersBacktrace, WithoutAContextTheTraceStartsAtTheCallerAndSkippedFramesKeepTheirNumbers) {
  EXPECT_EQ(olmTestOuterCaller(0), 2u + EAaGpuHelpersRet_Ok);
  std::vector<std::string> lines = traceLinesSent(runtime);
  EXPECT_TRUE(namesFunctionInProgram(frameLine(lines, "#00"), FUNCTION(olmTestTraceFromHere)));
  EXPECT_TRUE(namesFunctionInProgram(frameLine(lines, "#01"), FUNCTION(olmTestOuterCaller)));

  const size_t unskipped = lines.size();
  olmTestOuterCaller(1);
  lines = traceLinesSent(runtime);
  ASSERT_EQ(lines.size(), 2 * unskipped - 1);
  EXPECT_EQ(lines[unskipped].compare(0, 4, "#01 "), 0) << lines[unskipped];
  EXPECT_TRUE(namesFunctionInProgram(lines[unskipped], FUNCTION(olmTestOuterCaller)));
}

TEST_F(AaGpuHelpersBacktrace, ADeepStackIsCutAtTheDepthLimit) {
  std::vector<std::string> lines;
  EXPECT_EQ(olmTestRecurse(2 * AAGPUHELPERS_BACKTRACE_MAX_FRAMES, &lines), 2 * AAGPUHELPERS_BACKTRACE_MAX_FRAMES + 1);
  ASSERT_EQ(lines.size(), AAGPUHELPERS_BACKTRACE_MAX_FRAMES + 1) << testing::PrintToString(lines);
  EXPECT_TRUE(namesFunctionInProgram(lines[0], FUNCTION(olmTestRecurse)));
  EXPECT_TRUE(namesFunctionInProgram(lines[AAGPUHELPERS_BACKTRACE_MAX_FRAMES - 1], FUNCTION(olmTestRecurse)));
  EXPECT_EQ(lines.back(), "#64 cut after 64 frames");
  for (const std::string& line : lines) EXPECT_LT(line.size(), Olm::kCallTraceLineSize);
}

TEST_F(AaGpuHelpersBacktrace, AFatalityOutOfRangeIsRejectedAndLogged) {
  EXPECT_EQ(AaGpuHelpersBacktraceDumpIpsSysLog(4, nullptr), EAaGpuHelpersRet_InvalidParameter);
  const std::vector<std::string> lines = traceLinesSent(runtime);
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0], "AaGpuHelpersBacktraceDumpIpsSysLog(): fatality 4 out of range");
}

// The call stack as one text

TEST_F(AaGpuHelpersBacktrace, SymbolTextJoinsWholeFramesFromTheCallerWhileTheyFit) {
  char text[1024];
  ASSERT_EQ(olmTestSymbolsFromHere(text, sizeof(text), 2), EAaGpuHelpersRet_Ok + 1u);
  const std::string twoFrames(text);
  EXPECT_EQ(twoFrames.rfind("olmTestSymbolsFromHere+0x", 0), 0u) << twoFrames;
  EXPECT_NE(twoFrames.find(" (" + programPath() + "+0x"), std::string::npos) << twoFrames;
  ASSERT_EQ(std::count(twoFrames.begin(), twoFrames.end(), ';'), 2) << twoFrames;
  EXPECT_EQ(twoFrames.back(), ';');

  // Room for the first frame and the terminating zero, then for one character less.
  const std::string firstFrame = twoFrames.substr(0, twoFrames.find(';') + 1);
  EXPECT_EQ(olmTestSymbolsFromHere(text, static_cast<uint32_t>(firstFrame.size() + 1), 2), EAaGpuHelpersRet_Ok + 1u);
  EXPECT_EQ(text, firstFrame);
  EXPECT_EQ(olmTestSymbolsFromHere(text, static_cast<uint32_t>(firstFrame.size()), 2), EAaGpuHelpersRet_Ok + 1u);
  EXPECT_STREQ(text, "");
}

TEST_F(AaGpuHelpersBacktrace, SymbolTextArgumentsOutOfRangeAreRejectedAndLogged) {
  char text[8] = "x";
  EXPECT_EQ(AaGpuHelpersBacktraceSymbols(nullptr, sizeof(text), 1), EAaGpuHelpersRet_InvalidParameter);
  EXPECT_EQ(AaGpuHelpersBacktraceSymbols(text, 0, 1), EAaGpuHelpersRet_InvalidParameter);
  EXPECT_EQ(AaGpuHelpersBacktraceSymbols(text, sizeof(text), 0), EAaGpuHelpersRet_InvalidParameter);
  EXPECT_EQ(AaGpuHelpersBacktraceSymbols(text, sizeof(text), AAGPUHELPERS_BACKTRACE_MAX_FRAMES + 1),
            EAaGpuHelpersRet_InvalidParameter);
  EXPECT_STREQ(text, "x");
  const std::vector<std::string> lines = traceLinesSent(runtime);
  ASSERT_EQ(lines.size(), 4u);
  for (const std::string& line : lines) EXPECT_EQ(line.rfind("AaGpuHelpersBacktraceSymbols(): ", 0), 0u) << line;
}

}  // namespace
