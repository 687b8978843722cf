#include "TrivialLog.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <string>

#include "AaSysComMsgHeader.h"
#include "FakeTimeSource.h"
#include "MsgNameCatalogue.h"

namespace {

using Olm::LteTime;

class TrivialLogTest : public ::testing::Test {
 protected:
  void SetUp() override {
    out = std::tmpfile();
    log = new Olm::TrivialLog(out);
    log->setItsITimeSource(&time);
    time.setNow(LteTime(12, 345, 7, 1234));
  }
  void TearDown() override {
    delete log;
    std::fclose(out);
  }
  std::string written() {
    std::fflush(out);
    std::rewind(out);
    std::string text;
    char buffer[512];
    size_t n;
    while ((n = std::fread(buffer, 1, sizeof(buffer), out)) > 0) text.append(buffer, n);
    return text;
  }

  std::FILE* out = nullptr;
  OlmTest::FakeTimeSource time;
  Olm::TrivialLog* log = nullptr;
};

TEST_F(TrivialLogTest, LinesAreStampedWithLteTimeAndEndInExactlyOneLineFeed) {
  log->logf(1, "NID was set to %u\n", 4113u);
  log->logf(0, "no line feed");
  log->logfString("%s and %d", "text", 5);
  EXPECT_EQ(written(),
            "[0012,0345,07,01234] NID was set to 4113\n"
            "[0012,0345,07,01234] no line feed\n"
            "[0012,0345,07,01234] text and 5\n");
  EXPECT_EQ(log->getLastTime().getSamples(), LteTime(12, 345, 7, 1234).getSamples());
}

TEST_F(TrivialLogTest, MessageLinesShowIdAddressesAndNameFromTheLastArgument) {
  SAaSysComMsgHeader known{0x2101, 0, 0x12030123, 0x12030456, 4, 16};
  SAaSysComMsgHeader unknown{0x0001, 0, 1, 2, 4, 16};
  log->logfMessage(1, "Send", &known);
  log->logfMessage(3, "(%04x)->%s", 0x610, "Process", &unknown);
  log->logfMessage(3, "%llu %.1f", 1ULL << 40, 0.5, &known);  // arguments wider than a word
  EXPECT_EQ(written(),
            "[0012,0345,07,01234] Send {MsgId: 2101 Target: 12030123 Source: 12030456} (PHY_CCPCH_SEND_REQ_MSG)\n"
            "[0012,0345,07,01234] (0610)->Process {MsgId: 0001 Target: 00000001 Source: 00000002} (UNKNOWN)\n"
            "[0012,0345,07,01234] 1099511627776 0.5 {MsgId: 2101 Target: 12030123 Source: 12030456} (PHY_CCPCH_SEND_REQ_MSG)\n");
}

TEST(MsgNameCatalogue, HoldsTheWholeVocabularyAndTheFirstOfARepeatedIdWins) {
  size_t rows = 0;
  for (const Olm::MsgNameEntry* entry = Olm::msgNameCatalogue(); entry->name != nullptr; ++entry) ++rows;
  EXPECT_EQ(rows, 1194u);
  EXPECT_STREQ(Olm::msgNameLookup(0x4183), "CURRENT_INTERNAL_PS_LAST_VALUE");
  EXPECT_STREQ(Olm::msgNameLookup(0x0983), "CELL_RESGROUP_PARAMS_RESET_REQ_MSG");
  EXPECT_STREQ(Olm::msgNameLookup(0x12101), "PHY_CCPCH_SEND_REQ_MSG");  // only the low 16 bits count
  EXPECT_STREQ(Olm::msgNameLookup(0), "UNKNOWN");
}

}  // namespace
