// The mount as users meet it: the kernel's FUSE file system read with ordinary file calls.
#define FUSE_USE_VERSION 26

#include <fcntl.h>
#include <fuse.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "AaFile.h"
#include "AaFileTestUtil.h"

#if defined(__SANITIZE_THREAD__)
// One test stops the mount from a SIGTERM handler, as a node does before it exits; stopping frees
// libfuse's memory, which is not async-signal-safe and which the process accepts on its way out.
extern "C" const char* __tsan_default_options() { return "report_signal_unsafe=0"; }
#endif

#if defined(__SANITIZE_ADDRESS__)
// libfuse frees a directory's handle when the kernel releases the directory, which it does in the
// background after closedir: a test that lists the mount and unmounts at once may unmount first.
extern "C" const char* __lsan_default_suppressions() { return "leak:libfuse.so.2\n"; }
#endif

namespace {

using AaFileTest::CallbackCounter;
using OlmTest::fileContents;
using OlmTest::isMountPoint;
using OlmTest::listing;
using AaFileTest::pattern;

// Why this process cannot mount a FUSE file system at all, or "" when it can: probed with libfuse
// itself in a scratch directory, so a fault of the service never turns into a skip.
std::string whyFuseIsUnusable() {
  if (access("/dev/fuse", R_OK | W_OK) != 0) return std::string("/dev/fuse is not usable: ") + std::strerror(errno);
  char scratch[] = "/tmp/aafile-probe-XXXXXX";
  if (mkdtemp(scratch) == nullptr) return "no scratch directory";
  fuse_args arguments = FUSE_ARGS_INIT(0, nullptr);
  fuse_opt_add_arg(&arguments, "probe");
  fuse_chan* channel = fuse_mount(scratch, &arguments);
  fuse_opt_free_args(&arguments);
  std::string reason;
  if (channel == nullptr) {
    reason = "fuse_mount fails in this environment (for instance under user-mode emulation)";
  } else {
    fuse_unmount(scratch, channel);
  }
  rmdir(scratch);
  return reason;
}

class AaFileMount : public AaFileTest::PrivateDirectoryTest {
 protected:
  void SetUp() override {
    const std::string reason = whyFuseIsUnusable();
    if (!reason.empty()) GTEST_SKIP() << reason;
    PrivateDirectoryTest::SetUp();
    ASSERT_EQ(AaFileFUSE_Lite_init(), 0);
    m_mountPoint = directory() + "/fusemnt";
    ASSERT_TRUE(isMountPoint(m_mountPoint));
  }
  void TearDown() override {
    if (m_mountPoint.empty()) return;
    AaFileFUSE_Lite_terminate();
    EXPECT_FALSE(isMountPoint(m_mountPoint));
    EXPECT_NE(access(m_mountPoint.c_str(), F_OK), 0);
    PrivateDirectoryTest::TearDown();
  }
  std::string path(const std::string& name) const { return m_mountPoint + "/" + name; }
  const std::string& mountPoint() const { return m_mountPoint; }

