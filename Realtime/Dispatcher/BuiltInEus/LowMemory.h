// Memory that a 32-bit browse address can reach, for the forwarder's tests and fuzzer: on a 64-bit
// host an ordinary heap block usually lies above 4 GiB.
#pragma once

#include <sys/mman.h>

#include <cstddef>
#include <cstdint>

namespace OlmTest {

class LowMemory {
 public:
  explicit LowMemory(size_t size) : m_size(size) {
#ifdef MAP_32BIT
    void* at = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_32BIT, -1, 0);
#else
    void* at = mmap(reinterpret_cast<void*>(kHint), size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
#endif
    if (at == MAP_FAILED) return;
    if (reinterpret_cast<uintptr_t>(at) + size - 1 > UINT32_MAX) {
      munmap(at, size);
      return;
    }
    m_bytes = static_cast<uint8_t*>(at);
  }
  ~LowMemory() {
    if (m_bytes != nullptr) munmap(m_bytes, m_size);
  }
  LowMemory(const LowMemory&) = delete;
  LowMemory& operator=(const LowMemory&) = delete;

  // Null when no such memory could be had.
  uint8_t* bytes() const { return m_bytes; }
  uint32_t address() const { return static_cast<uint32_t>(reinterpret_cast<uintptr_t>(m_bytes)); }

 private:
  static constexpr uintptr_t kHint = 0x10000000;
  size_t m_size;
  uint8_t* m_bytes = nullptr;
};

}  // namespace OlmTest
