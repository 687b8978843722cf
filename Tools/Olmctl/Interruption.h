// Ctrl-C (SIGINT) and SIGTERM. The commands that run until interrupted (ping, top) end their
// waits and finish what they print; every other command ends at once by the signal, as any program
// does.
//
// A signal cannot end the platform library's wait for messages, which sleeps until its deadline
// through interruptions, so a thread of the tool waits for the signals (blocked in every thread)
// and wakes that wait with a message to the tool's own node.
#pragma once

#include <cstdint>

#include "WireClient.h"

namespace Olmctl {

// Blocks SIGINT and SIGTERM in the calling thread, and so in every thread started after it, and
// starts the thread that waits for them. Call first thing in main, before the platform library starts
// threads of its own.
void takeInterruptions();

// While one exists, an interruption sets interrupted() and sends the client's node at address the
// message isWakeUp recognises, instead of ending the tool.
class InterruptionScope {
 public:
  InterruptionScope(WireClient& client, uint32_t address);
  ~InterruptionScope();
  InterruptionScope(const InterruptionScope&) = delete;
  InterruptionScope& operator=(const InterruptionScope&) = delete;
};

bool interrupted();
bool isWakeUp(const WireClient::Message& message, uint32_t address);

}  // namespace Olmctl
