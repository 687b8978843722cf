#include "RamRoot.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

namespace {

// The root is decided once per process, so each setting is tried in a child of its own; the exit
// status says whether the child saw the expected root.
bool childSeesRoot(const char* setting, const char* expected) {
  const pid_t child = fork();
  if (child == 0) {
    if (setting == nullptr) {
      unsetenv(Olm::kRamRootVariable);
    } else {
      setenv(Olm::kRamRootVariable, setting, 1);
    }
    _exit(std::strcmp(Olm::ramRoot(), expected) == 0 ? 0 : 1);
  }
  int status = 0;
  waitpid(child, &status, 0);
  return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

TEST(RamRoot, DefaultsToRamAndTakesOnlyAbsolutePathsWithoutTrailingSlash) {
  EXPECT_TRUE(childSeesRoot(nullptr, "/ram"));
  EXPECT_TRUE(childSeesRoot("", "/ram"));
  EXPECT_TRUE(childSeesRoot("/home/dev/ram", "/home/dev/ram"));
  EXPECT_TRUE(childSeesRoot("relative/ram", "/ram"));
  EXPECT_TRUE(childSeesRoot("/home/dev/ram/", "/ram"));
  EXPECT_TRUE(childSeesRoot("/", "/ram"));
}

}  // namespace
