// Reading and writing the header, payload, flags and trailer of a message, and SIC addresses.

#include "AaSysComInternal.h"

using Olm::msgHeader;
using namespace Olm::syscom;

namespace {

constexpr uint32_t kTtlWordOffset = 4;  // the second trailer word
constexpr uint32_t kTtlByteMask = 0xFFu;
constexpr uint32_t kSicadNidShift = 16;
constexpr uint32_t kMtmOn = 1u;
constexpr uint32_t kUserRegistered = 1u;
constexpr const char kHeaderLineFormat[] =
    "%s Msg header: id 0x%04x, snd 0x%08x, rcv 0x%08x, size %d, flags 0x%04x";

// The log texts of one TTL function.
struct TtlTexts {
  const char* nullMessage;
  const char* noTrailer;
};

// The trailer word that holds the TTL byte, or null when there is none to touch: a null message
// and a MEF 3 message too short for its trailer are logged, any other MEF simply has no TTL.
unsigned char* ttlWordOf(const void* msg, const TtlTexts& texts) {
  if (msg == nullptr) {
    logFailure(texts.nullMessage);
    return nullptr;
  }
  if (mefOf(msg) != AASYSCOM_MEF_TRAILER) return nullptr;
  auto* trailer = static_cast<unsigned char*>(AaSysComMsgGetTrailer(msg));
  if (trailer == nullptr) {
    logFailure(texts.noTrailer);
    return nullptr;
  }
  return trailer + kTtlWordOffset;
}

uint32_t ttlByteAt(const unsigned char* ttlWord) { return loadWord(ttlWord) & kTtlByteMask; }

void storeTtlByte(unsigned char* ttlWord, uint32_t ttlByte) {
  storeWord(ttlWord, (loadWord(ttlWord) & ~kTtlByteMask) | (ttlByte & kTtlByteMask));
}

bool ttlPresent(uint32_t ttlByte) { return (ttlByte & AASYSCOM_TTL_PRESENT) != 0; }
uint32_t ttlValue(uint32_t ttlByte) { return ttlByte >> AASYSCOM_TTL_SHIFT; }
uint32_t withTtl(uint32_t ttlByte, uint32_t ttl) {
  return (ttlByte & AASYSCOM_TTL_KEEP_MASK) | (ttl << AASYSCOM_TTL_SHIFT);
}

void logHeaderLine(const char* text, const void* msg) {
  const SAaSysComMsgHeader* header = msgHeader(msg);
  AaSysLogPrintE(EAaSysLogSeverityLevel_Error, AASYSLOG_FEATURE_NONE, kHeaderLineFormat,
                 text != nullptr ? text : "", static_cast<unsigned>(header->msgId),
                 static_cast<unsigned>(header->sender), static_cast<unsigned>(header->receiver),
                 static_cast<int>(header->totalLength), static_cast<unsigned>(header->flags));
}

void logHeaderOrNull(const char* text, const void* msg, const char* nullText) {
  if (msg == nullptr) {
    AaSysLogPrintE(EAaSysLogSeverityLevel_Error, AASYSLOG_FEATURE_NONE, "%s", nullText);
    return;
  }
  logHeaderLine(text, msg);
}

}  // namespace

