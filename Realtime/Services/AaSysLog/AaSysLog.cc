#include "AaSysLog.h"

#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>

#include "AaConfigRad.h"
#include "AaSysCom.h"
#include "AaSysLogLine.h"
#include "AaSysTime.h"
#include "IRuntime.h"

namespace {

// R&D parameters of domain 1, read on every line so that a change takes effect at once.
constexpr uint32_t kInputLevelTag = 0x10040;    // lines below this level are dropped
constexpr uint32_t kOutputSwitchTag = 0x10041;  // 0: lines are built but never sent
constexpr uint32_t kOutputSwitchOff = 0;

// Only these levels are ever output, whatever the input level says.
constexpr uint32_t kLowestOutputLevel = EAaSysLogSeverityLevel_Info;
constexpr uint32_t kHighestOutputLevel = EAaSysLogSeverityLevel_NoPrint;

// The log message goes to the log collector of the own node group.
constexpr TAaSysComMsgId kLogMsgId = 0x0976;
constexpr TAaSysComCpid kCollectorCpid = 0x0601;
constexpr TAaSysComNid kNodeGroupMask = 0xFFF0;
constexpr TAaSysComNid kCollectorNodeInGroup = 0x000D;
constexpr TAaSysComCpid kSenderCpid = 0xFFFE;
constexpr uint32_t kMtmSet = 1;

// Feature id 0 keeps the line out of the Dispatcher's log.
constexpr uint32_t kNoFeature = 0;

// Set while nobody prints. A failure inside the printing path reports through AaSysLogPrintE
// again; finding the guard clear, that inner call returns at once instead of recursing. A second
// thread that logs meanwhile drops its line the same way: deliberately one word, not a lock.
std::atomic<uint32_t> s_notPrinting{1};

class PrintingGuard {
 public:
  PrintingGuard() : m_entered(s_notPrinting.exchange(0) != 0) {}
  ~PrintingGuard() {
    if (m_entered) s_notPrinting.store(1);
  }
  PrintingGuard(const PrintingGuard&) = delete;
  PrintingGuard& operator=(const PrintingGuard&) = delete;
  bool entered() const { return m_entered; }

 private:
  bool m_entered;
};

bool isOutputLevel(EAaSysLogSeverityLevel level, uint32_t inputLevel) {
  const uint32_t value = static_cast<uint32_t>(level);
  return value >= kLowestOutputLevel && value <= kHighestOutputLevel && value >= inputLevel;
}

bool takeStamp(Olm::SysLogStamp& stamp) {
  SAaUnixTime unixTime;
  if (AaLocalTimeGet(&stamp.localTime) != EAaSysTimeRetVal_Ok) return false;
  if (AaUnixTimeGet(&unixTime) != EAaSysTimeRetVal_Ok) return false;
  stamp.nid = AaSysComGetOwnNid();
  stamp.microseconds = unixTime.microseconds;
  stamp.pid = static_cast<uint32_t>(getpid());
  return true;
}

TAaSysComNid collectorNid(TAaSysComNid ownNid) {
  return static_cast<TAaSysComNid>((ownNid & kNodeGroupMask) | kCollectorNodeInGroup);
}

// Null when no buffer is to be had; the line is then only kept in the Dispatcher's log, if at all.
void* createLogMessage(const Olm::SysLogLine& line, TAaSysComNid ownNid) {
  void* msg = AaSysComMsgCreate(kLogMsgId, line.payloadSize, AaSysComSicadGet(kCollectorCpid, collectorNid(ownNid)));
  if (msg == nullptr) return nullptr;
  AaSysComMsgSetSender(msg, AaSysComSicadGet(kSenderCpid, ownNid));
  AaSysComMsgSetMtm(msg, kMtmSet);
  std::memcpy(AaSysComMsgGetPayload(msg), line.text, line.payloadSize);
  return msg;
}

void copyToDispatcherLog(Olm::IRuntime& runtime, uint32_t featureId, const Olm::SysLogLine& line) {
  if (featureId != kNoFeature) runtime.logfString("%s", line.text);
}

void sendOrDiscard(Olm::IRuntime& dispatcher, void* msg, uint32_t outputSwitch) {
  if (outputSwitch == kOutputSwitchOff) {
    AaSysComMsgDestroy(&msg);
  } else if (msg != nullptr) {
    dispatcher.sendMessage(msg);
  }
}

// The path of every printing function. errno is the caller's again when its text is formatted,
// so that %m names the caller's failure and not one of the clock reads here.
void printLine(EAaSysLogSeverityLevel level, uint32_t featureId, const Olm::SysLogSource* source,
               const char* format, va_list args) {
  const int callerErrno = errno;
  const PrintingGuard guard;
  if (!guard.entered()) return;
  const uint32_t inputLevel = AaConfigRadGetValue(kInputLevelTag);
  const uint32_t outputSwitch = AaConfigRadGetValue(kOutputSwitchTag);
  if (!isOutputLevel(level, inputLevel)) return;
  Olm::IRuntime* dispatcher = Olm::IRuntime::getTheRuntime();
  if (dispatcher == nullptr) return;
  Olm::SysLogStamp stamp;
  if (!takeStamp(stamp)) return;
  Olm::SysLogLine line;
  errno = callerErrno;
  if (!Olm::formatSysLogLine(line, stamp, level, source, format, args)) return;
  void* msg = createLogMessage(line, stamp.nid);
  copyToDispatcherLog(*dispatcher, featureId, line);
  sendOrDiscard(*dispatcher, msg, outputSwitch);
  errno = callerErrno;
}

// A record without a format would have nothing to say; it is dropped rather than stored.
uint32_t recordWords(uint32_t count, const char* format, va_list args) {
  Olm::IRuntime* dispatcher = Olm::IRuntime::getTheRuntime();
  if (dispatcher != nullptr && format != nullptr) dispatcher->vlogf(count, format, args);
  return 0;
}

uint32_t recordText(const char* format, va_list args) {
  Olm::IRuntime* dispatcher = Olm::IRuntime::getTheRuntime();
  if (dispatcher != nullptr && format != nullptr) dispatcher->vlogfString(format, args);
  return 0;
}

}  // namespace

