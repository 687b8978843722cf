#include "AaCpuBit.h"

#include <cstring>

namespace {

// Byte copies instead of typed loads: the values may sit at any address, and the compiler turns
// each copy and builtin pair into one load, one byte-reverse instruction and one store.
template <typename Word>
Word loadWord(const unsigned char* at) {
  Word word;
  std::memcpy(&word, at, sizeof(word));
  return word;
}

template <typename Word>
void storeWord(unsigned char* at, Word word) {
  std::memcpy(at, &word, sizeof(word));
}

inline uint16_t reversed(uint16_t word) { return __builtin_bswap16(word); }
inline uint32_t reversed(uint32_t word) { return __builtin_bswap32(word); }
inline uint64_t reversed(uint64_t word) { return __builtin_bswap64(word); }

template <typename Word>
void swapRun(void* first, uint32_t count) {
  if (first == nullptr) return;
  auto* at = static_cast<unsigned char*>(first);
  for (uint32_t i = 0; i < count; ++i, at += sizeof(Word)) storeWord(at, reversed(loadWord<Word>(at)));
}

}  // namespace

extern "C" {

void AaCpuBitSwapByteOrder16(void* value) { swapRun<uint16_t>(value, 1); }
void AaCpuBitSwapByteOrder32(void* value) { swapRun<uint32_t>(value, 1); }
void AaCpuBitSwapByteOrder64(void* value) { swapRun<uint64_t>(value, 1); }

void AaCpuBitSwapMultiByteOrder16(void* first, uint32_t count) { swapRun<uint16_t>(first, count); }
void AaCpuBitSwapMultiByteOrder32(void* first, uint32_t count) { swapRun<uint32_t>(first, count); }
void AaCpuBitSwapMultiByteOrder64(void* first, uint32_t count) { swapRun<uint64_t>(first, count); }

void AaCpuBitCopySwapMultiByteOrder32(void* destination, const void* source, uint32_t count) {
  if (destination == nullptr || source == nullptr) return;
  auto* to = static_cast<unsigned char*>(destination);
  const auto* from = static_cast<const unsigned char*>(source);
  for (uint32_t i = 0; i < count; ++i, to += sizeof(uint32_t), from += sizeof(uint32_t)) {
    storeWord(to, reversed(loadWord<uint32_t>(from)));
  }
}

}  // extern "C"
