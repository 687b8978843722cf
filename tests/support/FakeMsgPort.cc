#include "FakeMsgPort.h"

namespace OlmTest {

void* FakeMsgPort::recvMsg() {
  if (m_incoming.empty()) return nullptr;
  void* msg = m_incoming.front();
  m_incoming.pop_front();
  return msg;
}

void FakeMsgPort::sendMsg(void* msg) {
  if (msg != nullptr) m_sent.push_back(msg);
}

void FakeMsgPort::releaseSent() {
  for (void* msg : m_sent) release(msg);
  m_sent.clear();
}

void FakeMsgPort::waitForNextEvent(unsigned int seconds, unsigned int nanoseconds) {
  m_waits.emplace_back(seconds, nanoseconds);
}

}  // namespace OlmTest
