// The broker's proxy on a node: the EU at CPID 0x0603 that keeps the node's publications and
// subscriptions (AaSysMbLocalStorage.h), serves the node's subscribers, and exchanges forward, send
// and delete commands with the broker server for the system zone.
#pragma once

#include <cstdint>

#include "AaSysMbLocalStorage.h"
#include "IAaSysDispatcherSicHandler.h"

// The broker's state block, from AaSysMbInit to AaSysMbExit.
struct SAaSysMbState {
  TAaSysMbList* publications;
  TAaSysMbList* subscriptions;
  uint16_t ownNid;
  bool running;
};

// Every message gets priority 3 (LOW); ProcessMessage handles one command and destroys it,
// leaving the reference cleared.
class AaSysMbLocalEu final : public Olm::IAaSysDispatcherSicHandler {
 public:
  int PrioritizeMessage(void*& msg) override;
  void ProcessMessage(void*& msg) override;
};

// The node's proxy, and its state (null while the broker is stopped).
AaSysMbLocalEu& AaSysMbLocalProxy();
SAaSysMbState* AaSysMbLocalState();

// The command handlers that cross nodes. fromOldImplementation: the command is an older sender's
// (MsgFromOldImplementation), so its content APF is the message's.
void AaSysMbLocalHandleFwdCmdMsg(const void* msg, bool fromOldImplementation);
void AaSysMbLocalHandleSndCmdMsg(const void* msg);
