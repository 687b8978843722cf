#include "AaError.h"

#include <pthread.h>
#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "AaFile.h"
#include "ErrorStop.h"
#include "ExceptionReport.h"
#include "SignalDescription.h"

namespace {

// The source name of the reports of signals: the readers of reports know it and its line numbers.
constexpr char kSourceName[] = "Realtime/Services/AaError/AaError_Lite";
constexpr char kInvalidFatalityText[] = "Invalid paramters given to call AaErrorExceptionRaise";  // spelled so
constexpr char kAssertionText[] = "Assertion error occurred";
constexpr char kUnknownSignalText[] = "Unknown POSIX signal";

// In the order they are installed.
constexpr int kHandledSignals[] = {SIGSEGV, SIGILL, SIGFPE, SIGBUS, SIGABRT, SIGTERM, SIGINT};

// The context of the signal being handled: call traces start at its interrupted instruction.
std::atomic<void*> g_savedContext{nullptr};
// The thread that installed the handling (the Dispatcher's), where the stop signals are handled.
std::atomic<pid_t> g_startupThread{0};
// The thread running the stop, 0 before it; stop signals on other threads then only interrupt.
std::atomic<pid_t> g_stoppingThread{0};
std::atomic<Olm::StopAction> g_stopAction{AaFileFUSE_Lite_terminate};
// The thread writing the report of a fatal signal, and that signal: a fault inside the report
// (the call trace walks memory that a crash may have left broken) must not report itself.
std::atomic<pid_t> g_signalReportThread{0};
std::atomic<int> g_signalBeingReported{0};

pid_t currentThreadId() { return static_cast<pid_t>(syscall(SYS_gettid)); }

void onSignal(int signalNumber, siginfo_t* info, void* context);

void installHandler(int signalNumber, int flags) {
  struct sigaction action = {};
  action.sa_sigaction = onSignal;
  action.sa_flags = SA_SIGINFO | flags;
  sigemptyset(&action.sa_mask);
  sigaction(signalNumber, &action, nullptr);
}

void setAction(int signalNumber, void (*handler)(int)) {
  struct sigaction action = {};
  action.sa_handler = handler;
  sigemptyset(&action.sa_mask);
  sigaction(signalNumber, &action, nullptr);
}

[[noreturn]] void abortWithoutReport() {
  // The handler would report the abort a second time.
  setAction(SIGABRT, SIG_DFL);
  std::abort();
}

// SIGINT and SIGTERM: stop the RAM file system and exit with status 0, on the starting thread.
void stopOnRequest(int signalNumber) {
  // The delivery reset the action to the default, which would end the process by the next stop
  // signal: the RAM file system's stop sends one to its service thread. From now on they are
  // caught, and interrupt blocking calls instead of restarting them.
  installHandler(SIGTERM, 0);
  installHandler(SIGINT, 0);
  if (g_stoppingThread.load() != 0) return;
  const pid_t self = currentThreadId();
  const pid_t startupThread = g_startupThread.load();
  if (startupThread != 0 && startupThread != self &&
      syscall(SYS_tgkill, getpid(), startupThread, signalNumber) == 0) {
    return;
  }
  pid_t nobody = 0;
  if (!g_stoppingThread.compare_exchange_strong(nobody, self)) return;
  g_stopAction.load()();
  std::exit(0);
}

// Ends the process by signalNumber's default action, now.
[[noreturn]] void endBySignal(int signalNumber) {
  setAction(signalNumber, SIG_DFL);
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, signalNumber);
  pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
  raise(signalNumber);
  _exit(128 + signalNumber);
}

void reportFatalSignal(int signalNumber, const siginfo_t& info) {
  Olm::SignalDescription description;
  if (Olm::describeFatalSignal(signalNumber, info.si_code, info.si_addr, description)) {
    AaErrorExceptionRaise(EAaErrorFatality_System, AAERROR_CODE_SIGNAL, nullptr, 0, description.text, kSourceName,
                          description.line);
  } else {
    AaErrorExceptionRaise(EAaErrorFatality_System, AAERROR_CODE_SIGNAL_UNKNOWN, nullptr, 0, kUnknownSignalText,
                          kSourceName, Olm::kUnknownSignalLine);
  }
}

void onSignal(int signalNumber, siginfo_t* info, void* context) {
  const int savedErrno = errno;
  g_savedContext.store(context);
  if (signalNumber == SIGINT || signalNumber == SIGTERM) {
    stopOnRequest(signalNumber);
    errno = savedErrno;
    return;
  }
  const pid_t self = currentThreadId();
  // The report in progress on this thread faulted: end by the signal it was reporting.
  if (g_signalReportThread.load() == self) endBySignal(g_signalBeingReported.load());
  g_signalBeingReported.store(signalNumber);
  g_signalReportThread.store(self);
  reportFatalSignal(signalNumber, *info);
  // The action is the default now: the process ends by the signal, with a core where one is made.
  raise(signalNumber);
  errno = savedErrno;
}

}  // namespace

namespace Olm {

StopAction setStopAction(StopAction action) { return g_stopAction.exchange(action); }

}  // namespace Olm

extern "C" {

uint32_t AaErrorEeStartup(void) {
  g_startupThread.store(currentThreadId());
  for (int signalNumber : kHandledSignals) installHandler(signalNumber, SA_RESTART | SA_RESETHAND);
  setAction(SIGPIPE, SIG_IGN);
  return 0;
}

uint32_t AaErrorEeShutdown(void) { return 0; }

uint32_t AaErrorExceptionRaise(EAaErrorFatality fatality, uint32_t errorCode, const void* extraData,
                               uint32_t extraDataLength, const char* description, const char* fileName,
                               uint32_t lineNumber) {
  const uint32_t fatalityValue = static_cast<uint32_t>(fatality);
  if (fatalityValue >= EAaErrorFatality_NbrOf) {
    return AaErrorExceptionRaise(EAaErrorFatality_NonFatal, AAERROR_CODE_INVALID_PARAMETERS, nullptr, 0,
                                 kInvalidFatalityText, fileName, lineNumber);
  }
  Olm::writeExceptionReport(Olm::ExceptionReport{fatalityValue, errorCode, extraData, extraDataLength, description,
                                                 fileName, lineNumber, g_savedContext.load()});
  if (fatality == EAaErrorFatality_Fatal) abortWithoutReport();
  return 1;
}

void AaErrorAssertion(const char* expression, const char* fileName, uint32_t lineNumber) {
  const char* const text = expression != nullptr ? expression : "";
  Olm::writeExceptionReport(Olm::ExceptionReport{EAaErrorFatality_Fatal, AAERROR_CODE_ASSERTION, text,
                                                 static_cast<uint32_t>(std::strlen(text)), kAssertionText, fileName,
                                                 lineNumber, g_savedContext.load()});
  abortWithoutReport();
}

}  // extern "C"
