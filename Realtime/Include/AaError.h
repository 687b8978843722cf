/* The error handler: errors raised by code, failed assertions and fatal POSIX signals become one
 * fixed-format exception report, ended by the call trace of the failing point.
 *
 * Where a report goes:
 *   - fatalities 1 to 3 (and assertions, and fatal signals): the system log, syslog(3) with the
 *     identity "ERR", facility LOG_USER, priority LOG_ERR. Every line is also copied to the
 *     process's standard error (LOG_PERROR), so that a host without a syslog daemon still shows
 *     the report where the node was started.
 *   - fatality 0: the service log, AaSysLogPrintE(EAaSysLogSeverityLevel_Error,
 *     AASYSLOG_FEATURE_NONE, ...), one log line per report line (nothing without a Dispatcher).
 *
 * A report, line by line (the fatal form; the non-fatal banner lacks the leading "NEW "):
 *     NEW -=-= Olm Error Handler exception report =-=-
 *     fatality       : 2 (EAaErrorFatality_System)
 *     code           : internal (2)
 *     description    : Invalid memory reference (reason: 1 'address not mapped to object') ...
 *     EU name        :
 *     extra          : not defined
 *     EE id (OS)     : 4242 (0x1092)
 *     EU id (OS)     : 4242 (0x1092)
 *     EE command     : /opt/olm/bin/OLMLiteExe --nid 0x1011 --load-local libMyEu.so
 *     filename       : Realtime/Services/AaError/AaError_Lite
 *     line number    : 118
 *     calltrace:
 *     #00 0x... MyEu::ProcessMessage(void*&)+0x1c (/opt/eu/libMyEu.so+0x11ac)     (mangled)
 *     ...
 *     ===>>> letting OS handle the error
 *
 * Everything here may be called from any thread. Reports are not serialised: two threads that
 * report at once may interleave their lines. A report written from a signal handler relies on
 * syslog(3), which takes the C library's syslog lock: a signal that interrupts a thread inside
 * syslog(3) and reports on that thread hangs it. */
#ifndef OLM_AAERROR_H
#define OLM_AAERROR_H

#include <stdint.h>

#include "OlmApi.h"

OLM_API_BEGIN

