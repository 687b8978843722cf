#include "RadMaster.h"

#include <unistd.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "AaConfigRadMsg.h"
#include "AaSysCom.h"
#include "AaSysLog.h"
#include "AaSysMb.h"

namespace {

constexpr int kLowPriority = 3;
// Log lines go out under the master's own R&D switch in domain 1, AaConfigRadMaster.
constexpr uint32_t kFeatureId = 0x10018;
constexpr uint32_t kLineBytes = 160;
// The runtime's own domain, and in it the system log's output switch: a node whose registration
// answer lacks it switches its log output off, so the master always gives it, never as 0.
constexpr uint16_t kRuntimeDomain = 1;
constexpr uint32_t kLogOutputModeIndex = 0x41;
constexpr uint32_t kLogOutputModeOn = 0xFFFFFFFF;
constexpr uint32_t kFlashValueKept = 1;
constexpr uint32_t kHighestSetMode = EAaConfigRadSetMode_ValuesKeptSynch;

using Params = std::vector<RadStore::Param>;

TAaSysComSicad masterAddress() { return AaSysComSicadGet(AACONFIG_RAD_MASTER_CPID, AaSysComGetOwnNid()); }
TAaSysComSicad slaveOf(uint16_t node) { return AaSysComSicadGet(AACONFIG_RAD_SLAVE_CPID, node); }
uint16_t nodeOf(TAaSysComSicad address) { return AaSysComSicadGetNid(address); }

// A client names the node in the high half of a request's domain word, the domain in the low half.
uint16_t clientNode(uint32_t domainWord) { return static_cast<uint16_t>(domainWord >> 16); }
uint16_t clientDomain(uint32_t domainWord) { return static_cast<uint16_t>(domainWord); }

// One line on the node's standard output, written at once.
void report(const char* format, ...) __attribute__((format(printf, 1, 2)));
void report(const char* format, ...) {
  char line[kLineBytes] = "R&D master: ";
  const size_t prefix = std::strlen(line);
  va_list args;
  va_start(args, format);
  const int length = std::vsnprintf(line + prefix, sizeof(line) - prefix - 1, format, args);
  va_end(args);
  if (length < 0) return;
  const size_t used = std::min(prefix + static_cast<size_t>(length), sizeof(line) - 2);
  line[used] = '\n';
  if (write(STDOUT_FILENO, line, used + 1) < 0) return;
}

// The payload of a received message, read only within its bytes. A message whose total length
// cannot hold its envelope has none.
class Payload {
 public:
  explicit Payload(const void* msg)
      : m_bytes(static_cast<const uint8_t*>(AaSysComMsgGetPayload(msg))), m_size(AaSysComMsgGetPayloadSize(msg)) {
    if (m_size > AaSysComMsgGetBulkMsgLength(msg)) m_size = 0;
  }
  // The record at offset, or false when it does not fit.
  template <typename Record>
  bool read(uint32_t offset, Record& record) const {
    if (offset > m_size || m_size - offset < sizeof(Record)) return false;
    std::memcpy(&record, m_bytes + offset, sizeof(Record));
    return true;
  }
  // At most count records of the given size from offset, as many as the payload holds.
  uint32_t fitting(uint32_t offset, uint32_t recordSize, uint32_t count) const {
    return offset > m_size ? 0 : std::min(count, (m_size - offset) / recordSize);
  }

