#include "AaFile.h"

// The mount arrives with the RAM file registry; until then a node publishes nothing.
extern "C" int AaFileFUSE_Lite_init(void) { return 0; }

extern "C" void AaFileFUSE_Lite_terminate(void) {}
