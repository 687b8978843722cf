#include "AaStartup.h"

#include "AaError.h"
#include "AaFile.h"
#include "AaSysMb.h"

// The services of the EE phase, in order. The error handler comes first, so that every later step
// is covered by it; the RAM file mount comes last (a failure there fails the node's start-up). The
// message broker follows the error handler; the R&D slave with the runtime's own R&D domain joins
// before the mount as it is added to the runtime. A broker that cannot start has logged why, and the
// node runs on without it.
extern "C" uint32_t AaStartupEeStartup(void) {
  AaErrorEeStartup();
  AaSysMbInit();
  if (AaFileFUSE_Lite_init() != 0) return static_cast<uint32_t>(-1);
  return 0;
}
