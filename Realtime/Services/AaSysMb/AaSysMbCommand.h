// What the broker's parts share about command messages: where the header is, which ids are the
// broker's, and the fixed addresses.
#pragma once

#include <cstdint>

#include "AaCpuBit.h"
#include "AaSysCom.h"
#include "AaSysMb.h"

// The command header of msg, or null when the payload is too short to hold one.
inline SAaSysMbCmdHeader* commandHeaderOf(const void* msg) {
  if (msg == nullptr || AaSysComMsgGetPayloadSize(msg) < AASYSMB_CMD_HEADER_SIZE) return nullptr;
  return static_cast<SAaSysMbCmdHeader*>(AaSysComMsgGetPayload(msg));
}

// Publish and forward commands carry a publication after the header.
inline bool carriesPublication(uint32_t msgId) { return msgId == AASYSMB_PUBL_CMD_MSG || msgId == AASYSMB_FWD_CMD_MSG; }

// The broker's ids whose commands are exactly a header.
inline bool isHeaderOnlyCommand(uint32_t msgId) {
  switch (msgId) {
    case AASYSMB_DEL_CMD_MSG:
    case AASYSMB_SND_CMD_MSG:
    case 0x08A3:
    case 0x08A4:
    case AASYSMB_SUBS_CMD_MSG:
    case AASYSMB_UNSUBS_CMD_MSG:
    case AASYSMB_FLUSH_CMD_MSG:
    case AASYSMB_UNPUBL_CMD_MSG:
    case SYSMB_RESET_REQ_MSG:
    case SYSMB_RESET_ACK_MSG:
    case SYSMB_RESET_IND_MSG:
      return true;
    default:
      return false;
  }
}

inline TAaSysComSicad serverAddress() { return AaSysComSicadGet(AASYSMB_SERVER_CPID, AASYSMB_SERVER_NID); }

// Brings a header written in the other byte order into this node's: the five leading words, the
// 16-bit id and size, and the APF word.
inline void swapCommandHeader(SAaSysMbCmdHeader& header) {
  constexpr uint32_t kLeadingHeaderWords = 5;
  AaCpuBitSwapMultiByteOrder32(&header.marker, kLeadingHeaderWords);
  AaCpuBitSwapByteOrder16(&header.msgId);
  AaCpuBitSwapByteOrder16(&header.size);
  AaCpuBitSwapByteOrder32(&header.apfWord);
}
