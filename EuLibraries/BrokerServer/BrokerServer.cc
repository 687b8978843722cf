#include "BrokerServer.h"

#include <unistd.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "AaCpuBit.h"
#include "AaError.h"
#include "AaSysCom.h"
#include "AaSysLog.h"
#include "AaSysMbBackwardCompatibility.h"
#include "AaSysMbCommand.h"
#include "AaSysTime.h"

namespace {

constexpr const char kSourceName[] = "EuLibraries/BrokerServer/BrokerServer";
constexpr int kServerPriority = 3;
constexpr size_t kNodeIds = 0x10000;
constexpr uint32_t kHostApf = 1;
constexpr uint32_t kTwoByteAlignedApf = 1;  // APFs above this are 2-byte aligned content
constexpr uint32_t kApfMask = 0xFFu << AASYSMB_APF_SHIFT;
constexpr size_t kLineBytes = 160;
// The server's own timer message: the nodes asked at start have had time to answer.
constexpr uint32_t kAnswersDueMsgId = 0x0BFF;
// Far longer than a live node takes to answer (one loop iteration), far shorter than a restart.
constexpr uint32_t kAnswersDueUs = 1000000;

// Addresses a command can name: a real node, never an alias or a broadcast.
bool isRoutable(uint32_t address) {
  const TAaSysComNid nid = AaSysComSicadGetNid(address);
  return address != 0 && nid != 0 && nid != AASYSCOM_NID_THIS_NODE && nid != AASYSCOM_NID_MASTER_NODE &&
         nid != 0xFFFE && nid != 0xFFFF;
}

uint16_t nodeOf(uint32_t address) { return AaSysComSicadGetNid(address); }

TAaSysComSicad ownAddress() { return AaSysComSicadGet(AASYSMB_SERVER_CPID, AaSysComGetOwnNid()); }
TAaSysComSicad proxyOf(uint16_t nid) { return AaSysComSicadGet(AASYSMB_PROXY_CPID, nid); }

// One line on the node's standard output, in one write (a buffered line could be duplicated into
// a process the node forks).
void vreport(const char* format, va_list args) {
  char line[kLineBytes] = "broker server: ";
  const size_t prefix = std::strlen(line);
  const int length = std::vsnprintf(line + prefix, sizeof(line) - prefix - 1, format, args);
  if (length < 0) return;
  size_t used = std::min(prefix + static_cast<size_t>(length), sizeof(line) - 2);
  line[used++] = '\n';
  if (write(STDOUT_FILENO, line, used) < 0) return;
}

void report(const char* format, ...) __attribute__((format(printf, 1, 2)));
void report(const char* format, ...) {
  va_list args;
  va_start(args, format);
  vreport(format, args);
  va_end(args);
}

// The commands the server handles, one line each, only when OLM_BROKER_SERVER_VERBOSE is 1: a
// write per publication would slow the system's traffic down.
bool verbose() {
  static const bool on = [] {
    const char* value = std::getenv("OLM_BROKER_SERVER_VERBOSE");
    return value != nullptr && std::strcmp(value, "1") == 0;
  }();
  return on;
}

void traceCommand(const char* format, ...) __attribute__((format(printf, 1, 2)));
void traceCommand(const char* format, ...) {
  if (!verbose()) return;
  va_list args;
  va_start(args, format);
  vreport(format, args);
  va_end(args);
}

void fail(const char* format, uint32_t value) {
  AaSysLogPrintE(EAaSysLogSeverityLevel_Error, AASYSMB_FEATURE_ID, format, value);
}

// A command of the server to a proxy: header, then size payload bytes and the 4 spare ones for a
// forward command.
void sendToProxy(uint32_t msgId, uint16_t nid, const SAaSysMbCmdHeader& header, const uint8_t* payload = nullptr) {
  const uint32_t payloadSize = msgId == AASYSMB_FWD_CMD_MSG ? header.size + AASYSMB_PUBL_CMD_OVERHEAD
                                                            : AASYSMB_CMD_HEADER_SIZE;
  void* msg = AaSysComMsgCreate(msgId, payloadSize, proxyOf(nid));
  if (msg == nullptr) {
    fail("BrokerServer: Command 0x%x could not be created.", msgId);
    return;
  }
  auto* out = static_cast<uint8_t*>(AaSysComMsgGetPayload(msg));
  std::memset(out, 0, payloadSize);
  SAaSysMbCmdHeader command = header;
  command.marker = AASYSMB_MARKER_SERVER;
  std::memcpy(out, &command, sizeof(command));
  if (payload != nullptr && header.size != 0) std::memcpy(out + AASYSMB_CMD_HEADER_SIZE, payload, header.size);
  AaSysComMsgSendS(&msg, ownAddress());
}

SAaSysMbCmdHeader commandFor(uint32_t mode, uint32_t zone, uint32_t address, uint32_t msgId) {
  SAaSysMbCmdHeader header = {};
  header.mode = mode;
  header.zone = zone;
  header.address = address;
  header.msgId = static_cast<uint16_t>(msgId);
  return header;
}

void sendDelete(uint32_t publisher, uint32_t msgId) {
  sendToProxy(AASYSMB_DEL_CMD_MSG, nodeOf(publisher), commandFor(0, EAaSysMbZone_System, publisher, msgId));
}

void sendSend(uint16_t nid, uint32_t mode, const SAaSysMbCmdHeader& subscription) {
  sendToProxy(AASYSMB_SND_CMD_MSG, nid, commandFor(mode, subscription.zone, subscription.address, subscription.msgId));
}

// The forwarded publication keeps its content's APF and drops the flags the proxy sets on receipt.
void sendForward(uint16_t nid, const SAaSysMbCmdHeader& header, const uint8_t* payload) {
  SAaSysMbCmdHeader forward = header;
  forward.apfWord &= kApfMask;
  sendToProxy(AASYSMB_FWD_CMD_MSG, nid, forward, payload);
}

// Brings a command of the other byte order into this node's, as the proxies do: the header, and
// the payload of a publication when its content is of 4-byte words. A command whose size field
// disagrees with its length is an older peer's and is taken as it stands.
void toHostOrder(void* msg) {
  if (MsgFromOldImplementation(msg) != 0) return;
  SAaSysMbCmdHeader* header = commandHeaderOf(msg);
  if (header == nullptr) return;
  const uint32_t apf = AaSysComMsgGetApf(msg);
  if (AaSysComIsHostAndMsgEndianSame(msg) == 0) {
    swapCommandHeader(*header);
    if (apf > kTwoByteAlignedApf) return;
    if (carriesPublication(AaSysComMsgGetId(msg))) {
      AaCpuBitSwapMultiByteOrder32(reinterpret_cast<uint8_t*>(header) + AASYSMB_CMD_HEADER_SIZE, header->size / 4);
    }
  } else if (apf > kTwoByteAlignedApf) {
    return;
  }
  header->apfWord = (header->apfWord & ~kApfMask) | kHostApf << AASYSMB_APF_SHIFT;
}

template <typename Action>
void forEachStored(TAaSysMbList* list, uint32_t msgId, Action action) {
  TAaSysMbList* element = AaSysMbLocalPublicationFindNext(list, msgId);
  while (element != nullptr) {
    TAaSysMbList* next = AaSysMbLocalPublicationFindNext(element, msgId);
    action(element, *publicationOf(element));
    element = next;
  }
}

void addOnce(std::vector<uint16_t>& nodes, uint16_t nid) {
  if (std::find(nodes.begin(), nodes.end(), nid) == nodes.end()) nodes.push_back(nid);
}

}  // namespace

