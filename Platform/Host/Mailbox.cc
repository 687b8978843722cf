#include "Mailbox.h"

#include <fcntl.h>
#include <linux/futex.h>
#include <sched.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "Futex.h"
#include "HostEnvironment.h"
#include "MessagePool.h"
#include "ProcessBarrier.h"
#include "ProcessIdentity.h"

namespace rhyddal {
namespace {

#ifdef __GLIBC__
// The liveness probe reads the robust mutex's futex word, which glibc keeps first in the mutex on
// every architecture; Mailbox::create checks at run time that it holds the owner's thread id.
static_assert(offsetof(pthread_mutex_t, __data.__lock) == 0, "glibc keeps the futex word first");
static_assert(sizeof(pthread_mutex_t{}.__data.__lock) == 4, "the futex word is 32 bits");
#endif

constexpr uint64_t kSpinCheckEvery = 64;  // empty checks between two clock reads while spinning
// Sends in a row that find their bit still set before a producer streams without fences: a short
// burst keeps fencing, so a consumer that sleeps between bursts seldom pays for a barrier.
constexpr uint32_t kStreamAfterSetBits = 16;

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
  NodeStartLock() : fd_(::open(nodeStartLockPath().c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600)) {
    if (fd_.get() >= 0) {
      while (flock(fd_.get(), LOCK_EX) != 0 && errno == EINTR) {
      }
    }
  }
  bool held() const { return fd_.get() >= 0; }

 private:
  FileDescriptor fd_;
};

uint32_t threadId() { return static_cast<uint32_t>(syscall(SYS_gettid)); }

// The mutex's futex word. Acquire: pairs with nothing in particular (the kernel's robust-list walk
// and glibc's lock are the writers); it only keeps later reads of the mailbox after the probe.
uint32_t futexWordOf(const LockSlot& slot) {
  return __atomic_load_n(reinterpret_cast<const uint32_t*>(slot.bytes), __ATOMIC_ACQUIRE);
}

bool ownerLockHeld(const MailboxHeader& header) {
  return header.ownerTid != 0 && (futexWordOf(header.ownerLock) & FUTEX_TID_MASK) == header.ownerTid;
}

int initialiseOwnerLock(LockSlot& slot) {
  pthread_mutexattr_t attributes;
  pthread_mutexattr_init(&attributes);
  pthread_mutexattr_setpshared(&attributes, PTHREAD_PROCESS_SHARED);
  pthread_mutexattr_setrobust(&attributes, PTHREAD_MUTEX_ROBUST);
  int rc = pthread_mutex_init(mutexIn(slot), &attributes);
  pthread_mutexattr_destroy(&attributes);
  if (rc == 0) rc = pthread_mutex_lock(mutexIn(slot));
  if (rc != 0) return -rc;
  if ((futexWordOf(slot) & FUTEX_TID_MASK) != threadId()) {
    pthread_mutex_unlock(mutexIn(slot));
    return -ENOTSUP;
  }
  return 0;
}

bool layoutMatches(const MailboxHeader& header) {
  return header.layoutVersion == kMailboxLayoutVersion && header.lockAbi == hostLockAbi() &&
         header.laneCount == kLaneCount;
}

bool laneSizeIsSound(uint32_t laneBytes) {
  const bool powerOfTwo = laneBytes != 0 && (laneBytes & (laneBytes - 1)) == 0;
  return powerOfTwo && laneBytes >= kMinLaneBytes && laneBytes <= kMaxLaneBytes;
}

// Decides whether the object under the name belongs to a live node. A mailbox of an incompatible
// build cannot be probed through its lock; its recorded pid is the best evidence left.
bool existingMailboxIsLive(int fd) {
  struct stat status {};
  if (fstat(fd, &status) != 0 || static_cast<size_t>(status.st_size) < sizeof(MailboxHeader)) return false;
  void* mapping = mmap(nullptr, sizeof(MailboxHeader), PROT_READ, MAP_SHARED, fd, 0);
  if (mapping == MAP_FAILED) return false;
  const auto* header = static_cast<const MailboxHeader*>(mapping);
  bool live = false;
  if (header->magic.load(std::memory_order_acquire) == kMailboxMagic) {
    live = layoutMatches(*header) ? ownerLockHeld(*header) : kill(static_cast<pid_t>(header->ownerPid), 0) == 0;
  }
  munmap(mapping, sizeof(MailboxHeader));
  return live;
}

int removeDeadMailbox(const std::string& name) {
  FileDescriptor fd(shm_open(name.c_str(), O_RDWR | O_CLOEXEC, 0));
  if (fd.get() < 0) return errno == ENOENT ? 0 : -errno;
  if (existingMailboxIsLive(fd.get())) return -EADDRINUSE;
  if (shm_unlink(name.c_str()) != 0 && errno != ENOENT) return -errno;
  return 0;
}

int initialiseHeader(MailboxHeader* header, uint32_t nid, uint32_t laneBytes) {
  header->layoutVersion = kMailboxLayoutVersion;
  header->nid = nid;
  header->laneCount = kLaneCount;
  header->laneBytes = laneBytes;
  header->lockAbi = hostLockAbi();
  header->ownerPid = static_cast<uint32_t>(getpid());
  header->ownerTid = threadId();
  header->barriersAvailable = processBarriersAvailable() ? 1 : 0;
  const int rc = initialiseOwnerLock(header->ownerLock);
  if (rc != 0) return rc;
  header->magic.store(kMailboxMagic, std::memory_order_release);  // pairs with the acquire in open
  return 0;
}

}  // namespace

