// The emulated physical memory of a host: the timing register page and the event machine's queue
// table, at the offsets the runtime maps from the file named by OLM_DEVMEM, plus the queue history
// object "EM_QUEUE_HIST" read by the runtime's out-of-buffers post-mortem.
//
// One process per host keeps them current (the timing updater); every node process starts a
// candidate, and a flock on the physical-memory file elects one. A killed updater's lock goes with
// it, and a waiting candidate takes over at once.
#pragma once

#include <time.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace rhyddal {

constexpr uint64_t kTimingPageOffset = 0x1F48000;
constexpr size_t kTimingPageBytes = 4096;
constexpr uint64_t kQueueTableOffset = 0x2A40000;
constexpr size_t kQueueTableBytes = 0x40000;
constexpr uint64_t kPhysicalMemoryBytes = kQueueTableOffset + kQueueTableBytes;

// 32-bit word indexes in the timing page.
constexpr size_t kCdmaLowWord = 17;
constexpr size_t kCdmaHighWord = 18;
constexpr size_t kLteSymbolWord = 34;

// One record per event-machine queue; a node's mailbox shows at record (nid & kQueueIndexMask).
struct QueueRecord {
  uint32_t waiting;    // messages queued (the only word the runtime reads)
  uint32_t nid;        // node id owning the record
  uint32_t usedBytes;  // bytes of the node's ring in use
  uint32_t ringBytes;  // size of the node's ring
};
static_assert(sizeof(QueueRecord) == 16, "queue table record layout");
constexpr uint32_t kQueueTableRecords = kQueueTableBytes / sizeof(QueueRecord);
constexpr uint32_t kQueueIndexMask = kQueueTableRecords - 1;
static_assert(kQueueTableRecords == 16384, "queue table holds 16384 queues");

constexpr char kQueueHistoryName[] = "/EM_QUEUE_HIST";
constexpr size_t kQueueHistoryRecords = 100;
constexpr size_t kQueueHistoryRecordBytes = 512;
constexpr size_t kQueueHistoryBytes = kQueueHistoryRecords * kQueueHistoryRecordBytes;
static_assert(kQueueHistoryBytes == 51200, "queue history object size");

constexpr uint32_t kCandidateRetryMs = 100;  // after a failed lock call other than EINTR
constexpr uint32_t kDefaultTimingUpdateUs = 1000;

// The file named by OLM_DEVMEM (empty when unset).
std::string physicalMemoryPath();

// Creates this user's emulated physical memory (sparse, in /dev/shm) and exports its path as
// OLM_DEVMEM, unless OLM_DEVMEM already names a file. Runs when the library is loaded.
void preparePhysicalMemory();

// Writes the CDMA counter (words 17/18) and the LTE symbol counter (word 34) for time ns.
void writeTimingWords(uint32_t* page, uint64_t nanoseconds);

// One history line: "HH:MM:SS 1011[0] 1012[3]", node ids in hex, each with its queued messages;
// cut to fit a 512-byte record with its terminating NUL.
void formatHistoryLine(const struct tm& localTime, const std::vector<std::pair<uint16_t, uint32_t>>& nodes,
                       char (&line)[kQueueHistoryRecordBytes]);

// Starts this process's updater candidate thread; later calls do nothing.
void startTimingUpdater();
// In a forked child: the candidate thread did not come along, and the child must not keep the
// parent's updater lock alive through an inherited descriptor.
void forgetTimingUpdaterAfterFork();

}  // namespace rhyddal