BrokerServer::BrokerServer()
    : m_publications(AaSysMbLocalListCreate()),
      m_subscriptions(AaSysMbLocalListCreate()),
      m_knownNodes(kNodeIds),
      m_asked(kNodeIds) {}

BrokerServer::~BrokerServer() {
  AaSysMbLocalListFree(m_publications);
  AaSysMbLocalListFree(m_subscriptions);
}

void BrokerServer::start(const std::vector<uint16_t>& liveNodes) {
  // The proxy of this node started with it, and its announcement, sent before the server was
  // bound, found nobody.
  const TAaSysComNid ownNid = AaSysComGetOwnNid();
  m_knownNodes[ownNid] = true;
  report("serving the system zone on node 0x%04x", ownNid);
  bool asked = false;
  for (const uint16_t nid : liveNodes) {
    if (nid == ownNid || !isRoutable(proxyOf(nid))) continue;
    m_asked[nid] = true;
    asked = true;
    sendToProxy(SYSMB_RESET_REQ_MSG, nid, commandFor(0, 0, proxyOf(nid), 0));
  }
  if (!asked) return;
  void* due = AaSysComMsgCreate(kAnswersDueMsgId, 0, ownAddress());
  if (due == nullptr) return;
  AaSysComMsgSetSender(due, ownAddress());
  TAaSysTimerId timer = 0;
  AaSysTimermCreate(&timer, kAnswersDueUs, 0, due);
}

bool BrokerServer::knows(uint16_t nid) const { return m_knownNodes[nid]; }

int BrokerServer::PrioritizeMessage(void*&) { return kServerPriority; }