extern "C" {

void AaSysLogPrint(EAaSysLogSeverityLevel level, const char* format, ...) {
  va_list args;
  va_start(args, format);
  printLine(level, kNoFeature, nullptr, format, args);
  va_end(args);
}

void AaSysLogPrintE(EAaSysLogSeverityLevel level, uint32_t featureId, const char* format, ...) {
  va_list args;
  va_start(args, format);
  printLine(level, featureId, nullptr, format, args);
  va_end(args);
}

void AaSysLogVPrint(EAaSysLogSeverityLevel level, const char* format, va_list args) {
  printLine(level, kNoFeature, nullptr, format, args);
}

void AaSysLogPrintD(EAaSysLogSeverityLevel level, uint32_t line, const char* file, const char* format, ...) {
  const Olm::SysLogSource source{file, line};
  va_list args;
  va_start(args, format);
  printLine(level, kNoFeature, &source, format, args);
  va_end(args);
}

void AaSysLogPrintHD(EAaSysLogSeverityLevel level, uint32_t featureId, uint32_t line, const char* file,
                     const char* format, ...) {
  const Olm::SysLogSource source{file, line};
  va_list args;
  va_start(args, format);
  printLine(level, featureId, &source, format, args);
  va_end(args);
}

void AaSysLogPrintF(EAaSysLogSeverityLevel level, uint32_t featureId, const char* format, ...) {
  va_list args;
  va_start(args, format);
  printLine(level, featureId, nullptr, format, args);
  va_end(args);
}

uint32_t AaSysLogPrintBin(EAaSysLogSeverityLevel, uint32_t count, const char* format, ...) {
  va_list args;
  va_start(args, format);
  recordWords(count, format, args);
  va_end(args);
  return 0;
}

uint32_t AaSysLogVPrintBin(EAaSysLogSeverityLevel, uint32_t count, const char* format, va_list args) {
  return recordWords(count, format, args);
}

uint32_t AaSysLogPrintBinE(EAaSysLogSeverityLevel, uint32_t, uint32_t count, const char* format, ...) {
  va_list args;
  va_start(args, format);
  recordWords(count, format, args);
  va_end(args);
  return 0;
}

uint32_t AaSysLogVPrintBinE(EAaSysLogSeverityLevel, uint32_t, uint32_t count, const char* format,
                            va_list args) {
  return recordWords(count, format, args);
}

uint32_t AaSysLogPrintBinS(EAaSysLogSeverityLevel, const char* format, ...) {
  va_list args;
  va_start(args, format);
  recordText(format, args);
  va_end(args);
  return 0;
}

uint32_t AaSysLogVPrintBinS(EAaSysLogSeverityLevel, const char* format, va_list args) {
  return recordText(format, args);
}

uint32_t AaSysLogPrintBinSE(EAaSysLogSeverityLevel, uint32_t, const char* format, ...) {
  va_list args;
  va_start(args, format);
  recordText(format, args);
  va_end(args);
  return 0;
}

uint32_t AaSysLogVPrintBinSE(EAaSysLogSeverityLevel, uint32_t, const char* format, va_list args) {
  return recordText(format, args);
}

uint32_t AaTrblFileRegister(...) { return 0; }

uint32_t AaTrblFileUnregister(...) { return 0; }

}  // extern "C"
