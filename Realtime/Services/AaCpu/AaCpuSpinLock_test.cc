#include "AaCpuSpinLock.h"

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <string>
#include <thread>
#include <vector>

#include "AaCpuTestThreads.h"
#include "FakeRuntime.h"

namespace {

constexpr unsigned kThreads = 4;
constexpr uint32_t kIncrementsPerThread = 100000;

uint32_t ownThreadId() { return static_cast<uint32_t>(gettid()); }

// Every increment of a plain counter is a read and a write that race unless the lock keeps them
// apart; the thread sanitizer also sees whether lock and unlock order them.
TEST(AaCpuSpinLockContention, ThreadsLoseNoIncrementUnderTheLock) {
  SAaCpuSpinLock lock = AACPUSPINLOCK_INITIALIZER;
  uint64_t counter = 0;
  OlmTest::runConcurrently(kThreads, [&](unsigned index) {
    for (uint32_t i = 0; i < kIncrementsPerThread; ++i) {
      // Half the threads wait in short bounded rounds, so that running out of polls under
      // contention and trying again is exercised as well.
      if (index % 2 == 0) {
        ASSERT_EQ(AaCpuSpinLockLock(&lock), EAaCpuSpinLockRet_Ok);
      } else {
        while (AaCpuSpinLockLockLimited(&lock, 3) != EAaCpuSpinLockRet_Ok) {
        }
      }
      ++counter;
      EXPECT_EQ(AaCpuSpinLockUnlock(&lock), EAaCpuSpinLockRet_Ok);
    }
  });
  EXPECT_EQ(counter, uint64_t{kThreads} * kIncrementsPerThread);
  EXPECT_EQ(AaCpuSpinLockOwnerGet(&lock), 0u);
}

struct SharedCounter {
  SAaCpuSpinLock lock;
  SAaCpuSpinLock childLock;
  uint32_t counter;
  uint32_t childOwnerSeen;
};

// Child processes increment a counter in a shared mapping under a lock in the same mapping. The
// parent takes a lock before forking, so each child starts with the parent's thread id cached and
// must record its own.
TEST(AaCpuSpinLockAcrossProcesses, ChildrenLoseNoIncrementAndOwnTheLockByTheirOwnId) {
  constexpr unsigned kChildren = 4;
  constexpr uint32_t kIncrementsPerChild = 20000;
  void* mapping = mmap(nullptr, sizeof(SharedCounter), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  ASSERT_NE(mapping, MAP_FAILED);
  auto* shared = new (mapping) SharedCounter{};
  SAaCpuSpinLock parentLock = AACPUSPINLOCK_INITIALIZER;
  ASSERT_EQ(AaCpuSpinLockLock(&parentLock), EAaCpuSpinLockRet_Ok);

  std::vector<pid_t> children;
  for (unsigned child = 0; child < kChildren; ++child) {
    const pid_t pid = fork();
    ASSERT_NE(pid, -1);
    if (pid == 0) {
      bool ok = AaCpuSpinLockLock(&shared->childLock) == EAaCpuSpinLockRet_Ok;
      shared->childOwnerSeen = AaCpuSpinLockOwnerGet(&shared->childLock);
      ok = ok && shared->childOwnerSeen == ownThreadId();
      ok = ok && AaCpuSpinLockUnlock(&shared->childLock) == EAaCpuSpinLockRet_Ok;
      for (uint32_t i = 0; ok && i < kIncrementsPerChild; ++i) {
        ok = AaCpuSpinLockLock(&shared->lock) == EAaCpuSpinLockRet_Ok;
        ++shared->counter;
        ok = ok && AaCpuSpinLockUnlock(&shared->lock) == EAaCpuSpinLockRet_Ok;
      }
      _exit(ok ? 0 : 1);
    }
    children.push_back(pid);
  }
  for (const pid_t pid : children) {
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "child " << pid << " status " << status;
  }
  EXPECT_EQ(shared->counter, kChildren * kIncrementsPerChild);
  EXPECT_NE(shared->childOwnerSeen, ownThreadId());
  EXPECT_EQ(AaCpuSpinLockUnlock(&parentLock), EAaCpuSpinLockRet_Ok);
  munmap(mapping, sizeof(SharedCounter));
}

class AaCpuSpinLockTest : public OlmTest::FakeRuntimeTest {
 protected:
  // Runs body on a thread of its own and waits for it.
  static void onOtherThread(const std::function<void()>& body) { std::thread(body).join(); }

  bool logged(size_t index, const std::string& text) const {
    return runtime.sent().size() > index && runtime.sentText(index).find(text) != std::string::npos;
  }

  SAaCpuSpinLock lock = AACPUSPINLOCK_INITIALIZER;
};

TEST_F(AaCpuSpinLockTest, ALockHeldElsewhereIsBusyAndNamesItsHolder) {
  uint32_t holder = 0;
  onOtherThread([&] {
    holder = ownThreadId();
    EXPECT_EQ(AaCpuSpinLockTryLock(&lock), EAaCpuSpinLockRet_Ok);
  });
  EXPECT_EQ(AaCpuSpinLockOwnerGet(&lock), holder);
  EXPECT_EQ(AaCpuSpinLockTryLock(&lock), EAaCpuSpinLockRet_Busy);
  EXPECT_EQ(AaCpuSpinLockLockLimited(&lock, 0), EAaCpuSpinLockRet_Busy);
  EXPECT_EQ(AaCpuSpinLockLockLimited(&lock, AACPUSPINLOCK_POLLS_BEFORE_YIELD + 5), EAaCpuSpinLockRet_Busy);
  EXPECT_TRUE(runtime.sent().empty()) << "a busy lock is no error";

  // A dead holder's lock stays held until somebody resets it.
  EXPECT_EQ(AaCpuSpinLockInit(&lock), EAaCpuSpinLockRet_Ok);
  EXPECT_EQ(AaCpuSpinLockLockLimited(&lock, 0), EAaCpuSpinLockRet_Ok);
  EXPECT_EQ(AaCpuSpinLockOwnerGet(&lock), ownThreadId());
  EXPECT_EQ(AaCpuSpinLockUnlock(&lock), EAaCpuSpinLockRet_Ok);
}

TEST_F(AaCpuSpinLockTest, TheHolderCannotLockAgainAndOthersCannotUnlock) {
  ASSERT_EQ(AaCpuSpinLockLock(&lock), EAaCpuSpinLockRet_Ok);
  EXPECT_EQ(AaCpuSpinLockLock(&lock), EAaCpuSpinLockRet_Deadlock);
  EXPECT_EQ(AaCpuSpinLockTryLock(&lock), EAaCpuSpinLockRet_Deadlock);
  EXPECT_EQ(AaCpuSpinLockLockLimited(&lock, 10), EAaCpuSpinLockRet_Deadlock);
  EXPECT_TRUE(logged(0, "ERR/AaCpuSpinLockLock(): thread " + std::to_string(ownThreadId()) + " already holds lock"));
  EXPECT_TRUE(logged(2, "ERR/AaCpuSpinLockLockLimited(): thread"));

  onOtherThread([&] { EXPECT_EQ(AaCpuSpinLockUnlock(&lock), EAaCpuSpinLockRet_NotOwner); });
  EXPECT_TRUE(logged(3, "(holder " + std::to_string(ownThreadId()) + ")"));
  EXPECT_EQ(AaCpuSpinLockOwnerGet(&lock), ownThreadId()) << "a refused unlock released the lock";

  EXPECT_EQ(AaCpuSpinLockUnlock(&lock), EAaCpuSpinLockRet_Ok);
  EXPECT_EQ(AaCpuSpinLockUnlock(&lock), EAaCpuSpinLockRet_NotOwner);
  EXPECT_TRUE(logged(4, "(holder 0)"));
}

TEST_F(AaCpuSpinLockTest, NullAndMisalignedLocksAreRefusedWithALogLine) {
  alignas(uint32_t) unsigned char bytes[2 * sizeof(SAaCpuSpinLock)] = {};
  auto* misaligned = reinterpret_cast<SAaCpuSpinLock*>(bytes + 2);
  EXPECT_EQ(AaCpuSpinLockInit(nullptr), EAaCpuSpinLockRet_InvalidParameter);
  EXPECT_EQ(AaCpuSpinLockLock(misaligned), EAaCpuSpinLockRet_InvalidParameter);
  EXPECT_EQ(AaCpuSpinLockTryLock(nullptr), EAaCpuSpinLockRet_InvalidParameter);
  EXPECT_EQ(AaCpuSpinLockLockLimited(misaligned, 1), EAaCpuSpinLockRet_InvalidParameter);
  EXPECT_EQ(AaCpuSpinLockUnlock(nullptr), EAaCpuSpinLockRet_InvalidParameter);
  EXPECT_EQ(AaCpuSpinLockOwnerGet(misaligned), 0u);
  ASSERT_EQ(runtime.sent().size(), 6u);
  EXPECT_TRUE(logged(1, "ERR/AaCpuSpinLockLock(): lock 0x"));
  EXPECT_TRUE(logged(1, " is null or not 4-byte aligned"));
  EXPECT_EQ(std::vector<unsigned char>(bytes, bytes + sizeof(bytes)), std::vector<unsigned char>(sizeof(bytes), 0));
}

}  // namespace
