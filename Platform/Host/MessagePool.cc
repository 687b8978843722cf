#include "MessagePool.h"

#include <sys/mman.h>

#include <cstring>

namespace rhyddal {
namespace {

constexpr size_t kChunkBytes = size_t{1} << 20;
constexpr uint32_t kBufferMagic = 0x52424655;  // "UFBR"
constexpr uint32_t kClassCapacities[] = {64, 256, 1024, 4096, 16384, kMaxBufferBytes};

enum BufferState : uint32_t { kFree = 1, kInUse = 2, kQuarantined = 3 };

}  // namespace

// Process-local bookkeeping in front of each buffer; 32 bytes on every word size so that the data
// behind it keeps 16-byte alignment.
struct alignas(16) MessagePool::BufferHeader {
  uint32_t magic;
  uint32_t state;
  uint32_t capacity;
  uint32_t requestedBytes;
  uint32_t eventHandle;
  uint32_t classIndex;
  BufferHeader* next;  // free-list link
};

namespace {
constexpr size_t kHeaderBytes = 32;

unsigned char* dataOf(void* header) { return static_cast<unsigned char*>(header) + kHeaderBytes; }
}  // namespace

MessagePool::MessagePool(uint64_t limitBytes) : limitBytes_(limitBytes) {
  static_assert(sizeof(BufferHeader) == kHeaderBytes, "buffer header keeps data 16-byte aligned");
  for (int i = 0; i < kClassCount; ++i) classes_[i] = SizeClass{kClassCapacities[i], nullptr, nullptr, nullptr};
}

MessagePool::~MessagePool() {
  if (base_ != nullptr) munmap(base_, chunkCount_ * kChunkBytes);
  delete[] chunkClass_;
}

void* MessagePool::allocate(uint32_t bytes) {
  const int classIndex = classFor(bytes);
  if (classIndex < 0) return nullptr;
  std::lock_guard<std::mutex> guard(mutex_);
  BufferHeader* header = takeFree(classes_[classIndex]);
  if (header == nullptr) header = carve(classIndex);
  if (header == nullptr) return nullptr;
  header->state = kInUse;
  header->requestedBytes = bytes;
  header->eventHandle = 0;
  return dataOf(header);
}

ReleaseResult MessagePool::release(void* data, uint32_t* boundEvent) {
  std::lock_guard<std::mutex> guard(mutex_);
  BufferHeader* header = headerOf(data);
  if (header == nullptr) return ReleaseResult::kForeign;
  if (header->state != kInUse) return ReleaseResult::kAlreadyOwned;
  if (boundEvent != nullptr) *boundEvent = header->eventHandle;
  pushFree(header);
  return ReleaseResult::kReleased;
}

bool MessagePool::retire(void* data, uint32_t* boundEvent) {
  std::lock_guard<std::mutex> guard(mutex_);
  BufferHeader* header = headerOf(data);
  if (header == nullptr || header->state != kInUse) return false;
  if (boundEvent != nullptr) *boundEvent = header->eventHandle;
  header->eventHandle = 0;
  quarantine(header);
  return true;
}

bool MessagePool::inspect(const void* data, BufferInfo* info) {
  std::lock_guard<std::mutex> guard(mutex_);
  const BufferHeader* header = headerOf(data);
  if (header == nullptr || header->state != kInUse) return false;
  *info = BufferInfo{header->capacity, header->requestedBytes, header->eventHandle};
  return true;
}

void MessagePool::setEventHandle(void* data, uint32_t handle) {
  std::lock_guard<std::mutex> guard(mutex_);
  BufferHeader* header = headerOf(data);
  if (header != nullptr && header->state == kInUse) header->eventHandle = handle;
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
  const auto address = reinterpret_cast<uintptr_t>(data);
  const auto first = reinterpret_cast<uintptr_t>(base_);
  if (base_ == nullptr || address < first + kHeaderBytes) return nullptr;
  const uintptr_t offset = address - first;
  const size_t chunk = offset / kChunkBytes;
  if (chunk >= chunksClaimed_ || chunkClass_[chunk] == kNoClass) return nullptr;
  const size_t within = offset % kChunkBytes;
  const size_t stride = kHeaderBytes + classes_[chunkClass_[chunk]].capacity;
  if (within < kHeaderBytes || (within - kHeaderBytes) % stride != 0) return nullptr;
  if (within - kHeaderBytes + stride > kChunkBytes) return nullptr;
  auto* header = reinterpret_cast<BufferHeader*>(address - kHeaderBytes);
  return header->magic == kBufferMagic ? header : nullptr;
}

void MessagePool::pushFree(BufferHeader* header) {
  SizeClass& sizeClass = classes_[header->classIndex];
  header->state = kFree;
  header->eventHandle = 0;
  header->next = sizeClass.freeList;
  sizeClass.freeList = header;
}

void MessagePool::quarantine(BufferHeader* header) {
  header->state = kQuarantined;
  BufferHeader* oldest = quarantine_[quarantineNext_];
  quarantine_[quarantineNext_] = header;
  quarantineNext_ = (quarantineNext_ + 1) % kQuarantineDepth;
  if (oldest != nullptr) pushFree(oldest);
}

}  // namespace rhyddal