int Mailbox::create(uint16_t nid, uint32_t laneBytes, std::unique_ptr<Mailbox>* out) {
  if (!namespaceUsable()) return -EINVAL;
  return createNamed(mailboxObjectName(nid), nid, laneBytes, out);
}

int Mailbox::createBridge(uint32_t laneBytes, std::unique_ptr<Mailbox>* out) {
  if (!namespaceUsable()) return -EINVAL;
  return createNamed(bridgeMailboxObjectName(), kBridgeMailboxId, laneBytes, out);
}

int Mailbox::createNamed(const std::string& name, uint32_t id, uint32_t laneBytes, std::unique_ptr<Mailbox>* out) {
  if (!laneSizeIsSound(laneBytes)) return -EINVAL;
  NodeStartLock startLock;
  if (!startLock.held()) return -errno;
  int rc = removeDeadMailbox(name);
  if (rc != 0) return rc;
  FileDescriptor fd(shm_open(name.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
  if (fd.get() < 0) return errno == EEXIST ? -EADDRINUSE : -errno;
  const size_t objectBytes = mailboxBytes(laneBytes);
  struct stat status {};
  void* mapping = MAP_FAILED;
  if (ftruncate(fd.get(), static_cast<off_t>(objectBytes)) != 0 || fstat(fd.get(), &status) != 0 ||
      (mapping = mmap(nullptr, objectBytes, PROT_READ | PROT_WRITE, MAP_SHARED, fd.get(), 0)) == MAP_FAILED) {
    rc = -errno;
    shm_unlink(name.c_str());
    return rc;
  }
  rc = initialiseHeader(new (mapping) MailboxHeader{}, id, laneBytes);
  if (rc != 0) {
    munmap(mapping, objectBytes);
    shm_unlink(name.c_str());
    return rc;
  }
  out->reset(new Mailbox(mapping, objectBytes, true, name));
  (*out)->device_ = status.st_dev;
  (*out)->inode_ = status.st_ino;
  return 0;
}

int Mailbox::open(uint16_t nid, std::shared_ptr<Mailbox>* out) {
  if (!namespaceUsable()) return -EINVAL;
  return openNamed(mailboxObjectName(nid), nid, out);
}

int Mailbox::openBridge(std::shared_ptr<Mailbox>* out) {
  if (!namespaceUsable()) return -EINVAL;
  return openNamed(bridgeMailboxObjectName(), kBridgeMailboxId, out);
}

int Mailbox::openNamed(const std::string& name, uint32_t nid, std::shared_ptr<Mailbox>* out) {
  FileDescriptor fd(shm_open(name.c_str(), O_RDWR | O_CLOEXEC, 0));
  if (fd.get() < 0) return errno == ENOENT ? -EHOSTUNREACH : -errno;
  struct stat status {};
  if (fstat(fd.get(), &status) != 0) return -errno;
  const size_t objectBytes = static_cast<size_t>(status.st_size);
  if (objectBytes < sizeof(MailboxHeader)) return -EHOSTUNREACH;
  void* mapping = mmap(nullptr, objectBytes, PROT_READ | PROT_WRITE, MAP_SHARED, fd.get(), 0);
  if (mapping == MAP_FAILED) return -errno;
  const auto* header = static_cast<const MailboxHeader*>(mapping);
  int rc = 0;
  if (header->magic.load(std::memory_order_acquire) != kMailboxMagic) {
    rc = -EHOSTUNREACH;
  } else if (!layoutMatches(*header) || header->nid != nid || !laneSizeIsSound(header->laneBytes) ||
             mailboxBytes(header->laneBytes) > objectBytes) {
    rc = -EPROTO;
  }
  if (rc != 0) {
    munmap(mapping, objectBytes);
    return rc;
  }
  out->reset(new Mailbox(mapping, objectBytes, false, name));
  return 0;
}

Mailbox::Mailbox(void* mapping, size_t mappedBytes, bool owner, std::string name)
    : header_(static_cast<MailboxHeader*>(mapping)),
      rings_(static_cast<unsigned char*>(mapping) + kLanesOffset),
      mappedBytes_(mappedBytes),
      laneBytes_(header_->laneBytes),
      nid_(header_->nid),
      owner_(owner),
      name_(std::move(name)) {}

// The owner unlocks before unmapping: the C library keeps held robust mutexes on a per-thread
// list and would otherwise follow a link into memory that is gone.
Mailbox::~Mailbox() {
  if (lane_ >= 0) {
    uint64_t mine = thisProcessIdentity();
    header_->lanes[lane_].streaming.store(0, std::memory_order_release);
    header_->lanes[lane_].owner.compare_exchange_strong(mine, 0, std::memory_order_release);
  }
  if (owner_) pthread_mutex_unlock(mutexIn(header_->ownerLock));
  munmap(header_, mappedBytes_);
}

bool Mailbox::ownerAlive() const { return owner_ || ownerLockHeld(*header_); }

PushResult Mailbox::push(const void* payload, uint32_t length, RecordKind kind, uint16_t origin) {
  const uint32_t recordBytes = recordBytesFor(length);
  if (length > kMaxBufferBytes || recordBytes > laneBytes_ / 2) return PushResult::kTooLarge;
  if (lane_ < 0 && !claimLane()) return PushResult::kNoLane;
  LaneControl& control = header_->lanes[lane_];
  const uint32_t tail = bytesOf(producerTail_);
  if (tail % kRecordAlignment != 0) return PushResult::kLaneDamaged;
  const uint32_t position = tail & (laneBytes_ - 1);
  const uint32_t untilEnd = laneBytes_ - position;
  const uint32_t padding = untilEnd < recordBytes ? untilEnd : 0;
  const uint64_t needed = uint64_t{padding} + recordBytes;
  if (uint64_t{tail - knownHead_} + needed > laneBytes_) {
    // Acquire: pairs with the consumer's release store of head, so the space it gave back is
    // no longer being read when we overwrite it.
    knownHead_ = bytesOf(control.head.load(std::memory_order_acquire));
    if (uint64_t{tail - knownHead_} + needed > laneBytes_) return PushResult::kFull;
  }
  unsigned char* ring = rings_ + size_t{static_cast<uint32_t>(lane_)} * laneBytes_;
  if (padding != 0) {
    const RecordHeader marker{kWrapMarker, 0, 0};
    std::memcpy(ring + position, &marker, sizeof(marker));
  }
  const uint32_t start = (tail + padding) & (laneBytes_ - 1);
  const RecordHeader record{length, static_cast<uint16_t>(kind), origin};
  std::memcpy(ring + start, &record, sizeof(record));
  std::memcpy(ring + start + sizeof(record), payload, length);
  producerTail_ = laneIndex(recordsOf(producerTail_) + 1, tail + static_cast<uint32_t>(needed));
  publish(control);
  return PushResult::kDelivered;
}

// A free lane first; else the lane of a sending process that is gone (read from /proc, which is
// why this is only done when a process first sends to a node).
bool Mailbox::claimLane() {
  const uint64_t me = thisProcessIdentity();
  int chosen = -1;
  bool inherited = false;
  for (uint32_t i = 0; i < kLaneCount && chosen < 0; ++i) {
    uint64_t expected = 0;
    if (header_->lanes[i].owner.compare_exchange_strong(expected, me, std::memory_order_acq_rel)) chosen = static_cast<int>(i);
  }
  for (uint32_t i = 0; i < kLaneCount && chosen < 0; ++i) {
    uint64_t current = header_->lanes[i].owner.load(std::memory_order_acquire);
    if (current == 0 || current == me || processIdentityAlive(current)) continue;
    if (header_->lanes[i].owner.compare_exchange_strong(current, me, std::memory_order_acq_rel)) {
      chosen = static_cast<int>(i);
      inherited = true;
    }
  }
  if (chosen < 0) return false;
  lane_ = chosen;
  LaneControl& control = header_->lanes[lane_];
  producerTail_ = control.tail.load(std::memory_order_acquire);
  knownHead_ = bytesOf(control.head.load(std::memory_order_acquire));
  control.streaming.store(0, std::memory_order_release);  // we fence until we find a stream
  // A predecessor may have died between publishing a record and announcing it.
  if (inherited) notifyConsumer(uint64_t{1} << lane_);
  return true;
}

// A lane's bit in pending stays set while the consumer is awake; only the consumer clears it, on its
// way to sleep. So a producer that finds its bit set has nothing to announce.
//
// Fenced, the default: our seq_cst store of tail precedes our seq_cst load of pending; if that load
// still saw the bit, it precedes the consumer's seq_cst fetch_and clearing it, which precedes the
// consumer's seq_cst re-read of tail (retireWatchedLanes), and so that re-read sees the record.
//
// Streaming: that fence costs a cross-core round trip of the tail's cache line per message. A
// producer that finds its bit still set kStreamAfterSetBits times in a row (the consumer is behind,
// so the traffic is a stream) marks its lane streaming and, from then on, stores tail with release
// and reads pending without a fence. Before the consumer stops watching (retireWatchedLanes, on the
// way to sleep) it clears the bits and, when a lane streams, imposes a barrier on the producers,
// after which every record whose producer saw its bit set is visible.
// The mark is a seq_cst store followed by our seq_cst loads of pending, against the consumer's
// seq_cst fetch_and of the bit followed by its seq_cst load of the mark: either the consumer sees
// the mark, or we see the bit cleared and fence again. A producer that finds its bit cleared stops
// streaming.
//
// Setting the bit: fetch_or (seq_cst) against waitForRecord's seq_cst store of waiterAsleep
// followed by its load of pending guarantees that either the consumer sees the bit before it
// sleeps or we see waiterAsleep set here. The consumer cannot be asleep while the bit is set: it
// re-checks pending after announcing its sleep. Only the producer that turns waiterAsleep back to
// 0 makes the wake-up call: one system call per sleep, however many senders arrive.
void Mailbox::publish(LaneControl& control) {
  const uint64_t bit = uint64_t{1} << lane_;
  if (streaming_) {
    // Release: pairs with the consumer's acquire load of tail; the record's bytes are visible first.
    control.tail.store(producerTail_, std::memory_order_release);
    // Keeps the compiler from reading pending first. The processor may still read it before the
    // store of tail is visible (a seq_cst load is a plain load on x86-64): the consumer's barrier
    // covers that.
    std::atomic_signal_fence(std::memory_order_seq_cst);
    if ((header_->pending.load(std::memory_order_seq_cst) & bit) != 0) return;
    streaming_ = false;
    setBitsInARow_ = 0;
    control.streaming.store(0, std::memory_order_release);
    notifyConsumer(bit);
    return;
  }
  control.tail.store(producerTail_, std::memory_order_seq_cst);
  if ((header_->pending.load(std::memory_order_seq_cst) & bit) == 0) {
    setBitsInARow_ = 0;
    notifyConsumer(bit);
  } else if (++setBitsInARow_ >= kStreamAfterSetBits && mayStream()) {
    control.streaming.store(1, std::memory_order_seq_cst);
    streaming_ = true;
  }
}

bool Mailbox::mayStream() const { return header_->barriersAvailable != 0 && joinProcessBarriers(); }

void Mailbox::notifyConsumer(uint64_t bit) {
  header_->pending.fetch_or(bit, std::memory_order_seq_cst);
  if (header_->waiterAsleep.load(std::memory_order_seq_cst) != 0 &&
      header_->waiterAsleep.exchange(0, std::memory_order_seq_cst) != 0) {
    header_->wakeSequence.fetch_add(1, std::memory_order_seq_cst);
    futexWake(&header_->wakeSequence, 1);
  }
}

LaneView Mailbox::laneView(uint32_t lane) const {
  return LaneView{&header_->lanes[lane], rings_ + size_t{lane} * laneBytes_, laneBytes_, nid_};
}

// Acquire: pairs with producers' fetch_or (see publish). The bits stay set in the shared word;
// the consumer clears each when it finds its lane empty. Watched lanes are polled by their tails.
bool Mailbox::collectPending() {
  const uint64_t shared = header_->pending.load(std::memory_order_acquire) & ~watched_;
  if (shared != 0) setLocalPending(localPending_ | shared);
  for (uint64_t watched = watched_; watched != 0; watched &= watched - 1) {
    const uint32_t lane = static_cast<uint32_t>(__builtin_ctzll(watched));
    // The tail read here is the one readLane goes on with: while the consumer keeps pace with a
    // stream, nearly every read of a tail is a miss, its line last written by the producer.
    const uint64_t tail = header_->lanes[lane].tail.load(std::memory_order_acquire);
    if (bytesOf(tail) != bytesOf(header_->lanes[lane].head.load(std::memory_order_relaxed))) {
      knownTails_[lane] = tail;
      prefetchPublished(laneView(lane), tail);
      watch(lane, false);
      setLocalPending(localPending_ | uint64_t{1} << lane);
    }
  }
  return localPending_ != 0;
}

void Mailbox::setLocalPending(uint64_t lanes) {
  localPending_ = lanes;
  anyLocalPending_.store(lanes != 0, std::memory_order_relaxed);
}

void Mailbox::watch(uint32_t lane, bool on) {
  const uint64_t bit = uint64_t{1} << lane;
  watched_ = on ? watched_ | bit : watched_ & ~bit;
  watchedMirror_.store(watched_, std::memory_order_relaxed);
}

// Acquire at least: pairs with the producer's release store of tail. Seq_cst after clearing a
// lane's bit (the consumer's half of the handshake in publish).
bool Mailbox::laneHasRecords(uint32_t lane, std::memory_order order) const {
  const LaneControl& control = header_->lanes[lane];
  return bytesOf(control.tail.load(order)) != bytesOf(control.head.load(std::memory_order_relaxed));
}

uint32_t Mailbox::nextPendingLane() const {
  const uint64_t rotated = cursor_ == 0 ? localPending_ : (localPending_ >> cursor_) | (localPending_ << (kLaneCount - cursor_));
  return (cursor_ + static_cast<uint32_t>(__builtin_ctzll(rotated))) % kLaneCount;
}

// A lane found empty stays watched, its bit still set, until the consumer is about to sleep. Were it
// taken off at once, a consumer that keeps pace with a fenced producer would clear the bit after
// nearly every record, and the producer would never find it set often enough to start streaming:
// it would fence and announce every record for as long as the consumer kept pace. Kept set, the
// bit tells the producer the consumer is awake and polling.
void Mailbox::laneFoundEmpty(uint32_t lane) {
  setLocalPending(localPending_ & ~(uint64_t{1} << lane));
  watch(lane, true);
}

// Before the consumer sleeps, the watched lanes go: the consumer's half of the handshake in
// publish. Their bits are cleared, then their marks read (a producer still streaming, or one that
// marked its lane meanwhile, may have skipped its fence: the barrier covers it), then their tails
// read once more, all seq_cst. A lane with a record goes back on the list and the sleep is off
// (true); producers that find their bit cleared fence and announce again.
bool Mailbox::retireWatchedLanes() {
  const uint64_t watched = watched_;
  if (watched == 0) return false;
  watched_ = 0;
  watchedMirror_.store(0, std::memory_order_relaxed);
  header_->pending.fetch_and(~watched, std::memory_order_seq_cst);
  bool streaming = false;
  for (uint64_t rest = watched; rest != 0; rest &= rest - 1) {
    streaming |= header_->lanes[__builtin_ctzll(rest)].streaming.load(std::memory_order_seq_cst) != 0;
  }
  if (streaming) barrierAcrossProcesses();
  for (uint64_t rest = watched; rest != 0; rest &= rest - 1) {
    const uint32_t lane = static_cast<uint32_t>(__builtin_ctzll(rest));
    if (laneHasRecords(lane, std::memory_order_seq_cst)) setLocalPending(localPending_ | uint64_t{1} << lane);
  }
  return localPending_ != 0;
}

// Lanes are served round-robin; readLane reads a lane's tail again only once head has reached the
// tail it read last, so a busy lane costs no shared read per record. A lane is dealt with as soon
// as head reaches that tail, so that mayHaveRecords does not go on saying yes to a caller that
// waits without popping.
void* Mailbox::pop(MessagePool& pool, uint16_t* origin) {
  for (;;) {
    if (localPending_ == 0 && !collectPending()) return nullptr;
    const uint32_t lane = nextPendingLane();
    void* message = nullptr;
    switch (readLane(laneView(lane), &knownTails_[lane], pool, &message, origin)) {
      case LaneRead::kMessage:
        cursor_ = (lane + 1) % kLaneCount;
        if (bytesOf(header_->lanes[lane].head.load(std::memory_order_relaxed)) == bytesOf(knownTails_[lane])) {
          laneFoundEmpty(lane);
        }
        return message;
      case LaneRead::kAgain:
        break;
      case LaneRead::kEmpty:
        laneFoundEmpty(lane);
        break;
      case LaneRead::kNoBuffer:
        return nullptr;
    }
  }
}

void Mailbox::collectAllLanes() {
  uint64_t lanes = localPending_;
  for (uint32_t lane = 0; lane < kLaneCount; ++lane) {
    if ((watched_ & uint64_t{1} << lane) == 0 && laneHasRecords(lane)) lanes |= uint64_t{1} << lane;
  }
  setLocalPending(lanes);
}

bool Mailbox::worthPopping() const {
  if (anyLocalPending_.load(std::memory_order_relaxed)) return true;
  if (watchedMirror_.load(std::memory_order_relaxed) != 0) return true;
  return header_->pending.load(std::memory_order_acquire) != 0;
}

// seq_cst load of pending: the second half of the waiter's side of the handshake in publish
// (store waiterAsleep, then load pending). Watched lanes keep their bits set; their tails tell.
bool Mailbox::mayHaveRecords() const {
  if (anyLocalPending_.load(std::memory_order_relaxed)) return true;
  const uint64_t watched = watchedMirror_.load(std::memory_order_relaxed);
  if ((header_->pending.load(std::memory_order_seq_cst) & ~watched) != 0) return true;
  for (uint64_t lanes = watched; lanes != 0; lanes &= lanes - 1) {
    if (laneHasRecords(static_cast<uint32_t>(__builtin_ctzll(lanes)))) return true;
  }
  return false;
}

// The sequence is read before waiterAsleep is set and the summary re-checked; a send that lands
// after the re-check changes the sequence, so the futex wait returns at once instead of sleeping.
bool Mailbox::waitForRecord(uint32_t seconds, uint32_t nanoseconds, uint64_t spinNs, uint32_t yieldEvery) {
  if (mayHaveRecords()) return true;
  const bool limited = seconds != kNoTimeLimit;
  // The clock is read only when something depends on it: an unlimited wait without spinning
  // goes straight to the futex.
  const timespec now = limited || spinNs != 0 ? monotonicNow() : timespec{};
  const timespec deadline = limited ? deadlineAfter(now, seconds, nanoseconds) : timespec{};
  if (spinNs != 0) {
    const timespec spinUntil = deadlineAfter(now, 0, static_cast<uint32_t>(spinNs));
    for (uint64_t checks = 1;; ++checks) {
      if (mayHaveRecords()) return true;
      if (checks % kSpinCheckEvery == 0 && (reached(spinUntil) || (limited && reached(deadline)))) break;
      // A thread sharing this CPU (the host's bridge in this process, a peer pinned beside it)
      // gets its turn now rather than when the spin ends; with none, this returns at once.
      if (checks % yieldEvery == 0) sched_yield();
#if defined(__x86_64__) || defined(__i386__)
      __builtin_ia32_pause();
#elif defined(__aarch64__) || defined(__arm__)
      asm volatile("yield" ::: "memory");
#endif
    }
  }
  if (retireWatchedLanes()) return true;
  for (;;) {
    const uint32_t sequence = header_->wakeSequence.load(std::memory_order_seq_cst);
    header_->waiterAsleep.store(1, std::memory_order_seq_cst);
    if (mayHaveRecords()) break;
    futexWaitUntil(&header_->wakeSequence, sequence, limited ? &deadline : nullptr);
    header_->waiterAsleep.store(0, std::memory_order_relaxed);
    if (mayHaveRecords()) return true;
    if (limited && reached(deadline)) return false;
  }
  header_->waiterAsleep.store(0, std::memory_order_relaxed);
  return true;
}

// Head before tail: tail never falls behind a head read earlier, so no difference is negative.
// Relaxed: these are statistics, read while the lanes move.
Mailbox::FillLevel Mailbox::fillLevel() const {
  FillLevel level{0, 0};
  for (const LaneControl& control : header_->lanes) {
    const uint64_t head = control.head.load(std::memory_order_relaxed);
    const uint64_t tail = control.tail.load(std::memory_order_relaxed);
    level.records += recordsOf(tail) - recordsOf(head);
    level.bytes += bytesOf(tail) - bytesOf(head);
  }
  return level;
}

void Mailbox::markTimingPageInUse() { header_->timingPageInUse.store(1, std::memory_order_release); }

bool Mailbox::timingPageInUse() const { return header_->timingPageInUse.load(std::memory_order_acquire) != 0; }

void Mailbox::unlinkName() {
  if (!owner_) return;
  struct stat status {};
  if (stat(shmFilePath(name_).c_str(), &status) != 0) return;
  if (status.st_dev == device_ && status.st_ino == inode_) shm_unlink(name_.c_str());
}

int underNodeStartLock(const std::function<int()>& body) {
  NodeStartLock startLock;
  if (!startLock.held()) return -errno;
  return body();
}

void removeMailboxOfDeadNode(uint16_t nid) {
  if (!namespaceUsable()) return;
  NodeStartLock startLock;
  if (startLock.held()) removeDeadMailbox(mailboxObjectName(nid));
}

std::vector<uint16_t> listMailboxNids() { return nidsOfObjects(kMailboxObjectKind); }

}  // namespace rhyddal
