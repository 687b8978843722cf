#include "BridgeInbound.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "HostTestUtil.h"

namespace rhyddal {
namespace {

constexpr uint8_t kOwnHost = 0;
constexpr char kEndpointA[] = "ipc:///tmp/a";
constexpr char kEndpointB[] = "ipc:///tmp/b";
const std::string kKeyA(NodeMap::kKeyLength, 'a'), kKeyB(NodeMap::kKeyLength, 'b'), kKeyC(NodeMap::kKeyLength, 'c');
constexpr uint16_t kNidA = 0x1001, kNidB = 0x2001, kNidC = 0x3001;
constexpr uint16_t kCpid = 0x0123;

// This host A (0x1000-0x1fff), and B and C; with keys or without.
NodeMap mapOfThreeHosts(bool keyed) {
  const auto key = [keyed](const std::string& k) { return keyed ? " " + k : std::string(); };
  NodeMap map;
  std::vector<std::string> errors;
  EXPECT_TRUE(NodeMap::parse(std::string("0x1000-0x1fff ") + kEndpointA + key(kKeyA) + "\n0x2000-0x2fff " + kEndpointB +
                                 key(kKeyB) + "\n0x3000-0x3fff ipc:///tmp/c" + key(kKeyC) + "\n",
                             &map, &errors));
  return map;
}

// A bridge's inbound side over a map, recording what it delivers.
class Inbound {
 public:
  explicit Inbound(bool keyed)
      : map_(mapOfThreeHosts(keyed)),
        words_(new std::atomic<uint64_t>[RemoteNodes::kTotalWords]()),
        remote_(words_.get()),
        inbound_(map_, kOwnHost, remote_, [this](uint16_t nid, uint16_t origin, const void*, uint32_t) {
          delivered_.push_back({nid, origin});
        }) {}

  // A 64-byte message from peerEndpoint to node A, spoken by origin, with sender in its header.
  bool delivers(const std::string& peerEndpoint, uint16_t origin, uint16_t sender, const char* peerKey,
                uint8_t version = kWireVersion) {
    unsigned char message[64];
    testing::writeTestMessage(message, sizeof(message), testing::sicAddress(kNidA, kCpid),
                              testing::sicAddress(sender, kCpid), 1);
    WireEnvelope envelope = wireEnvelope(WireTag::kMessage, origin);
    envelope.version = version;
    const Frame frames[] = {{peerEndpoint.data(), peerEndpoint.size()}, {&envelope, sizeof(envelope)}, {message, sizeof(message)}};
    const size_t before = delivered_.size();
    inbound_.handle(frames, 3, peerKey, 0);
    return delivered_.size() == before + 1 && delivered_.back().origin == origin;
  }
  // A list of running nodes from peerEndpoint, the last aliases of them aliases.
  void announce(const std::string& peerEndpoint, const std::vector<uint16_t>& nids, uint16_t aliases = 0) {
    const WireEnvelope envelope = wireEnvelope(WireTag::kLiveNodes, aliases);
    const Frame frames[] = {{peerEndpoint.data(), peerEndpoint.size()},
                            {&envelope, sizeof(envelope)},
                            {nids.data(), nids.size() * sizeof(uint16_t)}};
    inbound_.handle(frames, 3, nullptr, 0);
  }
  bool reachable(uint16_t nid) const { return remote_.reachable(nid); }
  bool isAlias(uint16_t nid) const { return remote_.isAlias(nid); }

