#include "AaConfig.h"

#include <gtest/gtest.h>

namespace {

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
