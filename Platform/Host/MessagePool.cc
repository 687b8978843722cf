#include "MessagePool.h"

#include <sys/mman.h>

#include <cstring>

namespace rhyddal {
namespace {

constexpr size_t kChunkBytes = size_t{1} << 20;
constexpr uint32_t kBufferMagic = 0x52424655;  // "UFBR"
constexpr uint32_t kClassCapacities[] = {64, 256, 1024, 4096, 16384, kMaxBufferBytes};

enum BufferState : uint32_t {
  kFree = 1,
  kInUse = 2,
  kHeld = 3,
  kFreeAfterSend = 4,  // free; its last life ended with a send and the free that followed it
};

}  // namespace

// Process-local bookkeeping in front of each buffer: one cache line on every word size, so the data
// behind it starts on a cache line of its own.
struct alignas(64) MessagePool::BufferHeader {
  uint32_t magic;
  uint32_t state;
  uint32_t capacity;
  uint32_t requestedBytes;
  uint32_t eventHandle;
  uint32_t classIndex;
  uint64_t heldSince;   // holdSequence_ when it was held
  BufferHeader* next;   // free list, or the next newer held buffer
  BufferHeader* prev;   // the next older held buffer
};

namespace {
constexpr size_t kHeaderBytes = 64;

unsigned char* dataOf(void* header) { return static_cast<unsigned char*>(header) + kHeaderBytes; }
}  // namespace

MessagePool::MessagePool(uint64_t limitBytes, uint32_t holdLimit) : limitBytes_(limitBytes), holdLimit_(holdLimit) {
  static_assert(sizeof(BufferHeader) == kHeaderBytes, "buffer header is one cache line");
  for (int i = 0; i < kClassCount; ++i) {
    // Divisibility by multiplication (for 32-bit dividends): the stride check of every pointer
    // handed in would otherwise cost a division.
    const uint64_t stride = kHeaderBytes + kClassCapacities[i];
    classes_[i] = SizeClass{kClassCapacities[i], ~uint64_t{0} / stride + 1, nullptr, nullptr, nullptr,
                            HeldList{nullptr, nullptr}};
  }
}

MessagePool::~MessagePool() {
  if (base_ != nullptr) munmap(base_, chunkCount_ * kChunkBytes);
  delete[] chunkClass_;
}

void* MessagePool::allocate(uint32_t bytes) {
  const int classIndex = classFor(bytes);
  if (classIndex < 0) return nullptr;
  SizeClass& sizeClass = classes_[classIndex];
  BufferHeader* header = takeFree(sizeClass);
  if (header == nullptr) header = carve(classIndex);
  if (header == nullptr && sizeClass.held.oldest != nullptr) {
    // Out of memory for this class: a buffer held for a free that is long overdue is the least
    // valuable thing the pool has.
    BufferHeader* oldest = sizeClass.held.oldest;
    unlinkHeld(oldest);
    ++stats_.holdsExpired;
    header = oldest;
  }
  if (header == nullptr) return nullptr;
  header->state = kInUse;
  header->requestedBytes = bytes;
  header->eventHandle = 0;
  if (++stats_.inUse > stats_.inUseHighWater) stats_.inUseHighWater = stats_.inUse;
  return dataOf(header);
}

ReleaseResult MessagePool::release(void* data, uint32_t* boundEvent) {
  BufferHeader* header = headerOf(data);
  if (header == nullptr) {
    ++stats_.refusedForeign;
    return ReleaseResult::kRefusedForeign;
  }
  switch (header->state) {
    case kInUse:
      if (boundEvent != nullptr) *boundEvent = header->eventHandle;
      --stats_.inUse;
      pushFree(header, kFree);
      return ReleaseResult::kReleased;
    case kHeld:
      unlinkHeld(header);
      ++stats_.freesAfterSend;
      pushFree(header, kFreeAfterSend);
      return ReleaseResult::kFreedAfterSend;
    case kFreeAfterSend:
      ++stats_.refusedSentAndFreed;
      return ReleaseResult::kRefusedSentAndFreed;
    default:
      ++stats_.refusedAlreadyFree;
      return ReleaseResult::kRefusedAlreadyFree;
  }
}

bool MessagePool::hold(void* data, uint32_t* boundEvent) {
  BufferHeader* header = headerOf(data);
  if (header == nullptr || header->state != kInUse) return false;
  if (boundEvent != nullptr) *boundEvent = header->eventHandle;
  header->eventHandle = 0;
  header->state = kHeld;
  header->heldSince = holdSequence_++;
  HeldList& held = classes_[header->classIndex].held;
  header->next = nullptr;
  header->prev = held.newest;
  if (held.newest != nullptr) {
    held.newest->next = header;
  } else {
    held.oldest = header;
  }
  held.newest = header;
  --stats_.inUse;
  if (++stats_.held > stats_.heldHighWater) stats_.heldHighWater = stats_.held;
  if (holdLimit_ != kHoldUntilExhausted && stats_.held > holdLimit_) expireOldestHeld();
  return true;
}

bool MessagePool::inspect(const void* data, BufferInfo* info) const {
  const BufferHeader* header = headerOf(data);
  if (header == nullptr || header->state != kInUse) return false;
  *info = BufferInfo{header->capacity, header->requestedBytes, header->eventHandle};
  return true;
}

void MessagePool::setEventHandle(void* data, uint32_t handle) {
  BufferHeader* header = headerOf(data);
  if (header != nullptr && header->state == kInUse) header->eventHandle = handle;
}

PoolStatistics MessagePool::statistics() const {
  PoolStatistics result = stats_;
  result.free = carved_ - stats_.inUse - stats_.held;
  return result;
}

int MessagePool::classFor(uint32_t bytes) const {
  for (int i = 0; i < kClassCount; ++i) {
    if (bytes <= classes_[i].capacity) return i;
  }
  return -1;
}

MessagePool::BufferHeader* MessagePool::takeFree(SizeClass& sizeClass) {
  BufferHeader* header = sizeClass.freeList;
  if (header != nullptr) sizeClass.freeList = header->next;
  return header;
}

MessagePool::BufferHeader* MessagePool::carve(int classIndex) {
  SizeClass& sizeClass = classes_[classIndex];
  const size_t stride = kHeaderBytes + sizeClass.capacity;
  if (sizeClass.carveCursor == nullptr || sizeClass.carveCursor + stride > sizeClass.carveEnd) {
    if (!claimChunk(classIndex)) return nullptr;
  }
  auto* header = reinterpret_cast<BufferHeader*>(sizeClass.carveCursor);
  sizeClass.carveCursor += stride;
  header->magic = kBufferMagic;
  header->capacity = sizeClass.capacity;
  header->classIndex = static_cast<uint32_t>(classIndex);
  header->next = nullptr;
  header->prev = nullptr;
  ++carved_;
  return header;
}

// The whole range is reserved at the first allocation but costs memory only where buffers are
// carved: MAP_NORESERVE pages are committed when first touched.
bool MessagePool::reserveRange() {
  chunkCount_ = static_cast<size_t>(limitBytes_ / kChunkBytes);
  if (chunkCount_ == 0) return false;
  void* range = mmap(nullptr, chunkCount_ * kChunkBytes, PROT_READ | PROT_WRITE,
                     MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  if (range == MAP_FAILED) {
    chunkCount_ = 0;
    return false;
  }
  base_ = static_cast<unsigned char*>(range);
  chunkClass_ = new uint8_t[chunkCount_];
  std::memset(chunkClass_, kNoClass, chunkCount_);
  return true;
}

bool MessagePool::claimChunk(int classIndex) {
  if (base_ == nullptr && !reserveRange()) return false;
  if (chunksClaimed_ == chunkCount_) return false;
  const size_t chunk = chunksClaimed_++;
  chunkClass_[chunk] = static_cast<uint8_t>(classIndex);
  classes_[classIndex].carveCursor = base_ + chunk * kChunkBytes;
  classes_[classIndex].carveEnd = classes_[classIndex].carveCursor + kChunkBytes;
  return true;
}

// Recognises a data pointer of this pool from its address alone (range, chunk class, buffer
// stride) before reading the header, so that a foreign pointer is never dereferenced.
MessagePool::BufferHeader* MessagePool::headerOf(const void* data) const {
  if (data == lastData_ && data != nullptr) return lastHeader_;
  const auto address = reinterpret_cast<uintptr_t>(data);
  const auto first = reinterpret_cast<uintptr_t>(base_);
  if (base_ == nullptr || address < first + kHeaderBytes) return nullptr;
  const uintptr_t offset = address - first;
  const size_t chunk = offset / kChunkBytes;
  if (chunk >= chunksClaimed_ || chunkClass_[chunk] == kNoClass) return nullptr;
  const size_t within = offset % kChunkBytes;
  const SizeClass& sizeClass = classes_[chunkClass_[chunk]];
  const size_t stride = kHeaderBytes + sizeClass.capacity;
  static_assert(kChunkBytes <= 0xFFFFFFFFu, "offsets within a chunk fit 32 bits");
  if (within < kHeaderBytes || uint64_t{within - kHeaderBytes} * sizeClass.strideDivisor > sizeClass.strideDivisor - 1) {
    return nullptr;
  }
  if (within - kHeaderBytes + stride > kChunkBytes) return nullptr;
  auto* header = reinterpret_cast<BufferHeader*>(address - kHeaderBytes);
  if (reinterpret_cast<unsigned char*>(header) >= sizeClass.carveCursor &&
      reinterpret_cast<unsigned char*>(header) < sizeClass.carveEnd) {
    return nullptr;  // in the class's current chunk, but not carved yet
  }
  if (header->magic != kBufferMagic) return nullptr;
  lastData_ = data;
  lastHeader_ = header;
  return header;
}

void MessagePool::pushFree(BufferHeader* header, uint32_t state) {
  SizeClass& sizeClass = classes_[header->classIndex];
  header->state = state;
  header->eventHandle = 0;
  header->next = sizeClass.freeList;
  sizeClass.freeList = header;
}

void MessagePool::unlinkHeld(BufferHeader* header) {
  HeldList& held = classes_[header->classIndex].held;
  if (header->prev != nullptr) {
    header->prev->next = header->next;
  } else {
    held.oldest = header->next;
  }
  if (header->next != nullptr) {
    header->next->prev = header->prev;
  } else {
    held.newest = header->prev;
  }
  header->next = header->prev = nullptr;
  --stats_.held;
}

// Held buffers are kept per size class, each list oldest first; the oldest of all is the oldest
// class head.
void MessagePool::expireOldestHeld() {
  BufferHeader* oldest = nullptr;
  for (SizeClass& sizeClass : classes_) {
    BufferHeader* candidate = sizeClass.held.oldest;
    if (candidate != nullptr && (oldest == nullptr || candidate->heldSince < oldest->heldSince)) oldest = candidate;
  }
  if (oldest == nullptr) return;
  unlinkHeld(oldest);
  ++stats_.holdsExpired;
  pushFree(oldest, kFree);
}

}  // namespace rhyddal
