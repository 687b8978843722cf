// Converting envelopes, word-oriented payloads and single fields between a message's byte order
// (named by its APF) and the host's.

#include "AaCpuBit.h"
#include "AaSysComInternal.h"

using Olm::msgHeader;
using namespace Olm::syscom;

namespace {

constexpr uint32_t kHeaderWords = AASYSCOM_HEADER_SIZE / kWordSize;
constexpr uint32_t kTrailerWords = AASYSCOM_TRAILER_SIZE / kWordSize;
constexpr uint32_t kDoubleWordSize = 8;
constexpr uint32_t kWordPairSize = 2 * kWordSize;

bool isLittleEndian(uint32_t apf) { return (apf & AASYSCOM_APF_LITTLE_ENDIAN_BIT) != 0; }
bool isTwoByteAligned(uint32_t apf) { return (apf & AASYSCOM_APF_TWO_BYTE_BIT) != 0; }

void swapPayloadWords(void* msg, uint32_t words) {
  AaCpuBitSwapMultiByteOrder32(AaSysComMsgGetPayload(msg), words);
}

// The header as it reads once its four words are swapped, without touching the message.
SAaSysComMsgHeader swappedHeader(const void* msg) {
  SAaSysComMsgHeader header;
  std::memcpy(&header, msg, sizeof(header));
  AaCpuBitSwapMultiByteOrder32(&header, kHeaderWords);
  return header;
}

// Swaps count values of width bytes from first, refusing with outsideText when they would run
// past the end of the message first points into.
void swapInsideMessage(const void* msg, void* first, uint32_t count, uint32_t width,
                       const char* outsideText) {
  if (!staysInsideMessage(msg, first, uint64_t{count} * width)) {
    logFailure(outsideText);
    return;
  }
  if (width == kWordSize) {
    AaCpuBitSwapMultiByteOrder32(first, count);
  } else {
    AaCpuBitSwapMultiByteOrder64(first, count);
  }
}

void exchangeWordPair(unsigned char* pair) {
  const uint32_t first = loadWord(pair);
  std::memmove(pair, pair + kWordSize, kWordSize);
  storeWord(pair + kWordSize, first);
}

}  // namespace

