#include "AaStartup.h"

// The message broker, the R&D slave with the runtime's own R&D domain, the RAM files and the
// error handler join this start-up as they are added to the runtime; none needs starting yet.
extern "C" uint32_t AaStartupEeStartup(void) { return 0; }
