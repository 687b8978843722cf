#include "AaGpuIdFifo.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <deque>
#include <random>
#include <string>
#include <vector>

#include "FakeRuntime.h"

namespace {

class AaGpuIdFifoTest : public OlmTest::FakeRuntimeTest {
 protected:
  void TearDown() override {
    if (fifo != nullptr) {
      EXPECT_EQ(AaGpuIdFifo_Destroy(fifo), EAaGpuIdFifoRet_Ok);
    }
    FakeRuntimeTest::TearDown();
  }

  bool logged(const std::string& text) const { return runtime.anySentTextContains(text); }

  // Takes identifiers until the FIFO is empty.
  std::vector<uint32_t> takeAll() {
    std::vector<uint32_t> ids;
    uint32_t id = 0;
    while (AaGpuIdFifo_Get(fifo, &id) == EAaGpuIdFifoRet_Ok) ids.push_back(id);
    return ids;
  }

  SAaGpuIdFifo* fifo = nullptr;
};

TEST_F(AaGpuIdFifoTest, IdsComeOutInRangeOrderThenInTheOrderTheyWereReturned) {
  ASSERT_EQ(AaGpuIdFifo_Create(100, 4, &fifo), EAaGpuIdFifoRet_Ok);
  EXPECT_EQ(AaGpuIdFifo_Count(fifo), 4u);
  EXPECT_EQ(takeAll(), (std::vector<uint32_t>{100, 101, 102, 103}));
  uint32_t id = 7;
  EXPECT_EQ(AaGpuIdFifo_Get(fifo, &id), EAaGpuIdFifoRet_Empty);
  EXPECT_EQ(id, 7u);
  EXPECT_TRUE(runtime.sent().empty()) << "an empty FIFO is no error";

  for (const uint32_t returned : {102u, 100u, 103u}) ASSERT_EQ(AaGpuIdFifo_Put(fifo, returned), EAaGpuIdFifoRet_Ok);
  EXPECT_EQ(AaGpuIdFifo_IsFree(fifo, 100), 1u);
  EXPECT_EQ(AaGpuIdFifo_IsFree(fifo, 101), 0u);
  EXPECT_EQ(takeAll(), (std::vector<uint32_t>{102, 100, 103}));
}

// Many rounds around the circular line against a plain queue as the model.
TEST_F(AaGpuIdFifoTest, KeepsFifoOrderAcrossTheLineWrappingAround) {
  constexpr uint32_t kFirst = 5;
  constexpr uint32_t kCount = 7;
  constexpr int kSteps = 5000;
  ASSERT_EQ(AaGpuIdFifo_Create(kFirst, kCount, &fifo), EAaGpuIdFifoRet_Ok);
  std::deque<uint32_t> freeIds;
  for (uint32_t id = kFirst; id < kFirst + kCount; ++id) freeIds.push_back(id);
  std::vector<uint32_t> taken;
  std::mt19937 random(1);

  for (int step = 0; step < kSteps; ++step) {
    if (!taken.empty() && (freeIds.empty() || random() % 2 == 0)) {
      const size_t pick = random() % taken.size();
      const uint32_t id = taken[pick];
      taken.erase(taken.begin() + static_cast<std::ptrdiff_t>(pick));
      ASSERT_EQ(AaGpuIdFifo_Put(fifo, id), EAaGpuIdFifoRet_Ok);
      freeIds.push_back(id);
    } else {
      uint32_t id = 0;
      ASSERT_EQ(AaGpuIdFifo_Get(fifo, &id), EAaGpuIdFifoRet_Ok);
      ASSERT_EQ(id, freeIds.front()) << "step " << step;
      freeIds.pop_front();
      taken.push_back(id);
    }
    ASSERT_EQ(AaGpuIdFifo_Count(fifo), freeIds.size());
  }
}

TEST_F(AaGpuIdFifoTest, DoublePutsAndForeignIdsAreRefusedAndLeaveTheFifoAlone) {
  ASSERT_EQ(AaGpuIdFifo_Create(100, 4, &fifo), EAaGpuIdFifoRet_Ok);
  uint32_t id = 0;
  ASSERT_EQ(AaGpuIdFifo_Get(fifo, &id), EAaGpuIdFifoRet_Ok);

  EXPECT_EQ(AaGpuIdFifo_Put(fifo, 101), EAaGpuIdFifoRet_AlreadyFree);
  EXPECT_TRUE(logged("ERR/AaGpuIdFifo_Put(): id 101 is free already"));
  EXPECT_EQ(AaGpuIdFifo_Put(fifo, 99), EAaGpuIdFifoRet_OutOfRange);
  EXPECT_EQ(AaGpuIdFifo_Put(fifo, 104), EAaGpuIdFifoRet_OutOfRange);
  EXPECT_TRUE(logged("ERR/AaGpuIdFifo_Put(): id 104 is not one of the 4 from 100"));
  EXPECT_EQ(AaGpuIdFifo_IsFree(fifo, 104), 0u);

  EXPECT_EQ(AaGpuIdFifo_Put(fifo, 100), EAaGpuIdFifoRet_Ok);
  EXPECT_EQ(AaGpuIdFifo_Put(fifo, 100), EAaGpuIdFifoRet_AlreadyFree);
  EXPECT_EQ(takeAll(), (std::vector<uint32_t>{101, 102, 103, 100}));
}

TEST_F(AaGpuIdFifoTest, RangesMustFitTheIdentifierWidth) {
  EXPECT_EQ(AaGpuIdFifo_Create(UINT32_MAX, 2, &fifo), EAaGpuIdFifoRet_InvalidParameter);
  EXPECT_TRUE(logged("ERR/AaGpuIdFifo_Create(): 2 identifiers from 4294967295 are not a range"));
  EXPECT_EQ(AaGpuIdFifo_Create(0, 0, &fifo), EAaGpuIdFifoRet_InvalidParameter);
  EXPECT_EQ(AaGpuIdFifo_Create(0, AAGPUIDFIFO_MAX_COUNT + 1, &fifo), EAaGpuIdFifoRet_InvalidParameter);
  EXPECT_EQ(AaGpuIdFifo_MemorySize(0), 0u);
  EXPECT_EQ(AaGpuIdFifo_MemorySize(AAGPUIDFIFO_MAX_COUNT + 1), 0u);
  EXPECT_EQ(fifo, nullptr);

  ASSERT_EQ(AaGpuIdFifo_Create(UINT32_MAX, 1, &fifo), EAaGpuIdFifoRet_Ok);
  EXPECT_EQ(takeAll(), (std::vector<uint32_t>{UINT32_MAX}));
  EXPECT_EQ(AaGpuIdFifo_Put(fifo, UINT32_MAX), EAaGpuIdFifoRet_Ok);
  EXPECT_EQ(AaGpuIdFifo_Put(fifo, 0), EAaGpuIdFifoRet_OutOfRange);
}

// The FIFO holds no pointer: a copy of its block at another address carries on where it was.
TEST_F(AaGpuIdFifoTest, AFifoInCallerMemoryWorksWhereverTheMemoryIsMapped) {
  constexpr uint32_t kCount = 70;
  const size_t size = AaGpuIdFifo_MemorySize(kCount);
  std::vector<uintptr_t> original(size / sizeof(uintptr_t) + 1);
  std::vector<uintptr_t> moved(original.size());
  SAaGpuIdFifo* own = nullptr;
  EXPECT_EQ(AaGpuIdFifo_Init(original.data(), size - 1, 0, kCount, &own), EAaGpuIdFifoRet_InvalidParameter);
  EXPECT_EQ(AaGpuIdFifo_Init(reinterpret_cast<char*>(original.data()) + 2, size, 0, kCount, &own),
            EAaGpuIdFifoRet_InvalidParameter);
  ASSERT_EQ(AaGpuIdFifo_Init(original.data(), size, 0, kCount, &own), EAaGpuIdFifoRet_Ok);
  uint32_t id = 0;
  for (uint32_t expected = 0; expected < 3; ++expected) ASSERT_EQ(AaGpuIdFifo_Get(own, &id), EAaGpuIdFifoRet_Ok);
  ASSERT_EQ(AaGpuIdFifo_Put(own, 1), EAaGpuIdFifoRet_Ok);

  std::memcpy(moved.data(), original.data(), size);
  std::memset(original.data(), 0xA5, size);
  auto* copy = reinterpret_cast<SAaGpuIdFifo*>(moved.data());
  EXPECT_EQ(AaGpuIdFifo_Count(copy), kCount - 2);
  EXPECT_EQ(AaGpuIdFifo_Put(copy, 1), EAaGpuIdFifoRet_AlreadyFree);
  ASSERT_EQ(AaGpuIdFifo_Get(copy, &id), EAaGpuIdFifoRet_Ok);
  EXPECT_EQ(id, 3u);
  EXPECT_EQ(AaGpuIdFifo_Destroy(copy), EAaGpuIdFifoRet_InvalidParameter);
}

TEST_F(AaGpuIdFifoTest, NullPointersAreRefused) {
  uint32_t id = 0;
  EXPECT_EQ(AaGpuIdFifo_Create(0, 1, nullptr), EAaGpuIdFifoRet_InvalidParameter);
  EXPECT_EQ(AaGpuIdFifo_Get(nullptr, &id), EAaGpuIdFifoRet_InvalidParameter);
  EXPECT_EQ(AaGpuIdFifo_Put(nullptr, 0), EAaGpuIdFifoRet_InvalidParameter);
  EXPECT_EQ(AaGpuIdFifo_Count(nullptr), 0u);
  EXPECT_EQ(AaGpuIdFifo_IsFree(nullptr, 0), 0u);
  EXPECT_EQ(AaGpuIdFifo_Destroy(nullptr), EAaGpuIdFifoRet_InvalidParameter);
  ASSERT_EQ(AaGpuIdFifo_Create(0, 1, &fifo), EAaGpuIdFifoRet_Ok);
  EXPECT_EQ(AaGpuIdFifo_Get(fifo, nullptr), EAaGpuIdFifoRet_InvalidParameter);
  EXPECT_EQ(runtime.sent().size(), 7u);
  EXPECT_TRUE(logged("ERR/AaGpuIdFifo_Get(): id is NULL"));
}

// The 16-bit FIFO spans the whole identifier width, and no more.
TEST_F(AaGpuIdFifoTest, EuIdFifoHoldsEverySixteenBitId) {
  SAaGpuEuIdFifo* euFifo = nullptr;
  EXPECT_EQ(AaGpuEuIdFifo_Create(0xFFFF, 2, &euFifo), EAaGpuIdFifoRet_InvalidParameter);
  EXPECT_EQ(AaGpuEuIdFifo_Create(0, AAGPUEUIDFIFO_MAX_COUNT + 1, &euFifo), EAaGpuIdFifoRet_InvalidParameter);
  EXPECT_TRUE(logged("ERR/AaGpuEuIdFifo_Create(): 65537 identifiers from 0"));
  ASSERT_EQ(AaGpuEuIdFifo_Create(0, AAGPUEUIDFIFO_MAX_COUNT, &euFifo), EAaGpuIdFifoRet_Ok);

  TAaGpuEuId id = 0;
  for (uint32_t expected = 0; expected < AAGPUEUIDFIFO_MAX_COUNT; ++expected) {
    ASSERT_EQ(AaGpuEuIdFifo_Get(euFifo, &id), EAaGpuIdFifoRet_Ok);
    ASSERT_EQ(id, expected);
  }
  EXPECT_EQ(AaGpuEuIdFifo_Get(euFifo, &id), EAaGpuIdFifoRet_Empty);
  EXPECT_EQ(AaGpuEuIdFifo_Put(euFifo, 0xFFFF), EAaGpuIdFifoRet_Ok);
  EXPECT_EQ(AaGpuEuIdFifo_Put(euFifo, 0xFFFF), EAaGpuIdFifoRet_AlreadyFree);
  EXPECT_TRUE(logged("ERR/AaGpuEuIdFifo_Put(): id 65535 is free already"));
  EXPECT_EQ(AaGpuEuIdFifo_IsFree(euFifo, 0xFFFF), 1u);
  EXPECT_EQ(AaGpuEuIdFifo_Count(euFifo), 1u);
  EXPECT_EQ(AaGpuEuIdFifo_Destroy(euFifo), EAaGpuIdFifoRet_Ok);

  SAaGpuEuIdFifo* narrow = nullptr;
  ASSERT_EQ(AaGpuEuIdFifo_Create(0x0700, 2, &narrow), EAaGpuIdFifoRet_Ok);
  EXPECT_EQ(AaGpuEuIdFifo_Put(narrow, 0x0702), EAaGpuIdFifoRet_OutOfRange);
  EXPECT_EQ(AaGpuEuIdFifo_Destroy(narrow), EAaGpuIdFifoRet_Ok);
}

}  // namespace