extern "C" {

uint32_t AaSysComIsHostAndMsgEndianSame(const void* message) {
  if (refusedAsNull(message, "AaSysComIsHostAndMsgEndianSame(): pointer is NULL")) return 0;
  return isLittleEndian(apfOf(message)) ? 1u : 0u;
}

void AaSysComMsgEnvelopeHostToBigEndian(void* message) {
  if (refusedAsNull(message, "AaSysComMsgEnvelopeHostToBigEndian(): message is NULL")) return;
  // MEF and length are readable only while the header is still in host order: trailer first.
  if (trailerMissing(message)) {
    logFailure("AaSysComMsgEnvelopeHostToBigEndian(): trailer is NULL");
    return;
  }
  if (mefOf(message) == AASYSCOM_MEF_TRAILER) {
    AaCpuBitSwapMultiByteOrder32(AaSysComMsgGetTrailer(message), kTrailerWords);
  }
  AaCpuBitSwapMultiByteOrder32(message, kHeaderWords);
}

void AaSysComMsgEnvelopeBigEndianToHost(void* message) {
  if (refusedAsNull(message, "AaSysComMsgEnvelopeBigEndianToHost(): message is NULL")) return;
  // MEF and length become readable only once the header is in host order: header first. The
  // trailer is checked on a converted copy so that a refused message is left as it came.
  const SAaSysComMsgHeader header = swappedHeader(message);
  if (trailerMissing(&header)) {
    logFailure("AaSysComMsgEnvelopeBigEndianToHost(): trailer is NULL");
    return;
  }
  std::memcpy(message, &header, sizeof(header));
  if (mefOf(message) == AASYSCOM_MEF_TRAILER) {
    AaCpuBitSwapMultiByteOrder32(AaSysComMsgGetTrailer(message), kTrailerWords);
  }
}

void AaSysComWordOrientedMsgToBig(void* message) {
  if (refusedAsNull(message, "AaSysComWordOrientedMsgToBig(): message is NULL")) return;
  uint32_t words = 0;
  if (!payloadWordCount(message, words)) {
    AaSysLogPrintE(EAaSysLogSeverityLevel_Error, AASYSCOM_FEATURE_ID, "%s",
                   "AaSysComWordOrientedMsgToBig(): payloadSize not correct !");
    return;
  }
  // The current APF is not consulted: converting twice swaps twice.
  swapPayloadWords(message, words);
  AaSysComMsgSetApf(message, AASYSCOM_APF_BIG_ENDIAN_WORDS);
}

void AaSysComWordOrientedMsgToHost(void** messagePtr) {
  if (refusedAsNullHandle(messagePtr, "AaSysComWordOrientedMsgToHost(): message is NULL")) return;
  void* message = *messagePtr;
  const uint32_t apf = apfOf(message);
  // 2-byte aligned payloads are the application's to convert field by field.
  if (isTwoByteAligned(apf)) return;
  uint32_t words = 0;
  const bool wholeWords = payloadWordCount(message, words);
  if (isLittleEndian(apf)) {
    if (!wholeWords) {
      AaSysComMsgHeaderPrint(EAaSysLogSeverityLevel_Error, AASYSLOG_FEATURE_NONE,
                             "AaSysComWordOrientedMsgToHost(): payloadSize not divisible by 4 !", message);
    }
    return;
  }
  // A big-endian payload that is not made of words cannot be converted, and nobody can read it
  // unconverted.
  if (!wholeWords) {
    AaSysComMsgHeaderPrint(EAaSysLogSeverityLevel_Error, AASYSLOG_FEATURE_NONE,
                           "AaSysComWordOrientedMsgToHost(): payloadSize not divisible by 4, msg destroyed !",
                           message);
    AaSysComMsgDestroy(messagePtr);
    return;
  }
  swapPayloadWords(message, words);
  AaSysComMsgSetApf(message, AASYSCOM_APF_HOST_WORDS);
}

void AaSysComIfFinalTargetSwapToHost(void** messagePtr) {
  if (refusedAsNullHandle(messagePtr, "AaSysComIfFinalTargetSwapToHost(): message is NULL")) return;
  const TAaSysComNid nid = Olm::sicadNid(AaSysComMsgGetReceiver(*messagePtr));
  const bool forThisNode = nid == AaSysComGetOwnNid();
  const bool forPlaceholderInOtherOrder =
      nid == AASYSCOM_NID_THIS_NODE && AaSysComIsHostAndMsgEndianSame(*messagePtr) == 0;
  // A message only passing through is converted by the node it ends at.
  if (forThisNode || forPlaceholderInOtherOrder) AaSysComWordOrientedMsgToHost(messagePtr);
}

void AaSysComEndBytesToHost(const void* message, void* firstByte, uint32_t numberOfBytes) {
  if (message == nullptr || firstByte == nullptr || numberOfBytes == 0) {
    logFailure("AaSysComEndBytesToHost(): firstByte is NULL or numberOfBytes is zero");
    return;
  }
  if (apfOf(message) != AASYSCOM_APF_BIG_ENDIAN_WORDS) return;
  swapInsideMessage(message, firstByte, wordsCovering(numberOfBytes), kWordSize,
                    "AaSysComEndBytesToHost(): bytes run past the end of the message");
}

void AaSysComEnd64ToHost(const void* message, void* firstField, uint32_t count) {
  if (message == nullptr || firstField == nullptr) {
    logFailure("AaSysComEnd64ToHost(): ptr is NULL");
    return;
  }
  const uint32_t apf = apfOf(message);
  if (isTwoByteAligned(apf)) {
    logFailure("AaSysComEnd64ToHost(): message not WORD-aligned");
    return;
  }
  if (isLittleEndian(apf)) return;
  swapInsideMessage(message, firstField, count, kDoubleWordSize,
                    "AaSysComEnd64ToHost(): fields run past the end of the message");
}

void AaSysComEnd16Swap(void* firstField, uint32_t count) {
  if (refusedAsNull(firstField, "AaSysComEnd16Swap(): firstField ptr is NULL")) return;
  AaCpuBitSwapMultiByteOrder16(firstField, count);
}

void AaSysComEnd32Swap(void* firstField, uint32_t count) {
  if (refusedAsNull(firstField, "AaSysComEnd32Swap(): firstField ptr is NULL")) return;
  AaCpuBitSwapMultiByteOrder32(firstField, count);
}

void AaSysComEnd64Swap(void* firstField, uint32_t count) {
  if (refusedAsNull(firstField, "AaSysComEnd64Swap(): firstField is NULL")) return;
  AaCpuBitSwapMultiByteOrder64(firstField, count);
}

void AaSysComMsgByteStringSwap(const void* message, void* start, uint32_t length) {
  if (message == nullptr || start == nullptr || length == 0) {
    logFailure("AaSysComMsgByteStringSwap(): startPtr is NULL or length is zero");
    return;
  }
  swapInsideMessage(message, start, wordsCovering(length), kWordSize,
                    "AaSysComMsgByteStringSwap(): bytes run past the end of the message");
}

void AaSysComMsgSwapTwoConsecutiveWords(void* start) {
  if (refusedAsNull(start, "AaSysComMsgSwapTwoConsecutiveWords(): startPtr is NULL")) return;
  exchangeWordPair(static_cast<unsigned char*>(start));
}

void AaSysComMsgMultiSwapTwoConsecutiveWords(void* start, uint32_t numOfPairs) {
  if (start == nullptr || numOfPairs == 0) {
    logFailure("AaSysComMsgMultiSwapTwoConsecutiveWords(): startPtr is NULL or numOfPairs is 0");
    return;
  }
  auto* pair = static_cast<unsigned char*>(start);
  for (uint32_t i = 0; i < numOfPairs; ++i, pair += kWordPairSize) exchangeWordPair(pair);
}

void AaSysComSetRawData(void* destination, const void* source, uint32_t length) {
  if (destination == nullptr || source == nullptr || length == 0) {
    logFailure("AaSysComSetRawData(): pointer is NULL or length is 0");
    return;
  }
  AaCpuBitCopySwapMultiByteOrder32(destination, source, wordsCovering(length));
}

void AaSysComGetRawData(const void* source, void* destination, uint32_t length) {
  if (source == nullptr || destination == nullptr || length == 0) {
    logFailure("AaSysComGetRawData(): pointer is NULL or length is 0");
    return;
  }
  AaCpuBitCopySwapMultiByteOrder32(destination, source, wordsCovering(length));
}

}  // extern "C"
