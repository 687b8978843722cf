// The BTS time synchronisation object on a host (RhyddalBtsTimeSync.h): the board's platform
// provides it, so here the library creates it when a node attaches, and rhyddal-cdma-sync sets its
// words. One object per host (per namespace), read by every node: a setting applies to all of them.
#pragma once

#include <cstdint>
#include <cstdio>

#include "RhyddalBtsTimeSync.h"

namespace rhyddal {

// Creates the object with the defaults (sync mode RHYDDAL_CDMA_SYNC_MODE_SYNCHRONOUS, offset 0)
// unless it exists. It appears complete or not at all: it is prepared under a temporary name and
// linked into place, so a node never maps it short or reads its words before they are set.
// Outside a namespace it is shared by all users of the host under the fixed name, so it gets mode
// 0666. Returns 0 (also when it existed), or a negated errno (the namespace is unusable: -EINVAL).
int ensureBtsTimeSyncObject();

// The object mapped read-write, created first when missing; null when that fails (a line on
// stderr says why). The caller unmaps it (sizeof(SRhyddalBtsTimeSync) bytes).
SRhyddalBtsTimeSync* mapBtsTimeSyncObject();

// rhyddal-cdma-sync: "[--mode synchronous|asynchronous|<n>] [--offset <n>]". Writes what is
// given, then prints the object's words to out; errors go to err. Returns the exit status: 0, 1
// when the object cannot be mapped, 2 for a usage error (nothing written).
int cdmaSyncTool(int argc, char** argv, std::FILE* out, std::FILE* err);

}  // namespace rhyddal
