#include "SicFtpFwEu.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "AaConfig.h"
#include "AaSysCom.h"
#include "AaSysComMsgHeader.h"
#include "FakeRuntime.h"
#include "LowMemory.h"
#include "RamRoot.h"

namespace {

using Olm::SicFtpFwEu;

constexpr uint16_t kOwnNid = 0x1231;
constexpr uint16_t kCpid = 0x0614;
constexpr uint16_t kLegacyCpid = 0x023B;
constexpr uint32_t kTool = 0x20010777;
constexpr const char* kMasterNidTag = "olm.service.aasyscom.masternid";

uint32_t sicad(uint16_t nid, uint16_t cpid) { return (uint32_t{nid} << 16) | cpid; }

std::string mountPath(const std::string& name) {
  return std::string(Olm::ramRoot()) + "/olm_lite/0x1231/fusemnt/" + name;
}

class SicFtpFwEuTest : public OlmTest::FakeRuntimeTest {
 protected:
  void SetUp() override {
    runtime.setOwnNid(kOwnNid);
    AaConfigEarlyStartup();
  }

  void* getRequest(const std::string& path, uint16_t payloadSize = SicFtpFwEu::kMaxPathSize,
                   uint16_t cpid = kCpid) {
    void* msg = runtime.makeMessage(SicFtpFwEu::kGetReqMsgId, sicad(kOwnNid, cpid), kTool, payloadSize);
    std::memcpy(AaSysComMsgGetPayload(msg), path.data(), std::min<size_t>(path.size(), payloadSize));
    return msg;
  }
  void* browseRequest(uint32_t type, uint32_t length, uint32_t address, uint16_t payloadSize = 12) {
    void* msg = runtime.makeMessage(SicFtpFwEu::kBrowserDspMemReqMsgId, sicad(kOwnNid, kCpid), kTool, payloadSize);
    const uint32_t words[3] = {type, length, address};
    std::memcpy(AaSysComMsgGetPayload(msg), words, std::min<size_t>(sizeof(words), payloadSize));
    return msg;
  }

  // As the Dispatcher hands a message over and frees it afterwards. A buffer the forwarder has
  // just sent is the platform's by then; the platform takes that free as harmless, so it is not
  // repeated here.
  void dispatch(void* msg) {
    forwarder.ProcessMessage(msg);
    ASSERT_NE(msg, nullptr) << "the Dispatcher's reference is never cleared";
    if (!wasSent(msg)) runtime.deleteMessage(msg);
  }
  bool wasSent(const void* msg) const {
    return std::find(runtime.sent().begin(), runtime.sent().end(), msg) != runtime.sent().end();
  }
  std::vector<void*> sentWithId(uint16_t id) const {
    std::vector<void*> found;
    for (void* msg : runtime.sent()) {
      if (AaSysComMsgGetId(msg) == id) found.push_back(msg);
    }
    return found;
  }
  static std::string text(const void* msg) { return static_cast<const char*>(AaSysComMsgGetPayload(msg)); }
  static uint32_t word(const void* msg, unsigned index) {
    uint32_t value;
    std::memcpy(&value, static_cast<const uint8_t*>(AaSysComMsgGetPayload(msg)) + 4 * index, sizeof(value));
    return value;
  }
  // The one reply a browse request gave.
  void* browseReply() {
    const std::vector<void*> replies = sentWithId(SicFtpFwEu::kBrowserDspMemAckMsgId);
    EXPECT_EQ(replies.size(), 1u);
    return replies.empty() ? nullptr : replies[0];
  }

