#include "AaSysLog.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "AaConfig.h"
#include "AaSysComMsgHeader.h"
#include "AaSysLogLine.h"
#include "FakeRuntime.h"

namespace {

constexpr uint32_t kInputLevelTag = 0x10040;
constexpr uint32_t kOutputSwitchTag = 0x10041;
constexpr uint32_t kDefaultInputLevel = 2;
constexpr uint32_t kDefaultOutputSwitch = 0xFFFFFFFF;
constexpr uint32_t kSysComFeature = 0x10000;

// The line itself, against a fixed stamp

const Olm::SysLogStamp kStamp = {0x12AB, {2024, 3, 5, 7, 8, 9, 999}, 123, 0x1F4};

bool formatLine(Olm::SysLogLine& line, EAaSysLogSeverityLevel level, const Olm::SysLogSource* source,
                const char* format, ...) {
  va_list args;
  va_start(args, format);
  const bool ok = Olm::formatSysLogLine(line, kStamp, level, source, format, args);
  va_end(args);
  return ok;
}

TEST(AaSysLogLine, PrefixThenSourcePositionThenText) {
  Olm::SysLogLine line;
  ASSERT_TRUE(formatLine(line, EAaSysLogSeverityLevel_Warning, nullptr, "value %d", 42));
  const std::string expected = "12AB <2024-03-05T07:08:09.000123Z> 1F4 WRN/value 42\n";
  EXPECT_EQ(std::string(line.text), expected);
  EXPECT_EQ(line.payloadSize, expected.size() + 1);

  const Olm::SysLogSource source = {"Eu.cc", 77};
  ASSERT_TRUE(formatLine(line, EAaSysLogSeverityLevel_Vip, &source, "up"));
  EXPECT_EQ(std::string(line.text), "12AB <2024-03-05T07:08:09.000123Z> 1F4 VIP/File: Eu.cc, line 77: up\n");
}

TEST(AaSysLogLine, NullFormatAndFileAreToleratedButAFormattingErrorSpoilsTheLine) {
  Olm::SysLogLine line;
  const Olm::SysLogSource source = {nullptr, 1};
  ASSERT_TRUE(formatLine(line, EAaSysLogSeverityLevel_Info, &source, nullptr));
  EXPECT_EQ(std::string(line.text), "12AB <2024-03-05T07:08:09.000123Z> 1F4 INF/File: (null), line 1: \n");
  // A wide character that the C locale cannot encode.
  EXPECT_FALSE(formatLine(line, EAaSysLogSeverityLevel_Info, nullptr, "%lc", static_cast<wint_t>(0x20AC)));
}

// Printing on a node

class AaSysLogTest : public OlmTest::FakeRuntimeTest {
 protected:
  void TearDown() override {
    AaConfigRadSetValue(kInputLevelTag, kDefaultInputLevel);
    AaConfigRadSetValue(kOutputSwitchTag, kDefaultOutputSwitch);
    FakeRuntimeTest::TearDown();
  }

  const SAaSysComMsgHeader& sentHeader(size_t index) { return *Olm::msgHeader(runtime.sent().at(index)); }