 private:
  const uint8_t* m_bytes;
  uint32_t m_size;
};

// The parameter list of a set request or a slave's answer: count records after a header.
Params readParams(const Payload& payload, uint32_t offset, uint32_t count) {
  Params params;
  const uint32_t fitting = payload.fitting(offset, AACONFIG_RAD_PARAM_SIZE, count);
  for (uint32_t i = 0; i < fitting; ++i) {
    SAaConfigRadParam record;
    payload.read(offset + i * AACONFIG_RAD_PARAM_SIZE, record);
    params.push_back(RadStore::Param{record.index, record.value, record.value});
  }
  return params;
}

void* create(uint16_t msgId, uint32_t payloadSize, TAaSysComSicad receiver) {
  void* msg = AaSysComMsgCreate(msgId, static_cast<TAaSysComMsgSize>(payloadSize), receiver);
  if (msg == nullptr) {
    AaSysLogPrintE(EAaSysLogSeverityLevel_Error, kFeatureId, "RadMaster: could not create message 0x%x to 0x%08x",
                   msgId, receiver);
    return nullptr;
  }
  AaSysComMsgSetSender(msg, masterAddress());
  return msg;
}

template <typename Record>
void sendRecord(uint16_t msgId, TAaSysComSicad receiver, const Record& record) {
  void* msg = create(msgId, sizeof(record), receiver);
  if (msg == nullptr) return;
  std::memcpy(AaSysComMsgGetPayload(msg), &record, sizeof(record));
  AaSysComMsgSend(&msg);
}

// Header words, then one parameter record per param: index, size, and the value or the default.
template <typename Header>
void sendParams(uint16_t msgId, TAaSysComSicad receiver, const Header& header, const Params& params,
                bool defaults) {
  void* msg = create(msgId, sizeof(Header) + params.size() * AACONFIG_RAD_PARAM_SIZE, receiver);
  if (msg == nullptr) return;
  auto* payload = static_cast<uint8_t*>(AaSysComMsgGetPayload(msg));
  std::memcpy(payload, &header, sizeof(header));
  for (size_t i = 0; i < params.size(); ++i) {
    const SAaConfigRadParam record{params[i].index, AACONFIG_RAD_VALUE_SIZE,
                                   defaults ? params[i].defaultValue : params[i].value};
    std::memcpy(payload + sizeof(Header) + i * AACONFIG_RAD_PARAM_SIZE, &record, sizeof(record));
  }
  AaSysComMsgSend(&msg);
}

struct RegisterReqHeader {
  uint32_t slaveSicad;
  uint32_t domain;
  uint32_t constant;
  uint32_t tagCount;
};
struct RegisterRspHeader {
  uint32_t domain;
  uint32_t status;
  uint32_t reserved;
  uint32_t count;
};
struct ParamsRespHeader {
  uint32_t domain;
  uint32_t count;
};
struct SetParamsReqHeader {
  uint32_t domain;
  uint32_t mode;
  uint32_t count;
};
static_assert(sizeof(RegisterReqHeader) == AACONFIG_RAD_DOMAIN_REGISTER_REQ_HEADER_SIZE, "registration");
static_assert(sizeof(RegisterRspHeader) == AACONFIG_RAD_DOMAIN_REGISTER_RSP_HEADER_SIZE, "registration answer");
static_assert(sizeof(ParamsRespHeader) == AACONFIG_RAD_PARAMS_RESP_HEADER_SIZE, "get answer");
static_assert(sizeof(SetParamsReqHeader) == AACONFIG_RAD_SET_PARAMS_REQ_HEADER_SIZE, "set request");

}  // namespace

int RadMaster::PrioritizeMessage(void*&) { return kLowPriority; }

void RadMaster::start(const std::vector<uint16_t>& liveNodes) {
  m_nodesToAsk.clear();
  for (uint16_t node : liveNodes) {
    if (node != AaSysComGetOwnNid()) m_nodesToAsk.push_back(node);
  }
  void* msg = create(kStartMsgId, 0, masterAddress());
  if (msg != nullptr) AaSysComMsgSend(&msg);
}

void RadMaster::ProcessMessage(void*& msg) {
  handle(msg);
  AaSysComMsgDestroy(&msg);
}

void RadMaster::handle(const void* msg) {
  const bool fromSlave = AaSysComSicadGetCpid(AaSysComMsgGetSender(msg)) == AACONFIG_RAD_SLAVE_CPID;
  switch (AaSysComMsgGetId(msg)) {
    case kStartMsgId:
      if (AaSysComMsgGetSender(msg) == masterAddress()) {
        announce();
        askNodes();
      }
      return;
    case AACONFIG_RAD_DOMAIN_REGISTER_REQ_MSG: return handleRegisterReq(msg);
    case AACONFIG_RAD_DOMAIN_UNREGISTER_REQ_MSG: return handleUnregisterReq(msg);
    case AACONFIG_RAD_SYNC_NODE_MSG: return handleSyncNode(msg);
    case AACONFIG_RAD_SET_PARAMS_RESP_MSG: return handleSlaveSetResp(msg);
    case AACONFIG_RAD_GET_PARAMS_RESP_MSG: return handleSlaveParams(msg, false);
    case AACONFIG_RAD_GET_DEFAULT_PARAMS_RESP_MSG: return handleSlaveParams(msg, true);
    case AACONFIG_RAD_GET_PARAMS_REQ_MSG: return fromSlave ? void() : handleClientGet(msg, false);
    case AACONFIG_RAD_GET_DEFAULT_PARAMS_REQ_MSG: return fromSlave ? void() : handleClientGet(msg, true);
    case AACONFIG_RAD_SET_PARAMS_REQ_MSG: return fromSlave ? void() : handleClientSet(msg);
    default:
      AaSysLogPrintE(EAaSysLogSeverityLevel_Warning, kFeatureId, "RadMaster: unknown message 0x%x from 0x%08x",
                     AaSysComMsgGetId(msg), AaSysComMsgGetSender(msg));
      return;
  }
}

