#include "SicFtpFwEu.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "AaConfig.h"
#include "AaSysCom.h"
#include "AaSysComMsgHeader.h"
#include "AaSysLog.h"
#include "RamRoot.h"

namespace Olm {

namespace {

constexpr int kLowPriority = 3;
constexpr const char* kMasterNidTag = "olm.service.aasyscom.masternid";
constexpr uint16_t kGroupMask = 0xFFF0;
constexpr uint16_t kFileServiceNodeDigit = 0xD;
constexpr uint32_t kBrowseReplySizeMask = 0xFFFF;
// The reply's payload size is the data length plus this, cut to 16 bits.
constexpr uint32_t kBrowseReplySizeExtra = 15;
constexpr uint32_t kBrowseReplyClearedBytes = 16;
constexpr uint32_t kBrowseStatusOffset = 0;
constexpr uint32_t kBrowseLengthOffset = 4;
constexpr uint32_t kBrowseAddressOffset = 8;
constexpr uint32_t kWordSize = 4;

constexpr const char* kNoPayloadFormat = "%s(): AaSysComMsgGetPayload() cannot get payload pointer! (reqPtr=GLO_NULL)";

// The payload's size from the header, or false when the total length cannot even hold the header
// (and the trailer the envelope format announces).
bool payloadSize(const void* msg, uint32_t& size) {
  const uint32_t total = AaSysComMsgGetBulkMsgLength(msg);
  const uint32_t envelope =
      AASYSCOM_HEADER_SIZE + (AaSysComMsgGetMef(msg) == AASYSCOM_MEF_TRAILER ? AASYSCOM_TRAILER_SIZE : 0u);
  if (total < envelope) return false;
  size = total - envelope;
  return true;
}

uint32_t readWord(const uint8_t* at) {
  uint32_t word;
  std::memcpy(&word, at, sizeof(word));
  return word;
}

// Writes the word only if it lies wholly inside the payload.
void writeWordWithin(uint8_t* payload, uint32_t size, uint32_t offset, uint32_t word) {
  if (offset + kWordSize <= size) std::memcpy(payload + offset, &word, sizeof(word));
}

uint16_t fileServiceNid(uint16_t ownNid) {
  uint16_t nid = static_cast<uint16_t>((ownNid & kGroupMask) | kFileServiceNodeDigit);
  uint16_t master = 0;
  if (AaConfigTagIsSet(kMasterNidTag) != 0 && AaConfigTagGetU16(kMasterNidTag, &master) == EAaConfigRet_Ok) {
    nid = master;
  }
  return nid;
}

// The last component of the path held in the first size bytes of text (up to a terminator, if
// there is one): the last run of characters other than '/', at most kMaxFileNameLength of them.
// Returns its length, 0 when the path has no component.
size_t lastPathComponent(const char* text, size_t size, char (&component)[SicFtpFwEu::kMaxFileNameLength + 1]) {
  const size_t length = strnlen(text, size);
  size_t end = length;
  while (end > 0 && text[end - 1] == '/') --end;
  size_t start = end;
  while (start > 0 && text[start - 1] != '/') --start;
  const size_t kept = std::min<size_t>(end - start, SicFtpFwEu::kMaxFileNameLength);
  std::memcpy(component, text + start, kept);
  component[kept] = '\0';
  return kept;
}

}  // namespace

int SicFtpFwEu::PrioritizeMessage(void*&) { return kLowPriority; }

void SicFtpFwEu::ProcessMessage(void*& msg) {
  const uint32_t sender = AaSysComMsgGetSender(msg);
  switch (AaSysComMsgGetId(msg)) {
    case kGetReqMsgId:
      handleSicFtpFwGetReq(sender, msg);
      break;
    case kBrowserDspMemReqMsgId:
      handleBrowserDspMemReq(sender, msg);
      break;
    default:
      AaSysLogPrint(EAaSysLogSeverityLevel_Error, "ProcessMessage(), 0x%x received unknown message 0x%x from 0x%x",
                    AaSysComGetOwnNid(), AaSysComMsgGetId(msg), sender);
      break;
  }
}

void SicFtpFwEu::handleSicFtpFwGetReq(uint32_t sender, void* msg) {
  static constexpr const char* kHandler = "handleSicFtpFwGetReq";
  const uint16_t ownNid = AaSysComGetOwnNid();
  const uint16_t targetNid = fileServiceNid(ownNid);
  uint32_t size = 0;
  if (!payloadSize(msg, size)) {
    AaSysLogPrint(EAaSysLogSeverityLevel_Error, kNoPayloadFormat, kHandler);
    return;
  }
  auto* path = static_cast<char*>(AaSysComMsgGetPayload(msg));
  AaSysComMsgSetReceiver(&msg, AaSysComSicadGet(AaSysComSicadGetCpid(AaSysComMsgGetReceiver(msg)), targetNid));

  char fileName[kMaxFileNameLength + 1];
  if (lastPathComponent(path, size, fileName) == 0) {
    AaSysLogPrint(EAaSysLogSeverityLevel_Error, "%s(): Could not find ttitraceDL/UL filename path received %.*s",
                  kHandler, static_cast<int>(strnlen(path, size)), path);
    return;
  }
  // The new path goes where the old one was, in the request's own payload: a request shorter than
  // the usual path field gets its path cut to what it holds.
  std::snprintf(path, std::min(size, kMaxPathSize), "%s/olm_lite/0x%x/fusemnt/%s", ramRoot(), ownNid, fileName);

  if (targetNid == ownNid || targetNid == AASYSCOM_NID_THIS_NODE) {
    AaSysLogPrint(EAaSysLogSeverityLevel_Error, "%s(): file service node 0x%x is this node, request from 0x%x dropped",
                  kHandler, targetNid, sender);
    return;
  }
  if (sender == 0) {
    AaSysLogPrint(EAaSysLogSeverityLevel_Error, "%s(): request without sender, not forwarded", kHandler);
    return;
  }
  // The Dispatcher's reference stays: it frees this buffer after the send (see the header).
  AaSysComMsgSend(&msg);
}

void SicFtpFwEu::handleBrowserDspMemReq(uint32_t, void* msg) {
  uint32_t requestSize = 0;
  if (!payloadSize(msg, requestSize) || requestSize < kBrowseDataOffset) {
    AaSysLogPrint(EAaSysLogSeverityLevel_Error, kNoPayloadFormat, "handleBrowserDspMemReq");
    return;
  }
  const auto* request = static_cast<const uint8_t*>(AaSysComMsgGetPayload(msg));
  const uint32_t type = readWord(request);
  const uint32_t length = readWord(request + kBrowseLengthOffset);
  const uint32_t address = readWord(request + kBrowseAddressOffset);

  // The reply's size wraps at 16 bits: a length above 65520 gets a reply of a few bytes, one from
  // 65505 to 65520 a size no message can have (creation fails). Every write below stays inside
  // the reply as created, whatever the length asks for.
  const uint32_t replySize = (length + kBrowseReplySizeExtra) & kBrowseReplySizeMask;
  void* reply = AaSysComMsgCreateReply(kBrowserDspMemAckMsgId, static_cast<TAaSysComMsgSize>(replySize), msg);
  if (reply == nullptr) {
    AaSysLogPrint(EAaSysLogSeverityLevel_Error, "Failed to BROWSER_DSP_MEMORY_ACK message.");
    return;
  }
  auto* data = static_cast<uint8_t*>(AaSysComMsgGetPayload(reply));
  if (data == nullptr) {
    AaSysLogPrint(EAaSysLogSeverityLevel_Error, "Failed to get BROWSER_DSP_MEMORY_ACK payload.");
    AaSysComMsgDestroy(&reply);
    return;
  }
  std::memset(data, 0, std::min(replySize, kBrowseReplyClearedBytes));
  writeWordWithin(data, replySize, kBrowseStatusOffset, type == kBrowseTypeNoData ? kBrowseStatusNoData : 0);
  writeWordWithin(data, replySize, kBrowseLengthOffset, length);
  writeWordWithin(data, replySize, kBrowseAddressOffset, address);
  if (length != 0 && type == kBrowseTypeCopy && replySize > kBrowseDataOffset) {
    const uint32_t copied = std::min(length, replySize - kBrowseDataOffset);
    std::memcpy(data + kBrowseDataOffset, reinterpret_cast<const void*>(static_cast<uintptr_t>(address)), copied);
  }
  AaSysComMsgSend(&reply);
}

}  // namespace Olm
