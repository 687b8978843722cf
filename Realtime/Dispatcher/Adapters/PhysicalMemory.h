// Mapping of physical memory: the baseband's timing registers and the event machine's queue
// table.
//
// On the board the device is "/dev/mem", or the file the environment variable OLM_DEVMEM names. Over
// the host replacement of the platform library the host library says which file emulates physical
// memory (rhyddal_host_physical_memory_path, RhyddalHost.h); a host build has no default of its
// own, so it can never map the host's real /dev/mem.
#pragma once

#include <cstdint>

namespace Olm {

// The device file to map: the host library's emulation where there is one, else $OLM_DEVMEM, else
// the build's default (empty on a host build).
const char* physicalMemoryDevice();

// Opens the device read-write and synchronous (assertion "mem_map_fd >= 0"), maps length bytes
// read-write and shared at the physical offset, closes the descriptor; null when mmap fails.
void* mem_map_addr(void* physicalOffset, uint32_t length);
void mem_unmap_addr(void* address, uint32_t length);

}  // namespace Olm
