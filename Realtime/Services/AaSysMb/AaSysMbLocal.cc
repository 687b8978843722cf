#include "AaSysMbLocal.h"

#include <cstring>

#include "AaError.h"
#include "AaMem.h"
#include "AaSysMbBackwardCompatibility.h"
#include "AaSysMbCommand.h"
#include "AaSysMbEndiannessHandling.h"
#include "AaSysMbMessageApi.h"
#include "IRuntime.h"

namespace {

constexpr const char kSourceName[] = "Realtime/Services/AaSysMb/AaSysMbLocal";
constexpr int kProxyPriority = 3;
constexpr uint32_t kHighestApf = 3;
constexpr EAaSysLogSeverityLevel kTrace = EAaSysLogSeverityLevel_Debug;
constexpr EAaSysLogSeverityLevel kFailure = EAaSysLogSeverityLevel_Error;

enum PublValidity : uint32_t { kPublValid = 0, kPublValidOldRemoved = 1, kPublInvalid = 2 };

SAaSysMbState* g_state = nullptr;

// A publication as a command carries it, bounds checked against the message.
struct Publication {
  const SAaSysMbCmdHeader* header;
  const uint8_t* payload;
  uint32_t apfWord;
};

TAaSysComSicad ownProxyAddress() { return AaSysComSicadGet(AASYSMB_PROXY_CPID, g_state->ownNid); }

bool isOnThisNode(TAaSysComSicad address) {
  const TAaSysComNid nid = AaSysComSicadGetNid(address);
  return nid == g_state->ownNid || nid == AASYSCOM_NID_THIS_NODE;
}

// The header of a command, or null (logged as "<what> is null") when the message cannot hold one.
const SAaSysMbCmdHeader* commandOf(const void* msg, const char* what) {
  const SAaSysMbCmdHeader* header = commandHeaderOf(msg);
  if (header == nullptr) AaSysLogPrintE(kFailure, AASYSMB_FEATURE_ID, "%s is null", what);
  return header;
}

// The publication a publish or forward command carries; false (logged) when its size field
// reaches past the message.
bool carriedPublication(const void* msg, const SAaSysMbCmdHeader* header, bool fromOldImplementation, const char* handler,
                   Publication& publication) {
  if (uint32_t{header->size} + AASYSMB_CMD_HEADER_SIZE > AaSysComMsgGetPayloadSize(msg)) {
    AaSysLogPrintE(kFailure, AASYSMB_FEATURE_ID, "%s(): Publication size 0x%x exceeds the message, discarding.",
                   handler, header->size);
    return false;
  }
  publication.header = header;
  publication.payload = reinterpret_cast<const uint8_t*>(header) + AASYSMB_CMD_HEADER_SIZE;
  publication.apfWord = fromOldImplementation ? AaSysComMsgGetApf(msg) << AASYSMB_APF_SHIFT : header->apfWord;
  return true;
}

// ---- Sending ---------------------------------------------------------------------------------

void* newCommand(uint32_t msgId, uint32_t payloadSize, TAaSysComSicad receiver) {
  void* msg = AaSysComMsgCreate(msgId, payloadSize, receiver);
  if (msg != nullptr) std::memset(AaSysComMsgGetPayload(msg), 0, payloadSize);
  return msg;
}

void sendResetIndication() {
  void* msg = newCommand(SYSMB_RESET_IND_MSG, AASYSMB_CMD_HEADER_SIZE, serverAddress());
  if (msg == nullptr) return;
  auto* header = static_cast<SAaSysMbCmdHeader*>(AaSysComMsgGetPayload(msg));
  header->marker = AASYSMB_MARKER_PROXY;
  header->address = ownProxyAddress();
  AaSysComMsgSendS(&msg, ownProxyAddress());
}

// Sends the server a delete command with the fields of header; false when it cannot be built.
bool sendDeleteToServer(const SAaSysMbCmdHeader& header) {
  void* msg = newCommand(AASYSMB_DEL_CMD_MSG, AASYSMB_CMD_HEADER_SIZE, serverAddress());
  if (msg == nullptr) return false;
  std::memcpy(AaSysComMsgGetPayload(msg), &header, sizeof(header));
  AaSysComMsgSendS(&msg, ownProxyAddress());
  return true;
}

// The delete command a proxy builds from a command it handles: the tag mode, zone, address, id.
SAaSysMbCmdHeader proxyDelete(const SAaSysMbCmdHeader& command) {
  SAaSysMbCmdHeader header = {};
  header.marker = AASYSMB_MARKER_PROXY;
  header.mode = AASYSMB_MODE_PROXY_DELETE;
  header.zone = command.zone;
  header.address = command.address;
  header.msgId = command.msgId;
  return header;
}

// Sends a publication to receiver as a message of its own id, from its publisher.
bool deliver(uint32_t msgId, const uint8_t* payload, uint32_t size, uint32_t apfWord, TAaSysComSicad publisher,
             TAaSysComSicad receiver) {
  void* msg = AaSysComMsgCreate(msgId, size, receiver);
  if (msg == nullptr) {
    AaSysLogPrintE(kFailure, AASYSMB_FEATURE_ID, "AaSysMbLocal: Publication 0x%x to 0x%x could not be created.", msgId,
                   receiver);
    return false;
  }
  if (size != 0) std::memcpy(AaSysComMsgGetPayload(msg), payload, size);
  SetMessageApf(msg, apfWord);
  AaSysComMsgSendS(&msg, publisher);
  return true;
}

bool deliverStored(const SAaSysMbLocalPublication& stored, TAaSysComSicad receiver) {
  return deliver(stored.msgId, stored.payload(), stored.size, stored.apfWord, stored.publisher, receiver);
}

// ---- Serving ---------------------------------------------------------------------------------

bool isSubscribed(TAaSysComSicad subscriber, uint32_t msgId) {
  for (TAaSysMbList* e = AaSysMbLocalSubscriptionFindNext(g_state->subscriptions, msgId); e != nullptr;
       e = AaSysMbLocalSubscriptionFindNext(e, msgId)) {
    if (subscriptionOf(e)->subscriber == subscriber) return true;
  }
  return false;
}

// Delivers the stored publications of msgId whose zone is (or, with nodeZone false, is not) the
// node zone to subscriber; a one-shot publication goes once. Returns how many were delivered.
uint32_t serveStored(TAaSysComSicad subscriber, uint32_t msgId, bool nodeZone) {
  uint32_t served = 0;
  TAaSysMbList* element = AaSysMbLocalPublicationFindNext(g_state->publications, msgId);
  while (element != nullptr) {
    TAaSysMbList* next = AaSysMbLocalPublicationFindNext(element, msgId);
    const SAaSysMbLocalPublication& stored = *publicationOf(element);
    if ((stored.zone == EAaSysMbZone_Node) == nodeZone && deliverStored(stored, subscriber)) {
      ++served;
      if (stored.mode == EAaSysMbPublMode_OneShot) AaSysMbLocalPublicationRemoveElement(element);
    }
    element = next;
  }
  return served;
}

uint32_t AaSysMbLocalServeNewSubscriptionLocally(TAaSysComSicad subscriber, uint32_t msgId) {
  return serveStored(subscriber, msgId, true);
}

uint32_t AaSysMbLocalServeNewSubscription(TAaSysComSicad subscriber, uint32_t msgId) {
  return serveStored(subscriber, msgId, false);
}

// Delivers a publication to every subscriber of its id; one-shot subscriptions end with it.
uint32_t AaSysMbLocalServePublicationToSubscribers(const Publication& publication) {
  const SAaSysMbCmdHeader& header = *publication.header;
  uint32_t served = 0;
  TAaSysMbList* element = AaSysMbLocalSubscriptionFindNext(g_state->subscriptions, header.msgId);
  while (element != nullptr) {
    TAaSysMbList* next = AaSysMbLocalSubscriptionFindNext(element, header.msgId);
    const SAaSysMbLocalSubscription subscription = *subscriptionOf(element);
    if (deliver(header.msgId, publication.payload, header.size, publication.apfWord, header.address,
                subscription.subscriber)) {
      ++served;
      if (subscription.mode == EAaSysMbSubsMode_OneShot) {
        AaSysMbLocalSubscriptionRemove(g_state->subscriptions, subscription.subscriber, subscription.msgId);
      }
    }
    element = next;
  }
  return served;
}

// Whether a publication of mode by publisher may be stored, removing what it replaces.
PublValidity checkPublValidityAndDeleteOld(uint32_t msgId, TAaSysComSicad publisher, uint32_t mode) {
  if (mode == EAaSysMbPublMode_NotStored) return kPublValid;
  if (mode == EAaSysMbPublMode_PerPublisher) {
    for (TAaSysMbList* e = AaSysMbLocalPublicationFindNext(g_state->publications, msgId); e != nullptr;
         e = AaSysMbLocalPublicationFindNext(e, msgId)) {
      if (publicationOf(e)->mode != EAaSysMbPublMode_PerPublisher) return kPublInvalid;
    }
  }
  PublValidity validity = kPublValid;
  TAaSysMbList* element = AaSysMbLocalPublicationFindNext(g_state->publications, msgId);
  while (element != nullptr) {
    TAaSysMbList* next = AaSysMbLocalPublicationFindNext(element, msgId);
    const SAaSysMbLocalPublication& stored = *publicationOf(element);
    if (mode != EAaSysMbPublMode_PerPublisher || stored.publisher == publisher) {
      AaSysLogPrintE(kTrace, AASYSMB_FEATURE_ID,
                     "checkPublValidityAndDeleteOld(): Publication ok, old one (publisher 0x%x, mode 0x%x) will be "
                     "removed.",
                     stored.publisher, stored.mode);
      AaSysMbLocalPublicationRemoveElement(element);
      validity = kPublValidOldRemoved;
    }
    element = next;
  }
  return validity;
}

bool isStoredAfterServing(uint32_t mode, uint32_t served) {
  return mode == EAaSysMbPublMode_Replace || mode == EAaSysMbPublMode_PerPublisher ||
         (mode == EAaSysMbPublMode_OneShot && served == 0);
}

void store(const Publication& publication) {
  const SAaSysMbCmdHeader& header = *publication.header;
  AaSysMbLocalPublicationAdd(g_state->publications, publication.payload, header.msgId, header.address, header.size,
                             header.zone, header.mode, publication.apfWord);
}

// ---- Commands of the node's clients ---------------------------------------------------------

void handlePublish(const void* msg, bool fromOldImplementation) {
  const SAaSysMbCmdHeader* header = commandOf(msg, "LocalHandlePublMsg(): publMsg");
  Publication publication;
  if (header == nullptr || !carriedPublication(msg, header, fromOldImplementation, "LocalHandlePublMsg", publication)) return;
  if (header->mode > EAaSysMbPublMode_OneShot) {
    AaSysLogPrintE(kFailure, AASYSMB_FEATURE_ID, "LocalHandlePublMsg(): Unknown Publication mode 0x%x", header->mode);
    return;
  }
  if (checkPublValidityAndDeleteOld(header->msgId, header->address, header->mode) == kPublInvalid) {
    static constexpr char kText[] = "Invalid publication detected by AaSysMb.";
    AaErrorExceptionRaise(EAaErrorFatality_NonFatal, AASYSMB_ERROR_INVALID_PUBL, nullptr, 0, kText, kSourceName,
                          __LINE__);
    return;
  }
  const uint32_t served = AaSysMbLocalServePublicationToSubscribers(publication);
  if (isStoredAfterServing(header->mode, served)) store(publication);
}

void handleSubscribe(const void* msg) {
  const SAaSysMbCmdHeader* header = commandOf(msg, "LocalHandleSubsMsg(): subsMsg");
  if (header == nullptr) return;
  const uint32_t subscriber = header->address;
  const uint32_t msgId = header->msgId;
  if (header->mode > EAaSysMbSubsMode_OneShot) {
    AaSysLogPrintE(kFailure, AASYSMB_FEATURE_ID, "LocalHandleSubsMsg(): Unknown subscription mode 0x%x", header->mode);
    return;
  }
  if (isSubscribed(subscriber, msgId)) {
    AaSysLogPrintE(EAaSysLogSeverityLevel_Info, AASYSMB_FEATURE_ID,
                   "LocalSubscriptionBook(): Subscriber 0x%x already subscribed message 0x%x, ignoring subscription.",
                   subscriber, msgId);
    return;
  }
  uint32_t served = 0;
  switch (header->mode) {
    case EAaSysMbSubsMode_StoredAndKeep:
    case EAaSysMbSubsMode_StoredOnly:
      // Publications of the other zones first, then the node's.
      served = AaSysMbLocalServeNewSubscription(subscriber, msgId);
      served += AaSysMbLocalServeNewSubscriptionLocally(subscriber, msgId);
      break;
    case EAaSysMbSubsMode_OneShot:
      // The node's publications first; the system zone's only when none of those was delivered.
      served = AaSysMbLocalServeNewSubscriptionLocally(subscriber, msgId);
      if (served == 0) served = AaSysMbLocalServeNewSubscription(subscriber, msgId);
      break;
    default:
      break;
  }
  const bool keep = header->mode == EAaSysMbSubsMode_StoredAndKeep || header->mode == EAaSysMbSubsMode_KeepOnly ||
                    (header->mode == EAaSysMbSubsMode_OneShot && served == 0);
  if (keep) AaSysMbLocalSubscriptionBook(g_state->subscriptions, subscriber, msgId, header->mode, header->zone);
}

void handleUnsubscribe(const void* msg) {
  const SAaSysMbCmdHeader* header = commandOf(msg, "LocalHandleUnsubsMsg(): unsubsMsg");
  if (header != nullptr) AaSysMbLocalSubscriptionDelete(g_state->subscriptions, header->address, header->msgId);
}

// Also the server's delete command: both name a publisher and an id.
void handleUnpublish(const void* msg, const char* what) {
  const SAaSysMbCmdHeader* header = commandOf(msg, what);
  if (header != nullptr) AaSysMbLocalPublicationDelete(g_state->publications, header->address, header->msgId);
}

void handleFlush(const void* msg) {
  const SAaSysMbCmdHeader* header = commandOf(msg, "LocalHandleFlushMsg(): flushMsg");
  if (header == nullptr) return;
  if (header->mode > EAaSysMbFlushMode_Both) {
    AaSysLogPrintE(kFailure, AASYSMB_FEATURE_ID, "LocalHandleFlushMsg(): Unknown flush mode 0x%x, discarding message!",
                   header->mode);
    return;
  }
  if (header->mode != EAaSysMbFlushMode_Subscriptions) {
    AaSysMbLocalPublicationFlush(g_state->publications, header->address, header->zone);
  }
  if (header->mode != EAaSysMbFlushMode_Publications) {
    AaSysMbLocalSubscriptionFlush(g_state->subscriptions, header->address, header->zone);
  }
}

// ---- Commands of the server and other proxies -------------------------------------------------

// A stored publication for the subscriber's node: straight to the subscriber on a direct
// delivery, else as a forward command to the proxy there.
// The receiving proxy reads the byte order of a command's header from its SysCom APF, and this
// header is in host order. Content stored from a peer of the other byte order may be big-endian
// 2-byte aligned (APF 2): the command then says little-endian 2-byte aligned (APF 3), so the
// receiver swaps neither header nor content, and the header's APF byte still hands on 2.
uint32_t forwardCommandApfWord(uint32_t storedApfWord) {
  const uint32_t contentApf = storedApfWord >> AASYSMB_APF_SHIFT;
  if (contentApf > kHighestApf) return storedApfWord;  // SetMessageApf warns and leaves it
  return (contentApf | AASYSCOM_APF_LITTLE_ENDIAN_BIT) << AASYSMB_APF_SHIFT;
}

void sendStoredToRemoteSubscriber(const SAaSysMbCmdHeader& command, const SAaSysMbLocalPublication& stored) {
  if (command.mode == AASYSMB_MODE_DIRECT_DELIVERY) {
    AaSysLogPrintE(kTrace, AASYSMB_FEATURE_ID,
                   "LocalHandleSndCmdMsg(): Publication id 0x%x (publisher 0x%x) is sent to subscriber 0x%x",
                   stored.msgId, stored.publisher, command.address);
    if (!deliverStored(stored, command.address)) {
      AaSysLogPrintE(kFailure, AASYSMB_FEATURE_ID, "LocalHandleSndCmdMsg(): serverPayl is null");
    }
    return;
  }
  const TAaSysComNid node = AaSysComSicadGetNid(command.address);
  void* msg = newCommand(AASYSMB_FWD_CMD_MSG, stored.size + AASYSMB_PUBL_CMD_OVERHEAD,
                         AaSysComSicadGet(AASYSMB_PROXY_CPID, node));
  if (msg == nullptr) {
    AaSysLogPrintE(kFailure, AASYSMB_FEATURE_ID, "LocalHandleSndCmdMsg(): fwdPayl is null");
    return;
  }
  AaSysLogPrintE(kTrace, AASYSMB_FEATURE_ID,
                 "LocalHandleSndCmdMsg(): Publication id 0x%x (publisher 0x%x) is sent to proxy on node 0x%x",
                 stored.msgId, stored.publisher, node);
  auto* header = static_cast<SAaSysMbCmdHeader*>(AaSysComMsgGetPayload(msg));
  header->marker = AASYSMB_MARKER_PROXY;
  header->mode = command.mode;
  header->zone = command.zone;
  header->address = stored.publisher;
  header->msgId = static_cast<uint16_t>(stored.msgId);
  header->size = static_cast<uint16_t>(stored.size);
  // The content's APF only: flags of the command that stored it do not travel on.
  header->apfWord = stored.apfWord & ~((1u << AASYSMB_APF_SHIFT) - 1);
  std::memcpy(header + 1, stored.payload(), stored.size);
  SetMessageApf(msg, forwardCommandApfWord(stored.apfWord));
  AaSysComMsgSendS(&msg, ownProxyAddress());
}

void serveRemoteSubscriber(const SAaSysMbCmdHeader& command) {
  TAaSysMbList* element = AaSysMbLocalPublicationFindNext(g_state->publications, command.msgId);
  while (element != nullptr) {
    TAaSysMbList* next = AaSysMbLocalPublicationFindNext(element, command.msgId);
    const SAaSysMbLocalPublication& stored = *publicationOf(element);
    sendStoredToRemoteSubscriber(command, stored);
    if (stored.mode == EAaSysMbPublMode_OneShot) AaSysMbLocalPublicationRemoveElement(element);
    element = next;
  }
}

void serveLocalSubscriber(const SAaSysMbCmdHeader& command) {
  const uint32_t subscriber = command.address;
  const uint32_t msgId = command.msgId;
  uint32_t served = 0;
  if (command.mode != EAaSysMbSubsMode_KeepOnly) {
    served = AaSysMbLocalServeNewSubscriptionLocally(subscriber, msgId);
    served += AaSysMbLocalServeNewSubscription(subscriber, msgId);
    if (command.mode == EAaSysMbSubsMode_OneShot && served != 0) {
      // The server forgets the one-shot subscription that was just served.
      SAaSysMbCmdHeader done = command;
      done.marker = AASYSMB_MARKER_PROXY;
      done.apfWord = 0;
      if (!sendDeleteToServer(done)) {
        AaSysLogPrintE(kFailure, AASYSMB_FEATURE_ID, "LocalHandleSndCmdMsg(): delCmdMsg is null");
      }
    }
  }
  TAaSysMbList* element = AaSysMbLocalSubscriptionFindNext(g_state->subscriptions, msgId);
  while (element != nullptr) {
    TAaSysMbList* next = AaSysMbLocalSubscriptionFindNext(element, msgId);
    const SAaSysMbLocalSubscription& subscription = *subscriptionOf(element);
    if (subscription.subscriber == subscriber && subscription.mode == EAaSysMbSubsMode_OneShot) {
      AaSysLogPrintE(kTrace, AASYSMB_FEATURE_ID,
                     "LocalHandleSndCmdMsg(): Deleting one shot subscription 0x%x, subscriber 0x%x.", msgId, subscriber);
      AaSysMbLocalSubscriptionDelete(g_state->subscriptions, subscriber, msgId);
    }
    element = next;
  }
  const bool keep = command.mode == EAaSysMbSubsMode_StoredAndKeep || command.mode == EAaSysMbSubsMode_KeepOnly ||
                    (command.mode == EAaSysMbSubsMode_OneShot && served == 0);
  if (keep) AaSysMbLocalSubscriptionBook(g_state->subscriptions, subscriber, msgId, command.mode, command.zone);
}

void handleNotification(const void* msg) {
  if (AaSysComMsgGetPayloadSize(msg) == 0) {
    AaSysLogPrintE(kFailure, AASYSMB_FEATURE_ID, "AaSysMbLocal: notif is null");
  }
}

void handleResetRequest() {
  AaSysLogPrintE(kTrace, AASYSMB_FEATURE_ID, "LocalHandleResetIndMsg: Sending SYSMB_RESET_IND_MSG to server.");
  sendResetIndication();
}

void handleCommand(const void* msg, bool fromOldImplementation) {
  const uint32_t msgId = AaSysComMsgGetId(msg);
  switch (msgId) {
    case AASYSMB_PUBL_CMD_MSG: handlePublish(msg, fromOldImplementation); break;
    case AASYSMB_SUBS_CMD_MSG: handleSubscribe(msg); break;
    case AASYSMB_UNSUBS_CMD_MSG: handleUnsubscribe(msg); break;
    case AASYSMB_UNPUBL_CMD_MSG: handleUnpublish(msg, "LocalHandleUnpublMsg(): unpublMsg"); break;
    case AASYSMB_FLUSH_CMD_MSG: handleFlush(msg); break;
    case AASYSMB_FWD_CMD_MSG: AaSysMbLocalHandleFwdCmdMsg(msg, fromOldImplementation); break;
    case AASYSMB_SND_CMD_MSG: AaSysMbLocalHandleSndCmdMsg(msg); break;
    case AASYSMB_DEL_CMD_MSG: handleUnpublish(msg, "LocalHandleDelCmdMsg(): delCmd"); break;
    case AASYSMB_NOTIF_IND_MSG: handleNotification(msg); break;
    case SYSMB_RESET_REQ_MSG: handleResetRequest(); break;
    case SYSMB_RESET_ACK_MSG: break;
    default:
      AaSysLogPrintE(EAaSysLogSeverityLevel_Warning, AASYSMB_FEATURE_ID,
                     "AaSysMbLocal: Received unknown message with id 0x%x. Discarding.", msgId);
      break;
  }
}

}  // namespace