  SicFtpFwEu forwarder;
};

// ---------------------------------------------------------------------------------------------
// Get requests

TEST_F(SicFtpFwEuTest, WithoutMasterTagTheRequestItselfGoesToTheGroupsDNodeWithItsPathInTheMount) {
  void* request = getRequest("/tmp/a/b/trace.bin");
  dispatch(request);
  const auto forwarded = sentWithId(SicFtpFwEu::kGetReqMsgId);
  ASSERT_EQ(forwarded.size(), 1u);
  EXPECT_EQ(forwarded[0], request) << "forwarded in place, not copied";
  EXPECT_EQ(AaSysComMsgGetReceiver(request), sicad(0x123D, kCpid));
  EXPECT_EQ(AaSysComMsgGetSender(request), kTool);
  EXPECT_EQ(text(request), mountPath("trace.bin"));
}

TEST_F(SicFtpFwEuTest, TheMasterTagChoosesTheNodeUntilItIsDeleted) {
  ASSERT_EQ(AaConfigTagPublicSetU16(kMasterNidTag, 0x10F0), EAaConfigRet_Ok);
  void* first = getRequest("trace.bin", SicFtpFwEu::kMaxPathSize, kLegacyCpid);
  dispatch(first);
  EXPECT_EQ(AaSysComMsgGetReceiver(first), sicad(0x10F0, kLegacyCpid));

  ASSERT_EQ(AaConfigTagDelete(kMasterNidTag), EAaConfigRet_Ok);
  void* second = getRequest("dir/trace.bin/");
  dispatch(second);
  EXPECT_EQ(AaSysComMsgGetReceiver(second), sicad(0x123D, kCpid));
  EXPECT_EQ(text(second), mountPath("trace.bin"));
}

TEST_F(SicFtpFwEuTest, APathWithoutComponentIsLoggedAndNotForwarded) {
  dispatch(getRequest("///"));
  EXPECT_TRUE(sentWithId(SicFtpFwEu::kGetReqMsgId).empty());
  EXPECT_TRUE(runtime.anySentTextContains(
      "handleSicFtpFwGetReq(): Could not find ttitraceDL/UL filename path received ///"));
}

TEST_F(SicFtpFwEuTest, TheFileNameIsCutTo99CharactersAndThePathToThePayload) {
  const std::string longName(150, 'n');
  void* request = getRequest("/x/" + longName);
  dispatch(request);
  EXPECT_EQ(text(request), mountPath(longName.substr(0, 99)));

  // An unterminated path filling a payload shorter than the rewritten one: read and written only
  // within the payload.
  const std::string shortPath = "a/bc";
  void* shortRequest = getRequest(shortPath, static_cast<uint16_t>(shortPath.size()));
  dispatch(shortRequest);
  ASSERT_TRUE(wasSent(shortRequest));
  EXPECT_EQ(text(shortRequest), mountPath("bc").substr(0, shortPath.size() - 1));
}

TEST_F(SicFtpFwEuTest, RequestsThatCannotLeaveTheNodeAreDropped) {
  ASSERT_EQ(AaConfigTagPublicSetU16(kMasterNidTag, kOwnNid), EAaConfigRet_Ok);
  dispatch(getRequest("/a/trace.bin"));
  EXPECT_TRUE(runtime.anySentTextContains("file service node 0x1231 is this node, request from 0x20010777 dropped"));

  ASSERT_EQ(AaConfigTagDelete(kMasterNidTag), EAaConfigRet_Ok);
  void* anonymous = getRequest("/a/trace.bin");
  AaSysComMsgSetSender(anonymous, 0);
  dispatch(anonymous);
  EXPECT_TRUE(runtime.anySentTextContains("handleSicFtpFwGetReq(): request without sender, not forwarded"));
  EXPECT_TRUE(sentWithId(SicFtpFwEu::kGetReqMsgId).empty());
}

TEST_F(SicFtpFwEuTest, AMessageShorterThanItsEnvelopeOrItsWordsHasNoPayload) {
  for (uint16_t id : {SicFtpFwEu::kGetReqMsgId, SicFtpFwEu::kBrowserDspMemReqMsgId}) {
    void* request = runtime.makeMessage(id, sicad(kOwnNid, kCpid), kTool, 16);
    Olm::msgHeader(request)->flags |= AASYSCOM_MEF_TRAILER;
    Olm::msgHeader(request)->totalLength = 20;
    dispatch(request);
  }
  dispatch(browseRequest(0, 4, 0x10, 8));  // too short for its three words
  EXPECT_TRUE(runtime.anySentTextContains(
      "handleSicFtpFwGetReq(): AaSysComMsgGetPayload() cannot get payload pointer! (reqPtr=GLO_NULL)"));
  size_t browseLines = 0;
  for (size_t i = 0; i < runtime.sent().size(); ++i) {
    browseLines += runtime.sentText(i).find("handleBrowserDspMemReq(): AaSysComMsgGetPayload() cannot get payload") !=
                   std::string::npos;
  }
  EXPECT_EQ(browseLines, 2u);
  EXPECT_TRUE(sentWithId(SicFtpFwEu::kGetReqMsgId).empty());
  EXPECT_TRUE(sentWithId(SicFtpFwEu::kBrowserDspMemAckMsgId).empty());
}

TEST_F(SicFtpFwEuTest, AnUnknownIdIsLoggedWithOwnNodeIdAndSender) {
  dispatch(runtime.makeMessage(0x1234, sicad(kOwnNid, kCpid), kTool));
  EXPECT_TRUE(runtime.anySentTextContains("ProcessMessage(), 0x1231 received unknown message 0x1234 from 0x20010777"));
}

// ---------------------------------------------------------------------------------------------
// Memory browse requests

TEST_F(SicFtpFwEuTest, TypeZeroCopiesTheMemoryAfterStatusLengthAndAddress) {
  OlmTest::LowMemory memory(4096);
  if (memory.bytes() == nullptr) GTEST_SKIP() << "no memory below 4 GiB to be had";
  for (unsigned i = 0; i < 8; ++i) memory.bytes()[i] = static_cast<uint8_t>(0xA0 + i);
  dispatch(browseRequest(0, 8, memory.address()));
  void* reply = browseReply();
  ASSERT_NE(reply, nullptr);
  EXPECT_EQ(AaSysComMsgGetReceiver(reply), kTool);
  EXPECT_EQ(AaSysComMsgGetSender(reply), sicad(kOwnNid, kCpid));
  ASSERT_EQ(AaSysComMsgGetPayloadSize(reply), 8 + 15);
  EXPECT_EQ(word(reply, 0), 0u);
  EXPECT_EQ(word(reply, 1), 8u);
  EXPECT_EQ(word(reply, 2), memory.address());
  EXPECT_EQ(std::memcmp(static_cast<uint8_t*>(AaSysComMsgGetPayload(reply)) + 12, memory.bytes(), 8), 0);
}

TEST_F(SicFtpFwEuTest, TypeOneAnswersStatusTwoAndOtherTypesStatusZeroWithoutData) {
  struct Case {
    uint32_t type;
    uint32_t length;
    uint32_t status;
  };
  for (const Case& c : {Case{1, 4, 2}, Case{7, 4, 0}, Case{0, 0, 0}}) {
    const size_t before = runtime.sent().size();
    dispatch(browseRequest(c.type, c.length, 0x10));
    ASSERT_EQ(runtime.sent().size(), before + 1) << c.type;
    void* reply = runtime.sent().back();
    ASSERT_EQ(AaSysComMsgGetPayloadSize(reply), c.length + 15);
    EXPECT_EQ(word(reply, 0), c.status) << c.type;
    const auto* data = static_cast<const uint8_t*>(AaSysComMsgGetPayload(reply)) + 12;
    EXPECT_EQ(std::count(data, data + 3, 0), 3) << "no data for type " << c.type;
  }
}

// The reply's size wraps at 16 bits. Lengths just past the wrap leave room for part of the three
// words or none; lengths past 65535 copy what the small reply holds; lengths just below the wrap
// ask for a size no message can have.
TEST_F(SicFtpFwEuTest, LengthsAroundTheWrapWriteAndCopyOnlyWhatTheReplyHolds) {
  OlmTest::LowMemory memory(4096);
  if (memory.bytes() == nullptr) GTEST_SKIP() << "no memory below 4 GiB to be had";
  std::memset(memory.bytes(), 0x5A, 4096);
  struct Case {
    uint32_t length;
    uint16_t replySize;
    uint32_t copied;
  };
  for (const Case& c : {Case{65521, 0, 0}, Case{65530, 9, 0}, Case{0x10000 + 5, 20, 8}, Case{0xFFFFFFF5, 4, 0}}) {
    const size_t before = runtime.sent().size();
    dispatch(browseRequest(0, c.length, memory.address()));
    ASSERT_EQ(runtime.sent().size(), before + 1) << c.length;
    void* reply = runtime.sent().back();
    ASSERT_EQ(AaSysComMsgGetPayloadSize(reply), c.replySize) << c.length;
    if (c.replySize >= 8) {
      EXPECT_EQ(word(reply, 1), c.length);
    }
    const auto* data = static_cast<const uint8_t*>(AaSysComMsgGetPayload(reply)) + 12;
    const long dataSize = std::max(0, c.replySize - 12);
    EXPECT_EQ(std::count(data, data + dataSize, 0x5A), static_cast<long>(c.copied)) << c.length;
  }

  dispatch(browseRequest(0, 65510, memory.address()));
  EXPECT_TRUE(runtime.anySentTextContains("Failed to BROWSER_DSP_MEMORY_ACK message."));
}

TEST_F(SicFtpFwEuTest, BrowsingAnUnmappedAddressEndsTheProcess) {
  testing::FLAGS_gtest_death_test_style = "threadsafe";
  void* request = browseRequest(0, 4, 0x10);
  EXPECT_DEATH(forwarder.ProcessMessage(request), "");
  runtime.deleteMessage(request);
}

}  // namespace
