// An EU library whose entry point converts its node's history log to text in the node's own
// process, through the RAM file mount, as a developer does from a debugger or an EU command.
#include <cstdio>

#include "AaSysCom.h"
#include "HistoryLogDump.h"
#include "IAaSysDispatcher.h"

extern "C" void EuMain(Olm::IAaSysDispatcher*) {
  char history[64];
  std::snprintf(history, sizeof(history), "fusemnt/%x_HistoryLog.bin", AaSysComGetOwnNid());
  Olm::outputHistoryLog(history, "history.txt");
  std::printf("HistoryDumpTestEu dumped\n");
  std::fflush(stdout);
}
