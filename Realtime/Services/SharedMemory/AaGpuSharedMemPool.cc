#include "AaGpuSharedMemPool.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <new>

#include "AaSysLog.h"
#include "OwnerIdentity.h"
#include "SharedMemLog.h"
#include "SharedMemPoolLayout.h"

// Why an owner word per block and a search, and neither a free list nor a lock:
// - A lock-free free list (tagged head) takes a block in one step, the pop, and records its owner
//   in a second; a process killed between the two loses the block for good, since nothing says
//   whose it was. Here the compare-and-swap that takes the block is the record of its owner: a
//   block is free or owned by a named process at every instant, and reclaiming is a scan for
//   owners that have ended.
// - A process-shared robust mutex would survive its holder's death only through the kernel's
//   robust futex lists (which user-mode emulation lacks), would need the structure repaired by
//   whoever inherits it, and would stop every process while one is descheduled holding it.
// The price is a search instead of a pop. It starts at a cursor just past the last block taken,
// so while a fair share of the blocks is free it ends after a few words; only a nearly dry pool
// is scanned whole, 8 bytes a block.

using Olm::PoolLayout;
using Olm::PoolHeader;

// The process's view of a pool: where it is mapped here. Nothing of it lives in the shared object.
struct SAaGpuSharedMemPool {
  char* base;
  size_t bytes;
  PoolLayout layout;

  PoolHeader& header() const { return *reinterpret_cast<PoolHeader*>(base); }
  uint64_t* owners() const { return reinterpret_cast<uint64_t*>(base + Olm::kOwnersOffset); }
  char* block(uint32_t index) const { return base + layout.blocksOffset + uint64_t{index} * layout.blockStride; }
};

namespace {

constexpr uint32_t kNoIndex = 0xFFFFFFFFu;
constexpr uint64_t kFreeOwner = 0;
constexpr mode_t kObjectMode = 0666;

// Blocks change owner with one compare-and-swap of a 64-bit word in memory shared with other
// processes: it must be a real atomic instruction, not a lock of this process's C library. 32-bit
// ARM has it (LDREXD/STREXD, ARMv7 and later).
static_assert(__atomic_always_lock_free(sizeof(uint64_t), nullptr), "64-bit compare-and-swap must be lock-free");

uint64_t loadOwner(const uint64_t* owner) { return __atomic_load_n(owner, __ATOMIC_RELAXED); }

// Acquire on taking a block: the taker sees what the previous owner wrote before its release.
bool claim(uint64_t* owner, uint64_t expected, uint64_t identity) {
  return __atomic_compare_exchange_n(owner, &expected, identity, false, __ATOMIC_ACQUIRE, __ATOMIC_RELAXED);
}

// Release on giving a block back: the block's contents are complete before the next owner takes it.
bool release(uint64_t* owner, uint64_t expected) {
  return __atomic_compare_exchange_n(owner, &expected, kFreeOwner, false, __ATOMIC_RELEASE, __ATOMIC_RELAXED);
}

void logError(const char* function, const char* text) {
  AaSysLogPrintE(EAaSysLogSeverityLevel_Error, AASYSLOG_FEATURE_NONE, "%s(): %s", function, text);
}

bool validName(const char* function, const char* name) {
  if (name != nullptr && name[0] != '\0') return true;
  logError(function, "name is null or empty");
  return false;
}

EAaGpuSharedMemPoolRet systemError(const char* function, const char* call, const char* name, int error) {
  AaSysLogPrintE(EAaSysLogSeverityLevel_Error, AASYSLOG_FEATURE_NONE, "%s(): %s(\"%s\") failed: %s", function, call,
                 name, Olm::errnoText(error));
  return EAaGpuSharedMemPoolRet_SystemError;
}

EAaGpuSharedMemPoolRet mismatch(const char* function, const char* name, const char* why) {
  AaSysLogPrintE(EAaSysLogSeverityLevel_Error, AASYSLOG_FEATURE_NONE, "%s(): \"%s\" %s", function, name, why);
  return EAaGpuSharedMemPoolRet_Mismatch;
}

// An open descriptor of the object and its flock, both released on every path. The unlock is
// explicit: a mapping made through the descriptor keeps its open file, and with it the flock,
// alive after the close.
class LockedObject {
 public:
  LockedObject(const char* name, int flags) : m_fd(shm_open(name, flags | O_CLOEXEC, kObjectMode)) {}
  ~LockedObject() {
    if (m_fd < 0) return;
    flock(m_fd, LOCK_UN);
    close(m_fd);
  }
  LockedObject(const LockedObject&) = delete;
  LockedObject& operator=(const LockedObject&) = delete;

