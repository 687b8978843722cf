// The main function of every test executable: GoogleTest's, run inside a private namespace of
// host-platform objects (TestNamespace.h).
#include <gtest/gtest.h>

#include "TestNamespace.h"

int main(int argc, char** argv) {
  ::testing::InitGoogleTest(&argc, argv);
  OlmTest::enterPrivateNamespace();
  return RUN_ALL_TESTS();
}
