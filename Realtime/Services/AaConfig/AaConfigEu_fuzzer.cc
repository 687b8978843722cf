// libFuzzer target: the R&D slave of a node fed arbitrary messages, as masters, requesters and
// peers of either byte order might send them.
//
// An input is a list of messages: a byte choosing the id (the slave's ids, the ids it sends, or an
// id of nobody's), a byte giving the SysCom APF (byte order and alignment), a byte choosing the
// sender (the synchronous master, another master, a requester), a length byte and that many
// payload bytes, whatever their content. Every message goes through the slave's real handling with
// domain 1 and a small domain registered and a subscriber of both. Nothing may be read or written
// outside a message, the slave must leave no message in its reference, and once the service is
// released nothing may be left that nobody frees.
#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "AaConfigEu.h"
#include "AaConfigRadInternal.h"
#include "AaConfigRadMsg.h"
#include "AaSysCom.h"
#include "FakeRuntime.h"
#include "FuzzInput.h"

namespace {

constexpr uint32_t kIds[] = {AACONFIG_RAD_MASTER_IND_MSG,
                             AACONFIG_RAD_DOMAIN_REGISTER_RSP_MSG,
                             AACONFIG_SET_MASTERNID_REQ,
                             AACONFIG_RAD_GET_DEFAULT_PARAMS_REQ_MSG,
                             AACONFIG_RAD_SET_PARAMS_REQ_MSG,
                             AACONFIG_RAD_GET_PARAMS_REQ_MSG,
                             AACONFIG_RAD_DOMAIN_UNREGISTER_RSP_MSG,
                             AACONFIG_RAD_DOMAIN_REGISTER_REQ_MSG,
                             AACONFIG_RAD_CHANGE_NOTIF_MSG,
                             0x3A01};
constexpr uint32_t kSenders[] = {0x10F00000u | AACONFIG_RAD_MASTER_CPID, 0x10F00999u,
                                 uint32_t{OlmTest::kOwnNid} << 16 | 0x0701};
constexpr uint32_t kApfCount = 4;
constexpr uint32_t kSmallDomain = 2;
constexpr uint32_t kSubscriber = uint32_t{OlmTest::kOwnNid} << 16 | 0x0777;

void smallDomain() { AaConfigRadSetMaxTagCount(kSmallDomain, 3); }

void release() {
  Olm::Rad::releaseSlave();
  Olm::Rad::releaseSubscribers();
  Olm::Rad::releaseDomains();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  OlmTest::FuzzInput input(data, size);
  OlmTest::FakeRuntime runtime;
  AaConfigEarlyStartup();
  AaConfigEeStartup(AACONFIG_RAD_DOMAIN_COUNT);
  AaConfigRadRegisterDomain(AACONFIG_RAD_OLM_DOMAIN, AACONFIG_RAD_OLM_DOMAIN_NAME, AaConfigRadOlmDomainInit);
  AaConfigRadRegisterDomain(kSmallDomain, "Small", smallDomain);
  AaConfigRadSubscribeNotifs(kSmallDomain << 16 | 1, kSubscriber);
  AaConfigRadSubscribeDomainUpdate(AACONFIG_RAD_OLM_DOMAIN, kSubscriber);
  Olm::IAaSysDispatcherSicHandler* slave = runtime.boundEu(AACONFIG_RAD_SLAVE_CPID);
  if (slave == nullptr) std::abort();
  const uint32_t slaveAddress = uint32_t{OlmTest::kOwnNid} << 16 | AACONFIG_RAD_SLAVE_CPID;
  while (!input.atEnd()) {
    const uint32_t id = kIds[input.byte() % (sizeof(kIds) / sizeof(kIds[0]))];
    const uint32_t apf = input.byte() % kApfCount;
    const uint32_t sender = kSenders[input.byte() % (sizeof(kSenders) / sizeof(kSenders[0]))];
    const uint32_t payloadSize = input.byte();
    void* msg = AaSysComMsgCreate(static_cast<TAaSysComMsgId>(id), static_cast<TAaSysComMsgSize>(payloadSize), slaveAddress);
    input.bytes(static_cast<uint8_t*>(AaSysComMsgGetPayload(msg)), payloadSize);
    AaSysComMsgSetApf(msg, apf);
    AaSysComMsgSetSender(msg, sender);
    slave->ProcessMessage(msg);
    if (msg != nullptr) std::abort();
  }
  release();
  if (runtime.doubleFrees() != 0 || runtime.leakedBuffers() != 0) std::abort();
  return 0;
}
