// Raw access to the event machine's events, and its server initialisation, for code that works
// below the SysCom message layer. An event is a 32-bit handle; its data starts with an 8-byte event
// header (byte 0: 0, byte 1: 2, bytes 2-3: message id, most significant byte first, bytes 4-7: 0)
// in front of the payload.
#pragma once

#include <stdint.h>

#include "OlmApi.h"

OLM_API_BEGIN

extern "C" {
// Attaches this process to the event machine as the server of node nid, bound to cpu; writes the
// transport handle. 0, or the event machine's negative error code.
int olm_lite_em_server_init(unsigned short nid, unsigned int cpu, uint32_t* handle);
// Installs a test route; the event machine's result.
int olm_lite_em_add_test_route(unsigned int kind, unsigned int from, unsigned int to, unsigned int arg);
}

namespace Olm {

// A raw event of size bytes (type and pool are passed through); 0 when none is to be had.
unsigned int em_alloc(unsigned int size, unsigned int type, unsigned int pool);
// Releases the event and its data.
void em_free(unsigned int event);
// Sends the event to the node of receiver; 0 on success, else the event machine's error.
int em_send(unsigned int event, unsigned int receiver);
// The event's data, or null for an unknown handle.
void* em_event_pointer(unsigned int event);
// Writes the event header for msgId into the event's data and returns the data.
void* EmSwEventPrepare(unsigned int event, unsigned short msgId);
// The event's payload: its data + 8.
void* EmSwEventGetPayload(unsigned int event);
// The message id in the event header.
unsigned short EmSwEventGetMessageId(unsigned int event);

}  // namespace Olm

OLM_API_END
