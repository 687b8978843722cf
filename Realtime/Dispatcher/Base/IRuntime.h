// The runtime as the services see it.
//
// The Aa* services and the built-in EUs need a few things of the node they run in: message
// buffers, sending, LTE timers, time, the Dispatcher's log and the own node id. They reach them
// through this narrow interface instead of the Dispatcher class, so a service depends on nothing of
// the Dispatcher's internals and can be unit-tested against a small fake.
//
// Production: Olm::Dispatcher implements it and installs itself as the process's runtime when it
// is constructed. Tests: a fake that records what the services asked for (tests/support).
//
// The process has at most one runtime at a time. Every operation runs on the Dispatcher's thread,
// like the services that call them.
#pragma once

#include <cstdarg>
#include <cstdint>

#include "IAaSysDispatcherSicHandler.h"
#include "LteTime.h"

namespace Olm {

class IRuntime {
 public:
  virtual ~IRuntime() = default;

  // Message buffers: null when none is to be had; deleteMessage ignores null.
  virtual void* newMessage(unsigned int size) = 0;
  virtual void deleteMessage(void* msg) = 0;
  // Hands the message over (it is the runtime's afterwards, also when false is returned): to the
  // node's own EUs when its receiver node is this node, else to the message port. False when a
  // local receiver is unknown (the message is then freed).
  virtual bool sendMessage(void* msg) = 0;

  // LTE timers: the expiry is absolute, the period a duration (0: one-shot); the message becomes
  // the timer's. cancelTimer gives the message back, or null for an identifier that is not armed.
  virtual unsigned int startTimer(LteTime expiry, LteTime period, void* msg) = 0;
  virtual void* cancelTimer(unsigned int id) = 0;

  // Time, read fresh from the time source.
  virtual LteTime getLteTime() = 0;
  virtual int getCdmaTime(unsigned long long* time, unsigned int a, unsigned int b) = 0;
  virtual unsigned long long getTimestamp() = 0;

  // The Dispatcher's log (argument conventions of ILog); each variadic form only starts the
  // argument list and calls its v twin.
  virtual void vlogf(unsigned int count, const char* format, va_list args) = 0;
  virtual void vlogfString(const char* format, va_list args) = 0;
  void logf(unsigned int count, const char* format, ...);
  void logfString(const char* format, ...);

  virtual uint16_t getOwnNid() const = 0;

  // The EU registry, for the services that bring an EU of their own (the broker's proxy). Binding
  // a CPID twice is a broken invariant of the caller; boundEu is null for a free CPID.
  virtual void bindEu(IAaSysDispatcherSicHandler& eu, uint16_t cpid) = 0;
  virtual IAaSysDispatcherSicHandler* boundEu(uint16_t cpid) const = 0;

  // The process's runtime, or null when there is none (services then log "Unable to get
  // Dispatcher instance" and fail softly).
  static IRuntime* getTheRuntime();
  // The process's runtime; without one the assertion "theDispatcher != 0" ends the process (the
  // services for which a missing Dispatcher is fatal).
  static IRuntime& getRuntimeInstance();
  // Installs (or, with null, removes) the process's runtime.
  static void setTheRuntime(IRuntime* runtime);
};

}  // namespace Olm
