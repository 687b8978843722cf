// The bridge's handling of what arrives from other hosts, apart from the socket so the fuzz
// target can drive it: every frame is checked before it is used, and what does not pass is
// dropped with one line on stderr (rate-limited), never read past its end.
//
// A SysCom message is delivered only when its length agrees with its header, its receiver lives
// on this host and the node id speaking (the envelope's origin) on the host that sent it. The
// header's sender is not checked: a node passing a message on keeps the first sender there, who
// may live on a third host. A live-node list updates which of that host's node ids count as
// reachable (RemoteNodes), as does a message from a node not listed yet; a list naming a node id
// of another host is dropped whole. A host not heard from for kPeerSilenceNs loses all its
// reachable bits. With keys in the map, a message counts only when the key its connection was
// authenticated with is the key of the host it claims to be.
#pragma once

#include <cstdint>
#include <functional>
#include <vector>

#include "BridgeWire.h"
#include "NodeMap.h"
#include "RateLimitedReport.h"
#include "RemoteNodes.h"

namespace rhyddal {

enum class ArrivalCheck {
  kDeliver,
  kTooShort,           // shorter than a SysCom header
  kLengthDisagrees,    // the frame is not as long as the header's total length
  kReceiverNotHere,    // the receiver's node id is not placed on this host
  kOriginNotThePeers,  // the node id speaking is not placed on the host that sent it
};

ArrivalCheck checkArrivingMessage(const NodeMap& map, uint8_t ownHost, uint8_t peerHost, uint16_t origin,
                                  const void* bytes, size_t size);

class BridgeInbound {
 public:
  // Called for each message that passed, with its receiver's node id and the node id that spoke;
  // the message is valid only during the call.
  using Deliver = std::function<void(uint16_t nid, uint16_t origin, const void* message, uint32_t length)>;

  BridgeInbound(const NodeMap& map, uint8_t ownHost, RemoteNodes& remote, Deliver deliver);

  // One ZeroMQ message as the receiving socket hands it over: frames[0] the peer's routing id.
  // peerKey: with keys in the map, the public key (Z85) the connection was authenticated with, which
  // must be the key of the host the routing id names; null for plain links.
  void handle(const Frame* frames, size_t count, const char* peerKey, uint64_t nowNs);
  // Clears the bits of hosts silent for kPeerSilenceNs.
  void expireSilentPeers(uint64_t nowNs);
  // Whether every other host of the map has been heard (and not been silent since).
  bool allPeersHeard() const;

 private:
  struct Peer {
    bool heard = false;
    uint64_t lastHeardNs = 0;
    std::vector<uint16_t> live;  // sorted
  };

  uint8_t peerOf(const Frame& routingId) const;
  void handleMessage(uint8_t peer, uint16_t origin, const Frame& message, uint64_t nowNs);
  void markSpeaking(uint8_t peer, uint16_t origin);
  void handleLiveNodes(uint8_t peer, const Frame& body, uint16_t aliases, uint64_t nowNs);
  void forget(uint8_t peer);
  void forgetNode(uint16_t nid);

  const NodeMap& map_;
  const uint8_t ownHost_;
  const bool keyed_;
  RemoteNodes& remote_;
  const Deliver deliver_;
  std::vector<Peer> peers_;
  RateLimitedReport dropped_;
};

}  // namespace rhyddal