  std::string sentText(size_t index) { return runtime.sentText(index); }
};

TEST_F(AaSysLogTest, TheLineGoesToTheLogCollectorOfTheNodeGroup) {
  AaSysLogPrint(EAaSysLogSeverityLevel_Error, "disk %s", "full");
  ASSERT_EQ(runtime.sent().size(), 1u);
  const auto& header = sentHeader(0);
  EXPECT_EQ(header.msgId, 0x0976);
  EXPECT_EQ(header.receiver, 0x123D0601u);
  EXPECT_EQ(header.sender, 0x1234FFFEu);
  EXPECT_NE(header.flags & 0x0010, 0);  // MTM
  const std::string text = sentText(0);
  const std::string tail = std::string("ERR/disk full\n") + '\0';
  EXPECT_EQ(text.substr(0, 6), "1234 <");
  ASSERT_GT(text.size(), tail.size());
  EXPECT_EQ(text.substr(text.size() - tail.size()), tail);
  EXPECT_TRUE(log.lines().empty());
}

// Levels 2 to 6 only, and none below the input level.
TEST_F(AaSysLogTest, LevelsOutsideTheScaleOrBelowTheInputLevelAreDropped) {
  AaConfigRadSetValue(kInputLevelTag, 0);
  AaSysLogPrint(EAaSysLogSeverityLevel_Debug, "debug");
  AaSysLogPrint(static_cast<EAaSysLogSeverityLevel>(7), "beyond");
  EXPECT_TRUE(runtime.sent().empty());
  AaSysLogPrint(EAaSysLogSeverityLevel_NoPrint, "top");
  ASSERT_EQ(runtime.sent().size(), 1u);
  EXPECT_NE(sentText(0).find("?N?/top"), std::string::npos);

  AaConfigRadSetValue(kInputLevelTag, EAaSysLogSeverityLevel_Error);
  AaSysLogPrint(EAaSysLogSeverityLevel_Warning, "warning");
  EXPECT_EQ(runtime.sent().size(), 1u);
  AaSysLogPrint(EAaSysLogSeverityLevel_Error, "error");
  ASSERT_EQ(runtime.sent().size(), 2u);
  EXPECT_NE(sentText(1).find("ERR/error"), std::string::npos);
}

// The copy stays even when the output switch is off or no buffer can be had for the send.
TEST_F(AaSysLogTest, AFeatureIdCopiesTheLineIntoTheDispatchersLogWhateverBecomesOfTheSend) {
  AaSysLogPrintE(EAaSysLogSeverityLevel_Info, kSysComFeature, "copied %u", 7u);
  ASSERT_EQ(log.lines().size(), 1u);
  EXPECT_EQ(log.lines()[0] + std::string(1, '\0'), sentText(0));

  AaConfigRadSetValue(kOutputSwitchTag, 0);
  AaSysLogPrintE(EAaSysLogSeverityLevel_Error, kSysComFeature, "kept");
  EXPECT_EQ(log.count("ERR/kept\n"), 1u);
  AaConfigRadSetValue(kOutputSwitchTag, kDefaultOutputSwitch);
  runtime.failAllocations(true);
  AaSysLogPrintE(EAaSysLogSeverityLevel_Error, kSysComFeature, "no buffer");
  EXPECT_EQ(log.count("ERR/no buffer"), 1u);
  EXPECT_EQ(runtime.sent().size(), 1u) << "only the first line was sent";
}

TEST_F(AaSysLogTest, AnOverLongTextIsCutAndTheMessageStillEndsInLineFeedAndZero) {
  const std::string longText(1000, 'y');
  AaSysLogPrint(EAaSysLogSeverityLevel_Info, "%s", longText.c_str());
  ASSERT_EQ(runtime.sent().size(), 1u);
  const std::string text = sentText(0);
  EXPECT_EQ(text.size(), Olm::kSysLogAreaSize + 1);
  EXPECT_EQ(text.substr(text.size() - 3), "y\n" + std::string(1, '\0'));
}

TEST_F(AaSysLogTest, TheSourcePositionAndFeatureFlavours) {
  AaSysLogPrintD(EAaSysLogSeverityLevel_Warning, 12, "Unit.cc", "odd %d", 3);
  ASSERT_EQ(runtime.sent().size(), 1u);
  EXPECT_NE(sentText(0).find("WRN/File: Unit.cc, line 12: odd 3\n"), std::string::npos);
  EXPECT_TRUE(log.lines().empty());

  AaSysLogPrintHD(EAaSysLogSeverityLevel_Warning, kSysComFeature, 12, "Unit.cc", "odd");
  EXPECT_EQ(log.count("WRN/File: Unit.cc, line 12: odd\n"), 1u);
  AaSysLogPrintF(EAaSysLogSeverityLevel_Warning, kSysComFeature, "flat");
  EXPECT_EQ(log.count("WRN/flat\n"), 1u);
}

// A log that itself reports through the system log, as a failing part of the printing path would.
class ReportingLog : public OlmTest::CapturingLog {
 public:
  void vlogfString(const char* format, va_list args) override {
    AaSysLogPrintE(EAaSysLogSeverityLevel_Error, kSysComFeature, "nested");
    CapturingLog::vlogfString(format, args);
  }
};

TEST_F(AaSysLogTest, AReportFromInsideThePrintingPathIsDroppedInsteadOfRecursing) {
  ReportingLog reportingLog;
  runtime.setLog(&reportingLog);
  AaSysLogPrintE(EAaSysLogSeverityLevel_Error, kSysComFeature, "outer");
  ASSERT_EQ(reportingLog.lines().size(), 1u);
  EXPECT_EQ(reportingLog.count("ERR/outer"), 1u);
  EXPECT_EQ(runtime.sent().size(), 1u);

  runtime.setLog(&log);
  AaSysLogPrintE(EAaSysLogSeverityLevel_Error, kSysComFeature, "after");
  EXPECT_EQ(log.count("ERR/after"), 1u);
}

TEST_F(AaSysLogTest, ErrnoOfTheCallerIsPrintedAndKept) {
  errno = ENOENT;
  AaSysLogPrint(EAaSysLogSeverityLevel_Error, "open: %m");
  EXPECT_EQ(errno, ENOENT);
  ASSERT_EQ(runtime.sent().size(), 1u);
  EXPECT_NE(sentText(0).find(std::string("open: ") + std::strerror(ENOENT)), std::string::npos);
}

TEST_F(AaSysLogTest, BinaryRecordsGoToTheDispatchersLogOnly) {
  EXPECT_EQ(AaSysLogPrintBin(EAaSysLogSeverityLevel_Debug, 2, "words %d %d", 1, 2), 0u);
  EXPECT_EQ(AaSysLogPrintBinE(EAaSysLogSeverityLevel_Debug, 0, 1, "word %d", 3), 0u);
  EXPECT_EQ(AaSysLogPrintBinS(EAaSysLogSeverityLevel_Debug, "text %s", "a"), 0u);
  EXPECT_EQ(AaSysLogPrintBinSE(EAaSysLogSeverityLevel_Debug, 0, "text %s", "b"), 0u);
  EXPECT_EQ(log.lines(), (std::vector<std::string>{"words 1 2", "word 3", "text a", "text b"}));
  EXPECT_TRUE(runtime.sent().empty());
}

TEST(AaSysLogWithoutDispatcher, NothingHappensAndNothingBreaks) {
  ASSERT_EQ(Olm::IRuntime::getTheRuntime(), nullptr);
  AaSysLogPrintE(EAaSysLogSeverityLevel_Error, kSysComFeature, "lost");
  EXPECT_EQ(AaSysLogPrintBin(EAaSysLogSeverityLevel_Info, 0, "lost"), 0u);
  EXPECT_EQ(AaSysLogPrintBinS(EAaSysLogSeverityLevel_Info, "lost"), 0u);
  EXPECT_EQ(AaTrblFileRegister("file", 1, 2), 0u);
  EXPECT_EQ(AaTrblFileUnregister("file"), 0u);
}

}  // namespace
