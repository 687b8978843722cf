#include "OlmTagNames.h"

#include "AaConfigRadOlmDomain.h"

namespace Olmctl {

namespace {

struct NamedTag {
  uint16_t index;
  const char* name;
};

#define OLM_NAMED_TAG(index, name, defaultValue) {index, name},
constexpr NamedTag kNamedTags[] = {AACONFIG_RAD_OLM_TAGS(OLM_NAMED_TAG)};
#undef OLM_NAMED_TAG

}  // namespace

const char* olmTagName(uint32_t index) {
  for (const NamedTag& tag : kNamedTags) {
    if (tag.index == index) return tag.name;
  }
  return nullptr;
}

std::optional<uint16_t> olmTagIndex(const std::string& name) {
  for (const NamedTag& tag : kNamedTags) {
    if (name == tag.name) return tag.index;
  }
  return std::nullopt;
}

}  // namespace Olmctl
