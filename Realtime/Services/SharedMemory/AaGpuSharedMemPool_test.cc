#include "AaGpuSharedMemPool.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "AaGpuSharedMem.h"
#include "FakeRuntime.h"
#include "SharedMemPoolLayout.h"
#include "SharedMemTestUtil.h"

namespace {

using OlmTest::privateShmName;
using OlmTest::runInChild;
using OlmTest::startChild;
using OlmTest::waitForChild;

// A one-way word between processes: send() in one, receive() in the other (blocks until sent).
class Channel {
 public:
  Channel() { EXPECT_EQ(pipe(m_fds), 0); }
  ~Channel() {
    close(m_fds[0]);
    close(m_fds[1]);
  }
  void send(uint32_t value) { (void)!write(m_fds[1], &value, sizeof(value)); }
  uint32_t receive() {
    uint32_t value = 0;
    return read(m_fds[0], &value, sizeof(value)) == sizeof(value) ? value : 0xDEADu;
  }

 private:
  int m_fds[2] = {-1, -1};
};

// Ends a child that waits forever, and reaps it.
void killChild(pid_t pid) {
  kill(pid, SIGKILL);
  waitForChild(pid);
}

class SharedMemPoolTest : public OlmTest::FakeRuntimeTest {
 protected:
  void TearDown() override {
    for (SAaGpuSharedMemPool* pool : opened) AaGpuSharedMemPool_Close(pool);
    for (const std::string& name : names) shm_unlink(name.c_str());
    FakeRuntimeTest::TearDown();
  }

  SAaGpuSharedMemPool* create(uint32_t blockSize, uint32_t blockCount) {
    names.push_back(privateShmName("pool"));
    SAaGpuSharedMemPool* pool = nullptr;
    EXPECT_EQ(AaGpuSharedMemPool_Create(names.back().c_str(), blockSize, blockCount, &pool), EAaGpuSharedMemPoolRet_Ok);
    opened.push_back(pool);
    return pool;
  }

  SAaGpuSharedMemPoolInfo info(SAaGpuSharedMemPool* pool) {
    SAaGpuSharedMemPoolInfo counted{};
    EXPECT_EQ(AaGpuSharedMemPool_InfoGet(pool, &counted), EAaGpuSharedMemPoolRet_Ok);
    return counted;
  }

  // A child that opens the pool, takes count blocks, reports and waits to be killed.
  pid_t startHolder(const std::string& name, uint32_t count, Channel& ready) {
    return startChild([&name, count, &ready] {
      SAaGpuSharedMemPool* pool = nullptr;
      if (AaGpuSharedMemPool_Open(name.c_str(), &pool) != EAaGpuSharedMemPoolRet_Ok) return 1;
      for (uint32_t i = 0; i < count; ++i) {
        if (AaGpuSharedMemPool_Alloc(pool) == nullptr) return 2;
      }
      ready.send(count);
      for (;;) pause();
    });
  }

