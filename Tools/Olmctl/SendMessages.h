// The payloads of olmctl send: hexadecimal bytes on the command line, and a reply's payload shown
// to people.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace Olmctl {

// Each word an even number of hexadecimal digits, two per byte, the bytes in order; false with
// error for anything else.
bool parsePayload(const std::vector<std::string>& words, std::vector<uint8_t>& payload, std::string& error);

// The payload in lines of up to 32 bytes, indented, in groups of four bytes as they lie in the
// message; "  (no payload)" when empty.
std::string payloadLines(const std::vector<uint8_t>& payload);

}  // namespace Olmctl
