#include "Session.h"

#include <cerrno>
#include <cstring>

#include "Interruption.h"
#include "Output.h"
#include "RhyddalHost.h"

// The board's platform library has no node map: there the tool's ids are the usual ones.
extern "C" RHYDDAL_HOST_OPTIONAL int rhyddal_host_is_on_this_host(uint32_t nid);

namespace Olmctl {

namespace {

// Answers come to this CPID of the tool's node.
constexpr uint16_t kToolCpid = 0x0700;

std::string claimFailure(int error) {
  return error == -EADDRINUSE ? std::string("another process serves it") : std::strerror(-error);
}

// The tool's ids of the first block the node map places on this host; the usual ones without a
// map, or while no bridge of this host tells which host it is.
uint16_t firstToolNidOfThisHost() {
  if (rhyddal_host_is_on_this_host == nullptr) return kFirstToolNid;
  for (uint32_t first = kFirstToolNid; first <= 0xFFFF; first += kToolNidBlock) {
    const int here = rhyddal_host_is_on_this_host(first);
    if (here < 0) return kFirstToolNid;
    if (here == 1 && rhyddal_host_is_on_this_host(first + (kLastToolNid - kFirstToolNid)) == 1) {
      return static_cast<uint16_t>(first);
    }
  }
  return kFirstToolNid;
}

}  // namespace

std::string sendFailure(uint16_t nid, int result) {
  return result == -EHOSTUNREACH ? "node " + nidText(nid) + " is not running"
                                 : "cannot send to node " + nidText(nid) + ": " + std::strerror(-result);
}

std::string noAnswer(const std::string& whom, uint32_t timeoutMs) {
  return "no answer from " + whom + " within " + std::to_string(timeoutMs) + " ms";
}

bool Session::open(std::string& error) {
  if (m_options.ownNid) {
    m_client = std::make_unique<WireClient>(*m_options.ownNid);
    if (m_client->ok()) return true;
    error = "cannot take node id " + nidText(*m_options.ownNid) + " for the tool: " + claimFailure(m_client->error());
    return false;
  }
  const uint16_t first = firstToolNidOfThisHost();
  const auto last = static_cast<uint16_t>(first + (kLastToolNid - kFirstToolNid));
  m_client = std::make_unique<WireClient>(first, last);
  if (m_client->ok()) return true;
  error = m_client->error() == -EADDRINUSE ? "node ids " + nidText(first) + " to " + nidText(last) +
                                                 " are all in use: give the tool a free one with --nid"
                                           : "cannot take a node id for the tool: " + claimFailure(m_client->error());
  return false;
}

uint32_t Session::address() const { return sicad(m_client->nid(), kToolCpid); }

bool Session::send(uint16_t id, uint32_t receiver, const void* payload, uint32_t size, std::string& error) {
  const int result = m_client->send(id, receiver, address(), payload, size);
  if (result == 0) return true;
  error = sendFailure(static_cast<uint16_t>(receiver >> 16), result);
  return false;
}

bool Session::send(uint16_t id, uint32_t receiver, const std::vector<uint32_t>& words, std::string& error) {
  return send(id, receiver, words.data(), static_cast<uint32_t>(words.size() * sizeof(uint32_t)), error);
}

bool Session::request(uint16_t id, uint32_t receiver, const std::vector<uint32_t>& words, std::string& error) {
  m_deadline = Clock::now() + std::chrono::milliseconds(m_options.timeoutMs);
  return send(id, receiver, words, error);
}

bool Session::await(const WireClient::Wanted& wanted, const std::string& whom, WireClient::Message& message,
                    std::string& error) {
  if (m_client->receive(wanted, m_deadline, message)) return true;
  error = noAnswer(whom, m_options.timeoutMs);
  return false;
}

bool Session::next(const WireClient::Wanted& wanted, Clock::time_point deadline, WireClient::Message& message) {
  const uint32_t own = address();
  const auto wantedOrWakeUp = [&](const WireClient::Message& candidate) {
    return isWakeUp(candidate, own) || wanted(candidate);
  };
  return m_client->receive(wantedOrWakeUp, deadline, message) && !isWakeUp(message, own);
}

bool Session::pause(Clock::time_point deadline) {
  WireClient::Message ignored;
  next([](const WireClient::Message&) { return false; }, deadline, ignored);
  return !interrupted();
}

}  // namespace Olmctl
