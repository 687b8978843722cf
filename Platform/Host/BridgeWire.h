// What the bridges of two hosts send each other. Every ZeroMQ message is three frames:
//   - the routing id of its peer (the host's endpoint as written in the map);
//   - a WireEnvelope: the protocol version, what the message is, and for a SysCom message the node
//     id speaking (the node the sending process serves, whatever the header's sender says);
//   - the body: for kMessage a SysCom message, its bytes as they are (the header gives receiver,
//     sender and total length, host order on both sides); for kLiveNodes the node ids the sending
//     host receives for, two bytes each, low byte first, sent every kAnnouncePeriodNs to every
//     other host: its running nodes, then the aliases its nodes hold (rhyddal_host_alias), whose
//     number the envelope's origin field holds.
// A host whose bridge has not been heard for kPeerSilenceNs counts as down.
#pragma once

#include <cstddef>
#include <cstdint>

namespace rhyddal {

constexpr uint8_t kWireVersion = 1;
constexpr uint64_t kAnnouncePeriodNs = 100 * 1000 * 1000;
// Thirty announcements: a host whose bridge is only slow (starved of CPU) is not taken for down.
constexpr uint64_t kPeerSilenceNs = uint64_t{3000} * 1000 * 1000;

enum class WireTag : uint8_t { kLiveNodes = 1, kMessage = 2 };

// Bytes only, so it is the same on every build and needs no alignment.
struct WireEnvelope {
  uint8_t version;
  uint8_t tag;         // WireTag
  uint8_t origin[2];   // kMessage: the speaking node id; kLiveNodes: how many aliases end the list; low byte first
};

static_assert(sizeof(WireEnvelope) == 4 && alignof(WireEnvelope) == 1, "envelope layout");
static_assert(offsetof(WireEnvelope, tag) == 1 && offsetof(WireEnvelope, origin) == 2, "envelope layout");

constexpr WireEnvelope wireEnvelope(WireTag tag, uint16_t origin) {
  return WireEnvelope{kWireVersion, static_cast<uint8_t>(tag),
                      {static_cast<uint8_t>(origin), static_cast<uint8_t>(origin >> 8)}};
}

constexpr uint16_t originOf(const WireEnvelope& envelope) {
  return static_cast<uint16_t>(envelope.origin[0] | envelope.origin[1] << 8);
}

struct Frame {
  const void* data;
  size_t size;
};

}  // namespace rhyddal
