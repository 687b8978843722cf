// The input of a libFuzzer target, read front to back; past its end every read gives zeros, so a
// target never needs to check how much is left before it reads.
#pragma once

#include <cstddef>
#include <cstdint>

namespace OlmTest {

class FuzzInput {
 public:
  FuzzInput(const uint8_t* data, size_t size) : m_data(data), m_size(size) {}
  bool atEnd() const { return m_position >= m_size; }
  uint8_t byte() { return atEnd() ? 0 : m_data[m_position++]; }
  // Two bytes, the first the low one.
  uint16_t word() { return static_cast<uint16_t>(byte() | byte() << 8); }
  void bytes(uint8_t* out, size_t count) {
    for (size_t i = 0; i < count; ++i) out[i] = byte();
  }

 private:
  const uint8_t* m_data;
  size_t m_size;
  size_t m_position = 0;
};

}  // namespace OlmTest
