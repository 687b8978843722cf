// The broker's client functions: each checks its arguments, builds one command and sends it to the
// node's proxy or to the server. They keep no state.
#include <cstring>

#include "AaError.h"
#include "AaSysMbCommand.h"
#include "OlmAssert.h"

OLM_ASSERT_SOURCE("Realtime/Services/AaSysMb/IfAaSysMb")

namespace {

constexpr uint32_t kNoZone = 0;
constexpr uint32_t kHighestApf = 3;
constexpr uint32_t kDefaultApf = AASYSCOM_APF_HOST_WORDS;
// The offset of a publication's payload from its message.
constexpr uintptr_t kPublPayloadOffset = AASYSCOM_HEADER_SIZE + AASYSMB_CMD_HEADER_SIZE;

void raise(uint32_t code, const char* text, uint32_t line) {
  AaErrorExceptionRaise(EAaErrorFatality_NonFatal, code, nullptr, 0, text, kOlmAssertSource, line);
}

bool isClientZone(uint32_t zone) { return zone == EAaSysMbZone_Node || zone == EAaSysMbZone_System; }

// Clients act for their own node only; before the node id is known (0) every node passes.
bool isOwnNode(TAaSysComSicad address) {
  const TAaSysComNid ownNid = AaSysComGetOwnNid();
  const TAaSysComNid nid = AaSysComSicadGetNid(address);
  return ownNid == 0 || nid == AASYSCOM_NID_THIS_NODE || nid == ownNid;
}

TAaSysComSicad withOwnNid(TAaSysComSicad address) {
  if (AaSysComSicadGetNid(address) != AASYSCOM_NID_THIS_NODE) return address;
  return AaSysComSicadGet(AaSysComSicadGetCpid(address), AaSysComGetOwnNid());
}

bool goesToServer(uint32_t zone) { return zone == EAaSysMbZone_System || zone == EAaSysMbZone_All; }

TAaSysComSicad targetOf(uint32_t zone) {
  return goesToServer(zone) ? serverAddress() : AaSysComSicadGet(AASYSMB_PROXY_CPID, AASYSCOM_NID_THIS_NODE);
}

TAaSysComSicad clientAddress(TAaSysComSicad address, uint32_t zone) {
  return zone == EAaSysMbZone_System ? withOwnNid(address) : address;
}

// A zero-filled command with the client marker; null when the message cannot be created.
void* newClientCommand(uint32_t msgId, uint32_t payloadSize, uint32_t zone) {
  void* msg = AaSysComMsgCreate(msgId, payloadSize, targetOf(zone));
  if (msg == nullptr) return nullptr;
  std::memset(AaSysComMsgGetPayload(msg), 0, payloadSize);
  static_cast<SAaSysMbCmdHeader*>(AaSysComMsgGetPayload(msg))->marker = AASYSMB_MARKER_CLIENT;
  return msg;
}

SAaSysMbCmdHeader& headerOf(void* msg) { return *static_cast<SAaSysMbCmdHeader*>(AaSysComMsgGetPayload(msg)); }

// The message of a publication's payload pointer; null when either pointer is null.
void* publicationMsgOf(void** payloadPtr) {
  if (payloadPtr == nullptr || *payloadPtr == nullptr) return nullptr;
  return static_cast<uint8_t*>(*payloadPtr) - kPublPayloadOffset;
}

// Sends a header-only command (unsubscribe, unpublish, flush) from address.
uint32_t sendSimpleCommand(uint32_t msgId, TAaSysComSicad address, uint32_t mode, uint32_t zone, uint32_t commandId,
                           const char* creationFailure, uint32_t line) {
  void* msg = newClientCommand(commandId, AASYSMB_CMD_HEADER_SIZE, zone);
  if (msg == nullptr) {
    raise(AASYSMB_ERROR_MSG_CREATION, creationFailure, line);
    return EAaSysMbRetVal_MsgCreationFailed;
  }
  SAaSysMbCmdHeader& header = headerOf(msg);
  header.mode = mode;
  header.zone = zone;
  header.address = address;
  header.msgId = static_cast<uint16_t>(msgId);
  AaSysComMsgSendS(&msg, address);
  return EAaSysMbRetVal_Ok;
}

}  // namespace

