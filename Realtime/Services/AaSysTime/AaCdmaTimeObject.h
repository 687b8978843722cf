// The BTS time synchronisation object as the CDMA time service keeps it: mapped on first use and
// for the life of the process; a failed mapping is tried again on the next call.
#pragma once

#include "RhyddalBtsTimeSync.h"

namespace Olm {

// The mapped object, or null when it cannot be mapped now.
const SRhyddalBtsTimeSync* cdmaTimeObject();

// For tests: unmaps the object, so that the next call maps it afresh.
void forgetCdmaTimeObject();

}  // namespace Olm
