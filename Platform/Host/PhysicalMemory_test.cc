#include "PhysicalMemory.h"

#include <fcntl.h>
#include <sys/mman.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <functional>
#include <thread>
#include <atomic>

#include "HostTestUtil.h"
#include "RadioClock.h"
#include "Rhyddal.h"
#include "RhyddalHost.h"

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

// A writer stores counter values whose low word wraps on every step (the stride is 2^32 - 1), so
// any torn pair breaks high + low == kCheck; a reader runs the runtime's loop (high, low, high
// again while high changed) a fixed number of times and must never accept such a pair.
TEST(PhysicalMemory, CdmaPairIsNeverSeenTorn) {
#if !defined(__x86_64__) && !defined(__aarch64__)
  GTEST_SKIP() << "32-bit ARM has no atomic store for a pair 4 bytes into an 8-byte block";
#endif
  constexpr uint32_t kCheck = 0x12345678;
  constexpr uint32_t kReads = 30000000;
  alignas(4096) static uint32_t page[kTimingPageBytes / 4];
  page[16] = 0xAAAAAAAA;
  page[19] = 0x55555555;
  storeCdmaPair(page, kCheck);
  std::atomic<bool> done{false};
  std::atomic<uint64_t> writes{0};
  std::thread writer([&] {
    uint64_t value = kCheck;
    while (!done.load(std::memory_order_relaxed)) {
      value += 0xFFFFFFFFu;
      storeCdmaPair(page, value);
      writes.fetch_add(1, std::memory_order_relaxed);
    }
  });
  while (writes.load() == 0) std::this_thread::yield();
  const volatile uint32_t* registers = page;
  uint32_t torn = 0;
  uint32_t firstHigh = 0;
  uint32_t firstLow = 0;
  for (uint32_t i = 0; i < kReads; ++i) {
    uint32_t high, low;
    do {
      high = registers[kCdmaHighWord];
      low = registers[kCdmaLowWord];
    } while (registers[kCdmaHighWord] != high);
    if (static_cast<uint32_t>(high + low) != kCheck && torn++ == 0) {
      firstHigh = high;
      firstLow = low;
    }
  }
  done.store(true);
  writer.join();
  EXPECT_EQ(torn, 0u) << "first torn pair: high " << firstHigh << " low " << firstLow;
  EXPECT_GT(writes.load(), 0u);
  EXPECT_EQ(page[16], 0xAAAAAAAAu) << "the neighbours of the pair are kept";
  EXPECT_EQ(page[19], 0x55555555u);
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

// Order, not speed: the page never shows a time later than the clock read after it, and it
// reaches any time the clock showed before.
TEST(PhysicalMemory, TimingPageFollowsTheClockWithoutRunningAhead) {
  const uint16_t nid = testNid();
  Rendezvous up;
  ChildProcess node([&] {
    rhyddal_host_timing_page_in_use();  // as the runtime does in simulation mode
    up.notify(becomeNode(nid) == 0 ? 1 : 2);
    pause();
    return 0;
  });
  ASSERT_EQ(up.waitFor(), 1u);
  Mapping mapping(hostPhysicalMemoryPath(), kTimingPageBytes, kTimingPageOffset);
  const volatile uint32_t* page = mapping.as<uint32_t>();
  ASSERT_NE(page, nullptr);
  for (int round = 0; round < 3; ++round) {
    const uint64_t reference = cdmaCountAt(monotonicNanoseconds());
    ASSERT_TRUE(eventually([&] { return cdmaCounter(page) >= reference; })) << "no updater keeps the page";
  }
  for (int i = 0; i < 10000; ++i) {
    const uint64_t shown = cdmaCounter(page);
    const uint32_t symbol = page[kLteSymbolWord];
    const uint64_t now = monotonicNanoseconds();
    ASSERT_LE(shown, cdmaCountAt(now));
    ASSERT_LT(symbol, kSymbolCycle);
  }
}

TEST(PhysicalMemory, QueueTableAndHistoryShowWhatANodeHasWaiting) {
  SKIP_WITHOUT_DEAD_OWNER_DETECTION();
  const uint16_t nid = testNid();
  IdleNode node(nid);
  IdleNode survivor(testNid());  // keeps an updater alive after node is killed
  ASSERT_TRUE(node.up());
  ASSERT_TRUE(survivor.up());
  for (uint32_t i = 0; i < 3; ++i) {
    void* message = vakem_alloc(64);
    writeTestMessage(message, 64, sicAddress(nid, 1), 0, i);
    ASSERT_EQ(vakem_send(message, sicAddress(nid, 1)), 0);
  }
  Mapping table(hostPhysicalMemoryPath(), kQueueTableBytes, kQueueTableOffset);
  ASSERT_NE(table.as<QueueRecord>(), nullptr);
  const volatile QueueRecord& record = table.as<QueueRecord>()[nid & kQueueIndexMask];
  EXPECT_TRUE(eventually([&] { return record.waiting == 3 && record.nid == nid; }));

  Mapping history(queueHistoryObjectName().c_str(), kQueueHistoryBytes, 0, true);
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