void AaSysMbLocalHandleFwdCmdMsg(const void* msg, bool fromOldImplementation) {
  const SAaSysMbCmdHeader* header = commandHeaderOf(msg);
  if (header == nullptr) {
    AaSysLogPrintE(kFailure, AASYSMB_FEATURE_ID, "LocalHandleFwdCmdMsg(): fwdCmd is null");
    return;
  }
  AaSysLogPrintE(kTrace, AASYSMB_FEATURE_ID, "LocalHandleFwdCmdMsg(): Received 'fwd cmd' message from %s.",
                 header->marker == AASYSMB_MARKER_SERVER ? "server" : "another proxy");
  Publication publication;
  if (!carriedPublication(msg, header, fromOldImplementation, "LocalHandleFwdCmdMsg", publication)) return;
  const bool localPublisher = isOnThisNode(header->address);
  if (localPublisher && checkPublValidityAndDeleteOld(header->msgId, header->address, header->mode) == kPublInvalid) {
    if (!sendDeleteToServer(proxyDelete(*header))) {
      AaSysLogPrintE(kFailure, AASYSMB_FEATURE_ID, "LocalHandleFwdCmdMsg(): delCmdMsg is null");
      return;
    }
    static constexpr char kText[] = "Possible synchronization failure in SysMb proxy and server!";
    AaErrorExceptionRaise(EAaErrorFatality_NonFatal, AASYSMB_ERROR_OUT_OF_SYNC, nullptr, 0, kText, kSourceName,
                          __LINE__);
    return;
  }
  const uint32_t served = AaSysMbLocalServePublicationToSubscribers(publication);
  if (localPublisher && isStoredAfterServing(header->mode, served)) store(publication);
}

