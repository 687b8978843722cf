#include "ProcessBarrier.h"

#include <linux/membarrier.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>

namespace rhyddal {
namespace {

long membarrier(int command) { return syscall(SYS_membarrier, command, 0, 0); }

constexpr long kNeededCommands = MEMBARRIER_CMD_GLOBAL_EXPEDITED | MEMBARRIER_CMD_REGISTER_GLOBAL_EXPEDITED;

// The pid that registered; registration belongs to the process's address space, which a fork
// does not share.
std::atomic<pid_t> registeredPid{0};

}  // namespace

bool processBarriersAvailable() {
  static const bool available = [] {
    const long commands = membarrier(MEMBARRIER_CMD_QUERY);
    return commands >= 0 && (commands & kNeededCommands) == kNeededCommands;
  }();
  return available;
}

bool joinProcessBarriers() {
  if (!processBarriersAvailable()) return false;
  const pid_t me = getpid();
  if (registeredPid.load(std::memory_order_relaxed) == me) return true;
  if (membarrier(MEMBARRIER_CMD_REGISTER_GLOBAL_EXPEDITED) != 0) return false;
  registeredPid.store(me, std::memory_order_relaxed);
  return true;
}

bool barrierAcrossProcesses() { return membarrier(MEMBARRIER_CMD_GLOBAL_EXPEDITED) == 0; }

}  // namespace rhyddal
