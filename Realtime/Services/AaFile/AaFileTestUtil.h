// What the RAM file tests share: a private working directory, the registry emptied afterwards,
// and owner callbacks that count.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <climits>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "AaFile.h"
#include "FileTestUtil.h"

namespace AaFileTest {

// Runs the test in a fresh temporary directory and empties the registry afterwards.
class PrivateDirectoryTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char templ[] = "/tmp/aafile-test-XXXXXX";
    ASSERT_NE(mkdtemp(templ), nullptr);
    m_directory = templ;
    char previous[PATH_MAX];
    ASSERT_NE(getcwd(previous, sizeof(previous)), nullptr);
    m_previous = previous;
    ASSERT_EQ(chdir(m_directory.c_str()), 0);
  }
  void TearDown() override {
    removeAllFiles();
    if (!m_previous.empty() && chdir(m_previous.c_str()) != 0) ADD_FAILURE() << "cannot return to " << m_previous;
    std::error_code ignored;
    std::filesystem::remove_all(m_directory, ignored);
  }
  static void removeAllFiles() {
    std::vector<std::string> names;
    unsigned cursor;
    for (CRamFs* file = g_RamFsFiles.begin(cursor); file != nullptr; file = g_RamFsFiles.next(cursor)) {
      names.push_back(file->name);
    }
    for (const std::string& name : names) AaFileRamfsRemove(name.c_str());
  }
  const std::string& directory() const { return m_directory; }

 private:
  std::string m_directory;
  std::string m_previous;
};

// Bytes that differ from their neighbours, so a misplaced offset shows.
inline std::vector<char> pattern(size_t size, unsigned seed = 7) {
  std::vector<char> bytes(size);
  for (size_t i = 0; i < size; ++i) bytes[i] = static_cast<char>((i * 31 + seed * 17 + i / 251) & 0xFF);
  return bytes;
}

// Counts the owner's lock and unlock calls (from whichever thread makes them).
struct CallbackCounter {
  std::atomic<int> locks{0};
  std::atomic<int> unlocks{0};
  std::atomic<int> lockedNow{0};
  EAaFileCallbackAction result = EAaFileCallbackAction_Ok;

  static EAaFileCallbackAction lock(void* arg) {
    auto* counter = static_cast<CallbackCounter*>(arg);
    ++counter->locks;
    ++counter->lockedNow;
    return counter->result;
  }
  static EAaFileCallbackAction unlock(void* arg) {
    auto* counter = static_cast<CallbackCounter*>(arg);
    ++counter->unlocks;
    --counter->lockedNow;
    return counter->result;
  }
};

}  // namespace AaFileTest
