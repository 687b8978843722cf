#include "Session.h"

#include <cerrno>
#include <cstring>

#include "Output.h"

namespace Olmctl {

namespace {

// Answers come to this CPID of the tool's node.
constexpr uint16_t kToolCpid = 0x0700;

std::string claimFailure(int error) {
  return error == -EADDRINUSE ? std::string("another process serves it") : std::strerror(-error);
}

}  // namespace

bool Session::open(std::string& error) {
  if (m_options.ownNid) {
    m_client = std::make_unique<WireClient>(*m_options.ownNid);
    if (m_client->ok()) return true;
    error = "cannot take node id " + nidText(*m_options.ownNid) + " for the tool: " + claimFailure(m_client->error());
    return false;
  }
  m_client = std::make_unique<WireClient>(kFirstToolNid, kLastToolNid);
  if (m_client->ok()) return true;
  error = m_client->error() == -EADDRINUSE ? "node ids " + nidText(kFirstToolNid) + " to " + nidText(kLastToolNid) +
                                                 " are all in use: give the tool a free one with --nid"
                                           : "cannot take a node id for the tool: " + claimFailure(m_client->error());
  return false;
}

uint32_t Session::address() const { return sicad(m_client->nid(), kToolCpid); }

bool Session::request(uint16_t id, uint32_t receiver, const std::vector<uint32_t>& words, std::string& error) {
  const uint16_t node = static_cast<uint16_t>(receiver >> 16);
  const int result = m_client->send(id, receiver, address(), words);
  m_deadline = WireClient::Clock::now() + std::chrono::milliseconds(m_options.timeoutMs);
  if (result == 0) return true;
  error = result == -EHOSTUNREACH ? "no node " + nidText(node) + " is running"
                                  : "cannot send to node " + nidText(node) + ": " + std::strerror(-result);
  return false;
}

bool Session::await(const WireClient::Wanted& wanted, const std::string& whom, WireClient::Message& message,
                    std::string& error) {
  if (m_client->receive(wanted, m_deadline, message)) return true;
  error = "no answer from " + whom + " within " + std::to_string(m_options.timeoutMs) + " ms";
  return false;
}

}  // namespace Olmctl
