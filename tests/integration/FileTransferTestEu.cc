// A test EU library for the file-transfer forwarder's node tests: with OLM_TEST_DELETE_MASTER_TAG
// set it deletes the master node id tag that start-up set. Either way it says so once the node's
// mailbox exists, so a test knows when it may send to the node.
#include <cstdio>
#include <cstdlib>

#include "AaConfig.h"
#include "IAaSysDispatcher.h"

extern "C" void EuMain(Olm::IAaSysDispatcher*) {
  const bool deleteTag = std::getenv("OLM_TEST_DELETE_MASTER_TAG") != nullptr;
  if (deleteTag && AaConfigTagDelete("olm.service.aasyscom.masternid") != EAaConfigRet_Ok) {
    std::printf("file transfer test EU: the master node id tag could not be deleted\n");
  }
  std::printf("file transfer test EU: master node id tag %s\n", AaConfigTagIsSet("olm.service.aasyscom.masternid") ? "set" : "unset");
  std::fflush(stdout);
}
