// The message service's unit tests, against the fake runtime.
#pragma once

#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "AaSysCom.h"
#include "AaSysComMsgHeader.h"
#include "FakeRuntime.h"

namespace OlmTest {

constexpr uint16_t kEuCpid = 0x0123;
constexpr uint32_t kOtherSicad = 0x12350042;  // another node of the own group
constexpr uint32_t kOwnSicad = (uint32_t{kOwnNid} << 16) | 0x0077;
constexpr uint32_t kTrailerFirstWord = 0x11223344;
constexpr uint32_t kTrailerUninterpretedBytes = 0xABCDEF00;  // the 3 bytes after the TTL byte
constexpr TAaSysComMsgId kSysLogMsgId = 0x0976;

class SysComTest : public FakeRuntimeTest {
 protected:
  // What was sent, without the system log's own messages.
  std::vector<void*> sentMessages() {
    std::vector<void*> messages;
    for (void* msg : runtime.sent()) {
      if (AaSysComMsgGetId(msg) != kSysLogMsgId) messages.push_back(msg);
    }
    return messages;
  }

  // A message with MEF 3 whose trailer holds kTrailerFirstWord and the given TTL byte.
  void* createTrailerMessage(uint32_t payloadSize, uint8_t ttlByte) {
    void* msg = AaSysComMsgCreate(0x0321, payloadSize + AASYSCOM_TRAILER_SIZE, kOtherSicad);
    Olm::msgHeader(msg)->flags |= AASYSCOM_MEF_TRAILER;
    const uint32_t ttlWord = kTrailerUninterpretedBytes | ttlByte;
    auto* trailer = static_cast<unsigned char*>(msg) + AASYSCOM_HEADER_SIZE + payloadSize;
    std::memcpy(trailer, &kTrailerFirstWord, 4);
    std::memcpy(trailer + 4, &ttlWord, 4);
    return msg;
  }

  static uint32_t trailerWord(const void* msg, unsigned index) {
    uint32_t word;
    std::memcpy(&word, static_cast<const unsigned char*>(AaSysComMsgGetTrailer(msg)) + 4 * index, 4);
    return word;
  }

  static void fillPayload(void* msg, unsigned char first) {
    auto* payload = static_cast<unsigned char*>(AaSysComMsgGetPayload(msg));
    for (unsigned i = 0; i < AaSysComMsgGetPayloadSize(msg); ++i) {
      payload[i] = static_cast<unsigned char>(first + i);
    }
  }
};

}  // namespace OlmTest
