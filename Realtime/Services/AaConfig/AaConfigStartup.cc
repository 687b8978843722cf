#include "AaConfig.h"

extern "C" uint32_t AaConfigEarlyStartup(void) {
  AaConfig_TagDatabaseEarlyStartup();
  AaConfigTagEarlyStartup();
  AaConfigTagEeStartup();
  return 0;
}
