// Pieces shared by the tag functions.
#pragma once

#include <cstdint>

#include "AaConfig.h"

namespace Olm {

// Log lines of the tag service go out under its R&D switch in domain 1, AaConfigTag.
constexpr uint32_t kAaConfigTagFeatureId = 0x1001A;

// A name longer than the limit; null counts as not too long (it is refused on its own).
bool isTagNameTooLong(const char* name);

// The log line of a write, by type; unspecified values that are neither a word nor a printable
// string are dumped in hex only while the AaConfigTag switch is on. value holds length bytes.
void logTagWrite(const char* name, const uint8_t* value, uint32_t length, uint32_t type);

}  // namespace Olm
