#include "AaConfig.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "FakeRuntime.h"

namespace {

constexpr uint32_t kTagSwitch = 0x1001A;
const char* const kName = "olm.test.tag";

// Tags start from a cleared early table in every test; the runtime catches the log lines.
class AaConfigTagTest : public OlmTest::FakeRuntimeTest {
 protected:
  void SetUp() override {
    FakeRuntimeTest::SetUp();
    AaConfigEarlyStartup();
  }
  void TearDown() override {
    AaConfigRadSetValue(kTagSwitch, 0);
    FakeRuntimeTest::TearDown();
  }

  static unsigned entriesNamed(const char* name) {
    unsigned count = 0;
    for (const SAaConfigEarlyTag& entry : earlyTagTable) count += std::strcmp(entry.name, name) == 0;
    return count;
  }
};

TEST_F(AaConfigTagTest, RoundTripIsSetAndOverwriteInPlace) {
  EXPECT_EQ(AaConfigTagIsSet(kName), 0u);
  ASSERT_EQ(AaConfigTagSetU16(kName, 0xBEEF), EAaConfigRet_Ok);
  EXPECT_EQ(AaConfigTagIsSet(kName), 1u);
  EXPECT_EQ(log.count("setConfigTag() name = olm.test.tag, value = 0xbeef, len = 2, u16 type"), 1u);
  ASSERT_EQ(AaConfigTagPublicSetU16(kName, 2), EAaConfigRet_Ok);
  uint16_t narrow = 0;
  EXPECT_EQ(AaConfigTagGetU16(kName, &narrow), EAaConfigRet_Ok);
  EXPECT_EQ(narrow, 2);
  EXPECT_EQ(entriesNamed(kName), 1u);

  EXPECT_EQ(AaConfigEarlyStartup(), 0u);
  EXPECT_EQ(AaConfigTagIsSet(kName), 0u);
  EXPECT_EQ(entriesNamed(kName), 0u);

  // The generic get sees the same bytes as the typed one.
  ASSERT_EQ(AaConfigTagSetU32(kName, 0x12345678), EAaConfigRet_Ok);
  uint32_t value = 0;
  EXPECT_EQ(AaConfigTagGetU32(kName, &value), EAaConfigRet_Ok);
  EXPECT_EQ(value, 0x12345678u);
  void* raw = nullptr;
  uint32_t length = 0;
  ASSERT_EQ(AaConfigTagGet(kName, &raw, &length), EAaConfigRet_Ok);
  EXPECT_EQ(length, 4u);
  EXPECT_EQ(std::memcmp(raw, &value, sizeof(value)), 0);
}

TEST_F(AaConfigTagTest, TypeMismatchIs8ForU32And6ForU16AndWrongSizeIs7) {
  ASSERT_EQ(AaConfigTagSetU16(kName, 7), EAaConfigRet_Ok);
  uint32_t wide = 0;
  EXPECT_EQ(AaConfigTagGetU32(kName, &wide), EAaConfigRet_TypeMismatch);
  EXPECT_EQ(log.count("getConfigTag() type mismatch: name = 'olm.test.tag', requested type = 2, stored type = 1"), 1u);
  void* raw = nullptr;
  uint32_t length = 0;
  EXPECT_EQ(AaConfigTagGet(kName, &raw, &length), EAaConfigRet_Ok);

  ASSERT_EQ(AaConfigTagSetU32("olm.test.wide", 7), EAaConfigRet_Ok);
  uint16_t narrow = 0;
  EXPECT_EQ(AaConfigTagGetU16("olm.test.wide", &narrow), EAaConfigRet_TagReadFailed);

  // An unspecified value of the wrong size.
  const uint8_t bytes[3] = {1, 2, 3};
  ASSERT_EQ(AaConfigTagSet(kName, bytes, sizeof(bytes)), EAaConfigRet_Ok);
  EXPECT_EQ(AaConfigTagGetU16(kName, &narrow), EAaConfigRet_WrongLength);
  EXPECT_EQ(AaConfigTagGetU32(kName, &wide), EAaConfigRet_WrongLength);
}

TEST_F(AaConfigTagTest, AMissingTagIs2ForGetAnd6ForGetU16) {
  void* raw = nullptr;
  uint32_t length = 0;
  uint16_t narrow = 0;
  uint32_t wide = 0;
  EXPECT_EQ(AaConfigTagGet(kName, &raw, &length), EAaConfigRet_TagNotFound);
  EXPECT_EQ(AaConfigTagGetU32(kName, &wide), EAaConfigRet_TagNotFound);
  EXPECT_EQ(AaConfigTagGetU16(kName, &narrow), EAaConfigRet_TagReadFailed);
  EXPECT_EQ(log.count("getConfigTag(): tag 'olm.test.tag' not found in earlyTagTable"), 3u);
}

TEST_F(AaConfigTagTest, NamesUpTo80CharactersAndValuesUpTo256BytesAreAccepted) {
  const std::string longest(80, 'n');
  const std::string tooLong(81, 'n');
  EXPECT_EQ(AaConfigTagSetU16(longest.c_str(), 1), EAaConfigRet_Ok);
  EXPECT_EQ(AaConfigTagIsSet(longest.c_str()), 1u);
  EXPECT_EQ(AaConfigTagSetU16(tooLong.c_str(), 1), EAaConfigRet_InvalidParameter);
  uint32_t wide = 0;
  EXPECT_EQ(AaConfigTagGetU32(tooLong.c_str(), &wide), EAaConfigRet_InvalidParameter);

  const uint8_t value[257] = {};
  EXPECT_EQ(AaConfigTagSet(kName, value, 256), EAaConfigRet_Ok);
  EXPECT_EQ(AaConfigTagSet(kName, value, 257), EAaConfigRet_InvalidParameter);
}

TEST_F(AaConfigTagTest, NullAndEmptyArgumentsAreRefused) {
  const uint8_t value[2] = {};
  EXPECT_EQ(AaConfigTagSet(nullptr, value, 2), EAaConfigRet_InvalidParameter);
  EXPECT_EQ(AaConfigTagSet(kName, nullptr, 2), EAaConfigRet_InvalidParameter);
  EXPECT_EQ(AaConfigTagSet(kName, value, 0), EAaConfigRet_InvalidParameter);
  EXPECT_EQ(AaConfigTagIsSet(nullptr), 0u);
  EXPECT_EQ(AaConfigTagGetU16(kName, nullptr), EAaConfigRet_TagReadFailed);
  EXPECT_EQ(AaConfigTagGetU32(kName, nullptr), EAaConfigRet_InvalidParameter);
  uint32_t length = 0;
  EXPECT_EQ(AaConfigTagGet(kName, nullptr, &length), EAaConfigRet_InvalidParameter);
}

TEST_F(AaConfigTagTest, The257thDistinctTagFindsTheTableFull) {
  for (unsigned i = 0; i < AACONFIG_EARLY_TAG_COUNT; ++i) {
    ASSERT_EQ(AaConfigTagSetU32(("olm.test." + std::to_string(i)).c_str(), i), EAaConfigRet_Ok);
  }
  EXPECT_EQ(AaConfigTagSetU32("olm.test.one.more", 1), EAaConfigRet_EarlyTableFull);
  EXPECT_EQ(AaConfigTagSetU32("olm.test.7", 70), EAaConfigRet_Ok);
  uint32_t value = 0;
  EXPECT_EQ(AaConfigTagGetU32("olm.test.7", &value), EAaConfigRet_Ok);
  EXPECT_EQ(value, 70u);
}

TEST_F(AaConfigTagTest, ADeletedTagIsGoneAndItsEntryServesTheNextNewTag) {
  for (unsigned i = 0; i < AACONFIG_EARLY_TAG_COUNT; ++i) {
    ASSERT_EQ(AaConfigTagSetU32(("olm.test." + std::to_string(i)).c_str(), i), EAaConfigRet_Ok);
  }
  EXPECT_EQ(AaConfigTagDelete("olm.test.7"), EAaConfigRet_Ok);
  EXPECT_EQ(AaConfigTagIsSet("olm.test.7"), 0u);
  EXPECT_EQ(AaConfigTagPublicDelete("olm.test.7"), EAaConfigRet_TagNotFound);
  EXPECT_EQ(AaConfigTagDelete(nullptr), EAaConfigRet_InvalidParameter);
  EXPECT_EQ(AaConfigTagSetU32("olm.test.one.more", 1), EAaConfigRet_Ok);
  EXPECT_EQ(AaConfigTagIsSet("olm.test.8"), 1u);
}

TEST_F(AaConfigTagTest, UnspecifiedValuesAreLoggedAsWordStringOrOnRequestHexDump) {
  const uint8_t word[4] = {0x78, 0x56, 0x34, 0x12};
  ASSERT_EQ(AaConfigTagSet(kName, word, sizeof(word)), EAaConfigRet_Ok);
  EXPECT_EQ(log.count("value = 0x12345678, len = 4, type not specified"), 1u);

  const char text[] = "eth0";
  ASSERT_EQ(AaConfigTagSet(kName, text, sizeof(text)), EAaConfigRet_Ok);
  EXPECT_EQ(log.count("value = eth0, len = 5, type not specified (string assumed)"), 1u);

  const uint8_t binary[6] = {1, 2, 3, 4, 5, 6};
  ASSERT_EQ(AaConfigTagSet(kName, binary, sizeof(binary)), EAaConfigRet_Ok);
  EXPECT_EQ(log.count("type not specified, value:"), 0u);
  AaConfigRadSetValue(kTagSwitch, 1);
  ASSERT_EQ(AaConfigTagSet(kName, binary, sizeof(binary)), EAaConfigRet_Ok);
  EXPECT_EQ(log.count("setConfigTag() name = olm.test.tag, len = 6, type not specified, value:"), 1u);
  EXPECT_EQ(log.count("01 02 03 04 05 06"), 1u);
}

// R&D parameters

TEST(AaConfigRad, DomainOneHoldsItsDefaults) {
  EXPECT_EQ(AaConfigRadGetValue(0x1008F), 20971520u);  // AaSysLogRAMDeviceFileSize
  EXPECT_EQ(AaConfigRadGetValue(0x10040), 2u);
  EXPECT_EQ(AaConfigRadGetValue(0x10041), 0xFFFFFFFFu);
  EXPECT_EQ(AaConfigRadGetValue(0x10095), 0u);  // index 149 has no tag
}

TEST(AaConfigRad, OnlyTheLastTagAndThoseBeforeItCanBeSet) {
  ASSERT_EQ(AaConfigRadSetValue(0x100EA, 5), EAaConfigRet_Ok);
  EXPECT_EQ(AaConfigRadGetValue(0x100EA), 5u);
  ASSERT_EQ(AaConfigRadSetValue(0x100EA, 0), EAaConfigRet_Ok);
  EXPECT_EQ(AaConfigRadGetValue(0x100EB), 0u);  // index 235, one past the last tag
  EXPECT_EQ(AaConfigRadGetValue(0x2003F), 0u);
  EXPECT_NE(AaConfigRadSetValue(0x100EB, 1), EAaConfigRet_Ok);
  EXPECT_NE(AaConfigRadSetValue(0x20000, 1), EAaConfigRet_Ok);
}

}  // namespace
