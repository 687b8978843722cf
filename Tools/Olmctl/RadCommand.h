// olmctl rad get|set: any node's R&D parameters, read and written through the R&D master.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "Command.h"

namespace Olmctl {

// DOMAIN[:INDEX]; a parameter of domain 1 may be named instead, "1:AaSysLogOutputMode" or
// "AaSysLogOutputMode".
struct ParameterSelector {
  uint16_t domain = 0;
  std::optional<uint16_t> index;
};
bool parseParameterSelector(const std::string& text, ParameterSelector& selector, std::string& error);

const Command& radCommand();

}  // namespace Olmctl
