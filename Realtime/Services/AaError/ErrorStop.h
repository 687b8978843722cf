// What the stop signals (SIGINT, SIGTERM) do before the process exits with status 0.
#pragma once

namespace Olm {

using StopAction = void (*)();

// Replaces the stop action (AaFileFUSE_Lite_terminate) and returns the previous one. For tests
// that stand in for the RAM file system's stop.
StopAction setStopAction(StopAction action);

}  // namespace Olm
