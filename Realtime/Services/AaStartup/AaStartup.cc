#include "AaStartup.h"

#include "AaError.h"

// The error handler comes first, so that every later step's failures are reported. The message
// broker, the R&D slave with the runtime's own R&D domain and the RAM files join this start-up as
// they are added to the runtime.
extern "C" uint32_t AaStartupEeStartup(void) {
  AaErrorEeStartup();
  return 0;
}
