// libFuzzer target: the collector fed arbitrary messages, as nodes, followers of either byte order
// and anybody else might send them, between looks at a running-node table the input also decides,
// with followers that take their copies or refuse them.
//
// An input is a list of messages: a byte choosing the id (a line, a follow request, a cancel, the
// collector's own timer, or an id of nobody's), a byte giving the SysCom APF, a byte choosing the
// sender among a few, a byte saying whether sends to followers fail from now on, a length byte and
// that many payload bytes. Every message goes through the collector's real handling. Nothing may be
// read or written outside a message, the collector must leave no message in its reference, and at
// the end nothing may be left that nobody frees.
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "AaSysCom.h"
#include "FakeRuntime.h"
#include "FuzzInput.h"
#include "SysLogCollector.h"
#include "SysLogFollow.h"

namespace {

constexpr uint32_t kIds[] = {SYSLOG_LINE_MSG, SYSLOG_FOLLOW_REQ_MSG, SYSLOG_FOLLOW_CANCEL_MSG, 0x097B, 0x3A01};
constexpr uint32_t kApfCount = 4;
constexpr uint32_t kSenderCount = 8;
constexpr uint32_t kCollectorAddress = uint32_t{OlmTest::kOwnNid} << 16 | SYSLOG_COLLECTOR_CPID;
constexpr uint32_t kFollowerBase = 0x1FF00777;
constexpr uint8_t kMostNodes = 8;
constexpr uint16_t kNodeBase = 0x1000;
constexpr uint8_t kOneSendInFails = 4;

// Sends one message the input describes through the collector.
void deliverOne(OlmTest::FuzzInput& input, SysLogCollector& collector, bool& sendsFail) {
  const uint32_t id = kIds[input.byte() % (sizeof(kIds) / sizeof(kIds[0]))];
  const uint32_t apf = input.byte() % kApfCount;
  const uint8_t senderChoice = input.byte() % kSenderCount;
  sendsFail = input.byte() % kOneSendInFails == 0;
  const uint8_t payloadSize = input.byte();
  void* msg = AaSysComMsgCreate(static_cast<TAaSysComMsgId>(id), payloadSize, kCollectorAddress);
  input.bytes(static_cast<uint8_t*>(AaSysComMsgGetPayload(msg)), payloadSize);
  AaSysComMsgSetApf(msg, apf);
  AaSysComMsgSetSender(msg, senderChoice == 0 ? kCollectorAddress : kFollowerBase + (uint32_t{senderChoice} << 16));
  collector.ProcessMessage(msg);
  if (msg != nullptr) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  OlmTest::FuzzInput input(data, size);
  OlmTest::FakeRuntime runtime;
  bool sendsFail = false;
  {
    SysLogCollector::Hooks hooks;
    hooks.liveNodes = [&](std::vector<uint16_t>& nodes) {
      for (uint8_t count = input.byte() % kMostNodes; count > 0; --count) {
        nodes.push_back(static_cast<uint16_t>(kNodeBase | input.byte()));
      }
      return true;
    };
    hooks.takeAlias = [&](uint16_t) { return input.byte() % 2 == 0 ? 0 : -EBUSY; };
    hooks.transmit = [&](void* msg) {
      if (sendsFail) return -ENOBUFS;
      runtime.sendMessage(msg);
      return 0;
    };
    hooks.print = [](const std::string&) {};
    SysLogCollector collector(hooks);
    while (!input.atEnd()) deliverOne(input, collector, sendsFail);
  }
  if (runtime.doubleFrees() != 0 || runtime.leakedBuffers() != 0) std::abort();
  return 0;
}
