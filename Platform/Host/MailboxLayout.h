// The shared-memory layout of a node's receive mailbox: a header, 64 lane controls, then 64 byte
// rings ("lanes"), one per sending process.
//
// Every process of the node's user maps it: the owning node (the single consumer) and any number
// of senders. Fixed-width fields only; the layout is the same for 32-bit and 64-bit builds (every
// offset is asserted below).
//
// Lanes: a sending process claims one lane per receiving node (a 64-bit compare-and-swap of the
// lane's owner word from 0 to its process identity, pid | start time << 32) and is from then on
// the lane's only producer: no lock is shared between processes, so a sender stopped or killed in
// the middle of a send holds up nothing but its own lane. A lane whose owner process is gone is
// taken over by the next sender that finds no free lane; records the dead owner published stay
// in it and are delivered first.
//
// Ring protocol, per lane: tail and head are 64-bit words, (records << 32) | bytes, both halves
// free-running and wrapping at 2^32; the lane size is a power of two, so the position of a byte
// counter is counter & (laneBytes - 1). The producer alone stores tail (release), the consumer
// alone stores head (release). Because the record count travels in the same atomic store as the
// byte position, "messages waiting" = tail.records - head.records can never be skewed by a
// producer that dies between two stores. A record is an 8-byte RecordHeader and its payload,
// padded to 8 bytes; a record never wraps: when it does not fit before the end of the ring, a
// wrap marker fills the rest and the record starts at position 0.
//
// Summary: bit i of `pending` says the consumer is to look at lane i. A producer that finds its
// bit clear after publishing sets it (seq_cst fetch_or). The consumer keeps the bit set while it is
// awake: a lane it has drained it watches, polling the lane's tail. Only before it sleeps does it
// clear the bits of the lanes it watches, imposing a barrier on their producers first when one of
// them streams, and then it reads their tails once more (Mailbox::publish). So a producer sending
// to an awake consumer writes nothing but its records and its own tail.
//
// Liveness of the node: its server thread holds ownerLock, a robust process-shared mutex, for its
// whole life and never releases it while it lives. A prober only reads the mutex's futex word:
// while the owner lives its low 30 bits are the owner's thread id (recorded in ownerTid); when the
// thread dies the kernel's robust-list walk clears them and sets FUTEX_OWNER_DIED. The probe takes
// no lock, makes no system call, and cannot disturb the owner or a concurrent probe.
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstddef>
#include <cstdint>

namespace rhyddal {

constexpr uint32_t kMailboxMagic = 0x4D594852;  // "RHYM"
constexpr uint32_t kMailboxLayoutVersion = 5;
constexpr uint32_t kLaneCount = 64;
constexpr uint32_t kRecordAlignment = 8;
constexpr uint32_t kWrapMarker = 0xFFFFFFFFu;
constexpr uint32_t kMinLaneBytes = 256 * 1024;  // at least three of the largest records
constexpr uint32_t kMaxLaneBytes = 16u << 20;   // 64 lanes: a mailbox maps at most 1 GiB
constexpr uint32_t kDefaultLaneBytes = 1u << 20;  // 15 of the largest records in flight per sender
constexpr size_t kLockSlotBytes = 64;
constexpr size_t kPageBytes = 4096;

enum class RecordKind : uint16_t { kMessage = 1, kRawEvent = 2 };

struct RecordHeader {
  uint32_t length;  // payload bytes; kWrapMarker: skip to the start of the ring
  uint16_t kind;    // RecordKind
  // The node id the sending process serves. The bridge passes it on to the other host, which
  // checks it against the host that sent it; the message header's sender may name any node (a
  // node passing a message on keeps its first sender).
  uint16_t origin;
};

struct alignas(8) LockSlot {
  unsigned char bytes[kLockSlotBytes];
};

// One lane's indices. The producer's line (owner, tail) and the consumer's line (head) are apart so
// that the two sides do not write to one cache line.
struct alignas(64) LaneControl {
  std::atomic<uint64_t> owner;  // 0: free; else the owning process's identity (pid | start << 32)
  std::atomic<uint64_t> tail;   // published end: records << 32 | bytes, stored by the owner only
  // 1 while the owner publishes without fencing each record, relying on the consumer to impose a
  // barrier before it stops watching the lane (see Mailbox::notifyConsumer). Stored by the owner.
  std::atomic<uint32_t> streaming;
  uint32_t reserved0[11];
  alignas(64) std::atomic<uint64_t> head;  // consumed: records << 32 | bytes, stored by the node only
  uint32_t reserved1[14];
};

struct alignas(64) MailboxHeader {
  // Identity. Written before magic; magic is stored last (release), so a mailbox whose magic
  // reads right (acquire) is completely initialised.
  std::atomic<uint32_t> magic;
  uint32_t layoutVersion;
  uint32_t nid;
  uint32_t laneCount;
  uint32_t laneBytes;
  uint32_t lockAbi;
  uint32_t ownerPid;  // diagnostics and incompatible builds only: pids are reused
  uint32_t ownerTid;  // the thread id ownerLock's futex word holds while the node lives
  // Set by a node whose runtime reads the timing page (rhyddal_host_timing_page_in_use); the
  // timing updater runs at full rate while a live node has it set.
  std::atomic<uint32_t> timingPageInUse;
  // Set by the owner when it can impose barriers on other processes; producers stream without
  // fences only then.
  uint32_t barriersAvailable;
  uint32_t reserved0[6];

