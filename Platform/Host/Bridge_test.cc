// Nodes of two hosts through their bridges. Each "host" here is a namespace of platform objects of
// its own (RHYDDAL_NAMESPACE) with the bridges on ipc endpoints, so nothing but the map joins
// them: what crosses, crosses through ZeroMQ. Every node is a forked child.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <string>

#include "HostTestUtil.h"
#include "Rhyddal.h"
#include "TestNamespace.h"

namespace rhyddal {
#if defined(__SANITIZE_THREAD__)
// The bridges hand message bytes to and take them from libzmq, whose own synchronisation the
// sanitizer cannot see (the library is not instrumented).
extern "C" const char* __tsan_default_suppressions() { return "called_from_lib:libzmq.so\nrace:libzmq.so\n"; }
#endif

namespace {

using namespace testing;

constexpr uint16_t kCpid = 0x0123;
constexpr uint64_t kReachableWithinMs = 10000;

// A system of hosts on this machine: per host a platform namespace and an ipc endpoint, and
// the map placing node ids 0x<h>000-0x<h>fff on host h (1, 2, ...).
class System {
 public:
  explicit System(unsigned hosts, const std::string& extraLines = "") : base_(OlmTest::testNamespace()), hosts_(hosts) {
    mapPath_ = "/tmp/olm-bridge-map-" + base_;
    std::ofstream map(mapPath_);
    for (unsigned host = 1; host <= hosts; ++host) {
      map << std::hex << "0x" << host << "000-0x" << host << "fff ipc:///tmp/olm-bridge-" << base_ << "-" << host << "\n";
    }
    map << extraLines;
  }
  ~System() {
    std::remove(mapPath_.c_str());
    const std::string own = OlmTest::testNamespace();
    for (unsigned host = 1; host <= hosts_; ++host) {
      setenv("RHYDDAL_NAMESPACE", hostNamespace(host).c_str(), 1);
      OlmTest::removeNamespaceObjects();
      std::remove(("/tmp/olm-bridge-" + base_ + "-" + std::to_string(host)).c_str());
    }
    setenv("RHYDDAL_NAMESPACE", own.c_str(), 1);
  }
  static uint16_t nid(unsigned host, uint16_t index) { return static_cast<uint16_t>(host << 12 | index); }
  // In a child: become a process of that host.
  void enter(unsigned host) const {
    setenv("RHYDDAL_NAMESPACE", hostNamespace(host).c_str(), 1);
    setenv("RHYDDAL_NODE_MAP", mapPath_.c_str(), 1);
  }

