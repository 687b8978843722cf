#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
#include <string>

#include "AaError.h"
#include "ErrorStop.h"
#include "ErrorTestChild.h"
#include "SignalDescription.h"

// Functions the call traces must name: external C names, never inlined, and each caller does work
// after the call so that no tail call hides its frame.
extern "C" {
int olmErrorTestDereferenceNull();
int olmErrorTestDivide(int dividend, int divisor);
}

#if defined(__SANITIZE_THREAD__)
// A stop signal ends the process with exit(0) from its handler, so that the atexit handlers and
// static destructors run (a node's shutdown relies on them). In this test program they free
// memory, which the thread sanitizer reports as unsafe inside a signal handler and turns into
// exit status 66; the stop tests check the status, so such reports are left out here.
extern "C" const char* __tsan_default_options() { return "report_signal_unsafe=0"; }
#endif

namespace {

int* volatile s_nowhere = nullptr;
volatile int s_zero = 0;

}  // namespace

// The faults are the point: the sanitizers' own checks would report them before the processor.
extern "C" __attribute__((noinline, no_sanitize("null"))) int olmErrorTestDereferenceNull() { return *s_nowhere + 1; }

extern "C" __attribute__((noinline, no_sanitize("integer-divide-by-zero", "signed-integer-overflow"))) int
olmErrorTestDivide(int dividend, int divisor) {
  return dividend / divisor + 1;
}

namespace {

using OlmTest::ChildOutcome;
using OlmTest::reportCount;
using OlmTest::runInChild;
using OlmTest::valueOf;

constexpr char kSourceName[] = "Realtime/Services/AaError/AaError_Lite";
constexpr int kStopActionOnWrongThread = 7;
constexpr int kWorkerNotInterrupted = 8;

std::string sentByProcess(int reason) {
  return "(reason: " + std::to_string(reason) + " 'unknown') detected by user at address ";
}

bool endedBy(const ChildOutcome& child, int signalNumber) {
  return WIFSIGNALED(child.status) && WTERMSIG(child.status) == signalNumber;
}

bool exitedWith(const ChildOutcome& child, int status) {
  return WIFEXITED(child.status) && WEXITSTATUS(child.status) == status;
}

class AaErrorSignal : public testing::Test {
 protected:
  void SetUp() override {
    const std::string reason = OlmTest::SystemLogCapture::unavailableReason();
    if (!reason.empty()) GTEST_SKIP() << "the system log cannot be captured here: " << reason;
  }

