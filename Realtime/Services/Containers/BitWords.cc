#include "BitWords.h"

#include <cstring>

namespace Olm {

namespace {

constexpr BitWord kAllOnes = ~BitWord{0};

// The processor's count-trailing-zeros for the word's width; word is not 0.
inline uint32_t trailingZeros(BitWord word) {
  if constexpr (sizeof(BitWord) == sizeof(unsigned long long)) {
    return static_cast<uint32_t>(__builtin_ctzll(word));
  } else {
    return static_cast<uint32_t>(__builtin_ctz(word));
  }
}

inline uint32_t populationCount(BitWord word) {
  if constexpr (sizeof(BitWord) == sizeof(unsigned long long)) {
    return static_cast<uint32_t>(__builtin_popcountll(word));
  } else {
    return static_cast<uint32_t>(__builtin_popcount(word));
  }
}

// The bits of the last word that belong to the array: all of them when the length fills it.
inline BitWord lastWordMask(uint32_t bitCount) {
  const uint32_t used = bitCount % BitWords::kBitsPerWord;
  return used == 0 ? kAllOnes : (BitWord{1} << used) - 1;
}

}  // namespace

void BitWords::clearAll(BitWord* words, uint32_t bitCount) {
  std::memset(words, 0, wordCount(bitCount) * sizeof(BitWord));
}

void BitWords::setAll(BitWord* words, uint32_t bitCount) {
  const uint32_t total = wordCount(bitCount);
  if (total == 0) return;
  std::memset(words, 0xFF, total * sizeof(BitWord));
  words[total - 1] = lastWordMask(bitCount);
}

uint32_t BitWords::count(const BitWord* words, uint32_t bitCount) {
  uint32_t total = 0;
  for (uint32_t i = 0, end = wordCount(bitCount); i < end; ++i) total += populationCount(words[i]);
  return total;
}

uint32_t BitWords::findSet(const BitWord* words, uint32_t bitCount, uint32_t start) {
  return findFirst(words, bitCount, start, 0);
}

uint32_t BitWords::findClear(const BitWord* words, uint32_t bitCount, uint32_t start) {
  return findFirst(words, bitCount, start, kAllOnes);
}

uint32_t BitWords::findFirst(const BitWord* words, uint32_t bitCount, uint32_t start, BitWord flip) {
  if (start >= bitCount) return bitCount;
  const uint32_t end = wordCount(bitCount);
  uint32_t index = start / kBitsPerWord;
  // The first word without the bits below start.
  BitWord candidates = (words[index] ^ flip) & (kAllOnes << (start % kBitsPerWord));
  while (candidates == 0) {
    if (++index == end) return bitCount;
    candidates = words[index] ^ flip;
  }
  // In a search for a clear bit the last word's unused bits read as clear; the lowest of them is
  // bitCount itself, which is the answer "none".
  return index * kBitsPerWord + trailingZeros(candidates);
}

}  // namespace Olm
