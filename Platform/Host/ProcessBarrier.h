// A memory barrier that one thread imposes on the running threads of other processes.
//
// A producer streaming into a lane the consumer is watching publishes records with plain stores
// and reads the consumer's summary word without a fence of its own (a full fence per message
// costs a cross-core cache-line round trip). The consumer pays instead, rarely: before it stops
// watching such a lane it runs barrierAcrossProcesses(), after which every store those producers
// made before their last read of the summary is visible to it. Linux's membarrier(2), global
// expedited: an interprocessor interrupt to each CPU running a registered process; a thread not
// running passed through a full barrier when it was switched out.
#pragma once

namespace rhyddal {

// Registers this process (once per process: a forked child registers again) for the barriers
// others impose. False when the kernel lacks them (older kernels, user-mode emulators): the
// process must then fence every message itself.
bool joinProcessBarriers();

// True when the barrier is available on this kernel; checked once.
bool processBarriersAvailable();

// Imposes the barrier: returns once every running thread of every registered process has
// executed a full memory barrier. False when the kernel refused (not expected once
// processBarriersAvailable() said yes). Costs microseconds (about 10 on a 2-vCPU KVM guest).
bool barrierAcrossProcesses();

}  // namespace rhyddal
