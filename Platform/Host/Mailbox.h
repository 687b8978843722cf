// A node's receive mailbox: POSIX shared memory holding one single-producer ring ("lane") per
// sending process (layout and protocols in MailboxLayout.h), with futex wake-ups and a lock-free
// liveness probe of the owning node.
//
// Why shared memory and not sockets: the runtime polls for messages on every loop iteration, and
// an empty check here is two loads, no system call. A send is one copy into the sender's lane and
// a wake-up system call only when the receiver actually sleeps.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "LaneReader.h"
#include "MailboxLayout.h"

namespace rhyddal {

class MessagePool;

constexpr uint32_t kSpinYieldEvery = 64;

// The header's node id of the bridge's mailbox: above every 16-bit node id.
constexpr uint32_t kBridgeMailboxId = 0x10000;

enum class PushResult {
  kDelivered,
  kFull,         // the sender's lane has no room: the send fails at once, it never waits
  kTooLarge,     // a record that could never fit a lane
  kNoLane,       // every lane belongs to another live sending process
  kLaneDamaged,  // the lane's published end is not where a record can start (someone wrote it)
};

class Mailbox {
 public:
  // Creates the mailbox of nid and makes the calling thread its owner for the rest of the
  // thread's life. A mailbox left behind by a dead node of the same nid is replaced. Returns 0,
  // -EINVAL for a lane size that is not a power of two within [kMinLaneBytes, kMaxLaneBytes] or
  // an unusable RHYDDAL_NAMESPACE, -EADDRINUSE when a live node owns nid, -ENOTSUP when the C
  // library's mutex does not keep its owner's thread id where the probe reads it, or the negated
  // errno of a failed system call.
  static int create(uint16_t nid, uint32_t laneBytes, std::unique_ptr<Mailbox>* out);
  // The same for the host's bridge to other hosts: one mailbox of that layout under a name of its
  // own (bridgeMailboxObjectName), which no node id can take; kBridgeMailboxId in its header.
  static int createBridge(uint32_t laneBytes, std::unique_ptr<Mailbox>* out);
  // Maps nid's mailbox for sending. Returns 0, -EHOSTUNREACH when no node has (finished)
  // creating it, -EPROTO when it was made by an incompatible build, -EINVAL for an unusable
  // RHYDDAL_NAMESPACE, or the negated errno of a failed system call.
  static int open(uint16_t nid, std::shared_ptr<Mailbox>* out);
  static int openBridge(std::shared_ptr<Mailbox>* out);
  // Gives this process's lane back, so another sender can claim it; records already published
  // in it are still delivered.
  ~Mailbox();
  Mailbox(const Mailbox&) = delete;
  Mailbox& operator=(const Mailbox&) = delete;

  // The node id; kBridgeMailboxId for the bridge's.
  uint32_t nid() const { return nid_; }
  uint32_t laneBytes() const { return laneBytes_; }

  // Producer side: any process; the threads of one process serialise their pushes to one
  // mailbox object (the event machine's lock does). The first push claims a lane. origin: the
  // node id the sending process serves (see RecordHeader); only the bridge reads it.
  PushResult push(const void* payload, uint32_t length, RecordKind kind, uint16_t origin = 0);
  // True while the owning node's server thread lives. Reads one word; no lock, no system call.
  bool ownerAlive() const;
  // The thread id of the owning node's server thread (who it is, not whether it lives).
  uint32_t ownerTid() const { return header_->ownerTid; }

  // Consumer side: the owner only, serialised by the caller.
  // The next valid record copied into a pool buffer, or null when none is waiting (or the pool is
  // out of buffers; the record then stays queued). Lanes with records are served round-robin, one
  // record each, so one busy sender cannot starve the others; each lane keeps its sender's order.
  // *origin, when asked for, gets the record's origin.
  void* pop(MessagePool& pool, uint16_t* origin = nullptr);
  // Picks up lanes with records whose summary bit was never set (their sender died between
  // publishing and announcing). Costs two loads per lane: for slow paths (a timed-out wait).
  void collectAllLanes();

