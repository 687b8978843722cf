// A node's RAM files as a developer meets them: ls and cat in the node's "fusemnt", the node stopped
// with SIGTERM, the files pulled out of a core of the running node.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "FileTestUtil.h"
#include "NodeProcess.h"
#include "RamFileTestEu.h"
#include "TestNamespace.h"

namespace {

using OlmTest::hex;
using OlmTest::fileContents;
using OlmTest::isMountPoint;
using OlmTest::listing;
using OlmTest::NodeProcess;

// Every node publishes its history log, by default 2 MiB.
constexpr size_t kHistoryLogSize = 0x200000;

std::string whyNodesCannotMount() {
  if (access("/dev/fuse", R_OK | W_OK) != 0) return std::string("/dev/fuse is not usable: ") + std::strerror(errno);
  return "";
}

// A node that loads RamFileTestEu and has mounted its RAM files.
class NodeRamFiles : public ::testing::Test {
 protected:
  void SetUp() override {
    const std::string reason = whyNodesCannotMount();
    if (!reason.empty()) GTEST_SKIP() << reason;
  }
  std::unique_ptr<NodeProcess> startNode(unsigned nid) {
    auto node = std::make_unique<NodeProcess>(
        std::vector<std::string>{"--nid", hex(nid), "--wait", "1000", "--load-local", OlmTest::libraryPath("RamFileTestEu")});
    if (!node->waitForOutput("RamFileTestEu ready")) {
      // Under user-mode emulation the mount itself may be impossible: the node says so and stops.
      if (node->output().find("fuse_mount failed") != std::string::npos ||
          node->output().find("AaStartupEeStartup failure") != std::string::npos) {
        m_skipReason = "the node cannot mount its RAM files here: " + node->output();
      } else {
        ADD_FAILURE() << node->output();
      }
      return nullptr;
    }
    return node;
  }
  std::string m_skipReason;
};

TEST_F(NodeRamFiles, LsAndCatInTheNodeDirectoryShowTheRegisteredFiles) {
  const unsigned nid = OlmTest::nextTestNid();
  auto node = startNode(nid);
  if (!m_skipReason.empty()) GTEST_SKIP() << m_skipReason;
  ASSERT_NE(node, nullptr);
  const std::string mount = node->ramFileMount(nid);
  ASSERT_TRUE(isMountPoint(mount)) << mount;
  // The Dispatcher's statistics files are registered first, then the history log, the EU's last;
  // listings show the newest first.
  EXPECT_EQ(listing(mount), (std::vector<std::string>{".", "..", OlmTest::kEuBinaryFile, OlmTest::kEuTextFile,
                                                      OlmTest::historyLogFileName(nid), "olmliteStats.txt",
                                                      "olmliteStatsRaw.bin"}));
  EXPECT_EQ(fileContents(mount + "/" + OlmTest::kEuTextFile), OlmTest::kEuTextContents);
  EXPECT_TRUE(fileContents(mount + "/" + OlmTest::kEuBinaryFile) == OlmTest::euBinaryContents());
}

// Below 0x1000 the node directory is made with four digits and entered without: the node stays in
// its start directory and mounts there.
TEST_F(NodeRamFiles, AShortNodeIdMountsInTheStartDirectory) {
  const unsigned nid = 0x123;
  auto node = startNode(nid);
  if (!m_skipReason.empty()) GTEST_SKIP() << m_skipReason;
  ASSERT_NE(node, nullptr);
  struct stat status {};
  EXPECT_EQ(stat((node->workingArea() + "/olm_lite/0x0123").c_str(), &status), 0);
  EXPECT_TRUE(isMountPoint(node->workingArea() + "/fusemnt"));
  EXPECT_EQ(fileContents(node->workingArea() + "/fusemnt/" + OlmTest::kEuTextFile), OlmTest::kEuTextContents);
}

// SIGTERM's handler belongs to the error handler; a runtime without it dies of the signal.
bool runtimeHandlesSigterm() {
  void* runtime = dlopen(OlmTest::runtimeLibraryPath().c_str(), RTLD_LAZY | RTLD_NOLOAD);
  if (runtime == nullptr) runtime = dlopen(OlmTest::runtimeLibraryPath().c_str(), RTLD_LAZY);
  return runtime != nullptr && dlsym(runtime, "AaErrorEeStartup") != nullptr;
}

TEST_F(NodeRamFiles, SigtermEndsTheNodeWithStatusZeroAndNoMountLeft) {
  if (!runtimeHandlesSigterm()) GTEST_SKIP() << "this runtime installs no SIGTERM handler (no AaErrorEeStartup)";
  const unsigned nid = OlmTest::nextTestNid();
  auto node = startNode(nid);
  if (!m_skipReason.empty()) GTEST_SKIP() << m_skipReason;
  ASSERT_NE(node, nullptr);
  const std::string mount = node->ramFileMount(nid);
  ASSERT_TRUE(isMountPoint(mount));
  node->kill(SIGTERM);
  const int status = node->waitForExit();
  ASSERT_TRUE(WIFEXITED(status)) << "status " << status << "\n" << node->output();
  EXPECT_EQ(WEXITSTATUS(status), 0);
  EXPECT_FALSE(isMountPoint(mount));
  EXPECT_NE(access(mount.c_str(), F_OK), 0);
}

TEST_F(NodeRamFiles, TheFilesComeBackByteForByteFromACoreOfTheRunningNode) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "no cores of sanitized nodes: gcore would cover terabytes of shadow memory";
#endif
  if (access("/usr/bin/gcore", X_OK) != 0) GTEST_SKIP() << "/usr/bin/gcore (Debian's gdb) is needed";
  const unsigned nid = OlmTest::nextTestNid();
  auto node = startNode(nid);
  if (!m_skipReason.empty()) GTEST_SKIP() << m_skipReason;
  ASSERT_NE(node, nullptr);
  const std::string prefix = node->workingArea() + "/core";
  const std::string gcore = "/usr/bin/gcore -o " + prefix + " " + std::to_string(node->pid()) + " >/dev/null 2>&1";
  if (std::system(gcore.c_str()) != 0) GTEST_SKIP() << "gcore cannot dump this node (for instance under emulation)";
  std::string core = prefix + "." + std::to_string(node->pid());
  std::string executable = OlmTest::nodeExecutableBinary();
  if (OlmTest::elfMachine(core) != OlmTest::elfMachine(executable)) {
    GTEST_SKIP() << "gcore dumped the emulator, not the emulated node (user-mode emulation)";
  }
  std::string output = node->workingArea() + "/extracted";
  // Through the developers' command, which calls AaFile_parseCoreFile and lists what it wrote.
  const std::string command = std::string(OLM_TEST_CORE_RAMFILES) + " " + executable + " " + core + " " + output;
  FILE* listing = popen(command.c_str(), "r");
  ASSERT_NE(listing, nullptr);
  std::string listed;
  char line[512];
  while (std::fgets(line, sizeof(line), listing) != nullptr) listed += line;
  ASSERT_EQ(pclose(listing), 0) << listed;
  EXPECT_NE(listed.find(output + "/" + OlmTest::kEuTextFile + "\n"), std::string::npos) << listed;
  EXPECT_EQ(fileContents(output + "/" + OlmTest::kEuTextFile), OlmTest::kEuTextContents);
  EXPECT_TRUE(fileContents(output + "/" + OlmTest::kEuBinaryFile) == OlmTest::euBinaryContents());
  EXPECT_EQ(fileContents(output + "/" + OlmTest::historyLogFileName(nid)).size(), kHistoryLogSize);
  EXPECT_NE(access(core.c_str(), F_OK), 0);
}

}  // namespace
