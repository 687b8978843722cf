// Handles of raw events (vakem_alloc_direct).
//
// The interface passes events as 32-bit words, and a pointer does not fit one on a 64-bit host, so
// a handle is an index into this process-local table plus a generation count: a handle that was
// released and whose slot was reused later reads as unknown instead of as someone else's event.
// Not thread-safe: the event machine's lock covers it.
#pragma once

#include <cstdint>

namespace rhyddal {

class RawEvents {
 public:
  static constexpr uint32_t kSlotBits = 12;
  static constexpr uint32_t kSlotCount = 1u << kSlotBits;  // slot 0 unused: handles are non-zero

  // A non-zero handle for the data, or 0 when every slot is taken.
  uint32_t bind(void* data);
  // The data of a live handle, or null.
  void* lookup(uint32_t handle);
  // Forgets a live handle; unknown handles are ignored.
  void unbind(uint32_t handle);

 private:
  struct Slot {
    void* data = nullptr;
    uint32_t generation = 0;
  };
  Slot* liveSlot(uint32_t handle);

  Slot slots_[kSlotCount];
  uint32_t searchStart_ = 1;
};

}  // namespace rhyddal
