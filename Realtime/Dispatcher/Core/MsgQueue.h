// A ring of 1024 message pointers: one of the Dispatcher's three priority queues. Holds at most
// 1023 messages (one slot stays free to tell full from empty).
#pragma once

#include <cstdint>

namespace Olm {

class MsgQueue {
 public:
  static constexpr uint32_t kSlots = 1024;
  static constexpr uint32_t kIndexMask = kSlots - 1;

  bool isEmpty() const { return m_head == m_tail; }
  bool isFull() const { return ((m_tail + 1) & kIndexMask) == m_head; }
  uint32_t count() const { return (m_tail - m_head) & kIndexMask; }
  uint32_t getHead() const { return m_head; }
  uint32_t getTail() const { return m_tail; }

  // The caller checks isFull first.
  void push(void* msg) {
    m_slots[m_tail] = msg;
    m_tail = (m_tail + 1) & kIndexMask;
  }
  // Null when empty.
  void* pop() {
    if (isEmpty()) return nullptr;
    void* msg = m_slots[m_head];
    m_head = (m_head + 1) & kIndexMask;
    return msg;
  }

 private:
  void* m_slots[kSlots] = {};
  uint32_t m_head = 0;  // oldest
  uint32_t m_tail = 0;  // next free
};

}  // namespace Olm