// Stored (mode 1), so that slaves starting later get it when they subscribe.
void RadMaster::announce() {
  void* payload = AaSysMbPrepare(sizeof(uint32_t), AACONFIG_RAD_MASTER_IND_MSG, masterAddress(),
                                 EAaSysMbPublMode_Replace, AACONFIG_RAD_MASTER_IND_ZONE);
  if (payload == nullptr) {
    report("could not announce itself on node 0x%x", AaSysComGetOwnNid());
    return;
  }
  const uint32_t address = masterAddress();
  std::memcpy(payload, &address, sizeof(address));
  AaSysMbPublish(&payload);
  report("serving on node 0x%x", AaSysComGetOwnNid());
}

void RadMaster::askNodes() {
  for (uint16_t node : m_nodesToAsk) {
    for (uint32_t domain = 0; domain < kSlaveDomainCount; ++domain) {
      const SAaConfigRadDomainMsg request{domain};
      sendRecord(AACONFIG_RAD_GET_DEFAULT_PARAMS_REQ_MSG, slaveOf(node), request);
      sendRecord(AACONFIG_RAD_GET_PARAMS_REQ_MSG, slaveOf(node), request);
    }
  }
  m_nodesToAsk.clear();
}

// The slave's tags become the domain; a tag whose flash flag is set brings the value this node kept
// for the master. The answer is the master's values, which the slave writes.
void RadMaster::handleRegisterReq(const void* msg) {
  const Payload payload(msg);
  RegisterReqHeader request;
  if (!payload.read(0, request)) {
    AaSysLogPrintE(EAaSysLogSeverityLevel_Error, kFeatureId, "RadMaster: registration from 0x%08x too short",
                   AaSysComMsgGetSender(msg));
    return;
  }
  const uint16_t node = nodeOf(request.slaveSicad);
  const auto domain = static_cast<uint16_t>(request.domain);
  Params registered;
  const uint32_t fitting =
      payload.fitting(AACONFIG_RAD_DOMAIN_REGISTER_REQ_HEADER_SIZE, AACONFIG_RAD_SYNC_TAG_SIZE, request.tagCount);
  for (uint32_t i = 0; i < fitting; ++i) {
    SAaConfigRadSyncTag tag;
    payload.read(AACONFIG_RAD_DOMAIN_REGISTER_REQ_HEADER_SIZE + i * AACONFIG_RAD_SYNC_TAG_SIZE, tag);
    registered.push_back(RadStore::Param{tag.index, tag.defaultValue,
                                         tag.flashFlag == kFlashValueKept ? tag.flashValue : tag.currentValue});
  }
  m_store.registerDomain(node, domain, registered);
  Params answer = *m_store.find(node, domain);
  if (domain == kRuntimeDomain) {
    auto at = std::find_if(answer.begin(), answer.end(),
                           [](const RadStore::Param& param) { return param.index == kLogOutputModeIndex; });
    if (at == answer.end()) at = answer.insert(at, RadStore::Param{kLogOutputModeIndex, kLogOutputModeOn, 0});
    if (at->value == 0) at->value = kLogOutputModeOn;
  }
  const RegisterRspHeader header{request.domain, AACONFIG_RAD_STATUS_OK, 0, static_cast<uint32_t>(answer.size())};
  sendParams(AACONFIG_RAD_DOMAIN_REGISTER_RSP_MSG, request.slaveSicad, header, answer, false);
  report("node 0x%x registered domain %u with %u parameters", node, domain, fitting);
}

void RadMaster::handleUnregisterReq(const void* msg) {
  SAaConfigRadDomainUnregisterReq request;
  if (!Payload(msg).read(0, request)) return;
  const bool known = m_store.unregisterDomain(nodeOf(request.slaveSicad), static_cast<uint16_t>(request.domain));
  const SAaConfigRadDomainStatus answer{request.domain, known ? AACONFIG_RAD_STATUS_OK : AACONFIG_RAD_STATUS_FAILED};
  sendRecord(AACONFIG_RAD_DOMAIN_UNREGISTER_RSP_MSG, request.slaveSicad, answer);
  if (known) report("node 0x%x unregistered domain %u", nodeOf(request.slaveSicad), request.domain);
}

