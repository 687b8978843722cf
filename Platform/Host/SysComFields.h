// The two fields of a SysCom message header the platform reads: the receiver and the total length.
// Read with memcpy: a buffer handed in by the runtime carries no alignment promise for them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace rhyddal {

constexpr uint32_t kSysComHeaderBytes = 16;
constexpr size_t kSysComReceiverOffset = 4;      // u32, host order
constexpr size_t kSysComTotalLengthOffset = 14;  // u16, host order: header + payload + trailer

inline uint32_t sysComReceiver(const void* message) {
  uint32_t receiver = 0;
  std::memcpy(&receiver, static_cast<const unsigned char*>(message) + kSysComReceiverOffset, sizeof(receiver));
  return receiver;
}

inline uint32_t sysComTotalLength(const void* message) {
  uint16_t totalLength = 0;
  std::memcpy(&totalLength, static_cast<const unsigned char*>(message) + kSysComTotalLengthOffset,
              sizeof(totalLength));
  return totalLength;
}

}  // namespace rhyddal