  alignas(64) LockSlot ownerLock;

  // The line every send and every poll touches, kept to one line on purpose. pending: bit i says
  // lane i may have records the consumer has not collected yet. wakeSequence is the futex word
  // (shared, not private: the waiter and the wakers are different processes); waiterAsleep tells
  // producers whether a wake-up call is needed.
  alignas(64) std::atomic<uint64_t> pending;
  std::atomic<uint32_t> wakeSequence;
  std::atomic<uint32_t> waiterAsleep;
  uint32_t reserved2[12];
  uint32_t reserved3[16];

  LaneControl lanes[kLaneCount];
};

// The lanes' rings start on a page boundary after the header.
constexpr size_t kLanesOffset = (sizeof(MailboxHeader) + kPageBytes - 1) / kPageBytes * kPageBytes;

constexpr size_t mailboxBytes(uint32_t laneBytes) { return kLanesOffset + size_t{kLaneCount} * laneBytes; }

static_assert(std::atomic<uint32_t>::is_always_lock_free, "futex words and flags must be plain words");
static_assert(std::atomic<uint64_t>::is_always_lock_free, "lane indices are single 64-bit atomics");
static_assert(sizeof(std::atomic<uint32_t>) == 4 && sizeof(std::atomic<uint64_t>) == 8, "shared word sizes");
static_assert(alignof(std::atomic<uint64_t>) == 8, "64-bit words are naturally aligned on every build");
static_assert(sizeof(RecordHeader) == 8 && offsetof(RecordHeader, origin) == 6, "record header layout");
static_assert(sizeof(pthread_mutex_t) <= kLockSlotBytes, "the C library mutex fits its slot");
static_assert(alignof(pthread_mutex_t) <= 8, "the C library mutex fits its slot's alignment");
static_assert(offsetof(LaneControl, owner) == 0 && offsetof(LaneControl, tail) == 8, "lane layout");
static_assert(offsetof(LaneControl, streaming) == 16, "lane layout");
static_assert(offsetof(LaneControl, head) == 64 && sizeof(LaneControl) == 128, "lane layout");
static_assert(offsetof(MailboxHeader, laneBytes) == 16, "mailbox layout");
static_assert(offsetof(MailboxHeader, ownerTid) == 28, "mailbox layout");
static_assert(offsetof(MailboxHeader, timingPageInUse) == 32, "mailbox layout");
static_assert(offsetof(MailboxHeader, barriersAvailable) == 36, "mailbox layout");
static_assert(offsetof(MailboxHeader, ownerLock) == 64, "mailbox layout");
static_assert(offsetof(MailboxHeader, pending) == 128, "mailbox layout");
static_assert(offsetof(MailboxHeader, wakeSequence) == 136, "mailbox layout");
static_assert(offsetof(MailboxHeader, waiterAsleep) == 140, "mailbox layout");
static_assert(offsetof(MailboxHeader, lanes) == 256, "mailbox layout");
static_assert(sizeof(MailboxHeader) == 256 + kLaneCount * 128, "mailbox layout");
static_assert(kLanesOffset == 12288, "mailbox layout");

inline pthread_mutex_t* mutexIn(LockSlot& slot) { return reinterpret_cast<pthread_mutex_t*>(slot.bytes); }

// Size and word size of the C library's mutex, as recorded in lockAbi; a process whose C library
// lays the mutex out differently cannot read the owner's thread id from it and refuses the mailbox.
constexpr uint32_t hostLockAbi() {
  return static_cast<uint32_t>(sizeof(pthread_mutex_t)) | static_cast<uint32_t>(sizeof(void*) << 8);
}

constexpr uint32_t recordBytesFor(uint32_t payloadBytes) {
  return (static_cast<uint32_t>(sizeof(RecordHeader)) + payloadBytes + kRecordAlignment - 1) &
         ~(kRecordAlignment - 1);
}

// The halves of a lane index word.
constexpr uint32_t bytesOf(uint64_t index) { return static_cast<uint32_t>(index); }
constexpr uint32_t recordsOf(uint64_t index) { return static_cast<uint32_t>(index >> 32); }
constexpr uint64_t laneIndex(uint32_t records, uint32_t bytes) { return uint64_t{records} << 32 | bytes; }

}  // namespace rhyddal
