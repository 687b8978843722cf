#include "PhysicalMemory.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <thread>

#include "HostEnvironment.h"
#include "Mailbox.h"
#include "RadioClock.h"

namespace rhyddal {
namespace {

constexpr char kDevMemVariable[] = "OLM_DEVMEM";
constexpr char kUpdatePeriodVariable[] = "RHYDDAL_TIMING_UPDATE_US";
constexpr uint64_t kMinTimingUpdateUs = 50;
constexpr uint64_t kMaxTimingUpdateUs = 100000;
constexpr uint64_t kNodeRescanNs = 100 * 1000 * 1000;
constexpr uint64_t kNanosecondsPerMicrosecond = 1000;
constexpr uint64_t kNanosecondsPerMillisecond = 1000 * 1000;
constexpr int kUpdaterNiceness = 5;           // below the nodes' own threads, still woken promptly

void storeWord(uint32_t* word, uint32_t value) { __atomic_store_n(word, value, __ATOMIC_RELEASE); }

void sleepUntil(uint64_t monotonicNs) {
  timespec until{static_cast<time_t>(monotonicNs / kNanosecondsPerSecond),
                 static_cast<long>(monotonicNs % kNanosecondsPerSecond)};
  while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &until, nullptr) == EINTR) {
  }
}

void* mapShared(int fd, size_t bytes, uint64_t offset) {
  void* mapping = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED, fd, static_cast<off_t>(offset));
  return mapping == MAP_FAILED ? nullptr : mapping;
}

// Grows a file to at least bytes; never shrinks one somebody sized on purpose.
bool coverAtLeast(int fd, uint64_t bytes) {
  struct stat status {};
  if (fstat(fd, &status) != 0) return false;
  if (static_cast<uint64_t>(status.st_size) >= bytes) return true;
  return ftruncate(fd, static_cast<off_t>(bytes)) == 0;
}

// The history is host-wide under a fixed name that the runtime opens, so it is readable and
// writable by every user (mode 0666 regardless of umask).
char* mapQueueHistory() {
  const int fd = shm_open(kQueueHistoryName, O_RDWR | O_CREAT | O_CLOEXEC, 0666);
  if (fd < 0) return nullptr;
  fchmod(fd, 0666);
  void* mapping = coverAtLeast(fd, kQueueHistoryBytes) ? mapShared(fd, kQueueHistoryBytes, 0) : nullptr;
  close(fd);
  return static_cast<char*>(mapping);
}

struct TrackedNode {
  std::shared_ptr<Mailbox> mailbox;
  ino_t inode;
  bool live;
};

class TimingUpdater {
 public:
  TimingUpdater(std::string path, uint64_t periodNs) : path_(std::move(path)), periodNs_(periodNs) {}

  // Candidates block on the lock instead of polling for it: the kernel hands it to one of them
  // the moment the updater dies, so the timing page never stalls for a polling interval.
  void run() {
    setpriority(PRIO_PROCESS, static_cast<id_t>(syscall(SYS_gettid)), kUpdaterNiceness);
    while (openLockFile()) {
      if (flock(lockFd_.load(), LOCK_EX) == 0) {
        if (mapTargets()) serve();
        closeLock();  // cannot serve: leave the role to a candidate that can
        return;
      }
      if (errno != EINTR) sleepUntil(monotonicNanoseconds() + kCandidateRetryMs * kNanosecondsPerMillisecond);
    }
  }

  void closeLock() {
    const int fd = lockFd_.exchange(-1);
    if (fd >= 0) close(fd);
  }

 private:
  // The lock is taken on the physical-memory file itself. Only a regular file is accepted: on a
  // host where OLM_DEVMEM names a device, nothing here may write to it.
  bool openLockFile() {
    if (lockFd_.load() >= 0) return true;
    const int fd = open(path_.c_str(), O_RDWR | O_CLOEXEC);
    struct stat status {};
    if (fd < 0 || fstat(fd, &status) != 0 || !S_ISREG(status.st_mode)) {
      std::fprintf(stderr, "rhyddal: no timing updates: %s=%s is not a regular file\n", kDevMemVariable,
                   path_.c_str());
      if (fd >= 0) close(fd);
      return false;
    }
    lockFd_.store(fd);
    return true;
  }

