// The identifier FIFO behind AaGpuIdFifo (32-bit identifiers) and AaGpuEuIdFifo (16-bit ones).
//
// One block: this header, a bit per identifier of the range (set while the FIFO holds it) and a
// circular line of capacity identifiers. The line can never overflow: the bits let in only
// identifiers of the range that the FIFO does not hold, and the range has capacity identifiers.
// Only offsets and counts are stored, so the block may move or be mapped anywhere.
#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>

#include "BitWords.h"
#include "ContainerMemory.h"

namespace Olm {

template <typename IdType>
class alignas(BitWord) IdFifo {
 public:
  using Id = IdType;
  enum class PutResult { Ok, OutOfRange, AlreadyFree };

  // Largest capacity: the whole range of a 16-bit identifier, and for 32-bit ones a bound that
  // keeps the block size within a 32-bit size_t with plenty to spare.
  static constexpr uint32_t kMaxCount =
      sizeof(Id) < sizeof(uint32_t) ? uint32_t{std::numeric_limits<Id>::max()} + 1 : 0x1000000u;

  // Whether first .. first + count - 1 is a range this FIFO can hold.
  static bool isRange(uint32_t firstId, uint32_t count) {
    return count != 0 && count <= kMaxCount && uint64_t{firstId} + count - 1 <= std::numeric_limits<Id>::max();
  }

  // Callers check isRange(·, count) first.
  static size_t memorySize(uint32_t count) {
    return sizeof(IdFifo) + size_t{BitWords::wordCount(count)} * sizeof(BitWord) + size_t{count} * sizeof(Id);
  }

  // A FIFO holding the whole range, in ascending order.
  IdFifo(Id firstId, uint32_t count, BlockOrigin origin)
      : m_firstId(firstId), m_capacity(count), m_head(0), m_count(count), m_origin(origin) {
    BitWords::setAll(freeBits(), count);
    for (uint32_t index = 0; index < count; ++index) line()[index] = static_cast<Id>(firstId + index);
  }

  // False when empty.
  bool get(Id& id) {
    if (m_count == 0) return false;
    id = line()[m_head];
    m_head = advanced(m_head, 1);
    --m_count;
    BitWords::clear(freeBits(), id - m_firstId);
    return true;
  }

  PutResult put(Id id) {
    if (!inRange(id)) return PutResult::OutOfRange;
    const uint32_t offset = id - m_firstId;
    if (BitWords::test(freeBits(), offset)) return PutResult::AlreadyFree;
    BitWords::set(freeBits(), offset);
    line()[advanced(m_head, m_count)] = id;
    ++m_count;
    return PutResult::Ok;
  }

  bool isFree(uint32_t id) const { return inRange(id) && BitWords::test(freeBits(), id - m_firstId); }
  bool inRange(uint32_t id) const { return id >= m_firstId && id - m_firstId < m_capacity; }
  uint32_t freeCount() const { return m_count; }
  uint32_t firstId() const { return m_firstId; }
  uint32_t capacity() const { return m_capacity; }
  BlockOrigin origin() const { return m_origin; }

 private:
  BitWord* freeBits() { return reinterpret_cast<BitWord*>(this + 1); }
  const BitWord* freeBits() const { return reinterpret_cast<const BitWord*>(this + 1); }
  Id* line() { return reinterpret_cast<Id*>(freeBits() + BitWords::wordCount(m_capacity)); }

  // index + steps around the line; both below the capacity. No division: 32-bit ARM has none in
  // hardware, and the compiler would call a library routine on every get and put.
  uint32_t advanced(uint32_t index, uint32_t steps) const {
    const uint32_t next = index + steps;
    return next >= m_capacity ? next - m_capacity : next;
  }

  uint32_t m_firstId;
  uint32_t m_capacity;
  uint32_t m_head;   // line index of the oldest free identifier
  uint32_t m_count;  // free identifiers, from m_head on
  BlockOrigin m_origin;
};

}  // namespace Olm
