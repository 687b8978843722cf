// The R&D master as an EU library: load it into the master node beside the broker server,
//
//   OLMLiteExe --nid 0x10F0 --masternid 0x10F0 --load-local libBrokerServer.so --load-local libRadMaster.so
//
// and start every node of the system with --masternid 0x10F0.
#include "AaConfigRadMsg.h"
#include "IAaSysDispatcher.h"
#include "LiveNodes.h"
#include "RadMaster.h"

extern "C" void EuMain(Olm::IAaSysDispatcher* dispatcher) {
  static RadMaster master;
  dispatcher->AaSysDispatcherCpidBind(master, AACONFIG_RAD_MASTER_CPID);
  master.start(liveNodes());
}
