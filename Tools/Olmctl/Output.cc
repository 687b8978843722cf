#include "Output.h"

#include <cstdio>

namespace Olmctl {

namespace {

constexpr unsigned char kFirstPrintable = 0x20;

}  // namespace

std::string hex(uint32_t value, int digits) {
  char text[16];
  std::snprintf(text, sizeof(text), "0x%0*x", digits, value);
  return text;
}

std::string jsonString(const std::string& text) {
  std::string literal = "\"";
  for (const char c : text) {
    if (c == '"' || c == '\\') {
      literal += '\\';
      literal += c;
    } else if (static_cast<unsigned char>(c) < kFirstPrintable) {
      char escaped[8];
      std::snprintf(escaped, sizeof(escaped), "\\u%04x", static_cast<unsigned>(c));
      literal += escaped;
    } else {
      literal += c;
    }
  }
  return literal + "\"";
}

void printOut(const std::string& text) {
  std::fwrite(text.data(), 1, text.size(), stdout);
  std::fflush(stdout);
}

}  // namespace Olmctl
