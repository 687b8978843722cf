#include "AaConfigRad.h"

#include <gtest/gtest.h>

#include <string>

#include "AaConfigRadTestFixture.h"

namespace {

using OlmTest::kSlaveSicad;
using OlmTest::kSubscriber;

constexpr uint32_t kDomain = 3;
constexpr uint32_t kTag = kDomain << 16 | 2;
const char* const kTagNames[] = {"first", "second", "third", "fourth"};

void threeTags() {
  AaConfigRadSetMaxTagCount(kDomain, 4);
  for (uint32_t index = 0; index < 4; ++index) AaConfigRadSetDefault(kDomain << 16 | index, kTagNames[index], 10 + index);
}
void noTags() {}

class AaConfigRadTest : public OlmTest::RadTest {
 protected:
  std::vector<std::pair<uint32_t, uint32_t>> changeNotifs() const {
    std::vector<std::pair<uint32_t, uint32_t>> notifs;
    for (const void* msg : sentWithId(AACONFIG_RAD_CHANGE_NOTIF_MSG)) {
      EXPECT_EQ(AaSysComMsgGetSender(msg), kSlaveSicad);
      EXPECT_EQ(AaSysComMsgGetReceiver(msg), kSubscriber);
      notifs.emplace_back(wordsOf(msg)[0], wordsOf(msg)[1]);
    }
    return notifs;
  }
  size_t updateNotifs() const { return sentWithId(AACONFIG_RAD_UPDATE_NOTIF_MSG).size(); }
};

TEST_F(AaConfigRadTest, TagCountKeepsItsLowHalfAndIsLimitedTo2500) {
  EXPECT_EQ(AaConfigRadSetMaxTagCount(5, 65771), EAaConfigRadRet_Ok);
  EXPECT_EQ(AaConfigRadGetTagCount(5), 235u);
  EXPECT_EQ(AaConfigRadSetMaxTagCount(5, 3), EAaConfigRadRet_AlreadySet);
  EXPECT_EQ(AaConfigRadSetMaxTagCount(6, 2501), EAaConfigRadRet_InvalidParameter);
  EXPECT_EQ(AaConfigRadSetMaxTagCount(6, 2500), EAaConfigRadRet_Ok);
  EXPECT_EQ(AaConfigRadSetMaxTagCount(7, 0x10000), EAaConfigRadRet_InvalidParameter);
  EXPECT_EQ(AaConfigRadSetMaxTagCount(103, 1), EAaConfigRadRet_InvalidParameter);
  EXPECT_EQ(log.count("AaConfigRadSetMaxTagCount: InvalidParameter: domain (103) >= radDomainCount (103)"), 1u);
  EXPECT_EQ(AaConfigRadSetMaxDomainCount(5), EAaConfigRadRet_AlreadySet);
  EXPECT_EQ(AaConfigRadGetDomainCount(), 103u);
  EXPECT_EQ(AaConfigRadRemoveMaxTagCount(5), EAaConfigRadRet_Ok);
  EXPECT_EQ(AaConfigRadGetTagCount(5), 0u);
}

TEST_F(AaConfigRadTest, RegistrationCallsTheInitFunctionAndRefusesATakenSlotOrNoTags) {
  EXPECT_EQ(AaConfigRadRegisterDomain(kDomain, "Three", noTags), EAaConfigRadRet_InvalidParameter);
  EXPECT_EQ(AaConfigRadGetDomainString(kTag), nullptr) << "the slot is free again";
  EXPECT_EQ(AaConfigRadRegisterDomain(kDomain, "Three", nullptr), EAaConfigRadRet_InvalidParameter);

  ASSERT_EQ(AaConfigRadRegisterDomain(kDomain, "Three", threeTags), EAaConfigRadRet_Ok);
  EXPECT_STREQ(AaConfigRadGetDomainString(kTag), "Three");
  EXPECT_STREQ(AaConfigRadGetTagString(kTag), "third");
  EXPECT_EQ(AaConfigRadGetValue(kTag), 12u);
  EXPECT_EQ(AaConfigRadGetValue(kDomain << 16 | 4), 0u) << "beyond the tag count";
  EXPECT_EQ(AaConfigRadGetValue(200u << 16), 0u) << "beyond the domain count";

  EXPECT_EQ(AaConfigRadRegisterDomain(kDomain, "Again", threeTags), EAaConfigRadRet_AlreadySet);
  EXPECT_EQ(log.count("AaConfigRadRegisterDomain: Domain 3 'Again' has already been registered with name 'Three'"), 1u);
  EXPECT_EQ(AaConfigRadRegisterDomainSynch(kDomain, "Again", threeTags), EAaConfigRadRet_AlreadySet);

  EXPECT_EQ(AaConfigRadUnRegisterDomain(kDomain), EAaConfigRadRet_Ok);
  EXPECT_EQ(AaConfigRadGetValue(kTag), 0u);
  EXPECT_EQ(AaConfigRadRegisterDomain(kDomain, "Three", threeTags), EAaConfigRadRet_Ok);
}

TEST_F(AaConfigRadTest, ValuesSetBeforeRegistrationAreAppliedAndNotifiedThen) {
  ASSERT_EQ(AaConfigRadSubscribeNotifs(kTag, kSubscriber), EAaConfigRadRet_Ok);
  EXPECT_EQ(AaConfigRadSetValue(kTag, 7), EAaConfigRadRet_Ok);
  EXPECT_EQ(AaConfigRadSetValue(kTag, 8), EAaConfigRadRet_Ok) << "replaces the stored 7";
  EXPECT_EQ(AaConfigRadSetValue(4u << 16, 9), EAaConfigRadRet_Ok) << "another domain's, kept";
  EXPECT_EQ(AaConfigRadGetValue(kTag), 0u);
  EXPECT_TRUE(changeNotifs().empty());

  ASSERT_EQ(AaConfigRadRegisterDomain(kDomain, "Three", threeTags), EAaConfigRadRet_Ok);
  EXPECT_EQ(AaConfigRadGetValue(kTag), 8u);
  EXPECT_EQ(changeNotifs(), (std::vector<std::pair<uint32_t, uint32_t>>{{kTag, 8}}));

  const Olm::CircularListElement* stored = Olm::Rad::storeForLaterList();
  ASSERT_FALSE(Olm::circularListIsEmpty(*stored));
  EXPECT_EQ(static_cast<const Olm::Rad::TagValue*>(stored->next->record)->tagId, 4u << 16);
  EXPECT_EQ(stored->next->next, stored) << "only domain 4's value is left";
}

TEST_F(AaConfigRadTest, OnlyARealChangeIsNotifiedAndDefaultsComeBackWithOneUpdate) {
  ASSERT_EQ(AaConfigRadRegisterDomain(kDomain, "Three", threeTags), EAaConfigRadRet_Ok);
  AaConfigRadSubscribeNotifs(kTag, kSubscriber);
  AaConfigRadSubscribeDomainUpdate(kDomain, kSubscriber);
  EXPECT_EQ(AaConfigRadSetValue(kTag, 12), EAaConfigRadRet_Ok);
  EXPECT_TRUE(changeNotifs().empty()) << "12 is the value already";
  EXPECT_EQ(AaConfigRadSetValue(kTag, 99), EAaConfigRadRet_Ok);
  EXPECT_EQ(AaConfigRadSetValue(kDomain << 16 | 0, 50), EAaConfigRadRet_Ok);
  EXPECT_EQ(AaConfigRadSetValue(kDomain << 16 | 4, 1), EAaConfigRadRet_InvalidParameter);
  EXPECT_EQ(updateNotifs(), 0u);

  ASSERT_EQ(AaConfigRadSetDefaultValues(kDomain), EAaConfigRadRet_Ok);
  EXPECT_EQ(AaConfigRadGetValue(kTag), 12u);
  EXPECT_EQ(AaConfigRadGetValue(kDomain << 16), 10u);
  EXPECT_EQ(changeNotifs(), (std::vector<std::pair<uint32_t, uint32_t>>{{kTag, 99}, {kTag, 12}}));
  EXPECT_EQ(updateNotifs(), 1u);
  ASSERT_EQ(AaConfigRadSetDefaultValues(kDomain), EAaConfigRadRet_Ok);
  EXPECT_EQ(updateNotifs(), 1u) << "nothing changed, nobody told";

  EXPECT_EQ(AaConfigRadUpdateDefaultValue(kTag, 5), EAaConfigRadRet_Ok);
  EXPECT_EQ(AaConfigRadGetValue(kTag), 12u) << "only the default moved";
  EXPECT_EQ(AaConfigRadSetDefaultValues(9), EAaConfigRadRet_NoValueArrays);
  EXPECT_EQ(AaConfigRadUpdateDefaultValue(9u << 16, 5), EAaConfigRadRet_NoValueArrays);
}

TEST_F(AaConfigRadTest, UnsubscribingTheLastDomainDropsTheTagSubscriptionsButNotTheOtherWayRound) {
  ASSERT_EQ(AaConfigRadRegisterDomain(kDomain, "Three", threeTags), EAaConfigRadRet_Ok);
  AaConfigRadSubscribeNotifs(kTag, kSubscriber);
  AaConfigRadSubscribeNotifs(kTag, kSubscriber);  // once is enough
  AaConfigRadSubscribeDomainUpdate(kDomain, kSubscriber);
  AaConfigRadSetValue(kTag, 1);
  EXPECT_EQ(changeNotifs().size(), 1u);

  AaConfigRadUnSubscribeDomainUpdate(kDomain + 1, kSubscriber);  // not subscribed: nothing goes
  AaConfigRadSetValue(kTag, 2);
  EXPECT_EQ(changeNotifs().size(), 2u);
  AaConfigRadUnSubscribeDomainUpdate(kDomain, kSubscriber);
  AaConfigRadSetValue(kTag, 3);
  EXPECT_EQ(changeNotifs().size(), 2u) << "the tag subscription went with the domain";

  AaConfigRadSubscribeNotifs(kTag, kSubscriber);
  AaConfigRadSubscribeDomainUpdate(kDomain, kSubscriber);
  AaConfigRadUnSubscribeNotifs(kTag, kSubscriber);
  AaConfigRadSetValue(kTag, 4);
  AaConfigRadSetDefaultValues(kDomain);
  EXPECT_EQ(changeNotifs().size(), 2u);
  EXPECT_EQ(updateNotifs(), 1u) << "the domain subscription stays";
}

TEST_F(AaConfigRadTest, AReadyMadeDomainUsesTheCallersValuesInPlaceAndKeepsACopyAsDefaults) {
  uint32_t values[3] = {1, 0, 3};
  const char* names[3] = {"a", "", "c\x01"};
  ASSERT_EQ(AaConfigRadSetDomain(kDomain, "Made", values, 3, names), EAaConfigRadRet_Ok);
  EXPECT_EQ(AaConfigRadSetDomain(kDomain, "Made", values, 3, names), EAaConfigRadRet_AlreadySet);
  values[0] = 42;
  EXPECT_EQ(AaConfigRadGetValue(kDomain << 16), 42u);
  AaConfigRadSetValue(kDomain << 16 | 2, 30);
  EXPECT_EQ(values[2], 30u);
  AaConfigRadSetDefaultValues(kDomain);
  EXPECT_EQ(values[0], 1u);
  EXPECT_EQ(values[2], 3u);

  EXPECT_STREQ(AaConfigRadGetTagString(kDomain << 16), "a");
  EXPECT_EQ(AaConfigRadGetTagString(kDomain << 16 | 1), nullptr) << "empty";
  EXPECT_EQ(AaConfigRadGetTagString(kDomain << 16 | 2), nullptr) << "not printable";
  EXPECT_EQ(log.count("AaConfigRadGetTagString: Invalid parameter string: tag (2), domain 3"), 1u);
  EXPECT_EQ(AaConfigRadGetTagString(kDomain << 16 | 3), nullptr);
  EXPECT_EQ(log.count("AaConfigRadGetTagString: InvalidParameter: tag (3) >= tagCount (3), domain 3"), 1u);

  ASSERT_EQ(AaConfigRadUnRegisterDomain(kDomain), EAaConfigRadRet_Ok);
  EXPECT_EQ(values[0], 1u) << "the caller's array is left alone";
}

TEST_F(AaConfigRadTest, GetAllFillsRecordsInIndexOrderAndFlashValuesCompleteTheSyncRecords) {
  ASSERT_EQ(AaConfigRadRegisterDomain(kDomain, "Three", threeTags), EAaConfigRadRet_Ok);
  AaConfigRadSetValue(kTag, 77);
  std::vector<uint32_t> records(4 * 6, 0xEEEEEEEE);
  ASSERT_EQ(AaConfigRadGetAllTags(records.data(), kDomain), 4u);
  EXPECT_EQ(std::vector<uint32_t>(records.begin() + 6, records.begin() + 9), (std::vector<uint32_t>{2, 4, 77}));
  EXPECT_EQ(records[12], 0xEEEEEEEEu);
  ASSERT_EQ(AaConfigRadGetAllDefTags(records.data(), kDomain), 4u);
  EXPECT_EQ(records[8], 12u);

  Olm::Rad::keepForMaster(kTag, 0x55);
  Olm::Rad::keepForMaster(kDomain << 16 | 9, 0x66);  // beyond the tag count: ignored
  ASSERT_EQ(AaConfigRadGetAllSyncTags(records.data(), kDomain), 4u);
  EXPECT_EQ(AaConfigRadGetAllFlashTags(records.data(), kDomain), 1u);
  EXPECT_EQ(std::vector<uint32_t>(records.begin() + 12, records.begin() + 18),
            (std::vector<uint32_t>{2, 4, 12, 77, 1, 0x55}));
  EXPECT_EQ(records[6 + 4], 0u);
  EXPECT_EQ(log.count("AaConfigRadGetAllFlashTags(): invalid parameter index 0x0009 for domain 3 ignored, tagCount = 0x0004 !!!"),
            1u);

  std::vector<uint32_t> untouched(3, 0xEEEEEEEE);
  EXPECT_EQ(AaConfigRadGetAllTags(untouched.data(), 103), 0u);
  EXPECT_EQ(untouched[0], 0xEEEEEEEEu);
  EXPECT_EQ(log.count("AaConfigRadGetAllTags(): domain 103 out of range (>= 103)"), 1u);
}

TEST_F(AaConfigRadTest, TheSynchronisationTagNameHoldsTheDomainInDecimal) {
  char name[80];
  EXPECT_EQ(AaConfigRadGetDomainSynchedTagString(name, sizeof(name), 17), 42);
  EXPECT_STREQ(name, "olm.service.aaconfig.rad.domain.17.synched");
}

// Domain 1

TEST_F(AaConfigRadTest, DomainOneHas235TagsWithTheirNamesAndDefaults) {
  ASSERT_EQ(AaConfigRadRegisterDomain(1, "OLM", AaConfigRadOlmDomainInit), EAaConfigRadRet_Ok);
  ASSERT_EQ(AaConfigRadGetTagCount(1), 235u);
  uint32_t named = 0;
  for (uint32_t index = 0; index < 235; ++index) named += AaConfigRadGetTagString(0x10000 | index) != nullptr;
  EXPECT_EQ(named, 152u);
  EXPECT_EQ(AaConfigRadGetTagString(0x10095), nullptr);  // 149
  EXPECT_STREQ(AaConfigRadGetTagString(0x10000), "AaSysCom");
  EXPECT_STREQ(AaConfigRadGetTagString(0x1001A), "AaConfigTag");
  EXPECT_STREQ(AaConfigRadGetTagString(0x10064), "AaFileSicFtpServerTimeout");  // 100
  EXPECT_STREQ(AaConfigRadGetTagString(0x10098), "AaLogCollectorCompressionDisable");  // 152

  const std::pair<uint32_t, uint32_t> nonZero[] = {
      {14, 0xFFFFFFFF}, {15, 1},    {63, 2},         {64, 2},   {65, 0xFFFFFFFF}, {67, 0xFFFFFFFF}, {69, 0xFFFFFFFF},
      {84, 5000},       {85, 1},    {89, 0xFFFFFFFF}, {95, 0xFFFFFFFF}, {122, 60},  {124, 1},         {128, 1},
      {138, 12},        {140, 1},   {142, 1},        {143, 20971520},   {151, 10485760}};
  uint32_t sum = 0;
  for (uint32_t index = 0; index < 235; ++index) sum += AaConfigRadGetValue(0x10000 | index) != 0;
  EXPECT_EQ(sum, 19u);
  for (const auto& [index, value] : nonZero) EXPECT_EQ(AaConfigRadGetValue(0x10000 | index), value) << index;

  AaConfigRadSetValue(0x1008F, 1);
  ASSERT_EQ(AaConfigRadSetDefaultValues(1), EAaConfigRadRet_Ok);
  EXPECT_EQ(AaConfigRadGetValue(0x1008F), 20971520u);
}

TEST_F(AaConfigRadTest, ValuesStoredForDomainOneOverrideItsDefaults) {
  AaConfigRadSubscribeNotifs(0x10040, kSubscriber);
  AaConfigRadSetValue(0x10040, 4);
  ASSERT_EQ(AaConfigRadRegisterDomain(1, "OLM", AaConfigRadOlmDomainInit), EAaConfigRadRet_Ok);
  EXPECT_EQ(AaConfigRadGetValue(0x10040), 4u);
  EXPECT_EQ(changeNotifs(), (std::vector<std::pair<uint32_t, uint32_t>>{{0x10040, 4}}));
}

}  // namespace
