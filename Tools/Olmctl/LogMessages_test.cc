// What olmctl log makes of the collector's messages: lines and node events of either byte order,
// messages too short for their words, and how they are shown.
#include "LogMessages.h"

#include <gtest/gtest.h>

#include <cstring>

#include "AaSysComMsgHeader.h"
#include "SysLogFollow.h"

namespace {

using Olmctl::WireClient;

constexpr uint16_t kLittleEndianWords = AASYSCOM_APF_HOST_WORDS << AASYSCOM_APF_SHIFT;
constexpr uint16_t kBigEndianWords = AASYSCOM_APF_BIG_ENDIAN_WORDS << AASYSCOM_APF_SHIFT;

WireClient::Message lineMessage(const std::vector<uint32_t>& words, const std::string& text, uint16_t flags = kLittleEndianWords) {
  WireClient::Message message;
  message.id = SYSLOG_FOLLOW_LINE_MSG;
  message.flags = flags;
  message.payload.resize(words.size() * 4);
  std::memcpy(message.payload.data(), words.data(), message.payload.size());
  message.payload.insert(message.payload.end(), text.begin(), text.end());
  return message;
}

TEST(OlmctlLogMessages, ALineIsShownAsTheControllerPrintsIt) {
  const auto entry = Olmctl::logEntry(lineMessage({0, 0x1011, 517u << 16 | 391, 3u << 16 | 12}, std::string("one\ntwo\x1b[2J") + '\0' + "after"));
  ASSERT_TRUE(entry);
  EXPECT_EQ(entry->text, "one\ntwo\x1b[2J") << "the text ends at its NUL";
  EXPECT_EQ(Olmctl::logEntryText(*entry),
            "0x1011 [0517,0391,03,00012] one\n"
            "0x1011 [0517,0391,03,00012] two?[2J\n");
  EXPECT_EQ(Olmctl::logEntryJson(*entry),
            "{\"kind\":\"line\",\"node\":4113,\"hyperFrame\":517,\"frame\":391,\"slot\":3,\"basicTimeUnit\":12,"
            "\"text\":\"one\\u000atwo\\u001b[2J\"}\n");
}

TEST(OlmctlLogMessages, NodesComingAndGoingAreShownWithoutTime) {
  const auto appeared = Olmctl::logEntry(lineMessage({SYSLOG_FOLLOW_KIND_NODE_APPEARED, 0x1011, 0, 0}, std::string(1, '\0')));
  const auto gone = Olmctl::logEntry(lineMessage({SYSLOG_FOLLOW_KIND_NODE_GONE, 0x1012, 0, 0}, ""));
  ASSERT_TRUE(appeared && gone);
  EXPECT_EQ(Olmctl::logEntryText(*appeared), "node 0x1011 appeared\n");
  EXPECT_EQ(Olmctl::logEntryText(*gone), "node 0x1012 gone\n");
  EXPECT_NE(Olmctl::logEntryJson(*gone).find("\"kind\":\"gone\""), std::string::npos);
}

TEST(OlmctlLogMessages, WordsAreReadInTheMessagesByteOrderAndShortOrUnknownMessagesAreNone) {
  const auto swapped = Olmctl::logEntry(
      lineMessage({0, __builtin_bswap32(0x1011u), __builtin_bswap32(517u << 16 | 391), 0}, "text", kBigEndianWords));
  ASSERT_TRUE(swapped);
  EXPECT_EQ(swapped->nid, 0x1011);
  EXPECT_EQ(swapped->hyperFrame, 517u);
  EXPECT_EQ(swapped->text, "text") << "the text is bytes, in no byte order";

  EXPECT_FALSE(Olmctl::logEntry(lineMessage({0, 0x1011, 0}, "")));
  EXPECT_FALSE(Olmctl::logEntry(lineMessage({SYSLOG_FOLLOW_KIND_NODE_GONE + 1, 0x1011, 0, 0}, "")));
  WireClient::Message cut = lineMessage({0, 0x1011, 0, 0, 0}, "");
  cut.payload.resize(15);
  EXPECT_FALSE(Olmctl::logEntry(cut));
}

TEST(OlmctlLogMessages, AnAnswerNeedsItsThreeWords) {
  WireClient::Message answer = lineMessage({SYSLOG_FOLLOW_STATUS_OK, 2, 1}, "");
  const auto words = Olmctl::followAnswer(answer);
  ASSERT_TRUE(words);
  EXPECT_EQ(words->followed, 2u);
  EXPECT_TRUE(words->started);
  answer.payload.resize(8);
  EXPECT_FALSE(Olmctl::followAnswer(answer));
  EXPECT_EQ(Olmctl::followRefusal(SYSLOG_FOLLOW_STATUS_TOO_MANY_NIDS), "more than 64 node ids");
}

}  // namespace
