// A node's receive mailbox: a POSIX shared-memory ring (layout in MailboxLayout.h) with futex
// wake-ups and liveness through a robust mutex held by the owning node.
//
// Why shared memory and not sockets: the runtime polls for messages on every loop iteration, and
// an empty check here is two atomic loads, no system call. A send is one copy into the ring and a
// wake-up system call only when the receiver actually sleeps.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "MailboxLayout.h"

namespace rhyddal {

class MessagePool;

enum class PushResult {
  kDelivered,
  kFull,       // the receiver's ring has no room: the send fails at once, it never waits
  kTooLarge,   // a record that could never fit the ring
  kLockBroken  // the producer lock cannot be taken
};

class Mailbox {
 public:
  // Creates the mailbox of nid and makes the calling thread its owner for the rest of the
  // thread's life. A mailbox left behind by a dead node of the same nid is replaced.
  // Returns 0, -EADDRINUSE when a live node owns nid, or a negative errno of the system calls.
  static int create(uint16_t nid, uint32_t ringBytes, std::unique_ptr<Mailbox>* out);
  // Maps nid's mailbox for sending. Returns 0, -EHOSTUNREACH when no node has (finished)
  // creating it, -EPROTO when it was made by an incompatible build, or a negative errno.
  static int open(uint16_t nid, std::shared_ptr<Mailbox>* out);
  ~Mailbox();
  Mailbox(const Mailbox&) = delete;
  Mailbox& operator=(const Mailbox&) = delete;

  uint16_t nid() const { return nid_; }
  uint32_t ringBytes() const { return ringBytes_; }

  // Producer side (any process, any thread).
  PushResult push(const void* payload, uint32_t length, RecordKind kind);
  // True while the owning node's server thread lives. No system call while it does.
  bool ownerAlive();

  // Consumer side (the owner only).
  // The next valid record copied into a pool buffer, or null when none is waiting (or the pool is
  // out of buffers; the record then stays queued). Records whose SysCom header disagrees with
  // their length are dropped with one line on stderr.
  void* pop(MessagePool& pool);
  bool empty() const;
  // Sleeps until a record is waiting or the time has passed (seconds 0xFFFFFFFF: no limit).
  // True when a record is waiting.
  bool waitForRecord(uint32_t seconds, uint32_t nanoseconds);

  // Fill level, read by anyone (the queue table).
  uint32_t waitingRecords() const;
  uint32_t usedBytes() const;

  // Owner only: removes the public name if it still names this mailbox (orderly exit).
  void unlinkName();
  // In a forked child: the child is not the owner; forget the role without touching the lock.
  void disownAfterFork() { owner_ = false; }

 private:
  Mailbox(void* mapping, size_t mappedBytes, bool owner);
  bool lockProducers();
  void wakeConsumer();
  void writeRecord(uint32_t position, const void* payload, uint32_t length, RecordKind kind);
  bool recordIsSound(uint32_t position, uint32_t available, const RecordHeader& record) const;
  bool messageIsSound(const void* copy, const RecordHeader& record) const;
  void discardDamagedRing(uint32_t head, uint32_t tail);
  void advanceHead(uint32_t head, uint32_t bytes, bool countRecord);

  MailboxHeader* header_;
  unsigned char* ring_;
  size_t mappedBytes_;
  uint32_t ringBytes_;
  uint16_t nid_;
  bool owner_;
  dev_t device_ = 0;
  ino_t inode_ = 0;
};

// Node ids of this user's mailboxes present in /dev/shm (live or left behind by dead nodes).
std::vector<uint16_t> listMailboxNids();

// Removes the mailbox of nid if no live node owns it (a node killed leaves its mailbox behind).
void removeMailboxOfDeadNode(uint16_t nid);

}  // namespace rhyddal
