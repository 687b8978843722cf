// Payloads as an operator types them and a reply's payload as the tool shows it.
#include "SendMessages.h"

#include <gtest/gtest.h>

namespace {

TEST(OlmctlPayload, HexadecimalBytesInTheOrderGiven) {
  std::vector<uint8_t> payload;
  std::string error;
  ASSERT_TRUE(Olmctl::parsePayload({"0a000000", "FF", "00aB"}, payload, error)) << error;
  EXPECT_EQ(payload, (std::vector<uint8_t>{0x0a, 0, 0, 0, 0xff, 0x00, 0xab}));
  ASSERT_TRUE(Olmctl::parsePayload({}, payload, error));
  EXPECT_TRUE(payload.empty());
  for (const char* bad : {"", "a", "0x12", "12 34", "zz", "123"}) {
    EXPECT_FALSE(Olmctl::parsePayload({"00", bad}, payload, error)) << "'" << bad << "'";
    EXPECT_NE(error.find(std::string("'") + bad + "'"), std::string::npos) << error;
  }
}

TEST(OlmctlPayload, ShownInGroupsOfFourBytesThirtyTwoToALine) {
  EXPECT_EQ(Olmctl::payloadLines({}), "  (no payload)\n");
  EXPECT_EQ(Olmctl::payloadLines({1, 2, 3, 4, 5}), "  01020304 05\n");
  std::vector<uint8_t> long_(33);
  for (size_t i = 0; i < long_.size(); ++i) long_[i] = static_cast<uint8_t>(i);
  EXPECT_EQ(Olmctl::payloadLines(long_),
            "  00010203 04050607 08090a0b 0c0d0e0f 10111213 14151617 18191a1b 1c1d1e1f\n"
            "  20\n");
}

}  // namespace
