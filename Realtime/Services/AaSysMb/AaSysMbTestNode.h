// The broker of one node in a unit test: a started broker over the fake runtime, and a pump that
// hands the proxy what was sent to it, the way the Dispatcher would.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "AaSysMb.h"
#include "AaSysMbLocal.h"
#include "FakeRuntime.h"

namespace OlmTest {

constexpr uint32_t kProxyAddress = uint32_t{kOwnNid} << 16 | AASYSMB_PROXY_CPID;
constexpr uint32_t kSubscriberA = uint32_t{kOwnNid} << 16 | 0x0701;
constexpr uint32_t kSubscriberB = uint32_t{kOwnNid} << 16 | 0x0702;
constexpr uint32_t kPublisherA = uint32_t{kOwnNid} << 16 | 0x0801;
constexpr uint32_t kPublisherB = uint32_t{kOwnNid} << 16 | 0x0802;
constexpr uint32_t kRemoteNode = 0x2345;
constexpr uint32_t kRemoteSubscriber = kRemoteNode << 16 | 0x0701;
constexpr uint32_t kRemotePublisher = kRemoteNode << 16 | 0x0801;
constexpr uint32_t kServerSender = 0x1FF00000u | AASYSMB_SERVER_CPID;
constexpr uint16_t kNews = 0x3A01;

// A message the runtime was given: id, receiver, sender and the first payload word.
struct Sent {
  uint32_t id;
  uint32_t receiver;
  uint32_t sender;
  uint32_t firstWord;
  const void* msg;
};

class BrokerTest : public FakeRuntimeTest {
 protected:
  void SetUp() override {
    ASSERT_EQ(AaSysMbInit(), 0u);
    proxy = runtime.boundEu(AASYSMB_PROXY_CPID);
    ASSERT_NE(proxy, nullptr);
  }
  void TearDown() override {
    AaSysMbExit();
    FakeRuntimeTest::TearDown();
  }

  // Gives the proxy, in order, every message sent to it since the last pump (also those it sends
  // itself meanwhile). Each is a copy: the one sent is the runtime's.
  void pump() {
    while (m_pumped < runtime.sent().size()) {
      const void* sent = runtime.sent()[m_pumped++];
      if (AaSysComMsgGetReceiver(sent) == kProxyAddress) deliver(AaSysComMsgCreateCopy(sent));
    }
  }
  // What the Dispatcher does around ProcessMessage: the proxy must leave nothing to free.
  void deliver(void* msg) {
    proxy->ProcessMessage(msg);
    EXPECT_EQ(msg, nullptr) << "the proxy left its message in the reference";
    runtime.deleteMessage(msg);
  }

  void publish(uint32_t publisher, uint32_t mode, uint32_t value, uint32_t zone = EAaSysMbZone_Node,
               uint16_t msgId = kNews) {
    void* payload = AaSysMbPrepare(sizeof(value), msgId, publisher, mode, zone);
    ASSERT_NE(payload, nullptr);
    std::memcpy(payload, &value, sizeof(value));
    ASSERT_EQ(AaSysMbPublish(&payload), 0u);
    pump();
  }
  void subscribe(uint32_t subscriber, uint32_t mode, uint32_t zone = EAaSysMbZone_Node) {
    ASSERT_EQ(AaSysMbSubscribe(kNews, subscriber, mode, zone), 0u);
    pump();
  }

  std::vector<Sent> sentMessages(uint32_t id) const {
    std::vector<Sent> found;
    for (const void* msg : runtime.sent()) {
      if (AaSysComMsgGetId(msg) != id) continue;
      uint32_t firstWord = 0;
      if (AaSysComMsgGetPayloadSize(msg) >= sizeof(firstWord)) {
        std::memcpy(&firstWord, AaSysComMsgGetPayload(msg), sizeof(firstWord));
      }
      found.push_back({id, AaSysComMsgGetReceiver(msg), AaSysComMsgGetSender(msg), firstWord, msg});
    }
    return found;
  }
  // The payload words of the publications that reached receiver, in order.
  std::vector<uint32_t> receivedBy(uint32_t receiver, uint32_t id = kNews) const {
    std::vector<uint32_t> values;
    for (const Sent& sent : sentMessages(id)) {
      if (sent.receiver == receiver) values.push_back(sent.firstWord);
    }
    return values;
  }
  static const SAaSysMbCmdHeader& headerOf(const void* msg) {
    return *static_cast<const SAaSysMbCmdHeader*>(AaSysComMsgGetPayload(msg));
  }
  bool logged(const std::string& text) const { return runtime.anySentTextContains(text); }

  // A command as the server or another node's proxy sends it: marker, sender and the header
  // fields, and payloadSize bytes of payload (header included) of which the publication's are zero.
  void* command(uint32_t id, const SAaSysMbCmdHeader& header, uint32_t payloadSize = AASYSMB_CMD_HEADER_SIZE,
                uint32_t sender = kServerSender) {
    void* msg = AaSysComMsgCreate(id, payloadSize, kProxyAddress);
    std::memset(AaSysComMsgGetPayload(msg), 0, payloadSize);
    std::memcpy(AaSysComMsgGetPayload(msg), &header, std::min<size_t>(sizeof(header), payloadSize));
    AaSysComMsgSetSender(msg, sender);
    return msg;
  }
  static SAaSysMbCmdHeader header(uint32_t marker, uint32_t mode, uint32_t zone, uint32_t address, uint16_t msgId,
                                  uint16_t size = 0) {
    SAaSysMbCmdHeader header = {};
    header.marker = marker;
    header.mode = mode;
    header.zone = zone;
    header.address = address;
    header.msgId = msgId;
    header.size = size;
    header.apfWord = AASYSCOM_APF_HOST_WORDS << AASYSMB_APF_SHIFT;
    return header;
  }
  // A forward command carrying value.
  void* forward(uint32_t marker, uint32_t mode, uint32_t publisher, uint32_t value) {
    void* msg = command(AASYSMB_FWD_CMD_MSG, header(marker, mode, EAaSysMbZone_System, publisher, kNews, sizeof(value)),
                        sizeof(value) + AASYSMB_PUBL_CMD_OVERHEAD);
    std::memcpy(static_cast<uint8_t*>(AaSysComMsgGetPayload(msg)) + AASYSMB_CMD_HEADER_SIZE, &value, sizeof(value));
    return msg;
  }

  Olm::IAaSysDispatcherSicHandler* proxy = nullptr;

 private:
  size_t m_pumped = 0;
};

}  // namespace OlmTest
