#include "AaCpuAtomic.h"

#include <gtest/gtest.h>

#include <cstdint>

#include "AaCpuTestThreads.h"
#include "FakeRuntime.h"

namespace {

constexpr unsigned kThreads = 4;
constexpr uint32_t kOperationsPerThread = 100000;

using AaCpuAtomicRefusalTest = OlmTest::FakeRuntimeTest;

TEST(AaCpuAtomicTest, ArithmeticWrapsAndReturnsTheNewOrTheOldValue) {
  TAaCpuAtomic word = 0;
  EXPECT_EQ(AaCpuAtomicDec(&word), UINT32_MAX);
  EXPECT_EQ(AaCpuAtomicInc(&word), 0u);
  EXPECT_EQ(AaCpuAtomicAdd(&word, 5), 5u);
  EXPECT_EQ(AaCpuAtomicSub(&word, 7), UINT32_MAX - 1);
  EXPECT_EQ(AaCpuAtomicFetchAdd(&word, 3), UINT32_MAX - 1);
  EXPECT_EQ(AaCpuAtomicFetchSub(&word, 2), 1u);
  EXPECT_EQ(AaCpuAtomicLoad(&word), UINT32_MAX);
  AaCpuAtomicStore(&word, 0x80000000u);
  EXPECT_EQ(word, 0x80000000u);
}

TEST(AaCpuAtomicTest, ExchangesReturnWhatTheWordHeld) {
  uint32_t word = 7;  // a plain word works as well as a TAaCpuAtomic
  EXPECT_EQ(AaCpuAtomicSwap(&word, 9), 7u);
  EXPECT_EQ(AaCpuAtomicCompareAndSwap(&word, 8, 1), 9u);
  EXPECT_EQ(word, 9u) << "a failed compare-and-swap wrote";
  EXPECT_EQ(AaCpuAtomicCompareAndSwap(&word, 9, 1), 9u);
  EXPECT_EQ(word, 1u);
}

TEST(AaCpuAtomicTest, BitOperationsReturnTheBitsBefore) {
  TAaCpuAtomic word = 0x0F0F;
  EXPECT_EQ(AaCpuAtomicOr(&word, 0xF000), 0x0F0Fu);
  EXPECT_EQ(AaCpuAtomicAnd(&word, 0x00FF), 0xFF0Fu);
  EXPECT_EQ(AaCpuAtomicXor(&word, 0x0101), 0x000Fu);
  EXPECT_EQ(word, 0x010Eu);
}

TEST(AaCpuAtomicContention, NoIncrementOrCompareAndSwapIsLost) {
  TAaCpuAtomic increments = 0;
  TAaCpuAtomic swapped = 0;
  OlmTest::runConcurrently(kThreads, [&](unsigned) {
    for (uint32_t i = 0; i < kOperationsPerThread; ++i) {
      AaCpuAtomicInc(&increments);
      uint32_t seen = AaCpuAtomicLoad(&swapped);
      for (;;) {
        const uint32_t found = AaCpuAtomicCompareAndSwap(&swapped, seen, seen + 2);
        if (found == seen) break;
        seen = found;
      }
    }
  });
  EXPECT_EQ(increments, kThreads * kOperationsPerThread);
  EXPECT_EQ(swapped, 2 * kThreads * kOperationsPerThread);
}

// Every thread tries to claim every bit; the value Or returns must give each bit to exactly one.
TEST(AaCpuAtomicContention, OrHandsEachBitToExactlyOneThread) {
  constexpr unsigned kRounds = 500;
  constexpr unsigned kBits = 32;
  for (unsigned round = 0; round < kRounds; ++round) {
    TAaCpuAtomic claimed = 0;
    TAaCpuAtomic wins = 0;
    OlmTest::runConcurrently(kThreads, [&](unsigned index) {
      for (unsigned step = 0; step < kBits; ++step) {
        const uint32_t bit = 1u << ((step + index * 8) % kBits);
        if ((AaCpuAtomicOr(&claimed, bit) & bit) == 0) AaCpuAtomicInc(&wins);
      }
    });
    ASSERT_EQ(wins, kBits) << "round " << round;
  }
}

// The release store publishes the plain writes before it to the thread whose acquire load sees it;
// the thread sanitizer reports a race on payload if either side were weaker.
TEST(AaCpuAtomicContention, ReleaseStorePublishesToAcquireLoad) {
  constexpr uint32_t kMessages = 10000;
  uint32_t payload = 0;
  TAaCpuAtomic sequence = 0;
  OlmTest::runConcurrently(2, [&](unsigned index) {
    for (uint32_t message = 1; message <= kMessages; ++message) {
      if (index == 0) {
        while (AaCpuAtomicLoad(&sequence) != 2 * message - 2) {
        }
        payload = message;
        AaCpuAtomicStore(&sequence, 2 * message - 1);
      } else {
        while (AaCpuAtomicLoad(&sequence) != 2 * message - 1) {
        }
        EXPECT_EQ(payload, message);
        AaCpuAtomicStore(&sequence, 2 * message);
      }
    }
  });
}

TEST_F(AaCpuAtomicRefusalTest, NullOrMisalignedWordIsLoggedAndLeftAlone) {
  alignas(uint32_t) unsigned char bytes[2 * sizeof(uint32_t)] = {};
  auto* misaligned = reinterpret_cast<TAaCpuAtomic*>(bytes + 1);
  EXPECT_EQ(AaCpuAtomicInc(misaligned), 0u);
  EXPECT_TRUE(runtime.anySentTextContains("AaCpuAtomicInc(): atomic"));
  EXPECT_EQ(AaCpuAtomicLoad(nullptr), 0u);
  EXPECT_TRUE(runtime.anySentTextContains("AaCpuAtomicLoad(): atomic (nil) is null or not 4-byte aligned"));
  EXPECT_NE(AaCpuAtomicCompareAndSwap(misaligned, 0, 1), 0u) << "a refused exchange must look failed";
  AaCpuAtomicStore(misaligned, 0xFFFFFFFF);
  for (unsigned char byte : bytes) EXPECT_EQ(byte, 0) << "a refused word was written";
}

}  // namespace
