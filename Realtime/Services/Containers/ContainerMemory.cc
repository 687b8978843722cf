#include "ContainerMemory.h"

#include <cstdarg>
#include <new>

#include "ServiceErrorLog.h"

namespace Olm {

void logArgumentError(const char* function, const char* format, ...) {
  va_list args;
  va_start(args, format);
  vlogServiceError(function, "(): ", format, args);
  va_end(args);
}

bool isNonNull(const void* pointer, const char* name, const char* function) {
  if (pointer != nullptr) return true;
  logArgumentError(function, "%s is NULL", name);
  return false;
}

bool isUsableMemory(const void* memory, size_t size, size_t needed, size_t alignment, const char* function) {
  if (!isNonNull(memory, "memory", function)) return false;
  if (size < needed) {
    logArgumentError(function, "%zu bytes of memory, %zu needed", size, needed);
    return false;
  }
  if (reinterpret_cast<uintptr_t>(memory) % alignment != 0) {
    logArgumentError(function, "memory %p is not %zu-byte aligned", memory, alignment);
    return false;
  }
  return true;
}

// Through the global operator new, so the memory service's allocation trace sees the block.
void* allocateBlock(size_t size) { return ::operator new(size, std::nothrow); }

void freeBlock(void* block) { ::operator delete(block); }

}  // namespace Olm
