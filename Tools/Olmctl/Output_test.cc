// Tables for people and JSON for scripts.
#include "Output.h"

#include <gtest/gtest.h>

namespace {

TEST(OlmctlOutput, TableColumnsAreAsWideAsTheirWidestCell) {
  Olmctl::Table table({{"NODE", false}, {"WAITING", true}, {"ANSWER", false}});
  table.add({"0x1011", "12345678", "in 84 us"});
  table.add({"0x1ff0", "0"});
  EXPECT_EQ(table.text(),
            "NODE     WAITING  ANSWER\n"
            "0x1011  12345678  in 84 us\n"
            "0x1ff0         0\n")
      << "numbers and their heading end flush; a missing cell leaves no trailing spaces";
}

TEST(OlmctlOutput, JsonMembersInOrderAndEscaped) {
  const std::string text = Olmctl::JsonObject()
                               .number("node", uint64_t{4113})
                               .number("idlePercent", 12.345)
                               .boolean("answers", false)
                               .string("failure", "a \"quoted\"\tline\\")
                               .raw("lost", Olmctl::jsonArray({"1", "{}"}))
                               .text();
  EXPECT_EQ(text,
            "{\"node\":4113,\"idlePercent\":12.35,\"answers\":false,\"failure\":\"a \\\"quoted\\\"\\u0009line\\\\\","
            "\"lost\":[1,{}]}");
  EXPECT_EQ(Olmctl::JsonObject().text(), "{}");
  const uint8_t bytes[] = {0x00, 0xab, 0x7f};
  EXPECT_EQ(Olmctl::hexDigits(bytes, sizeof(bytes)), "00ab7f");
}

}  // namespace
