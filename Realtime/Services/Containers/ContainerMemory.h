// What the fixed-size containers share: their blocks (in the caller's memory or allocated once)
// and the log line of an argument error.
#pragma once

#include <cstddef>
#include <cstdint>

namespace Olm {

// Whether a container block was allocated by its Create function, and so is freed by Destroy.
enum class BlockOrigin : uint32_t { CallerMemory = 0, Allocated = 1 };

// Logs "<function>(): <formatted text>" as an error with no feature id.
void logArgumentError(const char* function, const char* format, ...) __attribute__((format(printf, 2, 3)));

// Whether pointer is not null; logs "<name> is NULL" if it is.
bool isNonNull(const void* pointer, const char* name, const char* function);

// Whether memory can hold a block of needed bytes aligned for alignment; logs why not.
bool isUsableMemory(const void* memory, size_t size, size_t needed, size_t alignment, const char* function);

// One block for a container's lifetime, aligned for any type; null when there is no memory.
void* allocateBlock(size_t size);
void freeBlock(void* block);

}  // namespace Olm
