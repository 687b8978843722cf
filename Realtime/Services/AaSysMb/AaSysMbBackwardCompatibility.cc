#include "AaSysMbBackwardCompatibility.h"

#include "AaCpuBit.h"
#include "AaSysMbCommand.h"

void BackwardCompatibilityCheck(void* msg) {
  if (msg == nullptr) {
    AaSysLogPrintE(EAaSysLogSeverityLevel_Warning, AASYSMB_FEATURE_ID, "BackwardCompatibilityCheck(): Message is null.");
    return;
  }
  if (AaSysComMsgGetId(msg) != AASYSMB_UNPUBL_CMD_MSG_OLD) return;
  AaSysLogPrintE(EAaSysLogSeverityLevel_Debug, AASYSMB_FEATURE_ID, "Changing message ID 0x09CE to AASYSMB_UNPUBL_CMD_MSG.");
  AaSysComMsgSetId(msg, AASYSMB_UNPUBL_CMD_MSG);
}

// A current publication's SysCom payload is its size field + 32; older senders laid it out
// otherwise. The size field is in the sender's byte order until the header is converted.
uint32_t MsgFromOldImplementation(const void* msg) {
  if (msg == nullptr) {
    AaSysLogPrintE(EAaSysLogSeverityLevel_Warning, AASYSMB_FEATURE_ID, "MsgFromOldImplementation(): Message is null.");
    return 1;
  }
  const uint32_t msgId = AaSysComMsgGetId(msg);
  const uint32_t payloadSize = AaSysComMsgGetPayloadSize(msg);
  if (carriesPublication(msgId)) {
    const SAaSysMbCmdHeader* header = commandHeaderOf(msg);
    if (header == nullptr) return 1;
    uint16_t size = header->size;
    if (AaSysComIsHostAndMsgEndianSame(msg) == 0) AaCpuBitSwapByteOrder16(&size);
    return payloadSize - size == AASYSMB_PUBL_CMD_OVERHEAD ? 0 : 1;
  }
  if (isHeaderOnlyCommand(msgId)) return payloadSize == AASYSMB_CMD_HEADER_SIZE ? 0 : 1;
  return 1;
}
