#include "PhysicalMemory.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdlib>

#include "OlmAssert.h"
#include "RhyddalHost.h"

OLM_ASSERT_SOURCE("Realtime/Dispatcher/AifTimeSource")

// Present only in the host replacement of the platform library.
extern "C" RHYDDAL_HOST_OPTIONAL const char* rhyddal_host_physical_memory_path(void);

#ifndef OLM_DEFAULT_DEVMEM
#define OLM_DEFAULT_DEVMEM "/dev/mem"
#endif

namespace Olm {

const char* physicalMemoryDevice() {
  if (rhyddal_host_physical_memory_path != nullptr) {
    const char* emulated = rhyddal_host_physical_memory_path();
    return emulated != nullptr ? emulated : "";
  }
  const char* device = std::getenv("OLM_DEVMEM");
  if (device != nullptr && device[0] != '\0') return device;
  return OLM_DEFAULT_DEVMEM;
}

void* mem_map_addr(void* physicalOffset, uint32_t length) {
  const char* device = physicalMemoryDevice();
  const int mem_map_fd = device[0] != '\0' ? open(device, O_RDWR | O_SYNC) : -1;
  OLM_ASSERT(mem_map_fd >= 0);
  void* mapping = mmap(nullptr, length, PROT_READ | PROT_WRITE, MAP_SHARED, mem_map_fd,
                       static_cast<off_t>(reinterpret_cast<uintptr_t>(physicalOffset)));
  close(mem_map_fd);
  return mapping == MAP_FAILED ? nullptr : mapping;
}

void mem_unmap_addr(void* address, uint32_t length) {
  const int rc = munmap(address, length);
  OLM_ASSERT(rc != -1);
}

}  // namespace Olm