void BrokerServer::ProcessMessage(void*& msg) {
  if (msg == nullptr) return;
  if (AaSysComMsgGetId(msg) == kAnswersDueMsgId && AaSysComMsgGetSender(msg) == ownAddress()) {
    std::fill(m_asked.begin(), m_asked.end(), false);
  } else {
    handle(msg);
  }
  AaSysComMsgDestroy(&msg);
}

void BrokerServer::handle(void* msg) {
  BackwardCompatibilityCheck(msg);
  toHostOrder(msg);
  const uint32_t msgId = AaSysComMsgGetId(msg);
  const SAaSysMbCmdHeader* command = commandHeaderOf(msg);
  if (command == nullptr) {
    fail("BrokerServer: Command 0x%x without header, discarding.", msgId);
    return;
  }
  const SAaSysMbCmdHeader header = *command;
  if (!isRoutable(header.address)) {
    fail("BrokerServer: Command with invalid address 0x%x, discarding.", header.address);
    return;
  }
  const bool systemZone = header.zone == EAaSysMbZone_System ||
                          (msgId == AASYSMB_FLUSH_CMD_MSG && header.zone == EAaSysMbZone_All);
  const bool zoneFree = msgId == SYSMB_RESET_IND_MSG || msgId == AASYSMB_DEL_CMD_MSG;
  if (!systemZone && !zoneFree) {
    fail("BrokerServer: Command on zone 0x%x, which is not the system zone, discarding.", header.zone);
    return;
  }
  switch (msgId) {
    case AASYSMB_PUBL_CMD_MSG: handlePublish(msg, header); break;
    case AASYSMB_SUBS_CMD_MSG: handleSubscribe(header); break;
    case AASYSMB_UNSUBS_CMD_MSG: handleUnsubscribe(msg, header); break;
    case AASYSMB_UNPUBL_CMD_MSG: handleUnpublish(header); break;
    case AASYSMB_FLUSH_CMD_MSG: handleFlush(msg, header); break;
    case AASYSMB_DEL_CMD_MSG: handleProxyDelete(header); break;
    case SYSMB_RESET_IND_MSG: handleResetIndication(header); break;
    default:
      AaSysLogPrintE(EAaSysLogSeverityLevel_Warning, AASYSMB_FEATURE_ID,
                     "BrokerServer: Received unknown message with id 0x%x. Discarding.", msgId);
      break;
  }
}

// ---- Publications --------------------------------------------------------------------------------

void BrokerServer::handlePublish(const void* msg, const SAaSysMbCmdHeader& header) {
  if (uint32_t{header.size} + AASYSMB_CMD_HEADER_SIZE > AaSysComMsgGetPayloadSize(msg)) {
    fail("BrokerServer: Publication size 0x%x exceeds the message, discarding.", header.size);
    return;
  }
  if (header.mode > EAaSysMbPublMode_OneShot) {
    fail("BrokerServer: Unknown publication mode 0x%x, discarding.", header.mode);
    return;
  }
  if (header.mode == EAaSysMbPublMode_PerPublisher && storedWithOtherModeThanPerPublisher(header.msgId)) {
    static constexpr char kText[] = "Invalid publication detected by AaSysMb.";
    AaErrorExceptionRaise(EAaErrorFatality_NonFatal, AASYSMB_ERROR_INVALID_PUBL, nullptr, 0, kText, kSourceName,
                          __LINE__);
    return;
  }
  removeReplaced(header);
  uint32_t served = 0;
  std::vector<uint16_t> targets = subscriberNodes(header.msgId, served);
  const uint16_t publisherNode = nodeOf(header.address);
  const bool publisherNodeServes = std::find(targets.begin(), targets.end(), publisherNode) != targets.end();
  // The publisher's proxy keeps what is stored, so it gets every publication that may be stored.
  if (header.mode != EAaSysMbPublMode_NotStored) addOnce(targets, publisherNode);
  const auto* payload = static_cast<const uint8_t*>(AaSysComMsgGetPayload(msg)) + AASYSMB_CMD_HEADER_SIZE;
  for (const uint16_t nid : targets) sendForward(nid, header, payload);
  traceCommand("publication 0x%04x of 0x%08x (mode %u) forwarded to %zu node(s) for %u subscriber(s)", header.msgId,
        header.address, header.mode, targets.size(), served);
  removeOneShotSubscriptions(header.msgId);
  if (header.mode == EAaSysMbPublMode_OneShot && served != 0) {
    // Served elsewhere: the publisher's proxy, which saw no subscriber of its own, stored it.
    if (!publisherNodeServes) sendDelete(header.address, header.msgId);
    return;
  }
  if (header.mode != EAaSysMbPublMode_NotStored) {
    AaSysMbLocalPublicationAdd(m_publications, nullptr, header.msgId, header.address, 0, header.zone, header.mode,
                               header.apfWord & kApfMask);
  }
}

