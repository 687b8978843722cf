#include "AaGpuSharedMem.h"

#include <sys/ipc.h>
#include <sys/mman.h>
#include <sys/shm.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <string>

#include "FakeRuntime.h"
#include "SharedMemTestUtil.h"

namespace {

using OlmTest::privateShmName;
using OlmTest::runInChild;

constexpr size_t kObjectBytes = 8192;

class AaGpuSharedMemTest : public OlmTest::FakeRuntimeTest {
 protected:
  void TearDown() override {
    shm_unlink(name.c_str());
    FakeRuntimeTest::TearDown();
  }

  bool logged(const std::string& text) const { return log.count(text) == 1; }

  const std::string name = privateShmName("object");
};

TEST_F(AaGpuSharedMemTest, AnObjectCreatedHereIsSeenByAnotherProcessBothWays) {
  auto* words = static_cast<uint32_t*>(CreateShmObj(name.c_str(), kObjectBytes));
  ASSERT_NE(words, nullptr);
  EXPECT_EQ(words[kObjectBytes / 4 - 1], 0u) << "a new object is zero-filled";
  words[0] = 0x600DF00D;
  const int status = runInChild([this] {
    auto* mapped = static_cast<uint32_t*>(OpenAndMapShmObj(name.c_str(), kObjectBytes));
    if (mapped == nullptr || mapped[0] != 0x600DF00D) return 1;
    mapped[kObjectBytes / 4 - 1] = 0xC0FFEE;
    return 0;
  });
  EXPECT_EQ(status, 0);
  EXPECT_EQ(words[kObjectBytes / 4 - 1], 0xC0FFEEu);
  EXPECT_EQ(UnmapShmObj(words, kObjectBytes), EAaGpuSharedMemRet_Ok);
  EXPECT_EQ(RemoveShmObj(name.c_str()), EAaGpuSharedMemRet_Ok);
  EXPECT_TRUE(log.lines().empty());
}

// Creating an existing object opens it: it grows to a larger size asked for, keeping its contents,
// and never shrinks.
TEST_F(AaGpuSharedMemTest, CreatingAgainOpensGrowsButNeverShrinks) {
  auto* first = static_cast<uint32_t*>(CreateShmObj(name.c_str(), kObjectBytes));
  ASSERT_NE(first, nullptr);
  first[1] = 7;
  auto* larger = static_cast<uint32_t*>(CreateShmObj(name.c_str(), 2 * kObjectBytes));
  ASSERT_NE(larger, nullptr);
  EXPECT_EQ(larger[1], 7u);
  EXPECT_EQ(larger[2 * kObjectBytes / 4 - 1], 0u);
  auto* smaller = static_cast<uint32_t*>(CreateShmObj(name.c_str(), 16));
  ASSERT_NE(smaller, nullptr);
  EXPECT_NE(OpenAndMapShmObj(name.c_str(), 2 * kObjectBytes), nullptr) << "a smaller create cut the object";
  EXPECT_EQ(UnmapShmObj(first, kObjectBytes), EAaGpuSharedMemRet_Ok);
}

TEST_F(AaGpuSharedMemTest, OpeningAMissingObjectFailsWithTheCallersSignature) {
  EXPECT_EQ(OpenAndMapShmObj(name.c_str(), kObjectBytes), nullptr);
  EXPECT_TRUE(logged("OpenAndMapShmObj(const char* const, const size_t) - shm_open(\"" + name +
                     "\") failed: No such file or directory"))
      << (log.lines().empty() ? "" : log.lines()[0]);
}

// A mapping past the object's end would raise SIGBUS on first touch, so it is refused.
TEST_F(AaGpuSharedMemTest, OpeningWithMoreThanTheObjectHoldsFails) {
  ASSERT_NE(CreateShmObj(name.c_str(), kObjectBytes), nullptr);
  EXPECT_EQ(OpenAndMapShmObj(name.c_str(), kObjectBytes + 1), nullptr);
  EXPECT_TRUE(logged("OpenAndMapShmObj(const char* const, const size_t) - object \"" + name + "\" has 8192 bytes, 8193 asked for"));
  EXPECT_NE(OpenAndMapShmObj(name.c_str(), kObjectBytes - 1), nullptr) << "a smaller view is fine";
}

TEST_F(AaGpuSharedMemTest, InvalidArgumentsAreRefusedAndLogged) {
  EXPECT_EQ(CreateShmObj(nullptr, kObjectBytes), nullptr);
  EXPECT_EQ(CreateShmObj("", kObjectBytes), nullptr);
  EXPECT_EQ(CreateShmObj(name.c_str(), 0), nullptr);
  EXPECT_EQ(OpenAndMapShmObj(nullptr, kObjectBytes), nullptr);
  EXPECT_EQ(log.count("CreateShmObj(const char* const, const size_t) - invalid name (null or empty)"), 2u);
  EXPECT_TRUE(logged("CreateShmObj(const char* const, const size_t) - invalid size 0"));
  EXPECT_TRUE(logged("OpenAndMapShmObj(const char* const, const size_t) - invalid name (null or empty)"));
  EXPECT_EQ(UnmapShmObj(nullptr, kObjectBytes), EAaGpuSharedMemRet_InvalidParameter);
  EXPECT_EQ(RemoveShmObj(nullptr), EAaGpuSharedMemRet_InvalidParameter);
  EXPECT_EQ(RemoveShmObj(name.c_str()), EAaGpuSharedMemRet_SystemError);
  EXPECT_TRUE(logged("RemoveShmObj(const char* const) - shm_unlink(\"" + name + "\") failed: No such file or directory"));
}

// Keys private to the test process: another test process runs with another pid.
key_t privateKey() { return static_cast<key_t>(0x4F000000 | (getpid() & 0xFFFFFF)); }

class AaGpuSysVSharedMemTest : public OlmTest::FakeRuntimeTest {
 protected:
  void TearDown() override {
    const int id = shmget(key, 0, 0);
    if (id >= 0) shmctl(id, IPC_RMID, nullptr);
    FakeRuntimeTest::TearDown();
  }

