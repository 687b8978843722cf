// An in-memory message port for unit tests: buffers come from the heap and are tracked, so a test
// can assert that nothing leaked or was freed twice; sent messages and waits are recorded.
#pragma once

#include <cstddef>
#include <deque>
#include <set>
#include <utility>
#include <vector>

#include "IMsgPort.h"

namespace OlmTest {

class FakeMsgPort : public Olm::IMsgPort {
 public:
  ~FakeMsgPort() override;

  void* allocMsg(size_t size) override;
  void freeMsg(void* msg) override;
  void* recvMsg() override;
  void sendMsg(void* msg) override;
  void waitForNextEvent(unsigned int seconds, unsigned int nanoseconds) override;

  // Queues a message for recvMsg; it must come from allocMsg.
  void deliver(void* msg) { m_incoming.push_back(msg); }
  // A copy of a SysCom message made with allocMsg, for deliver.
  void* makeMessage(unsigned short id, unsigned int receiver, unsigned int sender,
                    unsigned short payloadSize = 4);

  // Messages handed to sendMsg, still owned by the fake until its destructor.
  std::vector<void*>& sent() { return m_sent; }
  const std::vector<std::pair<unsigned, unsigned>>& waits() const { return m_waits; }
  size_t liveBuffers() const { return m_live.size(); }
  size_t doubleFrees() const { return m_doubleFrees; }
  // Makes the next allocations fail.
  void failAllocations(bool fail) { m_failAllocations = fail; }

 private:
  std::set<void*> m_live;
  std::deque<void*> m_incoming;
  std::vector<void*> m_sent;
  std::vector<std::pair<unsigned, unsigned>> m_waits;
  size_t m_doubleFrees = 0;
  bool m_failAllocations = false;
};

}  // namespace OlmTest
