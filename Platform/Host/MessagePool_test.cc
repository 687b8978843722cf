#include "MessagePool.h"

#include <gtest/gtest.h>

#include <cstring>
#include <set>
#include <thread>
#include <vector>

namespace rhyddal {
namespace {

constexpr uint64_t kOneMiB = 1 << 20;
constexpr uint64_t kTestPoolBytes = 64 * kOneMiB;

uint32_t capacityOf(MessagePool& pool, void* buffer) {
  BufferInfo info{};
  return pool.inspect(buffer, &info) ? info.capacity : 0;
}

TEST(MessagePool, HandsOutAlignedBuffersOfTheNextSizeClass) {
  MessagePool pool(kTestPoolBytes);
  const struct {
    uint32_t request;
    uint32_t capacity;
  } cases[] = {{0, 64},         {64, 64},       {65, 256}, {1024, 1024}, {1025, 4096}, {16384, 16384},
               {16385, kMaxBufferBytes}, {kMaxBufferBytes, kMaxBufferBytes}};
  for (const auto& c : cases) {
    void* buffer = pool.allocate(c.request);
    ASSERT_NE(buffer, nullptr) << c.request;
    EXPECT_EQ(capacityOf(pool, buffer), c.capacity) << c.request;
    EXPECT_EQ(reinterpret_cast<uintptr_t>(buffer) % 16, 0u) << c.request;
    std::memset(buffer, 0xA5, c.capacity);
  }
  EXPECT_EQ(pool.allocate(kMaxBufferBytes + 1), nullptr);
}

TEST(MessagePool, RunsOutAtItsBoundAndRecoversWhenABufferComesBack) {
  const uint64_t bound = 2 * kOneMiB;
  MessagePool pool(bound);
  std::vector<void*> taken;
  while (void* buffer = pool.allocate(65535)) {
    taken.push_back(buffer);
    ASSERT_LE(taken.size() * 65535, bound);
  }
  ASSERT_GE(taken.size(), 20u);
  EXPECT_EQ(pool.allocate(65535), nullptr);
  EXPECT_EQ(pool.allocate(16), nullptr) << "every chunk is taken by the large class";
  ASSERT_EQ(pool.release(taken.back()), ReleaseResult::kReleased);
  EXPECT_EQ(pool.allocate(65535), taken.back());
}

TEST(MessagePool, FreeOfASentBufferIsIgnoredAndItStaysQuarantined) {
  MessagePool pool(kTestPoolBytes);
  void* sent = pool.allocate(100);
  ASSERT_TRUE(pool.retire(sent));
  EXPECT_EQ(pool.release(sent), ReleaseResult::kAlreadyOwned);
  EXPECT_FALSE(pool.retire(sent));
  std::vector<void*> others;
  for (uint32_t i = 0; i + 1 < kQuarantineDepth; ++i) {
    void* buffer = pool.allocate(100);
    ASSERT_NE(buffer, sent) << "handed out while quarantined, after " << i << " sends";
    ASSERT_TRUE(pool.retire(buffer));
  }
  // One more send pushes the first one out of the quarantine and onto the free list.
  ASSERT_TRUE(pool.retire(pool.allocate(100)));
  EXPECT_EQ(pool.allocate(100), sent);
}

TEST(MessagePool, PointersNotHandedOutAreRecognisedAsForeign) {
  MessagePool pool(kTestPoolBytes);
  BufferInfo info{};
  EXPECT_FALSE(pool.inspect(nullptr, &info));
  char onStack[64];
  EXPECT_EQ(pool.release(onStack), ReleaseResult::kForeign) << "before the pool reserved anything";
  auto* buffer = static_cast<char*>(pool.allocate(300));
  EXPECT_EQ(pool.release(onStack), ReleaseResult::kForeign);
  EXPECT_EQ(pool.release(buffer + 8), ReleaseResult::kForeign);
  EXPECT_EQ(pool.release(buffer + 1024 + 32), ReleaseResult::kForeign) << "the next, never carved buffer";
  EXPECT_FALSE(pool.retire(buffer + 16));
  EXPECT_EQ(pool.release(buffer), ReleaseResult::kReleased);
}

TEST(MessagePool, RawEventHandleBoundToABufferIsReportedOnceOnRelease) {
  MessagePool pool(kTestPoolBytes);
  void* buffer = pool.allocate(64);
  pool.setEventHandle(buffer, 0x1234);
  uint32_t bound = 0;
  EXPECT_EQ(pool.release(buffer, &bound), ReleaseResult::kReleased);
  EXPECT_EQ(bound, 0x1234u);
  void* again = pool.allocate(64);
  BufferInfo info{};
  ASSERT_TRUE(pool.inspect(again, &info));
  EXPECT_EQ(info.eventHandle, 0u) << "a reused buffer must not carry its old handle";
}

TEST(MessagePool, ThreadsNeverShareABuffer) {
  MessagePool pool(kTestPoolBytes);
  constexpr int kRounds = 50000;
  auto worker = [&pool](unsigned char tag, bool* clean) {
    for (int i = 0; i < kRounds; ++i) {
      auto* buffer = static_cast<unsigned char*>(pool.allocate(48));
      if (buffer == nullptr) {
        *clean = false;
        return;
      }
      std::memset(buffer, tag, 48);
      std::this_thread::yield();
      for (int k = 0; k < 48; ++k) *clean = *clean && buffer[k] == tag;
      if (i % 2 == 0) {
        pool.release(buffer);
      } else {
        pool.retire(buffer);
      }
    }
  };
  bool firstClean = true;
  bool secondClean = true;
  std::thread first(worker, 0x11, &firstClean);
  std::thread second(worker, 0x22, &secondClean);
  first.join();
  second.join();
  EXPECT_TRUE(firstClean);
  EXPECT_TRUE(secondClean);
}

}  // namespace
}  // namespace rhyddal
