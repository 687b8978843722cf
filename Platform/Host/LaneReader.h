// The consumer's reading of one lane: everything in it was written by another process and is
// checked before it is used. Kept apart from the mailbox so the fuzz target can drive it over
// arbitrary bytes.
#pragma once

#include <cstdint>

#include "MailboxLayout.h"

namespace rhyddal {

class MessagePool;

enum class LaneRead {
  kMessage,   // *message is the next message, copied into a pool buffer the caller now owns
  kAgain,     // nothing delivered: a wrap marker was passed, or a record was dropped (with a line on
              // stderr); read again
  kEmpty,     // nothing published beyond what was consumed
  kNoBuffer,  // the pool has no buffer for the next record; it stays queued
};

struct LaneView {
  LaneControl* control;
  unsigned char* ring;  // laneBytes bytes
  uint32_t laneBytes;   // a power of two, at least kMinLaneBytes
  uint32_t nid;         // for messages on stderr
};

// The lines the sender published beyond head are in its processor's cache: asking for all of them
// (up to a few) as soon as the new tail is known overlaps their transfers instead of taking one
// miss after another as the records are read.
void prefetchPublished(const LaneView& lane, uint64_t tail);

// Reads the next record of a lane. *knownTail is the consumer's copy of the lane's tail: reloaded
// (acquire, pairing with the producer's release store of tail) only when head has caught up with
// it, so a busy lane costs the consumer no load of the producer's cache line per record. Never
// reads or writes outside lane.ring, whatever the lane's contents: a record that does not fit
// what was published, or indices that cannot be, make the consumer drop everything published
// in the lane so far, with one line on stderr. With a message, *origin (when not null) gets the
// record's origin.
LaneRead readLane(const LaneView& lane, uint64_t* knownTail, MessagePool& pool, void** message,
                  uint16_t* origin = nullptr);

}  // namespace rhyddal
