// The process-local pool of event-machine buffers.
//
// Every message the port hands out, and every message it receives, lives in one of these buffers.
// Buffers come in a few size classes carved from one reserved address range, so that
//   - the pool is bounded (RHYDDAL_POOL_BYTES): running out returns null, and the runtime writes its
//     post-mortem instead of the host swapping itself to death;
//   - any pointer can be recognised as ours or not without touching memory outside the range, so a
//     stray free never corrupts anything;
//   - a buffer's state (free, in use, quarantined) is known, so freeing a buffer that was just sent
//     is harmless. One built-in EU frees each request right after sending it; sent buffers
//     therefore wait in a FIFO of the last kQuarantineDepth sends before they can be handed out
//     again, and a free of a buffer the pool already owns is ignored.
#pragma once

#include <cstddef>
#include <cstdint>
#include <mutex>

namespace rhyddal {

// The largest buffer: a full SysCom message (total length is 16 bits) plus room for raw events
// that carry a little more.
constexpr uint32_t kMaxBufferBytes = 65536 + 4096;
constexpr uint32_t kQuarantineDepth = 256;

enum class ReleaseResult {
  kReleased,      // the buffer was in use and is free now
  kAlreadyOwned,  // sent (quarantined) or already free: nothing done
  kForeign,       // not a buffer of this pool: nothing done
};

// What the pool knows of a buffer in use.
struct BufferInfo {
  uint32_t capacity;        // usable bytes
  uint32_t requestedBytes;  // bytes asked for at allocation
  uint32_t eventHandle;     // raw-event handle bound to the buffer, 0 when none
};

class MessagePool {
 public:
  // limitBytes bounds the address range the pool may ever use (rounded down to whole chunks).
  explicit MessagePool(uint64_t limitBytes);
  ~MessagePool();
  MessagePool(const MessagePool&) = delete;
  MessagePool& operator=(const MessagePool&) = delete;

  // A buffer of at least bytes bytes, or null when bytes exceeds kMaxBufferBytes or the pool is
  // exhausted.
  void* allocate(uint32_t bytes);
  // Gives a buffer in use back (vakem_free). *boundEvent, when given, receives the raw-event
  // handle that was bound to the buffer (0 when none), so the caller can drop it as well.
  ReleaseResult release(void* data, uint32_t* boundEvent = nullptr);
  // Takes over a buffer in use after a successful send; false when data is not a buffer in use.
  bool retire(void* data, uint32_t* boundEvent = nullptr);
  // Fills info for a buffer in use; false for anything else.
  bool inspect(const void* data, BufferInfo* info);
  // Binds a raw-event handle to a buffer in use (0 unbinds).
  void setEventHandle(void* data, uint32_t handle);

  // Held across fork() so that the child never inherits the lock in a locked state.
  void lockForFork() { mutex_.lock(); }
  void unlockAfterFork() { mutex_.unlock(); }

 private:
  struct BufferHeader;
  struct SizeClass {
    uint32_t capacity;
    BufferHeader* freeList;
    unsigned char* carveCursor;
    unsigned char* carveEnd;
  };
  static constexpr int kClassCount = 6;
  static constexpr uint8_t kNoClass = 0xFF;

  int classFor(uint32_t bytes) const;
  BufferHeader* takeFree(SizeClass& sizeClass);
  BufferHeader* carve(int classIndex);
  bool reserveRange();
  bool claimChunk(int classIndex);
  BufferHeader* headerOf(const void* data) const;
  void pushFree(BufferHeader* header);
  void quarantine(BufferHeader* header);

  std::mutex mutex_;
  uint64_t limitBytes_;
  unsigned char* base_ = nullptr;
  size_t chunkCount_ = 0;
  size_t chunksClaimed_ = 0;
  uint8_t* chunkClass_ = nullptr;  // per chunk: the size class carved from it, or kNoClass
  SizeClass classes_[kClassCount];
  BufferHeader* quarantine_[kQuarantineDepth] = {};
  uint32_t quarantineNext_ = 0;
};

}  // namespace rhyddal
