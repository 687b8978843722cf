// The host's bridge to the nodes of other hosts, over ZeroMQ.
//
// One per host, not per node: every node process of a host with a map (RHYDDAL_NODE_MAP) starts a
// candidate thread, and the one that wins the flock on "<prefix>bridge.lock" runs the bridge; when
// its process dies the kernel hands the lock to another candidate, which starts afresh.
//
// Local senders never touch a socket: a send to a node id the map places on another host goes into
// the bridge's own shared-memory mailbox, exactly as to a local node, so it stays one copy and
// never blocks. The bridge has two threads, each owning one socket:
//   - outbound: drains the bridge mailbox onto a ROUTER socket connected to every other host
//     (ZMQ_CONNECT_ROUTING_ID: the peer's endpoint; ZMQ_ROUTER_MANDATORY and ZMQ_DONTWAIT, so a
//     host not connected or a full queue drops the message instead of waiting), and every
//     kAnnouncePeriodNs tells every host which of this host's nodes are running;
//   - inbound: a ROUTER socket bound to this host's endpoint; what arrives is checked
//     (BridgeInbound) and written into the receiver's mailbox through the bridge's own lane, so
//     the receiving node's empty poll stays free of system calls and its wait wakes as for any
//     local sender. The lists of running nodes feed RemoteNodes, which senders read.
// Beside each message goes the node id its sending process serves (WireEnvelope), the only node
// the receiving side lets that host speak as. With keys in the map the links use CURVE, and only
// hosts holding a key of the map get in (BridgeCurve).
#pragma once

#include <cstdint>
#include <memory>

#include "NodeMap.h"

namespace rhyddal {

struct BridgeSettings {
  std::shared_ptr<const NodeMap> map;  // null: no map, no bridge
  uint8_t ownHost = NodeMap::kNoHost;
  uint32_t laneBytes = 0;
};

// The map RHYDDAL_NODE_MAP names, for a node serving ownNid. Returns 0 with settings->map null
// when the variable is unset or empty; 0 with the map and this host; -EINVAL after lines on stderr
// when the map does not parse, does not place ownNid, or has keys that are incomplete or not this
// host's (curveKeysProblem).
// The setting naming the node map file.
inline constexpr char kNodeMapVariable[] = "RHYDDAL_NODE_MAP";

int nodeMapFromEnvironment(uint16_t ownNid, BridgeSettings* settings);

// Starts this process's candidate thread; later calls do nothing.
void startBridgeCandidate(const BridgeSettings& settings);
// In a forked child: the candidate did not come along, and the child must not keep the parent's
// bridge lock alive through an inherited descriptor.
void forgetBridgeAfterFork();

}  // namespace rhyddal
