// An in-memory message port for unit tests: buffers come from a BufferPool (liveBuffers,
// doubleFrees, failAllocations, makeMessage); sent messages and waits are recorded.
#pragma once

#include <deque>
#include <utility>
#include <vector>

#include "BufferPool.h"
#include "IMsgPort.h"

namespace OlmTest {

class FakeMsgPort : public Olm::IMsgPort, public BufferPool {
 public:
  void* allocMsg(size_t size) override { return allocate(size); }
  void freeMsg(void* msg) override { release(msg); }
  void* recvMsg() override;
  void sendMsg(void* msg) override;
  void waitForNextEvent(unsigned int seconds, unsigned int nanoseconds) override;

  // Queues a message for recvMsg; it must come from allocMsg.
  void deliver(void* msg) { m_incoming.push_back(msg); }

  // Messages handed to sendMsg, still owned by the fake until its destructor.
  const std::vector<void*>& sent() const { return m_sent; }
  // Frees every message sent so far and forgets it (a long run that must not grow).
  void releaseSent();
  const std::vector<std::pair<unsigned, unsigned>>& waits() const { return m_waits; }

 private:
  std::deque<void*> m_incoming;
  std::vector<void*> m_sent;
  std::vector<std::pair<unsigned, unsigned>> m_waits;
};

}  // namespace OlmTest
