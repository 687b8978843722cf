#include "BufferPool.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>

namespace OlmTest {

namespace {
// Even a request for less gets room for a whole header, so a header written into it stays inside.
constexpr size_t kSmallestBuffer = 16;
constexpr uint16_t kHostOrderFlags = 0x0004;
}  // namespace

BufferPool::~BufferPool() {
  for (void* msg : m_live) std::free(msg);
}

void* BufferPool::allocate(size_t size) {
  if (m_failAllocations) return nullptr;
  void* msg = std::calloc(1, size < kSmallestBuffer ? kSmallestBuffer : size);
  m_live.insert(msg);
  return msg;
}

void BufferPool::release(void* msg) {
  if (msg == nullptr) return;
  if (m_live.erase(msg) == 0) {
    ++m_doubleFrees;
    return;
  }
  std::free(msg);
}

void* BufferPool::makeMessage(unsigned short id, unsigned int receiver, unsigned int sender,
                              unsigned short payloadSize) {
  const uint16_t total = static_cast<uint16_t>(16 + payloadSize);
  auto* msg = static_cast<uint8_t*>(allocate(total));
  std::memcpy(msg + 0, &id, 2);
  std::memcpy(msg + 4, &receiver, 4);
  std::memcpy(msg + 8, &sender, 4);
  std::memcpy(msg + 12, &kHostOrderFlags, 2);
  std::memcpy(msg + 14, &total, 2);
  return msg;
}

}  // namespace OlmTest
