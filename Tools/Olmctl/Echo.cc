#include "Echo.h"

#include <random>

namespace Olmctl {

namespace {

constexpr size_t kEchoWords = 2;

uint32_t freshToken() {
  std::random_device device;
  return device();
}

}  // namespace

std::vector<uint32_t> echoPayload(uint32_t token, uint32_t sequence) { return {token, sequence}; }

std::optional<EchoReply> echoReply(const WireClient::Message& message, uint32_t token) {
  if (message.id != kEchoMsgId || (message.sender & 0xFFFFu) != kStatisticsCpid) return std::nullopt;
  const std::vector<uint32_t> words = message.words();
  if (words.size() != kEchoWords || words[0] != token) return std::nullopt;
  return EchoReply{static_cast<uint16_t>(message.sender >> 16), words[1]};
}

EchoProbe::EchoProbe(Session& session) : m_session(session), m_token(freshToken()) {}

bool EchoProbe::send(uint16_t nid, uint32_t sequence, std::string& error) {
  return m_session.send(kEchoMsgId, sicad(nid, kStatisticsCpid), echoPayload(m_token, sequence), error);
}

std::optional<EchoReply> EchoProbe::next(Session::Clock::time_point deadline) {
  const uint32_t token = m_token;
  WireClient::Message message;
  if (!m_session.next([token](const WireClient::Message& m) { return echoReply(m, token).has_value(); }, deadline,
                      message)) {
    return std::nullopt;
  }
  return echoReply(message, token);
}

std::vector<RoundTrip> EchoProbe::roundTrips(const std::vector<uint16_t>& nids, Session::Clock::time_point deadline) {
  const uint32_t round = ++m_round;
  std::vector<RoundTrip> trips;
  std::vector<Session::Clock::time_point> sentAt;
  size_t awaited = 0;
  for (const uint16_t nid : nids) {
    RoundTrip trip{nid, std::nullopt, ""};
    sentAt.push_back(Session::Clock::now());
    if (send(nid, round, trip.failure)) ++awaited;
    trips.push_back(trip);
  }
  while (awaited != 0) {
    const std::optional<EchoReply> reply = next(deadline);
    if (!reply) break;
    const Session::Clock::time_point arrived = Session::Clock::now();
    for (size_t i = 0; i < trips.size(); ++i) {
      RoundTrip& trip = trips[i];
      if (trip.nid != reply->nid || reply->sequence != round || trip.time || !trip.failure.empty()) continue;
      trip.time = std::chrono::duration_cast<RoundTripTime>(arrived - sentAt[i]);
      --awaited;
    }
  }
  return trips;
}

}  // namespace Olmctl