// A set request some client sent to a slave directly, passed on by the slave: the master keeps
// what the node now has.
void RadMaster::handleSyncNode(const void* msg) {
  const Payload payload(msg);
  SetParamsReqHeader header;
  if (!payload.read(0, header)) return;
  const uint16_t node = nodeOf(AaSysComMsgGetSender(msg));
  if (header.mode == EAaConfigRadSetMode_Defaults || header.mode == EAaConfigRadSetMode_DefaultsForwarded) {
    m_store.setDefaults(node);
  } else if (header.mode <= kHighestSetMode) {
    m_store.setValues(node, static_cast<uint16_t>(header.domain),
                      readParams(payload, AACONFIG_RAD_SET_PARAMS_REQ_HEADER_SIZE, header.count));
  }
}

// Answers to the questions of start: count 0 is a domain the node does not have.
void RadMaster::handleSlaveParams(const void* msg, bool defaults) {
  const Payload payload(msg);
  ParamsRespHeader header;
  if (!payload.read(0, header) || header.count == 0) return;
  if (AaSysComSicadGetCpid(AaSysComMsgGetSender(msg)) != AACONFIG_RAD_SLAVE_CPID) return;
  const uint16_t node = nodeOf(AaSysComMsgGetSender(msg));
  const auto domain = static_cast<uint16_t>(header.domain);
  const Params params = readParams(payload, AACONFIG_RAD_PARAMS_RESP_HEADER_SIZE, header.count);
  if (defaults) {
    m_store.learnDefaults(node, domain, params);
  } else {
    m_store.learnValues(node, domain, params);
  }
}

void RadMaster::handleSlaveSetResp(const void* msg) {
  SAaConfigRadDomainStatus answer;
  if (!Payload(msg).read(0, answer) || answer.status == AACONFIG_RAD_STATUS_OK) return;
  AaSysLogPrintE(EAaSysLogSeverityLevel_Error, kFeatureId, "RadMaster: slave 0x%08x failed a set of domain %u",
                 AaSysComMsgGetSender(msg), answer.domain);
}

// Answered from what the master keeps; an unknown node or domain has no parameters.
void RadMaster::handleClientGet(const void* msg, bool defaults) {
  SAaConfigRadDomainMsg request;
  if (!Payload(msg).read(0, request)) return;
  const RadStore::Domain* domain = m_store.find(clientNode(request.domain), clientDomain(request.domain));
  const Params params = domain != nullptr ? *domain : Params{};
  const ParamsRespHeader header{request.domain, static_cast<uint32_t>(params.size())};
  sendParams(defaults ? AACONFIG_RAD_GET_DEFAULT_PARAMS_RESP_MSG : AACONFIG_RAD_GET_PARAMS_RESP_MSG,
             AaSysComMsgGetSender(msg), header, params, defaults);
}

// Checked against what the master keeps, applied there and passed on to the node's slave (from the
// master's CPID, so the slave does not pass it back). Refused, with nothing changed: a mode above 4,
// an unknown node or domain, an index the domain does not have.
void RadMaster::handleClientSet(const void* msg) {
  const Payload payload(msg);
  SetParamsReqHeader header;
  if (!payload.read(0, header)) return;
  const uint16_t node = clientNode(header.domain);
  const uint16_t domain = clientDomain(header.domain);
  const bool defaults =
      header.mode == EAaConfigRadSetMode_Defaults || header.mode == EAaConfigRadSetMode_DefaultsForwarded;
  const Params params = defaults ? Params{} : readParams(payload, AACONFIG_RAD_SET_PARAMS_REQ_HEADER_SIZE, header.count);
  const RadStore::Domain* stored = m_store.find(node, domain);
  bool accepted = header.mode <= kHighestSetMode && stored != nullptr;
  for (const RadStore::Param& param : params) {
    accepted = accepted && std::any_of(stored->begin(), stored->end(),
                                       [&param](const RadStore::Param& known) { return known.index == param.index; });
  }
  if (accepted) {
    if (defaults) {
      m_store.setDefaults(node);
    } else {
      m_store.setValues(node, domain, params);
    }
    const SetParamsReqHeader forwarded{domain, header.mode, static_cast<uint32_t>(params.size())};
    sendParams(AACONFIG_RAD_SET_PARAMS_REQ_MSG, slaveOf(node), forwarded, params, false);
  }
  const SAaConfigRadDomainStatus answer{header.domain, accepted ? AACONFIG_RAD_STATUS_OK : AACONFIG_RAD_SET_STATUS_FAILED};
  sendRecord(AACONFIG_RAD_SET_PARAMS_RESP_MSG, AaSysComMsgGetSender(msg), answer);
}
