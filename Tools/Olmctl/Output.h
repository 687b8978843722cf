// Text for people and JSON for scripts.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace Olmctl {

// "0x" and the value in at least digits hexadecimal digits: hex(0x41, 4) is "0x0041".
std::string hex(uint32_t value, int digits);
// A node id as the nodes write it: "0x1011".
inline std::string nidText(uint16_t nid) { return hex(nid, 4); }
// A SIC address: "0x10110610".
inline std::string sicadText(uint32_t sicad) { return hex(sicad, 8); }
// Bytes as hexadecimal digits, two each, in order, with nothing between them.
std::string hexDigits(const uint8_t* bytes, size_t size);
// A share with two decimals: "99.12".
std::string percentText(double percent);
// A JSON string literal of text, quotes included.
std::string jsonString(const std::string& text);
// Writes text to standard output in one write.
void printOut(const std::string& text);

// A JSON object built member by member, in the order added.
class JsonObject {
 public:
  JsonObject& number(const char* key, uint64_t value);
  JsonObject& number(const char* key, double value);  // two decimals, as the text shows it
  JsonObject& boolean(const char* key, bool value);
  JsonObject& string(const char* key, const std::string& value);
  // value is JSON already: an object, an array, null.
  JsonObject& raw(const char* key, const std::string& value);
  std::string text() const { return "{" + m_members + "}"; }

 private:
  JsonObject& member(const char* key, const std::string& value);
  std::string m_members;
};

// A JSON array of elements that are JSON already.
std::string jsonArray(const std::vector<std::string>& elements);

// Cells in columns two spaces apart, each as wide as its widest cell: the heading's cells first.
// Columns marked right-aligned (numbers) end flush; no line ends in spaces.
class Table {
 public:
  struct Column {
    std::string heading;
    bool rightAligned;
  };
  explicit Table(std::vector<Column> columns) : m_columns(std::move(columns)) {}
  // A row; missing cells stay empty.
  void add(std::vector<std::string> cells) { m_rows.push_back(std::move(cells)); }
  std::string text() const;

 private:
  std::vector<Column> m_columns;
  std::vector<std::vector<std::string>> m_rows;
};

}  // namespace Olmctl
