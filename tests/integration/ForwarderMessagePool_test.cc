// The file-transfer forwarder over the real host platform library, linked into this process so
// that the test can read the process's message pool.
//
// The forwarder sends a get request on and leaves the Dispatcher's reference to it, so the
// Dispatcher frees every request it has just sent. The platform takes that free as the end of the
// send; this test proves it over many requests, far more than the platform holds sent buffers
// for: every such free is the expected one, nothing is refused, nothing is let go by the hold
// bound, and the pool ends as it started.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <string>

#include "AaConfig.h"
#include "AaSysCom.h"
#include "AaSysComMsgHeader.h"
#include "Dispatcher.h"
#include "EMMsgPort.h"
#include "Rhyddal.h"
#include "RhyddalInternal.h"
#include "TestNamespace.h"
#include "TrivialLog.h"

namespace {

constexpr uint16_t kForwarderCpid = 0x0614;
constexpr uint16_t kToolCpid = 0x0777;
constexpr uint16_t kGetReqMsgId = 0x0A82;
constexpr uint16_t kAckMsgId = 0x0A83;
constexpr uint16_t kPathSize = 240;
constexpr uint32_t kNoCpu = 0xFFFFFFFFu;
constexpr int kRequests = 1000;  // the platform holds at most 256 sent buffers for their free
constexpr int kWaitRounds = 1000;  // of a second each: a wait for a message that never comes fails
constexpr const char kExpectedPathEnd[] = "/fusemnt/trace.bin";

uint32_t sicad(uint16_t nid, uint16_t cpid) { return (uint32_t{nid} << 16) | cpid; }
uint16_t msgIdOf(const void* msg) { return static_cast<const SAaSysComMsgHeader*>(msg)->msgId; }

void* receive(uint16_t nid) {
  for (int round = 0; round < kWaitRounds; ++round) {
    if (void* msg = vakem_receive(nid)) return msg;
    vakem_wait_for_event(1, 0);
  }
  return nullptr;
}

// The node of the file-transfer service: checks every forwarded request and acknowledges it to its
// sender, so that the test sends the next one only when this one has arrived. Exit status 0 when
// all came as they should.
[[noreturn]] void runFileService(uint16_t nid, int ready) {
  uint32_t handle = 0;
  const int rc = vak_em_server_init(nid, kNoCpu, 0, &handle);
  (void)!write(ready, &rc, sizeof(rc));
  if (rc != 0) _exit(1);
  for (int i = 0; i < kRequests; ++i) {
    void* request = receive(nid);
    if (request == nullptr) _exit(2);
    const auto* header = static_cast<SAaSysComMsgHeader*>(request);
    const std::string path(reinterpret_cast<const char*>(header + 1), strnlen(reinterpret_cast<const char*>(header + 1), kPathSize));
    if (header->msgId != kGetReqMsgId || header->receiver != sicad(nid, kForwarderCpid) ||
        path.size() < sizeof(kExpectedPathEnd) - 1 ||
        path.compare(path.size() - (sizeof(kExpectedPathEnd) - 1), std::string::npos, kExpectedPathEnd) != 0) {
      _exit(3);
    }
    const uint32_t tool = header->sender;
    vakem_free(request);
    auto* ack = static_cast<SAaSysComMsgHeader*>(vakem_alloc(sizeof(SAaSysComMsgHeader)));
    if (ack == nullptr) _exit(4);
    std::memset(ack, 0, sizeof(*ack));
    ack->msgId = kAckMsgId;
    ack->receiver = tool;
    ack->sender = sicad(nid, kForwarderCpid);
    ack->totalLength = sizeof(*ack);
    if (vakem_send(ack, tool) != 0) _exit(5);
  }
  _exit(0);
}

class StillTime : public Olm::ITimeSource {
 public:
  Olm::LteTime getLTETime() override { return Olm::LteTime(0); }
  int getCdmaTime(unsigned long long* time, unsigned int, unsigned int) override {
    *time = 0;
    return 0;
  }
  unsigned long long getTS() override { return 0; }
  void wait(unsigned int) override {}
};

TEST(ForwarderMessagePool, EveryRequestForwardedIsFreedOnceAsTheEndOfItsSend) {
  const uint16_t node = OlmTest::nextTestNid();
  const uint16_t fileService = OlmTest::nextTestNid();
  int ready[2];
  ASSERT_EQ(pipe(ready), 0);
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) runFileService(fileService, ready[1]);
  int childInit = -1;
  ASSERT_EQ(read(ready[0], &childInit, sizeof(childInit)), static_cast<ssize_t>(sizeof(childInit)));
  ASSERT_EQ(childInit, 0);

  StillTime time;
  Olm::TrivialLog log;
  Olm::EMMsgPort port;
  Olm::Dispatcher dispatcher;
  dispatcher.setItsITimeSource(&time);
  log.setItsITimeSource(&time);
  dispatcher.setItsILog(&log);
  dispatcher.setItsIMsgPort(&port);
  dispatcher.setOwnNid(node);
  ASSERT_EQ(port.initialize(node, kNoCpu, fileService), 0);
  AaConfigEarlyStartup();
  ASSERT_EQ(AaConfigTagPublicSetU16("olm.service.aasyscom.masternid", fileService), EAaConfigRet_Ok);
  testing::internal::CaptureStdout();  // the statistics EU says it has no record in this test
  dispatcher.bindBuiltInEus();
  testing::internal::GetCapturedStdout();

  const rhyddal::PoolStatistics before = rhyddal::processPoolStatistics();
  for (int i = 0; i < kRequests; ++i) {
    void* request = AaSysComMsgCreate(kGetReqMsgId, kPathSize, sicad(node, kForwarderCpid));
    ASSERT_NE(request, nullptr);
    std::memset(AaSysComMsgGetPayload(request), 0, kPathSize);
    std::strcpy(static_cast<char*>(AaSysComMsgGetPayload(request)), "/tmp/a/b/trace.bin");
    AaSysComMsgSetSender(request, sicad(node, kToolCpid));
    ASSERT_TRUE(dispatcher.sendMessage(request));
    dispatcher.dispatch();
    void* ack = receive(node);
    ASSERT_NE(ack, nullptr) << "request " << i << " was not acknowledged";
    ASSERT_EQ(msgIdOf(ack), kAckMsgId);
    vakem_free(ack);
  }
  const rhyddal::PoolStatistics after = rhyddal::processPoolStatistics();

  EXPECT_EQ(after.freesAfterSend - before.freesAfterSend, static_cast<uint64_t>(kRequests));
  EXPECT_EQ(after.holdsExpired, before.holdsExpired) << "a sent buffer waited for its free beyond the hold bound";
  EXPECT_EQ(after.refusedAlreadyFree, before.refusedAlreadyFree);
  EXPECT_EQ(after.refusedSentAndFreed, before.refusedSentAndFreed);
  EXPECT_EQ(after.refusedForeign, before.refusedForeign);
  EXPECT_EQ(after.inUse, before.inUse);
  EXPECT_EQ(after.held, before.held);

  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "file service status " << status;
}

}  // namespace
