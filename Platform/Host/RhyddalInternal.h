// What the host library offers its own tests beyond the C interface. Not exported from
// libRHYDDAL.so: tests link the static core (RhyddalHostCore), one copy per process.
#pragma once

#include "MessagePool.h"

namespace rhyddal {

// The buffer pool statistics of this process's event machine.
PoolStatistics processPoolStatistics();

}  // namespace rhyddal
