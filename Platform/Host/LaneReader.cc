#include "LaneReader.h"

#include <cstdio>
#include <cstring>

#include "MessagePool.h"
#include "SysComFields.h"

namespace rhyddal {
namespace {

// Bounds of a record as read from shared memory, checked before anything is copied out of it.
bool recordIsSound(uint32_t laneBytes, uint32_t position, uint32_t available, const RecordHeader& record) {
  if (record.length == kWrapMarker) return position != 0 && laneBytes - position <= available;
  if (record.length > kMaxBufferBytes) return false;
  const uint32_t recordBytes = recordBytesFor(record.length);
  return recordBytes <= available && position + recordBytes <= laneBytes;
}

// Checked on the private copy, so a sender scribbling on the ring cannot change what was checked.
// A raw event may be larger than the message it carries; an ordinary message is exactly as long
// as its header says.
bool messageIsSound(uint32_t nid, const void* copy, const RecordHeader& record) {
  if (record.length < kSysComHeaderBytes) {
    std::fprintf(stderr, "rhyddal: node 0x%04x dropped a message of %u bytes, shorter than a message header\n",
                 static_cast<unsigned>(nid), static_cast<unsigned>(record.length));
    return false;
  }
  const uint32_t totalLength = sysComTotalLength(copy);
  const bool sound = record.kind == static_cast<uint16_t>(RecordKind::kRawEvent)
                         ? totalLength >= kSysComHeaderBytes && totalLength <= record.length
                         : totalLength == record.length;
  if (!sound) {
    std::fprintf(stderr, "rhyddal: node 0x%04x dropped a message of %u bytes whose header says %u\n",
                 static_cast<unsigned>(nid), static_cast<unsigned>(record.length),
                 static_cast<unsigned>(totalLength));
  }
  return sound;
}

// Head is stored with release: it hands the record's bytes back to the producer, whose acquire
// load of head (before it reuses the space) pairs with it.
void storeHead(const LaneView& lane, uint64_t head) { lane.control->head.store(head, std::memory_order_release); }

void discardLane(const LaneView& lane, uint64_t head, uint64_t tail) {
  std::fprintf(stderr, "rhyddal: node 0x%04x found a damaged record in a sender's lane and dropped %u queued bytes\n",
               static_cast<unsigned>(lane.nid), static_cast<unsigned>(bytesOf(tail) - bytesOf(head)));
  storeHead(lane, tail);
}

}  // namespace

void prefetchPublished(const LaneView& lane, uint64_t tail) {
  const uint64_t head = lane.control->head.load(std::memory_order_relaxed);
  constexpr uint32_t kLineBytes = 64;
  constexpr uint32_t kMaxLines = 8;
  const uint32_t position = bytesOf(head) & (lane.laneBytes - 1);
  const uint32_t published = bytesOf(tail) - bytesOf(head);
  const uint32_t untilEnd = lane.laneBytes - position;
  const uint32_t bytes = published < untilEnd ? published : untilEnd;
  for (uint32_t offset = 0; offset < bytes && offset < kMaxLines * kLineBytes; offset += kLineBytes) {
    __builtin_prefetch(lane.ring + position + offset);
  }
}

LaneRead readLane(const LaneView& lane, uint64_t* knownTail, MessagePool& pool, void** message, uint16_t* origin) {
  const uint64_t head = lane.control->head.load(std::memory_order_relaxed);  // stored by us only
  if (bytesOf(head) == bytesOf(*knownTail)) {
    *knownTail = lane.control->tail.load(std::memory_order_acquire);
    if (bytesOf(head) == bytesOf(*knownTail)) return LaneRead::kEmpty;
    prefetchPublished(lane, *knownTail);
  }
  const uint64_t tail = *knownTail;
  const uint32_t available = bytesOf(tail) - bytesOf(head);
  if (available > lane.laneBytes || recordsOf(tail) - recordsOf(head) > available / sizeof(RecordHeader)) {
    discardLane(lane, head, tail);
    return LaneRead::kAgain;
  }
  const uint32_t position = bytesOf(head) & (lane.laneBytes - 1);
  // Alignment first: only an 8-aligned position leaves room for a whole header before the end.
  if (position % kRecordAlignment != 0) {
    discardLane(lane, head, tail);
    return LaneRead::kAgain;
  }
  RecordHeader record{};
  std::memcpy(&record, lane.ring + position, sizeof(record));
  if (!recordIsSound(lane.laneBytes, position, available, record)) {
    discardLane(lane, head, tail);
    return LaneRead::kAgain;
  }
  if (record.length == kWrapMarker) {
    storeHead(lane, laneIndex(recordsOf(head), bytesOf(head) + (lane.laneBytes - position)));
    return LaneRead::kAgain;
  }
  void* copy = pool.allocate(record.length);
  if (copy == nullptr) return LaneRead::kNoBuffer;
  std::memcpy(copy, lane.ring + position + sizeof(record), record.length);
  storeHead(lane, laneIndex(recordsOf(head) + 1, bytesOf(head) + recordBytesFor(record.length)));
  if (messageIsSound(lane.nid, copy, record)) {
    *message = copy;
    if (origin != nullptr) *origin = record.origin;
    return LaneRead::kMessage;
  }
  pool.release(copy);
  return LaneRead::kAgain;
}

}  // namespace rhyddal
