// The names of domain 1's parameters, the runtime's own, known to the tool without the runtime.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace Olmctl {

// The name of an index of domain 1; null for an index without one.
const char* olmTagName(uint32_t index);
// The index of a domain-1 parameter by its exact name.
std::optional<uint16_t> olmTagIndex(const std::string& name);

}  // namespace Olmctl
