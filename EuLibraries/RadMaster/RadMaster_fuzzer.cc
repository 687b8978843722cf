// libFuzzer target: the R&D master fed arbitrary messages, as slaves, clients and anybody else of
// any node might send them.
//
// An input is a list of messages: a byte choosing the id (every id of the R&D protocol, the
// master's start message, an id of nobody's), a byte choosing the sender (a slave of one of two
// nodes, a client, the master itself), a length byte and that many payload bytes, whatever their
// content (counts larger than the payload among them). Every message goes through the master's
// real handling. Nothing may be read or written outside a message, the master must leave no message
// in its reference, and nothing may be left that nobody frees.
#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "AaConfigRadMsg.h"
#include "AaSysCom.h"
#include "FakeRuntime.h"
#include "RadMaster.h"

namespace {

constexpr uint16_t kIds[] = {AACONFIG_RAD_DOMAIN_REGISTER_REQ_MSG,    AACONFIG_RAD_DOMAIN_UNREGISTER_REQ_MSG,
                             AACONFIG_RAD_SYNC_NODE_MSG,              AACONFIG_RAD_SET_PARAMS_RESP_MSG,
                             AACONFIG_RAD_GET_PARAMS_RESP_MSG,        AACONFIG_RAD_GET_DEFAULT_PARAMS_RESP_MSG,
                             AACONFIG_RAD_GET_PARAMS_REQ_MSG,         AACONFIG_RAD_GET_DEFAULT_PARAMS_REQ_MSG,
                             AACONFIG_RAD_SET_PARAMS_REQ_MSG,         AACONFIG_RAD_DOMAIN_REGISTER_IND_MSG,
                             RadMaster::kStartMsgId,                  0x3A01};
constexpr uint32_t kMaster = uint32_t{OlmTest::kOwnNid} << 16 | AACONFIG_RAD_MASTER_CPID;
constexpr uint32_t kSenders[] = {0x10110000u | AACONFIG_RAD_SLAVE_CPID, 0x10120000u | AACONFIG_RAD_SLAVE_CPID,
                                 0x10F00777u, kMaster};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  size_t position = 0;
  auto byte = [&] { return position < size ? data[position++] : uint8_t{0}; };
  OlmTest::FakeRuntime runtime;
  {
    RadMaster master;
    while (position < size) {
      const uint16_t id = kIds[byte() % (sizeof(kIds) / sizeof(kIds[0]))];
      const uint32_t sender = kSenders[byte() % (sizeof(kSenders) / sizeof(kSenders[0]))];
      const uint32_t payloadSize = byte();
      void* msg = AaSysComMsgCreate(id, static_cast<TAaSysComMsgSize>(payloadSize), kMaster);
      auto* payload = static_cast<uint8_t*>(AaSysComMsgGetPayload(msg));
      for (uint32_t i = 0; i < payloadSize; ++i) payload[i] = byte();
      AaSysComMsgSetSender(msg, sender);
      master.ProcessMessage(msg);
      if (msg != nullptr) std::abort();
    }
  }
  if (runtime.doubleFrees() != 0 || runtime.leakedBuffers() != 0) std::abort();
  return 0;
}
