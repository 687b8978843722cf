// The Dispatcher as EU libraries and the hosting executable see it.
//
// The hosting executable calls IAaSysDispatcherCreate with its command line and then
// AaSysDispatcherRun. Every EU library exports
//     extern "C" void EuMain(Olm::IAaSysDispatcher* dispatcher);
// which start-up calls once, after the node is up, to let the library bind its EUs.
#pragma once

#include "OlmApi.h"

#include "IAaSysDispatcherSicHandler.h"

OLM_API_BEGIN

namespace Olm {

class IAaSysDispatcher {
 public:
  virtual ~IAaSysDispatcher() = default;
  // Registers an EU for a CPID. A CPID bound twice aborts the process; CPID 0 must not be bound.
  virtual void AaSysDispatcherCpidBind(IAaSysDispatcherSicHandler& eu, unsigned short cpid) = 0;
  // Enters the event loop; never returns.
  virtual void AaSysDispatcherRun() = 0;

  // Builds the node from the command line on the first call (loading the EU libraries it names)
  // and returns its Dispatcher; later calls return the same Dispatcher and ignore the arguments.
  // Ends the process on --help and on start-up failures.
  static IAaSysDispatcher* IAaSysDispatcherCreate(int argc, char** argv);
};

}  // namespace Olm

// The entry point of an EU library.
extern "C" typedef void (*TOlmEuMain)(Olm::IAaSysDispatcher* dispatcher);

OLM_API_END
