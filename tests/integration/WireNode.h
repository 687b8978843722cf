// A node that the test itself serves on the host platform, speaking SysCom messages directly,
// without a runtime: a tool, or a stand-in for a peer, in a child process of the test. It is the
// operator tool's client (Tools/Olmctl/WireClient.h) with the tests' generous wait.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <vector>

#include "WireClient.h"

namespace OlmTest {

class WireNode {
 public:
  using Message = Olmctl::WireClient::Message;

  // Serves nid; ok() says whether the platform took it.
  explicit WireNode(uint16_t nid) : m_client(nid) {}
  bool ok() const { return m_client.ok(); }
  uint16_t nid() const { return m_client.nid(); }

  // A buffer with a header in host order (APF 1) for a payload of size bytes, the payload left to
  // the caller; null when no buffer is left.
  static void* newMessage(uint16_t id, uint32_t receiver, uint32_t sender, uint32_t size) {
    return Olmctl::WireClient::newMessage(id, receiver, sender, size);
  }
  // A message in host order (APF 1) with the payload given.
  bool send(uint16_t id, uint32_t receiver, uint32_t sender, const void* payload, uint32_t size) {
    return m_client.send(id, receiver, sender, payload, size) == 0;
  }
  bool send(uint16_t id, uint32_t receiver, uint32_t sender, const std::vector<uint32_t>& words) {
    return m_client.send(id, receiver, sender, words) == 0;
  }
  // The next message of that id to this node, dropping others (system log lines and the like);
  // false when none came within fifteen seconds.
  bool receive(uint16_t id, Message& message);
  // The next message of any id.
  bool receiveAny(Message& message);

 private:
  Olmctl::WireClient m_client;
};

// Runs body in a child process (startChild gives its id) and gives its exit status: body's result,
// or -1 when the child did not end normally. A failing body says why on standard error.
pid_t startChild(const std::function<int()>& body);
int exitStatusOf(pid_t child);
int exitStatusOfChild(const std::function<int()>& body);

}  // namespace OlmTest
