// libFuzzer target: arbitrary bytes as one sender's lane of a mailbox, read until nothing is left.
// Input: head (8 bytes), tail (8 bytes), then the ring's bytes from head's position on (the rest
// of the ring stays zero). The reader must never touch memory outside the lane, and must come to
// an end: every read consumes something or reports the lane empty.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "LaneReader.h"
#include "MessagePool.h"

namespace {

constexpr uint32_t kLaneBytes = rhyddal::kMinLaneBytes;
constexpr uint64_t kPoolBytes = 16u << 20;
constexpr int kMaxReads = 1 << 20;

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace rhyddal;
  if (size < 16) return 0;
  static MessagePool pool(kPoolBytes);
  // A heap block of exactly the lane's size, so AddressSanitizer sees any byte read past it.
  std::unique_ptr<unsigned char[]> ring(new unsigned char[kLaneBytes]());
  LaneControl control{};
  uint64_t head = 0;
  uint64_t tail = 0;
  std::memcpy(&head, data, 8);
  std::memcpy(&tail, data + 8, 8);
  control.head.store(head);
  control.tail.store(tail);
  const size_t payload = size - 16 < kLaneBytes ? size - 16 : kLaneBytes;
  for (size_t i = 0; i < payload; ++i) ring[(bytesOf(head) + i) & (kLaneBytes - 1)] = data[16 + i];

  const LaneView lane{&control, ring.get(), kLaneBytes, 0x1234};
  uint64_t knownTail = laneIndex(0, bytesOf(head));
  for (int reads = 0;; ++reads) {
    if (reads == kMaxReads) std::abort();  // the reader went round in circles
    void* message = nullptr;
    const LaneRead result = readLane(lane, &knownTail, pool, &message);
    if (result == LaneRead::kMessage) {
      BufferInfo info{};
      if (!pool.inspect(message, &info)) std::abort();
      pool.release(message);
    } else if (result != LaneRead::kAgain) {
      break;
    }
  }
  return 0;
}
