// A program without a runtime on the host platform: it serves a node id of its own and speaks
// SysCom messages directly, as the operator tool does and as the integration tests' stand-ins for
// peers do.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <vector>

namespace Olmctl {

class WireClient {
 public:
  using Clock = std::chrono::steady_clock;

  struct Message {
    uint16_t id = 0;
    uint32_t receiver = 0;
    uint32_t sender = 0;
    uint16_t flags = 0;
    std::vector<uint8_t> payload;
    // The payload as 32-bit words in host order, converted from the byte order the header's APF
    // names; a partial last word is left out.
    std::vector<uint32_t> words() const;
  };
  using Wanted = std::function<bool(const Message&)>;

  // Serves nid; error() says why not (the platform's negated errno).
  explicit WireClient(uint16_t nid);
  // Serves the first node id of first..last that the platform grants, so that several programs
  // can run at once; error() is the last refusal when none was free.
  WireClient(uint16_t first, uint16_t last);
  WireClient(const WireClient&) = delete;
  WireClient& operator=(const WireClient&) = delete;

  bool ok() const { return m_error == 0; }
  int error() const { return m_error; }
  uint16_t nid() const { return m_nid; }

  // A buffer with a header in host order (APF 1) for a payload of size bytes, the payload left to
  // the caller; null when no buffer is left or the payload is too large for a message.
  static void* newMessage(uint16_t id, uint32_t receiver, uint32_t sender, uint32_t size);
  // A message in host order with the payload given: 0, or the platform's negated errno
  // (-EHOSTUNREACH: no node runs at the receiver's node id).
  int send(uint16_t id, uint32_t receiver, uint32_t sender, const void* payload, uint32_t size);
  int send(uint16_t id, uint32_t receiver, uint32_t sender, const std::vector<uint32_t>& words);
  // The next message to this node that wanted accepts, dropping the others (system log lines,
  // questions meant for nodes with a runtime); false when none came before the deadline.
  bool receive(const Wanted& wanted, Clock::time_point deadline, Message& message);

 private:
  bool claim(uint16_t nid);

  uint16_t m_nid = 0;
  int m_error = 0;
};

// SIC address: node id in the high half, CPID in the low.
constexpr uint32_t sicad(uint16_t nid, uint16_t cpid) { return (uint32_t{nid} << 16) | cpid; }

}  // namespace Olmctl
