#include "AaStartup.h"

#include "AaError.h"
#include "AaFile.h"

// The services of the EE phase, in order. The error handler comes first, so that every later step
// is covered by it; the RAM file mount comes last (a failure there fails the node's start-up). The
// message broker and the R&D slave with the runtime's own R&D domain join between them as they are
// added to the runtime.
extern "C" uint32_t AaStartupEeStartup(void) {
  AaErrorEeStartup();
  if (AaFileFUSE_Lite_init() != 0) return static_cast<uint32_t>(-1);
  return 0;
}
