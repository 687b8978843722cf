// The R&D master: the EU at CPID 0x0606 of the master node. The slave of every node registers its
// R&D domains here synchronously; the master keeps every node's parameters, answers clients that
// read them and writes them on any node through that node's slave. README.md beside this file
// gives the rules and the client interface.
//
// Runs on the Dispatcher's thread of the master node, like every EU; no locks.
#pragma once

#include <cstdint>
#include <vector>

#include "IAaSysDispatcherSicHandler.h"
#include "RadStore.h"

class RadMaster final : public Olm::IAaSysDispatcherSicHandler {
 public:
  // The domains a slave can have: every node runs its slave with this domain count.
  static constexpr uint16_t kSlaveDomainCount = 103;
  // Message to itself that starts the master from the Dispatcher's loop (see start).
  static constexpr uint16_t kStartMsgId = 0x0607;

  // Binds nothing: the caller binds the master to AACONFIG_RAD_MASTER_CPID first. Queues a start
  // message to the master, so that the announcement goes out from the loop, once every EU library
  // of the node (the broker server among them) is bound. On that message the master publishes
  // AACONFIG_RAD_MASTER_IND_MSG and asks the slave of every node in liveNodes but its own for the
  // defaults and values of each of its domains: a master started after the nodes learns their
  // domains so.
  void start(const std::vector<uint16_t>& liveNodes);

  int PrioritizeMessage(void*& msg) override;
  // Handles one message of any content and destroys it, leaving the reference cleared.
  void ProcessMessage(void*& msg) override;

  const RadStore& store() const { return m_store; }

 private:
  void handle(const void* msg);
  void announce();
  void askNodes();
  void handleRegisterReq(const void* msg);
  void handleUnregisterReq(const void* msg);
  void handleSyncNode(const void* msg);
  void handleSlaveParams(const void* msg, bool defaults);
  void handleSlaveSetResp(const void* msg);
  void handleClientGet(const void* msg, bool defaults);
  void handleClientSet(const void* msg);

  RadStore m_store;
  std::vector<uint16_t> m_nodesToAsk;
};