void AaSysMbLocalHandleSndCmdMsg(const void* msg) {
  const SAaSysMbCmdHeader* header = commandHeaderOf(msg);
  if (header == nullptr) {
    AaSysLogPrintE(kFailure, AASYSMB_FEATURE_ID, "LocalHandleSndCmdMsg(): sndCmd is null");
    return;
  }
  const SAaSysMbCmdHeader command = *header;
  AaSysLogPrintE(kTrace, AASYSMB_FEATURE_ID,
                 "LocalHandleSndCmdMsg(): Received 'send cmd' message from server (0x%x 0x%x 0x%x 0x%x)", command.mode,
                 command.address, command.zone, command.msgId);
  if (isSubscribed(command.address, command.msgId)) {
    if (!sendDeleteToServer(proxyDelete(command))) {
      AaSysLogPrintE(kFailure, AASYSMB_FEATURE_ID, "LocalHandleSndCmdMsg(): delCmdMsg is null");
      return;
    }
    AaSysLogPrintE(EAaSysLogSeverityLevel_Info, AASYSMB_FEATURE_ID,
                   "LocalSubscriptionBook(): Subscriber 0x%x already subscribed message 0x%x, ignoring subscription.",
                   command.address, command.msgId);
    return;
  }
  const bool localSubscriber = isOnThisNode(command.address);
  if (command.mode == AASYSMB_MODE_DIRECT_DELIVERY && localSubscriber) {
    AaSysMbLocalServeNewSubscription(command.address, command.msgId);
  } else if (!localSubscriber) {
    serveRemoteSubscriber(command);
  } else {
    serveLocalSubscriber(command);
  }
}

