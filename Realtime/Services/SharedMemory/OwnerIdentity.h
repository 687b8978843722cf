// Who owns a block of a shared pool: a process named by its pid and its start time, so that a pid
// the kernel has handed to a new process is not taken for the one that ended.
#pragma once

#include <cstdint>

namespace Olm {

// pid in the low 32 bits, the start time (clock ticks since boot, low 32 bits) above; never 0.
// Read once per process (again in a forked child).
uint64_t ownIdentity();

// Whether the process an identity names still runs. A zombie counts as ended: it holds nothing
// any more. Reads /proc.
bool identityAlive(uint64_t identity);

}  // namespace Olm
