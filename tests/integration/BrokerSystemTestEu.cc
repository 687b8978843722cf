// An EU library for the system-zone tests: what a node does is given as actions, run in order at
// start from OLM_BROKER_ACTIONS and later from action messages other nodes send to CPID 0x0710:
//   sub<mode>           subscriber 0x0702 subscribes to 0x3A01 in the system zone
//   pub<mode>=<value>   publisher 0x0704 publishes value as 0x3A01 in the system zone
//   tell<nid>:<action>  sends the action to the node nid (hexadecimal), which runs it
// The subscriber prints what it receives ("subscriber 0x<address> got <value> from 0x<sender>"),
// the node each action it ran ("did <action>").
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include <unistd.h>

#include "AaSysCom.h"
#include "AaSysMb.h"
#include "IAaSysDispatcher.h"

namespace {

constexpr TAaSysComCpid kSubscriberCpid = 0x0702;
constexpr TAaSysComCpid kPublisherCpid = 0x0704;
constexpr TAaSysComCpid kActionCpid = 0x0710;
constexpr TAaSysComMsgId kNewsId = 0x3A01;
constexpr TAaSysComMsgId kActionMsgId = 0x3A10;

TAaSysComSicad onThisNode(TAaSysComCpid cpid) { return AaSysComSicadGet(cpid, AASYSCOM_NID_THIS_NODE); }

// One write per line: a stdio buffer could be copied into a process the node forks meanwhile.
void printLine(const std::string& line) {
  const std::string text = line + "\n";
  if (write(STDOUT_FILENO, text.data(), text.size()) < 0) return;
}

void publish(uint32_t mode, uint32_t value) {
  void* payload = AaSysMbPrepare(sizeof(value), kNewsId, onThisNode(kPublisherCpid), mode, EAaSysMbZone_System);
  if (payload == nullptr) return;
  std::memcpy(payload, &value, sizeof(value));
  AaSysMbPublish(&payload);
}

void tell(TAaSysComNid nid, const std::string& action) {
  void* msg = AaSysComMsgCreate(kActionMsgId, static_cast<TAaSysComMsgSize>(action.size()), AaSysComSicadGet(kActionCpid, nid));
  if (msg == nullptr) return;
  std::memcpy(AaSysComMsgGetPayload(msg), action.data(), action.size());
  AaSysComMsgSendS(&msg, AaSysComSicadGet(kActionCpid, AaSysComGetOwnNid()));
}

void run(const std::string& action) {
  if (action.rfind("sub", 0) == 0) {
    AaSysMbSubscribe(kNewsId, onThisNode(kSubscriberCpid), std::strtoul(action.c_str() + 3, nullptr, 10),
                     EAaSysMbZone_System);
  } else if (action.rfind("pub", 0) == 0 && action.find('=') != std::string::npos) {
    publish(std::strtoul(action.c_str() + 3, nullptr, 10),
            std::strtoul(action.c_str() + action.find('=') + 1, nullptr, 10));
  } else if (action.rfind("tell", 0) == 0 && action.find(':') != std::string::npos) {
    tell(static_cast<TAaSysComNid>(std::strtoul(action.c_str() + 4, nullptr, 16)), action.substr(action.find(':') + 1));
  } else {
    printLine("unknown action " + action);
    return;
  }
  printLine("did " + action);
}

class Subscriber : public Olm::IAaSysDispatcherSicHandler {
 public:
  int PrioritizeMessage(void*&) override { return 3; }
  void ProcessMessage(void*& msg) override {
    uint32_t value = 0;
    if (AaSysComMsgGetId(msg) != kNewsId || AaSysComMsgGetPayloadSize(msg) != sizeof(value)) return;
    std::memcpy(&value, AaSysComMsgGetPayload(msg), sizeof(value));
    char line[80];
    std::snprintf(line, sizeof(line), "subscriber 0x%08x got %u from 0x%08x", AaSysComMsgGetReceiver(msg), value,
                  AaSysComMsgGetSender(msg));
    printLine(line);
  }
};

class ActionTaker : public Olm::IAaSysDispatcherSicHandler {
 public:
  int PrioritizeMessage(void*&) override { return 3; }
  void ProcessMessage(void*& msg) override {
    if (AaSysComMsgGetId(msg) != kActionMsgId) return;
    run(std::string(static_cast<const char*>(AaSysComMsgGetPayload(msg)), AaSysComMsgGetPayloadSize(msg)));
  }
};

}  // namespace

extern "C" void EuMain(Olm::IAaSysDispatcher* dispatcher) {
  static Subscriber subscriber;
  static ActionTaker actionTaker;
  dispatcher->AaSysDispatcherCpidBind(subscriber, kSubscriberCpid);
  dispatcher->AaSysDispatcherCpidBind(actionTaker, kActionCpid);
  const char* actions = std::getenv("OLM_BROKER_ACTIONS");
  std::string list = actions != nullptr ? actions : "";
  for (size_t start = 0; start < list.size();) {
    const size_t end = std::min(list.find(' ', start), list.size());
    if (end > start) run(list.substr(start, end - start));
    start = end + 1;
  }
}
