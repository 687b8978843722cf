#include "SendMessages.h"

#include <algorithm>
#include <optional>

#include "Output.h"

namespace Olmctl {

namespace {

constexpr size_t kBytesPerGroup = 4;
constexpr size_t kBytesPerLine = 32;
constexpr char kIndent[] = "  ";

std::optional<uint8_t> nibble(char c) {
  if (c >= '0' && c <= '9') return static_cast<uint8_t>(c - '0');
  if (c >= 'a' && c <= 'f') return static_cast<uint8_t>(c - 'a' + 10);
  if (c >= 'A' && c <= 'F') return static_cast<uint8_t>(c - 'A' + 10);
  return std::nullopt;
}

}  // namespace

bool parsePayload(const std::vector<std::string>& words, std::vector<uint8_t>& payload, std::string& error) {
  payload.clear();
  for (const std::string& word : words) {
    bool hexWord = !word.empty() && word.size() % 2 == 0;
    for (size_t i = 0; hexWord && i < word.size(); i += 2) {
      const std::optional<uint8_t> high = nibble(word[i]);
      const std::optional<uint8_t> low = nibble(word[i + 1]);
      hexWord = high && low;
      if (hexWord) payload.push_back(static_cast<uint8_t>(*high << 4 | *low));
    }
    if (!hexWord) {
      error = "payload '" + word + "' is not hexadecimal bytes, two digits each (like 0a01ff)";
      return false;
    }
  }
  return true;
}

std::string payloadLines(const std::vector<uint8_t>& payload) {
  if (payload.empty()) return std::string(kIndent) + "(no payload)\n";
  std::string text;
  for (size_t line = 0; line < payload.size(); line += kBytesPerLine) {
    text += kIndent;
    for (size_t group = line; group < payload.size() && group < line + kBytesPerLine; group += kBytesPerGroup) {
      const size_t size = std::min(kBytesPerGroup, payload.size() - group);
      text += (group == line ? "" : " ") + hexDigits(payload.data() + group, size);
    }
    text += "\n";
  }
  return text;
}

}  // namespace Olmctl
