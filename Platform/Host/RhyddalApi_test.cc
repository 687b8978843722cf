// The C interface between node processes: each node is a forked child, as on a host where every
// node is a process of its own.
#include <time.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
#include <string>

#include "HostTestUtil.h"
#include "Rhyddal.h"

namespace rhyddal {
namespace {

using namespace testing;

constexpr uint16_t kCpid = 0x0123;
constexpr uint32_t kNoTimeLimit = 0xFFFFFFFFu;
constexpr uint64_t kNanosecondsPerMillisecond = 1000000;

void* newMessage(uint32_t length, uint32_t receiver, uint32_t sender, uint32_t seed) {
  void* message = vakem_alloc(length);
  if (message != nullptr) writeTestMessage(message, length, receiver, sender, seed);
  return message;
}

uint64_t nowNs(clockid_t clock = CLOCK_MONOTONIC) {
  timespec now{};
  clock_gettime(clock, &now);
  return static_cast<uint64_t>(now.tv_sec) * 1000000000u + static_cast<uint64_t>(now.tv_nsec);
}

void* receiveWithin(uint16_t nid, uint64_t timeoutMs) {
  const uint64_t deadline = nowNs() + timeoutMs * kNanosecondsPerMillisecond;
  for (;;) {
    if (void* message = vakem_receive(nid)) return message;
    const uint64_t now = nowNs();
    if (now >= deadline) return nullptr;
    vakem_wait_for_event(0, static_cast<uint32_t>(std::min<uint64_t>(deadline - now, 999999999)));
  }
}

uint32_t lengthOfMessage(uint32_t index) { return 16 + (index * 7919u) % (65536 - 16); }

TEST(NodeTransport, TwoNodesExchangeMessagesOfEverySizeInOrder) {
  constexpr uint32_t kMessages = 3000;
  constexpr uint32_t kInFlight = 8;
  const uint16_t echoNid = testNid(0);
  const uint16_t senderNid = testNid(1);
  MailboxCleanup echoCleanup(echoNid);
  MailboxCleanup senderCleanup(senderNid);
  Rendezvous echoUp;
  ChildProcess echo([&] {
    echoUp.notify(becomeNode(echoNid) == 0 ? 1 : 2);
    for (uint32_t i = 0; i < kMessages; ++i) {
      void* message = receiveWithin(echoNid, 10000);
      if (message == nullptr) return 2;
      if (vakem_send(message, senderOf(message)) != 0) return 3;
    }
    return 0;
  });
  ASSERT_EQ(echoUp.waitFor(), 1u);
  ChildProcess sender([&] {
    if (becomeNode(senderNid) != 0) return 11;
    uint32_t sent = 0;
    for (uint32_t received = 0; received < kMessages; ++received) {
      for (; sent < kMessages && sent < received + kInFlight; ++sent) {
        void* message = newMessage(lengthOfMessage(sent), sicAddress(echoNid, kCpid), sicAddress(senderNid, kCpid), sent);
        if (vakem_send(message, sicAddress(echoNid, kCpid)) != 0) return 12;
      }
      void* echoed = receiveWithin(senderNid, 10000);
      if (echoed == nullptr) return 13;
      if (!isTestMessage(echoed, lengthOfMessage(received), received)) return 14;
      vakem_free(echoed);
    }
    return 0;
  });
  EXPECT_EQ(sender.wait(), 0);
  EXPECT_EQ(echo.wait(), 0);
}

TEST(NodeTransport, SendToANodeIdWhereNoNodeRunsFails) {
  const uint32_t nowhere = sicAddress(testNid(2), kCpid);
  void* message = newMessage(64, nowhere, 0, 1);
  ASSERT_NE(message, nullptr);
  EXPECT_EQ(vakem_send(message, nowhere), -EHOSTUNREACH);
  EXPECT_EQ(vakem_send_local_unreliable(message), -EHOSTUNREACH);
  vakem_free(message);
}

TEST(NodeTransport, FullReceiverFailsTheSendAtOnce) {
  const uint16_t nid = testNid(4);
  IdleNode idle(nid);
  ASSERT_TRUE(idle.up());
  int rc = 0;
  uint32_t accepted = 0;
  uint64_t slowestNs = 0;
  while (rc == 0 && accepted < 1000) {
    void* message = newMessage(60000, sicAddress(nid, kCpid), 0, accepted);
    const uint64_t start = nowNs();
    rc = vakem_send(message, sicAddress(nid, kCpid));
    slowestNs = std::max(slowestNs, nowNs() - start);
    if (rc == 0) {
      ++accepted;
    } else {
      vakem_free(message);
    }
  }
  EXPECT_EQ(rc, -ENOBUFS);
  EXPECT_GE(accepted, 30u) << "the default ring holds 2 MiB";
  EXPECT_LT(slowestNs, 50 * kNanosecondsPerMillisecond);
}

TEST(NodeTransport, WaitTimesOutWithoutSpinning) {
  const uint16_t nid = testNid(5);
  MailboxCleanup cleanup(nid);
  ChildProcess node([&] {
    if (becomeNode(nid) != 0) return 1;
    const uint64_t wallStart = nowNs();
    const uint64_t cpuStart = nowNs(CLOCK_THREAD_CPUTIME_ID);
    const int rc = vakem_wait_for_event(0, 200 * kNanosecondsPerMillisecond);
    const uint64_t cpuNs = nowNs(CLOCK_THREAD_CPUTIME_ID) - cpuStart;
    const uint64_t wallNs = nowNs() - wallStart;
    if (rc != 1) return 2;
    if (wallNs < 199 * kNanosecondsPerMillisecond || wallNs > 600 * kNanosecondsPerMillisecond) return 3;
    return cpuNs < 20 * kNanosecondsPerMillisecond ? 0 : 4;
  });
  EXPECT_EQ(node.wait(), 0);
}

TEST(NodeTransport, WaitWithoutLimitWakesOnAMessageFromAnotherProcess) {
  const uint16_t nid = testNid(6);
  MailboxCleanup cleanup(nid);
  Rendezvous up;
  ChildProcess node([&] {
    up.notify(becomeNode(nid) == 0 ? 1 : 2);
    if (vakem_wait_for_event(kNoTimeLimit, 0) != 0) return 1;
    void* message = vakem_receive(nid);
    return message != nullptr && isTestMessage(message, 48, 5) ? 0 : 2;
  });
  ASSERT_EQ(up.waitFor(), 1u);
  usleep(100000);  // let the node fall asleep first
  EXPECT_EQ(vakem_send(newMessage(48, sicAddress(nid, kCpid), 0, 5), sicAddress(nid, kCpid)), 0);
  EXPECT_EQ(node.wait(5000), 0);
}

// Taking a node id another process serves is covered by MailboxLiveness and the NodeStartup test.
TEST(NodeTransport, ServerInitRefusesBadArgumentsAndASecondNodeIdPerProcess) {
  const uint16_t nid = testNid(7);
  MailboxCleanup cleanup(nid);
  MailboxCleanup otherCleanup(testNid(8));
  ChildProcess owner([&] {
    uint32_t handle = 0;
    if (vak_em_server_init(nid, kNoCpu, 0, nullptr) != -EINVAL) return 1;
    if (vak_em_server_init(0x10000, kNoCpu, 0, &handle) != -EINVAL) return 2;
    if (becomeNode(nid) != 0) return 3;
    return becomeNode(testNid(8)) == -EALREADY ? 0 : 4;
  });
  EXPECT_EQ(owner.wait(), 0);
}

TEST(NodeTransport, LoopbackRouteBringsOwnSendsBack) {
  const uint16_t nid = testNid(9);
  MailboxCleanup cleanup(nid);
  ChildProcess node([&] {
    const uint32_t looped = sicAddress(13, kCpid);
    if (vak_em_add_test_route(1, 13, 13, 0) != 0) return 1;
    void* early = newMessage(32, looped, 0, 1);
    if (vakem_send(early, looped) != -ENOTCONN) return 2;
    if (becomeNode(nid) != 0) return 3;
    if (vakem_send(early, looped) != 0) return 4;
    void* back = vakem_receive(nid);
    if (back == nullptr || !isTestMessage(back, 32, 1)) return 5;
    if (vakem_receive(13) != nullptr) return 6;
    if (vak_em_add_test_route(2, 13, 13, 0) >= 0 || vak_em_add_test_route(1, 20, 10, 0) >= 0) return 7;
    return 0;
  });
  EXPECT_EQ(node.wait(), 0);
}

TEST(NodeTransport, SendRefusesWhatItCannotSendSafely) {
  const uint32_t receiver = sicAddress(testNid(10), kCpid);
  void* small = vakem_alloc(64);
  writeTestMessage(small, 64, receiver, 0, 1);
  const uint16_t tooLong = 65;
  std::memcpy(static_cast<char*>(small) + 14, &tooLong, 2);
  EXPECT_EQ(vakem_send(small, receiver), -EMSGSIZE);
  const uint16_t belowHeader = 15;
  std::memcpy(static_cast<char*>(small) + 14, &belowHeader, 2);
  EXPECT_EQ(vakem_send(small, receiver), -EMSGSIZE);
  vakem_free(small);

  unsigned char notOurs[64];
  writeTestMessage(notOurs, 64, receiver, 0, 1);
  EXPECT_EQ(vakem_send(notOurs, receiver), -EINVAL);
  EXPECT_EQ(vakem_send(nullptr, receiver), -EINVAL);
  EXPECT_EQ(vakem_send_local_unreliable(nullptr), -EINVAL);
  ::testing::internal::CaptureStderr();
  vakem_free(notOurs);
  vakem_free(nullptr);
  EXPECT_NE(::testing::internal::GetCapturedStderr().find("not an event-machine buffer"), std::string::npos);
}

TEST(NodeTransport, FreeOfAJustSentRequestIsHarmless) {
  const uint16_t nid = testNid(11);
  MailboxCleanup cleanup(nid);
  ChildProcess node([&] {
    if (becomeNode(nid) != 0) return 1;
    void* request = newMessage(200, sicAddress(nid, kCpid), 0, 3);
    if (vakem_send_local_unreliable(request) != 0) return 2;
    vakem_free(request);
    vakem_free(request);
    void* received = vakem_receive(nid);
    if (received == nullptr || !isTestMessage(received, 200, 3)) return 3;
    void* first = vakem_alloc(200);
    void* second = vakem_alloc(200);
    if (first == second || first == received || second == received || first == request) return 4;
    return isTestMessage(received, 200, 3) ? 0 : 5;
  });
  EXPECT_EQ(node.wait(), 0);
}

TEST(NodeTransport, RawEventsTravelByHandleAndDieWithTheirBuffer) {
  const uint16_t nid = testNid(12);
  MailboxCleanup cleanup(nid);
  ChildProcess node([&] {
    if (becomeNode(nid) != 0) return 1;
    const uint32_t event = vakem_alloc_direct(64, 7, 0);
    void* data = em_event_pointer(event);
    if (event == 0 || data == nullptr) return 2;
    writeTestMessage(data, 64, sicAddress(nid, kCpid), 0, 4);
    if (vakem_send_direct(event, sicAddress(nid, kCpid)) != 0) return 3;
    if (em_event_pointer(event) != nullptr) return 4;
    void* received = vakem_receive(nid);
    if (received == nullptr || !isTestMessage(received, 64, 4)) return 5;
    const uint32_t freed = vakem_alloc_direct(32, 0, 0);
    vakem_free(em_event_pointer(freed));
    if (em_event_pointer(freed) != nullptr || vakem_send_direct(freed, sicAddress(nid, kCpid)) != -EINVAL) return 6;
    return em_event_pointer(0) == nullptr ? 0 : 7;
  });
  EXPECT_EQ(node.wait(), 0);
}

}  // namespace
}  // namespace rhyddal
