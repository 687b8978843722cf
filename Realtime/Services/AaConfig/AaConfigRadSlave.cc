// The R&D slave: announces the node's domains to the R&D master, answers the master's and other
// requesters' reads and writes, and notifies the subscribers of changed values.
//
// Payloads are read word by word in the byte order the message declares, and only as far as the
// payload reaches: a message that is too short for what it claims is refused, never read past.
#include <cstdio>

#include "AaConfigEu.h"
#include "AaConfigRadInternal.h"
#include "AaConfigRadMsg.h"
#include "AaCpuBit.h"
#include "AaSysCom.h"
#include "AaSysMb.h"
#include "AaSysTime.h"
#include "IRuntime.h"

namespace {

using Olm::CircularListElement;
using namespace Olm::Rad;

constexpr uint32_t kFeature = AACONFIG_RAD_SLAVE_FEATURE_ID;
constexpr const char* kMasterNidTag = "olm.service.aasyscom.masternid";
constexpr int kLowQueue = 3;
constexpr uint32_t kOutputModeIndex = 0x41;  // AaSysLogOutputMode of domain 1
constexpr uint32_t kSynchedTagSize = 80;
constexpr uint32_t kWordSize = sizeof(uint32_t);
constexpr uint32_t kParamWords = AACONFIG_RAD_PARAM_SIZE / kWordSize;
constexpr uint32_t kSleepDuration = 1;
constexpr uint32_t kSleepUnit = 3;

struct SlaveState {
  uint32_t slaveSicad;
  uint32_t masterSicad;  // 0 until the master has announced itself
  CircularListElement* pending;
};

SlaveState s_slave{};

// The payload of a received message as words in host order.
class Payload {
 public:
  explicit Payload(void* msg)
      : m_bytes(static_cast<uint8_t*>(AaSysComMsgGetPayload(msg))),
        m_words(m_bytes != nullptr ? AaSysComMsgGetPayloadSize(msg) / kWordSize : 0),
        m_swap(AaSysComIsHostAndMsgEndianSame(msg) == 0) {}

  bool holds(uint32_t words) const { return m_words >= words; }
  // Whether count records of recordWords words fit behind headerWords words.
  bool holdsRecords(uint32_t headerWords, uint32_t count, uint32_t recordWords) const {
    return holds(headerWords) && count <= (m_words - headerWords) / recordWords;
  }
  uint32_t word(uint32_t index) const {
    uint32_t value;
    std::memcpy(&value, m_bytes + index * kWordSize, kWordSize);
    if (m_swap) AaCpuBitSwapByteOrder32(&value);
    return value;
  }
  void setWord(uint32_t index, uint32_t value) {
    if (m_swap) AaCpuBitSwapByteOrder32(&value);
    std::memcpy(m_bytes + index * kWordSize, &value, kWordSize);
  }

