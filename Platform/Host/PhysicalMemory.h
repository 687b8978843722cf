// The emulated physical memory of a host: the timing register page and the event machine's queue
// table, at the offsets the runtime maps from the file rhyddal_host_physical_memory_path names,
// plus the queue history object read by the runtime's out-of-buffers post-mortem.
//
// One process per host (per namespace) keeps them current: the timing updater. Every node
// process starts a candidate, and a flock on the physical-memory file elects one. A killed
// updater's lock goes with it, and a waiting candidate takes over at once.
//
// Rates: while a live node has said it reads the timing page (rhyddal_host_timing_page_in_use,
// kept in that node's mailbox so that it lapses when the node dies) the updater rewrites the
// timing words every RHYDDAL_TIMING_UPDATE_US. Otherwise it wakes every 100 ms, to rewrite them,
// rescan the nodes and fill the queue table, and writes the history line once a second; a node's
// request wakes it at once through a futex word in the "<prefix>updater" object.
#pragma once

#include <time.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "RhyddalPhysicalMemory.h"

namespace rhyddal {

constexpr uint64_t kTimingPageOffset = RHYDDAL_TIMING_PAGE_PHYSICAL;
constexpr size_t kTimingPageBytes = RHYDDAL_TIMING_PAGE_BYTES;
constexpr uint64_t kQueueTableOffset = RHYDDAL_QUEUE_TABLE_PHYSICAL;
constexpr size_t kQueueTableBytes = RHYDDAL_QUEUE_TABLE_BYTES;
constexpr uint64_t kPhysicalMemoryBytes = RHYDDAL_PHYSICAL_MEMORY_BYTES;

// 32-bit word indexes in the timing page.
constexpr size_t kCdmaLowWord = RHYDDAL_TIMING_WORD_CDMA_LOW;
constexpr size_t kCdmaHighWord = RHYDDAL_TIMING_WORD_CDMA_HIGH;
constexpr size_t kLteSymbolWord = RHYDDAL_TIMING_WORD_LTE_SYMBOL;
static_assert(kCdmaHighWord == kCdmaLowWord + 1 && kCdmaLowWord * 4 % 8 == 4,
              "the CDMA pair is two adjacent words starting 4 bytes into an 8-byte block");
static_assert(kCdmaLowWord * 4 / 64 == (kCdmaHighWord * 4 + 3) / 64, "the CDMA pair lies within one cache line");

// One record per event-machine queue; a node's mailbox shows at record (nid & kQueueIndexMask).
struct QueueRecord {
  uint32_t waiting;    // messages queued (the only word the runtime reads)
  uint32_t nid;        // node id owning the record
  uint32_t usedBytes;  // bytes of the node's lanes in use
  uint32_t ringBytes;  // size of all the node's lanes together
};
static_assert(sizeof(QueueRecord) == RHYDDAL_QUEUE_RECORD_BYTES, "queue table record layout");
constexpr uint32_t kQueueTableRecords = RHYDDAL_QUEUE_COUNT;
constexpr uint32_t kQueueIndexMask = kQueueTableRecords - 1;
static_assert(kQueueTableRecords == 16384, "queue table holds 16384 queues");

constexpr size_t kQueueHistoryRecords = RHYDDAL_QUEUE_HISTORY_RECORDS;
constexpr size_t kQueueHistoryRecordBytes = RHYDDAL_QUEUE_HISTORY_RECORD_BYTES;
constexpr size_t kQueueHistoryBytes = RHYDDAL_QUEUE_HISTORY_BYTES;
static_assert(kQueueHistoryBytes == 51200, "queue history object size");

constexpr uint32_t kCandidateRetryMs = 100;  // after a failed lock call other than EINTR
constexpr uint32_t kDefaultTimingUpdateUs = 1000;
constexpr uint64_t kRareUpdateNs = 100 * 1000 * 1000;  // node rescan; timing words when no node reads them

// rhyddal_host_physical_memory_path: $OLM_DEVMEM when set, else the default file of this user and
// namespace, created sparse on the first call. Null when it cannot be created (reported on
// stderr). Decided on the first call; the string lives as long as the process.
const char* hostPhysicalMemoryPath();

// The shm name of the queue history (its fixed name, or the namespace's), empty when the
// namespace is unusable.
std::string queueHistoryObjectName();

// Stores the 64-bit CDMA counter into words 17 (low) and 18 (high) of the page so that no reader
// can see one half of one value and the other half of another (see the definition for what each
// architecture allows). page must be page-aligned.
void storeCdmaPair(uint32_t* page, uint64_t value);

// Writes the CDMA counter (words 17/18) and the LTE symbol counter (word 34) for time ns.
void writeTimingWords(uint32_t* page, uint64_t nanoseconds);

// One history line: "HH:MM:SS 1011[0] 1012[3]", node ids in hex, each with its queued messages;
// cut to fit a 512-byte record with its terminating NUL.
void formatHistoryLine(const struct tm& localTime, const std::vector<std::pair<uint16_t, uint32_t>>& nodes,
                       char (&line)[kQueueHistoryRecordBytes]);

// Starts this process's updater candidate thread; later calls do nothing.
void startTimingUpdater();
// Wakes whichever process is the updater, so that it rescans the nodes now (a node has just
// asked for timing updates at full rate).
void wakeTimingUpdater();
// In a forked child: the candidate thread did not come along, and the child must not keep the
// parent's updater lock alive through an inherited descriptor.
void forgetTimingUpdaterAfterFork();

}  // namespace rhyddal
