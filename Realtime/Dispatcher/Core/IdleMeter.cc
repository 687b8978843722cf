// The idle meter's exported functions: the Dispatcher's statistics EU does the work.
#include "IdleMeter.h"

#include <cstdio>

#include "Dispatcher.h"

using Olm::Dispatcher;

namespace {

// getDispatcherInstance ends the process without a Dispatcher; the line is for a build where it
// would not.
Dispatcher* dispatcherOrReport() {
  Dispatcher* dispatcher = Dispatcher::getDispatcherInstance();
  if (dispatcher == nullptr) std::puts("IdleMeter : Dispatcher not initialized yet.");
  return dispatcher;
}

}  // namespace

extern "C" {

void IdleMeterStart(uint32_t milliseconds) {
  if (Dispatcher* dispatcher = dispatcherOrReport()) dispatcher->idleMeterStart(milliseconds);
}

void IdleMeterStop(void) {
  if (Dispatcher* dispatcher = dispatcherOrReport()) dispatcher->idleMeterStop();
}

void IdleMeterGetCpuLoad(uint32_t* load, uint32_t* minLoad, uint32_t* maxLoad) {
  Dispatcher* dispatcher = dispatcherOrReport();
  if (dispatcher == nullptr) return;
  if (load == nullptr || minLoad == nullptr || maxLoad == nullptr) {
    std::puts("IdleMeter : input param null. ");
    return;
  }
  dispatcher->idleMeterGet(*load, *minLoad, *maxLoad);
}

uint32_t IdleMeterGetCycleCounter(void) { return 0; }

}  // extern "C"
