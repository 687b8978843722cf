// Extraction from a real core file: gcore of a running process that has registered RAM files.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <climits>
#include <string>
#include <vector>

#include "AaFile.h"
#include "AaFileTestUtil.h"

namespace {

using OlmTest::fileContents;
using AaFileTest::pattern;

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
// The sanitizers reserve terabytes of shadow memory, which a core of the process would have to
// cover: gcore takes minutes over it.
constexpr bool kCoresArePractical = false;
#else
constexpr bool kCoresArePractical = true;
#endif

constexpr char kDebugger[] = "/usr/bin/gdb";
constexpr char kGcore[] = "/usr/bin/gcore";

struct RamFile {
  std::string name;
  std::vector<char> bytes;
};

std::vector<RamFile> ramFiles() {
  const std::string text = "Ticks since last read:\nidleTicks=42\n";
  return {{"olmliteStats.txt", std::vector<char>(text.begin(), text.end())},
          {"2001_HistoryLog.bin", pattern(70001, 3)},
          {std::string(255, 'n'), pattern(1, 4)}};
}

std::string ownExecutable() {
  char path[PATH_MAX];
  const ssize_t length = readlink("/proc/self/exe", path, sizeof(path) - 1);
  return length > 0 ? std::string(path, static_cast<size_t>(length)) : "";
}

class AaFileCoreFile : public AaFileTest::PrivateDirectoryTest {
 protected:
  void SetUp() override {
    if (access(kDebugger, X_OK) != 0 || access(kGcore, X_OK) != 0) {
      GTEST_SKIP() << kDebugger << " and " << kGcore << " are needed (Debian's gdb, scripts/setup-debian.sh)";
    }
    PrivateDirectoryTest::SetUp();
  }

  // A core of a child process of this executable that has registered ramFiles(), written by gcore
  // while the child waits; left empty when the test is skipped or has failed (reported here).
  void makeCoreOfAProcessWithRamFiles(std::string& core) {
    if (!kCoresArePractical) {
      GTEST_SKIP() << "no cores of sanitized processes";
    }
    int ready[2];
    ASSERT_EQ(pipe(ready), 0);
    const pid_t child = fork();
    if (child == 0) {
      static std::vector<RamFile> files = ramFiles();
      for (RamFile& file : files) {
        if (AaFileRamfsSetExt(file.name.c_str(), file.bytes.data(), file.bytes.size(), nullptr, nullptr, nullptr) !=
            EAaFileRet_Ok) {
          _exit(3);
        }
      }
      if (write(ready[1], "r", 1) != 1) _exit(4);
      for (;;) pause();
    }
    close(ready[1]);
    char signal;
    const bool childReady = read(ready[0], &signal, 1) == 1;
    close(ready[0]);
    const std::string prefix = directory() + "/core";
    const std::string command = std::string(kGcore) + " -o " + prefix + " " + std::to_string(child) + " >/dev/null 2>&1";
    const int gcoreStatus = childReady ? std::system(command.c_str()) : -1;
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    const std::string written = prefix + "." + std::to_string(child);
    if (gcoreStatus != 0 || access(written.c_str(), R_OK) != 0) {
      ADD_FAILURE() << "gcore wrote no core (status " << gcoreStatus << ")";
      return;
    }
    if (OlmTest::elfMachine(written) != OlmTest::elfMachine(ownExecutable())) {
      unlink(written.c_str());
      GTEST_SKIP() << "gcore dumped the emulator, not the emulated process (user-mode emulation)";
    }
    core = written;
  }

  static void expectFilesIn(const std::string& outputDirectory) {
    for (const RamFile& file : ramFiles()) {
      const std::string contents = fileContents(outputDirectory + "/" + file.name);
      EXPECT_TRUE(contents == std::string(file.bytes.begin(), file.bytes.end()))
          << file.name.substr(0, 40) << ": " << contents.size() << " bytes of " << file.bytes.size();
    }
  }
};

TEST_F(AaFileCoreFile, RecoversEveryRegisteredFileByteForByteAndDeletesTheCore) {
  std::string core;
  makeCoreOfAProcessWithRamFiles(core);
  if (core.empty()) return;
  std::string executable = ownExecutable(), output = directory() + "/ramfiles";
  EXPECT_EQ(AaFile_parseCoreFile(0, executable.data(), core.data(), output.data(), 0), 0);
  expectFilesIn(output);
  struct stat status {};
  ASSERT_EQ(stat(output.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0755u);
  EXPECT_NE(access(core.c_str(), F_OK), 0);
}

TEST_F(AaFileCoreFile, KeepsTheCoreWhenAskedAndOverwritesAnExistingDirectory) {
  std::string core;
  makeCoreOfAProcessWithRamFiles(core);
  if (core.empty()) return;
  std::string executable = ownExecutable(), output = directory() + "/ramfiles";
  ASSERT_EQ(mkdir(output.c_str(), 0700), 0);
  std::ofstream(output + "/olmliteStats.txt") << "stale contents that are longer than the new ones, by far";
  EXPECT_EQ(AaFile_parseCoreFile(0, executable.data(), core.data(), output.data(), 1), 0);
  expectFilesIn(output);
  EXPECT_EQ(access(core.c_str(), F_OK), 0);
}

TEST_F(AaFileCoreFile, FailuresReturnMinusOneAndStillDeleteTheCore) {
  std::string executable = ownExecutable();
  const auto makeCore = [] {
    std::ofstream("not-really-a-core") << "x";
    return std::string("not-really-a-core");
  };
  std::string core = makeCore();
  std::string output = directory() + "/out";
  EXPECT_EQ(AaFile_parseCoreFile(0, nullptr, core.data(), output.data(), 0), -1);
  EXPECT_NE(access(core.c_str(), F_OK), 0);

  core = makeCore();
  std::string unreachable = directory() + "/no/such/parent";
  EXPECT_EQ(AaFile_parseCoreFile(0, executable.data(), core.data(), unreachable.data(), 0), -1);
  EXPECT_NE(access(core.c_str(), F_OK), 0);

  core = makeCore();
  std::string longName(1000, 'e');
  EXPECT_EQ(AaFile_parseCoreFile(0, longName.data(), core.data(), output.data(), 1), -1);
  EXPECT_EQ(access(core.c_str(), F_OK), 0);

  std::string absent = directory() + "/absent-core";
  EXPECT_EQ(AaFile_parseCoreFile(0, executable.data(), absent.data(), output.data(), 0), -1);  // cannot delete it
}

}  // namespace
