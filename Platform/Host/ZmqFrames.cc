#include "ZmqFrames.h"

namespace rhyddal {

bool sendFrames(void* socket, const Frame* frames, size_t count, int flags) {
  for (size_t i = 0; i < count; ++i) {
    const int more = i + 1 < count ? ZMQ_SNDMORE : 0;
    if (zmq_send(socket, frames[i].data, frames[i].size, flags | more) < 0) return false;
  }
  return true;
}

size_t receiveFrames(void* socket, zmq_msg_t* kept, size_t capacity) {
  size_t count = 0;
  for (bool more = true; more; ++count) {
    zmq_msg_t surplus;
    zmq_msg_t& frame = count < capacity ? kept[count] : surplus;
    zmq_msg_init(&frame);
    if (zmq_msg_recv(&frame, socket, count == 0 ? ZMQ_DONTWAIT : 0) < 0) {
      zmq_msg_close(&frame);
      break;
    }
    more = zmq_msg_more(&frame) != 0;
    if (&frame == &surplus) zmq_msg_close(&surplus);
  }
  return count;
}

void closeFrames(zmq_msg_t* kept, size_t count) {
  for (size_t i = 0; i < count; ++i) zmq_msg_close(&kept[i]);
}

}  // namespace rhyddal
