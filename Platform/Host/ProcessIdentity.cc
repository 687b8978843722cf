#include "ProcessIdentity.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace rhyddal {
namespace {

constexpr int kStartTimeField = 22;  // of /proc/<pid>/stat, counting the pid as field 1

// The start time field of /proc/<pid>/stat. The command name (field 2) may hold spaces and
// parentheses, so fields are counted from the last ')'.
bool startTicksOf(pid_t pid, uint64_t* ticks) {
  char path[32];
  std::snprintf(path, sizeof(path), "/proc/%d/stat", static_cast<int>(pid));
  const int fd = open(path, O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  char text[1024];
  const ssize_t length = read(fd, text, sizeof(text) - 1);
  close(fd);
  if (length <= 0) return false;
  text[length] = '\0';
  const char* cursor = std::strrchr(text, ')');
  if (cursor == nullptr) return false;
  for (int field = 2; field < kStartTimeField && cursor != nullptr; ++field) cursor = std::strchr(cursor + 1, ' ');
  if (cursor == nullptr) return false;
  char* end = nullptr;
  *ticks = std::strtoull(cursor + 1, &end, 10);
  return end != cursor + 1;
}

std::atomic<uint64_t> cachedIdentity{0};
std::atomic<pid_t> cachedFor{0};

}  // namespace

uint64_t identityOfProcess(pid_t pid) {
  uint64_t ticks = 0;
  if (pid <= 0 || !startTicksOf(pid, &ticks)) return 0;
  return static_cast<uint64_t>(static_cast<uint32_t>(pid)) | (ticks << 32);
}

uint64_t thisProcessIdentity() {
  const pid_t pid = getpid();
  if (cachedFor.load(std::memory_order_acquire) == pid) return cachedIdentity.load(std::memory_order_relaxed);
  uint64_t identity = identityOfProcess(pid);
  // Without /proc the pid alone has to do; it is never 0.
  if (identity == 0) identity = static_cast<uint32_t>(pid);
  cachedIdentity.store(identity, std::memory_order_relaxed);
  cachedFor.store(pid, std::memory_order_release);
  return identity;
}

bool processIdentityAlive(uint64_t identity) {
  const auto pid = static_cast<pid_t>(static_cast<uint32_t>(identity));
  if (identity >> 32 == 0) return kill(pid, 0) == 0 || errno == EPERM;
  return identityOfProcess(pid) == identity;
}

}  // namespace rhyddal