#ifdef __cplusplus
extern "C" {
#endif

/* How bad an error is, and what happens after its report. */
typedef enum EAaErrorFatality {
  EAaErrorFatality_NonFatal = 0,    /* report through AaSysLogPrintE; the caller continues */
  EAaErrorFatality_Fatal = 1,       /* report to the system log, then the process aborts */
  EAaErrorFatality_System = 2,      /* report to the system log; the caller lets the OS act
                                       (the signal handler re-raises the signal) */
  EAaErrorFatality_Supervision = 3, /* report to the system log without a last line */
  EAaErrorFatality_NbrOf = 4        /* number of values; not accepted */
} EAaErrorFatality;

/* Error codes below this are the handler's own ("code : internal (%u)"). */
#define AAERROR_CODE_INTERNAL_LIMIT 4u
/* Codes from 0x10000 to this print as the runtime's ("code : Olm (%u)", less 0x10000). */
#define AAERROR_CODE_OLM_LAST 0x1005Eu
/* The internal codes the handler itself uses. */
#define AAERROR_CODE_SIGNAL_UNKNOWN 0u     /* a signal without a description of its own */
#define AAERROR_CODE_ASSERTION 1u          /* extra data is the failed expression, printed as text */
#define AAERROR_CODE_SIGNAL 2u             /* a fatal signal */
#define AAERROR_CODE_INVALID_PARAMETERS 3u /* AaErrorExceptionRaise was given a bad fatality */

/* Installs the error handler's signal handling for the life of the process. Call once, first of
 * the services (AaStartupEeStartup does), on the thread that will run the Dispatcher.
 *
 * One handler (SA_SIGINFO | SA_RESTART | SA_RESETHAND, empty mask) is installed for SIGSEGV,
 * SIGILL, SIGFPE, SIGBUS, SIGABRT, SIGTERM and SIGINT, in this order; SIGPIPE is ignored.
 *
 * SIGSEGV, SIGILL, SIGFPE, SIGBUS, SIGABRT: the handler writes a report of fatality 2 and code 2
 * whose description names the signal, its reason and the fault address, and whose call trace
 * starts at the interrupted instruction; then it raises the signal again, which now takes its
 * default action (the action was reset on delivery): the process ends by the signal, with a core
 * file where the system writes one. Each such signal is reported once.
 *
 * SIGINT, SIGTERM (the stop signals): no report. The process stops the RAM file system
 * (AaFileFUSE_Lite_terminate) and exits with status 0. The rules for the threads involved:
 *   - The stop runs on the thread that called AaErrorEeStartup (the Dispatcher's): a stop signal
 *     that the kernel gives to another thread is passed on to that one.
 *   - From the first stop signal on, SIGINT and SIGTERM stay caught, without SA_RESTART and
 *     without SA_RESETHAND, and while the stop runs a stop signal does nothing but interrupt the
 *     blocking call of the thread it lands on (EINTR). So AaFileFUSE_Lite_terminate may wake its
 *     service thread from a blocking call with pthread_kill(thread, SIGTERM), and the process
 *     still exits with status 0. A SIGTERM that lands before the thread blocks is consumed with
 *     nothing to interrupt: the thread must also find its stop flag (or the unmount) set.
 *
 * Returns 0. */
uint32_t AaErrorEeStartup(void);

/* Nothing to undo: the signal handling stays for the life of the process. Returns 0. */
uint32_t AaErrorEeShutdown(void);

/* Writes an exception report.
 *
 * fatality:        EAaErrorFatality; 4 or more writes instead a non-fatal report of code 3,
 *                  "Invalid paramters given to call AaErrorExceptionRaise", with the caller's
 *                  file and line.
 * errorCode:       below 4 printed as "internal (%u)"; 0x10000 to 0x1005E as "Olm (%u)" with
 *                  errorCode - 0x10000; above, as " %u (0x%X)". Codes 4 to 0xFFFF print the
 *                  32-bit wrap-around of errorCode - 0x10000; kept so for the log readers.
 * extraData:       null for none ("extra : not defined"); otherwise extraDataLength bytes,
 *                  printed as one text line when errorCode is 1 (up to the first zero byte or
 *                  the length, whichever comes first), else as hex dump lines of 12 bytes.
 *                  Never read beyond extraDataLength bytes.
 * description:     the text of the "description" line; null prints as "(null)".
 * fileName:        the source, from "Realtime" on without extension; null prints "not defined".
 * lineNumber:      the source line.
 *
 * Fatality 1 ends with "===>>> aborting current EE", then SIGABRT is set back to its default
 * action (the abort is not reported again) and the process aborts. Fatality 2 ends with
 * "===>>> letting OS handle the error", fatality 3 without a last line.
 *
 * Returns 1 for fatalities 0, 2 and 3 (and for the invalid ones); does not return for 1. */
uint32_t AaErrorExceptionRaise(EAaErrorFatality fatality, uint32_t errorCode, const void* extraData,
                               uint32_t extraDataLength, const char* description, const char* fileName,
                               uint32_t lineNumber);

/* A failed assertion: a system-log report of fatality 1, code 1, the expression as extra data
 * (printed as text), the description "Assertion error occurred", the file and the line, then the
 * process aborts as for fatality 1. The runtime's services assert through this (OLM_ASSERT in a
 * source named "Realtime/Services/..."), after the standard assertion line on standard error. */
void AaErrorAssertion(const char* expression, const char* fileName, uint32_t lineNumber)
    __attribute__((noreturn));

#ifdef __cplusplus
}
#endif

OLM_API_END

#endif /* OLM_AAERROR_H */