extern "C" void* AaSysMbPrepare(TAaSysComMsgSize size, TAaSysComMsgId msgId, TAaSysComSicad publisher, uint32_t mode,
                                uint32_t zone) {
  if (!isClientZone(zone)) {
    raise(AASYSMB_ERROR_INVALID_PARAMETER, "Invalid parameter (zone) given to function AaSysMbPrepare", __LINE__);
    return nullptr;
  }
  if (mode > EAaSysMbPublMode_OneShot) {
    raise(AASYSMB_ERROR_INVALID_PARAMETER, "Invalid parameter (mode) given to function AaSysMbPrepare", __LINE__);
    return nullptr;
  }
  if (!isOwnNode(publisher)) {
    raise(AASYSMB_ERROR_INVALID_PARAMETER, "Invalid parameter (node) given to function AaSysMbPrepare", __LINE__);
    return nullptr;
  }
  // A size that does not fit the 16-bit size field cannot be a publication.
  const uint32_t payloadSize = size + AASYSMB_PUBL_CMD_OVERHEAD;
  void* msg = size <= UINT16_MAX ? newClientCommand(AASYSMB_PUBL_CMD_MSG, payloadSize, zone) : nullptr;
  if (msg == nullptr) {
    raise(AASYSMB_ERROR_MSG_CREATION, "Publication message can't be created. AaSysComMsgCreate() returned NULL",
          __LINE__);
    return nullptr;
  }
  publisher = clientAddress(publisher, zone);
  AaSysLogPrintE(EAaSysLogSeverityLevel_Debug, AASYSMB_FEATURE_ID,
                 "Prepare(): Preparing message to be published (size %d, id 0x%x, publisher 0x%x, mode 0x%x, zone "
                 "0x%x).",
                 static_cast<int>(size), msgId, publisher, mode, zone);
  SAaSysMbCmdHeader& header = headerOf(msg);
  header.mode = mode;
  header.zone = zone;
  header.address = publisher;
  header.msgId = static_cast<uint16_t>(msgId);
  header.size = static_cast<uint16_t>(size);
  header.apfWord = kDefaultApf << AASYSMB_APF_SHIFT;
  AaSysComMsgSetSender(msg, publisher);
  return static_cast<uint8_t*>(msg) + kPublPayloadOffset;
}

extern "C" uint32_t AaSysMbPublish(void** payloadPtr) {
  void* msg = publicationMsgOf(payloadPtr);
  if (msg == nullptr) {
    raise(AASYSMB_ERROR_INVALID_PARAMETER, "Invalid parameter given to function AaSysMbPublish", __LINE__);
    return EAaSysMbRetVal_InvalidParameter;
  }
  AaSysLogPrintE(EAaSysLogSeverityLevel_Debug, AASYSMB_FEATURE_ID, "Publish(): Sending published message id 0x%x",
                 headerOf(msg).msgId);
  AaSysComMsgSend(&msg);
  return EAaSysMbRetVal_Ok;
}

extern "C" uint32_t AaSysMbRecall(void** payloadPtr) {
  void* msg = publicationMsgOf(payloadPtr);
  if (msg == nullptr) {
    raise(AASYSMB_ERROR_INVALID_PARAMETER, "Invalid parameter given to function AaSysMbRecall", __LINE__);
    return EAaSysMbRetVal_InvalidParameter;
  }
  AaSysLogPrintE(EAaSysLogSeverityLevel_Debug, AASYSMB_FEATURE_ID, "Recall(): Recalling message id 0x%x",
                 headerOf(msg).msgId);
  AaSysComMsgDestroy(&msg);
  *payloadPtr = nullptr;
  return EAaSysMbRetVal_Ok;
}

extern "C" uint32_t AaSysMbSetApf(void** payloadPtr, uint32_t apf) {
  void* msg = publicationMsgOf(payloadPtr);
  const char* refusal = nullptr;
  if (msg == nullptr) {
    refusal = "Invalid parameter given to function AaSysMbSetApf.";
  } else if (apf > kHighestApf) {
    refusal = "AaSysMbSetApf(): Invalid APF value (0x%x).";
  } else if ((apf & AASYSCOM_APF_LITTLE_ENDIAN_BIT) == 0) {
    refusal = "AaSysMbSetApf(): Not allowed to set message APF to endianness opposite of publisher environment.";
  }
  if (refusal != nullptr) {
    AaSysLogPrintE(EAaSysLogSeverityLevel_Warning, AASYSMB_FEATURE_ID, refusal, apf);
    return EAaSysMbRetVal_InvalidParameter;
  }
  AaSysComMsgSetApf(msg, apf);
  SAaSysMbCmdHeader& header = headerOf(msg);
  header.apfWord = (header.apfWord & ((1u << AASYSMB_APF_SHIFT) - 1)) | apf << AASYSMB_APF_SHIFT;
  return EAaSysMbRetVal_Ok;
}

