// The system log collector as an EU library, for the controller node (olm-controller):
//
//   OLMLiteExe --nid 0x10F0 --masternid 0x10F0 --load-local libBrokerServer.so
//     --load-local libRadMaster.so --load-local libSysLogCollector.so
//
// and for the agent of every other host (olm-controller --agent), a node whose master node id is
// not its own: there it passes the lines of its host's nodes on to the master's collector.
//
// OLM_SYSLOG_COLLECTOR_QUIET=1 keeps the lines off its standard output; followers still get them.
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "AaConfig.h"
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
extern "C" RHYDDAL_HOST_OPTIONAL int rhyddal_host_standing_alias(uint32_t digit);
extern "C" RHYDDAL_HOST_OPTIONAL int rhyddal_host_remote_nodes(struct rhyddal_host_remote_node* nodes,
                                                               uint32_t capacity);

namespace {

constexpr char kMasterNidTag[] = "olm.service.aasyscom.masternid";
// More than a system of this runtime's groups runs; beyond it, nodes are not reported.
constexpr size_t kMaxRemoteNodes = 4096;

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

// The node start-up names as master (--masternid); 0 when there is none.
uint16_t masterNid() {
  uint16_t master = 0;
  if (AaConfigTagIsSet(kMasterNidTag) == 0 || AaConfigTagGetU16(kMasterNidTag, &master) != EAaConfigRet_Ok) return 0;
  return master;
}

bool readRemoteNodes(std::vector<uint16_t>& nodes) {
  if (rhyddal_host_remote_nodes == nullptr) return false;
  std::vector<rhyddal_host_remote_node> remote(kMaxRemoteNodes);
  const int count = rhyddal_host_remote_nodes(remote.data(), static_cast<uint32_t>(remote.size()));
  if (count < 0) return false;
  for (int i = 0; i < count && static_cast<size_t>(i) < remote.size(); ++i) nodes.push_back(remote[i].nid);
  return true;
}

SysLogCollector::Hooks productionHooks() {
  SysLogCollector::Hooks hooks;
  hooks.liveNodes = readLiveNodes;
  if (rhyddal_host_alias != nullptr) hooks.takeAlias = [](uint16_t nid) { return rhyddal_host_alias(nid); };
  if (rhyddal_host_standing_alias != nullptr) {
    hooks.takeStandingAlias = [](uint16_t digit) { return rhyddal_host_standing_alias(digit); };
  }
  hooks.transmit = sendNow;
  hooks.print = printLine;
  hooks.quiet = quietWanted();
  const uint16_t master = masterNid();
  if (master != 0 && master != AaSysComGetOwnNid()) {
    hooks.relayTo = master;
    hooks.quiet = true;  // the controller prints them
  } else {
    hooks.remoteNodes = readRemoteNodes;
  }
  return hooks;
}

}  // namespace

extern "C" void EuMain(Olm::IAaSysDispatcher* dispatcher) {
  static SysLogCollector collector(productionHooks());
  dispatcher->AaSysDispatcherCpidBind(collector, SYSLOG_COLLECTOR_CPID);
  collector.start();
}
