#include <gtest/gtest.h>

#include <string>

#include "AaConfigRad.h"
#include "AaConfigRadTestFixture.h"

namespace {

using OlmTest::kSlaveSicad;
using OlmTest::kSubscriber;
using OlmTest::kSynchMaster;
using Words = std::vector<uint32_t>;

constexpr uint32_t kIndicationMaster = 0x10F00999u;
constexpr uint32_t kRequester = 0x12340555u;
constexpr uint32_t kDomain = 2;
const char* const kMasterNidTag = "olm.service.aasyscom.masternid";

void twoTags() {
  AaConfigRadSetMaxTagCount(kDomain, 2);
  AaConfigRadSetDefault(kDomain << 16, "zero", 5);
  AaConfigRadSetDefault(kDomain << 16 | 1, "one", 6);
}

class AaConfigRadSlaveTest : public OlmTest::RadTest {
 protected:
  void SetUp() override {
    RadTest::SetUp();
    OlmTest::registerOlmDomain();
    ASSERT_EQ(AaConfigRadRegisterDomain(kDomain, "Two", twoTags), EAaConfigRadRet_Ok);
  }

  // The only message of id sent so far, with its receiver checked.
  Words onlySent(uint32_t id, uint32_t receiver) {
    const auto sent = sentWithId(id);
    if (sent.size() != 1) {
      ADD_FAILURE() << "sent " << sent.size() << " messages 0x" << std::hex << id;
      return {};
    }
    EXPECT_EQ(AaSysComMsgGetReceiver(sent[0]), receiver);
    EXPECT_EQ(AaSysComMsgGetSender(sent[0]), kSlaveSicad);
    return wordsOf(sent[0]);
  }