extern "C" {

void* AaSysComMsgGetPayload(const void* message) {
  if (message == nullptr) return nullptr;
  return const_cast<unsigned char*>(static_cast<const unsigned char*>(message) + AASYSCOM_HEADER_SIZE);
}

TAaSysComMsgId AaSysComMsgGetId(const void* message) {
  return message != nullptr ? msgHeader(message)->msgId : 0u;
}

void* AaSysComMsgSetId(void* message, TAaSysComMsgId id) {
  if (message != nullptr) msgHeader(message)->msgId = static_cast<uint16_t>(id);
  return message;
}

TAaSysComSicad AaSysComMsgGetReceiver(const void* message) {
  return message != nullptr ? msgHeader(message)->receiver : 0u;
}

void AaSysComMsgSetReceiver(void** messagePtr, TAaSysComSicad receiver) {
  if (messagePtr == nullptr || *messagePtr == nullptr) return;
  msgHeader(*messagePtr)->receiver = receiver;
}

TAaSysComSicad AaSysComMsgGetSender(const void* message) {
  return message != nullptr ? msgHeader(message)->sender : 0u;
}

void* AaSysComMsgSetSender(void* message, TAaSysComSicad sender) {
  if (message != nullptr) msgHeader(message)->sender = sender;
  return message;
}

uint32_t AaSysComMsgGetPriority(const void* message) {
  if (message == nullptr) return 0;
  return (msgHeader(message)->control & AASYSCOM_PRIORITY_MASK) >> AASYSCOM_PRIORITY_SHIFT;
}

void AaSysComMsgSetPriority(void* message, uint32_t priority) {
  if (message == nullptr) return;
  SAaSysComMsgHeader* header = msgHeader(message);
  header->control = static_cast<uint16_t>((header->control & ~AASYSCOM_PRIORITY_MASK) |
                                          (priority << AASYSCOM_PRIORITY_SHIFT));
}

uint32_t AaSysComMsgGetMtm(const void* message) {
  if (message == nullptr) return 0;
  return (msgHeader(message)->flags & AASYSCOM_FLAGS_MTM) >> AASYSCOM_MTM_SHIFT;
}

void AaSysComMsgSetMtm(void* message, uint32_t mtm) {
  if (message == nullptr || mtm > kMtmOn) return;
  SAaSysComMsgHeader* header = msgHeader(message);
  header->flags = static_cast<uint16_t>((header->flags & ~AASYSCOM_FLAGS_MTM) | (mtm << AASYSCOM_MTM_SHIFT));
}

uint32_t AaSysComMsgGetApf(const void* message) {
  if (refusedAsNull(message, "AaSysComMsgGetApf(): message is NULL")) return 0;
  return apfOf(message);
}

void AaSysComMsgSetApf(void* message, uint32_t apf) {
  if (refusedAsNull(message, "AaSysComMsgSetApf(): message is NULL")) return;
  SAaSysComMsgHeader* header = msgHeader(message);
  header->flags = static_cast<uint16_t>((header->flags & ~AASYSCOM_APF_MASK) | (apf << AASYSCOM_APF_SHIFT));
}

void AaSysComMsgSetApf2B(void* message) {
  if (refusedAsNull(message, "AaSysComMsgSetApf2B(): message is NULL")) return;
  // Sets both APF bits: a big-endian word payload becomes little-endian 2-byte aligned (3), not
  // big-endian 2-byte aligned (2). Callers rely on the result being host order.
  msgHeader(message)->flags |= AASYSCOM_APF_MASK;
}

uint32_t AaSysComMsgGetMef(const void* message) {
  if (refusedAsNull(message, "AaSysComMsgGetMef(): message is NULL")) return 0;
  return mefOf(message);
}

void AaSysComMsgSetMef(void* message, uint32_t mef) {
  if (refusedAsNull(message, "AaSysComMsgSetMef(): message is NULL")) return;
  if (mef == AASYSCOM_MEF_RESERVED) {
    logFailure("AaSysComMsgSetMef(): MEF Reserved not allowed");
    return;
  }
  if (mef == AASYSCOM_MEF_TRAILER) {
    logFailure("AaSysComMsgSetMef(): MEF with trailer not allowed");
    return;
  }
  SAaSysComMsgHeader* header = msgHeader(message);
  // Only the step to a plain message gives the trailer's 8 bytes up; MEF 2 keeps them counted.
  if (mefOf(message) == AASYSCOM_MEF_TRAILER && mef == AASYSCOM_MEF_PLAIN) {
    header->totalLength = static_cast<uint16_t>(header->totalLength - AASYSCOM_TRAILER_SIZE);
  }
  header->flags = static_cast<uint16_t>((header->flags & ~AASYSCOM_MEF_MASK) | (mef & AASYSCOM_MEF_MASK));
}

uint16_t AaSysComMsgGetPayloadSize(const void* message) {
  if (message == nullptr) return 0;
  return static_cast<uint16_t>(totalLengthOf(message) - envelopeSizeOf(message));
}

void* AaSysComMsgGetBulkMsg(const void* message) { return const_cast<void*>(message); }

uint16_t AaSysComMsgGetBulkMsgLength(const void* message) {
  return message != nullptr ? msgHeader(message)->totalLength : uint16_t{0};
}

void* AaSysComMsgGetTrailer(const void* message) {
  if (refusedAsNull(message, "AaSysComMsgGetTrailer(): message is NULL")) return nullptr;
  if (mefOf(message) != AASYSCOM_MEF_TRAILER || trailerMissing(message)) return nullptr;
  const auto* bytes = static_cast<const unsigned char*>(message);
  return const_cast<unsigned char*>(bytes + totalLengthOf(message) - AASYSCOM_TRAILER_SIZE);
}

uint32_t AaSysComMsgGetTtlValue(const void* message) {
  const unsigned char* ttlWord = ttlWordOf(message, {"AaSysComMsgGetTtlValue(): message is NULL",
                                                     "AaSysComMsgGetTtlValue(): trailer is NULL"});
  if (ttlWord == nullptr || !ttlPresent(ttlByteAt(ttlWord))) return AASYSCOM_TTL_ABSENT;
  return ttlValue(ttlByteAt(ttlWord));
}

void AaSysComMsgSetTtlValue(void* message, uint32_t ttl) {
  unsigned char* ttlWord = ttlWordOf(message, {"AaSysComMsgSetTtlValue(): message is NULL",
                                               "AaSysComMsgSetTtlValue(): trailer is NULL"});
  if (ttlWord == nullptr || !ttlPresent(ttlByteAt(ttlWord))) return;
  storeTtlByte(ttlWord, withTtl(ttlByteAt(ttlWord), ttl));
}

uint32_t AaSysComMsgCheckTtl(void* message) {
  unsigned char* ttlWord = ttlWordOf(message, {"AaSysComMsgCheckTtl(): message is NULL",
                                               "AaSysComMsgCheckTtl(): trailer is NULL"});
  if (ttlWord == nullptr || !ttlPresent(ttlByteAt(ttlWord))) return AASYSCOM_TTL_ABSENT;
  const uint32_t ttl = ttlValue(ttlByteAt(ttlWord));
  if (ttl == 0) return 0;  // an expired message stays expired; the count never wraps to 15
  storeTtlByte(ttlWord, withTtl(ttlByteAt(ttlWord), ttl - 1));
  return ttl - 1;
}

void AaSysComMsgPrintHeader(EAaSysLogSeverityLevel, const char* text, const void* message) {
  logHeaderOrNull(text, message, "Print Header(), message was null");
}

void AaSysComMsgHeaderPrint(EAaSysLogSeverityLevel, uint32_t, const char* text, const void* message) {
  logHeaderOrNull(text, message, "HeaderPrint(), message was null");
}

TAaSysComNid AaSysComSicadGetNid(TAaSysComSicad sicad) { return Olm::sicadNid(sicad); }

TAaSysComCpid AaSysComSicadGetCpid(TAaSysComSicad sicad) { return Olm::sicadCpid(sicad); }

TAaSysComSicad AaSysComSicadGet(TAaSysComCpid cpid, TAaSysComNid nid) {
  return (static_cast<TAaSysComSicad>(nid) << kSicadNidShift) | cpid;
}

TAaSysComNid AaSysComGetOwnNid(void) {
  Olm::IRuntime* dispatcher = runtimeOrLog();
  return dispatcher != nullptr ? dispatcher->getOwnNid() : TAaSysComNid{0};
}

uint32_t AaSysComUserRegister(void) { return kUserRegistered; }

uint32_t AaSysComMsgGetMaxPayload(void) { return AASYSCOM_MAX_PAYLOAD; }

}  // extern "C"
