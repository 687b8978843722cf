#include "BtsTimeSync.h"

#include <sys/mman.h>
#include <sys/stat.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "HostTestUtil.h"
#include "RhyddalHost.h"

namespace rhyddal {
namespace {

using testing::ChildProcess;

std::string objectFile() {
  char name[256];
  EXPECT_EQ(rhyddal_host_shm_name(RHYDDAL_BTS_TIME_SYNC_NAME, name, sizeof(name)), 0);
  return std::string(kShmDirectory) + name;
}

// Runs the tool with the arguments after its name; returns its exit status and what it printed.
struct ToolRun {
  int status;
  std::string out;
};

std::string readAll(std::FILE* file) {
  std::rewind(file);
  std::string text;
  for (int c = std::fgetc(file); c != EOF; c = std::fgetc(file)) text += static_cast<char>(c);
  std::fclose(file);
  return text;
}

ToolRun runTool(std::vector<std::string> arguments) {
  arguments.insert(arguments.begin(), "rhyddal-cdma-sync");
  std::vector<char*> argv;
  for (std::string& argument : arguments) argv.push_back(&argument[0]);
  std::FILE* out = std::tmpfile();
  std::FILE* err = std::tmpfile();
  const int status = cdmaSyncTool(static_cast<int>(argv.size()), argv.data(), out, err);
  return {status, readAll(out) + readAll(err)};
}

class BtsTimeSyncTest : public ::testing::Test {
 protected:
  void SetUp() override { unlink(path.c_str()); }
  void TearDown() override { unlink(path.c_str()); }

  const std::string path = objectFile();
};

TEST_F(BtsTimeSyncTest, ANodeAttachingCreatesTheObjectWithTheDefaultsForAllUsers) {
  ChildProcess node([] { return testing::becomeNode(testing::testNid()); });
  ASSERT_EQ(node.wait(), 0);
  struct stat status {};
  ASSERT_EQ(stat(path.c_str(), &status), 0);
  EXPECT_EQ(status.st_size, 224);
  EXPECT_EQ(status.st_mode & 0777, 0666u);
  EXPECT_EQ(runTool({}).out, "sync mode 1 (synchronous), async offset 0\n");
}

TEST_F(BtsTimeSyncTest, ToolSettingsReachEveryReaderAndSurviveLaterNodes) {
  EXPECT_EQ(runTool({"--mode", "asynchronous", "--offset", "0x10000"}).status, 0);
  ASSERT_EQ(ensureBtsTimeSyncObject(), 0);
  SRhyddalBtsTimeSync* object = mapBtsTimeSyncObject();
  ASSERT_NE(object, nullptr);
  EXPECT_EQ(object->cdmaSyncMode, RHYDDAL_CDMA_SYNC_MODE_ASYNCHRONOUS);
  EXPECT_EQ(object->cdmaAsyncOffset, 0x10000u);
  const ToolRun modeOnly = runTool({"--mode", "7"});
  EXPECT_EQ(modeOnly.status, 0);
  EXPECT_EQ(modeOnly.out, "sync mode 7 (unknown), async offset 65536\n");
  EXPECT_EQ(object->cdmaSyncMode, 7u) << "a mapping made before sees the change";
  munmap(object, sizeof(*object));
}

TEST_F(BtsTimeSyncTest, UsageErrorsWriteNothing) {
  const char* const wrong[][2] = {{"--mode", "sometimes"}, {"--offset", "-1"}, {"--offset", "0x100000000"},
                                  {"--speed", "1"}};
  for (const auto& arguments : wrong) {
    const ToolRun run = runTool({arguments[0], arguments[1]});
    EXPECT_EQ(run.status, 2) << arguments[0] << " " << arguments[1];
    EXPECT_NE(run.out.find("usage: rhyddal-cdma-sync"), std::string::npos);
  }
  EXPECT_EQ(runTool({"--mode"}).status, 2);
  EXPECT_NE(access(path.c_str(), F_OK), 0) << "a usage error created the object";
}

}  // namespace
}  // namespace rhyddal
