#include "SharedMemPoolLayout.h"

namespace Olm {
namespace {

constexpr uint64_t roundUp(uint64_t value, uint64_t alignment) { return (value + alignment - 1) / alignment * alignment; }

}  // namespace

bool planPool(uint32_t blockSize, uint32_t blockCount, PoolLayout* layout) {
  if (blockSize == 0 || blockCount == 0) return false;
  const uint64_t stride = roundUp(blockSize, kBlockAlignment);
  const uint64_t blocksOffset = roundUp(kOwnersOffset + uint64_t{blockCount} * sizeof(uint64_t), kBlocksAlignment);
  // Neither product can overflow: both factors are below 2^33.
  const uint64_t objectBytes = blocksOffset + stride * blockCount;
  if (stride > UINT32_MAX || objectBytes > kMaxPoolBytes) return false;
  *layout = PoolLayout{blockSize, blockCount, static_cast<uint32_t>(stride), blocksOffset, objectBytes};
  return true;
}

void writePoolHeader(const PoolLayout& layout, PoolHeader& header) {
  __atomic_store_n(&header.magic, kPoolMagicInitialising, __ATOMIC_RELAXED);
  header.version = kPoolLayoutVersion;
  header.blockSize = layout.blockSize;
  header.blockCount = layout.blockCount;
  header.blockStride = layout.blockStride;
  __atomic_store_n(&header.cursor, 0, __ATOMIC_RELAXED);
  header.blocksOffset = layout.blocksOffset;
  header.objectBytes = layout.objectBytes;
}

void markPoolReady(PoolHeader& header) { __atomic_store_n(&header.magic, kPoolMagicReady, __ATOMIC_RELEASE); }

const char* layoutFromHeader(const PoolHeader& header, uint64_t objectSize, PoolLayout* layout) {
  if (header.magic == kPoolMagicInitialising) return "was not completely initialised";
  if (header.magic != kPoolMagicReady) return "is no pool";
  if (header.version != kPoolLayoutVersion) return "is a pool of another layout version";
  PoolLayout planned{};
  if (!planPool(header.blockSize, header.blockCount, &planned) || planned.blockStride != header.blockStride ||
      planned.blocksOffset != header.blocksOffset || planned.objectBytes != header.objectBytes) {
    return "has an inconsistent header";
  }
  if (objectSize < planned.objectBytes) return "is smaller than its header says";
  *layout = planned;
  return nullptr;
}

bool creatorDiedEarly(const PoolHeader& header, const PoolLayout& requested, uint64_t objectSize) {
  return header.magic == kPoolMagicInitialising || (header.magic == 0 && objectSize == requested.objectBytes);
}

}  // namespace Olm
