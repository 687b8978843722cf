// The tool as a node of the system for one command: its node id, its requests to the nodes and
// the waiting for their answers, with the errors an operator is told.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "CommandLine.h"
#include "WireClient.h"

namespace Olmctl {

class Session {
 public:
  using Clock = WireClient::Clock;

  explicit Session(const CommonOptions& options) : m_options(options) {}

  // Takes the tool's node id (--nid, or the first free of the tool's range); false with error.
  bool open(std::string& error);
  const CommonOptions& options() const { return m_options; }
  WireClient& client() { return *m_client; }
  uint16_t nid() const { return m_client->nid(); }
  // Where answers to the tool go: its node id and the tool's CPID.
  uint32_t address() const;

  // Sends from the tool's address; false with error when the message cannot be sent ("node
  // 0x1011 is not running" when no node runs at the receiver's node id).
  bool send(uint16_t id, uint32_t receiver, const void* payload, uint32_t size, std::string& error);
  bool send(uint16_t id, uint32_t receiver, const std::vector<uint32_t>& words, std::string& error);

  // A send that starts the wait for its answers: await then waits up to the timeout from here.
  bool request(uint16_t id, uint32_t receiver, const std::vector<uint32_t>& words, std::string& error);
  // The next message wanted accepts within the timeout of the last request; false with
  // "no answer from <whom> within <n> ms" in error.
  bool await(const WireClient::Wanted& wanted, const std::string& whom, WireClient::Message& message,
             std::string& error);

  // The next message wanted accepts before deadline. False when the deadline passed, and when an
  // interruption woke the wait (see Interruption.h); a later call waits again.
  bool next(const WireClient::Wanted& wanted, Clock::time_point deadline, WireClient::Message& message);
  // Waits until deadline, dropping what arrives; false when an interruption ended the wait early.
  bool pause(Clock::time_point deadline);

 private:
  CommonOptions m_options;
  std::unique_ptr<WireClient> m_client;
  Clock::time_point m_deadline;
};

// "node 0x1011 is not running" for the platform's -EHOSTUNREACH, else what the errno says.
std::string sendFailure(uint16_t nid, int result);
// "no answer from <whom> within <n> ms".
std::string noAnswer(const std::string& whom, uint32_t timeoutMs);

}  // namespace Olmctl
