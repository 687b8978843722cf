// The system log collector as an EU library, for the controller node (olm-controller):
//
//   OLMLiteExe --nid 0x10F0 --masternid 0x10F0 --load-local libBrokerServer.so
//     --load-local libRadMaster.so --load-local libSysLogCollector.so
//
// OLM_SYSLOG_COLLECTOR_QUIET=1 keeps the lines off its standard output; followers still get them.
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "AaSysCom.h"
#include "IAaSysDispatcher.h"
#include "LiveNodes.h"
#include "Rhyddal.h"
#include "RhyddalHost.h"
#include "SysLogCollector.h"
#include "SysLogFollow.h"

// Present only in the host replacement of the platform library; on the board every group has a
// collector of its own.
extern "C" RHYDDAL_HOST_OPTIONAL int rhyddal_host_alias(uint32_t nid);

namespace {

// Straight to the platform, which says at once whether the follower took the message; the
// runtime's own send drops a refused message without telling.
int sendNow(void* msg) { return vakem_send(msg, AaSysComMsgGetReceiver(msg)); }

// One write per line, so that lines of the node's other libraries never cut into it.
void printLine(const std::string& line) {
  const std::string whole = line + "\n";
  if (write(STDOUT_FILENO, whole.data(), whole.size()) < 0) return;
}

bool quietWanted() {
  const char* quiet = std::getenv("OLM_SYSLOG_COLLECTOR_QUIET");
  return quiet != nullptr && quiet[0] != '\0' && std::strcmp(quiet, "0") != 0;
}

SysLogCollector::Hooks productionHooks() {
  SysLogCollector::Hooks hooks;
  hooks.liveNodes = readLiveNodes;
  if (rhyddal_host_alias != nullptr) hooks.takeAlias = [](uint16_t nid) { return rhyddal_host_alias(nid); };
  hooks.transmit = sendNow;
  hooks.print = printLine;
  hooks.quiet = quietWanted();
  return hooks;
}

}  // namespace

extern "C" void EuMain(Olm::IAaSysDispatcher* dispatcher) {
  static SysLogCollector collector(productionHooks());
  dispatcher->AaSysDispatcherCpidBind(collector, SYSLOG_COLLECTOR_CPID);
  collector.start();
}
