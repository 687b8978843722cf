#include "AaBitset.h"

#include <new>

#include "BitWords.h"
#include "ContainerMemory.h"

// The header of a bitset's block; the words follow it.
struct alignas(Olm::BitWord) SAaBitset {
  uint32_t bitCount;
  Olm::BlockOrigin origin;

  Olm::BitWord* words() { return reinterpret_cast<Olm::BitWord*>(this + 1); }
  const Olm::BitWord* words() const { return reinterpret_cast<const Olm::BitWord*>(this + 1); }
};

namespace {

using Olm::BitWords;
using Olm::logArgumentError;

static_assert(sizeof(SAaBitset) % alignof(Olm::BitWord) == 0, "the words follow the header aligned");

bool isBitset(const SAaBitset* bitset, const char* function) { return Olm::isNonNull(bitset, "bitset", function); }

bool isBit(const SAaBitset* bitset, uint32_t bit, const char* function) {
  if (!isBitset(bitset, function)) return false;
  if (bit < bitset->bitCount) return true;
  logArgumentError(function, "bit %u is beyond the %u bits of the bitset", bit, bitset->bitCount);
  return false;
}

bool isBitCount(uint32_t bitCount, const char* function) {
  if (bitCount != 0) return true;
  logArgumentError(function, "a bitset has at least one bit");
  return false;
}

SAaBitset* makeBitset(void* memory, uint32_t bitCount, Olm::BlockOrigin origin) {
  auto* bitset = new (memory) SAaBitset{bitCount, origin};
  BitWords::clearAll(bitset->words(), bitCount);
  return bitset;
}

using Search = uint32_t (*)(const Olm::BitWord*, uint32_t, uint32_t);

EAaBitsetRet find(const SAaBitset* bitset, uint32_t startBit, uint32_t* bit, Search search, const char* function) {
  if (!isBitset(bitset, function) || !Olm::isNonNull(bit, "bit", function)) return EAaBitsetRet_InvalidParameter;
  const uint32_t found = search(bitset->words(), bitset->bitCount, startBit);
  if (found == bitset->bitCount) return EAaBitsetRet_NotFound;
  *bit = found;
  return EAaBitsetRet_Ok;
}

}  // namespace

extern "C" {

size_t AaBitsetMemorySize(uint32_t bitCount) {
  if (bitCount == 0) return 0;
  return sizeof(SAaBitset) + size_t{BitWords::wordCount(bitCount)} * sizeof(Olm::BitWord);
}

EAaBitsetRet AaBitsetInit(void* memory, size_t size, uint32_t bitCount, SAaBitset** bitset) {
  if (!Olm::isNonNull(bitset, "bitset", __func__) || !isBitCount(bitCount, __func__) ||
      !Olm::isUsableMemory(memory, size, AaBitsetMemorySize(bitCount), alignof(SAaBitset), __func__)) {
    return EAaBitsetRet_InvalidParameter;
  }
  *bitset = makeBitset(memory, bitCount, Olm::BlockOrigin::CallerMemory);
  return EAaBitsetRet_Ok;
}

EAaBitsetRet AaBitsetCreate(uint32_t bitCount, SAaBitset** bitset) {
  if (!Olm::isNonNull(bitset, "bitset", __func__) || !isBitCount(bitCount, __func__)) return EAaBitsetRet_InvalidParameter;
  const size_t size = AaBitsetMemorySize(bitCount);
  void* block = Olm::allocateBlock(size);
  if (block == nullptr) {
    logArgumentError(__func__, "no memory for %zu bytes", size);
    return EAaBitsetRet_NoMemory;
  }
  *bitset = makeBitset(block, bitCount, Olm::BlockOrigin::Allocated);
  return EAaBitsetRet_Ok;
}

EAaBitsetRet AaBitsetDestroy(SAaBitset* bitset) {
  if (!isBitset(bitset, __func__)) return EAaBitsetRet_InvalidParameter;
  if (bitset->origin != Olm::BlockOrigin::Allocated) {
    logArgumentError(__func__, "bitset %p lives in its caller's memory", static_cast<void*>(bitset));
    return EAaBitsetRet_InvalidParameter;
  }
  Olm::freeBlock(bitset);
  return EAaBitsetRet_Ok;
}

EAaBitsetRet AaBitsetSet(SAaBitset* bitset, uint32_t bit) {
  if (!isBit(bitset, bit, __func__)) return EAaBitsetRet_InvalidParameter;
  BitWords::set(bitset->words(), bit);
  return EAaBitsetRet_Ok;
}

EAaBitsetRet AaBitsetClear(SAaBitset* bitset, uint32_t bit) {
  if (!isBit(bitset, bit, __func__)) return EAaBitsetRet_InvalidParameter;
  BitWords::clear(bitset->words(), bit);
  return EAaBitsetRet_Ok;
}

uint32_t AaBitsetIsSet(const SAaBitset* bitset, uint32_t bit) {
  if (!isBit(bitset, bit, __func__)) return 0;
  return BitWords::test(bitset->words(), bit) ? 1 : 0;
}

EAaBitsetRet AaBitsetFindFirstSet(const SAaBitset* bitset, uint32_t startBit, uint32_t* bit) {
  return find(bitset, startBit, bit, BitWords::findSet, __func__);
}

EAaBitsetRet AaBitsetFindFirstClear(const SAaBitset* bitset, uint32_t startBit, uint32_t* bit) {
  return find(bitset, startBit, bit, BitWords::findClear, __func__);
}

uint32_t AaBitsetCount(const SAaBitset* bitset) {
  if (!isBitset(bitset, __func__)) return 0;
  return BitWords::count(bitset->words(), bitset->bitCount);
}

uint32_t AaBitsetSizeGet(const SAaBitset* bitset) {
  if (!isBitset(bitset, __func__)) return 0;
  return bitset->bitCount;
}

EAaBitsetRet AaBitsetClearAll(SAaBitset* bitset) {
  if (!isBitset(bitset, __func__)) return EAaBitsetRet_InvalidParameter;
  BitWords::clearAll(bitset->words(), bitset->bitCount);
  return EAaBitsetRet_Ok;
}

EAaBitsetRet AaBitsetSetAll(SAaBitset* bitset) {
  if (!isBitset(bitset, __func__)) return EAaBitsetRet_InvalidParameter;
  BitWords::setAll(bitset->words(), bitset->bitCount);
  return EAaBitsetRet_Ok;
}

}  // extern "C"