bool BrokerServer::storedWithOtherModeThanPerPublisher(uint32_t msgId) const {
  for (TAaSysMbList* e = AaSysMbLocalPublicationFindNext(m_publications, msgId); e != nullptr;
       e = AaSysMbLocalPublicationFindNext(e, msgId)) {
    if (publicationOf(e)->mode != EAaSysMbPublMode_PerPublisher) return true;
  }
  return false;
}

void BrokerServer::removeReplaced(const SAaSysMbCmdHeader& header) {
  if (header.mode == EAaSysMbPublMode_NotStored) return;
  forEachStored(m_publications, header.msgId, [&](TAaSysMbList* element, const SAaSysMbLocalPublication& stored) {
    if (header.mode == EAaSysMbPublMode_PerPublisher && stored.publisher != header.address) return;
    // The publisher's own proxy replaces its stored ones when the forward command arrives.
    if (nodeOf(stored.publisher) != nodeOf(header.address)) sendDelete(stored.publisher, stored.msgId);
    AaSysMbLocalPublicationRemoveElement(element);
  });
}

void BrokerServer::handleUnpublish(const SAaSysMbCmdHeader& header) {
  AaSysMbLocalPublicationDelete(m_publications, header.address, header.msgId);
  sendDelete(header.address, header.msgId);
}

void BrokerServer::removeOneShotPublications(uint32_t msgId) {
  forEachStored(m_publications, msgId, [](TAaSysMbList* element, const SAaSysMbLocalPublication& stored) {
    if (stored.mode == EAaSysMbPublMode_OneShot) AaSysMbLocalPublicationRemoveElement(element);
  });
}

std::vector<uint16_t> BrokerServer::holderNodes(uint32_t msgId) const {
  std::vector<uint16_t> nodes;
  for (TAaSysMbList* e = AaSysMbLocalPublicationFindNext(m_publications, msgId); e != nullptr;
       e = AaSysMbLocalPublicationFindNext(e, msgId)) {
    addOnce(nodes, nodeOf(publicationOf(e)->publisher));
  }
  return nodes;
}

// ---- Subscriptions -------------------------------------------------------------------------------

void BrokerServer::handleSubscribe(const SAaSysMbCmdHeader& header) {
  if (header.mode > EAaSysMbSubsMode_OneShot) {
    fail("BrokerServer: Unknown subscription mode 0x%x, discarding.", header.mode);
    return;
  }
  if (isSubscribed(header.address, header.msgId)) {
    AaSysLogPrintE(EAaSysLogSeverityLevel_Info, AASYSMB_FEATURE_ID,
                   "LocalSubscriptionBook(): Subscriber 0x%x already subscribed message 0x%x, ignoring subscription.",
                   header.address, header.msgId);
    return;
  }
  const std::vector<uint16_t> holders = holderNodes(header.msgId);
  // A one-shot subscription that stored publications serve at once keeps nothing, as mode 2.
  const uint32_t mode = header.mode == EAaSysMbSubsMode_OneShot && !holders.empty() ? uint32_t{EAaSysMbSubsMode_StoredOnly}
                                                                                    : header.mode;
  const uint16_t subscriberNode = nodeOf(header.address);
  sendSend(subscriberNode, mode, header);
  if (mode != EAaSysMbSubsMode_KeepOnly) {
    for (const uint16_t holder : holders) {
      if (holder != subscriberNode) sendSend(holder, AASYSMB_MODE_DIRECT_DELIVERY, header);
    }
    removeOneShotPublications(header.msgId);
  }
  traceCommand("0x%08x subscribed 0x%04x (mode %u), stored ones on %zu node(s)", header.address, header.msgId, header.mode,
         mode == EAaSysMbSubsMode_KeepOnly ? size_t{0} : holders.size());
  if (mode != EAaSysMbSubsMode_StoredOnly) {
    AaSysMbLocalSubscriptionBook(m_subscriptions, header.address, header.msgId, header.mode, header.zone);
  }
}

void BrokerServer::handleUnsubscribe(const void* msg, const SAaSysMbCmdHeader& header) {
  AaSysMbLocalSubscriptionDelete(m_subscriptions, header.address, header.msgId);
  sendToProxy(AaSysComMsgGetId(msg), nodeOf(header.address), header);
}