extern "C" uint32_t AaSysMbSubscribe(TAaSysComMsgId msgId, TAaSysComSicad subscriber, uint32_t mode, uint32_t zone) {
  if (!isClientZone(zone)) {
    raise(AASYSMB_ERROR_INVALID_PARAMETER, "Invalid parameter (zone) given to function AaSysMbSubscribe", __LINE__);
    return EAaSysMbRetVal_InvalidParameter;
  }
  if (mode > EAaSysMbSubsMode_OneShot) {
    raise(AASYSMB_ERROR_INVALID_PARAMETER, "Invalid parameter (mode) given to function AaSysMbSubscribe", __LINE__);
    return EAaSysMbRetVal_InvalidParameter;
  }
  if (!isOwnNode(subscriber)) {
    raise(AASYSMB_ERROR_INVALID_PARAMETER, "Invalid parameter given to function AaSysMbSubscribe", __LINE__);
    return EAaSysMbRetVal_InvalidParameter;
  }
  subscriber = clientAddress(subscriber, zone);
  AaSysLogPrintE(EAaSysLogSeverityLevel_Debug, AASYSMB_FEATURE_ID,
                 "Subscribe(): Sending subscription message (id 0x%x, subscriber 0x%x, mode 0x%x, zone 0x%x, target "
                 "0x%x).",
                 msgId, subscriber, mode, zone, targetOf(zone));
  return sendSimpleCommand(msgId, subscriber, mode, zone, AASYSMB_SUBS_CMD_MSG,
                           "Subscription message can't be created. AaSysComMsgCreate() returned NULL", __LINE__);
}

extern "C" uint32_t AaSysMbUnsubscribe(TAaSysComMsgId msgId, TAaSysComSicad subscriber, uint32_t zone) {
  if (!isClientZone(zone)) {
    raise(AASYSMB_ERROR_INVALID_PARAMETER, "Invalid parameter (zone) given to function AaSysMbUnsubscribe", __LINE__);
    return EAaSysMbRetVal_InvalidParameter;
  }
  if (!isOwnNode(subscriber)) {
    raise(AASYSMB_ERROR_INVALID_PARAMETER, "Invalid parameter given to function AaSysMbUnsubscribe", __LINE__);
    return EAaSysMbRetVal_InvalidParameter;
  }
  subscriber = clientAddress(subscriber, zone);
  AaSysLogPrintE(EAaSysLogSeverityLevel_Debug, AASYSMB_FEATURE_ID,
                 "Unsubscribe(): Sending unsubscribe message (id 0x%x, subscriber 0x%x, zone 0x%x).", msgId,
                 subscriber, zone);
  return sendSimpleCommand(msgId, subscriber, 0, zone, AASYSMB_UNSUBS_CMD_MSG,
                           "Unsubscription message can't be created. AaSysComMsgCreate() returned NULL", __LINE__);
}

extern "C" uint32_t AaSysMbUnpublish(TAaSysComMsgId msgId, TAaSysComSicad publisher, uint32_t zone) {
  if (!isClientZone(zone)) {
    raise(AASYSMB_ERROR_INVALID_PARAMETER, "Invalid parameter (zone) given to function AaSysMbUnpublish", __LINE__);
    return EAaSysMbRetVal_InvalidParameter;
  }
  if (!isOwnNode(publisher)) {
    raise(AASYSMB_ERROR_INVALID_PARAMETER, "Invalid parameter given to function AaSysMbUnpublish", __LINE__);
    return EAaSysMbRetVal_InvalidParameter;
  }
  publisher = clientAddress(publisher, zone);
  AaSysLogPrintE(EAaSysLogSeverityLevel_Debug, AASYSMB_FEATURE_ID,
                 "Unpublish(): Sending unpublish message (id 0x%x, publisher 0x%x, zone 0x%x).", msgId, publisher, zone);
  return sendSimpleCommand(msgId, publisher, 0, zone, AASYSMB_UNPUBL_CMD_MSG,
                           "Unpublish message can't be created. AaSysComMsgCreate() returned NULL", __LINE__);
}

extern "C" uint32_t AaSysMbFlush(TAaSysComSicad address, uint32_t mode, uint32_t zone) {
  if (zone == kNoZone) {
    raise(AASYSMB_ERROR_INVALID_PARAMETER, "Invalid parameter (zone) given to function AaSysMbFlush", __LINE__);
    return EAaSysMbRetVal_InvalidParameter;
  }
  if (mode > EAaSysMbFlushMode_Both) {
    raise(AASYSMB_ERROR_INVALID_PARAMETER, "Invalid parameter (mode) given to function AaSysMbFlush", __LINE__);
    return EAaSysMbRetVal_InvalidParameter;
  }
  if (address == 0) {
    raise(AASYSMB_ERROR_INVALID_PARAMETER, "Invalid parameter (address) given to function AaSysMbFlush", __LINE__);
    return EAaSysMbRetVal_InvalidParameter;
  }
  address = withOwnNid(address);
  AaSysLogPrintE(EAaSysLogSeverityLevel_Debug, AASYSMB_FEATURE_ID,
                 "Flush(): Sending flush message (flushed address 0x%x, mode 0x%x, zone 0x%x).", address, mode, zone);
  return sendSimpleCommand(0, address, mode, zone, AASYSMB_FLUSH_CMD_MSG,
                           "Flush message can't be created. AaSysComMsgCreate() returned NULL", __LINE__);
}