 private:
  std::string m_mountPoint;
};

TEST_F(AaFileMount, ListsFilesNewestFirstWithTheirModesSizesAndOwner) {
  std::vector<char> a = pattern(10), b = pattern(70000);
  ASSERT_EQ(AaFileRamfsSetExt("A", a.data(), a.size(), nullptr, nullptr, nullptr), EAaFileRet_Ok);
  ASSERT_EQ(AaFileRamfsSetExt("B", b.data(), b.size(), nullptr, nullptr, nullptr), EAaFileRet_Ok);
  EXPECT_EQ(listing(mountPoint()), (std::vector<std::string>{".", "..", "B", "A"}));

  struct stat status {};
  ASSERT_EQ(stat(mountPoint().c_str(), &status), 0);
  EXPECT_EQ(status.st_mode, 040550u);
  EXPECT_EQ(status.st_nlink, 2u);
  ASSERT_EQ(stat(path("B").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode, 0100440u);
  EXPECT_EQ(status.st_nlink, 1u);
  EXPECT_EQ(status.st_size, 70000);
  EXPECT_EQ(status.st_uid, getuid());
  EXPECT_EQ(status.st_gid, getgid());
  EXPECT_NE(stat(path("C").c_str(), &status), 0);
  EXPECT_EQ(errno, ENOENT);

  // Registered after the mount: the view follows the slots.
  ASSERT_EQ(AaFileRamfsRemove("A"), EAaFileRet_Ok);
  EXPECT_EQ(listing(mountPoint()), (std::vector<std::string>{".", "..", "B"}));
}

TEST_F(AaFileMount, ReadsGiveTheBufferAtAnyOffsetAndNothingPastItsEnd) {
  const std::vector<char> bytes = pattern(300001);  // more than one read request of the kernel's
  std::vector<char> buffer = bytes;
  ASSERT_EQ(AaFileRamfsSetExt("trace.bin", buffer.data(), buffer.size(), nullptr, nullptr, nullptr), EAaFileRet_Ok);
  EXPECT_TRUE(fileContents(path("trace.bin")) == std::string(bytes.begin(), bytes.end()));

  const int fd = open(path("trace.bin").c_str(), O_RDONLY);
  ASSERT_GE(fd, 0);
  for (off_t offset : {off_t{1}, off_t{4093}, off_t{131071}, off_t{299999}}) {
    char chunk[7] = {};
    const ssize_t expected = std::min<ssize_t>(sizeof(chunk), static_cast<ssize_t>(bytes.size()) - offset);
    ASSERT_EQ(pread(fd, chunk, sizeof(chunk), offset), expected) << offset;
    EXPECT_EQ(std::string(chunk, expected), std::string(&bytes[offset], expected)) << offset;
  }
  char chunk[16];
  EXPECT_EQ(pread(fd, chunk, sizeof(chunk), static_cast<off_t>(bytes.size())), 0);
  EXPECT_EQ(pread(fd, chunk, sizeof(chunk), static_cast<off_t>(bytes.size()) + 4096), 0);
  close(fd);
}

TEST_F(AaFileMount, OpensForWritingAreRefusedAsAReadOnlyFileSystem) {
  std::vector<char> bytes = pattern(8);
  ASSERT_EQ(AaFileRamfsSetExt("stats.txt", bytes.data(), bytes.size(), nullptr, nullptr, nullptr), EAaFileRet_Ok);
  for (int flags : {O_WRONLY, O_RDWR, O_WRONLY | O_APPEND}) {
    errno = 0;
    EXPECT_LT(open(path("stats.txt").c_str(), flags), 0) << flags;
    EXPECT_EQ(errno, EROFS) << flags;
  }
  EXPECT_LT(open(path("new.txt").c_str(), O_WRONLY | O_CREAT, 0644), 0);
  EXPECT_LT(open(path("absent").c_str(), O_RDONLY), 0);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(fileContents(path("stats.txt")), std::string(bytes.begin(), bytes.end()));
}

TEST_F(AaFileMount, AReaderHoldsTheOwnersLockFromOpenToClose) {
  std::vector<char> bytes = pattern(64);
  CallbackCounter counter;
  counter.result = EAaFileCallbackAction_Failed;  // never fails the open
  ASSERT_EQ(AaFileRamfsSetExt("stats.txt", bytes.data(), bytes.size(), CallbackCounter::lock, CallbackCounter::unlock,
                              &counter),
            EAaFileRet_Ok);
  const int fd = open(path("stats.txt").c_str(), O_RDONLY);
  ASSERT_GE(fd, 0);
  EXPECT_EQ(counter.lockedNow, 1);
  char chunk[64];
  EXPECT_EQ(read(fd, chunk, sizeof(chunk)), 64);
  EXPECT_EQ(counter.locks, 1);  // reads take no lock of their own
  close(fd);
  // The kernel sends the release after close returns, and the next open after it; the service
  // thread takes them in that order.
  const int again = open(path("stats.txt").c_str(), O_RDONLY);
  ASSERT_GE(again, 0);
  EXPECT_EQ(counter.unlocks, 1);
  EXPECT_EQ(counter.locks, 2);
  close(again);
  // The release of the second open may come at any time after close, with the counter as its
  // callback's argument. Removing the file waits for a callback already running and prevents later
  // ones, so only then may the counter go out of scope.
  EXPECT_EQ(AaFileRamfsRemove("stats.txt"), EAaFileRet_Ok);
}

TEST_F(AaFileMount, RemovingOrResizingAnOpenFileLeavesTheOwnersBufferAndNeverReadsPastTheNewOne) {
  const std::vector<char> original = pattern(1 << 20);
  std::vector<char> buffer = original;
  CallbackCounter counter;
  ASSERT_EQ(AaFileRamfsSetExt("trace.bin", buffer.data(), buffer.size(), CallbackCounter::lock,
                              CallbackCounter::unlock, &counter),
            EAaFileRet_Ok);
  const int fd = open(path("trace.bin").c_str(), O_RDONLY);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(AaFileRamfsRemove("trace.bin"), EAaFileRet_Ok);
  EXPECT_EQ(buffer, original);
  char chunk[64];
  EXPECT_LT(pread(fd, chunk, sizeof(chunk), 900000), 0);
  EXPECT_EQ(errno, ENOENT);

  // Registered again, smaller, on a heap block of exactly its size: a read beyond it would be caught.
  std::unique_ptr<char[]> smaller(new char[100]);
  std::memset(smaller.get(), 'x', 100);
  ASSERT_EQ(AaFileRamfsSetExt("trace.bin", smaller.get(), 100, nullptr, nullptr, nullptr), EAaFileRet_Ok);
  EXPECT_EQ(pread(fd, chunk, sizeof(chunk), 500000), 0);
  ASSERT_EQ(pread(fd, chunk, sizeof(chunk), 64), 36);
  EXPECT_EQ(std::string(chunk, 36), std::string(36, 'x'));
  close(fd);
  AaFileRamfsRemove("trace.bin");
  // The unlock belongs to the file of that name at close time: the removed file's owner is not called.
  EXPECT_EQ(counter.locks, 1);
  EXPECT_EQ(counter.unlocks, 0);
}

TEST_F(AaFileMount, NamesUpTo255CharactersAreServedAndUnlistableNamesDoNotBreakTheListing) {
  std::vector<char> bytes = pattern(20);
  const std::string name255(255, 'n'), name256(256, 'm');
  ASSERT_EQ(AaFileRamfsSetExt(name255.c_str(), bytes.data(), bytes.size(), nullptr, nullptr, nullptr), EAaFileRet_Ok);
  ASSERT_EQ(AaFileRamfsSetExt(name256.c_str(), bytes.data(), 5, nullptr, nullptr, nullptr), EAaFileRet_Ok);
  ASSERT_EQ(AaFileRamfsSetExt("", bytes.data(), 1, nullptr, nullptr, nullptr), EAaFileRet_Ok);
  ASSERT_EQ(AaFileRamfsSetExt("a/b", bytes.data(), 1, nullptr, nullptr, nullptr), EAaFileRet_Ok);
  ASSERT_EQ(AaFileRamfsSetExt("..", bytes.data(), 1, nullptr, nullptr, nullptr), EAaFileRet_Ok);

  EXPECT_EQ(listing(mountPoint()), (std::vector<std::string>{".", "..", name256.substr(0, 255), name255}));
  EXPECT_EQ(fileContents(path(name255)), std::string(bytes.begin(), bytes.end()));
  EXPECT_EQ(fileContents(path(name256.substr(0, 255))), std::string(bytes.begin(), bytes.begin() + 5));
  // Looked up under its full name, it is cut the same way.
  EXPECT_EQ(fileContents(path(name256)), std::string(bytes.begin(), bytes.begin() + 5));
}

// Readers on their own threads while the owner registers, resizes and removes the file, freeing each
// buffer as soon as its removal returns (the sanitizer builds catch any later touch of it). Every
// read that the kernel sends as one request (past its cache, within one page, never short) sees one
// whole generation of the file or no file. A read of several requests may span generations (the
// owner's callbacks are for that); so may a short one, which the kernel completes from a second
// request when its cached size of the file is larger.
TEST_F(AaFileMount, ReadersNeverSeeAFreedOrTornBufferWhileTheOwnerReplacesIt) {
  constexpr int kGenerations = 200;
  constexpr size_t kSmallestSize = 1000;
  constexpr int kReaders = 2;
  std::atomic<bool> done{false};
  std::atomic<int> consistentReads{0};
  std::vector<std::thread> readers;
  for (int r = 0; r < kReaders; ++r) {
    readers.emplace_back([&] {
      constexpr size_t kPage = 4096;
      std::unique_ptr<char, decltype(&std::free)> page(static_cast<char*>(std::aligned_alloc(kPage, kPage)), &std::free);
      char* const chunk = page.get();
      while (!done.load()) {
        listing(mountPoint());
        const int fd = open(path("gen.bin").c_str(), O_RDONLY | O_DIRECT);
        if (fd < 0) continue;
        const ssize_t n = read(fd, chunk, kSmallestSize);
        close(fd);
        if (n <= 0) continue;
        const ssize_t torn = std::find_if(chunk, chunk + n, [&](char c) { return c != chunk[0]; }) - chunk;
        EXPECT_EQ(torn, n) << "'" << chunk[0] << "' then '" << chunk[torn] << "' of " << n;
        ++consistentReads;
      }
    });
  }
  CallbackCounter counter;
  for (int generation = 0; generation < kGenerations || consistentReads.load() < kReaders; ++generation) {
    const size_t size = kSmallestSize + static_cast<size_t>(generation % 7) * 9000;
    std::unique_ptr<char[]> buffer(new char[size]);
    std::memset(buffer.get(), 'a' + generation % 26, size);
    ASSERT_EQ(AaFileRamfsSetExt("gen.bin", buffer.get(), size, CallbackCounter::lock, CallbackCounter::unlock,
                                &counter),
              EAaFileRet_Ok);
    std::vector<char> other(10, 'o');
    AaFileRamfsSetExt("other.bin", other.data(), other.size(), nullptr, nullptr, nullptr);
    ASSERT_EQ(AaFileRamfsRemove("other.bin"), EAaFileRet_Ok);
    ASSERT_EQ(AaFileRamfsRemove("gen.bin"), EAaFileRet_Ok);
  }
  done = true;
  for (std::thread& reader : readers) reader.join();
  EXPECT_GT(consistentReads.load(), 0);
}

// A node stops on SIGTERM through a handler that resets to the default action on delivery, stops
// the RAM files and exits with status 0: the SIGTERM the stop sends the service thread must not end
// the process, even with a reader holding a file open.
TEST_F(AaFileMount, ASigtermHandlerThatStopsTheMountExitsWithStatusZeroAndLeavesNoMount) {
  AaFileFUSE_Lite_terminate();  // the child mounts its own
  int ready[2];
  ASSERT_EQ(pipe(ready), 0);
  const pid_t child = fork();
  if (child == 0) {
    static char bytes[] = "held open";
    struct sigaction stop {};
    stop.sa_handler = [](int) {
      AaFileFUSE_Lite_terminate();
      std::exit(0);
    };
    stop.sa_flags = SA_RESETHAND;
    sigaction(SIGTERM, &stop, nullptr);
    if (AaFileFUSE_Lite_init() != 0 ||
        AaFileRamfsSetExt("held.txt", bytes, sizeof(bytes) - 1, nullptr, nullptr, nullptr) != EAaFileRet_Ok) {
      _exit(3);
    }
    if (write(ready[1], "r", 1) != 1) _exit(4);
    for (;;) pause();
  }
  close(ready[1]);
  char signal;
  ASSERT_EQ(read(ready[0], &signal, 1), 1);
  close(ready[0]);
  ASSERT_TRUE(isMountPoint(mountPoint()));
  const int held = open(path("held.txt").c_str(), O_RDONLY);
  EXPECT_GE(held, 0);

  kill(child, SIGTERM);
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status)) << "status " << status;
  EXPECT_EQ(WEXITSTATUS(status), 0);
  EXPECT_FALSE(isMountPoint(mountPoint()));
  char chunk[4];
  EXPECT_LT(read(held, chunk, sizeof(chunk)), 0);  // the connection is gone
  close(held);
  ASSERT_EQ(AaFileFUSE_Lite_init(), 0);  // for TearDown
}

