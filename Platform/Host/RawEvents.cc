#include "RawEvents.h"

namespace rhyddal {
namespace {
constexpr uint32_t kGenerationLimit = 1u << (32 - RawEvents::kSlotBits);
}  // namespace

uint32_t RawEvents::bind(void* data) {
  for (uint32_t tried = 0; tried < kSlotCount - 1; ++tried) {
    const uint32_t index = 1 + (searchStart_ - 1 + tried) % (kSlotCount - 1);
    Slot& slot = slots_[index];
    if (slot.data != nullptr) continue;
    slot.data = data;
    slot.generation = (slot.generation + 1) % kGenerationLimit;
    searchStart_ = index % (kSlotCount - 1) + 1;
    return (slot.generation << kSlotBits) | index;
  }
  return 0;
}

void* RawEvents::lookup(uint32_t handle) {
  Slot* slot = liveSlot(handle);
  return slot == nullptr ? nullptr : slot->data;
}

void RawEvents::unbind(uint32_t handle) {
  Slot* slot = liveSlot(handle);
  if (slot != nullptr) slot->data = nullptr;
}

RawEvents::Slot* RawEvents::liveSlot(uint32_t handle) {
  const uint32_t index = handle & (kSlotCount - 1);
  if (index == 0) return nullptr;
  Slot& slot = slots_[index];
  if (slot.data == nullptr || slot.generation != (handle >> kSlotBits)) return nullptr;
  return &slot;
}

}  // namespace rhyddal
