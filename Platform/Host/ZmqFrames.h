// Whole ZeroMQ messages of several frames, in and out, for the bridge's sockets.
#pragma once

#include <zmq.h>

#include <cstddef>

#include "BridgeWire.h"

namespace rhyddal {

// One message, sent as a whole or not at all where the socket checks its peer and queue at the
// first frame (ROUTER sockets do, and then take the rest without waiting). flags: ZMQ_DONTWAIT or 0.
bool sendFrames(void* socket, const Frame* frames, size_t count, int flags);

// Receives one whole message (ZeroMQ hands all its frames over together) without waiting for it to
// come: its first `capacity` frames into kept (initialised here; closeFrames gives them back),
// the others read and let go. Returns how many frames the message had, 0 when none was waiting.
size_t receiveFrames(void* socket, zmq_msg_t* kept, size_t capacity);
void closeFrames(zmq_msg_t* kept, size_t count);

}  // namespace rhyddal
