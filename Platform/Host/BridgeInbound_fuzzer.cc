// libFuzzer target: arbitrary ZeroMQ messages through the bridge's handling of what other hosts
// send. Input, read front to back: a byte choosing the map (bit 0: with keys, else plain links),
// then per message a choice byte (bits 0-1: the routing id, a host of the map or, with 3, bytes of
// the input; bit 2: the second frame a well-formed envelope of a kind and node id from the input;
// bits 3-4: the connection's key, none or the key of host 0, 1 or 2), a frame count, then per frame
// a two-byte length and its bytes, and a clock step. Every frame is a heap block of exactly its
// size, so AddressSanitizer sees any byte read past it; a delivered message must be exactly as long
// as its header says, addressed to a node of this host, spoken by a node of the host that sent it,
// and with keys come over a connection with that host's key.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "BridgeInbound.h"
#include "FuzzInput.h"
#include "SysComFields.h"

namespace {

using namespace rhyddal;

constexpr uint8_t kOwnHost = 1;
constexpr size_t kMaxFrames = 5;
constexpr uint64_t kClockStepNs = 50 * 1000 * 1000;
constexpr uint8_t kRoutingIdFromInput = 3;
constexpr uint8_t kEnvelopeBit = 4;
constexpr unsigned kKeyShift = 3;
constexpr uint8_t kNoKey = 0;
constexpr char kHostLines[] =
    "0x1000-0x1fff tcp://127.0.0.1:5601 %s\n"
    "0x2000-0x2fff tcp://127.0.0.1:5602 %s\n"
    "0x0000-0x00ff ipc:///tmp/h3 %s\n";
const std::string kKeys[] = {std::string(40, 'a'), std::string(40, 'b'), std::string(40, 'c')};

struct Sent {
  const NodeMap* map = nullptr;
  uint8_t peer = NodeMap::kNoHost;  // the host the routing id names
  const char* key = nullptr;
};
Sent current;

NodeMap parsedMap(bool keyed) {
  char text[sizeof(kHostLines) + 3 * 40];
  std::snprintf(text, sizeof(text), kHostLines, keyed ? kKeys[0].c_str() : "", keyed ? kKeys[1].c_str() : "",
                keyed ? kKeys[2].c_str() : "");
  NodeMap parsed;
  std::vector<std::string> errors;
  if (!NodeMap::parse(text, &parsed, &errors)) std::abort();
  return parsed;
}

const NodeMap& theMap(bool keyed) {
  static const NodeMap plain = parsedMap(false), withKeys = parsedMap(true);
  return keyed ? withKeys : plain;
}

void checkDelivery(uint16_t nid, uint16_t origin, const void* message, uint32_t length) {
  const NodeMap& map = *current.map;
  std::vector<uint8_t> copy(length);
  std::memcpy(copy.data(), message, length);  // every byte readable
  if (length < kSysComHeaderBytes || sysComTotalLength(message) != length) std::abort();
  if (map.hostOf(nid) != kOwnHost || (sysComReceiver(message) >> 16) != nid) std::abort();
  if (current.peer == NodeMap::kNoHost || map.hostOf(origin) != current.peer) std::abort();
  if (map.hasKeys() && (current.key == nullptr || map.hosts()[current.peer].publicKey != current.key)) std::abort();
}

std::unique_ptr<uint8_t[]> frameBytes(OlmTest::FuzzInput& input, size_t size) {
  std::unique_ptr<uint8_t[]> bytes(new uint8_t[size == 0 ? 1 : size]);
  input.bytes(bytes.get(), size);
  return bytes;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  OlmTest::FuzzInput input(data, size);
  const NodeMap& map = theMap((input.byte() & 1) != 0);
  current.map = &map;
  std::unique_ptr<std::atomic<uint64_t>[]> words(new std::atomic<uint64_t>[RemoteNodes::kTotalWords]());
  RemoteNodes remote(words.get());
  BridgeInbound inbound(map, kOwnHost, remote, checkDelivery);
  uint64_t now = 0;
  while (!input.atEnd()) {
    const uint8_t choice = input.byte();
    const size_t count = 1 + input.byte() % kMaxFrames;
    std::vector<std::unique_ptr<uint8_t[]>> blocks;
    std::vector<Frame> frames;
    const uint8_t routing = choice % 4;
    const uint8_t key = (choice >> kKeyShift) % 4;
    current.peer = routing == kRoutingIdFromInput ? NodeMap::kNoHost : static_cast<uint8_t>(routing % map.hosts().size());
    current.key = key == kNoKey ? nullptr : kKeys[key - 1].c_str();
    for (size_t i = 0; i < count; ++i) {
      if (i == 1 && (choice & kEnvelopeBit) != 0) {
        const uint8_t tag = input.byte();
        const WireEnvelope envelope = wireEnvelope(static_cast<WireTag>(tag), input.word());
        blocks.emplace_back(new uint8_t[sizeof(envelope)]);
        std::memcpy(blocks.back().get(), &envelope, sizeof(envelope));
        frames.push_back(Frame{blocks.back().get(), sizeof(envelope)});
        continue;
      }
      std::string routingId;
      size_t length = input.word();
      if (i == 0 && current.peer != NodeMap::kNoHost) {
        routingId = map.hosts()[current.peer].endpoint;
        length = routingId.size();
      }
      blocks.push_back(frameBytes(input, length));
      if (!routingId.empty()) std::memcpy(blocks.back().get(), routingId.data(), length);
      frames.push_back(Frame{blocks.back().get(), length});
    }
    inbound.handle(frames.data(), frames.size(), current.key, now);
    now += input.byte() * kClockStepNs;
    inbound.expireSilentPeers(now);
  }
  // Whatever the lists said, only node ids of the other hosts can have become reachable.
  for (uint32_t nid = 0; nid <= 0xFFFF; ++nid) {
    const uint8_t host = map.hostOf(static_cast<uint16_t>(nid));
    if (remote.reachable(static_cast<uint16_t>(nid)) && (host == kOwnHost || host == NodeMap::kNoHost)) std::abort();
  }
  return 0;
}