 private:
  uint8_t* m_bytes;
  uint32_t m_words;
  bool m_swap;
};

// A new message from the slave, payload zeroed; null (logged by the caller) when none is to be had.
void* createMessage(uint32_t msgId, uint32_t payloadSize, uint32_t receiver) {
  void* msg = AaSysComMsgCreate(static_cast<TAaSysComMsgId>(msgId), static_cast<TAaSysComMsgSize>(payloadSize), receiver);
  if (msg == nullptr) return nullptr;
  AaSysComMsgSetSender(msg, s_slave.slaveSicad);
  std::memset(AaSysComMsgGetPayload(msg), 0, payloadSize);
  return msg;
}

uint32_t* wordsOf(void* msg) { return static_cast<uint32_t*>(AaSysComMsgGetPayload(msg)); }

bool masterIsSynchronous() { return AaSysComSicadGetCpid(s_slave.masterSicad) == AACONFIG_RAD_MASTER_CPID; }

void sendDomainRegistrationReq(uint32_t domain) {
  AaSysLogPrintE(kTrace, kFeature, "sendDomainRegistrationReq(): Processing domain registration for domain %u from slave 0x%08X",
                 domain, s_slave.slaveSicad);
  const uint32_t tagCount = AaConfigRadGetTagCount(domain);
  void* msg = createMessage(AACONFIG_RAD_DOMAIN_REGISTER_REQ_MSG, AACONFIG_RAD_DOMAIN_REGISTER_REQ_SIZE(tagCount),
                            s_slave.masterSicad);
  if (msg == nullptr) {
    AaSysLogPrintE(kError, kFeature, "sendDomainRegistrationReq: Could not create registration request msg for domain %u", domain);
    return;
  }
  auto* request = static_cast<SAaConfigRadDomainRegisterReq*>(AaSysComMsgGetPayload(msg));
  request->slaveSicad = s_slave.slaveSicad;
  request->domain = domain;
  request->constant = AACONFIG_RAD_REGISTER_CONSTANT;
  request->tagCount = tagCount;
  uint32_t* tags = wordsOf(msg) + AACONFIG_RAD_DOMAIN_REGISTER_REQ_HEADER_SIZE / kWordSize;
  AaConfigRadGetAllSyncTags(tags, domain);
  AaConfigRadGetAllFlashTags(tags, domain);
  AaSysLogPrintE(kTrace, kFeature, "sendDomainRegistrationReq(): Sending domain registration from SicAd 0x%08X to 0x%08X",
                 s_slave.slaveSicad, s_slave.masterSicad);
  AaSysComMsgSend(&msg);
}

void sendDomainRegistrationInd(uint32_t domain) {
  AaSysLogPrintE(kTrace, kFeature, "sendDomainRegistrationInd(): Processing domain registration for Domain %u\n", domain);
  void* msg = createMessage(AACONFIG_RAD_DOMAIN_REGISTER_IND_MSG, sizeof(SAaConfigRadDomainRegisterInd), s_slave.masterSicad);
  if (msg == nullptr) {
    AaSysLogPrintE(kError, kFeature, "sendDomainRegistrationInd(): Could not create AACONFIG_RAD_DOMAIN_REGISTER_IND_MSG for Domain %u",
                   domain);
    return;
  }
  auto* indication = static_cast<SAaConfigRadDomainRegisterInd*>(AaSysComMsgGetPayload(msg));
  indication->domain = domain;
  indication->constant = AACONFIG_RAD_REGISTER_CONSTANT;
  AaSysLogPrintE(kTrace, kFeature, "sendDomainRegistrationInd(): Sending domain registration from SicAd 0x%08X to 0x%08X\n",
                 s_slave.slaveSicad, s_slave.masterSicad);
  AaSysComMsgSend(&msg);
}

// The master's CPID decides between the full exchange and the indication, whatever mode the
// domain was registered with: only that master answers registrations.
void sendDomainRegistration() {
  if (s_slave.pending == nullptr || Olm::circularListIsEmpty(*s_slave.pending)) {
    AaSysLogPrintE(kTrace, kFeature, "sendDomainRegistration(): LinkedList already empty");
    return;
  }
  listForEach<PendingDomain>(*s_slave.pending, [](PendingDomain& pending) {
    if (masterIsSynchronous()) {
      sendDomainRegistrationReq(pending.domain);
      AaSysLogPrintE(kTrace, kFeature, "sendDomainRegistration(): Synch sendDomainRegistrationReq, domain %u", pending.domain);
    } else {
      sendDomainRegistrationInd(pending.domain);
      AaSysLogPrintE(kTrace, kFeature, "sendDomainRegistration(): Asynch sendDomainRegistrationInd, domain %u", pending.domain);
    }
    listRemove(pending.link);
  });
}

void sendNotif(uint32_t subscriber, uint32_t tagId, uint32_t value) {
  void* msg = createMessage(AACONFIG_RAD_CHANGE_NOTIF_MSG, sizeof(SAaConfigRadChangeNotif), subscriber);
  if (msg == nullptr) {
    AaSysLogPrintE(kError, kFeature, "sendNotif(): Could not send AACONFIG_RAD_CHANGE_NOTIF_MSG for tag %u to SICAD 0x%08X", tagId,
                   subscriber);
    return;
  }
  auto* notification = static_cast<SAaConfigRadChangeNotif*>(AaSysComMsgGetPayload(msg));
  notification->tagId = tagId;
  notification->value = value;
  AaSysLogPrintE(kInfo, kFeature, "sendNotif(): AACONFIG_RAD_CHANGE_NOTIF_MSG for tag 0x%x, value 0x%x to SICAD 0x%08X", tagId,
                 value, subscriber);
  AaSysComMsgSend(&msg);
}

void sendUpdateNotif(uint32_t subscriber, uint32_t domain) {
  void* msg = createMessage(AACONFIG_RAD_UPDATE_NOTIF_MSG, sizeof(SAaConfigRadDomainMsg), subscriber);
  if (msg == nullptr) {
    AaSysLogPrintE(kError, kFeature, "sendUpdateNotif(): Could not send AACONFIG_RAD_UPDATE_NOTIF_MSG for domain %u to SICAD 0x%08X",
                   domain, subscriber);
    return;
  }
  static_cast<SAaConfigRadDomainMsg*>(AaSysComMsgGetPayload(msg))->domain = domain;
  AaSysLogPrintE(kTrace, kFeature, "sendUpdateNotif(): AACONFIG_RAD_UPDATE_NOTIF_MSG for domain %u to SICAD 0x%08X", domain,
                 subscriber);
  AaSysComMsgSend(&msg);
}

// ---- Handlers -----------------------------------------------------------------------------------

void handleMasterInd(void* msg) {
  const uint32_t master = AaSysComMsgGetSender(msg);
  AaSysLogPrintE(kTrace, kFeature, "handleMasterInd(): masterSicad == 0x%08X", master);
  if (AaConfigTagIsSet(kMasterNidTag) == 0) AaConfigTagSetU16(kMasterNidTag, AaSysComSicadGetNid(master));
  s_slave.masterSicad = master;
  sendDomainRegistration();
}

void markSynched(uint32_t domain) {
  char name[kSynchedTagSize];
  const int32_t length = AaConfigRadGetDomainSynchedTagString(name, sizeof(name), domain);
  if (length < 0 || static_cast<uint32_t>(length) >= sizeof(name) || AaConfigTagSetU32(name, 1) != 0) {
    AaSysLogPrintE(kError, kFeature, "handleDomainRegisterRsp: Could not set registration tag for Domain %u", domain);
  }
}

void handleDomainRegisterRsp(void* msg) {
  const uint32_t sender = AaSysComMsgGetSender(msg);
  AaSysLogPrintE(kTrace, kFeature, "handleDomainRegisterRsp() SICAD 0x%x", sender);
  const Payload payload(msg);
  constexpr uint32_t kHeaderWords = AACONFIG_RAD_DOMAIN_REGISTER_RSP_HEADER_SIZE / kWordSize;
  if (!payload.holds(kHeaderWords) || !payload.holdsRecords(kHeaderWords, payload.word(3), kParamWords)) {
    AaSysLogPrintE(kError, kFeature, "handleDomainRegisterRsp() - Synch Domain registration failed");
    return;
  }
  const uint32_t domain = payload.word(0);
  const uint32_t status = payload.word(1);
  const uint32_t count = payload.word(3);
  if (status == AACONFIG_RAD_STATUS_FAILED) {
    AaSysLogPrintE(kError, kFeature, "handleDomainRegisterRsp() - Synch Domain registration for Domain %u failed", domain);
    return;
  }
  if (status != AACONFIG_RAD_STATUS_OK) {
    AaSysLogPrintE(kError, kFeature, "handleDomainRegisterRsp() - Received unknown status %u for Domain %u, registration failed",
                   status, domain);
    return;
  }
  AaSysLogPrintE(kInfo, kFeature, "handleDomainRegisterRsp() - Synch Domain registration for Domain %u SICAD 0x%x OK", domain,
                 sender);
  AaSysLogPrintE(kInfo, kFeature, "handleDomainRegisterRsp() - Set %u parameters", count);
  bool outputModeGiven = false;
  for (uint32_t i = 0; i < count; ++i) {
    const uint32_t index = payload.word(kHeaderWords + i * kParamWords);
    const uint32_t value = payload.word(kHeaderWords + i * kParamWords + 2);
    const uint32_t tagId = tagIdOf(domain, index);
    if (AaConfigRadSetValue(tagId, value) == EAaConfigRadRet_Ok) {
      AaSysLogPrintE(kTrace, kFeature, "handleDomainRegisterRsp() - Parameter(0x%x) = 0x%x", tagId, value);
    } else {
      AaSysLogPrintE(kError, kFeature, "handleDomainRegisterRsp() - Could not write R&D tag 0x%08X", tagId);
    }
    outputModeGiven = outputModeGiven || index == kOutputModeIndex;
  }
  if (count != 0) notifUpdateSubscribers(domain);
  // A master that answers for domain 1 owns the system log's output: unless it names the output
  // mode, the node stops sending log lines (the built-in default would send them).
  if (domain == AACONFIG_RAD_OLM_DOMAIN && !outputModeGiven) {
    AaConfigRadSetValue(tagIdOf(AACONFIG_RAD_OLM_DOMAIN, kOutputModeIndex), 0);
  }
  markSynched(domain);
}

void handleDomainUnRegisterRsp(void* msg) {
  AaSysLogPrintE(kTrace, kFeature, "handleDomainUnRegisterRsp()");
  const Payload payload(msg);
  if (!payload.holds(sizeof(SAaConfigRadDomainStatus) / kWordSize)) {
    AaSysLogPrintE(kError, kFeature, "handleDomainUnRegisterRsp() - Synch Domain unregistration failed");
    return;
  }
  const uint32_t domain = payload.word(0);
  const uint32_t status = payload.word(1);
  if (status == AACONFIG_RAD_STATUS_FAILED) {
    AaSysLogPrintE(kError, kFeature, "handleDomainUnRegisterRsp() - Synch Domain unregistration for Domain %u failed", domain);
    return;
  }
  if (status != AACONFIG_RAD_STATUS_OK) {
    AaSysLogPrintE(kError, kFeature, "handleDomainUnRegisterRsp() - Received unknown status %u for Domain %u, unregistration failed",
                   status, domain);
    return;
  }
  AaSysLogPrintE(kInfo, kFeature, "handleDomainUnRegisterRsp() - Synch Domain unregistration for Domain %u OK", domain);
  char name[kSynchedTagSize];
  const int32_t length = AaConfigRadGetDomainSynchedTagString(name, sizeof(name), domain);
  if (length < 0 || static_cast<uint32_t>(length) >= sizeof(name) || AaConfigTagDelete(name) != 0) {
    AaSysLogPrintE(kError, kFeature, "handleDomainUnRegisterRsp: Could not delete registration tag for Domain %u", domain);
  }
}

void handleSetMasterNidMsg(void* msg) {
  AaSysLogPrintE(kTrace, kFeature, "handleSetMasterNidMsg() started");
  const Payload payload(msg);
  if (!payload.holds(1)) {
    AaSysLogPrintE(kError, kFeature, "handleSetMasterNidMsg(): payLoad error in message");
    return;
  }
  const uint32_t requested = payload.word(0);
  const EAaConfigRet stored =
      AaConfigTagPublicSetU16(kMasterNidTag, static_cast<uint16_t>(requested & AACONFIG_RAD_INDEX_MASK));
  void* reply = createMessage(AACONFIG_SET_MASTERNID_RESP_MSG, sizeof(SAaConfigSetMasterNidResp), AaSysComMsgGetSender(msg));
  if (reply == nullptr) {
    AaSysLogPrintE(kError, kFeature, "handleSetMasterNidMsg() MsgCreate failed - could not send AACONFIG_SET_MASTERNID_RESP_MSG");
    return;
  }
  auto* response = static_cast<SAaConfigSetMasterNidResp*>(AaSysComMsgGetPayload(reply));
  response->status = stored == EAaConfigRet_Ok ? AACONFIG_RAD_STATUS_OK : AACONFIG_RAD_STATUS_FAILED;
  response->masterNid = requested;
  AaSysComMsgSend(&reply);
  AaSysLogPrintE(kTrace, kFeature, "handleSetMasterNidMsg() done");
}

using GetAll = uint32_t (*)(uint32_t* buffer, uint32_t domain);

// Answers a get request with every tag of the domain; false when the payload holds no domain.
bool answerGet(void* msg, uint32_t responseId, GetAll getAll, uint32_t& domain, uint32_t& count) {
  const Payload payload(msg);
  if (!payload.holds(1)) return false;
  domain = payload.word(0);
  count = AaConfigRadGetTagCount(domain);
  // A domain holds at most 2500 tags, so the size always fits the 16-bit payload size.
  void* reply = createMessage(responseId, AACONFIG_RAD_PARAMS_RESP_SIZE(count) & AACONFIG_RAD_INDEX_MASK,
                              AaSysComMsgGetSender(msg));
  if (reply == nullptr) {
    count = UINT32_MAX;
    return true;
  }
  auto* response = static_cast<SAaConfigRadParamsResp*>(AaSysComMsgGetPayload(reply));
  response->domain = domain;
  response->count = count;
  getAll(wordsOf(reply) + AACONFIG_RAD_PARAMS_RESP_HEADER_SIZE / kWordSize, domain);
  AaSysComMsgSend(&reply);
  return true;
}

void handleGetRDParamsReq(void* msg) {
  AaSysLogPrintE(kTrace, kFeature, "handleGetRDParamsReq()");
  uint32_t domain = 0;
  uint32_t count = 0;
  if (!answerGet(msg, AACONFIG_RAD_GET_PARAMS_RESP_MSG, AaConfigRadGetAllTags, domain, count)) {
    AaSysLogPrintE(kError, kFeature, "handleGetRDParamsReq(): payLoad error in request message");
  } else if (count == UINT32_MAX) {
    AaSysLogPrintE(kError, kFeature, "handleGetRDParamsReq(): Could not create AACONFIG_RAD_GET_PARAMS_RESP_MSG");
  } else {
    AaSysLogPrintE(kTrace, kFeature, "handleGetRDParamsReq(): domain = %u, no of parameters = %u", domain, count);
  }
}

void handleGetDefRDParamsReq(void* msg) {
  AaSysLogPrintE(kTrace, kFeature, "handleGetDefRDParamsReq()");
  uint32_t domain = 0;
  uint32_t count = 0;
  if (!answerGet(msg, AACONFIG_RAD_GET_DEFAULT_PARAMS_RESP_MSG, AaConfigRadGetAllDefTags, domain, count)) {
    AaSysLogPrintE(kError, kFeature, "handleGetDefRDParamsReq(): payLoad error in request message");
  } else if (count == UINT32_MAX) {
    AaSysLogPrintE(kError, kFeature, "handleGetDefRDParamsReq(): Could not create AACONFIG_RAD_GET_DEFAULT_PARAMS_RESP_MSG");
  }
}

bool isReset(uint32_t mode) {
  return mode == EAaConfigRadSetMode_Defaults || mode == EAaConfigRadSetMode_DefaultsForwarded;
}

bool writesParameters(uint32_t mode) { return mode <= EAaConfigRadSetMode_ValuesKeptSynch && !isReset(mode); }

void resetAllDomains() {
  const uint32_t domainCount = AaConfigRadGetDomainCount();
  for (uint32_t domain = 0; domain < domainCount; ++domain) {
    AaConfigRadSetDefaultValues(domain);
    AaSysTimeSleep(kSleepDuration, kSleepUnit);
  }
}

// The status of writing the request's parameters.
uint32_t writeParameters(const Payload& payload, uint32_t domain, uint32_t count) {
  constexpr uint32_t kHeaderWords = AACONFIG_RAD_SET_PARAMS_REQ_HEADER_SIZE / kWordSize;
  uint32_t status = AACONFIG_RAD_STATUS_OK;
  for (uint32_t i = 0; i < count; ++i) {
    const uint32_t tagId = tagIdOf(domain, payload.word(kHeaderWords + i * kParamWords));
    if (AaConfigRadSetValue(tagId, payload.word(kHeaderWords + i * kParamWords + 2)) != EAaConfigRadRet_Ok) {
      status = AACONFIG_RAD_SET_STATUS_FAILED;
      AaSysLogPrintE(kError, kFeature, "handleSetRDParamsReq() - Could not write R&D tag 0x%08X", tagId);
    }
  }
  if (count != 0) {
    AaSysLogPrintE(kInfo, kFeature, "handleSetRDParamsReq(): set %u parameters", count);
    notifUpdateSubscribers(domain);
  }
  // Modes 2 and 4 ask for the values to outlive a restart as well; this node keeps no file of
  // them, so the values written are all there is.
  return status;
}

// The master hears of changes others made, as a plain write: the master keeps its own copy.
void forwardToMaster(const void* msg, uint32_t mode) {
  void* copy = AaSysComMsgCreateCopyTo(msg, s_slave.masterSicad);
  if (copy == nullptr) {
    AaSysLogPrintE(kError, kFeature, "handleSetRDParamsReq(): Couldn't send sync node message");
    return;
  }
  if (mode == EAaConfigRadSetMode_ValuesKept || mode == EAaConfigRadSetMode_ValuesKeptSynch) {
    Payload(copy).setWord(1, EAaConfigRadSetMode_Values);
  }
  AaSysComMsgSetSender(copy, s_slave.slaveSicad);
  AaSysComMsgSetId(copy, AACONFIG_RAD_SYNC_NODE_MSG);
  AaSysComMsgSend(&copy);
}

void handleSetRDParamsReq(void* msg) {
  AaSysLogPrintE(kTrace, kFeature, "handleSetRDParamsReq()");
  const uint32_t requester = AaSysComMsgGetSender(msg);
  void* reply = createMessage(AACONFIG_RAD_SET_PARAMS_RESP_MSG, sizeof(SAaConfigRadDomainStatus), requester);
  if (reply == nullptr) {
    AaSysLogPrintE(kError, kFeature, "handleSetRDParamsReq() - No Memory for response message");
    return;
  }
  Payload payload(msg);
  constexpr uint32_t kHeaderWords = AACONFIG_RAD_SET_PARAMS_REQ_HEADER_SIZE / kWordSize;
  if (!payload.holds(kHeaderWords) ||
      (writesParameters(payload.word(1)) && !payload.holdsRecords(kHeaderWords, payload.word(2), kParamWords))) {
    AaSysLogPrintE(kError, kFeature, "handleSetRDParamsReq(): payLoad error in request message");
    AaSysComMsgDestroy(&reply);
    return;
  }
  const uint32_t domain = payload.word(0);
  uint32_t mode = payload.word(1);
  uint32_t status = AACONFIG_RAD_STATUS_OK;
  if (mode > EAaConfigRadSetMode_ValuesKeptSynch) {
    status = AACONFIG_RAD_SET_STATUS_FAILED;
  } else {
    if (isReset(mode)) {
      mode = EAaConfigRadSetMode_DefaultsForwarded;
      payload.setWord(1, mode);
      resetAllDomains();
    } else {
      status = writeParameters(payload, domain, payload.word(2));
    }
    if (AaSysComSicadGetCpid(requester) != AACONFIG_RAD_MASTER_CPID && masterIsSynchronous()) {
      forwardToMaster(msg, mode);
    }
  }
  auto* response = static_cast<SAaConfigRadDomainStatus*>(AaSysComMsgGetPayload(reply));
  response->domain = domain;
  response->status = status;
  AaSysComMsgSend(&reply);
}

using Handler = void (*)(void* msg);

struct HandledMessage {
  uint32_t id;
  const char* receipt;
  Handler handle;
};

constexpr HandledMessage kHandled[] = {
    {AACONFIG_RAD_MASTER_IND_MSG, "handleMessages(): 0x%x received AACONFIG_RAD_MASTER_IND_MSG from 0x%x", handleMasterInd},
    {AACONFIG_RAD_DOMAIN_REGISTER_RSP_MSG, "handleMessages(): 0x%x received AACONFIG_RAD_DOMAIN_REGISTER_RSP_MSG from 0x%x",
     handleDomainRegisterRsp},
    {AACONFIG_SET_MASTERNID_REQ, "handleMessages(): 0x%x received AACONFIG_SET_MASTERNID_REQ from 0x%x", handleSetMasterNidMsg},
    {AACONFIG_RAD_GET_DEFAULT_PARAMS_REQ_MSG,
     "handleMessages(): 0x%x received AACONFIG_RAD_GET_DEFAULT_PARAMS_REQ_MSG from 0x%x", handleGetDefRDParamsReq},
    {AACONFIG_RAD_SET_PARAMS_REQ_MSG, "handleMessages(): 0x%x received AACONFIG_RAD_SET_PARAMS_REQ_MSG from 0x%x",
     handleSetRDParamsReq},
    {AACONFIG_RAD_GET_PARAMS_REQ_MSG, "handleMessages(): 0x%x received AACONFIG_RAD_GET_PARAMS_REQ_MSG from 0x%x",
     handleGetRDParamsReq},
    {AACONFIG_RAD_DOMAIN_UNREGISTER_RSP_MSG,
     "handleMessages(): 0x%x received AACONFIG_RAD_DOMAIN_UNREGISTER_RSP_MSG from 0x%x", handleDomainUnRegisterRsp},
};

// Receipt texts come from the table above; each holds exactly the two %x the call passes.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
void logReceipt(const char* receipt, uint32_t sender) {
  AaSysLogPrintE(kTrace, kFeature, receipt, s_slave.slaveSicad, sender);
}
#pragma GCC diagnostic pop

bool handleStartUp() {
  AaSysLogPrintE(kTrace, kFeature, "handleStartUp() started");
  if (s_slave.pending == nullptr) s_slave.pending = listCreate();
  if (s_slave.pending == nullptr) {
    AaSysLogPrintE(kError, kFeature, "handleStartUp(): No memory for domainRegisterPendingList");
    return false;
  }
  AaSysLogPrintE(kInfo, kFeature, "handleStartUp(): ready");
  return true;
}

}  // namespace