 private:
  std::string hostNamespace(unsigned host) const { return base_ + "h" + std::to_string(host); }
  std::string base_;
  unsigned hosts_;
  std::string mapPath_;
};

// Sends, retrying while the receiver is not reachable yet (its host's bridge has not said it runs).
int sendOnceReachable(void* message, uint32_t receiver) {
  const uint64_t deadline = nowNs() + kReachableWithinMs * kNanosecondsPerMillisecond;
  for (;;) {
    const int rc = vakem_send(message, receiver);
    if (rc != -EHOSTUNREACH || nowNs() > deadline) return rc;
    vakem_wait_for_event(0, 10 * kNanosecondsPerMillisecond);
  }
}

// An echo node on host 2 sends back whatever comes; a node on host 1 sends messages of every size
// with a few in flight and checks each echo, in order, byte for byte.
TEST(Bridge, MessagesOfEverySizeCrossToAnotherHostAndBackInOrder) {
  constexpr uint32_t kMessages = 1000;
  constexpr uint32_t kInFlight = 8;
  const System system(2);
  const uint16_t echoNid = System::nid(2, 1), senderNid = System::nid(1, 1);
  Rendezvous echoUp;
  ChildProcess echo([&] {
    system.enter(2);
    echoUp.notify(becomeNode(echoNid) == 0 ? 1 : 2);
    const int rc = echoMessages(echoNid, kMessages, sendOnceReachable);
    if (rc != 0) return rc;
    pause();  // the host's bridge runs in this process: it must outlive the last echo's crossing
    return 0;
  });
  ASSERT_EQ(echoUp.waitFor(), 1u);
  ChildProcess sender([&] {
    system.enter(1);
    if (becomeNode(senderNid) != 0) return 11;
    return exchangeWithEcho(senderNid, echoNid, kMessages, kInFlight, sendOnceReachable);
  });
  EXPECT_EQ(sender.wait(60000), 0);
  EXPECT_EQ(echo.kill(), 128 + SIGKILL);
}

// Host 3 is in the map but never comes up; node 0x2002 of host 2 never starts.
TEST(Bridge, SendsToANodeNotRunningOrOnAHostThatIsDownFailAtOnce) {
  const System system(3);
  const uint16_t present = System::nid(2, 1), absent = System::nid(2, 2), onDownHost = System::nid(3, 1);
  Rendezvous hostUp;
  ChildProcess remote([&] {
    system.enter(2);
    hostUp.notify(becomeNode(present) == 0 ? 1 : 2);
    pause();
    return 0;
  });
  ASSERT_EQ(hostUp.waitFor(), 1u);
  ChildProcess local([&] {
    system.enter(1);
    const uint16_t self = System::nid(1, 1);
    if (becomeNode(self) != 0) return 1;
    void* message = newMessage(64, sicAddress(present, kCpid), sicAddress(self, kCpid), 1);
    // Once host 2 is heard from, its running node is reachable and the others are not.
    if (sendOnceReachable(message, sicAddress(present, kCpid)) != 0) return 2;
    message = newMessage(64, sicAddress(absent, kCpid), sicAddress(self, kCpid), 2);
    if (vakem_send(message, sicAddress(absent, kCpid)) != -EHOSTUNREACH) return 3;
    vakem_free(message);
    message = newMessage(64, sicAddress(onDownHost, kCpid), sicAddress(self, kCpid), 3);
    if (vakem_send(message, sicAddress(onDownHost, kCpid)) != -EHOSTUNREACH) return 4;
    vakem_free(message);
    return 0;
  });
  EXPECT_EQ(local.wait(), 0);
}

// The first node of host 1 runs its bridge; when it is killed, the second node's process takes the
// bridge over and reaches host 2 again, without anything restarted.
TEST(Bridge, WhenTheBridgesProcessDiesAnotherNodeOfTheHostTakesItOver) {
  SKIP_WITHOUT_DEAD_OWNER_DETECTION();
  constexpr uint32_t kMessages = 200;
  const System system(2);
  const uint16_t echoNid = System::nid(2, 1), firstNid = System::nid(1, 1), secondNid = System::nid(1, 2);
  ChildProcess echo([&] {
    system.enter(2);
    if (becomeNode(echoNid) != 0) return 1;
    const int rc = echoMessages(echoNid, kMessages, sendOnceReachable);
    if (rc != 0) return rc;
    pause();
    return 0;
  });
  Rendezvous bridgeUp;
  ChildProcess first([&] {
    system.enter(1);
    // Alone on its host, this process can only have reached host 2 through a bridge of its own.
    void* probe = newMessage(64, sicAddress(echoNid, kCpid), sicAddress(firstNid, kCpid), 0);
    const bool reached = becomeNode(firstNid) == 0 && sendOnceReachable(probe, sicAddress(echoNid, kCpid)) == 0;
    bridgeUp.notify(reached ? 1 : 2);
    pause();
    return 0;
  });
  ASSERT_EQ(bridgeUp.waitFor(), 1u);
  Rendezvous secondUp, go;
  ChildProcess second([&] {
    system.enter(1);
    secondUp.notify(becomeNode(secondNid) == 0 ? 1 : 2);
    if (go.waitFor() != 1) return 20;
    // The probe was echoed to the first node; the rest come here.
    return exchangeWithEcho(secondNid, echoNid, kMessages - 1, 4, sendOnceReachable);
  });
  ASSERT_EQ(secondUp.waitFor(), 1u);
  EXPECT_EQ(first.kill(), 128 + SIGKILL);
  go.notify();
  EXPECT_EQ(second.wait(), 0);
  EXPECT_EQ(echo.kill(), 128 + SIGKILL);
}

TEST(Bridge, ANodeRefusesToStartWithAMapThatIsWrongOrDoesNotPlaceIt) {
  const System good(2);
  ChildProcess unplaced([&] {
    good.enter(1);
    return becomeNode(0x7001) == -EINVAL ? 0 : 1;
  });
  EXPECT_EQ(unplaced.wait(), 0);
  const System bad(2, "0x1000 tcp://127.0.0.1:5601 # overlaps host 1\n");
  ChildProcess refused([&] {
    bad.enter(1);
    return becomeNode(System::nid(1, 1)) == -EINVAL ? 0 : 1;
  });
  EXPECT_EQ(refused.wait(), 0);
}

}  // namespace
}  // namespace rhyddal
