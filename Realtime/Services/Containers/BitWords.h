// Bit arrays in machine words: the storage of AaBitset and of the identifier FIFOs' record of
// which identifiers they hold.
//
// A word is as wide as a pointer (32 bits on 32-bit ARM, 64 elsewhere), so a search handles as
// many bits per step as the processor does in one instruction. Bit i lives in word i / width at
// position i % width. The bits of the last word beyond the array's length are always 0, so whole
// word operations (counting, searching for a set bit) need no mask there; every operation here
// keeps it so.
#pragma once

#include <cstddef>
#include <cstdint>

namespace Olm {

using BitWord = uintptr_t;

class BitWords {
 public:
  static constexpr uint32_t kBitsPerWord = sizeof(BitWord) * 8;

  // Words for bitCount bits, without overflowing for any 32-bit count.
  static constexpr uint32_t wordCount(uint32_t bitCount) {
    return bitCount / kBitsPerWord + (bitCount % kBitsPerWord != 0 ? 1 : 0);
  }

  // Callers check that bit < bitCount.
  static void set(BitWord* words, uint32_t bit) { words[bit / kBitsPerWord] |= mask(bit); }
  static void clear(BitWord* words, uint32_t bit) { words[bit / kBitsPerWord] &= ~mask(bit); }
  static bool test(const BitWord* words, uint32_t bit) { return (words[bit / kBitsPerWord] & mask(bit)) != 0; }

  static void clearAll(BitWord* words, uint32_t bitCount);
  static void setAll(BitWord* words, uint32_t bitCount);
  static uint32_t count(const BitWord* words, uint32_t bitCount);

  // The lowest set (clear) bit at or above start, or bitCount when there is none.
  static uint32_t findSet(const BitWord* words, uint32_t bitCount, uint32_t start);
  static uint32_t findClear(const BitWord* words, uint32_t bitCount, uint32_t start);

 private:
  static BitWord mask(uint32_t bit) { return BitWord{1} << (bit % kBitsPerWord); }
  // Search for a set bit in words, each first turned by flip (all ones or 0).
  static uint32_t findFirst(const BitWord* words, uint32_t bitCount, uint32_t start, BitWord flip);
};

}  // namespace Olm
