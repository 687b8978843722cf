#include "ILog.h"

namespace Olm {

void ILog::logf(unsigned int count, const char* format, ...) {
  va_list args;
  va_start(args, format);
  vlogf(count, format, args);
  va_end(args);
}

void ILog::logfString(const char* format, ...) {
  va_list args;
  va_start(args, format);
  vlogfString(format, args);
  va_end(args);
}

void ILog::logfMessage(unsigned int count, const char* format, ...) {
  va_list args;
  va_start(args, format);
  vlogfMessage(count, format, args);
  va_end(args);
}

const char kMsgOperationFormat[] = "(%04x)->%s(%p)";

void ILog::logMsgOperation(unsigned int cpid, const char* operation, void* msg) {
  logfMessage(3, kMsgOperationFormat, cpid, operation, msg);
}

void IMsgFilterLog::logfMessage(unsigned int count, const char* format, ...) {
  va_list args;
  va_start(args, format);
  vlogfMessage(count, format, args);
  va_end(args);
}

bool IMsgFilterLog::wantsMessage(const void*) const { return true; }

}  // namespace Olm
