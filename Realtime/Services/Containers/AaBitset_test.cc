#include "AaBitset.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "FakeRuntime.h"

namespace {

// Bits around the word boundaries of both word widths, and past the last whole word.
constexpr uint32_t kBits = 130;
constexpr uint32_t kBoundaryBits[] = {0, 31, 32, 63, 64, 95, 96, 127, 128, 129};

class AaBitsetTest : public OlmTest::FakeRuntimeTest {
 protected:
  void SetUp() override { ASSERT_EQ(AaBitsetCreate(kBits, &bitset), EAaBitsetRet_Ok); }
  void TearDown() override {
    EXPECT_EQ(AaBitsetDestroy(bitset), EAaBitsetRet_Ok);
    FakeRuntimeTest::TearDown();
  }

  bool logged(const std::string& text) const { return runtime.anySentTextContains(text); }

  // Every set bit, found with the searches.
  std::vector<uint32_t> setBits() const {
    std::vector<uint32_t> bits;
    uint32_t bit = 0;
    for (uint32_t start = 0; AaBitsetFindFirstSet(bitset, start, &bit) == EAaBitsetRet_Ok; start = bit + 1) {
      bits.push_back(bit);
    }
    return bits;
  }

  SAaBitset* bitset = nullptr;
};

TEST_F(AaBitsetTest, SearchesFindBitsOnEitherSideOfWordBoundaries) {
  for (const uint32_t bit : kBoundaryBits) {
    SCOPED_TRACE(bit);
    uint32_t found = UINT32_MAX;
    ASSERT_EQ(AaBitsetClearAll(bitset), EAaBitsetRet_Ok);
    ASSERT_EQ(AaBitsetSet(bitset, bit), EAaBitsetRet_Ok);
    EXPECT_EQ(AaBitsetFindFirstSet(bitset, 0, &found), EAaBitsetRet_Ok);
    EXPECT_EQ(found, bit);
    EXPECT_EQ(AaBitsetFindFirstSet(bitset, bit, &found), EAaBitsetRet_Ok);
    EXPECT_EQ(found, bit);
    EXPECT_EQ(AaBitsetFindFirstSet(bitset, bit + 1, &found), EAaBitsetRet_NotFound);

    ASSERT_EQ(AaBitsetSetAll(bitset), EAaBitsetRet_Ok);
    ASSERT_EQ(AaBitsetClear(bitset, bit), EAaBitsetRet_Ok);
    EXPECT_EQ(AaBitsetFindFirstClear(bitset, 0, &found), EAaBitsetRet_Ok);
    EXPECT_EQ(found, bit);
    EXPECT_EQ(AaBitsetFindFirstClear(bitset, bit + 1, &found), EAaBitsetRet_NotFound);
    EXPECT_EQ(AaBitsetCount(bitset), kBits - 1);
  }
}

TEST_F(AaBitsetTest, SearchesFromAStartVisitEverySetBitOnce) {
  for (const uint32_t bit : kBoundaryBits) ASSERT_EQ(AaBitsetSet(bitset, bit), EAaBitsetRet_Ok);
  EXPECT_EQ(setBits(), std::vector<uint32_t>(std::begin(kBoundaryBits), std::end(kBoundaryBits)));
  EXPECT_EQ(AaBitsetCount(bitset), std::size(kBoundaryBits));
  EXPECT_EQ(AaBitsetIsSet(bitset, 64), 1u);
  EXPECT_EQ(AaBitsetIsSet(bitset, 65), 0u);

  uint32_t found = 0;
  EXPECT_EQ(AaBitsetFindFirstClear(bitset, 63, &found), EAaBitsetRet_Ok);
  EXPECT_EQ(found, 65u);
  EXPECT_TRUE(runtime.sent().empty()) << "searches log nothing";
}

// The bits of the last word beyond the bit count belong to nobody: a full set has no clear bit,
// counts only its own bits and refuses the ones beyond.
TEST_F(AaBitsetTest, TheLastPartialWordEndsAtTheBitCount) {
  ASSERT_EQ(AaBitsetSetAll(bitset), EAaBitsetRet_Ok);
  uint32_t found = 0;
  EXPECT_EQ(AaBitsetFindFirstClear(bitset, 0, &found), EAaBitsetRet_NotFound);
  EXPECT_EQ(AaBitsetFindFirstClear(bitset, kBits, &found), EAaBitsetRet_NotFound);
  EXPECT_EQ(AaBitsetCount(bitset), kBits);
  EXPECT_EQ(AaBitsetSizeGet(bitset), kBits);

  EXPECT_EQ(AaBitsetSet(bitset, kBits), EAaBitsetRet_InvalidParameter);
  EXPECT_EQ(AaBitsetClear(bitset, kBits), EAaBitsetRet_InvalidParameter);
  EXPECT_EQ(AaBitsetIsSet(bitset, kBits), 0u);
  EXPECT_TRUE(logged("ERR/AaBitsetSet(): bit 130 is beyond the 130 bits of the bitset"));
  EXPECT_EQ(AaBitsetCount(bitset), kBits);

  ASSERT_EQ(AaBitsetClearAll(bitset), EAaBitsetRet_Ok);
  EXPECT_EQ(AaBitsetFindFirstSet(bitset, 0, &found), EAaBitsetRet_NotFound);
  EXPECT_EQ(AaBitsetCount(bitset), 0u);
}

TEST(AaBitsetWholeWords, AFullSetOfWholeWordsHasNoClearBit) {
  constexpr uint32_t kWholeWordBits = 128;
  SAaBitset* bitset = nullptr;
  ASSERT_EQ(AaBitsetCreate(kWholeWordBits, &bitset), EAaBitsetRet_Ok);
  ASSERT_EQ(AaBitsetSetAll(bitset), EAaBitsetRet_Ok);
  uint32_t found = 0;
  EXPECT_EQ(AaBitsetFindFirstClear(bitset, 0, &found), EAaBitsetRet_NotFound);
  EXPECT_EQ(AaBitsetCount(bitset), kWholeWordBits);
  ASSERT_EQ(AaBitsetClear(bitset, kWholeWordBits - 1), EAaBitsetRet_Ok);
  EXPECT_EQ(AaBitsetFindFirstClear(bitset, 0, &found), EAaBitsetRet_Ok);
  EXPECT_EQ(found, kWholeWordBits - 1);
  EXPECT_EQ(AaBitsetDestroy(bitset), EAaBitsetRet_Ok);
}

TEST_F(AaBitsetTest, CallerMemoryIsClearedCheckedAndNeverFreed) {
  constexpr uint32_t kSmallBits = 33;
  const size_t size = AaBitsetMemorySize(kSmallBits);
  ASSERT_GT(size, 0u);
  EXPECT_EQ(AaBitsetMemorySize(0), 0u);
  std::vector<uintptr_t> memory(size / sizeof(uintptr_t) + 1, ~uintptr_t{0});

  SAaBitset* own = nullptr;
  EXPECT_EQ(AaBitsetInit(memory.data(), size - 1, kSmallBits, &own), EAaBitsetRet_InvalidParameter);
  EXPECT_TRUE(logged("ERR/AaBitsetInit(): " + std::to_string(size - 1) + " bytes of memory, " +
                     std::to_string(size) + " needed"));
  auto* misaligned = reinterpret_cast<char*>(memory.data()) + 1;
  EXPECT_EQ(AaBitsetInit(misaligned, size, kSmallBits, &own), EAaBitsetRet_InvalidParameter);
  EXPECT_EQ(AaBitsetInit(memory.data(), size, 0, &own), EAaBitsetRet_InvalidParameter);
  EXPECT_EQ(own, nullptr);

  ASSERT_EQ(AaBitsetInit(memory.data(), size, kSmallBits, &own), EAaBitsetRet_Ok);
  EXPECT_EQ(static_cast<void*>(own), static_cast<void*>(memory.data()));
  EXPECT_EQ(AaBitsetCount(own), 0u);
  EXPECT_EQ(AaBitsetDestroy(own), EAaBitsetRet_InvalidParameter);
  EXPECT_TRUE(logged("lives in its caller's memory"));
}

TEST_F(AaBitsetTest, NullPointersAreRefused) {
  uint32_t found = 0;
  EXPECT_EQ(AaBitsetCreate(8, nullptr), EAaBitsetRet_InvalidParameter);
  EXPECT_EQ(AaBitsetSet(nullptr, 0), EAaBitsetRet_InvalidParameter);
  EXPECT_EQ(AaBitsetFindFirstSet(nullptr, 0, &found), EAaBitsetRet_InvalidParameter);
  EXPECT_EQ(AaBitsetFindFirstClear(bitset, 0, nullptr), EAaBitsetRet_InvalidParameter);
  EXPECT_EQ(AaBitsetCount(nullptr), 0u);
  EXPECT_EQ(AaBitsetDestroy(nullptr), EAaBitsetRet_InvalidParameter);
  EXPECT_EQ(runtime.sent().size(), 6u);
  EXPECT_TRUE(logged("ERR/AaBitsetFindFirstClear(): bit is NULL"));
}

}  // namespace