  bool mapTargets() {
    const int fd = lockFd_.load();
    if (!coverAtLeast(fd, kPhysicalMemoryBytes)) return false;
    page_ = static_cast<uint32_t*>(mapShared(fd, kTimingPageBytes, kTimingPageOffset));
    table_ = static_cast<QueueRecord*>(mapShared(fd, kQueueTableBytes, kQueueTableOffset));
    history_ = mapQueueHistory();
    if (page_ == nullptr || table_ == nullptr) return false;
    // What a predecessor wrote may describe nodes that died with it: start from an empty table.
    std::memset(table_, 0, kQueueTableBytes);
    return true;
  }

  // Holds the updater role for the rest of the process's life.
  [[noreturn]] void serve() {
    uint64_t next = monotonicNanoseconds();
    for (;;) {
      const uint64_t now = monotonicNanoseconds();
      writeTimingWords(page_, now);
      if (now >= nextRescanNs_) rescanNodes(now);
      writeQueueTable();
      appendHistoryLineEverySecond();
      next += periodNs_;
      if (next < now) next = now + periodNs_;  // fell behind (suspended): no burst of catch-up ticks
      sleepUntil(next);
    }
  }

  void rescanNodes(uint64_t now) {
    nextRescanNs_ = now + kNodeRescanNs;
    std::map<uint16_t, TrackedNode> current;
    for (const uint16_t nid : listMailboxNids()) {
      struct stat status {};
      if (stat(shmFilePath(mailboxObjectName(nid)).c_str(), &status) != 0) continue;
      current[nid] = trackNode(nid, status.st_ino);
    }
    for (const auto& [nid, node] : nodes_) {
      const auto found = current.find(nid);
      if (node.live && (found == current.end() || !found->second.live)) clearRecord(nid);
    }
    removeNewlyDeadMailboxes(current);
    nodes_.swap(current);
  }

  // A killed node leaves its mailbox behind; the updater clears such leftovers once, when it first
  // sees them dead, so /dev/shm does not fill up with them on a host where nodes come and go.
  void removeNewlyDeadMailboxes(const std::map<uint16_t, TrackedNode>& current) {
    for (const auto& [nid, node] : current) {
      if (node.live) continue;
      const auto known = nodes_.find(nid);
      const bool seenDeadBefore = known != nodes_.end() && known->second.inode == node.inode && !known->second.live;
      if (!seenDeadBefore) removeMailboxOfDeadNode(nid);
    }
  }

  // A node already known under the same inode keeps its mapping; a dead one stays dead until a
  // new node replaces its object.
  TrackedNode trackNode(uint16_t nid, ino_t inode) {
    const auto known = nodes_.find(nid);
    if (known != nodes_.end() && known->second.inode == inode) {
      TrackedNode node = known->second;
      node.live = node.live && node.mailbox->ownerAlive();
      return node;
    }
    TrackedNode node{nullptr, inode, false};
    if (Mailbox::open(nid, &node.mailbox) == 0) node.live = node.mailbox->ownerAlive();
    return node;
  }

  void writeQueueTable() {
    for (const auto& [nid, node] : nodes_) {
      if (!node.live) continue;
      QueueRecord& record = table_[nid & kQueueIndexMask];
      storeWord(&record.nid, nid);
      storeWord(&record.usedBytes, node.mailbox->usedBytes());
      storeWord(&record.ringBytes, node.mailbox->ringBytes());
      storeWord(&record.waiting, node.mailbox->waitingRecords());
    }
  }

  void clearRecord(uint16_t nid) {
    QueueRecord& record = table_[nid & kQueueIndexMask];
    storeWord(&record.waiting, 0);
    storeWord(&record.nid, 0);
    storeWord(&record.usedBytes, 0);
    storeWord(&record.ringBytes, 0);
  }

