// Text for people and JSON for scripts.
#pragma once

#include <cstdint>
#include <string>

namespace Olmctl {

// "0x" and the value in at least digits hexadecimal digits: hex(0x41, 4) is "0x0041".
std::string hex(uint32_t value, int digits);
// A node id as the nodes write it: "0x1011".
inline std::string nidText(uint16_t nid) { return hex(nid, 4); }
// A JSON string literal of text, quotes included.
std::string jsonString(const std::string& text);
// Writes text to standard output in one write.
void printOut(const std::string& text);

}  // namespace Olmctl
