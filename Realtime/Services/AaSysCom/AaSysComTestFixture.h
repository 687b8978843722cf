// A Dispatcher over a fake message port for the message service's unit tests.
#pragma once

#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "AaSysCom.h"
#include "ServiceTestFixture.h"

namespace OlmTest {

constexpr uint16_t kEuCpid = 0x0123;
constexpr uint32_t kOtherSicad = 0x12350042;  // another node of the own group
constexpr uint32_t kOwnSicad = (uint32_t{kOwnNid} << 16) | 0x0077;
constexpr uint32_t kTrailerFirstWord = 0x11223344;
constexpr uint32_t kTrailerUninterpretedBytes = 0xABCDEF00;  // the 3 bytes after the TTL byte
constexpr TAaSysComMsgId kSysLogMsgId = 0x0976;

// An EU that keeps a copy of the header of every message it processes.
class HeaderRecordingEu : public Olm::IAaSysDispatcherSicHandler {
 public:
  int PrioritizeMessage(void*&) override { return 3; }
  void ProcessMessage(void*& msg) override { received.push_back(*Olm::msgHeader(msg)); }
  std::vector<SAaSysComMsgHeader> received;
};

class SysComTest : public ServiceTest {
 protected:
  void TearDown() override {
    const size_t leaked = liveMessages();
    ServiceTest::TearDown();
    EXPECT_EQ(leaked, 0u) << "a message was leaked";
  }

  // Buffers neither freed nor handed to the port.
  size_t liveMessages() { return port.liveBuffers() - port.sent().size(); }

  // What was handed to the port, without the system log's own messages.
  std::vector<void*> sentMessages() {
    std::vector<void*> messages;
    for (void* msg : port.sent()) {
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
