// The Dispatcher's log objects.
//
// Calling convention of every implementation: count is the number of variadic arguments after the
// format, each one machine word (integers, characters, pointers to text that lives as long as the
// process). A log may keep the words and format them later, so formats passed to logf and
// logfMessage must be string literals. In logfMessage the last of the count arguments is the
// message handle; the format consumes the count - 1 words before it. Each variadic operation only
// starts the argument list and calls its v twin, so implementations override the v operations.
#pragma once

#include <cstdarg>

namespace Olm {

// The Dispatcher's trace of one message operation: the current CPID, the operation's name (a
// literal) and the message.
extern const char kMsgOperationFormat[];  // "(%04x)->%s(%p)"

class ILog {
 public:
  virtual ~ILog() = default;
  virtual void logf(unsigned int count, const char* format, ...);
  virtual void vlogf(unsigned int count, const char* format, va_list args) = 0;
  virtual void logfString(const char* format, ...);
  virtual void vlogfString(const char* format, va_list args) = 0;
  virtual void logfMessage(unsigned int count, const char* format, ...);
  virtual void vlogfMessage(unsigned int count, const char* format, va_list args) = 0;
  // The operation trace, logfMessage(3, kMsgOperationFormat, cpid, operation, msg) by default. A
  // log on the hot path may write what that call would, without building the variadic call.
  virtual void logMsgOperation(unsigned int cpid, const char* operation, void* msg);
};

class IMsgFilterLog {
 public:
  virtual ~IMsgFilterLog() = default;
  virtual void logfMessage(unsigned int count, const char* format, ...);
  virtual void vlogfMessage(unsigned int count, const char* format, va_list args) = 0;
  // Whether an operation on msg could be recorded at all. The Dispatcher asks before it builds the
  // variadic call, so a log that filters by message id costs a traced operation on any other
  // message one call and one comparison. The default says yes to everything.
  virtual bool wantsMessage(const void* msg) const;
};

}  // namespace Olm
