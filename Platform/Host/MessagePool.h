// The process-local pool of event-machine buffers.
//
// Every message the port hands out, and every message it receives, lives in one of these buffers.
// Buffers come in a few size classes carved from one reserved address range, so that
//   - the pool is bounded (RHYDDAL_POOL_BYTES): running out returns null, and the runtime writes its
//     post-mortem instead of the host swapping itself to death;
//   - any pointer can be recognised as ours or not without touching memory outside the range, so a
//     stray free never corrupts anything;
//   - a buffer's state is known, so frees can be judged:
//       in use  -> free             the owner's free;
//       in use  -> held             a successful send: the platform owns it now;
//       held    -> free             the sender's free right after the send (one built-in EU frees
//                                   each request it sends): expected, silent, counted;
//       held    -> free             the hold bound: more than holdLimit buffers are held, the
//                                   oldest is let go;
//       anything else               refused and counted by kind (already free, sent and already
//                                   freed once, not ours); the caller reports it.
//     A held buffer is not handed out again, so a late free-after-send cannot release a buffer
//     that meanwhile belongs to someone else, as long as it comes within holdLimit sends.
//
// Not thread-safe: the event machine serialises every call under its own lock.
#pragma once

#include <cstddef>
#include <cstdint>

namespace rhyddal {

// The largest buffer: a full SysCom message (total length is 16 bits) plus room for raw events
// that carry a little more.
constexpr uint32_t kMaxBufferBytes = 65536 + 4096;
// Default hold bound, in buffers. Why 256: a free that belongs to a send comes from the same EU
// in the same message handler, before the runtime's loop sends anything else; 256 further sends
// is two orders of magnitude of margin over that, while the held buffers stay few enough
// (typically 256 x 128 bytes) to keep the allocator's working set in the CPU caches. Measured
// against larger bounds in Platform/Host/README.md.
constexpr uint32_t kDefaultHoldLimit = 256;
// holdLimit value: no count bound; held buffers are let go only when their class runs out.
constexpr uint32_t kHoldUntilExhausted = 0;

enum class ReleaseResult {
  kReleased,              // the buffer was in use and is free now
  kFreedAfterSend,        // the buffer was held after a send: free now, as expected
  kRefusedAlreadyFree,    // free already (never handed out again since): nothing done
  kRefusedSentAndFreed,   // sent, and its free-after-send came already: nothing done
  kRefusedForeign,        // not a buffer of this pool: nothing done
};

// What the pool knows of a buffer in use.
struct BufferInfo {
  uint32_t capacity;        // usable bytes
  uint32_t requestedBytes;  // bytes asked for at allocation
  uint32_t eventHandle;     // raw-event handle bound to the buffer, 0 when none
};

struct PoolStatistics {
  uint64_t inUse;              // handed out, not yet freed or sent
  uint64_t held;               // sent, waiting for their free or the hold bound
  uint64_t free;               // carved and free
  uint64_t inUseHighWater;
  uint64_t heldHighWater;
  uint64_t freesAfterSend;     // expected frees of held buffers
  uint64_t holdsExpired;       // held buffers let go by the bound (or by their class running out)
  uint64_t refusedAlreadyFree;
  uint64_t refusedSentAndFreed;
  uint64_t refusedForeign;
};

class MessagePool {
 public:
  // limitBytes bounds the address range the pool may ever use (rounded down to whole chunks).
  explicit MessagePool(uint64_t limitBytes, uint32_t holdLimit = kDefaultHoldLimit);
  ~MessagePool();
  MessagePool(const MessagePool&) = delete;
  MessagePool& operator=(const MessagePool&) = delete;

  // A buffer of at least bytes bytes, or null when bytes exceeds kMaxBufferBytes or the pool is
  // exhausted (every held buffer of the size class already let go).
  void* allocate(uint32_t bytes);
  // vakem_free. *boundEvent, when given, receives the raw-event handle bound to a buffer that was
  // in use (0 when none), so the caller can drop it as well.
  ReleaseResult release(void* data, uint32_t* boundEvent = nullptr);
  // Takes over a buffer in use after a successful send; false when data is not a buffer in use.
  bool hold(void* data, uint32_t* boundEvent = nullptr);
  // Fills info for a buffer in use; false for anything else.
  bool inspect(const void* data, BufferInfo* info) const;
  // Binds a raw-event handle to a buffer in use (0 unbinds).
  void setEventHandle(void* data, uint32_t handle);

  PoolStatistics statistics() const;
  uint32_t holdLimit() const { return holdLimit_; }

 private:
  struct BufferHeader;
  struct HeldList {
    BufferHeader* oldest;
    BufferHeader* newest;
  };
  struct SizeClass {
    uint32_t capacity;
    uint64_t strideDivisor;  // n % stride == 0 exactly when n * strideDivisor <= strideDivisor - 1
    BufferHeader* freeList;
    unsigned char* carveCursor;
    unsigned char* carveEnd;
    HeldList held;
  };
  static constexpr int kClassCount = 6;
  static constexpr uint8_t kNoClass = 0xFF;

  int classFor(uint32_t bytes) const;
  BufferHeader* takeFree(SizeClass& sizeClass);
  BufferHeader* carve(int classIndex);
  bool reserveRange();
  bool claimChunk(int classIndex);
  BufferHeader* headerOf(const void* data) const;
  void pushFree(BufferHeader* header, uint32_t state);
  void unlinkHeld(BufferHeader* header);
  void expireOldestHeld();

  uint64_t limitBytes_;
  uint32_t holdLimit_;
  unsigned char* base_ = nullptr;
  size_t chunkCount_ = 0;
  size_t chunksClaimed_ = 0;
  uint8_t* chunkClass_ = nullptr;  // per chunk: the size class carved from it, or kNoClass
  SizeClass classes_[kClassCount];
  // The last pointer recognised: a data address always belongs to the same header (the range is
  // never unmapped), and the send path looks the same buffer up more than once.
  mutable const void* lastData_ = nullptr;
  mutable BufferHeader* lastHeader_ = nullptr;
  uint64_t holdSequence_ = 0;      // orders held buffers across size classes
  uint64_t carved_ = 0;
  PoolStatistics stats_{};
};

}  // namespace rhyddal
