// The base of every execution unit (EU).
//
// An EU is bound to a CPID with IAaSysDispatcher::AaSysDispatcherCpidBind. The Dispatcher calls
// PrioritizeMessage when a message for that CPID arrives and ProcessMessage when it is its turn;
// both run on the Dispatcher's thread.
#pragma once

#include "OlmApi.h"

OLM_API_BEGIN

namespace Olm {

class IAaSysDispatcherSicHandler {
 public:
  virtual ~IAaSysDispatcherSicHandler() = default;
  // Chooses the queue: 1 HIGH, 2 MED, anything else LOW. The EU may replace the message; the
  // pointer as it stands after the call is queued.
  virtual int PrioritizeMessage(void*& msg) = 0;
  // Handles the message. A pointer still non-null on return is freed by the Dispatcher; an EU that
  // keeps, forwards, sends or frees the message sets it to null.
  virtual void ProcessMessage(void*& msg) = 0;
};

}  // namespace Olm

OLM_API_END
