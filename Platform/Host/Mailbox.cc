#include "Mailbox.h"

#include <dirent.h>
#include <fcntl.h>
#include <linux/futex.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "HostEnvironment.h"
#include "MessagePool.h"
#include "SysComFields.h"

namespace rhyddal {
namespace {

constexpr uint32_t kNoTimeLimit = 0xFFFFFFFFu;
constexpr long kNanosecondsPerSecond = 1000000000L;

// 32-bit builds with a 64-bit time_t need the time64 variant of the futex call.
long futexCall(std::atomic<uint32_t>* word, int operation, uint32_t value, const timespec* timeout) {
#if defined(SYS_futex_time64) && !defined(__LP64__)
  if (sizeof(timeout->tv_sec) == 8) {
    return syscall(SYS_futex_time64, word, operation, value, timeout, nullptr, FUTEX_BITSET_MATCH_ANY);
  }
#endif
  return syscall(SYS_futex, word, operation, value, timeout, nullptr, FUTEX_BITSET_MATCH_ANY);
}

// Shared (not FUTEX_PRIVATE_FLAG): waiter and wakers are different processes. The deadline is
// absolute on CLOCK_MONOTONIC, so retries after spurious wake-ups never stretch the wait.
void futexWaitUntil(std::atomic<uint32_t>* word, uint32_t expected, const timespec* deadline) {
  futexCall(word, FUTEX_WAIT_BITSET, expected, deadline);
}

void futexWakeOne(std::atomic<uint32_t>* word) { futexCall(word, FUTEX_WAKE_BITSET, 1, nullptr); }

timespec monotonicNow() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return now;
}

timespec deadlineAfter(uint32_t seconds, uint32_t nanoseconds) {
  timespec deadline = monotonicNow();
  deadline.tv_sec += static_cast<time_t>(seconds + nanoseconds / kNanosecondsPerSecond);
  deadline.tv_nsec += static_cast<long>(nanoseconds % kNanosecondsPerSecond);
  if (deadline.tv_nsec >= kNanosecondsPerSecond) {
    deadline.tv_nsec -= kNanosecondsPerSecond;
    ++deadline.tv_sec;
  }
  return deadline;
}

bool reached(const timespec& deadline) {
  const timespec now = monotonicNow();
  return now.tv_sec > deadline.tv_sec || (now.tv_sec == deadline.tv_sec && now.tv_nsec >= deadline.tv_nsec);
}

class FileDescriptor {
 public:
  explicit FileDescriptor(int fd) : fd_(fd) {}
  ~FileDescriptor() {
    if (fd_ >= 0) close(fd_);
  }
  FileDescriptor(const FileDescriptor&) = delete;
  FileDescriptor& operator=(const FileDescriptor&) = delete;
  int get() const { return fd_; }

 private:
  int fd_;
};

// Held while a node replaces a dead predecessor's mailbox and creates its own, so that two
// start-ups of one nid can never both win. flock is released by the kernel if we die holding it.
class NodeStartLock {
 public:
  NodeStartLock() : fd_(open(nodeStartLockPath().c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600)) {
    if (fd_.get() >= 0) {
      while (flock(fd_.get(), LOCK_EX) != 0 && errno == EINTR) {
      }
    }
  }
  bool held() const { return fd_.get() >= 0; }