  uint32_t synchedTag(uint32_t domain) {
    char name[80];
    AaConfigRadGetDomainSynchedTagString(name, sizeof(name), domain);
    uint32_t value = 0xDEAD;
    AaConfigTagGetU32(name, &value);
    return value;
  }
};

TEST_F(AaConfigRadSlaveTest, StartingBindsTheEuStoresTheAddressAndAsksTheBrokerForTheMaster) {
  ASSERT_NE(runtime.boundEu(AACONFIG_RAD_SLAVE_CPID), nullptr);
  uint32_t address = 0;
  ASSERT_EQ(AaConfigTagGetU32(AACONFIG_RAD_SLAVE_ADDR_TAG, &address), EAaConfigRet_Ok);
  EXPECT_EQ(address, kSlaveSicad);
  EXPECT_EQ(AaConfigSlaveGetCpid(), 0x060Cu);
  void* msg = newMessage();
  EXPECT_EQ(eu().PrioritizeMessage(msg), 3);
  runtime.release(msg);
  EXPECT_TRUE(sentWithId(AACONFIG_RAD_DOMAIN_REGISTER_REQ_MSG).empty()) << "no master yet";
}

TEST_F(AaConfigRadSlaveTest, ASynchronousMasterGetsEveryPendingDomainOnceInOrder) {
  AaConfigRadSetValue(kDomain << 16 | 1, 9);
  deliver(AACONFIG_RAD_MASTER_IND_MSG, kSynchMaster, {});
  const auto requests = sentWithId(AACONFIG_RAD_DOMAIN_REGISTER_REQ_MSG);
  ASSERT_EQ(requests.size(), 2u);
  EXPECT_EQ(wordsOf(requests[0])[1], 1u);
  const Words two = wordsOf(requests[1]);
  EXPECT_EQ(two, (Words{kSlaveSicad, kDomain, 11, 2, 0, 4, 5, 5, 0, 0, 1, 4, 6, 9, 0, 0}));
  const Words one = wordsOf(requests[0]);
  ASSERT_EQ(one.size(), 4u + 235 * 6);
  EXPECT_EQ(Words(one.begin() + 4 + 143 * 6, one.begin() + 4 + 144 * 6), (Words{143, 4, 20971520, 20971520, 0, 0}));
  uint16_t masterNid = 0;
  ASSERT_EQ(AaConfigTagGetU16(kMasterNidTag, &masterNid), EAaConfigRet_Ok);
  EXPECT_EQ(masterNid, 0x10F0);

  deliver(AACONFIG_RAD_MASTER_IND_MSG, kSynchMaster, {});  // a restarted master
  EXPECT_EQ(sentWithId(AACONFIG_RAD_DOMAIN_REGISTER_REQ_MSG).size(), 2u);
  uint32_t value = 0;
  ASSERT_EQ(AaConfigRadSetDomain(8, "Eight", &value, 1, nullptr), EAaConfigRadRet_Ok);
  EXPECT_EQ(sentWithId(AACONFIG_RAD_DOMAIN_REGISTER_REQ_MSG).size(), 3u) << "a known master hears at once";
}

TEST_F(AaConfigRadSlaveTest, AnyOtherMasterOnlyHearsOfTheDomainsAndAKnownMasterNodeIdStays) {
  ASSERT_EQ(AaConfigTagSetU16(kMasterNidTag, 0x1001), EAaConfigRet_Ok);
  deliver(AACONFIG_RAD_MASTER_IND_MSG, kIndicationMaster, {});
  const auto indications = sentWithId(AACONFIG_RAD_DOMAIN_REGISTER_IND_MSG);
  ASSERT_EQ(indications.size(), 2u);
  EXPECT_EQ(wordsOf(indications[1]), (Words{kDomain, 11}));
  EXPECT_TRUE(sentWithId(AACONFIG_RAD_DOMAIN_REGISTER_REQ_MSG).empty());
  uint16_t masterNid = 0;
  AaConfigTagGetU16(kMasterNidTag, &masterNid);
  EXPECT_EQ(masterNid, 0x1001);
}

TEST_F(AaConfigRadSlaveTest, TheMastersAnswerForDomainOneSetsItsValuesAndSwitchesTheLogOutputOff) {
  AaConfigRadSubscribeDomainUpdate(1, kSubscriber);
  deliver(AACONFIG_RAD_DOMAIN_REGISTER_RSP_MSG, kSynchMaster, {1, 0, 0, 2, 0x40, 4, 3, 0x3F, 4, 4});
  EXPECT_EQ(AaConfigRadGetValue(0x10040), 3u);
  EXPECT_EQ(AaConfigRadGetValue(0x1003F), 4u);
  EXPECT_EQ(AaConfigRadGetValue(0x10041), 0u) << "no output mode from the master";
  EXPECT_EQ(synchedTag(1), 1u);
  EXPECT_EQ(onlySent(AACONFIG_RAD_UPDATE_NOTIF_MSG, kSubscriber), (Words{1}));

  deliver(AACONFIG_RAD_DOMAIN_REGISTER_RSP_MSG, kSynchMaster, {1, 0, 0, 1, 0x41, 4, 7});
  EXPECT_EQ(AaConfigRadGetValue(0x10041), 7u);
}

TEST_F(AaConfigRadSlaveTest, AFailedShortOrOverlongAnswerChangesNothing) {
  deliver(AACONFIG_RAD_DOMAIN_REGISTER_RSP_MSG, kSynchMaster, {kDomain, 1, 0, 1, 0, 4, 99});
  deliver(AACONFIG_RAD_DOMAIN_REGISTER_RSP_MSG, kSynchMaster, {kDomain, 2, 0, 1, 0, 4, 99});
  deliver(AACONFIG_RAD_DOMAIN_REGISTER_RSP_MSG, kSynchMaster, {kDomain, 0, 0, 2, 0, 4, 99});  // two claimed
  deliver(AACONFIG_RAD_DOMAIN_REGISTER_RSP_MSG, kSynchMaster, {kDomain, 0, 0});
  EXPECT_EQ(AaConfigRadGetValue(kDomain << 16), 5u);
  EXPECT_EQ(synchedTag(kDomain), 0xDEADu) << "never set";
  EXPECT_EQ(log.count("handleDomainRegisterRsp() - Synch Domain registration for Domain 2 failed"), 1u);
  EXPECT_EQ(log.count("handleDomainRegisterRsp() - Received unknown status 2 for Domain 2, registration failed"), 1u);
  EXPECT_EQ(log.count("handleDomainRegisterRsp() - Synch Domain registration failed"), 2u);
}

TEST_F(AaConfigRadSlaveTest, ASetRequestWritesAnswersAndIsPassedOnToTheMasterAsAPlainWrite) {
  deliver(AACONFIG_RAD_MASTER_IND_MSG, kSynchMaster, {});
  AaConfigRadSubscribeNotifs(kDomain << 16 | 1, kSubscriber);
  const Words request{kDomain, 2, 2, 0, 4, 50, 1, 4, 60};
  deliver(AACONFIG_RAD_SET_PARAMS_REQ_MSG, kRequester, request);
  EXPECT_EQ(AaConfigRadGetValue(kDomain << 16), 50u);
  EXPECT_EQ(onlySent(AACONFIG_RAD_SET_PARAMS_RESP_MSG, kRequester), (Words{kDomain, 0}));
  EXPECT_EQ(onlySent(AACONFIG_RAD_CHANGE_NOTIF_MSG, kSubscriber), (Words{kDomain << 16 | 1, 60}));
  Words forwarded = request;
  forwarded[1] = 1;
  EXPECT_EQ(onlySent(AACONFIG_RAD_SYNC_NODE_MSG, kSynchMaster), forwarded);

  deliver(AACONFIG_RAD_SET_PARAMS_REQ_MSG, kSynchMaster, {kDomain, 1, 1, 0, 4, 51});
  EXPECT_EQ(AaConfigRadGetValue(kDomain << 16), 51u);
  EXPECT_EQ(sentWithId(AACONFIG_RAD_SYNC_NODE_MSG).size(), 1u) << "the master's own write stays here";
}

TEST_F(AaConfigRadSlaveTest, AnUnknownModeOrTagFailsWithStatus3) {
  deliver(AACONFIG_RAD_MASTER_IND_MSG, kSynchMaster, {});
  deliver(AACONFIG_RAD_SET_PARAMS_REQ_MSG, kRequester, {kDomain, 5, 1, 0, 4, 50});
  EXPECT_EQ(AaConfigRadGetValue(kDomain << 16), 5u);
  EXPECT_EQ(onlySent(AACONFIG_RAD_SET_PARAMS_RESP_MSG, kRequester), (Words{kDomain, 3}));
  EXPECT_TRUE(sentWithId(AACONFIG_RAD_SYNC_NODE_MSG).empty());

  deliver(AACONFIG_RAD_SET_PARAMS_REQ_MSG, kRequester, {kDomain, 1, 2, 7, 4, 1, 1, 4, 61});
  EXPECT_EQ(AaConfigRadGetValue(kDomain << 16 | 1), 61u) << "the good parameter is written";
  EXPECT_EQ(wordsOf(sentWithId(AACONFIG_RAD_SET_PARAMS_RESP_MSG).at(1)), (Words{kDomain, 3}));
}

TEST_F(AaConfigRadSlaveTest, ResetModesPutEveryDomainBackAndReachTheMasterAsMode3) {
  deliver(AACONFIG_RAD_MASTER_IND_MSG, kSynchMaster, {});
  AaConfigRadSetValue(kDomain << 16, 1);
  AaConfigRadSetValue(0x1008F, 1);
  deliver(AACONFIG_RAD_SET_PARAMS_REQ_MSG, kRequester, {kDomain, 0, 0});
  EXPECT_EQ(AaConfigRadGetValue(kDomain << 16), 5u);
  EXPECT_EQ(AaConfigRadGetValue(0x1008F), 20971520u) << "every domain, not only the request's";
  EXPECT_EQ(onlySent(AACONFIG_RAD_SYNC_NODE_MSG, kSynchMaster), (Words{kDomain, 3, 0}));
  EXPECT_EQ(onlySent(AACONFIG_RAD_SET_PARAMS_RESP_MSG, kRequester), (Words{kDomain, 0}));
}

TEST_F(AaConfigRadSlaveTest, ARequestInTheOtherByteOrderIsReadWordByWord) {
  deliver(AACONFIG_RAD_SET_PARAMS_REQ_MSG, kRequester, {kDomain, 1, 1, 1, 4, 0x01020304}, 0);
  EXPECT_EQ(AaConfigRadGetValue(kDomain << 16 | 1), 0x01020304u);
  EXPECT_EQ(onlySent(AACONFIG_RAD_SET_PARAMS_RESP_MSG, kRequester), (Words{kDomain, 0}));
}

TEST_F(AaConfigRadSlaveTest, ARequestShorterThanItsCountIsNotAnswered) {
  deliver(AACONFIG_RAD_SET_PARAMS_REQ_MSG, kRequester, {kDomain, 1, 2, 0, 4, 50});
  deliver(AACONFIG_RAD_SET_PARAMS_REQ_MSG, kRequester, {kDomain, 1});
  deliver(AACONFIG_RAD_GET_PARAMS_REQ_MSG, kRequester, {});
  EXPECT_EQ(AaConfigRadGetValue(kDomain << 16), 5u);
  EXPECT_TRUE(sentWithId(AACONFIG_RAD_SET_PARAMS_RESP_MSG).empty());
  EXPECT_TRUE(sentWithId(AACONFIG_RAD_GET_PARAMS_RESP_MSG).empty());
  EXPECT_EQ(log.count("handleSetRDParamsReq(): payLoad error in request message"), 2u);
}

TEST_F(AaConfigRadSlaveTest, GetRequestsAnswerTheSenderWithCurrentValuesOrDefaults) {
  AaConfigRadSetValue(kDomain << 16 | 1, 8);
  deliver(AACONFIG_RAD_GET_PARAMS_REQ_MSG, kRequester, {kDomain});
  EXPECT_EQ(onlySent(AACONFIG_RAD_GET_PARAMS_RESP_MSG, kRequester), (Words{kDomain, 2, 0, 4, 5, 1, 4, 8}));
  deliver(AACONFIG_RAD_GET_DEFAULT_PARAMS_REQ_MSG, kRequester, {kDomain});
  EXPECT_EQ(onlySent(AACONFIG_RAD_GET_DEFAULT_PARAMS_RESP_MSG, kRequester), (Words{kDomain, 2, 0, 4, 5, 1, 4, 6}));
  deliver(AACONFIG_RAD_GET_PARAMS_REQ_MSG, kRequester, {500});
  EXPECT_EQ(wordsOf(sentWithId(AACONFIG_RAD_GET_PARAMS_RESP_MSG).at(1)), (Words{500, 0}));
}

TEST_F(AaConfigRadSlaveTest, TheMasterNodeIdCanBeSetByMessage) {
  deliver(AACONFIG_SET_MASTERNID_REQ, kRequester, {0xABCD10F7});
  uint16_t masterNid = 0;
  ASSERT_EQ(AaConfigTagGetU16(kMasterNidTag, &masterNid), EAaConfigRet_Ok);
  EXPECT_EQ(masterNid, 0x10F7);
  EXPECT_EQ(onlySent(AACONFIG_SET_MASTERNID_RESP_MSG, kRequester), (Words{0, 0xABCD10F7}));
}

TEST_F(AaConfigRadSlaveTest, UnregisteringTellsTheMasterAndItsConfirmationDeletesTheSynchronisationTag) {
  ASSERT_EQ(AaConfigRadRegisterDomain(9, "Nine", [] { AaConfigRadSetMaxTagCount(9, 1); }), EAaConfigRadRet_Ok);
  ASSERT_EQ(AaConfigRadUnRegisterDomain(9), EAaConfigRadRet_Ok);
  deliver(AACONFIG_RAD_MASTER_IND_MSG, kSynchMaster, {});
  EXPECT_EQ(sentWithId(AACONFIG_RAD_DOMAIN_REGISTER_REQ_MSG).size(), 2u) << "domain 9 left before the master came";
  EXPECT_TRUE(sentWithId(AACONFIG_RAD_DOMAIN_UNREGISTER_REQ_MSG).empty());

  deliver(AACONFIG_RAD_DOMAIN_REGISTER_RSP_MSG, kSynchMaster, {kDomain, 0, 0, 0});
  EXPECT_EQ(synchedTag(kDomain), 1u);
  ASSERT_EQ(AaConfigRadUnRegisterDomain(kDomain), EAaConfigRadRet_Ok);
  EXPECT_EQ(onlySent(AACONFIG_RAD_DOMAIN_UNREGISTER_REQ_MSG, kSynchMaster), (Words{kSlaveSicad, kDomain}));
  deliver(AACONFIG_RAD_DOMAIN_UNREGISTER_RSP_MSG, kSynchMaster, {kDomain, 0});
  char name[80];
  AaConfigRadGetDomainSynchedTagString(name, sizeof(name), kDomain);
  EXPECT_EQ(AaConfigTagIsSet(name), 0u);
}

TEST_F(AaConfigRadSlaveTest, AnUnknownMessageIsLoggedAndDestroyed) {
  deliver(0x3A01, kRequester, {1, 2});
  EXPECT_EQ(log.count("handleMessages(), 0x1234060c received unknown message 0x3a01 from 0x12340555"), 1u);
}

}  // namespace
