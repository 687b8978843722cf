// The C interface between node processes: each node is a forked child, as on a host where every
// node is a process of its own.
#include <fcntl.h>
#include <sys/mman.h>
#include <time.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <limits>
#include <string>
#include <thread>
#include <vector>

#include "Futex.h"
#include "HostTestUtil.h"
#include "MailboxLayout.h"
#include "PhysicalMemory.h"
#include "RemoteNodes.h"
#include "Rhyddal.h"
#include "RhyddalHost.h"
#include "RhyddalInternal.h"

namespace rhyddal {
namespace {

using namespace testing;

constexpr uint16_t kCpid = 0x0123;
bool poolIsBalanced() {
  const PoolStatistics stats = processPoolStatistics();
  return stats.inUse == 0 && stats.refusedAlreadyFree + stats.refusedSentAndFreed + stats.refusedForeign == 0;
}

TEST(NodeTransport, TwoNodesExchangeMessagesOfEverySizeInOrder) {
  constexpr uint32_t kMessages = 3000;
  constexpr uint32_t kInFlight = 8;
  const uint16_t echoNid = testNid();
  const uint16_t senderNid = testNid();
  Rendezvous echoUp;
  ChildProcess echo([&] {
    echoUp.notify(becomeNode(echoNid) == 0 ? 1 : 2);
    const int rc = echoMessages(echoNid, kMessages, vakem_send);
    return rc != 0 ? rc : poolIsBalanced() ? 0 : 4;
  });
  ASSERT_EQ(echoUp.waitFor(), 1u);
  ChildProcess sender([&] {
    if (becomeNode(senderNid) != 0) return 11;
    const int rc = exchangeWithEcho(senderNid, echoNid, kMessages, kInFlight, vakem_send);
    return rc != 0 ? rc : poolIsBalanced() ? 0 : 15;
  });
  EXPECT_EQ(sender.wait(), 0);
  EXPECT_EQ(echo.wait(), 0);
}

TEST(NodeTransport, SendToANodeIdWhereNoNodeRunsFails) {
  const uint32_t nowhere = sicAddress(testNid(), kCpid);
  void* message = newMessage(64, nowhere, 0, 1);
  ASSERT_NE(message, nullptr);
  EXPECT_EQ(vakem_send(message, nowhere), -EHOSTUNREACH);
  EXPECT_EQ(vakem_send_local_unreliable(message), -EHOSTUNREACH);
  vakem_free(message);
}

TEST(NodeTransport, FullReceiverFailsTheSendAtOnceAndTheSenderKeepsItsBuffer) {
  const uint16_t nid = testNid();
  IdleNode idle(nid);
  ASSERT_TRUE(idle.up());
  int rc = 0;
  uint32_t accepted = 0;
  void* message = nullptr;
  while (rc == 0 && accepted < 1000) {
    message = newMessage(60000, sicAddress(nid, kCpid), 0, accepted);
    rc = vakem_send(message, sicAddress(nid, kCpid));
    if (rc == 0) ++accepted;
  }
  EXPECT_EQ(rc, -ENOBUFS);
  EXPECT_EQ(accepted, kDefaultLaneBytes / recordBytesFor(60000));
  EXPECT_TRUE(isTestMessage(message, 60000, accepted)) << "a failed send leaves the message to its owner";
  vakem_free(message);
  EXPECT_EQ(processPoolStatistics().inUse, 0u);
}

TEST(NodeTransport, WaitTimesOutNoEarlierThanAskedAndSleepsMeanwhile) {
  const uint16_t nid = testNid();
  ChildProcess node([&] {
    if (becomeNode(nid) != 0) return 1;
    const uint64_t wallStart = nowNs();
    const uint64_t cpuStart = nowNs(CLOCK_THREAD_CPUTIME_ID);
    const int rc = vakem_wait_for_event(0, 100 * kNanosecondsPerMillisecond);
    const uint64_t cpuNs = nowNs(CLOCK_THREAD_CPUTIME_ID) - cpuStart;
    const uint64_t wallNs = nowNs() - wallStart;
    if (rc != 1) return 2;
    if (wallNs < 100 * kNanosecondsPerMillisecond) return 3;
    return cpuNs < wallNs / 2 ? 0 : 4;
  });
  EXPECT_EQ(node.wait(), 0);
}

TEST(NodeTransport, WaitWithoutLimitWakesOnAMessageFromAnotherProcess) {
  const uint16_t nid = testNid();
  Rendezvous up;
  ChildProcess node([&] {
    up.notify(becomeNode(nid) == 0 ? 1 : 2);
    if (vakem_wait_for_event(kNoTimeLimit, 0) != 0) return 1;
    void* message = vakem_receive(nid);
    return message != nullptr && isTestMessage(message, 48, 5) ? 0 : 2;
  });
  ASSERT_EQ(up.waitFor(), 1u);
  // Send only once the node sleeps: its mailbox says so.
  const int fd = shm_open(mailboxObjectName(nid).c_str(), O_RDONLY, 0);
  ASSERT_GE(fd, 0);
  void* mapping = mmap(nullptr, sizeof(MailboxHeader), PROT_READ, MAP_SHARED, fd, 0);
  close(fd);
  ASSERT_NE(mapping, MAP_FAILED);
  const auto* header = static_cast<const MailboxHeader*>(mapping);
  while (header->waiterAsleep.load() == 0) std::this_thread::yield();
  EXPECT_EQ(vakem_send(newMessage(48, sicAddress(nid, kCpid), 0, 5), sicAddress(nid, kCpid)), 0);
  EXPECT_EQ(node.wait(), 0);
  munmap(mapping, sizeof(MailboxHeader));
}

TEST(NodeTransport, LargeFiniteTimeoutsNeverWrapIntoThePast) {
  const timespec now{std::numeric_limits<time_t>::max() - 100, 999999999};
  const timespec deadline = deadlineAfter(now, 0xFFFFFFFEu, 999999999);
  EXPECT_EQ(deadline.tv_sec, std::numeric_limits<time_t>::max());
  EXPECT_EQ(deadline.tv_nsec, 999999999);
  const timespec soon = deadlineAfter(timespec{10, 600000000}, 1, 2500000000u);
  EXPECT_EQ(soon.tv_sec, 14);
  EXPECT_EQ(soon.tv_nsec, 100000000);
}

// Taking a node id another process serves is covered by MailboxLiveness and the NodeStartup test.
TEST(NodeTransport, ServerInitRefusesBadArgumentsAndASecondNodeIdPerProcess) {
  const uint16_t nid = testNid();
  const uint16_t other = testNid();
  ChildProcess owner([&] {
    uint32_t handle = 0;
    if (vak_em_server_init(nid, kNoCpu, 0, nullptr) != -EINVAL) return 1;
    if (vak_em_server_init(0x10000, kNoCpu, 0, &handle) != -EINVAL) return 2;
    if (becomeNode(nid) != 0) return 3;
    return becomeNode(other) == -EALREADY ? 0 : 4;
  });
  EXPECT_EQ(owner.wait(), 0);
}

TEST(NodeTransport, LoopbackRouteBringsOwnSendsBack) {
  const uint16_t nid = testNid();
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
  const uint32_t receiver = sicAddress(testNid(), kCpid);
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
}

TEST(NodeTransport, FreesThatAreNotTheCallersAreRefusedCountedAndReported) {
  ChildProcess node([&] {
    const uint16_t nid = testNid();
    if (becomeNode(nid) != 0) return 1;
    void* request = newMessage(200, sicAddress(nid, kCpid), 0, 3);
    if (vakem_send_local_unreliable(request) != 0) return 2;
    vakem_free(request);  // the built-in EU's free right after the send: silent
    ::testing::internal::CaptureStderr();
    vakem_free(request);
    unsigned char notOurs[64];
    vakem_free(notOurs);
    vakem_free(nullptr);
    void* once = vakem_alloc(10);
    vakem_free(once);
    vakem_free(once);
    const std::string errors = ::testing::internal::GetCapturedStderr();
    const PoolStatistics stats = processPoolStatistics();
    if (stats.freesAfterSend != 1 || stats.refusedSentAndFreed != 1 || stats.refusedForeign != 1) return 3;
    if (stats.refusedAlreadyFree != 1) return 4;
    if (errors.find("refused: sent and already freed once") == std::string::npos) return 5;
    if (errors.find("refused: not an event-machine buffer") == std::string::npos) return 6;
    if (errors.find("refused: already free") == std::string::npos) return 7;
    void* received = vakem_receive(nid);
    return received != nullptr && isTestMessage(received, 200, 3) ? 0 : 8;
  });
  EXPECT_EQ(node.wait(), 0);
}

TEST(NodeTransport, RawEventsTravelByHandleAndDieWithTheirBuffer) {
  const uint16_t nid = testNid();
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

// Threads of one process share its pool and its lane; every message still arrives once, intact,
// in each thread's order.
TEST(NodeTransport, ThreadsOfOneProcessSendAndAllocateConcurrently) {
  constexpr uint32_t kThreads = 3;
  constexpr uint32_t kPerThread = 2000;
  const uint16_t nid = testNid();
  ChildProcess node([&] {
    if (becomeNode(nid) != 0) return 1;
    std::atomic<int> failures{0};
    std::vector<std::thread> senders;
    for (uint32_t t = 0; t < kThreads; ++t) {
      senders.emplace_back([&, t] {
        for (uint32_t i = 0; i < kPerThread; ++i) {
          void* message = newMessage(16 + (i % 200), sicAddress(nid, static_cast<uint16_t>(t)), t, i);
          int rc;
          while ((rc = vakem_send(message, sicAddress(nid, static_cast<uint16_t>(t)))) == -ENOBUFS) std::this_thread::yield();
          if (rc != 0) failures.fetch_add(1);
          vakem_free(vakem_alloc(100));
        }
      });
    }
    uint32_t next[kThreads] = {};
    for (uint32_t received = 0; received < kThreads * kPerThread; ++received) {
      void* message = receiveWithin(nid, 10000);
      if (message == nullptr) return 2;
      const uint32_t thread = senderOf(message);
      if (thread >= kThreads || !isTestMessage(message, 16 + (next[thread] % 200), next[thread])) return 3;
      ++next[thread];
      vakem_free(message);
    }
    for (auto& sender : senders) sender.join();
    return failures.load() == 0 && poolIsBalanced() ? 0 : 4;
  });
  EXPECT_EQ(node.wait(), 0);
}

TEST(HostExtensions, ObjectNamesStayInsideTheNamespace) {
  const std::string prefix = OlmTest::namespaceObjectPrefix();
  char name[128];
  ASSERT_EQ(rhyddal_host_shm_name(RHYDDAL_QUEUE_HISTORY_NAME, name, sizeof(name)), 0);
  EXPECT_EQ(std::string(name), "/" + prefix + "EM_QUEUE_HIST");
  EXPECT_EQ(rhyddal_host_shm_name(RHYDDAL_QUEUE_HISTORY_NAME, name, 10), -ENAMETOOLONG);
  EXPECT_EQ(rhyddal_host_shm_name(nullptr, name, sizeof(name)), -EINVAL);
  EXPECT_EQ(rhyddal_host_shm_name("a/b", name, sizeof(name)), -EINVAL);
  const char* physicalMemory = rhyddal_host_physical_memory_path();
  ASSERT_NE(physicalMemory, nullptr);
  EXPECT_EQ(std::string(physicalMemory), "/dev/shm/" + prefix + "physmem");
  EXPECT_EQ(rhyddal_host_physical_memory_path(), physicalMemory) << "one string for the life of the process";

  IdleNode node(testNid());
  ASSERT_TRUE(node.up());
  EXPECT_GE(OlmTest::removeNamespaceObjects(), 3u) << "mailbox, start lock and physical memory at least";
}

// The live nodes, read with room for every one of them.
std::vector<rhyddal_host_node> liveNodes() {
  const int count = rhyddal_host_live_nodes(nullptr, 0);
  std::vector<rhyddal_host_node> nodes(static_cast<size_t>(std::max(count, 0)));
  const int written = rhyddal_host_live_nodes(nodes.data(), static_cast<uint32_t>(nodes.size()));
  nodes.resize(static_cast<size_t>(std::max(std::min(written, count), 0)));
  return nodes;
}

const rhyddal_host_node* findNode(const std::vector<rhyddal_host_node>& nodes, uint16_t nid) {
  for (const rhyddal_host_node& node : nodes) {
    if (node.nid == nid) return &node;
  }
  return nullptr;
}

TEST(HostExtensions, LiveNodesAreListedInOrderWithTheirWaitingMessages) {
  const uint16_t low = testNid();
  const uint16_t high = testNid();
  IdleNode highNode(high);
  IdleNode lowNode(low);
  ASSERT_TRUE(highNode.up());
  ASSERT_TRUE(lowNode.up());
  constexpr uint32_t kQueued = 3;
  for (uint32_t i = 0; i < kQueued; ++i) {
    void* message = newMessage(64, sicAddress(high, kCpid), 0, i);
    ASSERT_EQ(vakem_send(message, sicAddress(high, kCpid)), 0);
  }
  const std::vector<rhyddal_host_node> nodes = liveNodes();
  ASSERT_NE(findNode(nodes, low), nullptr);
  ASSERT_NE(findNode(nodes, high), nullptr);
  EXPECT_LT(findNode(nodes, low), findNode(nodes, high)) << "ascending node ids";
  EXPECT_EQ(findNode(nodes, low)->waiting, 0u);
  EXPECT_EQ(findNode(nodes, high)->waiting, kQueued);
  EXPECT_EQ(findNode(nodes, high)->reserved, 0u);

  constexpr rhyddal_host_node kUntouched{0xFFFF, 0xFFFF, 0xFFFFFFFF};
  rhyddal_host_node room[2] = {kUntouched, kUntouched};
  EXPECT_EQ(rhyddal_host_live_nodes(room, 1), static_cast<int>(nodes.size())) << "all are counted";
  EXPECT_EQ(room[0].nid, nodes[0].nid);
  EXPECT_EQ(room[1].nid, kUntouched.nid) << "nothing is written beyond the capacity";
  EXPECT_EQ(rhyddal_host_live_nodes(nullptr, 1), -EINVAL);

  if (!deadLockOwnersAreDetected()) GTEST_SKIP() << "no robust futex lists here: a killed node looks alive";
  highNode.kill();
  const std::vector<rhyddal_host_node> after = liveNodes();
  EXPECT_EQ(findNode(after, high), nullptr) << "a killed node's mailbox is no node";
  EXPECT_NE(findNode(after, low), nullptr);
}

TEST(HostExtensions, WithoutANamespaceTheSystemNameIsUsedAsItIs) {
  ChildProcess process([] {
    unsetenv("RHYDDAL_NAMESPACE");
    char name[64];
    if (rhyddal_host_shm_name(RHYDDAL_QUEUE_HISTORY_NAME, name, sizeof(name)) != 0) return 1;
    return std::string(name) == RHYDDAL_QUEUE_HISTORY_NAME ? 0 : 2;
  });
  EXPECT_EQ(process.wait(), 0);
}

TEST(HostExtensions, AnInvalidNamespaceIsRefusedAndNothingIsCreated) {
  ChildProcess process([] {
    setenv("RHYDDAL_NAMESPACE", "../etc", 1);
    ::testing::internal::CaptureStderr();
    const int rc = becomeNode(0x2345);
    char name[64];
    const int nameRc = rhyddal_host_shm_name(RHYDDAL_QUEUE_HISTORY_NAME, name, sizeof(name));
    const char* path = rhyddal_host_physical_memory_path();
    const std::string errors = ::testing::internal::GetCapturedStderr();
    if (rc != -EINVAL || nameRc != -EINVAL || path != nullptr) return 1;
    return errors.find("refusing RHYDDAL_NAMESPACE=\"../etc\"") != std::string::npos ? 0 : 2;
  });
  EXPECT_EQ(process.wait(), 0);
}

// The nodes of other hosts come from the bits this host's bridge keeps, with their hosts' endpoints
// from the map, and which ids are this host's from the host its bridge serves; a map that cannot be
// read is an error, no map no other hosts.
TEST(HostExtensions, RemoteNodesAndThisHostsIdsComeFromTheBridgesTableAndTheMap) {
  const std::string mapPath = "/tmp/olm-remote-map-" + std::to_string(getpid());
  std::ofstream(mapPath) << "0x1000-0x1fff tcp://127.0.0.1:5601\n0x2000-0x2fff ipc:///tmp/host-b\n";
  std::unique_ptr<RemoteNodes> remote;
  ASSERT_EQ(RemoteNodes::open(&remote), 0);
  remote->clearAll();
  remote->set(0x2011, true);
  remote->set(0x2fff, true);
  remote->set(0x3000, true);  // the map places it nowhere: left from an earlier map
  remote->set(0x201d, true);
  remote->setAlias(0x201d, true);

  unsetenv("RHYDDAL_NODE_MAP");
  EXPECT_EQ(rhyddal_host_remote_nodes(nullptr, 0), 0) << "without a map there are no other hosts";
  EXPECT_EQ(rhyddal_host_is_on_this_host(0x2011), 1) << "without a map every node id is on this host";
  setenv("RHYDDAL_NODE_MAP", mapPath.c_str(), 1);
  rhyddal_host_remote_node nodes[3] = {};
  ASSERT_EQ(rhyddal_host_remote_nodes(nodes, 1), 2) << "all are counted";
  EXPECT_EQ(nodes[1].nid, 0) << "nothing is written beyond the capacity";
  ASSERT_EQ(rhyddal_host_remote_nodes(nodes, 3), 2);
  EXPECT_EQ(nodes[0].nid, 0x2011);
  EXPECT_STREQ(nodes[0].endpoint, "ipc:///tmp/host-b");
  EXPECT_EQ(nodes[1].nid, 0x2fff);
  EXPECT_EQ(rhyddal_host_remote_nodes(nullptr, 1), -EINVAL);

  remote->setOwnHost(RemoteNodes::kNoHostIndex);
  EXPECT_EQ(rhyddal_host_is_on_this_host(0x1011), -ENOTCONN) << "no bridge has said which host this is";
  remote->setOwnHost(1);
  EXPECT_EQ(rhyddal_host_is_on_this_host(0x2ff0), 1);
  EXPECT_EQ(rhyddal_host_is_on_this_host(0x1ff0), 0);
  EXPECT_EQ(rhyddal_host_is_on_this_host(0x3000), 0) << "on no host";
  EXPECT_EQ(rhyddal_host_is_on_this_host(0x10000), -EINVAL);

  std::ofstream(mapPath) << "not a map\n";
  EXPECT_EQ(rhyddal_host_remote_nodes(nullptr, 0), -EINVAL);
  EXPECT_EQ(rhyddal_host_is_on_this_host(0x1011), -EINVAL);
  unsetenv("RHYDDAL_NODE_MAP");
  remote->clearAll();
  std::remove(mapPath.c_str());
}

}  // namespace
}  // namespace rhyddal
