/* Diagnostic helpers of the error reports: hex dump lines and call traces.
 *
 * All functions are safe from any thread and reentrant. The call-trace printers are made to run
 * inside a handler of a fatal signal (SA_SIGINFO): they allocate nothing and format into stack
 * buffers; what they rely on beyond that is listed with them. */
#ifndef OLM_AAGPUHELPERS_H
#define OLM_AAGPUHELPERS_H

#include <stdint.h>

#include "OlmApi.h"

OLM_API_BEGIN

#ifdef __cplusplus
extern "C" {
#endif

typedef enum EAaGpuHelpersRet {
  EAaGpuHelpersRet_Ok = 0,
  EAaGpuHelpersRet_InvalidParameter = 1, /* an argument out of range or a null pointer; logged */
  EAaGpuHelpersRet_NoCallTrace = 2       /* the unwinder could not start; nothing was written */
} EAaGpuHelpersRet;

/* Size in bytes of the line buffer of AaGpuHelpersHexdumpBuild, terminating zero included. */
#define AAGPUHELPERS_HEXDUMP_LINE_SIZE 52u
/* Most bytes a group of AaGpuHelpersHexdumpBuild may hold. */
#define AAGPUHELPERS_HEXDUMP_MAX_GROUP_BYTES 16u
/* Most blanks AaGpuHelpersHexdumpBuild puts between two groups. */
#define AAGPUHELPERS_HEXDUMP_MAX_GROUP_BLANKS 4u

/* Formats the next line of a hex dump into line and consumes the bytes it shows.
 *
 * data:            the cursor into the bytes to dump; advanced past the bytes the line shows.
 * remainingLength: the number of bytes left at *data; reduced by the bytes the line shows. Call
 *                  again until it is 0.
 * line:            AAGPUHELPERS_HEXDUMP_LINE_SIZE bytes; receives the line, zero-terminated.
 *                  Nothing is ever written beyond them.
 * bytesPerGroup:   1 to AAGPUHELPERS_HEXDUMP_MAX_GROUP_BYTES bytes printed as one run of two
 *                  lower-case hexadecimal digits each.
 * groupBlanks:     0 to AAGPUHELPERS_HEXDUMP_MAX_GROUP_BLANKS blanks between two groups.
 * withCharacters:  non-zero appends two blanks and the bytes as characters between '|' marks,
 *                  each byte outside 0x20..0x7E as '.'.
 *
 * The bytes are printed in memory order, so a line is the same on every byte order and word
 * size. A line holds as many whole groups as fit, at least one: (4, 1, 1) shows 12 bytes,
 *     "00010203 04050607 08090a0b  |............|",
 * (4, 1, 0) 20 bytes, (1, 1, 1) 12 bytes. The last line may end in a partial group; with
 * withCharacters its hexadecimal part is padded with blanks so that the characters line up with
 * the lines above. With *remainingLength 0 the line is empty and nothing is consumed.
 *
 * Returns:
 *   EAaGpuHelpersRet_Ok               a line was written.
 *   EAaGpuHelpersRet_InvalidParameter data, remainingLength or line is null, *data is null while
 *                                     *remainingLength is not 0, bytesPerGroup or groupBlanks is
 *                                     out of range, or not even one group fits in a line. The
 *                                     line (if given) is left empty, and *remainingLength (if
 *                                     given) is set to 0, so that a loop that runs until the
 *                                     remaining length is 0 ends. Logged. */
EAaGpuHelpersRet AaGpuHelpersHexdumpBuild(const void** data, uint32_t* remainingLength, char* line,
                                          uint32_t bytesPerGroup, uint32_t groupBlanks,
                                          uint32_t withCharacters);

/* Most frames a call trace shows; a deeper stack ends in a line saying it was cut. */
#define AAGPUHELPERS_BACKTRACE_MAX_FRAMES 64u

/* Call traces. savedContext is the third argument an SA_SIGINFO signal handler received (a
 * ucontext_t*): the trace starts at the interrupted instruction, frame #00 being the function
 * that took the signal. A null savedContext starts the trace at the function that called the
 * printer. One line per frame, innermost first:
 *     "#01 0x00007f3a5c0012c4 AaErrorExceptionRaise+0x64 (/opt/olm/lib/libOlmLiteRt.so.0+0x312c4)"
 * frame number, the instruction address (the interrupted one in frame #00 of a signal context,
 * elsewhere the return address), the symbol with the offset of that address in it (C++ names
 * mangled), and the object the address lies in with its offset from the object's load address
 * (what addr2line takes). What cannot be found prints as "?". A last line says so when the trace
 * was cut short: "#64 cut after 64 frames", or "#NN unwinding stopped (error -N)" (NN the next
 * frame's number, N libunwind's error code) when the unwinder could not step further. Lines are
 * cut at 255 characters. On 32-bit ARM a trace goes only through code built with unwinding tables
 * (the runtime is built with -funwind-tables; an EU library should be too).
 *
 * Inside a signal handler they rely on: libunwind for the walk only (unw_init_local2, unw_step,
 * unw_get_reg, unw_is_signal_frame read the unwind tables, allocate nothing and take libunwind's
 * own cache lock with signals blocked), glibc's _dl_find_object for the object an address lies
 * in (lock-free), and the object's file for the symbol: it is opened read-only (the main program
 * as /proc/self/exe), mapped with mmap for the lookup in its .symtab (.dynsym when stripped),
 * then unmapped and closed. Every offset and size read from the file is checked against its
 * length, so a truncated or corrupt file prints "?". The symbol of a return address is the
 * function holding the call before it. readlink of /proc/self/exe gives the main program's path.
 * The writing is the caller's choice below. */

/* Writes the call trace to the system log with syslog(3), in the identity and facility of the
 * caller's openlog. fatality is that of the error report the trace belongs to (EAaErrorFatality:
 * 0 non-fatal, 1 fatal, 2 system, 3 supervision): the lines get LOG_ERR for 1 to 3 and
 * LOG_WARNING for 0, where the process goes on. syslog(3) itself takes glibc's syslog lock and
 * reads the time zone; the report around the trace writes through it all the same.
 *
 * Returns:
 *   EAaGpuHelpersRet_Ok               the trace was written.
 *   EAaGpuHelpersRet_InvalidParameter fatality above 3; nothing written. Logged.
 *   EAaGpuHelpersRet_NoCallTrace      the unwinder could not start at savedContext (or at the
 *                                     caller); nothing written. */
EAaGpuHelpersRet AaGpuHelpersBacktraceDumpIpsSysLog(uint32_t fatality, void* savedContext);

/* Writes the call trace through AaSysLogPrintE (EAaSysLogSeverityLevel_Error,
 * AASYSLOG_FEATURE_NONE), one log line per frame, leaving out the innermostFramesToSkip innermost
 * frames (the others keep their numbers). For the non-fatal report, outside signal handlers:
 * AaSysLogPrintE builds a message. Without a Dispatcher nothing is written.
 *
 * Returns:
 *   EAaGpuHelpersRet_Ok          the trace was written (also when every frame was skipped).
 *   EAaGpuHelpersRet_NoCallTrace the unwinder could not start; nothing written. */
EAaGpuHelpersRet AaGpuHelpersBacktraceDumpIps(uint32_t innermostFramesToSkip, void* savedContext);

/* Writes the call trace of the caller into text as one line: for each frame, innermost first and
 * starting at the function that called this one, its symbol with the offset of the return address
 * in it and its object with the offset from the object's load address, followed by ';':
 *     "getStackTrace+0x1c (/opt/olm/lib/libOlmLiteRt.so.0+0x2f41c);AaMemMalloc+0x9c (...);"
 * What cannot be found prints as "?". Frames are added while the text, its terminating zero
 * included, fits in textSize bytes; the first frame that does not fit ends the text, so a frame is
 * never cut. The text is always terminated. For callers that must not reach operator new (the
 * allocator's allocation trace): it writes into the caller's buffer only and relies on what the
 * printers above rely on.
 *
 * text:      textSize bytes; receives the frames, zero-terminated.
 * textSize:  at least 1.
 * maxFrames: 1 to AAGPUHELPERS_BACKTRACE_MAX_FRAMES frames at most.
 *
 * Returns:
 *   EAaGpuHelpersRet_Ok               the text was written (it may hold no frame when the first
 *                                     does not fit).
 *   EAaGpuHelpersRet_InvalidParameter text is null, textSize is 0 or maxFrames out of range;
 *                                     nothing written. Logged.
 *   EAaGpuHelpersRet_NoCallTrace      the unwinder could not start; the text is empty. */
EAaGpuHelpersRet AaGpuHelpersBacktraceSymbols(char* text, uint32_t textSize, uint32_t maxFrames);

#ifdef __cplusplus
}
#endif

OLM_API_END

#endif /* OLM_AAGPUHELPERS_H */
