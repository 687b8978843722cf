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
#include <mutex>
#include <thread>

#include "Futex.h"
#include "HostEnvironment.h"
#include "Mailbox.h"
#include "RadioClock.h"

namespace rhyddal {
namespace {

constexpr char kDevMemVariable[] = "OLM_DEVMEM";
constexpr char kUpdatePeriodVariable[] = "RHYDDAL_TIMING_UPDATE_US";
constexpr uint64_t kMinTimingUpdateUs = 50;
constexpr uint64_t kMaxTimingUpdateUs = 100000;
constexpr uint64_t kNanosecondsPerMicrosecond = 1000;
constexpr uint64_t kNanosecondsPerMillisecond = 1000 * 1000;
constexpr int kUpdaterNiceness = 5;  // below the nodes' own threads, still woken promptly

void storeWord(uint32_t* word, uint32_t value) { __atomic_store_n(word, value, __ATOMIC_RELEASE); }

timespec monotonicTimespec(uint64_t ns) {
  return timespec{static_cast<time_t>(ns / kNanosecondsPerSecond), static_cast<long>(ns % kNanosecondsPerSecond)};
}

void sleepUntil(uint64_t monotonicNs) {
  const timespec until = monotonicTimespec(monotonicNs);
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

// Outside a namespace the history is host-wide under the fixed name the runtime opens, so it is
// readable and writable by every user (mode 0666 regardless of umask).
char* mapQueueHistory() {
  const std::string name = queueHistoryObjectName();
  if (name.empty()) return nullptr;
  const int fd = shm_open(name.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0666);
  if (fd < 0) return nullptr;
  fchmod(fd, 0666);
  void* mapping = coverAtLeast(fd, kQueueHistoryBytes) ? mapShared(fd, kQueueHistoryBytes, 0) : nullptr;
  close(fd);
  return static_cast<char*>(mapping);
}

// The updater's wake-up word: one 32-bit futex word in a small object of its own, bumped by every
// request for full-rate updates.
std::atomic<uint32_t>* mapUpdaterWakeWord() {
  if (!namespaceUsable()) return nullptr;
  const std::string name = "/" + objectPrefix() + "updater";
  const int fd = shm_open(name.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  if (fd < 0) return nullptr;
  void* mapping = coverAtLeast(fd, kPageBytes) ? mapShared(fd, kPageBytes, 0) : nullptr;
  close(fd);
  return static_cast<std::atomic<uint32_t>*>(mapping);
}

std::atomic<uint32_t>* updaterWakeWord() {
  static std::atomic<uint32_t>* const word = mapUpdaterWakeWord();
  return word;
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
      std::fprintf(stderr, "rhyddal: no timing updates: %s is not a regular file\n", path_.c_str());
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
    wakeWord_ = updaterWakeWord();
    if (page_ == nullptr || table_ == nullptr) return false;
    // What a predecessor wrote may describe nodes that died with it: start from an empty table.
    std::memset(table_, 0, kQueueTableBytes);
    return true;
  }

  // Holds the updater role for the rest of the process's life. A rare wake-up does all the work
  // (timing words, rescan, queue table, history); a full-rate one only rewrites the timing words.
  [[noreturn]] void serve() {
    uint64_t next = monotonicNanoseconds();
    uint32_t requestsSeen = wakeWord_ != nullptr ? wakeWord_->load() - 1 : 0;
    for (;;) {
      const uint64_t now = monotonicNanoseconds();
      const uint32_t requests = wakeWord_ != nullptr ? wakeWord_->load(std::memory_order_acquire) : 0;
      writeTimingWords(page_, now);
      if (now >= nextRescanNs_ || requests != requestsSeen) {
        requestsSeen = requests;
        rescanNodes(now);
        writeQueueTable();
        appendHistoryLineEverySecond();
      }
      const uint64_t period = fullRate_ ? periodNs_ : kRareUpdateNs;
      next += period;
      if (next < now) next = now + period;  // fell behind (suspended): no burst of catch-up ticks
      if (fullRate_ || wakeWord_ == nullptr) {
        sleepUntil(next);
      } else {
        const timespec deadline = monotonicTimespec(next);
        futexWaitUntil(wakeWord_, requests, &deadline);
        if (wakeWord_->load(std::memory_order_acquire) != requests) next = monotonicNanoseconds();
      }
    }
  }

  void rescanNodes(uint64_t now) {
    nextRescanNs_ = now + kRareUpdateNs;
    std::map<uint16_t, TrackedNode> current;
    for (const uint16_t nid : listMailboxNids()) {
      struct stat status {};
      if (stat(shmFilePath(mailboxObjectName(nid)).c_str(), &status) != 0) continue;
      current[nid] = trackNode(nid, status.st_ino);
    }
    bool timingRead = false;
    for (const auto& [nid, node] : nodes_) {
      const auto found = current.find(nid);
      if (node.live && (found == current.end() || !found->second.live)) clearRecord(nid);
    }
    for (auto& [nid, node] : current) {
      if (!node.live) {
        node.mailbox.reset();
        removeMailboxOfDeadNode(nid);
      } else if (node.mailbox->timingPageInUse()) {
        timingRead = true;
      }
    }
    nodes_.swap(current);
    fullRate_ = timingRead;
  }

  // A node seen before under the same inode keeps its mapping; a dead one stays dead until a
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
      const Mailbox::FillLevel level = node.mailbox->fillLevel();
      storeWord(&record.nid, nid);
      storeWord(&record.usedBytes, static_cast<uint32_t>(level.bytes));
      storeWord(&record.ringBytes, static_cast<uint32_t>(node.mailbox->ringBytes()));
      storeWord(&record.waiting, level.records);
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
  std::atomic<uint32_t>* wakeWord_ = nullptr;
  std::map<uint16_t, TrackedNode> nodes_;
  uint64_t nextRescanNs_ = 0;
  time_t lastHistorySecond_ = 0;
  bool fullRate_ = false;
};

// Never destroyed: the thread runs until the process ends, also through exit's destructors.
std::atomic<TimingUpdater*> theUpdater{nullptr};

const char* preparePhysicalMemory() {
  const char* configured = std::getenv(kDevMemVariable);
  if (configured != nullptr && configured[0] != '\0') return strdup(configured);
  if (!namespaceUsable()) return nullptr;
  const std::string path = defaultPhysicalMemoryPath();
  const int fd = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  const bool ready = fd >= 0 && coverAtLeast(fd, kPhysicalMemoryBytes);
  const int error = errno;
  if (fd >= 0) close(fd);
  if (!ready) {
    std::fprintf(stderr, "rhyddal: cannot prepare emulated physical memory %s: %s\n", path.c_str(),
                 std::strerror(error));
    return nullptr;
  }
  return strdup(path.c_str());
}

}  // namespace

const char* hostPhysicalMemoryPath() {
  static const char* const path = preparePhysicalMemory();
  return path;
}

std::string queueHistoryObjectName() {
  std::string name;
  return systemObjectName(RHYDDAL_QUEUE_HISTORY_NAME, &name) == 0 ? name : std::string();
}

// Words 17 and 18 sit at byte offsets 68..75 of the page: 4 bytes into an 8-byte block, inside
// one cache line (64..127). No aligned 8-byte store covers them, so each architecture gets what
// it can truly do in one step:
//   x86-64   XCHG with a memory operand is a locked read-modify-write; Intel and AMD both make a
//            locked access atomic when it lies within one cache line, aligned or not (a plain
//            unaligned MOV crossing an 8-byte boundary is not guaranteed atomic on AMD). Being
//            locked, it is also a full barrier: everything written before it is visible first.
//   aarch64  LDXP/STLXP on the enclosing 16-byte-aligned block (words 16..19): a successful
//            store-exclusive pair of that alignment is single-copy atomic for all 16 bytes, and
//            words 16 and 19 are written back with the values the load-exclusive saw (any store
//            to them in between fails the exclusive and the loop retries). STLXP has release
//            semantics.
//   other    (32-bit ARM) cannot be done: LDREXD/STREXD need an 8-byte-aligned address and there
//            is no 16-byte exclusive. Least bad: store low, then high only when it changed, each
//            with release. A reader (high, low, high again) can then accept a torn pair only
//            when the low word wraps, once every 2^32 counts (218.45 s at 19.6608 MHz), and only
//            if its three loads fall around these two adjacent stores; it then sees the old high
//            with the new low, 2^32 counts early, never a value from the future.
// The reader must also keep its own loads in order for any writer to help it; on x86 loads are
// never reordered with each other.
void storeCdmaPair(uint32_t* page, uint64_t value) {
#if defined(__x86_64__)
  void* pair = page + kCdmaLowWord;
  asm volatile("xchgq %0, (%1)" : "+r"(value) : "r"(pair) : "memory");
#elif defined(__aarch64__)
  static_assert(kCdmaLowWord / 4 * 4 == 16, "words 16..19 form the enclosing 16-byte block");
  void* block = page + 16;
  uint64_t first = 0;
  uint64_t second = 0;
  uint32_t failed = 0;
  do {
    asm volatile("ldxp %0, %1, [%2]" : "=&r"(first), "=&r"(second) : "r"(block) : "memory");
    first = (first & 0xFFFFFFFFu) | (value << 32);             // word 16 kept, word 17 = low
    second = (second & ~uint64_t{0xFFFFFFFFu}) | (value >> 32);  // word 18 = high, word 19 kept
    asm volatile("stlxp %w0, %1, %2, [%3]" : "=&r"(failed) : "r"(first), "r"(second), "r"(block) : "memory");
  } while (failed != 0);
#else
  const auto high = static_cast<uint32_t>(value >> 32);
  __atomic_store_n(&page[kCdmaLowWord], static_cast<uint32_t>(value), __ATOMIC_RELEASE);
  if (__atomic_load_n(&page[kCdmaHighWord], __ATOMIC_RELAXED) != high) {
    __atomic_store_n(&page[kCdmaHighWord], high, __ATOMIC_RELEASE);
  }
#endif
}

void writeTimingWords(uint32_t* page, uint64_t nanoseconds) {
  storeCdmaPair(page, cdmaCountAt(nanoseconds));
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
  const char* path = hostPhysicalMemoryPath();
  if (path == nullptr) return;
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

// Release: pairs with the updater's acquire load of the word; the mailbox flag set before it is
// seen by the rescan that follows.
void wakeTimingUpdater() {
  std::atomic<uint32_t>* word = updaterWakeWord();
  if (word == nullptr) return;
  word->fetch_add(1, std::memory_order_release);
  futexWake(word, 1);
}

void forgetTimingUpdaterAfterFork() {
  TimingUpdater* updater = theUpdater.exchange(nullptr);
  if (updater != nullptr) updater->closeLock();
}

}  // namespace rhyddal
