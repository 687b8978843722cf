// Mapping of physical memory: the baseband's timing registers and the event machine's queue
// table.
//
// On the board the device is "/dev/mem". The environment variable OLM_DEVMEM names another file to
// map instead; on a development host it is the host platform's emulated physical memory, and a
// host build has no default at all, so it can never map the host's real /dev/mem.
#pragma once

#include <cstdint>

namespace Olm {

// The device file to map: $OLM_DEVMEM, else the build's default (empty on a host build).
const char* physicalMemoryDevice();

// Opens the device read-write and synchronous (assertion "mem_map_fd >= 0"), maps length bytes
// read-write and shared at the physical offset, closes the descriptor; null when mmap fails.
void* mem_map_addr(void* physicalOffset, uint32_t length);
void mem_unmap_addr(void* address, uint32_t length);

}  // namespace Olm
