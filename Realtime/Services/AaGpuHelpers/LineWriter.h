// Text built in a fixed buffer, for code that runs inside signal handlers: no allocation, no
// locale, no stdio. The buffer is always zero-terminated and never written past its end; what
// does not fit is dropped.
#pragma once

#include <cstddef>
#include <cstdint>

namespace Olm {

class LineWriter {
 public:
  // size counts the terminating zero and is at least 1.
  LineWriter(char* buffer, size_t size);

  LineWriter& text(const char* text);
  LineWriter& character(char c);
  LineWriter& repeated(char c, size_t count);
  // Lower-case hexadecimal, at least minDigits digits (leading zeros), no "0x".
  LineWriter& hex(uintptr_t value, unsigned minDigits = 1);
  // Decimal, at least minDigits digits (leading zeros).
  LineWriter& decimal(uint32_t value, unsigned minDigits = 1);

  size_t length() const { return m_length; }

 private:
  char* m_buffer;
  size_t m_capacity;  // characters, without the terminating zero
  size_t m_length = 0;
};

}  // namespace Olm
