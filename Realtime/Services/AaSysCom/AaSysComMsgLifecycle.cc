// Creating, copying, resizing, freeing and sending messages. Buffers come from and go back to the
// Dispatcher; this file keeps no state of its own.

#include <algorithm>

#include "AaConfig.h"
#include "AaSysComInternal.h"

using Olm::msgHeader;
using namespace Olm::syscom;

namespace {

// Without the master node tag, the master is node 0x3D of this node's group.
constexpr uint16_t kNodeGroupMask = 0xFF00;
constexpr uint16_t kMasterNidInGroup = 0x003D;
constexpr char kMasterNidTag[] = "olm.service.aasyscom.masternid";
constexpr int32_t kNotSent = 0;
constexpr int32_t kSent = 1;

// The log texts of one send function. Their final full stops differ from function to function;
// that is deliberate, and the texts are kept exactly as they are.
struct SendTexts {
  const char* nullMessage;
  const char* senderNotSet;
};

constexpr SendTexts kSendTexts{"AaSysComMsgSend(): Tried to send NULL msg",
                               "AaSysComMsgSend(): Message sender not set."};
constexpr SendTexts kSendSTexts{"AaSysComMsgSendS(): Tried to send NULL msg.",
                                "AaSysComMsgSendS(): Message sender not set."};
constexpr SendTexts kSendWithPriorityTexts{"AaSysComMsgSendWithPriority(): Tried to send NULL msg",
                                           "AaSysComMsgSendWithPriority(): Message sender not set."};
constexpr SendTexts kSendViaLinkTexts{"AaSysComMsgSendViaLink(): Tried to send NULL msg",
                                      "AaSysComMsgSendViaLink(): Message sender not set."};

void writeNewHeader(void* msg, TAaSysComMsgId id, TAaSysComMsgSize payloadSize, TAaSysComSicad receiver) {
  SAaSysComMsgHeader* header = msgHeader(msg);
  header->msgId = static_cast<uint16_t>(id);
  header->control = 0;
  header->receiver = receiver;
  header->sender = 0;
  header->flags = 0;
  header->totalLength = static_cast<uint16_t>(payloadSize + AASYSCOM_HEADER_SIZE);
  AaSysComMsgSetApf(msg, AASYSCOM_APF_HOST_WORDS);
}

// A byte-for-byte copy of source, or null. A corrupt total length below the header still gets a
// whole header, so that the copy can be read like any message.
void* duplicate(const void* source) {
  Olm::IRuntime* dispatcher = runtimeOrLog();
  if (dispatcher == nullptr) return nullptr;
  const uint32_t size = std::max(totalLengthOf(source), AASYSCOM_HEADER_SIZE);
  void* copy = dispatcher->newMessage(size);
  if (copy == nullptr) return nullptr;
  std::memcpy(copy, source, size);
  msgHeader(copy)->flags &= static_cast<uint16_t>(~AASYSCOM_FLAGS_COPY_CLEARED);
  return copy;
}

TAaSysComNid masterNid() {
  uint16_t nid = 0;
  if (AaConfigTagIsSet(kMasterNidTag) && AaConfigTagGetU16(kMasterNidTag, &nid) == 0) return nid;
  return static_cast<TAaSysComNid>((AaSysComGetOwnNid() & kNodeGroupMask) | kMasterNidInGroup);
}

// Placeholder NIDs become real ones before a message leaves: 0x0F01 this node, 0x0FF0 the master
// node. The CPID is kept.
void resolvePlaceholderNid(void* msg) {
  SAaSysComMsgHeader* header = msgHeader(msg);
  TAaSysComNid nid = Olm::sicadNid(header->receiver);
  if (nid == AASYSCOM_NID_THIS_NODE) nid = AaSysComGetOwnNid();
  if (nid == AASYSCOM_NID_MASTER_NODE) nid = masterNid();
  header->receiver = AaSysComSicadGet(Olm::sicadCpid(header->receiver), nid);
}

// Nobody could answer a message without sender: it is logged with its header and destroyed.
bool refusedWithoutSender(void** messagePtr, const char* text) {
  if (AaSysComMsgGetSender(*messagePtr) != 0) return false;
  AaSysComMsgPrintHeader(EAaSysLogSeverityLevel_Error, text, *messagePtr);
  AaSysComMsgDestroy(messagePtr);
  return true;
}

// The common end of every send function: the message leaves the caller in every case but a null
// handle, either to the Dispatcher or freed.
int32_t sendChecked(void** messagePtr, const SendTexts& texts) {
  if (refusedAsNullHandle(messagePtr, texts.nullMessage)) return kNotSent;
  if (refusedWithoutSender(messagePtr, texts.senderNotSet)) return kNotSent;
  resolvePlaceholderNid(*messagePtr);
  Olm::IRuntime* dispatcher = Olm::IRuntime::getTheRuntime();
  if (dispatcher == nullptr) {
    AaSysComMsgDestroy(messagePtr);  // logs the missing Dispatcher
    return kNotSent;
  }
  void* msg = *messagePtr;
  *messagePtr = nullptr;
  return dispatcher->sendMessage(msg) ? kSent : kNotSent;
}

}  // namespace