// ---- The EU ------------------------------------------------------------------------------------

int AaSysMbLocalEu::PrioritizeMessage(void*&) { return kProxyPriority; }

void AaSysMbLocalEu::ProcessMessage(void*& msg) {
  if (msg == nullptr) return;
  if (g_state == nullptr || !g_state->running) {
    AaSysComMsgDestroy(&msg);
    return;
  }
  BackwardCompatibilityCheck(msg);
  const bool fromOldImplementation = MsgFromOldImplementation(msg) != 0;
  if (!fromOldImplementation) {
    HandleMessageEndianness(msg);
    const uint32_t result = MessageApiParamsCheck(msg);
    SendReplyMessage(msg, result);
    if (result != EAaSysMbCheckResult_Valid) {
      AaSysComMsgDestroy(&msg);
      return;
    }
  }
  handleCommand(msg, fromOldImplementation);
  // Destroying clears the reference: the Dispatcher must find nothing left to free.
  AaSysComMsgDestroy(&msg);
}

AaSysMbLocalEu& AaSysMbLocalProxy() {
  static AaSysMbLocalEu proxy;
  return proxy;
}

SAaSysMbState* AaSysMbLocalState() { return g_state; }

// ---- Start and stop ---------------------------------------------------------------------------

extern "C" uint32_t AaSysMbInit(void) {
  Olm::IRuntime* runtime = Olm::IRuntime::getTheRuntime();
  if (runtime == nullptr) {
    AaSysLogPrintE(kFailure, AASYSLOG_FEATURE_NONE, "Unable to get Dispatcher instance");
    return 1;
  }
  if (g_state != nullptr) {
    AaSysLogPrintE(kFailure, AASYSMB_FEATURE_ID, "AaSysMbInit(): SysMb is already running.");
    return 1;
  }
  Olm::IAaSysDispatcherSicHandler* bound = runtime->boundEu(AASYSMB_PROXY_CPID);
  if (bound != nullptr && bound != &AaSysMbLocalProxy()) {
    AaSysLogPrintE(kFailure, AASYSMB_FEATURE_ID, "AaSysMbInit(): CPID 0x%x belongs to another EU.", AASYSMB_PROXY_CPID);
    return 1;
  }
  // AaMemMalloc never returns null (it ends the process instead), so neither allocation failure
  // of the state can be seen here.
  g_state = static_cast<SAaSysMbState*>(AaMemMalloc(sizeof(SAaSysMbState)));
  g_state->publications = AaSysMbLocalListCreate();
  g_state->subscriptions = AaSysMbLocalListCreate();
  g_state->ownNid = runtime->getOwnNid();
  g_state->running = true;
  AaSysLogPrintE(EAaSysLogSeverityLevel_Info, AASYSMB_FEATURE_ID, "AaSysMbLocal started.");
  if (bound == nullptr) runtime->bindEu(AaSysMbLocalProxy(), AASYSMB_PROXY_CPID);
  AaSysLogPrintE(kTrace, AASYSMB_FEATURE_ID, "AaSysMbInitializer: Sending SYSMB_RESET_IND_MSG to server.");
  sendResetIndication();
  return 0;
}

// The records go with the heads: nothing else could ever release them.
extern "C" uint32_t AaSysMbExit(void) {
  if (g_state == nullptr) return 0;
  g_state->running = false;
  AaSysMbLocalListFree(g_state->publications);
  AaSysMbLocalListFree(g_state->subscriptions);
  void* state = g_state;
  g_state = nullptr;
  AaMemUnRef(&state);
  return 0;
}

extern "C" uint32_t AaSysMbInitEe(void) { return AaSysMbInit(); }
extern "C" uint32_t AaSysMbExitEe(void) { return AaSysMbExit(); }
