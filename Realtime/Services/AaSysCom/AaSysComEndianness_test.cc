#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "AaSysCom.h"
#include "AaSysComTestFixture.h"

namespace OlmTest {
namespace {

using Bytes = std::vector<unsigned char>;

class EndiannessTest : public SysComTest {
 protected:
  // A host-order message whose payload is the given bytes.
  void* messageWith(const Bytes& payload, uint32_t apf = AASYSCOM_APF_HOST_WORDS,
                    uint32_t receiver = kOtherSicad) {
    void* msg = AaSysComMsgCreate(0x0123, static_cast<uint32_t>(payload.size()), receiver);
    if (!payload.empty()) std::memcpy(AaSysComMsgGetPayload(msg), payload.data(), payload.size());
    AaSysComMsgSetApf(msg, apf);
    return msg;
  }

  static Bytes bytesOf(const void* at, size_t count) {
    const auto* begin = static_cast<const unsigned char*>(at);
    return Bytes(begin, begin + count);
  }
  static Bytes payloadOf(const void* msg) {
    return bytesOf(AaSysComMsgGetPayload(msg), AaSysComMsgGetPayloadSize(msg));
  }
  static Bytes wholeOf(const void* msg) { return bytesOf(msg, AaSysComMsgGetBulkMsgLength(msg)); }
};

const Bytes kEightBytes{1, 2, 3, 4, 5, 6, 7, 8};
const Bytes kEightBytesWordSwapped{4, 3, 2, 1, 8, 7, 6, 5};

TEST_F(EndiannessTest, EnvelopeRoundTripRestoresHeaderAndTrailer) {
  void* msg = createTrailerMessage(8, 0x31);
  AaSysComMsgSetSender(msg, 0x12030077);
  const Bytes original = wholeOf(msg);
  AaSysComMsgEnvelopeHostToBigEndian(msg);
  EXPECT_EQ(bytesOf(static_cast<char*>(msg) + 8, 4), (Bytes{0x12, 0x03, 0x00, 0x77}));  // sender
  EXPECT_EQ(bytesOf(static_cast<char*>(msg) + 24, 4), (Bytes{0x11, 0x22, 0x33, 0x44}));  // trailer word 0
  EXPECT_EQ(bytesOf(AaSysComMsgGetPayload(msg), 8), bytesOf(original.data() + 16, 8)) << "payload untouched";
  AaSysComMsgEnvelopeBigEndianToHost(msg);
  EXPECT_EQ(wholeOf(msg), original);
  AaSysComMsgDestroy(&msg);
}

TEST_F(EndiannessTest, EnvelopeOfAMessageTooShortForItsTrailerIsLeftAlone) {
  void* msg = messageWith(Bytes(4, 0));
  Olm::msgHeader(msg)->flags |= AASYSCOM_MEF_TRAILER;
  constexpr size_t kTotal = 20;  // the length field is unreadable while the header is swapped
  const Bytes original = bytesOf(msg, kTotal);
  AaSysComMsgEnvelopeHostToBigEndian(msg);
  EXPECT_EQ(bytesOf(msg, kTotal), original);
  EXPECT_EQ(log.count("AaSysComMsgEnvelopeHostToBigEndian(): trailer is NULL"), 1u);

  AaSysComEnd32Swap(msg, 4);  // the header as a big-endian sender would have written it
  const Bytes bigEndian = bytesOf(msg, kTotal);
  AaSysComMsgEnvelopeBigEndianToHost(msg);
  EXPECT_EQ(bytesOf(msg, kTotal), bigEndian);
  EXPECT_EQ(log.count("AaSysComMsgEnvelopeBigEndianToHost(): trailer is NULL"), 1u);
  AaSysComEnd32Swap(msg, 4);
  AaSysComMsgDestroy(&msg);
}

TEST_F(EndiannessTest, WordPayloadToBigSwapsEveryTimeAndMarksBigEndian) {
  void* msg = messageWith(kEightBytes);
  EXPECT_EQ(AaSysComIsHostAndMsgEndianSame(msg), 1u);
  AaSysComWordOrientedMsgToBig(msg);
  EXPECT_EQ(payloadOf(msg), kEightBytesWordSwapped);
  EXPECT_EQ(AaSysComIsHostAndMsgEndianSame(msg), 0u);
  AaSysComWordOrientedMsgToBig(msg);
  EXPECT_EQ(payloadOf(msg), kEightBytes);
  EXPECT_EQ(AaSysComMsgGetApf(msg), 0u);
  AaSysComMsgDestroy(&msg);

  void* odd = messageWith({1, 2, 3, 4, 5, 6});
  AaSysComWordOrientedMsgToBig(odd);
  EXPECT_EQ(payloadOf(odd), (Bytes{1, 2, 3, 4, 5, 6}));
  EXPECT_EQ(AaSysComMsgGetApf(odd), 1u);
  EXPECT_EQ(log.count("AaSysComWordOrientedMsgToBig(): payloadSize not correct !"), 1u);
  AaSysComMsgDestroy(&odd);
}

TEST_F(EndiannessTest, WordPayloadToHostConvertsBigEndianWordsOnlyAndLeavesTheTrailer) {
  void* big = messageWith(kEightBytesWordSwapped, AASYSCOM_APF_BIG_ENDIAN_WORDS);
  AaSysComWordOrientedMsgToHost(&big);
  EXPECT_EQ(payloadOf(big), kEightBytes);
  EXPECT_EQ(AaSysComMsgGetApf(big), 1u);
  AaSysComMsgDestroy(&big);

  void* twoByte = messageWith({1, 2, 3, 4, 5, 6}, 3);
  AaSysComWordOrientedMsgToHost(&twoByte);
  ASSERT_NE(twoByte, nullptr);
  EXPECT_EQ(payloadOf(twoByte), (Bytes{1, 2, 3, 4, 5, 6}));
  AaSysComMsgDestroy(&twoByte);

  void* msg = createTrailerMessage(8, 0x31);
  std::memcpy(AaSysComMsgGetPayload(msg), kEightBytesWordSwapped.data(), 8);
  AaSysComMsgSetApf(msg, AASYSCOM_APF_BIG_ENDIAN_WORDS);
  AaSysComWordOrientedMsgToHost(&msg);
  EXPECT_EQ(payloadOf(msg), kEightBytes);
  EXPECT_EQ(trailerWord(msg, 0), kTrailerFirstWord);
  AaSysComMsgDestroy(&msg);
}

TEST_F(EndiannessTest, BigEndianPayloadThatIsNotWholeWordsIsDestroyed) {
  void* big = messageWith({1, 2, 3, 4, 5, 6}, AASYSCOM_APF_BIG_ENDIAN_WORDS);
  AaSysComWordOrientedMsgToHost(&big);
  EXPECT_EQ(big, nullptr);
  EXPECT_EQ(log.count("AaSysComWordOrientedMsgToHost(): payloadSize not divisible by 4, msg destroyed !"), 1u);

  void* host = messageWith({1, 2, 3, 4, 5, 6});
  AaSysComWordOrientedMsgToHost(&host);
  ASSERT_NE(host, nullptr);
  EXPECT_EQ(log.count("AaSysComWordOrientedMsgToHost(): payloadSize not divisible by 4 !"), 1u);
  AaSysComMsgDestroy(&host);

  // A total length below the header would otherwise wrap to 65532 bytes of payload words.
  void* corrupt = messageWith({}, AASYSCOM_APF_BIG_ENDIAN_WORDS);
  Olm::msgHeader(corrupt)->totalLength = 12;
  AaSysComWordOrientedMsgToHost(&corrupt);
  EXPECT_EQ(corrupt, nullptr);
}

TEST_F(EndiannessTest, OnlyMessagesEndingHereAreConvertedOnArrival) {
  const uint32_t own = (uint32_t{kOwnNid} << 16) | kEuCpid;
  const uint32_t placeholder = (uint32_t{AASYSCOM_NID_THIS_NODE} << 16) | kEuCpid;
  void* forUs = messageWith(kEightBytesWordSwapped, AASYSCOM_APF_BIG_ENDIAN_WORDS, own);
  void* forPlaceholder = messageWith(kEightBytesWordSwapped, AASYSCOM_APF_BIG_ENDIAN_WORDS, placeholder);
  void* passingThrough = messageWith(kEightBytesWordSwapped, AASYSCOM_APF_BIG_ENDIAN_WORDS, kOtherSicad);
  for (void** msg : {&forUs, &forPlaceholder, &passingThrough}) AaSysComIfFinalTargetSwapToHost(msg);
  EXPECT_EQ(payloadOf(forUs), kEightBytes);
  EXPECT_EQ(payloadOf(forPlaceholder), kEightBytes);
  EXPECT_EQ(payloadOf(passingThrough), kEightBytesWordSwapped);
  for (void* msg : {forUs, forPlaceholder, passingThrough}) AaSysComMsgDestroy(&msg);
}

TEST_F(EndiannessTest, FieldConversionFollowsTheApfAndRoundsUpToWholeWords) {
  void* big = messageWith({1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12}, AASYSCOM_APF_BIG_ENDIAN_WORDS);
  AaSysComEndBytesToHost(big, AaSysComMsgGetPayload(big), 5);
  EXPECT_EQ(payloadOf(big), (Bytes{4, 3, 2, 1, 8, 7, 6, 5, 9, 10, 11, 12}));
  // Two words from the payload's last word would end 4 bytes past the message.
  AaSysComEndBytesToHost(big, static_cast<char*>(AaSysComMsgGetPayload(big)) + 8, 5);
  EXPECT_EQ(payloadOf(big), (Bytes{4, 3, 2, 1, 8, 7, 6, 5, 9, 10, 11, 12}));
  AaSysComEnd64ToHost(big, AaSysComMsgGetPayload(big), 1);
  EXPECT_EQ(payloadOf(big), (Bytes{5, 6, 7, 8, 1, 2, 3, 4, 9, 10, 11, 12}));
  AaSysComMsgDestroy(&big);

  void* host = messageWith(kEightBytes);
  AaSysComEndBytesToHost(host, AaSysComMsgGetPayload(host), 8);
  AaSysComEnd64ToHost(host, AaSysComMsgGetPayload(host), 1);
  AaSysComMsgSetApf2B(host);
  AaSysComEnd64ToHost(host, AaSysComMsgGetPayload(host), 1);
  EXPECT_EQ(payloadOf(host), kEightBytes);
  EXPECT_EQ(log.count("AaSysComEnd64ToHost(): message not WORD-aligned"), 1u);
  AaSysComMsgDestroy(&host);
}

TEST_F(EndiannessTest, UnconditionalSwapsAndWordPairExchange) {
  Bytes data = kEightBytes;
  AaSysComMsgSwapTwoConsecutiveWords(data.data());
  EXPECT_EQ(data, (Bytes{5, 6, 7, 8, 1, 2, 3, 4}));
  Bytes pairs{1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16};
  AaSysComMsgMultiSwapTwoConsecutiveWords(pairs.data(), 2);
  EXPECT_EQ(pairs, (Bytes{5, 6, 7, 8, 1, 2, 3, 4, 13, 14, 15, 16, 9, 10, 11, 12}));


  void* msg = messageWith(kEightBytes);
  AaSysComMsgByteStringSwap(msg, AaSysComMsgGetPayload(msg), 3);  // whatever the APF says
  EXPECT_EQ(payloadOf(msg), (Bytes{4, 3, 2, 1, 5, 6, 7, 8}));
  AaSysComMsgDestroy(&msg);
}

TEST_F(EndiannessTest, RawDataIsCopiedAsSwappedWholeWords) {
  const Bytes source{1, 2, 3, 4, 5, 6, 7, 8};
  Bytes destination(8, 0);
  AaSysComSetRawData(destination.data(), source.data(), 5);
  EXPECT_EQ(destination, kEightBytesWordSwapped);
  Bytes back(8, 0);
  AaSysComGetRawData(destination.data(), back.data(), 8);
  EXPECT_EQ(back, source);
}

TEST_F(EndiannessTest, NullAndEmptyArgumentsAreLoggedAndChangeNothing) {
  Bytes data = kEightBytes;
  void* none = nullptr;
  AaSysComWordOrientedMsgToHost(&none);
  AaSysComWordOrientedMsgToHost(nullptr);
  AaSysComIfFinalTargetSwapToHost(&none);
  AaSysComMsgEnvelopeBigEndianToHost(nullptr);
  AaSysComEndBytesToHost(nullptr, data.data(), 4);
  AaSysComEnd64ToHost(nullptr, data.data(), 1);
  AaSysComMsgByteStringSwap(data.data(), data.data(), 0);
  AaSysComMsgMultiSwapTwoConsecutiveWords(data.data(), 0);
  AaSysComSetRawData(data.data(), nullptr, 4);
  AaSysComGetRawData(data.data(), data.data(), 0);
  AaSysComEnd32Swap(nullptr, 1);
  EXPECT_EQ(data, kEightBytes);
  EXPECT_EQ(log.count("AaSysComEndBytesToHost(): firstByte is NULL or numberOfBytes is zero"), 1u);
}

}  // namespace
}  // namespace OlmTest