  int fd() const { return m_fd; }
  bool lock(int operation) {
    int rc;
    do {
      rc = flock(m_fd, operation);
    } while (rc != 0 && errno == EINTR);
    return rc == 0;
  }

 private:
  int m_fd;
};

EAaGpuSharedMemPoolRet mapObject(const char* function, const char* name, int fd, size_t bytes,
                                 const PoolLayout& layout, SAaGpuSharedMemPool** pool) {
  void* base = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  if (base == MAP_FAILED) return systemError(function, "mmap", name, errno);
  *pool = new SAaGpuSharedMemPool{static_cast<char*>(base), bytes, layout};
  return EAaGpuSharedMemPoolRet_Ok;
}

// Under the exclusive lock: a new object (size 0), or one whose creator died before it was ready,
// becomes an empty pool; the ready marker is written last.
EAaGpuSharedMemPoolRet initialise(const char* name, int fd, const PoolLayout& layout, SAaGpuSharedMemPool** pool) {
  if (ftruncate(fd, static_cast<off_t>(layout.objectBytes)) != 0) {
    return systemError("AaGpuSharedMemPool_Create", "ftruncate", name, errno);
  }
  const EAaGpuSharedMemPoolRet rc = mapObject("AaGpuSharedMemPool_Create", name, fd, layout.objectBytes, layout, pool);
  if (rc != EAaGpuSharedMemPoolRet_Ok) return rc;
  Olm::writePoolHeader(layout, (*pool)->header());
  uint64_t* owners = (*pool)->owners();
  for (uint32_t index = 0; index < layout.blockCount; ++index) __atomic_store_n(&owners[index], 0, __ATOMIC_RELAXED);
  Olm::markPoolReady((*pool)->header());
  return EAaGpuSharedMemPoolRet_Ok;
}

// The header of an existing object as a layout, or Mismatch (logged).
EAaGpuSharedMemPoolRet readLayout(const char* function, const char* name, int fd, PoolLayout* layout) {
  struct stat status {};
  if (fstat(fd, &status) != 0) return systemError(function, "fstat", name, errno);
  PoolHeader header{};
  if (static_cast<size_t>(status.st_size) < sizeof(header) || pread(fd, &header, sizeof(header), 0) != sizeof(header)) {
    return mismatch(function, name, "is no pool (too small)");
  }
  const char* problem = Olm::layoutFromHeader(header, static_cast<uint64_t>(status.st_size), layout);
  return problem == nullptr ? EAaGpuSharedMemPoolRet_Ok : mismatch(function, name, problem);
}

// The block's index, or kNoIndex when the pointer is not the start of a block of this pool.
uint32_t indexOf(const SAaGpuSharedMemPool& pool, const void* block) {
  const auto address = reinterpret_cast<uintptr_t>(block);
  const auto first = reinterpret_cast<uintptr_t>(pool.block(0));
  if (address < first) return kNoIndex;
  const uint64_t distance = address - first;
  if (distance % pool.layout.blockStride != 0) return kNoIndex;
  const uint64_t index = distance / pool.layout.blockStride;
  return index < pool.layout.blockCount ? static_cast<uint32_t>(index) : kNoIndex;
}

// The owner word of an allocated block of the pool, or null with the refusal logged and in *rc.
uint64_t* allocatedOwner(const char* function, SAaGpuSharedMemPool* pool, const void* block,
                         EAaGpuSharedMemPoolRet* rc, uint64_t* owner) {
  if (pool == nullptr || block == nullptr) {
    logError(function, "pool or block is null");
    *rc = EAaGpuSharedMemPoolRet_InvalidParameter;
    return nullptr;
  }
  const uint32_t index = indexOf(*pool, block);
  if (index == kNoIndex) {
    AaSysLogPrintE(EAaSysLogSeverityLevel_Error, AASYSLOG_FEATURE_NONE, "%s(): %p is no block of this pool",
                   function, block);
    *rc = EAaGpuSharedMemPoolRet_ForeignBlock;
    return nullptr;
  }
  uint64_t* word = &pool->owners()[index];
  *owner = loadOwner(word);
  if (*owner == 0) {
    AaSysLogPrintE(EAaSysLogSeverityLevel_Error, AASYSLOG_FEATURE_NONE, "%s(): block %u is not allocated", function,
                   static_cast<unsigned>(index));
    *rc = EAaGpuSharedMemPoolRet_NotAllocated;
    return nullptr;
  }
  return word;
}

// The owner word changed between reading and swapping it: freed, or freed and taken again, by
// another caller. Whichever it was, this caller no longer held what it named.
EAaGpuSharedMemPoolRet changedHands(const char* function) {
  logError(function, "block changed hands meanwhile (freed by another caller)");
  return EAaGpuSharedMemPoolRet_NotAllocated;
}

// Passes an allocated block to newOwner (kFreeOwner: frees it). Release: what the block holds is
// complete before the next owner takes it; acquire: an adopter sees what the sender wrote.
EAaGpuSharedMemPoolRet handOver(const char* function, SAaGpuSharedMemPool* pool, void* block, uint64_t newOwner) {
  EAaGpuSharedMemPoolRet rc = EAaGpuSharedMemPoolRet_Ok;
  uint64_t owner = 0;
  uint64_t* word = allocatedOwner(function, pool, block, &rc, &owner);
  if (word == nullptr) return rc;
  if (!__atomic_compare_exchange_n(word, &owner, newOwner, false, __ATOMIC_ACQ_REL, __ATOMIC_RELAXED)) {
    return changedHands(function);
  }
  return EAaGpuSharedMemPoolRet_Ok;
}

// One pass over the pool from the shared cursor; the cursor is only a hint, so a racing update of
// it costs at most a longer search, never a wrong result.
void* claimFreeBlock(SAaGpuSharedMemPool& pool, uint64_t identity) {
  PoolHeader& header = pool.header();
  const uint32_t count = pool.layout.blockCount;
  const uint32_t start = __atomic_load_n(&header.cursor, __ATOMIC_RELAXED) % count;
  for (uint32_t step = 0; step < count; ++step) {
    const uint32_t index = start + step < count ? start + step : start + step - count;
    uint64_t* owner = &pool.owners()[index];
    if (loadOwner(owner) == 0 && claim(owner, 0, identity)) {
      __atomic_store_n(&header.cursor, index + 1 == count ? 0 : index + 1, __ATOMIC_RELAXED);
      return pool.block(index);
    }
  }
  return nullptr;
}

}  // namespace