extern "C" {

void* AaSysComMsgCreate(TAaSysComMsgId messageId, TAaSysComMsgSize payloadSize, TAaSysComSicad receiver) {
  if (payloadSize > AASYSCOM_MAX_CREATE_PAYLOAD) {
    logFailure("AaSysComMsgCreate(): messagePayloadSize too high");
    return nullptr;
  }
  Olm::IRuntime* dispatcher = runtimeOrLog();
  if (dispatcher == nullptr) return nullptr;
  void* msg = dispatcher->newMessage(static_cast<uint16_t>(payloadSize + AASYSCOM_HEADER_SIZE));
  if (msg == nullptr) return nullptr;
  writeNewHeader(msg, messageId, payloadSize, receiver);
  return msg;
}

void* AaSysComMsgCreateP(TAaSysComMsgId messageId, TAaSysComMsgSize payloadSize, TAaSysComSicad receiver) {
  return AaSysComMsgCreate(messageId, payloadSize, receiver);
}

void* AaSysComMsgCreateReply(TAaSysComMsgId messageId, TAaSysComMsgSize payloadSize,
                             const void* repliedMessage) {
  if (repliedMessage == nullptr) {
    AaSysLogPrintE(EAaSysLogSeverityLevel_Warning, AASYSCOM_FEATURE_ID,
                   "%s(): Parameter repliedMessage is NULL", "AaSysComMsgCreateReply");
    return nullptr;
  }
  void* reply = AaSysComMsgCreate(messageId, payloadSize, AaSysComMsgGetSender(repliedMessage));
  // The reply comes from the point that was addressed, which need not be the point that answers.
  return AaSysComMsgSetSender(reply, AaSysComMsgGetReceiver(repliedMessage));
}

void* AaSysComMsgCreateCopy(const void* message) {
  if (refusedAsNull(message, "AaSysComMsgCreateCopy(): Trying to copy NULL message")) return nullptr;
  return duplicate(message);
}

void* AaSysComMsgCreateCopyTo(const void* message, TAaSysComSicad receiver) {
  if (refusedAsNull(message, "AaSysComMsgCreateCopyTo(): Trying to copy NULL message")) return nullptr;
  void* copy = duplicate(message);
  if (copy != nullptr) msgHeader(copy)->receiver = receiver;
  return copy;
}

void AaSysComMsgDestroy(void** messagePtr) {
  if (isNullHandle(messagePtr)) return;
  // Without a Dispatcher there is no port to give the buffer back to; it is dropped, not freed
  // elsewhere, since only the port knows how it was allocated.
  Olm::IRuntime* dispatcher = runtimeOrLog();
  if (dispatcher != nullptr) dispatcher->deleteMessage(*messagePtr);
  *messagePtr = nullptr;
}

void AaSysComMsgSetPayloadSize(void** messagePtr, TAaSysComMsgSize payloadSize) {
  if (refusedAsNullHandle(messagePtr, "AaSysComMsgSetPayloadSize(): NULL message")) return;
  if (payloadSize > AASYSCOM_MAX_CREATE_PAYLOAD) {
    logFailure("AaSysComMsgSetPayloadSize(): messagePayloadSize too high");
    return;
  }
  const void* old = *messagePtr;
  void* resized = AaSysComMsgCreate(AaSysComMsgGetId(old), payloadSize, AaSysComMsgGetReceiver(old));
  if (refusedAsNull(resized, "AaSysComMsgSetPayloadSize(): newMsg is NULL")) return;
  const uint32_t newTotal = payloadSize + AASYSCOM_HEADER_SIZE;
  std::memcpy(resized, old, std::min(totalLengthOf(old), newTotal));
  msgHeader(resized)->totalLength = static_cast<uint16_t>(newTotal);
  AaSysComMsgDestroy(messagePtr);
  *messagePtr = resized;
}

void AaSysComMsgSend(void** messagePtr) { sendChecked(messagePtr, kSendTexts); }

int32_t AaSysComMsgSendS(void** messagePtr, TAaSysComSicad sender) {
  if (!isNullHandle(messagePtr)) AaSysComMsgSetSender(*messagePtr, sender);
  return sendChecked(messagePtr, kSendSTexts);
}

void AaSysComMsgSendWithPriority(void** messagePtr, uint32_t) { sendChecked(messagePtr, kSendWithPriorityTexts); }

void AaSysComMsgSendViaLink(void** messagePtr, TAaSysComLinkId) { sendChecked(messagePtr, kSendViaLinkTexts); }

void AaSysComMsgForward(void** messagePtr, TAaSysComSicad receiver) {
  if (refusedAsNullHandle(messagePtr, "AaSysComMsgForward(): message is NULL")) return;
  SAaSysComMsgHeader* header = msgHeader(*messagePtr);
  header->sender = header->receiver;
  header->receiver = receiver;
  AaSysComMsgSend(messagePtr);
}

void AaSysComMsgRelay(void** messagePtr, TAaSysComSicad receiver) {
  if (refusedAsNullHandle(messagePtr, "AaSysComMsgRelay(): message is NULL")) return;
  msgHeader(*messagePtr)->receiver = receiver;
  AaSysComMsgSend(messagePtr);
}

}  // extern "C"