// A node killed outright leaves a dead mount behind; its next start clears it and mounts again.
TEST_F(AaFileMount, AStaleMountOfAKilledProcessIsReplaced) {
  AaFileFUSE_Lite_terminate();
  int ready[2];
  ASSERT_EQ(pipe(ready), 0);
  const pid_t child = fork();
  if (child == 0) {
    if (AaFileFUSE_Lite_init() != 0 || write(ready[1], "r", 1) != 1) _exit(3);
    for (;;) pause();
  }
  close(ready[1]);
  char signal;
  ASSERT_EQ(read(ready[0], &signal, 1), 1);
  close(ready[0]);
  kill(child, SIGKILL);
  ASSERT_EQ(waitpid(child, nullptr, 0), child);
  ASSERT_TRUE(isMountPoint(mountPoint()));
  struct stat status {};
  EXPECT_NE(stat(mountPoint().c_str(), &status), 0);
  EXPECT_EQ(errno, ENOTCONN);

  ASSERT_EQ(AaFileFUSE_Lite_init(), 0);
  std::vector<char> bytes = pattern(5);
  ASSERT_EQ(AaFileRamfsSetExt("after.bin", bytes.data(), bytes.size(), nullptr, nullptr, nullptr), EAaFileRet_Ok);
  EXPECT_EQ(fileContents(path("after.bin")), std::string(bytes.begin(), bytes.end()));
}

TEST_F(AaFileMount, AMountPointThatCannotBeMadeFailsTheInitAndMountsNothing) {
  AaFileFUSE_Lite_terminate();
  std::ofstream("fusemnt") << "a file in the way";
  EXPECT_EQ(AaFileFUSE_Lite_init(), -1);
  EXPECT_FALSE(isMountPoint(mountPoint()));
  ASSERT_EQ(unlink("fusemnt"), 0);
  ASSERT_EQ(AaFileFUSE_Lite_init(), 0);
}

}  // namespace
