// The proxy's checks and replies for commands that applications send directly as SysCom messages
// (the message API), and the APF of delivered publications.
#pragma once

#include <cstdint>

// Recognises a message-API command (marker AASYSMB_MARKER_MESSAGE_API; it then gets both flag bits)
// and checks its parameters: an EAaSysMbCheckResult, Valid for every other command.
uint32_t MessageApiParamsCheck(void* msg);
// Answers a command with its reply (message API, or reply-wanted flag set) when it has one; never
// for result EAaSysMbCheckResult_InvalidAddress, nor for a successful command of the server.
void SendReplyMessage(const void* msg, uint32_t result);
// Gives msg the APF in the top byte of apfWord when that is 0 to 3.
void SetMessageApf(void* msg, uint32_t apfWord);
