#include "AaSysTime.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <ctime>
#include <vector>

#include "AaSysComMsgHeader.h"
#include "AaSysTimeCalendar.h"
#include "FakeRuntime.h"
#include "LteTime.h"

namespace {

using Olm::LteTime;

class AaSysTimeTest : public OlmTest::FakeRuntimeTest {
 protected:
  TAaSysTimerId id = 0;
  void* message = nullptr;
};

TEST_F(AaSysTimeTest, DelaysAndPeriodsBecomeTruncatedBasicTimeUnitsFromNow) {
  struct Case {
    uint64_t now;
    uint32_t microseconds;  // delay and period
    uint64_t expectedStart;
    uint64_t expectedPeriod;
  };
  const Case cases[] = {
      {1000, 1, 1000 + 30, 30},  // 30.72 BTUs a microsecond
      {0, 0xFFFFFFFF, uint64_t{0xFFFFFFFF} * 30720 / 1000, uint64_t{0xFFFFFFFF} * 30720 / 1000},
      {LteTime::MaxSamples - 10, 1, 20, 30},  // past the end of the cycle: from its beginning
  };
  unsigned entry = 0;
  for (const Case& c : cases) {
    runtime.time.setSamples(c.now);
    message = newMessage();
    ASSERT_EQ(AaSysTimermCreate(&id, c.microseconds, c.microseconds, message), EAaSysTimeRetVal_Ok);
    const OlmTest::FakeRuntime::Timer& timer = runtime.timers().at(entry++);
    EXPECT_EQ(timer.id, id);
    EXPECT_EQ(timer.msg, message);
    EXPECT_EQ(timer.expiry.getSamples(), c.expectedStart);
    EXPECT_EQ(timer.period.getSamples(), c.expectedPeriod);
  }
  // Cancelling goes through the LTE timers: mDelete hands the message back, Delete destroys it.
  EXPECT_EQ(AaSysTimermDelete(id), message);
  runtime.deleteMessage(message);
  EXPECT_EQ(AaSysTimerDelete(runtime.timers()[0].id), EAaSysTimeRetVal_Ok);
  EXPECT_FALSE(runtime.timers()[0].armed);
}

// Logged without feature id: the line is sent, not copied into the Dispatcher's log.
TEST_F(AaSysTimeTest, NullPointersAreRefusedWithALogLine) {
  EXPECT_EQ(AaSysTimermCreate(&id, 1, 1, nullptr), EAaSysTimeRetVal_InvalidParameter);
  ASSERT_EQ(runtime.sent().size(), 1u);
  const char* text = static_cast<const char*>(runtime.sent()[0]) + AASYSCOM_HEADER_SIZE;
  EXPECT_NE(std::strstr(text, "ERR/AaSysTimermCreate(): Invalid parameter (messagePtr or timerIdPtr is NULL)!\n"),
            nullptr);
  EXPECT_TRUE(log.lines().empty());

  message = newMessage();
  EXPECT_EQ(AaSysTimermCreate(nullptr, 1, 1, message), EAaSysTimeRetVal_InvalidParameter);
  EXPECT_TRUE(runtime.timers().empty());
  runtime.deleteMessage(message);
}

TEST(AaSysTimeWithoutDispatcher, DeleteFailsSoftlyButCreateAborts) {
  ASSERT_EQ(Olm::IRuntime::getTheRuntime(), nullptr);
  EXPECT_EQ(AaSysTimerDelete(256), EAaSysTimeRetVal_Error);
  EXPECT_EQ(AaSysTimermDelete(256), nullptr);
  TAaSysTimerId id = 0;
  int message = 0;
  EXPECT_DEATH(AaSysTimermCreate(&id, 1, 1, &message), "theDispatcher != 0");
}

TEST(AaSysTimeSleep, ReturnsAtOnceWhateverItIsAskedFor) {
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(AaSysTimeSleep(0, 0), EAaSysTimeRetVal_Ok);
  EXPECT_EQ(AaSysTimeSleep(5, 1000000), EAaSysTimeRetVal_Ok);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(100));
}

// Wall clock

TEST(AaSysTimeCalendar, FillsFullYearOneBasedMonthAndTruncatedMilliseconds) {
  std::tm broken{};
  broken.tm_year = 124;
  broken.tm_mon = 1;
  broken.tm_mday = 29;
  broken.tm_hour = 23;
  broken.tm_min = 59;
  broken.tm_sec = 60;
  SAaTime out{};
  Olm::fillCalendarTime(broken, 999999, out);
  const std::vector<uint32_t> fields{out.year, out.month, out.day, out.hour, out.minute, out.second, out.millisecond};
  EXPECT_EQ(fields, (std::vector<uint32_t>{2024, 2, 29, 23, 59, 60, 999}));
  Olm::fillCalendarTime(broken, 1999, out);
  EXPECT_EQ(out.millisecond, 1u);
}

TEST(AaSysTimeClock, UtcTimeAgreesWithTheUnixTime) {
  SAaUnixTime unixTime{};
  SAaTime utc{};
  ASSERT_EQ(AaUnixTimeGet(&unixTime), EAaSysTimeRetVal_Ok);
  ASSERT_EQ(AaUtcTimeGet(&utc), EAaSysTimeRetVal_Ok);
  std::tm broken{};
  broken.tm_year = static_cast<int>(utc.year) - 1900;
  broken.tm_mon = static_cast<int>(utc.month) - 1;
  broken.tm_mday = static_cast<int>(utc.day);
  broken.tm_hour = static_cast<int>(utc.hour);
  broken.tm_min = static_cast<int>(utc.minute);
  broken.tm_sec = static_cast<int>(utc.second);
  const std::time_t utcSeconds = timegm(&broken);
  EXPECT_LE(static_cast<std::time_t>(unixTime.seconds), utcSeconds);
  EXPECT_LE(utcSeconds - static_cast<std::time_t>(unixTime.seconds), 2);
  EXPECT_LT(unixTime.microseconds, 1000000u);
  EXPECT_LT(utc.millisecond, 1000u);
}

TEST_F(AaSysTimeTest, NullRecordsAreRefused) {
  EXPECT_EQ(AaUnixTimeGet(nullptr), EAaSysTimeRetVal_InvalidParameter);
  EXPECT_TRUE(log.lines().empty());
  EXPECT_EQ(AaUtcTimeGet(nullptr), EAaSysTimeRetVal_InvalidParameter);
  EXPECT_EQ(log.count("AaUtcTimeGet(): timePtr is null"), 1u);
  EXPECT_EQ(AaLocalTimeGet(nullptr), EAaSysTimeRetVal_InvalidParameter);
  EXPECT_EQ(log.count("AaLocalTimeGet(): timePtr is null"), 1u);
}

// Ticks

TEST(AaSysTimeTicks, AdvanceAtTheResolutionRate) {
  const uint32_t resolution = AaTickResolutionGet();
  ASSERT_GT(resolution, 0u);
  const uint64_t before = AaTicks64Get();
  const auto wallBefore = std::chrono::steady_clock::now();
  while (std::chrono::steady_clock::now() - wallBefore < std::chrono::milliseconds(20)) {
  }
  const uint64_t ticks = AaTicks64Get() - before;
  const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - wallBefore).count();
  EXPECT_NEAR(static_cast<double>(ticks) / resolution, seconds, 0.01);
}

}  // namespace
