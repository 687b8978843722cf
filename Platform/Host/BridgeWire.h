// What the bridges of two hosts send each other. Every ZeroMQ message starts with the routing id
// of its peer (the host's endpoint as written in the map), then either
//   - one frame: a SysCom message, its bytes as they are (the header gives receiver, sender and
//     total length, host order on both sides), or
//   - two frames: kLiveNodesTag (one byte), then the sending host's running node ids, two bytes
//     each, low byte first. Sent every kAnnouncePeriodNs to every other host.
// A host whose bridge has not been heard for kPeerSilenceNs counts as down.
#pragma once

#include <cstddef>
#include <cstdint>

namespace rhyddal {

constexpr uint8_t kLiveNodesTag = 1;
constexpr uint64_t kAnnouncePeriodNs = 100 * 1000 * 1000;
// Thirty announcements: a host whose bridge is only slow (starved of CPU) is not taken for down.
constexpr uint64_t kPeerSilenceNs = uint64_t{3000} * 1000 * 1000;

struct Frame {
  const void* data;
  size_t size;
};

}  // namespace rhyddal