namespace Olm {

int AaConfigEu::PrioritizeMessage(void*& /*msg*/) { return kLowQueue; }

void AaConfigEu::ProcessMessage(void*& msg) {
  if (msg == nullptr) return;
  const uint32_t id = AaSysComMsgGetId(msg);
  const uint32_t sender = AaSysComMsgGetSender(msg);
  const HandledMessage* handled = nullptr;
  for (const HandledMessage& candidate : kHandled) {
    if (candidate.id == id) handled = &candidate;
  }
  if (handled != nullptr) {
    logReceipt(handled->receipt, sender);
    handled->handle(msg);
  } else {
    AaSysLogPrintE(kWarning, kFeature, "handleMessages(), 0x%x received unknown message 0x%x from 0x%x", s_slave.slaveSicad, id,
                   sender);
  }
  AaSysComMsgDestroy(&msg);
}

AaConfigEu& AaConfigEuInstance() {
  static AaConfigEu eu;
  return eu;
}

namespace Rad {

void registerDomainsToMaster(uint32_t domain, uint32_t mode) {
  AaSysLogPrintE(kTrace, AACONFIG_RAD_FEATURE_ID, "registerDomainsToMaster(): domain = %u, mode = %u", domain, mode);
  if (s_slave.pending == nullptr) s_slave.pending = listCreate();
  auto* pending = newRecord<PendingDomain>();
  pending->domain = domain;
  pending->mode = mode;
  circularListAppend(*s_slave.pending, pending->link);
  if (s_slave.slaveSicad != 0 && s_slave.masterSicad != 0) sendDomainRegistration();
}

// A domain still waiting for the master is simply not announced; one the master knows is taken
// back from it.
void unRegisterDomainFromMaster(uint32_t domain) {
  if (s_slave.pending != nullptr) {
    listForEach<PendingDomain>(*s_slave.pending, [domain](PendingDomain& pending) {
      if (pending.domain == domain) listRemove(pending.link);
    });
  }
  if (s_slave.masterSicad == 0) return;
  AaSysLogPrintE(kTrace, kFeature, "sendDomainUnRegistrationReq(): Processing domain unregistration for domain %u from slave 0x%08X\n",
                 domain, s_slave.slaveSicad);
  void* msg = createMessage(AACONFIG_RAD_DOMAIN_UNREGISTER_REQ_MSG, sizeof(SAaConfigRadDomainUnregisterReq), s_slave.masterSicad);
  if (msg == nullptr) {
    AaSysLogPrintE(kError, kFeature, "sendDomainUnRegistrationReq: Could not create unregistration request msg for domain %u",
                   domain);
    return;
  }
  auto* request = static_cast<SAaConfigRadDomainUnregisterReq*>(AaSysComMsgGetPayload(msg));
  request->slaveSicad = s_slave.slaveSicad;
  request->domain = domain;
  AaSysLogPrintE(kTrace, kFeature, "sendDomainUnRegistrationReq(): Sending domain unregistration from SicAd 0x%08X to 0x%08X\n",
                 s_slave.slaveSicad, s_slave.masterSicad);
  AaSysComMsgSend(&msg);
  AaSysLogPrintE(kTrace, kFeature, "sendDomainUnRegistration(): Synch sendDomainUnRegistrationReq, domain %u", domain);
}

// One notification per matching subscription: a subscriber subscribed twice hears twice.
void notifSubscribers(const CircularListElement& changes) {
  if (subscriberList == nullptr) return;
  listForEach<Subscriber>(subscriberList->head, [&changes](Subscriber& subscriber) {
    listForEach<TagValue>(changes, [&subscriber](TagValue& change) {
      listForEach<Subscription>(*subscriber.tags, [&subscriber, &change](Subscription& item) {
        if (item.id == change.tagId) sendNotif(subscriber.sicad, change.tagId, change.value);
      });
    });
  });
}

void notifUpdateSubscribers(uint32_t domain) {
  AaSysLogPrintE(kTrace, kFeature, "notifUpdateSubscribers(): domain %u", domain);
  if (subscriberList == nullptr) return;
  listForEach<Subscriber>(subscriberList->head, [domain](Subscriber& subscriber) {
    listForEach<Subscription>(*subscriber.domains, [&subscriber, domain](Subscription& item) {
      if (item.id == domain) sendUpdateNotif(subscriber.sicad, domain);
    });
  });
}

void releaseSlave() {
  listFree(s_slave.pending);
  s_slave = SlaveState{};
}

}  // namespace Rad
}  // namespace Olm

