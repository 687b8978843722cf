// The node's message transport as the Dispatcher sees it.
//
// Production: EMMsgPort over the platform's event machine (libRHYDDAL.so).
// Tests: a fake with in-memory queues that records what was sent, freed and waited for.
#pragma once

#include <cstddef>

namespace Olm {

class IMsgPort {
 public:
  virtual ~IMsgPort() = default;
  // A buffer of at least size bytes.
  virtual void* allocMsg(size_t size) = 0;
  // Releases a buffer; null is ignored.
  virtual void freeMsg(void* msg) = 0;
  // The next message addressed to this node, or null when none is waiting. Must be cheap: the
  // loop polls it every iteration.
  virtual void* recvMsg() = 0;
  // Transmits a message; the port owns it afterwards, also when the transmission fails.
  virtual void sendMsg(void* msg) = 0;
  // Blocks until an event arrives or the time has passed (0xFFFFFFFF seconds: no timer pending).
  virtual void waitForNextEvent(unsigned int seconds, unsigned int nanoseconds) = 0;
};

}  // namespace Olm
