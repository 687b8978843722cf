// Domain 1, the runtime's own R&D parameters: one switch per platform service (also the feature id
// of that service's log lines) and the services' settings.
#include "AaConfigRad.h"
#include "AaConfigRadOlmDomain.h"

namespace {

struct OlmTag {
  uint32_t index;
  const char* name;
  int32_t defaultValue;  // -1 for all bits set
};

// The tag count is passed with the domain in its high half; only the low half, 235, is kept.
constexpr uint32_t kOlmTagCountArgument =
    AACONFIG_RAD_OLM_DOMAIN << AACONFIG_RAD_DOMAIN_SHIFT | AACONFIG_RAD_OLM_TAG_COUNT;

#define OLM_TAG_RECORD(index, name, defaultValue) {index, name, defaultValue},
constexpr OlmTag kOlmTags[] = {AACONFIG_RAD_OLM_TAGS(OLM_TAG_RECORD)};
#undef OLM_TAG_RECORD

}  // namespace

extern "C" void AaConfigRadOlmDomainInit(void) {
  AaConfigRadSetMaxTagCount(AACONFIG_RAD_OLM_DOMAIN, kOlmTagCountArgument);
  for (const OlmTag& tag : kOlmTags) {
    AaConfigRadSetDefault(AACONFIG_RAD_OLM_DOMAIN << AACONFIG_RAD_DOMAIN_SHIFT | tag.index, tag.name,
                          static_cast<uint32_t>(tag.defaultValue));
  }
}
