// The RAM files RamFileTestEu registers, known to the tests that read them back.
#pragma once

#include <string>

namespace OlmTest {

constexpr char kEuTextFile[] = "eu_status.txt";
constexpr char kEuTextContents[] = "RamFileTestEu registered\n";
constexpr char kEuBinaryFile[] = "tti_eu_trace.bin";
constexpr unsigned kEuBinarySize = 10007;

inline std::string euBinaryContents() {
  std::string bytes(kEuBinarySize, '\0');
  for (unsigned i = 0; i < kEuBinarySize; ++i) bytes[i] = static_cast<char>((i * 13 + i / 256) & 0xFF);
  return bytes;
}

}  // namespace OlmTest
