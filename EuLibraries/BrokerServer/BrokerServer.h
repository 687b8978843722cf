// The broker server of the system zone: the EU at CPID 0x0602 of the master node. It keeps the
// system-zone publications and subscriptions of every node, in the same storage the proxies keep
// their node's in, and drives the proxies with forward, send and delete commands so that a
// publication on one node reaches its subscribers on every node. README.md beside this file gives
// the rules.
//
// Runs on the Dispatcher's thread of the master node, like every EU; no locks.
#pragma once

#include <cstdint>
#include <vector>

#include "AaSysMb.h"
#include "AaSysMbLocalStorage.h"
#include "IAaSysDispatcherSicHandler.h"

class BrokerServer final : public Olm::IAaSysDispatcherSicHandler {
 public:
  BrokerServer();
  ~BrokerServer() override;
  BrokerServer(const BrokerServer&) = delete;
  BrokerServer& operator=(const BrokerServer&) = delete;

  // Counts this node as known and asks the proxy of every other node in liveNodes to announce
  // itself again (SYSMB_RESET_REQ_MSG): a server that starts after the nodes learns of them so.
  // Their announcements forget nothing until a timer of the server's says the answers are due.
  void start(const std::vector<uint16_t>& liveNodes);

  int PrioritizeMessage(void*& msg) override;
  // Handles one message of any content and destroys it, leaving the reference cleared.
  void ProcessMessage(void*& msg) override;

  // What the server keeps, for the tests.
  const TAaSysMbList* publications() const { return m_publications; }
  const TAaSysMbList* subscriptions() const { return m_subscriptions; }
  // Nodes whose proxy has announced itself (SYSMB_RESET_IND_MSG) since the server started.
  bool knows(uint16_t nid) const;

 private:
  void handle(void* msg);
  void handlePublish(const void* msg, const SAaSysMbCmdHeader& header);
  void handleSubscribe(const SAaSysMbCmdHeader& header);
  void handleUnsubscribe(const void* msg, const SAaSysMbCmdHeader& header);
  void handleUnpublish(const SAaSysMbCmdHeader& header);
  void handleFlush(const void* msg, const SAaSysMbCmdHeader& header);
  void handleProxyDelete(const SAaSysMbCmdHeader& header);
  void handleResetIndication(const SAaSysMbCmdHeader& header);

  // Removes the stored publications that a publication of header's mode replaces; those held by
  // another node than the publisher's are deleted there too.
  void removeReplaced(const SAaSysMbCmdHeader& header);
  bool storedWithOtherModeThanPerPublisher(uint32_t msgId) const;
  // The nodes with subscribers of msgId, each once, in booking order, and their subscriber count.
  std::vector<uint16_t> subscriberNodes(uint32_t msgId, uint32_t& subscribers) const;
  std::vector<uint16_t> holderNodes(uint32_t msgId) const;
  bool isSubscribed(uint32_t subscriber, uint32_t msgId) const;
  void removeOneShotSubscriptions(uint32_t msgId);
  void removeOneShotPublications(uint32_t msgId);
  void forgetNode(uint16_t nid);

  TAaSysMbList* m_publications;
  TAaSysMbList* m_subscriptions;
  std::vector<bool> m_knownNodes;
  std::vector<bool> m_asked;  // asked at start, answers not yet due
};
