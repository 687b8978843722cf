#include "OwnerIdentity.h"

#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>

namespace Olm {
namespace {

// /proc/<pid>/stat after the command name, which ends at the last ')': the state (field 3), 18
// fields skipped, the start time (field 22).
constexpr char kStatusFormat[] =
    " %c %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %llu";
constexpr int kStatTextSize = 1024;

struct ProcessStatus {
  char state;
  uint64_t startTicks;
};

// The double slash is deliberate: user-mode emulators recognise "/proc/<own pid>/" and answer
// with a made-up stat of their own, while the kernel reads the path as usual. Every process then
// reads the same start time for a given process, its own included.
bool readStatus(uint32_t pid, ProcessStatus* status) {
  char path[40];
  std::snprintf(path, sizeof(path), "/proc//%u/stat", static_cast<unsigned>(pid));
  std::FILE* file = std::fopen(path, "re");
  if (file == nullptr) return false;
  char text[kStatTextSize];
  const size_t length = std::fread(text, 1, sizeof(text) - 1, file);
  std::fclose(file);
  text[length] = '\0';
  const char* afterName = std::strrchr(text, ')');
  char state = 0;
  unsigned long long ticks = 0;
  if (afterName == nullptr || std::sscanf(afterName + 1, kStatusFormat, &state, &ticks) != 2) return false;
  status->state = state;
  status->startTicks = ticks;
  return true;
}

uint64_t identityOf(uint32_t pid, uint64_t startTicks) { return uint64_t{pid} | (startTicks << 32); }

std::atomic<uint64_t> s_ownIdentity{0};

}  // namespace

uint64_t ownIdentity() {
  const auto pid = static_cast<uint32_t>(getpid());
  const uint64_t cached = s_ownIdentity.load(std::memory_order_relaxed);
  if (cached != 0 && static_cast<uint32_t>(cached) == pid) return cached;
  ProcessStatus status{};
  // Without /proc the pid alone must do.
  const uint64_t identity = readStatus(pid, &status) ? identityOf(pid, status.startTicks) : pid;
  s_ownIdentity.store(identity, std::memory_order_relaxed);
  return identity;
}

// Where the process exists but its stat cannot be read (no /proc), it counts as alive: a block is
// never taken from a process that may still use it.
bool identityAlive(uint64_t identity) {
  const auto pid = static_cast<uint32_t>(identity);
  if (kill(static_cast<pid_t>(pid), 0) != 0 && errno == ESRCH) return false;
  ProcessStatus status{};
  if (!readStatus(pid, &status)) return true;
  const bool ended = status.state == 'Z' || status.state == 'X';
  return !ended && (identity >> 32 == 0 || identityOf(pid, status.startTicks) == identity);
}

}  // namespace Olm
