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
  explicit Session(const CommonOptions& options) : m_options(options) {}

  // Takes the tool's node id (--nid, or the first free of the tool's range); false with error.
  bool open(std::string& error);
  // Where answers to the tool go: its node id and the tool's CPID.
  uint32_t address() const;

  // Sends a request to receiver and starts the wait for its answers; false with error when the
  // message cannot be sent (no node runs at that node id, for one).
  bool request(uint16_t id, uint32_t receiver, const std::vector<uint32_t>& words, std::string& error);
  // The next message wanted accepts within the timeout of the last request; false with
  // "no answer from <whom> within <n> ms" in error.
  bool await(const WireClient::Wanted& wanted, const std::string& whom, WireClient::Message& message,
             std::string& error);

 private:
  CommonOptions m_options;
  std::unique_ptr<WireClient> m_client;
  WireClient::Clock::time_point m_deadline;
};

}  // namespace Olmctl
