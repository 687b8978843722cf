#include "MessagePool.h"

#include <gtest/gtest.h>

#include <cstring>
#include <vector>

namespace rhyddal {
namespace {

constexpr uint64_t kOneMiB = 1 << 20;
constexpr uint64_t kTestPoolBytes = 64 * kOneMiB;

uint32_t capacityOf(MessagePool& pool, void* buffer) {
  BufferInfo info{};
  return pool.inspect(buffer, &info) ? info.capacity : 0;
}

TEST(MessagePool, HandsOutCacheLineAlignedBuffersOfTheNextSizeClass) {
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
    EXPECT_EQ(reinterpret_cast<uintptr_t>(buffer) % 64, 0u) << c.request;
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
  EXPECT_EQ(pool.allocate(16), nullptr) << "every chunk is taken by the large class";
  ASSERT_EQ(pool.release(taken.back()), ReleaseResult::kReleased);
  EXPECT_EQ(pool.allocate(65535), taken.back());
}

TEST(MessagePool, FreeRightAfterSendIsAcceptedOnceAndReleasesTheBufferAtOnce) {
  MessagePool pool(kTestPoolBytes);
  void* sent = pool.allocate(100);
  ASSERT_TRUE(pool.hold(sent));
  EXPECT_FALSE(pool.hold(sent)) << "a held buffer cannot be sent again";
  EXPECT_EQ(pool.release(sent), ReleaseResult::kFreedAfterSend);
  EXPECT_EQ(pool.release(sent), ReleaseResult::kRefusedSentAndFreed);
  EXPECT_EQ(pool.allocate(100), sent) << "nothing can reach it any more";
  EXPECT_EQ(pool.release(sent), ReleaseResult::kReleased);
  EXPECT_EQ(pool.release(sent), ReleaseResult::kRefusedAlreadyFree);
  const PoolStatistics stats = pool.statistics();
  EXPECT_EQ(stats.freesAfterSend, 1u);
  EXPECT_EQ(stats.refusedSentAndFreed, 1u);
  EXPECT_EQ(stats.refusedAlreadyFree, 1u);
  EXPECT_EQ(stats.inUse + stats.held, 0u);
}

TEST(MessagePool, HeldBufferIsNotHandedOutAgainWithinTheBound) {
  constexpr uint32_t kBound = 8;
  MessagePool pool(kTestPoolBytes, kBound);
  void* sent = pool.allocate(100);
  ASSERT_TRUE(pool.hold(sent));
  for (uint32_t i = 0; i < kBound; ++i) {
    void* other = pool.allocate(100);
    ASSERT_NE(other, sent) << "handed out while held, after " << i << " sends";
    ASSERT_TRUE(pool.hold(other));
  }
  // The send beyond the bound lets the oldest go; a free that comes that late is refused.
  EXPECT_EQ(pool.statistics().held, kBound);
  EXPECT_EQ(pool.statistics().holdsExpired, 1u);
  EXPECT_EQ(pool.release(sent), ReleaseResult::kRefusedAlreadyFree);
  EXPECT_EQ(pool.allocate(100), sent);
}

TEST(MessagePool, OldestAcrossSizeClassesIsLetGoFirst) {
  MessagePool pool(kTestPoolBytes, 2);
  void* large = pool.allocate(5000);
  void* small = pool.allocate(10);
  void* middle = pool.allocate(500);
  ASSERT_TRUE(pool.hold(large));
  ASSERT_TRUE(pool.hold(small));
  ASSERT_TRUE(pool.hold(middle));
  EXPECT_EQ(pool.release(large), ReleaseResult::kRefusedAlreadyFree);
  EXPECT_EQ(pool.release(small), ReleaseResult::kFreedAfterSend);
  EXPECT_EQ(pool.release(middle), ReleaseResult::kFreedAfterSend);
}

TEST(MessagePool, HoldUntilExhaustedLetsTheOldestOfTheClassGoOnlyWhenItRunsOut) {
  MessagePool pool(kOneMiB, kHoldUntilExhausted);
  std::vector<void*> sent;
  while (void* buffer = pool.allocate(60000)) {
    if (!sent.empty() && buffer == sent.front()) break;
    ASSERT_TRUE(pool.hold(buffer));
    sent.push_back(buffer);
  }
  ASSERT_GE(sent.size(), 10u);
  EXPECT_EQ(pool.statistics().holdsExpired, 1u) << "only when nothing else was left";
  EXPECT_EQ(pool.statistics().heldHighWater, sent.size());
}

TEST(MessagePool, PointersNotHandedOutAreRecognisedAsForeign) {
  MessagePool pool(kTestPoolBytes);
  BufferInfo info{};
  EXPECT_FALSE(pool.inspect(nullptr, &info));
  char onStack[64];
  EXPECT_EQ(pool.release(onStack), ReleaseResult::kRefusedForeign) << "before the pool reserved anything";
  auto* buffer = static_cast<char*>(pool.allocate(300));
  EXPECT_EQ(pool.release(onStack), ReleaseResult::kRefusedForeign);
  EXPECT_EQ(pool.release(buffer + 8), ReleaseResult::kRefusedForeign);
  EXPECT_EQ(pool.release(buffer + 1024 + 64), ReleaseResult::kRefusedForeign) << "the next, never carved buffer";
  EXPECT_FALSE(pool.hold(buffer + 16));
  EXPECT_EQ(pool.release(buffer), ReleaseResult::kReleased);
  EXPECT_EQ(pool.statistics().refusedForeign, 4u);
}

TEST(MessagePool, StatisticsFollowEachBufferAndKeepHighWaterMarks) {
  MessagePool pool(kTestPoolBytes);
  void* a = pool.allocate(64);
  void* b = pool.allocate(64);
  void* c = pool.allocate(64);
  ASSERT_TRUE(pool.hold(a));
  pool.release(b);
  PoolStatistics stats = pool.statistics();
  EXPECT_EQ(stats.inUse, 1u);
  EXPECT_EQ(stats.held, 1u);
  EXPECT_EQ(stats.free, 1u);
  EXPECT_EQ(stats.inUseHighWater, 3u);
  EXPECT_EQ(stats.heldHighWater, 1u);
  pool.release(a);
  pool.release(c);
  stats = pool.statistics();
  EXPECT_EQ(stats.inUse + stats.held, 0u);
  EXPECT_EQ(stats.free, 3u);
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

}  // namespace
}  // namespace rhyddal
