#include "PhysicalMemory.h"

#include <fcntl.h>
#include <sys/mman.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <functional>
#include <thread>

#include "HostTestUtil.h"
#include "RadioClock.h"
#include "Rhyddal.h"

namespace rhyddal {
namespace {

using namespace testing;

constexpr uint64_t kSymbolCycle = 573440;

class Mapping {
 public:
  Mapping(const char* path, size_t bytes, uint64_t offset, bool sharedMemoryObject = false) : bytes_(bytes) {
    const int fd = sharedMemoryObject ? shm_open(path, O_RDONLY, 0) : open(path, O_RDONLY);
    if (fd < 0) return;
    void* mapping = mmap(nullptr, bytes, PROT_READ, MAP_SHARED, fd, static_cast<off_t>(offset));
    close(fd);
    if (mapping != MAP_FAILED) address_ = mapping;
  }
  ~Mapping() {
    if (address_ != nullptr) munmap(address_, bytes_);
  }
  template <typename T>
  const volatile T* as() const {
    return static_cast<const volatile T*>(address_);
  }

 private:
  void* address_ = nullptr;
  size_t bytes_;
};

bool eventually(const std::function<bool()>& condition, int timeoutMs = 3000) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return true;
}

uint64_t cdmaCounter(const volatile uint32_t* page) {
  uint32_t high = 0;
  uint32_t low = 0;
  do {
    high = page[kCdmaHighWord];
    low = page[kCdmaLowWord];
  } while (high != page[kCdmaHighWord]);
  return (uint64_t{high} << 32) | low;
}

TEST(PhysicalMemory, TimingWordsFollowTheRadioClock) {
  uint32_t page[kTimingPageBytes / 4] = {};
  const uint64_t ns = uint64_t{300} * 1000000000 + 1234567;
  writeTimingWords(page, ns);
  EXPECT_EQ(page[kLteSymbolWord], lteSymbolAt(ns));
  EXPECT_EQ((uint64_t{page[kCdmaHighWord]} << 32) | page[kCdmaLowWord], cdmaCountAt(ns));
  EXPECT_EQ(page[kCdmaHighWord], 1u);
  EXPECT_EQ(page[kCdmaLowWord + 2], 0u) << "no word between the pair and the symbol counter is touched";
}

TEST(PhysicalMemory, HistoryLineListsNodesAndAlwaysFitsItsRecord) {
  struct tm time {};
  time.tm_hour = 1;
  time.tm_min = 2;
  time.tm_sec = 3;
  char line[kQueueHistoryRecordBytes];
  formatHistoryLine(time, {{0x1011, 0}, {0x1012, 3}}, line);
  EXPECT_STREQ(line, "01:02:03 1011[0] 1012[3]");

  std::vector<std::pair<uint16_t, uint32_t>> many;
  for (uint16_t nid = 0; nid < 200; ++nid) many.emplace_back(nid, 4000000000u);
  formatHistoryLine(time, many, line);
  const size_t length = strnlen(line, sizeof(line));
  ASSERT_LT(length, sizeof(line));
  EXPECT_EQ(line[length - 1], ']') << "cut between entries, never inside one";
}

TEST(PhysicalMemory, TimingPageAdvancesInRealTime) {
  IdleNode node(testNid(0));  // each node process is also a candidate timing updater
  ASSERT_TRUE(node.up());
  Mapping mapping(physicalMemoryPath().c_str(), kTimingPageBytes, kTimingPageOffset);
  const volatile uint32_t* page = mapping.as<uint32_t>();
  ASSERT_NE(page, nullptr);
  // The baseline is taken right as the updater writes, so that it is not itself a stale reading.
  const uint32_t first = page[kLteSymbolWord];
  ASSERT_TRUE(eventually([&] { return page[kLteSymbolWord] != first; })) << "no updater took over";
  const uint32_t written = page[kLteSymbolWord];
  ASSERT_TRUE(eventually([&] { return page[kLteSymbolWord] != written; }));
  const uint32_t symbolBefore = page[kLteSymbolWord];
  const uint64_t cdmaBefore = cdmaCounter(page);
  const uint64_t nsBefore = monotonicNanoseconds();
  std::this_thread::sleep_for(std::chrono::milliseconds(100));

  // On a loaded or emulated machine the updater, or this test, may run late, but the page catches up
  // with real time and does not run ahead of it.
  constexpr double kSymbolsPerMs = 14;
  constexpr double kCdmaCountsPerMs = 19660.8;
  constexpr double kLagMs = 30;
  constexpr double kSchedulingSlackMs = 20;
  uint64_t symbols = 0, cdmaCounts = 0;
  double elapsedMs = 0;
  const bool caughtUp = eventually([&] {
    const uint32_t symbolNow = page[kLteSymbolWord];
    cdmaCounts = cdmaCounter(page) - cdmaBefore;
    elapsedMs = static_cast<double>(monotonicNanoseconds() - nsBefore) / 1e6;
    EXPECT_LT(symbolNow, kSymbolCycle);
    symbols = (symbolNow + kSymbolCycle - symbolBefore) % kSymbolCycle;
    return static_cast<double>(symbols) >= (elapsedMs - kLagMs) * kSymbolsPerMs &&
           static_cast<double>(cdmaCounts) >= (elapsedMs - kLagMs) * kCdmaCountsPerMs;
  });
  EXPECT_TRUE(caughtUp) << symbols << " symbols and " << cdmaCounts << " CDMA counts in " << elapsedMs << " ms";
  EXPECT_LE(static_cast<double>(symbols), (elapsedMs + kSchedulingSlackMs) * kSymbolsPerMs) << "14 symbols a ms";
  EXPECT_LE(static_cast<double>(cdmaCounts), (elapsedMs + kSchedulingSlackMs) * kCdmaCountsPerMs);
}

TEST(PhysicalMemory, QueueTableAndHistoryShowWhatANodeHasWaiting) {
  SKIP_WITHOUT_DEAD_OWNER_DETECTION();
  const uint16_t nid = testNid(1);
  IdleNode node(nid);
  IdleNode survivor(testNid(2));  // keeps an updater alive after node is killed
  ASSERT_TRUE(node.up());
  ASSERT_TRUE(survivor.up());
  for (uint32_t i = 0; i < 3; ++i) {
    void* message = vakem_alloc(64);
    writeTestMessage(message, 64, sicAddress(nid, 1), 0, i);
    ASSERT_EQ(vakem_send(message, sicAddress(nid, 1)), 0);
  }
  Mapping table(physicalMemoryPath().c_str(), kQueueTableBytes, kQueueTableOffset);
  ASSERT_NE(table.as<QueueRecord>(), nullptr);
  const volatile QueueRecord& record = table.as<QueueRecord>()[nid & kQueueIndexMask];
  EXPECT_TRUE(eventually([&] { return record.waiting == 3 && record.nid == nid; }));

  Mapping history(kQueueHistoryName, kQueueHistoryBytes, 0, true);
  ASSERT_NE(history.as<char>(), nullptr);
  char entry[16];
  std::snprintf(entry, sizeof(entry), " %04x[3]", nid);
  EXPECT_TRUE(eventually([&] {
    for (size_t i = 0; i < kQueueHistoryRecords; ++i) {
      char line[kQueueHistoryRecordBytes];
      for (size_t k = 0; k < sizeof(line); ++k) line[k] = history.as<char>()[i * kQueueHistoryRecordBytes + k];
      line[sizeof(line) - 1] = '\0';
      if (std::strstr(line, entry) != nullptr) return true;
    }
    return false;
  }));

  node.kill();
  EXPECT_TRUE(eventually([&] { return record.waiting == 0 && record.nid == 0; })) << "a dead node's record is cleared";
}

}  // namespace
}  // namespace rhyddal
