// The layout of a shared block pool's object. Offsets only, no pointers: every process maps the
// object at an address of its own. Laid out the same in 32- and 64-bit processes, which may share
// one pool.
//
//   0                 PoolHeader
//   kOwnersOffset     one 64-bit owner word per block: 0 free, else the owner's identity
//   blocksOffset      the blocks, blockStride bytes apart (64-byte aligned start)
#pragma once

#include <cstddef>
#include <cstdint>

namespace Olm {

constexpr uint32_t kPoolMagicReady = 0x4F4C4D50;         // written last, once the pool is usable
constexpr uint32_t kPoolMagicInitialising = 0x4F4C4D49;  // a creator is (or died) writing it
constexpr uint32_t kPoolLayoutVersion = 1;
constexpr uint64_t kOwnersOffset = 64;
constexpr uint32_t kBlockAlignment = 16;
constexpr uint64_t kBlocksAlignment = 64;
// What a pool may map: a third of a 32-bit process's address space is a typo already.
constexpr uint64_t kMaxPoolBytes = sizeof(void*) == 4 ? uint64_t{1} << 30 : uint64_t{1} << 40;

struct PoolHeader {
  uint32_t magic;
  uint32_t version;
  uint32_t blockSize;    // as created
  uint32_t blockCount;
  uint32_t blockStride;  // blockSize rounded up to kBlockAlignment
  uint32_t cursor;       // where the next search for a free block starts: a hint, any value is safe
  uint64_t blocksOffset;
  uint64_t objectBytes;
};
static_assert(sizeof(PoolHeader) == 40 && offsetof(PoolHeader, blocksOffset) == 24,
              "one header layout for 32- and 64-bit processes");
static_assert(sizeof(PoolHeader) <= kOwnersOffset, "the owner words follow the header");

// A pool's geometry as this process computes it from the block size and count.
struct PoolLayout {
  uint32_t blockSize;
  uint32_t blockCount;
  uint32_t blockStride;
  uint64_t blocksOffset;
  uint64_t objectBytes;
};

// False when either is 0 or the pool would exceed kMaxPoolBytes.
bool planPool(uint32_t blockSize, uint32_t blockCount, PoolLayout* layout);

// The header of a new pool, marked as being initialised.
void writePoolHeader(const PoolLayout& layout, PoolHeader& header);
// Publishes the pool (release): everything written before is visible to whoever sees the marker.
void markPoolReady(PoolHeader& header);

// The layout an existing object's header describes, or the reason it is unusable (as a text that
// follows the object's name in a log line), null when it is fine.
const char* layoutFromHeader(const PoolHeader& header, uint64_t objectSize, PoolLayout* layout);

// Whether an existing object is a pool whose creator died before it was ready (it never was
// usable, so nobody holds a block of it), or a pool object created and sized but never written.
bool creatorDiedEarly(const PoolHeader& header, const PoolLayout& requested, uint64_t objectSize);

}  // namespace Olm