bool BrokerServer::isSubscribed(uint32_t subscriber, uint32_t msgId) const {
  for (TAaSysMbList* e = AaSysMbLocalSubscriptionFindNext(m_subscriptions, msgId); e != nullptr;
       e = AaSysMbLocalSubscriptionFindNext(e, msgId)) {
    if (subscriptionOf(e)->subscriber == subscriber) return true;
  }
  return false;
}

std::vector<uint16_t> BrokerServer::subscriberNodes(uint32_t msgId, uint32_t& subscribers) const {
  std::vector<uint16_t> nodes;
  subscribers = 0;
  for (TAaSysMbList* e = AaSysMbLocalSubscriptionFindNext(m_subscriptions, msgId); e != nullptr;
       e = AaSysMbLocalSubscriptionFindNext(e, msgId)) {
    ++subscribers;
    addOnce(nodes, nodeOf(subscriptionOf(e)->subscriber));
  }
  return nodes;
}

// Their proxies ended them when they delivered the publication.
void BrokerServer::removeOneShotSubscriptions(uint32_t msgId) {
  TAaSysMbList* element = AaSysMbLocalSubscriptionFindNext(m_subscriptions, msgId);
  while (element != nullptr) {
    TAaSysMbList* next = AaSysMbLocalSubscriptionFindNext(element, msgId);
    const SAaSysMbLocalSubscription subscription = *subscriptionOf(element);
    if (subscription.mode == EAaSysMbSubsMode_OneShot) {
      AaSysMbLocalSubscriptionRemove(m_subscriptions, subscription.subscriber, subscription.msgId);
    }
    element = next;
  }
}

// ---- Flushes, deletes and resets -------------------------------------------------------------------

void BrokerServer::handleFlush(const void* msg, const SAaSysMbCmdHeader& header) {
  if (header.mode > EAaSysMbFlushMode_Both) {
    fail("BrokerServer: Unknown flush mode 0x%x, discarding.", header.mode);
    return;
  }
  const bool wholeNode = (header.address & 0xFFFFu) == kAaSysMbWholeNodeCpid;
  if (header.mode != EAaSysMbFlushMode_Subscriptions) {
    forEachStored(m_publications, kAaSysMbAnyMsgId, [&](TAaSysMbList* element, const SAaSysMbLocalPublication& stored) {
      const bool matches = wholeNode ? nodeOf(stored.publisher) == nodeOf(header.address)
                                     : stored.publisher == header.address;
      if (matches) AaSysMbLocalPublicationRemoveElement(element);
    });
  }
  if (header.mode != EAaSysMbFlushMode_Publications) {
    AaSysMbLocalSubscriptionFlush(m_subscriptions, header.address, kAaSysMbAnyZone);
  }
  // The proxy removes the system-zone records it keeps for the address.
  SAaSysMbCmdHeader relayed = header;
  relayed.zone = EAaSysMbZone_System;
  sendToProxy(AaSysComMsgGetId(msg), nodeOf(header.address), relayed);
}

// A proxy's delete: a subscription it refused or a one-shot one it served, or (the tag mode) a
// publication it found out of step as well.
void BrokerServer::handleProxyDelete(const SAaSysMbCmdHeader& header) {
  AaSysMbLocalSubscriptionDelete(m_subscriptions, header.address, header.msgId);
  if (header.mode == AASYSMB_MODE_PROXY_DELETE) {
    AaSysMbLocalPublicationDelete(m_publications, header.address, header.msgId);
  }
}

void BrokerServer::handleResetIndication(const SAaSysMbCmdHeader& header) {
  const uint16_t nid = nodeOf(header.address);
  m_knownNodes[nid] = true;
  if (m_asked[nid]) {
    // An answer to the server's request, or the announcement of a node that was starting as the
    // server asked, followed by the answer: either way nothing the node sent is stale.
    report("node 0x%04x announced itself", nid);
  } else {
    forgetNode(nid);
    report("node 0x%04x announced itself; what it published and subscribed before is forgotten", nid);
  }
  sendToProxy(SYSMB_RESET_ACK_MSG, nid, commandFor(0, 0, proxyOf(nid), 0));
}

void BrokerServer::forgetNode(uint16_t nid) {
  forEachStored(m_publications, kAaSysMbAnyMsgId, [nid](TAaSysMbList* element, const SAaSysMbLocalPublication& stored) {
    if (nodeOf(stored.publisher) == nid) AaSysMbLocalPublicationRemoveElement(element);
  });
  AaSysMbLocalSubscriptionFlush(m_subscriptions, AaSysComSicadGet(kAaSysMbWholeNodeCpid, nid), kAaSysMbAnyZone);
}