  // Any thread, no lock: false only when no record can be waiting. A few loads: the summary word,
  // and the tails of the lanes the consumer watches.
  bool mayHaveRecords() const;
  // Any thread, no lock: false when pop would find nothing without reading any lane's tail. For a
  // caller about to pop: pop reads each watched lane's tail once, where mayHaveRecords first would
  // read it twice.
  bool worthPopping() const;
  // Spins up to spinNs (never past the deadline), then sleeps until a record may be waiting or the
  // time has passed (seconds kNoTimeLimit: no limit). True when a record may be waiting.
  // While spinning, every yieldEvery empty checks the CPU goes to any other thread waiting for it.
  // Before it sleeps it stops watching the lanes it drained, which costs a barrier on their senders'
  // processes (about 10 us) when one of them streams.
  bool waitForRecord(uint32_t seconds, uint32_t nanoseconds, uint64_t spinNs, uint32_t yieldEvery = kSpinYieldEvery);

  // Fill level, read by anyone (the queue table). Never skewed by a sender that died mid-send.
  struct FillLevel {
    uint32_t records;  // published and not yet consumed
    uint64_t bytes;    // of the lanes, wrap padding included
  };
  FillLevel fillLevel() const;
  uint32_t waitingRecords() const { return fillLevel().records; }
  uint64_t ringBytes() const { return uint64_t{kLaneCount} * laneBytes_; }

  // rhyddal_host_timing_page_in_use of the node's process, visible to the timing updater.
  void markTimingPageInUse();
  bool timingPageInUse() const;

  // Owner only: removes the public name if it still names this mailbox (orderly exit).
  void unlinkName();
  // In a forked child: the child is not the owner; forget the role without touching the lock.
  void disownAfterFork() { owner_ = false; }

 private:
  Mailbox(void* mapping, size_t mappedBytes, bool owner, std::string name);
  static int createNamed(const std::string& name, uint32_t id, uint32_t laneBytes, std::unique_ptr<Mailbox>* out);
  static int openNamed(const std::string& name, uint32_t id, std::shared_ptr<Mailbox>* out);
  bool claimLane();
  void publish(LaneControl& control);
  bool mayStream() const;
  void notifyConsumer(uint64_t bit);
  LaneView laneView(uint32_t lane) const;
  bool collectPending();
  void setLocalPending(uint64_t lanes);
  void watch(uint32_t lane, bool on);
  bool laneHasRecords(uint32_t lane, std::memory_order order = std::memory_order_acquire) const;
  uint32_t nextPendingLane() const;
  void laneFoundEmpty(uint32_t lane);
  bool retireWatchedLanes();

  MailboxHeader* header_;
  unsigned char* rings_;
  size_t mappedBytes_;
  uint32_t laneBytes_;
  uint32_t nid_;
  bool owner_;
  std::string name_;
  dev_t device_ = 0;
  ino_t inode_ = 0;

  // Producer state of this process's lane: the copy of tail we alone store, and the last head
  // we read (refreshed only when the lane looks full).
  int lane_ = -1;
  uint64_t producerTail_ = 0;
  uint32_t knownHead_ = 0;
  bool streaming_ = false;      // publishing without a fence per record (see publish)
  uint32_t setBitsInARow_ = 0;  // sends in a row that found the lane's bit still set

  // Consumer state: lanes known to have records (collected from the shared summary), where the
  // round-robin continues, and the last tail read per lane.
  uint64_t localPending_ = 0;
  std::atomic<bool> anyLocalPending_{false};  // mirrors localPending_ != 0 for lock-free checks
  // Lanes found empty, polled by their tails until the consumer sleeps; their bits stay set in the
  // shared summary meanwhile.
  uint64_t watched_ = 0;
  std::atomic<uint64_t> watchedMirror_{0};  // mirrors watched_ for lock-free checks
  uint32_t cursor_ = 0;
  uint64_t knownTails_[kLaneCount] = {};
};

// Node ids of the mailboxes present in /dev/shm (live or left behind by dead nodes).
std::vector<uint16_t> listMailboxNids();

// Runs body holding the lock node start-ups take (a flock, released by the kernel if we die): body's
// result, or the negated errno when the lock cannot be had.
int underNodeStartLock(const std::function<int()>& body);

// Removes the mailbox of nid if no live node owns it (a node killed leaves its mailbox behind).
void removeMailboxOfDeadNode(uint16_t nid);

}  // namespace rhyddal
