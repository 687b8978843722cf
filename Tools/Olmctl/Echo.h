// Round trips through the nodes' statistics EUs (CPID 0x0610), which send every message back to
// its sender, unchanged but for the addresses: the cheapest way to see that a node's Dispatcher
// runs, and how long it takes to answer.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "Session.h"
#include "WireClient.h"

namespace Olmctl {

constexpr uint16_t kStatisticsCpid = 0x0610;
// Any id but the statistics EU's own timer ticks (10 and 11) comes back.
constexpr uint16_t kEchoMsgId = 0x7FFD;

struct EchoReply {
  uint16_t nid;
  uint32_t sequence;
};

// An echo's payload: the run's token, which tells this run's echoes from those of an earlier tool
// that had the same node id, and the sequence number.
std::vector<uint32_t> echoPayload(uint32_t token, uint32_t sequence);
// The echo of this run that message brings back; nothing for any other message.
std::optional<EchoReply> echoReply(const WireClient::Message& message, uint32_t token);

using RoundTripTime = std::chrono::microseconds;

// What one node did with its echo.
struct RoundTrip {
  uint16_t nid = 0;
  std::optional<RoundTripTime> time;  // when it answered
  std::string failure;                // when the echo could not be sent: why
};

class EchoProbe {
 public:
  explicit EchoProbe(Session& session);

  // Sends echo number sequence to the node; false with error when it cannot be sent.
  bool send(uint16_t nid, uint32_t sequence, std::string& error);
  // The next reply to one of this probe's echoes before deadline; nothing when the deadline passed
  // or an interruption woke the wait.
  std::optional<EchoReply> next(Session::Clock::time_point deadline);

  // One echo to every node at once, then the answers collected until all came or the deadline
  // passed (or an interruption). One entry per node, in the order given.
  std::vector<RoundTrip> roundTrips(const std::vector<uint16_t>& nids, Session::Clock::time_point deadline);

 private:
  Session& m_session;
  uint32_t m_token;
  uint32_t m_round = 0;
};

}  // namespace Olmctl
