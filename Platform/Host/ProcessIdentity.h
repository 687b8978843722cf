// Who owns a sender lane: a process named by its pid and its start time, so that a reused pid is
// not mistaken for the process that claimed the lane.
#pragma once

#include <sys/types.h>

#include <cstdint>

namespace rhyddal {

// pid | (start time in clock ticks since boot, low 32 bits) << 32; never 0. Computed once per
// process (again in a forked child).
uint64_t thisProcessIdentity();

// The identity of a running process pid, or 0 when no such process exists (or it cannot be read).
uint64_t identityOfProcess(pid_t pid);

// Whether the process an identity names still runs. Reads /proc: only for slow paths.
bool processIdentityAlive(uint64_t identity);

}  // namespace rhyddal
