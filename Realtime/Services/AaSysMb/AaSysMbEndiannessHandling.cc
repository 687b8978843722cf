#include "AaSysMbEndiannessHandling.h"

#include "AaCpuBit.h"
#include "AaSysMbCommand.h"
#include "OlmAssert.h"

OLM_ASSERT_SOURCE("Realtime/Services/AaSysMb/AaSysMbEndiannessHandling")

namespace {

constexpr uint32_t kTwoByteAlignedApf = 1;  // APFs above this are 2-byte aligned content
constexpr uint32_t kHostApf = 1;

}  // namespace

void HandleMessageEndianness(void* msg) {
  const uint32_t msgId = AaSysComMsgGetId(msg);
  if (!carriesPublication(msgId) && !isHeaderOnlyCommand(msgId)) return;
  const uint32_t apf = AaSysComMsgGetApf(msg);
  AaSysLogPrintE(EAaSysLogSeverityLevel_Debug, AASYSMB_FEATURE_ID,
                 "HandleMessageEndianness(): Handling message endiannes (0x%x 0x%x).", msgId, apf);
  SAaSysMbCmdHeader* msgPayload = commandHeaderOf(msg);
  OLM_ASSERT_TEXT(msgPayload != nullptr, "msgPayload != GLO_NULL");
  if (AaSysComIsHostAndMsgEndianSame(msg) == 0) {
    swapCommandHeader(*msgPayload);
    if (apf > kTwoByteAlignedApf) return;
    // A current publication's payload is size + 4 bytes after the header: size / 4 words fit.
    if (carriesPublication(msgId)) {
      AaCpuBitSwapMultiByteOrder32(reinterpret_cast<uint8_t*>(msgPayload) + AASYSMB_CMD_HEADER_SIZE, msgPayload->size / 4);
    }
  } else if (apf > kTwoByteAlignedApf) {
    return;
  }
  msgPayload->apfWord = (msgPayload->apfWord & ~(0xFFu << AASYSMB_APF_SHIFT)) | kHostApf << AASYSMB_APF_SHIFT;
}