  const key_t key = privateKey();
};

TEST_F(AaGpuSysVSharedMemTest, ASegmentCreatedHereIsSeenByAnotherProcessAndRemoved) {
  auto* words = static_cast<uint32_t*>(CreateSysVShmObj(key, kObjectBytes));
  ASSERT_NE(words, nullptr);
  words[0] = 42;
  const int status = runInChild([this] {
    auto* mapped = static_cast<uint32_t*>(OpenAndMapSysVShmObj(key, kObjectBytes));
    if (mapped == nullptr || mapped[0] != 42) return 1;
    mapped[1] = 43;
    return DetachSysVShmObj(mapped) == EAaGpuSharedMemRet_Ok ? 0 : 2;
  });
  EXPECT_EQ(status, 0);
  EXPECT_EQ(words[1], 43u);
  EXPECT_EQ(DetachSysVShmObj(words), EAaGpuSharedMemRet_Ok);
  EXPECT_EQ(RemoveSysVShmObj(key), EAaGpuSharedMemRet_Ok);
  EXPECT_EQ(OpenAndMapSysVShmObj(key, kObjectBytes), nullptr);
  EXPECT_EQ(log.count("OpenAndMapSysVShmObj(const key_t, const size_t) - shmget("), 1u);
}

TEST_F(AaGpuSysVSharedMemTest, ASegmentSmallerThanAskedForIsRefused) {
  void* segment = CreateSysVShmObj(key, kObjectBytes);
  ASSERT_NE(segment, nullptr);
  EXPECT_EQ(OpenAndMapSysVShmObj(key, kObjectBytes + 1), nullptr);
  EXPECT_EQ(log.count("OpenAndMapSysVShmObj(const key_t, const size_t) - segment "), 1u);
  EXPECT_EQ(CreateSysVShmObj(key, kObjectBytes + 1), nullptr) << "System V cannot grow a segment";
  EXPECT_EQ(log.count("CreateSysVShmObj(const key_t, const size_t) - shmget("), 1u);
  EXPECT_EQ(DetachSysVShmObj(segment), EAaGpuSharedMemRet_Ok);
  EXPECT_EQ(DetachSysVShmObj(segment), EAaGpuSharedMemRet_SystemError);
  EXPECT_EQ(DetachSysVShmObj(nullptr), EAaGpuSharedMemRet_InvalidParameter);
}

}  // namespace
