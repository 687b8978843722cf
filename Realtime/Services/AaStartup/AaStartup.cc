#include "AaStartup.h"

#include "AaConfigRad.h"
#include "AaError.h"
#include "AaFile.h"
#include "AaSysMb.h"

// The services of the EE phase, in order. The error handler comes first, so that every later step
// is covered by it; the RAM file mount comes last (a failure there fails the node's start-up). The
// message broker follows the error handler, so that the R&D slave can subscribe to the master's
// announcement. Until domain 1 is registered the system log's level and output switch read 0 and
// its lines are not sent. A broker that cannot start has logged why, and the node runs on without
// it.
extern "C" uint32_t AaStartupEeStartup(void) {
  AaErrorEeStartup();
  AaSysMbInit();
  AaConfigEeStartup(AACONFIG_RAD_DOMAIN_COUNT);
  AaConfigRadRegisterDomain(AACONFIG_RAD_OLM_DOMAIN, AACONFIG_RAD_OLM_DOMAIN_NAME, AaConfigRadOlmDomainInit);
  if (AaFileFUSE_Lite_init() != 0) return static_cast<uint32_t>(-1);
  return 0;
}
