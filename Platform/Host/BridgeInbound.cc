#include "BridgeInbound.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>
#include <utility>

#include "SysComFields.h"

namespace rhyddal {
namespace {

constexpr size_t kNidBytes = 2;
constexpr size_t kFramesOfAMessage = 3;  // routing id, envelope, body

uint16_t nidOf(uint32_t sicAddress) { return static_cast<uint16_t>(sicAddress >> 16); }

const char* reasonOf(ArrivalCheck check) {
  switch (check) {
    case ArrivalCheck::kTooShort:
      return "shorter than a message header";
    case ArrivalCheck::kLengthDisagrees:
      return "its length disagrees with its header";
    case ArrivalCheck::kReceiverNotHere:
      return "its receiver is not a node of this host";
    case ArrivalCheck::kOriginNotThePeers:
      return "the node speaking is not a node of the host that sent it";
    case ArrivalCheck::kDeliver:
      break;
  }
  return "";
}

}  // namespace

ArrivalCheck checkArrivingMessage(const NodeMap& map, uint8_t ownHost, uint8_t peerHost, uint16_t origin,
                                  const void* bytes, size_t size) {
  if (map.hostOf(origin) != peerHost) return ArrivalCheck::kOriginNotThePeers;
  if (size < kSysComHeaderBytes) return ArrivalCheck::kTooShort;
  if (sysComTotalLength(bytes) != size) return ArrivalCheck::kLengthDisagrees;
  if (map.hostOf(nidOf(sysComReceiver(bytes))) != ownHost) return ArrivalCheck::kReceiverNotHere;
  return ArrivalCheck::kDeliver;
}

BridgeInbound::BridgeInbound(const NodeMap& map, uint8_t ownHost, RemoteNodes& remote, Deliver deliver)
    : map_(map), ownHost_(ownHost), keyed_(map.hasKeys()), remote_(remote), deliver_(std::move(deliver)), peers_(map.hosts().size()) {}

void BridgeInbound::handle(const Frame* frames, size_t count, const char* peerKey, uint64_t nowNs) {
  const uint8_t peer = count != 0 ? peerOf(frames[0]) : NodeMap::kNoHost;
  if (peer == NodeMap::kNoHost) {
    dropped_.report(nowNs, "bridge dropped a message from a peer that is no other host of the map");
    return;
  }
  if (keyed_ && (peerKey == nullptr || map_.hosts()[peer].publicKey != peerKey)) {
    dropped_.report(nowNs, "bridge dropped a message from a peer calling itself %s whose key is not that host's",
                    map_.hosts()[peer].endpoint.c_str());
    return;
  }
  WireEnvelope envelope{};
  if (count == kFramesOfAMessage && frames[1].size == sizeof(envelope)) std::memcpy(&envelope, frames[1].data, sizeof(envelope));
  if (envelope.version != kWireVersion) {
    dropped_.report(nowNs, "bridge dropped a message of %zu frames from %s: not of the bridges' protocol, version %u", count,
                    map_.hosts()[peer].endpoint.c_str(), static_cast<unsigned>(kWireVersion));
  } else if (envelope.tag == static_cast<uint8_t>(WireTag::kMessage)) {
    handleMessage(peer, originOf(envelope), frames[2], nowNs);
  } else if (envelope.tag == static_cast<uint8_t>(WireTag::kLiveNodes)) {
    handleLiveNodes(peer, frames[2], originOf(envelope), nowNs);
  } else {
    dropped_.report(nowNs, "bridge dropped a message of unknown kind %u from %s", static_cast<unsigned>(envelope.tag),
                    map_.hosts()[peer].endpoint.c_str());
  }
}

void BridgeInbound::expireSilentPeers(uint64_t nowNs) {
  for (size_t peer = 0; peer < peers_.size(); ++peer) {
    if (!peers_[peer].heard || nowNs - peers_[peer].lastHeardNs < kPeerSilenceNs) continue;
    std::fprintf(stderr, "rhyddal: bridge: %s is silent; its nodes count as unreachable\n",
                 map_.hosts()[peer].endpoint.c_str());
    forget(static_cast<uint8_t>(peer));
  }
}

bool BridgeInbound::allPeersHeard() const {
  for (size_t peer = 0; peer < peers_.size(); ++peer) {
    if (peer != ownHost_ && !peers_[peer].heard) return false;
  }
  return true;
}

// The routing id is the peer's endpoint, compared as bytes: it need not be a C string.
uint8_t BridgeInbound::peerOf(const Frame& routingId) const {
  const std::vector<MappedHost>& hosts = map_.hosts();
  for (size_t host = 0; host < hosts.size(); ++host) {
    const std::string& endpoint = hosts[host].endpoint;
    if (host != ownHost_ && endpoint.size() == routingId.size &&
        std::memcmp(endpoint.data(), routingId.data, routingId.size) == 0) {
      return static_cast<uint8_t>(host);
    }
  }
  return NodeMap::kNoHost;
}

void BridgeInbound::handleMessage(uint8_t peer, uint16_t origin, const Frame& message, uint64_t nowNs) {
  const ArrivalCheck check = checkArrivingMessage(map_, ownHost_, peer, origin, message.data, message.size);
  if (check != ArrivalCheck::kDeliver) {
    dropped_.report(nowNs, "bridge dropped a message of %zu bytes from node 0x%04x at %s: %s", message.size,
                    static_cast<unsigned>(origin), map_.hosts()[peer].endpoint.c_str(), reasonOf(check));
    return;
  }
  markSpeaking(peer, origin);
  deliver_(nidOf(sysComReceiver(message.data)), origin, message.data, static_cast<uint32_t>(message.size));
}

// A node that speaks runs, whatever its host last said: its host names it in the next list only,
// up to kAnnouncePeriodNs later, and the answer to a new node's first message must not fail. Kept
// in the host's list, so a list without it clears it again.
void BridgeInbound::markSpeaking(uint8_t peer, uint16_t origin) {
  if (remote_.reachable(origin)) return;
  std::vector<uint16_t>& live = peers_[peer].live;
  live.insert(std::lower_bound(live.begin(), live.end(), origin), origin);
  remote_.set(origin, true);
}

// Bits of nodes that are new are set before those of nodes that have gone are cleared, so a node
// running all along never reads unreachable in between.
void BridgeInbound::handleLiveNodes(uint8_t peer, const Frame& body, uint16_t aliases, uint64_t nowNs) {
  const auto* bytes = static_cast<const uint8_t*>(body.data);
  std::vector<uint16_t> live(body.size / kNidBytes);
  for (size_t i = 0; i < live.size(); ++i) live[i] = static_cast<uint16_t>(bytes[2 * i] | bytes[2 * i + 1] << 8);
  const bool allThePeers =
      std::all_of(live.begin(), live.end(), [&](uint16_t nid) { return map_.hostOf(nid) == peer; });
  if (body.size % kNidBytes != 0 || !allThePeers || aliases > live.size()) {
    dropped_.report(nowNs, "bridge dropped a list of running nodes from %s that is not a list of its own node ids",
                    map_.hosts()[peer].endpoint.c_str());
    return;
  }
  // An id listed both ways is a node: a node started at an alias's id takes it over.
  const size_t nodes = live.size() - aliases;
  for (size_t i = 0; i < live.size(); ++i) {
    if (i >= nodes) remote_.setAlias(live[i], true);
  }
  for (size_t i = 0; i < nodes; ++i) remote_.setAlias(live[i], false);
  std::sort(live.begin(), live.end());
  live.erase(std::unique(live.begin(), live.end()), live.end());
  Peer& known = peers_[peer];
  for (const uint16_t nid : live) remote_.set(nid, true);
  for (const uint16_t nid : known.live) {
    if (!std::binary_search(live.begin(), live.end(), nid)) forgetNode(nid);
  }
  if (!known.heard) {
    std::fprintf(stderr, "rhyddal: bridge: %s reached, %zu nodes running there\n", map_.hosts()[peer].endpoint.c_str(),
                 live.size());
  }
  known.live.swap(live);
  known.heard = true;
  known.lastHeardNs = nowNs;
}

void BridgeInbound::forgetNode(uint16_t nid) {
  remote_.set(nid, false);
  remote_.setAlias(nid, false);
}

void BridgeInbound::forget(uint8_t peer) {
  Peer& known = peers_[peer];
  for (const uint16_t nid : known.live) forgetNode(nid);
  known = Peer{};
}

}  // namespace rhyddal