extern "C" {

EAaGpuSharedMemPoolRet AaGpuSharedMemPool_Create(const char* name, uint32_t blockSize, uint32_t blockCount,
                                                 SAaGpuSharedMemPool** pool) {
  static const char kFunction[] = "AaGpuSharedMemPool_Create";
  if (!validName(kFunction, name)) return EAaGpuSharedMemPoolRet_InvalidParameter;
  PoolLayout layout{};
  if (pool == nullptr || !Olm::planPool(blockSize, blockCount, &layout)) {
    AaSysLogPrintE(EAaSysLogSeverityLevel_Error, AASYSLOG_FEATURE_NONE,
                   "%s(): invalid pool %p, block size %u or block count %u", kFunction, static_cast<void*>(pool),
                   static_cast<unsigned>(blockSize), static_cast<unsigned>(blockCount));
    return EAaGpuSharedMemPoolRet_InvalidParameter;
  }
  LockedObject object(name, O_RDWR | O_CREAT);
  if (object.fd() < 0) return systemError(kFunction, "shm_open", name, errno);
  if (!object.lock(LOCK_EX)) return systemError(kFunction, "flock", name, errno);
  struct stat status {};
  if (fstat(object.fd(), &status) != 0) return systemError(kFunction, "fstat", name, errno);
  PoolHeader header{};
  const auto size = static_cast<uint64_t>(status.st_size);
  const bool unused = size == 0 || (pread(object.fd(), &header, sizeof(header), 0) == sizeof(header) &&
                                    Olm::creatorDiedEarly(header, layout, size));
  if (unused) return initialise(name, object.fd(), layout, pool);
  PoolLayout existing{};
  const EAaGpuSharedMemPoolRet rc = readLayout(kFunction, name, object.fd(), &existing);
  if (rc != EAaGpuSharedMemPoolRet_Ok) return rc;
  if (existing.blockSize != blockSize || existing.blockCount != blockCount) {
    AaSysLogPrintE(EAaSysLogSeverityLevel_Error, AASYSLOG_FEATURE_NONE,
                   "%s(): \"%s\" exists with %u blocks of %u bytes, not %u of %u", kFunction, name,
                   static_cast<unsigned>(existing.blockCount), static_cast<unsigned>(existing.blockSize),
                   static_cast<unsigned>(blockCount), static_cast<unsigned>(blockSize));
    return EAaGpuSharedMemPoolRet_Mismatch;
  }
  return mapObject(kFunction, name, object.fd(), existing.objectBytes, existing, pool);
}

EAaGpuSharedMemPoolRet AaGpuSharedMemPool_Open(const char* name, SAaGpuSharedMemPool** pool) {
  static const char kFunction[] = "AaGpuSharedMemPool_Open";
  if (!validName(kFunction, name)) return EAaGpuSharedMemPoolRet_InvalidParameter;
  if (pool == nullptr) {
    logError(kFunction, "pool is null");
    return EAaGpuSharedMemPoolRet_InvalidParameter;
  }
  LockedObject object(name, O_RDWR);
  if (object.fd() < 0 && errno == ENOENT) {
    AaSysLogPrintE(EAaSysLogSeverityLevel_Error, AASYSLOG_FEATURE_NONE, "%s(): no pool \"%s\"", kFunction, name);
    return EAaGpuSharedMemPoolRet_NotFound;
  }
  if (object.fd() < 0) return systemError(kFunction, "shm_open", name, errno);
  // Shared: waits while a creator holds the exclusive lock to initialise.
  if (!object.lock(LOCK_SH)) return systemError(kFunction, "flock", name, errno);
  PoolLayout layout{};
  const EAaGpuSharedMemPoolRet rc = readLayout(kFunction, name, object.fd(), &layout);
  if (rc != EAaGpuSharedMemPoolRet_Ok) return rc;
  return mapObject(kFunction, name, object.fd(), layout.objectBytes, layout, pool);
}

EAaGpuSharedMemPoolRet AaGpuSharedMemPool_Close(SAaGpuSharedMemPool* pool) {
  if (pool == nullptr) {
    logError("AaGpuSharedMemPool_Close", "pool is null");
    return EAaGpuSharedMemPoolRet_InvalidParameter;
  }
  munmap(pool->base, pool->bytes);
  delete pool;
  return EAaGpuSharedMemPoolRet_Ok;
}

EAaGpuSharedMemPoolRet AaGpuSharedMemPool_Remove(const char* name) {
  static const char kFunction[] = "AaGpuSharedMemPool_Remove";
  if (!validName(kFunction, name)) return EAaGpuSharedMemPoolRet_InvalidParameter;
  if (shm_unlink(name) == 0) return EAaGpuSharedMemPoolRet_Ok;
  const int error = errno;
  systemError(kFunction, "shm_unlink", name, error);
  return error == ENOENT ? EAaGpuSharedMemPoolRet_NotFound : EAaGpuSharedMemPoolRet_SystemError;
}

void* AaGpuSharedMemPool_Alloc(SAaGpuSharedMemPool* pool) {
  if (pool == nullptr) {
    logError("AaGpuSharedMemPool_Alloc", "pool is null");
    return nullptr;
  }
  const uint64_t identity = Olm::ownIdentity();
  void* block = claimFreeBlock(*pool, identity);
  if (block == nullptr && AaGpuSharedMemPool_Reclaim(pool) != 0) block = claimFreeBlock(*pool, identity);
  return block;
}

EAaGpuSharedMemPoolRet AaGpuSharedMemPool_Free(SAaGpuSharedMemPool* pool, void* block) {
  return handOver("AaGpuSharedMemPool_Free", pool, block, kFreeOwner);
}

EAaGpuSharedMemPoolRet AaGpuSharedMemPool_Adopt(SAaGpuSharedMemPool* pool, void* block) {
  return handOver("AaGpuSharedMemPool_Adopt", pool, block, Olm::ownIdentity());
}

// The last verdict is remembered: a process that died holding many blocks costs one /proc read.
uint32_t AaGpuSharedMemPool_Reclaim(SAaGpuSharedMemPool* pool) {
  if (pool == nullptr) {
    logError("AaGpuSharedMemPool_Reclaim", "pool is null");
    return 0;
  }
  const uint64_t self = Olm::ownIdentity();
  uint64_t checked = 0;
  bool checkedAlive = true;
  uint32_t reclaimed = 0;
  for (uint32_t index = 0; index < pool->layout.blockCount; ++index) {
    uint64_t* word = &pool->owners()[index];
    const uint64_t owner = loadOwner(word);
    if (owner == 0 || owner == self) continue;
    if (owner != checked) {
      checked = owner;
      checkedAlive = Olm::identityAlive(owner);
    }
    // An ended owner frees nothing any more; a racing reclaimer or adopter makes this CAS fail.
    if (!checkedAlive && release(word, owner)) ++reclaimed;
  }
  return reclaimed;
}

uint32_t AaGpuSharedMemPool_BlockIndex(SAaGpuSharedMemPool* pool, const void* block) {
  const uint32_t index = pool == nullptr ? kNoIndex : indexOf(*pool, block);
  if (index == kNoIndex) {
    AaSysLogPrintE(EAaSysLogSeverityLevel_Error, AASYSLOG_FEATURE_NONE,
                   "AaGpuSharedMemPool_BlockIndex(): %p is no block of pool %p", block, static_cast<void*>(pool));
  }
  return index;
}

void* AaGpuSharedMemPool_BlockAddress(SAaGpuSharedMemPool* pool, uint32_t index) {
  if (pool == nullptr || index >= pool->layout.blockCount) {
    AaSysLogPrintE(EAaSysLogSeverityLevel_Error, AASYSLOG_FEATURE_NONE,
                   "AaGpuSharedMemPool_BlockAddress(): no block %u in pool %p", static_cast<unsigned>(index),
                   static_cast<void*>(pool));
    return nullptr;
  }
  return pool->block(index);
}

EAaGpuSharedMemPoolRet AaGpuSharedMemPool_InfoGet(SAaGpuSharedMemPool* pool, SAaGpuSharedMemPoolInfo* info) {
  if (pool == nullptr || info == nullptr) {
    logError("AaGpuSharedMemPool_InfoGet", "pool or info is null");
    return EAaGpuSharedMemPoolRet_InvalidParameter;
  }
  const uint64_t self = Olm::ownIdentity();
  SAaGpuSharedMemPoolInfo counted{pool->layout.blockSize, pool->layout.blockCount, 0, 0};
  for (uint32_t index = 0; index < pool->layout.blockCount; ++index) {
    const uint64_t owner = loadOwner(&pool->owners()[index]);
    if (owner == 0) ++counted.freeBlocks;
    if (owner == self) ++counted.ownedBlocks;
  }
  *info = counted;
  return EAaGpuSharedMemPoolRet_Ok;
}

}  // extern "C"
