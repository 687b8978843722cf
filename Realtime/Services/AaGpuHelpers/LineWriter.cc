#include "LineWriter.h"

namespace Olm {

namespace {

// Enough digits for a 64-bit value in any base from 10 up.
constexpr unsigned kMaxDigits = 20;
constexpr char kHexDigits[] = "0123456789abcdef";

}  // namespace

LineWriter::LineWriter(char* buffer, size_t size) : m_buffer(buffer), m_capacity(size - 1) { m_buffer[0] = '\0'; }

LineWriter& LineWriter::character(char c) {
  if (m_length < m_capacity) {
    m_buffer[m_length++] = c;
    m_buffer[m_length] = '\0';
  }
  return *this;
}

LineWriter& LineWriter::text(const char* text) {
  while (*text != '\0' && m_length < m_capacity) character(*text++);
  return *this;
}

LineWriter& LineWriter::repeated(char c, size_t count) {
  for (size_t i = 0; i < count; ++i) character(c);
  return *this;
}

LineWriter& LineWriter::hex(uintptr_t value, unsigned minDigits) {
  char digits[kMaxDigits];
  unsigned count = 0;
  do {
    digits[count++] = kHexDigits[value & 0xF];
    value >>= 4;
  } while (value != 0 && count < kMaxDigits);
  if (minDigits > kMaxDigits) minDigits = kMaxDigits;
  while (count < minDigits) digits[count++] = '0';
  while (count > 0) character(digits[--count]);
  return *this;
}

LineWriter& LineWriter::decimal(uint32_t value, unsigned minDigits) {
  char digits[kMaxDigits];
  unsigned count = 0;
  do {
    digits[count++] = static_cast<char>('0' + value % 10);
    value /= 10;
  } while (value != 0);
  if (minDigits > kMaxDigits) minDigits = kMaxDigits;
  while (count < minDigits) digits[count++] = '0';
  while (count > 0) character(digits[--count]);
  return *this;
}

}  // namespace Olm
