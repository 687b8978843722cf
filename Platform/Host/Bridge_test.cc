// Nodes of two hosts through their bridges. Each "host" here is a namespace of platform objects of
// its own (RHYDDAL_NAMESPACE) with the bridges on ipc endpoints, so nothing but the map joins
// them: what crosses, crosses through ZeroMQ. Every node is a forked child.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <zmq.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <memory>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

#include "HostTestUtil.h"
#include "Mailbox.h"
#include "Rhyddal.h"
#include "TestNamespace.h"

namespace rhyddal {
#if defined(__SANITIZE_THREAD__)
// The bridges hand message bytes to and take them from libzmq (and, on links with keys, libsodium
// decrypts them in libzmq's threads), whose own synchronisation the sanitizer cannot see: neither
// library is instrumented.
extern "C" const char* __tsan_default_suppressions() { return "called_from_lib:libzmq.so\nrace:libzmq.so\ncalled_from_lib:libsodium.so\nrace:libsodium.so\n"; }
#endif

namespace {

using namespace testing;

constexpr uint16_t kCpid = 0x0123;
constexpr uint64_t kReachableWithinMs = 10000;

enum class Links { kPlain, kCurve };

struct KeyPair {
  std::string publicKey, secretKey;
};

KeyPair newKeyPair() {
  char publicKey[41] = {}, secretKey[41] = {};
  zmq_curve_keypair(publicKey, secretKey);
  return KeyPair{publicKey, secretKey};
}

// A system of hosts on this machine: per host a platform namespace, an ipc endpoint and a map of
// its own placing node ids 0x<h>000-0x<h>fff on host h (1, 2, ...). With keys, each host's map
// lists every host's public key and its own secret key.
class System {
 public:
  explicit System(unsigned hosts, const std::string& extraLines = "", Links links = Links::kPlain)
      : base_(OlmTest::testNamespace()), hosts_(hosts), extraLines_(extraLines) {
    for (unsigned host = 0; host <= hosts; ++host) keys_.push_back(links == Links::kCurve ? newKeyPair() : KeyPair{});
    listed_ = keys_;
    writeMaps();
  }
  ~System() {
    const std::string own = OlmTest::testNamespace();
    for (unsigned host = 1; host <= hosts_; ++host) {
      std::remove(mapPath(host).c_str());
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
    setenv("RHYDDAL_NODE_MAP", mapPath(host).c_str(), 1);
  }
  // The host takes a key pair of its own, which only its own map knows: the other hosts' maps
  // keep the public key it had.
  void impostor(unsigned host) {
    keys_[host] = newKeyPair();
    writeMaps();
  }
  const std::string& publicKey(unsigned host) const { return keys_[host].publicKey; }

 private:
  std::string hostNamespace(unsigned host) const { return base_ + "h" + std::to_string(host); }
  std::string mapPath(unsigned host) const { return "/tmp/olm-bridge-map-" + base_ + "-" + std::to_string(host); }
  void writeMaps() const {
    for (unsigned self = 1; self <= hosts_; ++self) {
      std::ofstream map(mapPath(self));
      for (unsigned host = 1; host <= hosts_; ++host) {
        map << std::hex << "0x" << host << "000-0x" << host << "fff ipc:///tmp/olm-bridge-" << base_ << "-" << host << " "
            << (host == self ? keys_ : listed_)[host].publicKey << "\n";
      }
      if (!keys_[self].secretKey.empty()) map << "secret-key " << keys_[self].secretKey << "\n";
      map << extraLines_;
    }
  }

  std::string base_;
  unsigned hosts_;
  std::string extraLines_;
  std::vector<KeyPair> keys_;    // per host (index 0 unused): the pair it holds
  std::vector<KeyPair> listed_;  // the pair the other hosts' maps give it
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

// Starts a node of a host in a child process and waits until it serves; then body runs there, and
// the process stays until killed (its host's bridge may run in it, and must outlive the crossing
// of what body sent last). Null when the node did not start.
std::unique_ptr<ChildProcess> startNodeOfHost(const System& system, unsigned host, uint16_t nid,
                                              const std::function<int()>& body = [] { return 0; },
                                              const std::string& stderrPath = "") {
  Rendezvous up;
  auto process = std::make_unique<ChildProcess>([&] {
    if (!stderrPath.empty()) {
      const int fd = open(stderrPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
      if (fd < 0 || dup2(fd, STDERR_FILENO) < 0) return 99;
      close(fd);
    }
    system.enter(host);
    up.notify(becomeNode(nid) == 0 ? 1 : 2);
    const int rc = body();
    if (rc != 0) return rc;
    pause();
    return 0;
  });
  return up.waitFor() == 1 ? std::move(process) : nullptr;
}

// From a new node self of host: messages to echo and their echoes checked (exchangeWithEcho); the
// sending process's exit status.
int exchangeFromHost(const System& system, unsigned host, uint16_t self, uint16_t echo, uint32_t count, uint32_t inFlight) {
  ChildProcess sender([&] {
    system.enter(host);
    if (becomeNode(self) != 0) return 11;
    return exchangeWithEcho(self, echo, count, inFlight, sendOnceReachable);
  });
  return sender.wait(60000);
}

// An echo node on host 2 sends back whatever comes; a node on host 1 sends messages of every size
// with a few in flight and checks each echo, in order, byte for byte.
TEST(Bridge, MessagesOfEverySizeCrossToAnotherHostAndBackInOrder) {
  constexpr uint32_t kMessages = 1000;
  constexpr uint32_t kInFlight = 8;
  const System system(2);
  const uint16_t echoNid = System::nid(2, 1), senderNid = System::nid(1, 1);
  auto echo = startNodeOfHost(system, 2, echoNid, [&] { return echoMessages(echoNid, kMessages, sendOnceReachable); });
  ASSERT_NE(echo, nullptr);
  EXPECT_EQ(exchangeFromHost(system, 1, senderNid, echoNid, kMessages, kInFlight), 0);
  EXPECT_EQ(echo->kill(), 128 + SIGKILL);
}

// A node sends to other hosts as it starts (announcing itself, registering), and answers come at
// once: neither may fail because a bridge has not yet heard which nodes run on the other host. The
// first node of host 1 starts the host's bridge; the second starts beside a bridge that has long
// announced the host's nodes, without it. The echo answers at once, without retrying.
TEST(Bridge, ANewNodesFirstMessageToAnotherHostAndTheAnswerGetThrough) {
  const System system(2);
  const uint16_t echoNid = System::nid(2, 1);
  const auto echo = startNodeOfHost(system, 2, echoNid, [&] {
    return echoMessages(echoNid, 2, [](void* message, uint32_t receiver) { return vakem_send(message, receiver); });
  });
  ASSERT_NE(echo, nullptr);
  const auto sendAtOnce = [&](uint16_t self) {
    if (becomeNode(self) != 0) return 1;
    const uint32_t to = sicAddress(echoNid, kCpid);
    if (vakem_send(newMessage(64, to, sicAddress(self, kCpid), self), to) != 0) return 2;
    void* echoed = receiveWithin(self, 10000);
    return echoed != nullptr && isTestMessage(echoed, 64, self) ? 0 : 3;
  };
  Rendezvous firstDone;
  ChildProcess first([&] {
    system.enter(1);
    firstDone.notify(sendAtOnce(System::nid(1, 1)) == 0 ? 1 : 2);
    pause();
    return 0;
  });
  ASSERT_EQ(firstDone.waitFor(), 1u) << "the first node of its host";
  ChildProcess second([&] {
    system.enter(1);
    return sendAtOnce(System::nid(1, 2));
  });
  EXPECT_EQ(second.wait(), 0) << "a node starting beside a running bridge";
}

// Host 3 is in the map but never comes up; node 0x2002 of host 2 never starts.
TEST(Bridge, SendsToANodeNotRunningOrOnAHostThatIsDownFailAtOnce) {
  const System system(3);
  const uint16_t present = System::nid(2, 1), absent = System::nid(2, 2), onDownHost = System::nid(3, 1);
  const auto remote = startNodeOfHost(system, 2, present);
  ASSERT_NE(remote, nullptr);
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

// Node 1 of host 1 sends to node 1 of host 2, which passes each message on to node 1 of host 3
// keeping node 1 of host 1 as its sender (as the broker server passes publications on); host 3's
// node answers that first sender directly. What crosses each link is spoken by the node that sent
// it, whatever sender the header names.
TEST(Bridge, AMessagePassedOnAcrossAThirdHostKeepsItsFirstSender) {
  constexpr uint32_t kMessages = 50;
  const System system(3);
  const uint16_t first = System::nid(1, 1), forwarder = System::nid(2, 1), last = System::nid(3, 1);
  const uint32_t onward = sicAddress(last, kCpid);
  const auto passOn = startNodeOfHost(system, 2, forwarder, [&] {
    return echoMessages(forwarder, kMessages, [&](void* message, uint32_t) {
      swapAddresses(message);  // back as it came: the first sender stays the sender
      std::memcpy(static_cast<unsigned char*>(message) + 4, &onward, sizeof(onward));
      return sendOnceReachable(message, onward);
    });
  });
  const auto answer = startNodeOfHost(system, 3, last, [&] {
    for (uint32_t i = 0; i < kMessages; ++i) {
      void* message = receiveWithin(last, 10000);
      if (message == nullptr) return 2;
      if (senderOf(message) != sicAddress(first, kCpid)) return 3;
      swapAddresses(message);
      if (sendOnceReachable(message, sicAddress(first, kCpid)) != 0) return 4;
    }
    return 0;
  });
  ASSERT_NE(passOn, nullptr);
  ASSERT_NE(answer, nullptr);
  EXPECT_EQ(exchangeFromHost(system, 1, first, forwarder, kMessages, 4), 0);
}

// A process of host 1 writes into its bridge's mailbox as if it served a node of host 3: host 2
// drops that message, and the genuine ones around it are echoed in order.
TEST(Bridge, AHostCannotSpeakAsANodeOfAnotherHost) {
  const System system(3);
  const uint16_t echoNid = System::nid(2, 1), self = System::nid(1, 1), elsewhere = System::nid(3, 1);
  const auto echo = startNodeOfHost(system, 2, echoNid, [&] { return echoMessages(echoNid, 3, sendOnceReachable); });
  ASSERT_NE(echo, nullptr);
  ChildProcess local([&] {
    system.enter(1);
    if (becomeNode(self) != 0) return 1;
    const uint32_t to = sicAddress(echoNid, kCpid), from = sicAddress(self, kCpid);
    if (sendOnceReachable(newMessage(64, to, from, 1), to) != 0) return 2;
    std::shared_ptr<Mailbox> bridge;
    if (Mailbox::openBridge(&bridge) != 0) return 3;
    unsigned char forged[64];
    writeTestMessage(forged, sizeof(forged), to, from, 2);
    if (bridge->push(forged, sizeof(forged), RecordKind::kMessage, elsewhere) != PushResult::kDelivered) return 4;
    // The forged record went into the bridge's mailbox before this one, and crosses the same link.
    if (vakem_send(newMessage(64, to, from, 3), to) != 0) return 5;
    for (const uint32_t seed : {1u, 3u}) {
      void* echoed = receiveWithin(self, 10000);
      if (echoed == nullptr || !isTestMessage(echoed, 64, seed)) return 6;
      vakem_free(echoed);
    }
    if (vakem_send(newMessage(64, to, from, 4), to) != 0) return 7;
    void* echoed = receiveWithin(self, 10000);
    return echoed != nullptr && isTestMessage(echoed, 64, 4) ? 0 : 8;
  });
  EXPECT_EQ(local.wait(), 0);
}

std::string contentOf(const std::string& path) {
  std::ifstream file(path);
  return std::string((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
}

// Whether the file holds text, within kReachableWithinMs.
bool fileShows(const std::string& path, const std::string& text) {
  const uint64_t deadline = nowNs() + kReachableWithinMs * kNanosecondsPerMillisecond;
  for (;;) {
    if (contentOf(path).find(text) != std::string::npos) return true;
    if (nowNs() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
}

// With keys, links are encrypted and a host gets in only with the key the map gives it. Host 3
// holds another key than the one hosts 1 and 2 list for it: host 2 refuses it in one line, and
// host 3 never reaches host 2's nodes, while host 1, holding its key, does.
TEST(Bridge, WithKeysOnlyAHostHoldingTheKeyTheMapGivesItGetsThrough) {
  constexpr uint32_t kMessages = 100;
  System system(3, "", Links::kCurve);
  system.impostor(3);
  const std::string log = "/tmp/olm-bridge-log-" + OlmTest::testNamespace();
  const uint16_t echoNid = System::nid(2, 1), senderNid = System::nid(1, 1), impostorNid = System::nid(3, 1);
  const auto echo = startNodeOfHost(
      system, 2, echoNid, [&] { return echoMessages(echoNid, kMessages, sendOnceReachable); }, log);
  ASSERT_NE(echo, nullptr);
  EXPECT_EQ(exchangeFromHost(system, 1, senderNid, echoNid, kMessages, 4), 0);
  Rendezvous refused;
  ChildProcess impostor([&] {
    system.enter(3);
    if (becomeNode(impostorNid) != 0) return 1;
    refused.waitFor();
    void* message = newMessage(64, sicAddress(echoNid, kCpid), sicAddress(impostorNid, kCpid), 1);
    return vakem_send(message, sicAddress(echoNid, kCpid)) == -EHOSTUNREACH ? 0 : 2;
  });
  EXPECT_TRUE(fileShows(log, "its key " + system.publicKey(3) + " is not the public key of another host of the map"))
      << contentOf(log);
  refused.notify();
  EXPECT_EQ(impostor.wait(), 0);
  std::remove(log.c_str());
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
