// The shared-memory layout of a node's receive mailbox: header, then a byte ring of records.
//
// Every process of the node's user maps it: the owning node (the single consumer) and any number
// of senders. The layout uses fixed-width fields only and is the same for 32-bit and 64-bit builds.
// The two mutexes are the C library's own (robust, process-shared); each sits in a fixed 64-byte
// slot, and lockAbi records the C library's mutex size and word size, so a process whose C
// library lays the mutex out differently refuses the mailbox instead of corrupting it.
//
// Ring protocol: tail and head are free-running byte counters (wrapping at 2^32; the ring size is
// a power of two, so position = counter & (ringBytes - 1)). Producers append under producerLock
// and publish by storing tail; the consumer alone advances head. A record is an 8-byte
// RecordHeader and its payload, padded to 8 bytes; a record never wraps: when it does not fit
// before the end of the ring, a wrap marker fills the rest and the record starts at position 0.
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstddef>
#include <cstdint>

namespace rhyddal {

constexpr uint32_t kMailboxMagic = 0x4D594852;  // "RHYM"
constexpr uint32_t kMailboxLayoutVersion = 1;
constexpr uint32_t kRecordAlignment = 8;
constexpr uint32_t kWrapMarker = 0xFFFFFFFFu;
constexpr uint32_t kMinRingBytes = 256 * 1024;  // at least a few of the largest messages
constexpr uint32_t kMaxRingBytes = 1u << 30;    // keeps head/tail differences unambiguous
constexpr uint32_t kDefaultRingBytes = 2u << 20;
constexpr size_t kLockSlotBytes = 64;

enum class RecordKind : uint16_t { kMessage = 1, kRawEvent = 2 };

struct RecordHeader {
  uint32_t length;  // payload bytes; kWrapMarker: skip to the start of the ring
  uint16_t kind;    // RecordKind
  uint16_t reserved;
};

struct alignas(8) LockSlot {
  unsigned char bytes[kLockSlotBytes];
};

struct alignas(64) MailboxHeader {
  // Identity. Written before magic; magic is stored last (release), so a mailbox whose magic
  // reads right is completely initialised.
  std::atomic<uint32_t> magic;
  uint32_t layoutVersion;
  uint32_t ringBytes;
  uint32_t nid;
  uint32_t lockAbi;
  uint32_t ownerPid;  // diagnostics only: pids are reused, liveness comes from ownerLock
  uint32_t reserved0[10];

  // Producer line.
  alignas(64) std::atomic<uint32_t> tail;
  std::atomic<uint32_t> publishedCount;  // records published, for the queue table
  uint32_t reserved1[14];

  // Consumer line.
  alignas(64) std::atomic<uint32_t> head;
  std::atomic<uint32_t> consumedCount;
  uint32_t reserved2[14];

  // Wake-up line: wakeSequence is the futex word (shared, not private: the waiter and the wakers
  // are different processes); waiterAsleep tells producers whether a wake-up system call is needed.
  alignas(64) std::atomic<uint32_t> wakeSequence;
  std::atomic<uint32_t> waiterAsleep;
  uint32_t reserved3[14];

  // producerLock serialises senders. ownerLock is held by the owning node's server thread for
  // its whole life: a sender's trylock failing with EBUSY proves the node alive without a system
  // call, and the kernel hands the lock back (EOWNERDEAD) when the node dies.
  alignas(64) LockSlot producerLock;
  LockSlot ownerLock;
};

constexpr size_t kRingOffset = sizeof(MailboxHeader);

static_assert(std::atomic<uint32_t>::is_always_lock_free, "futex words and counters must be plain words");
static_assert(sizeof(std::atomic<uint32_t>) == 4, "shared counters are 32-bit words");
static_assert(sizeof(RecordHeader) == 8, "record header layout");
static_assert(sizeof(pthread_mutex_t) <= kLockSlotBytes, "the C library mutex fits its slot");
static_assert(alignof(pthread_mutex_t) <= 8, "the C library mutex fits its slot's alignment");
static_assert(offsetof(MailboxHeader, ringBytes) == 8, "mailbox layout");
static_assert(offsetof(MailboxHeader, ownerPid) == 20, "mailbox layout");
static_assert(offsetof(MailboxHeader, tail) == 64, "mailbox layout");
static_assert(offsetof(MailboxHeader, publishedCount) == 68, "mailbox layout");
static_assert(offsetof(MailboxHeader, head) == 128, "mailbox layout");
static_assert(offsetof(MailboxHeader, consumedCount) == 132, "mailbox layout");
static_assert(offsetof(MailboxHeader, wakeSequence) == 192, "mailbox layout");
static_assert(offsetof(MailboxHeader, waiterAsleep) == 196, "mailbox layout");
static_assert(offsetof(MailboxHeader, producerLock) == 256, "mailbox layout");
static_assert(offsetof(MailboxHeader, ownerLock) == 320, "mailbox layout");
static_assert(sizeof(MailboxHeader) == 384, "mailbox layout");

inline pthread_mutex_t* mutexIn(LockSlot& slot) { return reinterpret_cast<pthread_mutex_t*>(slot.bytes); }

// Size and word size of the C library's mutex, as recorded in lockAbi.
constexpr uint32_t hostLockAbi() {
  return static_cast<uint32_t>(sizeof(pthread_mutex_t)) | static_cast<uint32_t>(sizeof(void*) << 8);
}

constexpr uint32_t recordBytesFor(uint32_t payloadBytes) {
  return (static_cast<uint32_t>(sizeof(RecordHeader)) + payloadBytes + kRecordAlignment - 1) &
         ~(kRecordAlignment - 1);
}

}  // namespace rhyddal
