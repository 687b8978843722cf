// libFuzzer target: the file-transfer forwarder fed arbitrary requests, as any tool or any node
// might send them, handled as the Dispatcher hands them over and frees them afterwards.
//
// An input is a list of messages: a byte choosing the id (get request, browse request, an id of
// nobody's), a byte choosing the master node id tag (absent, another node, this node), a byte
// choosing the sender (a tool, none), a byte whose low bits become the envelope format (so a
// trailer may take the payload's last bytes, or claim more than the message holds), two bytes of
// payload length (up to 1023) and that many payload bytes. A browse request that asks for a copy
// gets an address inside memory the fuzzer owns, so every copy is real and may only be as long as
// the reply holds. Nothing may be read or written outside a message; a request is either sent on
// (then the Dispatcher's free is the platform's expected one) or freed by the Dispatcher, and at
// the end nothing is left that nobody frees.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "AaConfig.h"
#include "AaSysCom.h"
#include "AaSysComMsgHeader.h"
#include "FakeRuntime.h"
#include "LowMemory.h"
#include "SicFtpFwEu.h"

namespace {

using Olm::SicFtpFwEu;

constexpr uint16_t kIds[] = {SicFtpFwEu::kGetReqMsgId, SicFtpFwEu::kBrowserDspMemReqMsgId, 0x3A01};
constexpr uint32_t kForwarderAddress = uint32_t{OlmTest::kOwnNid} << 16 | 0x0614;
constexpr uint32_t kSenders[] = {0x20010777, 0};
constexpr uint16_t kOtherNode = 0x10F0;
constexpr uint32_t kMaxPayload = 0x3FF;
// Every address a browse request can be given lies in the first half, every copy fits the rest.
constexpr size_t kBrowsedBytes = 0x20000;
constexpr uint32_t kAddressRange = 0x10000;
constexpr const char* kMasterNidTag = "olm.service.aasyscom.masternid";

void chooseMasterTag(uint8_t choice) {
  switch (choice % 3) {
    case 0: AaConfigTagDelete(kMasterNidTag); break;
    case 1: AaConfigTagPublicSetU16(kMasterNidTag, kOtherNode); break;
    default: AaConfigTagPublicSetU16(kMasterNidTag, OlmTest::kOwnNid); break;
  }
}

// A copy request's address is moved into the fuzzer's own memory.
void pointIntoOwnMemory(void* msg, const OlmTest::LowMemory& memory) {
  if (AaSysComMsgGetId(msg) != SicFtpFwEu::kBrowserDspMemReqMsgId || AaSysComMsgGetPayloadSize(msg) < 12) return;
  auto* payload = static_cast<uint8_t*>(AaSysComMsgGetPayload(msg));
  uint32_t address;
  std::memcpy(&address, payload + 8, sizeof(address));
  address = memory.address() + address % kAddressRange;
  std::memcpy(payload + 8, &address, sizeof(address));
}

bool wasSent(const OlmTest::FakeRuntime& runtime, const void* msg) {
  return std::find(runtime.sent().begin(), runtime.sent().end(), msg) != runtime.sent().end();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const OlmTest::LowMemory memory(kBrowsedBytes);
  if (memory.bytes() == nullptr) std::abort();
  size_t position = 0;
  auto byte = [&] { return position < size ? data[position++] : uint8_t{0}; };
  OlmTest::FakeRuntime runtime;
  AaConfigEarlyStartup();
  SicFtpFwEu forwarder;
  while (position < size) {
    const uint16_t id = kIds[byte() % (sizeof(kIds) / sizeof(kIds[0]))];
    chooseMasterTag(byte());
    const uint32_t sender = kSenders[byte() % (sizeof(kSenders) / sizeof(kSenders[0]))];
    const uint8_t envelope = byte() & AASYSCOM_MEF_MASK;
    const uint32_t low = byte();
    const uint32_t payloadSize = (low | uint32_t{byte()} << 8) & kMaxPayload;
    void* msg = AaSysComMsgCreate(id, static_cast<TAaSysComMsgSize>(payloadSize), kForwarderAddress);
    auto* payload = static_cast<uint8_t*>(AaSysComMsgGetPayload(msg));
    for (uint32_t i = 0; i < payloadSize; ++i) payload[i] = byte();
    AaSysComMsgSetSender(msg, sender);
    pointIntoOwnMemory(msg, memory);
    Olm::msgHeader(msg)->flags = static_cast<uint16_t>((Olm::msgHeader(msg)->flags & ~AASYSCOM_MEF_MASK) | envelope);
    forwarder.ProcessMessage(msg);
    if (msg == nullptr) std::abort();
    if (!wasSent(runtime, msg)) runtime.deleteMessage(msg);
  }
  if (runtime.doubleFrees() != 0 || runtime.leakedBuffers() != 0) std::abort();
  return 0;
}
