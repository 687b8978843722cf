/* The system log: services and EUs report through these functions. */
#ifndef OLM_AASYSLOG_H
#define OLM_AASYSLOG_H

#include <stdarg.h>
#include <stdint.h>

#include "OlmApi.h"

OLM_API_BEGIN

#ifdef __cplusplus
extern "C" {
#endif

typedef enum EAaSysLogSeverityLevel {
  EAaSysLogSeverityLevel_Verbose = 0, /* "?V?", never output */
  EAaSysLogSeverityLevel_Debug = 1,   /* "DBG", never output */
  EAaSysLogSeverityLevel_Info = 2,    /* "INF" */
  EAaSysLogSeverityLevel_Warning = 3, /* "WRN" */
  EAaSysLogSeverityLevel_Error = 4,   /* "ERR" */
  EAaSysLogSeverityLevel_Vip = 5,     /* "VIP" */
  EAaSysLogSeverityLevel_NoPrint = 6  /* "?N?" */
} EAaSysLogSeverityLevel;

/* Feature id of log lines that belong to no service. */
#define AASYSLOG_FEATURE_NONE 0xFFFFu

void AaSysLogPrint(EAaSysLogSeverityLevel level, const char* format, ...)
    __attribute__((format(printf, 2, 3)));
/* A non-zero feature id also copies the line into the Dispatcher's log. */
void AaSysLogPrintE(EAaSysLogSeverityLevel level, uint32_t featureId, const char* format, ...)
    __attribute__((format(printf, 3, 4)));
void AaSysLogVPrint(EAaSysLogSeverityLevel level, const char* format, va_list args);
void AaSysLogPrintD(EAaSysLogSeverityLevel level, uint32_t line, const char* file, const char* format, ...)
    __attribute__((format(printf, 4, 5)));
/* As AaSysLogPrintD, and a non-zero feature id also copies the line into the Dispatcher's log. */
void AaSysLogPrintHD(EAaSysLogSeverityLevel level, uint32_t featureId, uint32_t line, const char* file,
                     const char* format, ...) __attribute__((format(printf, 5, 6)));
/* As AaSysLogPrintE. */
void AaSysLogPrintF(EAaSysLogSeverityLevel level, uint32_t featureId, const char* format, ...)
    __attribute__((format(printf, 3, 4)));

/* Binary records: the words go unformatted into the Dispatcher's log (the history log), which
 * formats them only when it is read. count is the number of arguments after the format, each one
 * machine word; the format and any text argument must live as long as the process. The level and
 * the feature id are accepted and not used. All return 0, also when there is no Dispatcher (then
 * nothing is recorded). */
uint32_t AaSysLogPrintBin(EAaSysLogSeverityLevel level, uint32_t count, const char* format, ...);
uint32_t AaSysLogVPrintBin(EAaSysLogSeverityLevel level, uint32_t count, const char* format, va_list args);
uint32_t AaSysLogPrintBinE(EAaSysLogSeverityLevel level, uint32_t featureId, uint32_t count,
                           const char* format, ...);
uint32_t AaSysLogVPrintBinE(EAaSysLogSeverityLevel level, uint32_t featureId, uint32_t count,
                            const char* format, va_list args);
/* Text records: formatted at once and kept as text. Return 0. */
uint32_t AaSysLogPrintBinS(EAaSysLogSeverityLevel level, const char* format, ...)
    __attribute__((format(printf, 2, 3)));
uint32_t AaSysLogVPrintBinS(EAaSysLogSeverityLevel level, const char* format, va_list args);
uint32_t AaSysLogPrintBinSE(EAaSysLogSeverityLevel level, uint32_t featureId, const char* format, ...)
    __attribute__((format(printf, 3, 4)));
uint32_t AaSysLogVPrintBinSE(EAaSysLogSeverityLevel level, uint32_t featureId, const char* format,
                             va_list args);

/* Troubleshooting files are not collected by this runtime: both accept any arguments, do nothing
 * and return 0. */
#ifdef __cplusplus
uint32_t AaTrblFileRegister(...);
uint32_t AaTrblFileUnregister(...);
#else
uint32_t AaTrblFileRegister();
uint32_t AaTrblFileUnregister();
#endif

#ifdef __cplusplus
}
#endif

OLM_API_END

#endif /* OLM_AASYSLOG_H */
