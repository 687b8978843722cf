// libFuzzer target: the broker proxy of a node fed arbitrary commands, as the server, other
// proxies, older senders and applications of either byte order might send them.
//
// An input is a list of messages: a byte choosing the id (the broker's ids, the old unpublish id,
// or an id of nobody's), a byte giving the SysCom APF (byte order and alignment), a byte choosing
// the sender (the server, an application, another node's proxy), a length byte and that many
// payload bytes, header included, whatever their content. Every message goes through the proxy's
// real handling (compatibility, byte order, message-API check and reply, the command). Nothing may
// be read or written outside a message, the proxy must leave no message in its reference, and once
// the broker stops nothing may be left that nobody frees.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "AaSysMb.h"
#include "AaSysMbLocal.h"
#include "FakeRuntime.h"
#include "FuzzInput.h"

namespace {

constexpr uint32_t kIds[] = {AASYSMB_FLUSH_CMD_MSG,  AASYSMB_DEL_CMD_MSG,        AASYSMB_FWD_CMD_MSG,
                             AASYSMB_SND_CMD_MSG,    0x08A3,                     0x08A4,
                             AASYSMB_SUBS_CMD_MSG,   AASYSMB_PUBL_CMD_MSG,       AASYSMB_UNSUBS_CMD_MSG,
                             AASYSMB_UNPUBL_CMD_MSG, AASYSMB_UNPUBL_CMD_MSG_OLD, AASYSMB_NOTIF_IND_MSG,
                             SYSMB_RESET_REQ_MSG,    SYSMB_RESET_ACK_MSG,        SYSMB_RESET_IND_MSG,
                             0x3A01};
constexpr uint32_t kSenders[] = {0x0FF00000u | AASYSMB_SERVER_CPID, uint32_t{OlmTest::kOwnNid} << 16 | 0x0701,
                                 0x23450000u | AASYSMB_PROXY_CPID};
constexpr uint32_t kApfCount = 4;

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  OlmTest::FuzzInput input(data, size);
  OlmTest::FakeRuntime runtime;
  if (AaSysMbInit() != 0) std::abort();
  Olm::IAaSysDispatcherSicHandler* proxy = runtime.boundEu(AASYSMB_PROXY_CPID);
  const uint32_t proxyAddress = uint32_t{OlmTest::kOwnNid} << 16 | AASYSMB_PROXY_CPID;
  while (!input.atEnd()) {
    const uint32_t id = kIds[input.byte() % (sizeof(kIds) / sizeof(kIds[0]))];
    const uint32_t apf = input.byte() % kApfCount;
    const uint32_t sender = kSenders[input.byte() % (sizeof(kSenders) / sizeof(kSenders[0]))];
    const uint32_t payloadSize = input.byte();
    void* msg = AaSysComMsgCreate(id, payloadSize, proxyAddress);
    input.bytes(static_cast<uint8_t*>(AaSysComMsgGetPayload(msg)), payloadSize);
    AaSysComMsgSetApf(msg, apf);
    AaSysComMsgSetSender(msg, sender);
    proxy->ProcessMessage(msg);
    if (msg != nullptr) std::abort();
  }
  AaSysMbExit();
  if (runtime.doubleFrees() != 0 || runtime.leakedBuffers() != 0) std::abort();
  return 0;
}