extern "C" {

void AaConfigRadSlave(void) {
  Olm::IRuntime* runtime = Olm::IRuntime::getTheRuntime();
  if (runtime == nullptr) {
    AaSysLogPrintE(kError, kFeature, "AaConfigRadSlave(): no Dispatcher to bind AaConfigEu to");
    return;
  }
  s_slave.slaveSicad = AaSysComSicadGet(AACONFIG_RAD_SLAVE_CPID, AaSysComGetOwnNid());
  AaSysLogPrintE(kInfo, kFeature, "Registered to AaSysCom, SicAdress = 0x%x", s_slave.slaveSicad);
  AaConfigTagSetU32(AACONFIG_RAD_SLAVE_ADDR_TAG, s_slave.slaveSicad);
  AaSysMbSubscribe(AACONFIG_RAD_MASTER_IND_MSG, s_slave.slaveSicad, AACONFIG_RAD_MASTER_IND_MODE, AACONFIG_RAD_MASTER_IND_ZONE);
  AaSysLogPrintE(kTrace, kFeature, "RadSlaveConfigListener(): AACONFIG_RAD_MASTER_IND_MSG subscribed!");
  if (!handleStartUp()) {
    AaSysLogPrintE(kError, kFeature, "AaConfigRadSlave: handleStartUp() failed!");
    return;
  }
  Olm::IAaSysDispatcherSicHandler* bound = runtime->boundEu(AACONFIG_RAD_SLAVE_CPID);
  if (bound == nullptr) {
    runtime->bindEu(Olm::AaConfigEuInstance(), AACONFIG_RAD_SLAVE_CPID);
  } else if (bound != &Olm::AaConfigEuInstance()) {
    AaSysLogPrintE(kError, kFeature, "AaConfigRadSlave(): CPID 0x%x belongs to another EU", AACONFIG_RAD_SLAVE_CPID);
  }
}

uint32_t AaConfigEeShutdown(void) {
  uint32_t slaveSicad = 0;
  AaConfigTagGetU32(AACONFIG_RAD_SLAVE_ADDR_TAG, &slaveSicad);
  AaSysLogPrintE(kInfo, kFeature, "AaConfigEeShutdown(): Unsubscribe messages of AaConfigRadSlave 0x%08x", slaveSicad);
  AaSysMbUnsubscribe(AACONFIG_RAD_MASTER_IND_MSG, slaveSicad, AACONFIG_RAD_MASTER_IND_ZONE);
  return 0;
}

uint32_t AaConfigSlaveGetCpid(void) { return AACONFIG_RAD_SLAVE_CPID; }

}  // extern "C"
