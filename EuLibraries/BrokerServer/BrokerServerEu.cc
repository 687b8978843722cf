// The broker server as an EU library: load it into the master node,
//
//   OLMLiteExe --nid 0x10F0 --masternid 0x10F0 --load-local libBrokerServer.so
//
// and start every node of the system with --masternid 0x10F0.
#include <cstdio>

#include "AaSysCom.h"
#include "AaSysLog.h"
#include "BrokerServer.h"
#include "IAaSysDispatcher.h"
#include "LiveNodes.h"

extern "C" void EuMain(Olm::IAaSysDispatcher* dispatcher) {
  static BrokerServer server;
  dispatcher->AaSysDispatcherCpidBind(server, AASYSMB_SERVER_CPID);
  // Proxies announce themselves once, at their start; those that started before the server are
  // asked again.
  server.start(liveNodes());
}
