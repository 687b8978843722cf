// Commands of older senders: an old id of the unpublish command, and commands whose layout differs
// from the current one (these are handled as they stand, without conversion, check or reply).
#pragma once

#include <cstdint>

// Gives a message of id AASYSMB_UNPUBL_CMD_MSG_OLD the current unpublish id.
void BackwardCompatibilityCheck(void* msg);
// 1 when msg was built by an older implementation (or is null), else 0.
uint32_t MsgFromOldImplementation(const void* msg);
