// libFuzzer target: the broker server fed arbitrary commands, as proxies and clients of either byte
// order, older senders and anybody else might send them.
//
// An input is a list of messages: a byte choosing the id (the broker's ids, the old unpublish id,
// or an id of nobody's), a byte giving the SysCom APF (byte order and alignment), a length byte and
// that many payload bytes, header included, whatever their content. Every message goes through the
// server's real handling. Nothing may be read or written outside a message, the server must leave
// no message in its reference, and once it is destroyed nothing may be left that nobody frees.
#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "AaSysMb.h"
#include "BrokerServer.h"
#include "FakeRuntime.h"

namespace {

constexpr uint32_t kIds[] = {AASYSMB_FLUSH_CMD_MSG,  AASYSMB_DEL_CMD_MSG,        AASYSMB_FWD_CMD_MSG,
                             AASYSMB_SND_CMD_MSG,    AASYSMB_SUBS_CMD_MSG,       AASYSMB_PUBL_CMD_MSG,
                             AASYSMB_UNSUBS_CMD_MSG, AASYSMB_UNPUBL_CMD_MSG,     AASYSMB_UNPUBL_CMD_MSG_OLD,
                             SYSMB_RESET_REQ_MSG,    SYSMB_RESET_IND_MSG,        0x3A01};
constexpr uint32_t kApfCount = 4;
constexpr uint32_t kServerAddress = uint32_t{OlmTest::kOwnNid} << 16 | AASYSMB_SERVER_CPID;

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  size_t position = 0;
  auto byte = [&] { return position < size ? data[position++] : uint8_t{0}; };
  OlmTest::FakeRuntime runtime;
  {
    BrokerServer server;
    while (position < size) {
      const uint32_t id = kIds[byte() % (sizeof(kIds) / sizeof(kIds[0]))];
      const uint32_t apf = byte() % kApfCount;
      const uint32_t payloadSize = byte();
      void* msg = AaSysComMsgCreate(id, payloadSize, kServerAddress);
      auto* payload = static_cast<uint8_t*>(AaSysComMsgGetPayload(msg));
      for (uint32_t i = 0; i < payloadSize; ++i) payload[i] = byte();
      AaSysComMsgSetApf(msg, apf);
      server.ProcessMessage(msg);
      if (msg != nullptr) std::abort();
    }
  }
  if (runtime.doubleFrees() != 0 || runtime.leakedBuffers() != 0) std::abort();
  return 0;
}