  std::vector<std::string> names;
  std::vector<SAaGpuSharedMemPool*> opened;
};

// ---------------------------------------------------------------------------------------------
// Concurrent use

constexpr uint32_t kStressBlocks = 64;
constexpr uint32_t kStressRounds = 3000;
constexpr uint32_t kHeldAtOnce = 6;
constexpr uint32_t kKeptAtExit = 3;

struct Stamp {
  uint32_t user;
  uint32_t round;
};

// Takes up to kHeldAtOnce blocks a round, stamps each, checks every stamp is still its own before
// freeing it: a block handed to two users at once shows as a foreign stamp. Keeps kKeptAtExit
// blocks at the end. Returns the number of faults seen.
uint32_t exercise(SAaGpuSharedMemPool* pool, uint32_t user) {
  uint32_t faults = 0;
  std::vector<void*> held;
  for (uint32_t round = 0; round < kStressRounds; ++round) {
    for (uint32_t i = 0; i < 1 + round % kHeldAtOnce; ++i) {
      void* block = AaGpuSharedMemPool_Alloc(pool);
      if (block == nullptr) continue;
      const Stamp stamp{user, round};
      std::memcpy(block, &stamp, sizeof(stamp));
      held.push_back(block);
    }
    while (held.size() > (round + 1 == kStressRounds ? kKeptAtExit : 0)) {
      Stamp stamp{};
      std::memcpy(&stamp, held.back(), sizeof(stamp));
      if (stamp.user != user || stamp.round > round) ++faults;
      if (AaGpuSharedMemPool_Free(pool, held.back()) != EAaGpuSharedMemPoolRet_Ok) ++faults;
      held.pop_back();
    }
  }
  return faults;
}

TEST_F(SharedMemPoolTest, ProcessesAndThreadsShareThePoolWithExactAccounting) {
  SAaGpuSharedMemPool* pool = create(sizeof(Stamp), kStressBlocks);
  const std::string& name = names.back();
  constexpr uint32_t kProcesses = 3;
  constexpr uint32_t kThreads = 2;
  // Children first: a process with threads is not forked.
  std::vector<pid_t> children;
  for (uint32_t user = 1; user <= kProcesses; ++user) {
    children.push_back(startChild([&name, user] {
      SAaGpuSharedMemPool* own = nullptr;
      if (AaGpuSharedMemPool_Open(name.c_str(), &own) != EAaGpuSharedMemPoolRet_Ok) return 100;
      return static_cast<int>(std::min<uint32_t>(exercise(own, user), 99));
    }));
  }
  std::vector<uint32_t> threadFaults(kThreads);
  std::vector<std::thread> threads;
  for (uint32_t t = 0; t < kThreads; ++t) {
    threads.emplace_back([pool, t, &threadFaults] { threadFaults[t] = exercise(pool, 100 + t); });
  }
  for (std::thread& thread : threads) thread.join();
  for (pid_t child : children) EXPECT_EQ(waitForChild(child), 0) << "faults in a child process";
  for (uint32_t faults : threadFaults) EXPECT_EQ(faults, 0u);

  // The ended children's kept blocks wait for reclaiming; this process's threads kept theirs.
  const SAaGpuSharedMemPoolInfo after = info(pool);
  EXPECT_EQ(after.freeBlocks, kStressBlocks - (kProcesses + kThreads) * kKeptAtExit);
  EXPECT_EQ(after.ownedBlocks, kThreads * kKeptAtExit);
  EXPECT_EQ(AaGpuSharedMemPool_Reclaim(pool), kProcesses * kKeptAtExit);
  EXPECT_EQ(info(pool).freeBlocks, kStressBlocks - kThreads * kKeptAtExit);
}

// ---------------------------------------------------------------------------------------------
// Processes that end holding blocks

TEST_F(SharedMemPoolTest, BlocksOfAKilledHolderAreReclaimedOnRequestButNeverALiveOnes) {
  SAaGpuSharedMemPool* pool = create(32, 8);
  Channel ready;
  const pid_t live = startHolder(names.back(), 2, ready);
  ASSERT_EQ(ready.receive(), 2u);
  const pid_t doomed = startHolder(names.back(), 3, ready);
  ASSERT_EQ(ready.receive(), 3u);
  EXPECT_EQ(AaGpuSharedMemPool_Reclaim(pool), 0u) << "both holders live";
  killChild(doomed);
  EXPECT_EQ(AaGpuSharedMemPool_Reclaim(pool), 3u);
  EXPECT_EQ(AaGpuSharedMemPool_Reclaim(pool), 0u);
  EXPECT_EQ(info(pool).freeBlocks, 6u);
  killChild(live);
}

TEST_F(SharedMemPoolTest, ADryPoolReclaimsTheBlocksOfEndedHoldersBeforeItGivesUp) {
  SAaGpuSharedMemPool* pool = create(32, 4);
  Channel ready;
  const pid_t holder = startHolder(names.back(), 4, ready);
  ASSERT_EQ(ready.receive(), 4u);
  EXPECT_EQ(AaGpuSharedMemPool_Alloc(pool), nullptr) << "the holder lives";
  killChild(holder);
  for (int i = 0; i < 4; ++i) EXPECT_NE(AaGpuSharedMemPool_Alloc(pool), nullptr);
  EXPECT_EQ(AaGpuSharedMemPool_Alloc(pool), nullptr);
  EXPECT_EQ(info(pool).ownedBlocks, 4u);
  EXPECT_TRUE(log.lines().empty()) << "a dry pool is not an error of the pool";
}

// Wherever a kill lands, in an allocation, a free or between them, the pool stays whole: after
// the reclaim every block is free again and can be taken.
TEST_F(SharedMemPoolTest, AProcessKilledAnywhereInItsCallsLeavesThePoolWhole) {
  constexpr uint32_t kBlocks = 16;
  SAaGpuSharedMemPool* pool = create(64, kBlocks);
  const std::string& name = names.back();
  for (int attempt = 0; attempt < 20; ++attempt) {
    Channel started;
    const pid_t churner = startChild([&name, &started] {
      SAaGpuSharedMemPool* own = nullptr;
      if (AaGpuSharedMemPool_Open(name.c_str(), &own) != EAaGpuSharedMemPoolRet_Ok) return 1;
      started.send(1);
      for (uint32_t round = 0;; ++round) {
        void* blocks[3] = {AaGpuSharedMemPool_Alloc(own), AaGpuSharedMemPool_Alloc(own), AaGpuSharedMemPool_Alloc(own)};
        for (void* block : blocks) {
          if (block != nullptr && round % 2 == 0) AaGpuSharedMemPool_Free(own, block);
        }
      }
    });
    ASSERT_EQ(started.receive(), 1u);
    killChild(churner);
    AaGpuSharedMemPool_Reclaim(pool);
    ASSERT_EQ(info(pool).freeBlocks, kBlocks) << "attempt " << attempt;
  }
  std::vector<void*> all;
  for (uint32_t i = 0; i < kBlocks; ++i) all.push_back(AaGpuSharedMemPool_Alloc(pool));
  EXPECT_EQ(std::count(all.begin(), all.end(), nullptr), 0);
  EXPECT_EQ(AaGpuSharedMemPool_Alloc(pool), nullptr);
}

// A block passes between processes as an index; the receiver adopts it to keep it past the sender.
TEST_F(SharedMemPoolTest, AnAdoptedBlockOutlivesTheProcessThatAllocatedIt) {
  SAaGpuSharedMemPool* pool = create(32, 4);
  const std::string& name = names.back();
  Channel handover;
  const int status = runInChild([&name, &handover] {
    SAaGpuSharedMemPool* own = nullptr;
    if (AaGpuSharedMemPool_Open(name.c_str(), &own) != EAaGpuSharedMemPoolRet_Ok) return 1;
    AaGpuSharedMemPool_Alloc(own);
    void* block = AaGpuSharedMemPool_Alloc(own);
    if (block == nullptr) return 2;
    std::strcpy(static_cast<char*>(block), "handed over");
    handover.send(AaGpuSharedMemPool_BlockIndex(own, block));
    return 0;
  });
  ASSERT_EQ(status, 0);
  const uint32_t index = handover.receive();
  void* block = AaGpuSharedMemPool_BlockAddress(pool, index);
  ASSERT_NE(block, nullptr);
  EXPECT_STREQ(static_cast<char*>(block), "handed over");
  EXPECT_EQ(AaGpuSharedMemPool_Adopt(pool, block), EAaGpuSharedMemPoolRet_Ok);
  EXPECT_EQ(AaGpuSharedMemPool_Reclaim(pool), 1u) << "only the block not adopted";
  EXPECT_EQ(info(pool).ownedBlocks, 1u);
  EXPECT_EQ(AaGpuSharedMemPool_Free(pool, block), EAaGpuSharedMemPoolRet_Ok);
}

// ---------------------------------------------------------------------------------------------
// Refused calls

TEST_F(SharedMemPoolTest, DoubleFreesAndForeignPointersAreRefusedAndLogged) {
  SAaGpuSharedMemPool* pool = create(24, 4);
  SAaGpuSharedMemPool* other = create(24, 4);
  void* block = AaGpuSharedMemPool_Alloc(pool);
  ASSERT_NE(block, nullptr);

  EXPECT_EQ(AaGpuSharedMemPool_Free(other, block), EAaGpuSharedMemPoolRet_ForeignBlock);
  EXPECT_EQ(AaGpuSharedMemPool_Free(pool, static_cast<char*>(block) + 8), EAaGpuSharedMemPoolRet_ForeignBlock);
  int onTheStack = 0;
  EXPECT_EQ(AaGpuSharedMemPool_Free(pool, &onTheStack), EAaGpuSharedMemPoolRet_ForeignBlock);
  EXPECT_EQ(log.count("AaGpuSharedMemPool_Free(): "), 3u);
  EXPECT_EQ(log.count(" is no block of this pool"), 3u);
  EXPECT_EQ(info(pool).freeBlocks, 3u) << "a refused free changed the pool";

  EXPECT_EQ(AaGpuSharedMemPool_Free(pool, block), EAaGpuSharedMemPoolRet_Ok);
  const uint32_t index = AaGpuSharedMemPool_BlockIndex(pool, block);
  EXPECT_EQ(AaGpuSharedMemPool_Free(pool, block), EAaGpuSharedMemPoolRet_NotAllocated);
  EXPECT_EQ(log.count("AaGpuSharedMemPool_Free(): block " + std::to_string(index) + " is not allocated"), 1u);
  EXPECT_EQ(AaGpuSharedMemPool_Adopt(pool, block), EAaGpuSharedMemPoolRet_NotAllocated);
  EXPECT_EQ(AaGpuSharedMemPool_Free(pool, nullptr), EAaGpuSharedMemPoolRet_InvalidParameter);
  EXPECT_EQ(AaGpuSharedMemPool_Free(nullptr, block), EAaGpuSharedMemPoolRet_InvalidParameter);
  EXPECT_EQ(info(pool).freeBlocks, 4u);

  EXPECT_EQ(AaGpuSharedMemPool_BlockAddress(pool, 4), nullptr);
  EXPECT_EQ(AaGpuSharedMemPool_BlockIndex(pool, &onTheStack), 0xFFFFFFFFu);
}

TEST_F(SharedMemPoolTest, CreateAndOpenCheckWhatTheObjectHolds) {
  SAaGpuSharedMemPool* pool = create(100, 10);
  const char* name = names.back().c_str();
  SAaGpuSharedMemPool* again = nullptr;
  EXPECT_EQ(AaGpuSharedMemPool_Create(name, 100, 11, &again), EAaGpuSharedMemPoolRet_Mismatch);
  EXPECT_EQ(log.count("exists with 10 blocks of 100 bytes, not 11 of 100"), 1u);
  ASSERT_EQ(AaGpuSharedMemPool_Create(name, 100, 10, &again), EAaGpuSharedMemPoolRet_Ok);
  void* block = AaGpuSharedMemPool_Alloc(again);
  std::strcpy(static_cast<char*>(block), "one pool");
  EXPECT_STREQ(static_cast<char*>(AaGpuSharedMemPool_BlockAddress(pool, AaGpuSharedMemPool_BlockIndex(again, block))),
               "one pool");
  EXPECT_EQ(info(pool).freeBlocks, 9u) << "a second create opened the same pool";
  EXPECT_EQ(AaGpuSharedMemPool_Free(again, block), EAaGpuSharedMemPoolRet_Ok);
  EXPECT_EQ(AaGpuSharedMemPool_Close(again), EAaGpuSharedMemPoolRet_Ok);

  const SAaGpuSharedMemPoolInfo geometry = info(pool);
  EXPECT_EQ(geometry.blockSize, 100u);
  EXPECT_EQ(geometry.blockCount, 10u);
  EXPECT_EQ(reinterpret_cast<uintptr_t>(AaGpuSharedMemPool_BlockAddress(pool, 1)) % 16, 0u);

  SAaGpuSharedMemPool* opened = nullptr;
  const std::string missing = privateShmName("missing");
  EXPECT_EQ(AaGpuSharedMemPool_Open(missing.c_str(), &opened), EAaGpuSharedMemPoolRet_NotFound);
  EXPECT_EQ(AaGpuSharedMemPool_Remove(missing.c_str()), EAaGpuSharedMemPoolRet_NotFound);
  EXPECT_EQ(AaGpuSharedMemPool_Create(missing.c_str(), 0, 10, &opened), EAaGpuSharedMemPoolRet_InvalidParameter);
  EXPECT_EQ(AaGpuSharedMemPool_Create(missing.c_str(), 0xFFFFFFFF, 0xFFFFFFFF, &opened),
            EAaGpuSharedMemPoolRet_InvalidParameter);
  EXPECT_EQ(AaGpuSharedMemPool_Open(nullptr, &opened), EAaGpuSharedMemPoolRet_InvalidParameter);
  EXPECT_EQ(opened, nullptr);
}

// An object that is not a pool is never taken for one, nor overwritten; a pool whose creator died
// while initialising it is refused by opens and initialised afresh by the next create.
TEST_F(SharedMemPoolTest, ForeignObjectsAreRefusedAndHalfCreatedPoolsAreRedone) {
  const std::string foreign = privateShmName("foreign");
  names.push_back(foreign);
  auto* bytes = static_cast<char*>(CreateShmObj(foreign.c_str(), 4096));
  ASSERT_NE(bytes, nullptr);
  std::memset(bytes, 0x5A, 4096);
  SAaGpuSharedMemPool* pool = nullptr;
  EXPECT_EQ(AaGpuSharedMemPool_Open(foreign.c_str(), &pool), EAaGpuSharedMemPoolRet_Mismatch);
  EXPECT_EQ(AaGpuSharedMemPool_Create(foreign.c_str(), 16, 4, &pool), EAaGpuSharedMemPoolRet_Mismatch);
  EXPECT_EQ(log.count("\"" + foreign + "\" is no pool"), 2u);
  EXPECT_EQ(bytes[100], 0x5A);

  reinterpret_cast<Olm::PoolHeader*>(bytes)->magic = Olm::kPoolMagicInitialising;
  EXPECT_EQ(AaGpuSharedMemPool_Open(foreign.c_str(), &pool), EAaGpuSharedMemPoolRet_Mismatch);
  EXPECT_EQ(log.count("was not completely initialised"), 1u);
  ASSERT_EQ(AaGpuSharedMemPool_Create(foreign.c_str(), 16, 4, &pool), EAaGpuSharedMemPoolRet_Ok);
  opened.push_back(pool);
  EXPECT_EQ(info(pool).freeBlocks, 4u);
  UnmapShmObj(bytes, 4096);
}

}  // namespace
