// Start-up of the R&D parameters: the domain table, the slave and the subscriber list.
#include "AaConfigRadInternal.h"
#include "OlmAssert.h"

OLM_ASSERT_SOURCE("Realtime/Services/AaConfig/AaConfig_rad_starter")

extern "C" {

uint32_t AaConfigEeStartup(uint32_t domainCount) {
  AaConfigRadSetMaxDomainCount(domainCount);
  AaConfigRadEeStartup();
  return 0;
}

uint32_t AaConfigRadEeStartup(void) {
  AaConfigRadSlave();
  Olm::Rad::createSubscriberList();
  OLM_ASSERT_TEXT(subscriberList != nullptr, "subscriberList != GLO_NULL");
  return 0;
}

}  // extern "C"
