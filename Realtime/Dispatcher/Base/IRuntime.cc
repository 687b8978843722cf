#include "IRuntime.h"

#include "OlmAssert.h"

// A missing runtime is the Dispatcher's missing instance, and is reported as such.
OLM_ASSERT_SOURCE("Realtime/Dispatcher/Dispatcher")

namespace Olm {

namespace {
IRuntime* theRuntime = nullptr;
}

void IRuntime::logf(unsigned int count, const char* format, ...) {
  va_list args;
  va_start(args, format);
  vlogf(count, format, args);
  va_end(args);
}

void IRuntime::logfString(const char* format, ...) {
  va_list args;
  va_start(args, format);
  vlogfString(format, args);
  va_end(args);
}

IRuntime* IRuntime::getTheRuntime() { return theRuntime; }

IRuntime& IRuntime::getRuntimeInstance() {
  OLM_ASSERT_TEXT(theRuntime != nullptr, "theDispatcher != 0");
  return *theRuntime;
}

void IRuntime::setTheRuntime(IRuntime* runtime) { theRuntime = runtime; }

}  // namespace Olm