 private:
  FileDescriptor fd_;
};

int initialiseRobustMutex(LockSlot& slot) {
  pthread_mutexattr_t attributes;
  pthread_mutexattr_init(&attributes);
  pthread_mutexattr_setpshared(&attributes, PTHREAD_PROCESS_SHARED);
  pthread_mutexattr_setrobust(&attributes, PTHREAD_MUTEX_ROBUST);
  const int rc = pthread_mutex_init(mutexIn(slot), &attributes);
  pthread_mutexattr_destroy(&attributes);
  return rc;
}

// The outcome of a trylock on a robust mutex someone else is expected to hold.
bool heldByLiveOwner(LockSlot& slot) {
  const int rc = pthread_mutex_trylock(mutexIn(slot));
  if (rc == EBUSY) return true;
  if (rc == EOWNERDEAD) pthread_mutex_consistent(mutexIn(slot));
  if (rc == 0 || rc == EOWNERDEAD) pthread_mutex_unlock(mutexIn(slot));
  return false;
}

bool layoutMatches(const MailboxHeader& header) {
  return header.layoutVersion == kMailboxLayoutVersion && header.lockAbi == hostLockAbi();
}

bool ringSizeIsSound(uint32_t ringBytes, size_t objectBytes) {
  const bool powerOfTwo = ringBytes != 0 && (ringBytes & (ringBytes - 1)) == 0;
  return powerOfTwo && ringBytes >= kMinRingBytes && ringBytes <= kMaxRingBytes &&
         kRingOffset + ringBytes <= objectBytes;
}

// Decides whether the object under the name belongs to a live node. A mailbox of an incompatible
// build cannot be probed through its lock; its recorded pid is the best evidence left.
bool existingMailboxIsLive(int fd) {
  struct stat status {};
  if (fstat(fd, &status) != 0 || static_cast<size_t>(status.st_size) < kRingOffset) return false;
  void* mapping = mmap(nullptr, kRingOffset, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  if (mapping == MAP_FAILED) return false;
  auto* header = static_cast<MailboxHeader*>(mapping);
  bool live = false;
  if (header->magic.load(std::memory_order_acquire) == kMailboxMagic) {
    live = layoutMatches(*header) ? heldByLiveOwner(header->ownerLock)
                                  : kill(static_cast<pid_t>(header->ownerPid), 0) == 0;
  }
  munmap(mapping, kRingOffset);
  return live;
}

int removeDeadMailbox(const std::string& name) {
  FileDescriptor fd(shm_open(name.c_str(), O_RDWR | O_CLOEXEC, 0));
  if (fd.get() < 0) return errno == ENOENT ? 0 : -errno;
  if (existingMailboxIsLive(fd.get())) return -EADDRINUSE;
  if (shm_unlink(name.c_str()) != 0 && errno != ENOENT) return -errno;
  return 0;
}

int initialiseHeader(MailboxHeader* header, uint16_t nid, uint32_t ringBytes) {
  header->layoutVersion = kMailboxLayoutVersion;
  header->ringBytes = ringBytes;
  header->nid = nid;
  header->lockAbi = hostLockAbi();
  header->ownerPid = static_cast<uint32_t>(getpid());
  int rc = initialiseRobustMutex(header->producerLock);
  if (rc == 0) rc = initialiseRobustMutex(header->ownerLock);
  if (rc == 0) rc = pthread_mutex_lock(mutexIn(header->ownerLock));
  if (rc != 0) return -rc;
  header->magic.store(kMailboxMagic, std::memory_order_release);
  return 0;
}

}  // namespace

int Mailbox::create(uint16_t nid, uint32_t ringBytes, std::unique_ptr<Mailbox>* out) {
  if (!ringSizeIsSound(ringBytes, kRingOffset + size_t{ringBytes})) return -EINVAL;
  NodeStartLock startLock;
  if (!startLock.held()) return -errno;
  const std::string name = mailboxObjectName(nid);
  int rc = removeDeadMailbox(name);
  if (rc != 0) return rc;
  FileDescriptor fd(shm_open(name.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
  if (fd.get() < 0) return errno == EEXIST ? -EADDRINUSE : -errno;
  const size_t objectBytes = kRingOffset + ringBytes;
  struct stat status {};
  if (ftruncate(fd.get(), static_cast<off_t>(objectBytes)) != 0 || fstat(fd.get(), &status) != 0) {
    rc = -errno;
    shm_unlink(name.c_str());
    return rc;
  }
  void* mapping = mmap(nullptr, objectBytes, PROT_READ | PROT_WRITE, MAP_SHARED, fd.get(), 0);
  if (mapping == MAP_FAILED) {
    rc = -errno;
    shm_unlink(name.c_str());
    return rc;
  }
  rc = initialiseHeader(new (mapping) MailboxHeader{}, nid, ringBytes);
  if (rc != 0) {
    munmap(mapping, objectBytes);
    shm_unlink(name.c_str());
    return rc;
  }
  out->reset(new Mailbox(mapping, objectBytes, true));
  (*out)->device_ = status.st_dev;
  (*out)->inode_ = status.st_ino;
  return 0;
}

int Mailbox::open(uint16_t nid, std::shared_ptr<Mailbox>* out) {
  FileDescriptor fd(shm_open(mailboxObjectName(nid).c_str(), O_RDWR | O_CLOEXEC, 0));
  if (fd.get() < 0) return errno == ENOENT ? -EHOSTUNREACH : -errno;
  struct stat status {};
  if (fstat(fd.get(), &status) != 0) return -errno;
  const size_t objectBytes = static_cast<size_t>(status.st_size);
  if (objectBytes < kRingOffset) return -EHOSTUNREACH;
  void* mapping = mmap(nullptr, objectBytes, PROT_READ | PROT_WRITE, MAP_SHARED, fd.get(), 0);
  if (mapping == MAP_FAILED) return -errno;
  const auto* header = static_cast<const MailboxHeader*>(mapping);
  int rc = 0;
  if (header->magic.load(std::memory_order_acquire) != kMailboxMagic) {
    rc = -EHOSTUNREACH;
  } else if (!layoutMatches(*header) || header->nid != nid || !ringSizeIsSound(header->ringBytes, objectBytes)) {
    rc = -EPROTO;
  }
  if (rc != 0) {
    munmap(mapping, objectBytes);
    return rc;
  }
  out->reset(new Mailbox(mapping, objectBytes, false));
  return 0;
}

Mailbox::Mailbox(void* mapping, size_t mappedBytes, bool owner)
    : header_(static_cast<MailboxHeader*>(mapping)),
      ring_(static_cast<unsigned char*>(mapping) + kRingOffset),
      mappedBytes_(mappedBytes),
      ringBytes_(header_->ringBytes),
      nid_(static_cast<uint16_t>(header_->nid)),
      owner_(owner) {}

// The owner unlocks before unmapping: the C library keeps held robust mutexes on a per-thread
// list and would otherwise follow a link into memory that is gone.
Mailbox::~Mailbox() {
  if (owner_) pthread_mutex_unlock(mutexIn(header_->ownerLock));
  munmap(header_, mappedBytes_);
}

PushResult Mailbox::push(const void* payload, uint32_t length, RecordKind kind) {
  const uint64_t recordBytes = recordBytesFor(length);
  if (length > kMaxBufferBytes || recordBytes > ringBytes_ / 2) return PushResult::kTooLarge;
  if (!lockProducers()) return PushResult::kLockBroken;
  uint32_t tail = header_->tail.load(std::memory_order_relaxed);
  const uint32_t head = header_->head.load(std::memory_order_acquire);
  const uint32_t position = tail & (ringBytes_ - 1);
  const uint32_t untilEnd = ringBytes_ - position;
  const uint32_t padding = untilEnd < recordBytes ? untilEnd : 0;
  if (uint64_t{tail - head} + padding + recordBytes > ringBytes_) {
    pthread_mutex_unlock(mutexIn(header_->producerLock));
    return PushResult::kFull;
  }
  if (padding != 0) {
    const RecordHeader marker{kWrapMarker, 0, 0};
    std::memcpy(ring_ + position, &marker, sizeof(marker));
    tail += padding;
  }
  writeRecord(tail & (ringBytes_ - 1), payload, length, kind);
  header_->publishedCount.fetch_add(1, std::memory_order_relaxed);
  header_->tail.store(tail + static_cast<uint32_t>(recordBytes), std::memory_order_seq_cst);
  pthread_mutex_unlock(mutexIn(header_->producerLock));
  wakeConsumer();
  return PushResult::kDelivered;
}

// A sender that died holding the lock never advanced tail, so whatever it half wrote lies beyond
// the published end of the ring: marking the lock consistent is all the repair needed.
bool Mailbox::lockProducers() {
  const int rc = pthread_mutex_lock(mutexIn(header_->producerLock));
  if (rc == EOWNERDEAD) return pthread_mutex_consistent(mutexIn(header_->producerLock)) == 0;
  return rc == 0;
}

// The sequence bump comes after tail was published, and waiterAsleep is read after it: a consumer
// that set waiterAsleep and still saw the ring empty is either woken here or finds the sequence
// changed when it enters the futex wait.
void Mailbox::wakeConsumer() {
  header_->wakeSequence.fetch_add(1, std::memory_order_seq_cst);
  if (header_->waiterAsleep.load(std::memory_order_seq_cst) != 0) futexWakeOne(&header_->wakeSequence);
}

void Mailbox::writeRecord(uint32_t position, const void* payload, uint32_t length, RecordKind kind) {
  const RecordHeader record{length, static_cast<uint16_t>(kind), 0};
  std::memcpy(ring_ + position, &record, sizeof(record));
  std::memcpy(ring_ + position + sizeof(record), payload, length);
}

bool Mailbox::ownerAlive() { return owner_ || heldByLiveOwner(header_->ownerLock); }

void* Mailbox::pop(MessagePool& pool) {
  for (;;) {
    const uint32_t head = header_->head.load(std::memory_order_relaxed);
    const uint32_t tail = header_->tail.load(std::memory_order_acquire);
    if (head == tail) return nullptr;
    const uint32_t position = head & (ringBytes_ - 1);
    RecordHeader record{};
    std::memcpy(&record, ring_ + position, sizeof(record));
    if (!recordIsSound(position, tail - head, record)) {
      discardDamagedRing(head, tail);
      return nullptr;
    }
    if (record.length == kWrapMarker) {
      advanceHead(head, ringBytes_ - position, false);
      continue;
    }
    void* copy = pool.allocate(record.length);
    if (copy == nullptr) return nullptr;
    std::memcpy(copy, ring_ + position + sizeof(record), record.length);
    advanceHead(head, recordBytesFor(record.length), true);
    if (messageIsSound(copy, record)) return copy;
    pool.release(copy);
  }
}

// Bounds of a record as read from shared memory, checked before anything is copied out of it.
bool Mailbox::recordIsSound(uint32_t position, uint32_t available, const RecordHeader& record) const {
  if (record.length == kWrapMarker) return ringBytes_ - position <= available;
  if (record.length > kMaxBufferBytes) return false;
  const uint32_t recordBytes = recordBytesFor(record.length);
  return recordBytes <= available && position + recordBytes <= ringBytes_;
}

// Checked on the private copy, so a sender scribbling on the ring cannot change what was checked.
// A raw event may be larger than the message it carries; an ordinary message is exactly as long
// as its header says.
bool Mailbox::messageIsSound(const void* copy, const RecordHeader& record) const {
  if (record.length < kSysComHeaderBytes) {
    std::fprintf(stderr, "rhyddal: node 0x%04x dropped a message of %u bytes, shorter than a message header\n",
                 static_cast<unsigned>(nid_), static_cast<unsigned>(record.length));
    return false;
  }
  const uint32_t totalLength = sysComTotalLength(copy);
  const bool sound = record.kind == static_cast<uint16_t>(RecordKind::kRawEvent)
                         ? totalLength >= kSysComHeaderBytes && totalLength <= record.length
                         : totalLength == record.length;
  if (!sound) {
    std::fprintf(stderr, "rhyddal: node 0x%04x dropped a message of %u bytes whose header says %u\n",
                 static_cast<unsigned>(nid_), static_cast<unsigned>(record.length),
                 static_cast<unsigned>(totalLength));
  }
  return sound;
}

void Mailbox::discardDamagedRing(uint32_t head, uint32_t tail) {
  std::fprintf(stderr, "rhyddal: node 0x%04x found a damaged record in its mailbox and dropped %u queued bytes\n",
               static_cast<unsigned>(nid_), static_cast<unsigned>(tail - head));
  advanceHead(head, tail - head, false);
}

void Mailbox::advanceHead(uint32_t head, uint32_t bytes, bool countRecord) {
  if (countRecord) header_->consumedCount.fetch_add(1, std::memory_order_relaxed);
  header_->head.store(head + bytes, std::memory_order_release);
}

bool Mailbox::empty() const {
  return header_->head.load(std::memory_order_relaxed) == header_->tail.load(std::memory_order_seq_cst);
}

// The sequence is read before waiterAsleep is set and the ring re-checked; a send that lands after
// the re-check changes the sequence, so the futex wait returns at once instead of sleeping on it.
bool Mailbox::waitForRecord(uint32_t seconds, uint32_t nanoseconds) {
  if (!empty()) return true;
  const bool limited = seconds != kNoTimeLimit;
  const timespec deadline = limited ? deadlineAfter(seconds, nanoseconds) : timespec{};
  for (;;) {
    const uint32_t sequence = header_->wakeSequence.load(std::memory_order_seq_cst);
    header_->waiterAsleep.store(1, std::memory_order_seq_cst);
    if (!empty()) break;
    futexWaitUntil(&header_->wakeSequence, sequence, limited ? &deadline : nullptr);
    header_->waiterAsleep.store(0, std::memory_order_relaxed);
    if (!empty()) return true;
    if (limited && reached(deadline)) return false;
  }
  header_->waiterAsleep.store(0, std::memory_order_relaxed);
  return true;
}

uint32_t Mailbox::waitingRecords() const {
  return header_->publishedCount.load(std::memory_order_relaxed) -
         header_->consumedCount.load(std::memory_order_relaxed);
}

uint32_t Mailbox::usedBytes() const {
  return header_->tail.load(std::memory_order_relaxed) - header_->head.load(std::memory_order_relaxed);
}

void Mailbox::unlinkName() {
  if (!owner_) return;
  const std::string name = mailboxObjectName(nid_);
  struct stat status {};
  if (stat(shmFilePath(name).c_str(), &status) != 0) return;
  if (status.st_dev == device_ && status.st_ino == inode_) shm_unlink(name.c_str());
}

void removeMailboxOfDeadNode(uint16_t nid) {
  NodeStartLock startLock;
  if (startLock.held()) removeDeadMailbox(mailboxObjectName(nid));
}

std::vector<uint16_t> listMailboxNids() {
  std::vector<uint16_t> nids;
  const std::string prefix = userObjectPrefix() + "node-";
  DIR* directory = opendir(kShmDirectory);
  if (directory == nullptr) return nids;
  while (const dirent* entry = readdir(directory)) {
    const char* name = entry->d_name;
    if (std::strncmp(name, prefix.c_str(), prefix.size()) != 0) continue;
    const char* digits = name + prefix.size();
    char* end = nullptr;
    const unsigned long nid = std::strtoul(digits, &end, 16);
    if (end == digits + 4 && *end == '\0' && nid <= 0xFFFF) nids.push_back(static_cast<uint16_t>(nid));
  }
  closedir(directory);
  return nids;
}

}  // namespace rhyddal