  // The report of a fatal signal: one, of fatality 2 and code 2, from this service's source.
  // lastLineRequired false: the report may end inside its call trace (see the abort case).
  static void expectSignalReport(const ChildOutcome& child, const std::string& description, uint32_t line,
                                 bool lastLineRequired = true) {
    const std::vector<std::string>& lines = child.reportLines;
    ASSERT_EQ(reportCount(lines), 1u) << testing::PrintToString(lines);
    EXPECT_EQ(lines[1], "fatality       : 2 (EAaErrorFatality_System)");
    EXPECT_EQ(lines[2], "code           : internal (2)");
    EXPECT_EQ(valueOf(lines, "description    : ").compare(0, description.size(), description), 0)
        << valueOf(lines, "description    : ");
    EXPECT_EQ(valueOf(lines, "filename       : "), kSourceName);
    EXPECT_EQ(valueOf(lines, "line number    : "), std::to_string(line));
    if (lastLineRequired || lines.back()[0] != '#') {
      EXPECT_EQ(lines.back(), "===>>> letting OS handle the error");
    }
  }
};

TEST_F(AaErrorSignal, ANullDereferenceIsReportedWithATraceFromTheFaultThenEndsTheProcessBySigsegv) {
  const ChildOutcome child = runInChild([] {
    AaErrorEeStartup();
    std::printf("%d\n", olmErrorTestDereferenceNull() + 1);
  });
  EXPECT_TRUE(endedBy(child, SIGSEGV)) << child.status;
  expectSignalReport(child,
                     "Invalid memory reference (reason: 1 'address not mapped to object') detected by kernel at "
                     "address (nil) from ?",
                     118);
  EXPECT_NE(valueOf(child.reportLines, "#00 ").find(" olmErrorTestDereferenceNull+0x"), std::string::npos)
      << testing::PrintToString(child.reportLines);
}

TEST_F(AaErrorSignal, AnIntegerDivisionByZeroIsAFloatingPointErrorThatEndsTheProcessBySigfpe) {
  const ChildOutcome child = runInChild([] {
    AaErrorEeStartup();
    std::printf("%d\n", olmErrorTestDivide(1, s_zero) + 1);
  });
  EXPECT_TRUE(endedBy(child, SIGFPE)) << child.status;
#if defined(__x86_64__) || defined(__i386__)
  expectSignalReport(child, "Floating point error (reason: 1 'integer divide by zero') detected by kernel at address ",
                     211);
  EXPECT_NE(valueOf(child.reportLines, "#00 ").find(" olmErrorTestDivide+0x"), std::string::npos)
      << testing::PrintToString(child.reportLines);
#elif defined(__arm__)
  // 32-bit ARM has no trapping division: the compiler's division routine raises SIGFPE itself.
  expectSignalReport(child, "Floating point error " + sentByProcess(SI_TKILL), 211);
#endif
}

TEST_F(AaErrorSignal, SignalsSentByAProcessAreReportedOnceWithTheirOwnDescriptionAndLine) {
#if defined(__arm__)
  // libunwind's last resort on 32-bit ARM, the frame-pointer chain, faults beyond libc's abort():
  // the trace stops there and the process still ends by SIGABRT, with this one report.
  constexpr bool kAbortTraceComplete = false;
#else
  constexpr bool kAbortTraceComplete = true;
#endif
  const struct {
    int signalNumber;
    void (*raiseIt)();
    std::string description;
    uint32_t line;
    bool lastLineRequired;
  } cases[] = {
      {SIGILL, [] { raise(SIGILL); }, "Invalid instruction " + sentByProcess(SI_TKILL), 179, true},
      {SIGBUS, [] { raise(SIGBUS); }, "Bus error " + sentByProcess(SI_TKILL), 243, true},
      {SIGSEGV, [] { raise(SIGSEGV); }, "Invalid memory reference " + sentByProcess(SI_TKILL), 118, true},
      // abort() raises SIGABRT itself, and again when a handler returns: still one report.
      {SIGABRT, [] { abort(); }, "Abort signal received - detected by user at address ", 263, kAbortTraceComplete},
  };
  for (const auto& c : cases) {
    static void (*s_raise)() = nullptr;
    s_raise = c.raiseIt;
    const ChildOutcome child = runInChild([] {
      AaErrorEeStartup();
      s_raise();
    });
    SCOPED_TRACE(c.description);
    EXPECT_TRUE(endedBy(child, c.signalNumber)) << child.status;
    expectSignalReport(child, c.description, c.line, c.lastLineRequired);
  }
}

TEST(AaErrorSignalDescription, ReasonCodesOutsideTheTablesAreUnknownAndOnlyPositiveOnesComeFromTheKernel) {
  Olm::SignalDescription description{};
  ASSERT_TRUE(Olm::describeFatalSignal(SIGILL, 8, nullptr, description));
  EXPECT_STREQ(description.text,
               "Invalid instruction (reason: 8 'internal stack error') detected by kernel at address (nil) from ?");
  ASSERT_TRUE(Olm::describeFatalSignal(SIGILL, 9, nullptr, description));
  EXPECT_STREQ(description.text, "Invalid instruction (reason: 9 'unknown') detected by kernel at address (nil) from ?");
  ASSERT_TRUE(Olm::describeFatalSignal(SIGBUS, 0, nullptr, description));
  EXPECT_STREQ(description.text, "Bus error (reason: 0 'unknown') detected by user at address (nil) from ?");
  ASSERT_TRUE(Olm::describeFatalSignal(SIGSEGV, 2, nullptr, description));
  EXPECT_STREQ(description.text,
               "Invalid memory reference (reason: 2 'invalid permissions for mapped object') detected by kernel at "
               "address (nil) from ?");
  EXPECT_FALSE(Olm::describeFatalSignal(SIGUSR1, 1, nullptr, description));
}

// The stop signals

TEST_F(AaErrorSignal, SigtermAndSigintEndTheProcessWithStatusZeroAndNoReport) {
  for (int signalNumber : {SIGTERM, SIGINT}) {
    static int s_signal = 0;
    s_signal = signalNumber;
    const ChildOutcome child = runInChild([] {
      AaErrorEeStartup();
      raise(s_signal);
      _exit(OlmTest::kChildBodyReturned + 1);
    });
    EXPECT_TRUE(exitedWith(child, 0)) << signalNumber << ": " << child.status << child.standardError;
    EXPECT_TRUE(child.records.empty()) << testing::PrintToString(child.reportLines);
  }
}

pid_t threadId() { return static_cast<pid_t>(syscall(SYS_gettid)); }

TEST_F(AaErrorSignal, AStopSignalOnAnotherThreadIsHandledOnTheStartingThread) {
  const ChildOutcome child = runInChild([] {
    AaErrorEeStartup();
    Olm::setStopAction([] {
      if (threadId() != getpid()) _exit(kStopActionOnWrongThread);
    });
    // Detached from the start: the process may end before this thread could detach it.
    pthread_attr_t detached;
    pthread_attr_init(&detached);
    pthread_attr_setdetachstate(&detached, PTHREAD_CREATE_DETACHED);
    pthread_t other;
    pthread_create(
        &other, &detached, [](void*) -> void* {
          raise(SIGTERM);
          return nullptr;
        },
        nullptr);
    pause();
  });
  EXPECT_TRUE(exitedWith(child, 0)) << child.status << child.standardError;
  EXPECT_TRUE(child.records.empty());
}

// What the RAM file system's stop does: it wakes its service thread from a blocking call with
// SIGTERM and waits for it. That SIGTERM must neither end the process nor be lost. The service
// thread here takes SIGTERM only inside its wait (ppoll with SIGTERM unblocked), so the test does
// not depend on when the thread gets there.
int s_wakeUpPipe[2];
pthread_t s_serviceThread;

void* serviceThread(void*) {
  sigset_t waitMask;
  pthread_sigmask(SIG_BLOCK, nullptr, &waitMask);
  sigdelset(&waitMask, SIGTERM);
  pollfd wakeUp{s_wakeUpPipe[0], POLLIN, 0};
  const int result = ppoll(&wakeUp, 1, nullptr, &waitMask);
  return reinterpret_cast<void*>(static_cast<intptr_t>(result < 0 && errno == EINTR));
}

void stopLikeTheRamFileSystem() {
  pthread_kill(s_serviceThread, SIGTERM);
  void* interrupted = nullptr;
  pthread_join(s_serviceThread, &interrupted);
  if (interrupted == nullptr) _exit(kWorkerNotInterrupted);
}

TEST_F(AaErrorSignal, TheStopMaySignalItsServiceThreadWithSigtermAndTheProcessStillExitsWithZero) {
  const ChildOutcome child = runInChild([] {
    AaErrorEeStartup();
    Olm::setStopAction(stopLikeTheRamFileSystem);
    if (pipe(s_wakeUpPipe) != 0) return;
    sigset_t stopSignal;
    sigemptyset(&stopSignal);
    sigaddset(&stopSignal, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stopSignal, nullptr);
    pthread_create(&s_serviceThread, nullptr, serviceThread, nullptr);
    pthread_sigmask(SIG_UNBLOCK, &stopSignal, nullptr);
    kill(getpid(), SIGTERM);
    pause();
  });
  EXPECT_TRUE(exitedWith(child, 0)) << child.status << child.standardError;
  EXPECT_TRUE(child.records.empty());
}

TEST_F(AaErrorSignal, TheHandlersResetOnDeliveryRestartCallsAndSigpipeIsIgnored) {
  const ChildOutcome child = runInChild([] {
    AaErrorEeStartup();
    for (int signalNumber : {SIGSEGV, SIGILL, SIGFPE, SIGBUS, SIGABRT, SIGTERM, SIGINT}) {
      struct sigaction action;
      sigaction(signalNumber, nullptr, &action);
      const int flags = SA_SIGINFO | SA_RESTART | SA_RESETHAND;
      if ((action.sa_flags & flags) != flags || !sigisemptyset(&action.sa_mask)) _exit(signalNumber);
    }
    int fds[2];
    if (pipe(fds) != 0) _exit(100);
    close(fds[0]);
    const char byte = 0;
    if (write(fds[1], &byte, 1) != -1 || errno != EPIPE) _exit(101);
  });
  EXPECT_TRUE(exitedWith(child, OlmTest::kChildBodyReturned)) << child.status;
}

}  // namespace
