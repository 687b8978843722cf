// Message buffers for the test fakes: from the heap and tracked, so a test can assert that
// nothing leaked or was freed twice. Whatever is still live when the pool goes is freed then.
#pragma once

#include <cstddef>
#include <set>

namespace OlmTest {

class BufferPool {
 public:
  BufferPool() = default;
  BufferPool(const BufferPool&) = delete;
  BufferPool& operator=(const BufferPool&) = delete;
  ~BufferPool();

  // Zeroed; null while allocations are made to fail.
  void* allocate(size_t size);
  // Null is ignored; a buffer that is not live counts as a double free and is left alone.
  void release(void* msg);
  // Counts a free the pool refuses (a buffer somebody else still holds) as a double free.
  void refuseRelease() { ++m_doubleFrees; }

  // A SysCom message (host order, MEF 0) with the given header fields and a zero payload.
  void* makeMessage(unsigned short id, unsigned int receiver, unsigned int sender,
                    unsigned short payloadSize = 4);

  bool isLive(const void* msg) const { return m_live.count(const_cast<void*>(msg)) != 0; }
  size_t liveBuffers() const { return m_live.size(); }
  size_t doubleFrees() const { return m_doubleFrees; }
  // Makes the next allocations fail.
  void failAllocations(bool fail) { m_failAllocations = fail; }

 private:
  std::set<void*> m_live;
  size_t m_doubleFrees = 0;
  bool m_failAllocations = false;
};

}  // namespace OlmTest