 private:
  struct Delivery {
    uint16_t nid, origin;
  };
  NodeMap map_;
  std::unique_ptr<std::atomic<uint64_t>[]> words_;
  RemoteNodes remote_;
  BridgeInbound inbound_;
  std::vector<Delivery> delivered_;
};

// The node speaking must be the peer's, whatever sender the header names; a message of another
// protocol version is not read at all.
TEST(BridgeInbound, APeerSpeaksOnlyAsItsOwnNodes) {
  Inbound plain(false);
  EXPECT_TRUE(plain.delivers(kEndpointB, kNidB, kNidB, nullptr));
  EXPECT_TRUE(plain.delivers(kEndpointB, kNidB, kNidC, nullptr)) << "passed on, keeping a sender of host C";
  EXPECT_FALSE(plain.delivers(kEndpointB, kNidC, kNidB, nullptr)) << "B speaking as a node of C";
  EXPECT_FALSE(plain.delivers(kEndpointB, kNidA, kNidB, nullptr)) << "B speaking as a node of this host";
  EXPECT_FALSE(plain.delivers(kEndpointA, kNidA, kNidA, nullptr)) << "a peer calling itself this host";
  EXPECT_FALSE(plain.delivers(kEndpointB, kNidB, kNidB, nullptr, kWireVersion + 1));
}

// The answer to a new node's first message must not wait for its host's next list.
TEST(BridgeInbound, ANodeThatSpeaksIsReachableUntilItsHostsListLeavesItOut) {
  constexpr uint16_t kListed = 0x2002;
  Inbound plain(false);
  plain.announce(kEndpointB, {kListed});
  EXPECT_TRUE(plain.reachable(kListed));
  EXPECT_FALSE(plain.reachable(kNidB));
  EXPECT_TRUE(plain.delivers(kEndpointB, kNidB, kNidB, nullptr));
  EXPECT_TRUE(plain.reachable(kNidB));
  plain.announce(kEndpointB, {kListed});
  EXPECT_FALSE(plain.reachable(kNidB)) << "gone since it spoke: its host's list says so";
  EXPECT_TRUE(plain.reachable(kListed));
  EXPECT_FALSE(plain.delivers(kEndpointB, kNidC, kNidC, nullptr));
  EXPECT_FALSE(plain.reachable(kNidC)) << "B speaking as a node of C makes it no more reachable";
}

// Aliases are reachable like nodes and told apart from them; an id that turns from alias to node
// (a node started there) or goes is no alias any more; a count beyond the list drops the list.
TEST(BridgeInbound, AliasesEndTheListAndAreKnownAsSuch) {
  constexpr uint16_t kNode = 0x2011, kAlias = 0x201D;
  Inbound plain(false);
  plain.announce(kEndpointB, {kNode, kAlias}, 1);
  EXPECT_TRUE(plain.reachable(kAlias));
  EXPECT_TRUE(plain.isAlias(kAlias));
  EXPECT_FALSE(plain.isAlias(kNode));
  plain.announce(kEndpointB, {kNode, kAlias}, 0);
  EXPECT_FALSE(plain.isAlias(kAlias)) << "a node runs at the id now";
  plain.announce(kEndpointB, {kNode, kAlias}, 1);
  plain.announce(kEndpointB, {kNode});
  EXPECT_FALSE(plain.reachable(kAlias));
  EXPECT_FALSE(plain.isAlias(kAlias));
  plain.announce(kEndpointB, {kAlias}, 2);
  EXPECT_FALSE(plain.reachable(kAlias)) << "more aliases than ids: not a list";
  EXPECT_TRUE(plain.reachable(kNode)) << "the last good list holds";
}

// With keys, the connection's key must be the one of the host the peer calls itself.
TEST(BridgeInbound, WithKeysAPeerIsTheHostOfItsKey) {
  Inbound keyed(true);
  EXPECT_TRUE(keyed.delivers(kEndpointB, kNidB, kNidB, kKeyB.c_str()));
  EXPECT_FALSE(keyed.delivers(kEndpointB, kNidB, kNidB, kKeyC.c_str())) << "host C's key calling itself B";
  EXPECT_FALSE(keyed.delivers(kEndpointB, kNidB, kNidB, nullptr)) << "a connection that was not authenticated";
}

}  // namespace
}  // namespace rhyddal