  // The ring position comes from the wall-clock second, so an updater that takes over continues
  // the ring where its predecessor stopped.
  void appendHistoryLineEverySecond() {
    const time_t now = time(nullptr);
    if (history_ == nullptr || now == lastHistorySecond_) return;
    lastHistorySecond_ = now;
    struct tm localTime {};
    localtime_r(&now, &localTime);
    std::vector<std::pair<uint16_t, uint32_t>> levels;
    for (const auto& [nid, node] : nodes_) {
      if (node.live) levels.emplace_back(nid, node.mailbox->waitingRecords());
    }
    char line[kQueueHistoryRecordBytes];
    formatHistoryLine(localTime, levels, line);
    char* record = history_ + (static_cast<uint64_t>(now) % kQueueHistoryRecords) * kQueueHistoryRecordBytes;
    std::memcpy(record, line, sizeof(line));
  }

  const std::string path_;
  const uint64_t periodNs_;
  std::atomic<int> lockFd_{-1};
  uint32_t* page_ = nullptr;
  QueueRecord* table_ = nullptr;
  char* history_ = nullptr;
  std::map<uint16_t, TrackedNode> nodes_;
  uint64_t nextRescanNs_ = 0;
  time_t lastHistorySecond_ = 0;
};

// Never destroyed: the thread runs until the process ends, also through exit's destructors.
std::atomic<TimingUpdater*> theUpdater{nullptr};

__attribute__((constructor)) void prepareAtLoad() { preparePhysicalMemory(); }

}  // namespace

std::string physicalMemoryPath() {
  const char* path = std::getenv(kDevMemVariable);
  return path == nullptr ? std::string() : std::string(path);
}

void preparePhysicalMemory() {
  if (std::getenv(kDevMemVariable) != nullptr) return;
  const std::string path = defaultPhysicalMemoryPath();
  const int fd = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  const bool ready = fd >= 0 && coverAtLeast(fd, kPhysicalMemoryBytes);
  if (fd >= 0) close(fd);
  if (!ready) {
    std::fprintf(stderr, "rhyddal: cannot prepare emulated physical memory %s: %s\n", path.c_str(),
                 std::strerror(errno));
    return;
  }
  setenv(kDevMemVariable, path.c_str(), 0);
}

// The CDMA counter is 64 bits in two words that cannot be stored at once. Low goes first, high
// right after: a reader that reads high, low, high and retries on a change sees a consistent pair
// unless both of its last two reads fall between these two adjacent stores.
void writeTimingWords(uint32_t* page, uint64_t nanoseconds) {
  const uint64_t cdma = cdmaCountAt(nanoseconds);
  storeWord(&page[kCdmaLowWord], static_cast<uint32_t>(cdma));
  storeWord(&page[kCdmaHighWord], static_cast<uint32_t>(cdma >> 32));
  storeWord(&page[kLteSymbolWord], lteSymbolAt(nanoseconds));
}

void formatHistoryLine(const struct tm& localTime, const std::vector<std::pair<uint16_t, uint32_t>>& nodes,
                       char (&line)[kQueueHistoryRecordBytes]) {
  std::memset(line, 0, sizeof(line));
  std::snprintf(line, sizeof(line), "%02d:%02d:%02d", localTime.tm_hour, localTime.tm_min, localTime.tm_sec);
  size_t used = std::strlen(line);
  for (const auto& [nid, waiting] : nodes) {
    char entry[32];
    const int length = std::snprintf(entry, sizeof(entry), " %04x[%u]", static_cast<unsigned>(nid),
                                     static_cast<unsigned>(waiting));
    if (length < 0 || used + static_cast<size_t>(length) >= sizeof(line)) break;
    std::memcpy(line + used, entry, static_cast<size_t>(length));
    used += static_cast<size_t>(length);
  }
}

void startTimingUpdater() {
  if (theUpdater.load() != nullptr) return;
  const std::string path = physicalMemoryPath();
  if (path.empty()) return;
  const uint64_t periodUs =
      environmentNumber(kUpdatePeriodVariable, kDefaultTimingUpdateUs, kMinTimingUpdateUs, kMaxTimingUpdateUs);
  auto* updater = new TimingUpdater(path, periodUs * kNanosecondsPerMicrosecond);
  TimingUpdater* expected = nullptr;
  if (!theUpdater.compare_exchange_strong(expected, updater)) {
    delete updater;
    return;
  }
  std::thread([updater] { updater->run(); }).detach();
}

void forgetTimingUpdaterAfterFork() {
  TimingUpdater* updater = theUpdater.exchange(nullptr);
  if (updater != nullptr) updater->closeLock();
}

}  // namespace rhyddal
