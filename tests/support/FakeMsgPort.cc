#include "FakeMsgPort.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>

namespace OlmTest {

FakeMsgPort::~FakeMsgPort() {
  for (void* msg : m_live) std::free(msg);
}

void* FakeMsgPort::allocMsg(size_t size) {
  if (m_failAllocations) return nullptr;
  void* msg = std::calloc(1, size < 16 ? 16 : size);
  m_live.insert(msg);
  return msg;
}

void FakeMsgPort::freeMsg(void* msg) {
  if (msg == nullptr) return;
  if (m_live.erase(msg) == 0) {
    ++m_doubleFrees;
    return;
  }
  std::free(msg);
}

void* FakeMsgPort::recvMsg() {
  if (m_incoming.empty()) return nullptr;
  void* msg = m_incoming.front();
  m_incoming.pop_front();
  return msg;
}

void FakeMsgPort::sendMsg(void* msg) {
  if (msg != nullptr) m_sent.push_back(msg);
}

void FakeMsgPort::waitForNextEvent(unsigned int seconds, unsigned int nanoseconds) {
  m_waits.emplace_back(seconds, nanoseconds);
}

void* FakeMsgPort::makeMessage(unsigned short id, unsigned int receiver, unsigned int sender,
                               unsigned short payloadSize) {
  const uint16_t total = static_cast<uint16_t>(16 + payloadSize);
  auto* msg = static_cast<uint8_t*>(allocMsg(total));
  const uint16_t flags = 0x0004;
  std::memcpy(msg + 0, &id, 2);
  std::memcpy(msg + 4, &receiver, 4);
  std::memcpy(msg + 8, &sender, 4);
  std::memcpy(msg + 12, &flags, 2);
  std::memcpy(msg + 14, &total, 2);
  return msg;
}

}  // namespace OlmTest
