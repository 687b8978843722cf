#include "Output.h"

#include <algorithm>
#include <cstdio>

namespace Olmctl {

namespace {

constexpr unsigned char kFirstPrintable = 0x20;
constexpr char kColumnGap[] = "  ";

std::string withoutTrailingSpaces(std::string line) {
  line.erase(line.find_last_not_of(' ') + 1);
  return line;
}

}  // namespace

std::string hex(uint32_t value, int digits) {
  char text[16];
  std::snprintf(text, sizeof(text), "0x%0*x", digits, value);
  return text;
}

std::string hexDigits(const uint8_t* bytes, size_t size) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string text;
  text.reserve(size * 2);
  for (size_t i = 0; i < size; ++i) {
    text += kDigits[bytes[i] >> 4];
    text += kDigits[bytes[i] & 0xF];
  }
  return text;
}

std::string percentText(double percent) {
  char text[32];
  std::snprintf(text, sizeof(text), "%.2f", percent);
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

JsonObject& JsonObject::member(const char* key, const std::string& value) {
  m_members += (m_members.empty() ? "" : ",") + jsonString(key) + ":" + value;
  return *this;
}

JsonObject& JsonObject::number(const char* key, uint64_t value) { return member(key, std::to_string(value)); }

JsonObject& JsonObject::number(const char* key, double value) { return member(key, percentText(value)); }

JsonObject& JsonObject::boolean(const char* key, bool value) { return member(key, value ? "true" : "false"); }

JsonObject& JsonObject::string(const char* key, const std::string& value) { return member(key, jsonString(value)); }

JsonObject& JsonObject::raw(const char* key, const std::string& value) { return member(key, value); }

std::string jsonArray(const std::vector<std::string>& elements) {
  std::string text = "[";
  for (size_t i = 0; i < elements.size(); ++i) text += (i == 0 ? "" : ",") + elements[i];
  return text + "]";
}

std::string Table::text() const {
  std::vector<size_t> widths;
  for (const Column& column : m_columns) widths.push_back(column.heading.size());
  for (const auto& row : m_rows) {
    for (size_t i = 0; i < row.size() && i < widths.size(); ++i) widths[i] = std::max(widths[i], row[i].size());
  }
  const auto line = [&](const std::vector<std::string>& cells) {
    std::string text;
    for (size_t i = 0; i < m_columns.size(); ++i) {
      const std::string cell = i < cells.size() ? cells[i] : "";
      const std::string padding(widths[i] - cell.size(), ' ');
      text += (i == 0 ? "" : kColumnGap) + (m_columns[i].rightAligned ? padding + cell : cell + padding);
    }
    return withoutTrailingSpaces(text) + "\n";
  };
  std::vector<std::string> headings;
  for (const Column& column : m_columns) headings.push_back(column.heading);
  std::string text = line(headings);
  for (const auto& row : m_rows) text += line(row);
  return text;
}

}  // namespace Olmctl
