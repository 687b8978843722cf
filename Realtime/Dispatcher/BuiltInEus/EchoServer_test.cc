#include "EchoServer.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "AaSysCom.h"
#include "AaSysComMsgHeader.h"
#include "FakeRuntime.h"
#include "LteTime.h"

namespace {

using Olm::EchoServer;
using Olm::LteTime;
using Record = EchoServer::OLMLiteStatsRaw;

constexpr uint32_t kOwnAddress = (uint32_t{OlmTest::kOwnNid} << 16) | EchoServer::kOwnCpid;
constexpr uint64_t kBtuPerMs = 30720;

class EchoServerTest : public OlmTest::FakeRuntimeTest {
 protected:
  void SetUp() override {
    server.initStatsRaw();
    stats = server.getStatsRaw();
  }

  void setAccumulators(uint64_t idle, uint64_t messaging, uint64_t loop) {
    stats->idleTicks = idle;
    stats->messagingTicks = messaging;
    stats->totalLoopTicks = loop;
  }
  // A tick as the Dispatcher delivers one: a copy of the timer's message.
  void deliverTick(uint16_t msgId) {
    void* tick = runtime.makeMessage(msgId, kOwnAddress, kOwnAddress, 2);
    server.ProcessMessage(tick);
    EXPECT_EQ(tick, nullptr) << "a tick is freed by the statistics EU";
  }
  // The meter's timer is the last one started. A cancelled timer's message is not released by
  // the statistics EU; the test frees it.
  void stopMeterAndReleaseItsMessage() {
    server.stopIdleMeter();
    ASSERT_FALSE(runtime.timers().back().armed);
    runtime.deleteMessage(runtime.timers().back().msg);
  }
  std::string captured(void (*action)(EchoServer&)) {
    testing::internal::CaptureStdout();
    action(server);
    std::fflush(stdout);
    return testing::internal::GetCapturedStdout();
  }

  EchoServer server;
  Record* stats = nullptr;
};

// ---------------------------------------------------------------------------------------------
// Idle meter arithmetic

TEST_F(EchoServerTest, AMeterStartedWithZeroMillisecondsMeasuresEveryTenFromNow) {
  runtime.time.setSamples(123456);
  server.startIdleMeter(0);
  ASSERT_EQ(runtime.timers().size(), 1u);
  const OlmTest::FakeRuntime::Timer& timer = runtime.timers()[0];
  EXPECT_EQ(timer.expiry.getSamples(), 123456u);
  EXPECT_EQ(timer.period.getSamples(), 10 * kBtuPerMs);
  EXPECT_EQ(Olm::msgHeader(timer.msg)->msgId, EchoServer::kMeterTickMsgId);
  EXPECT_EQ(Olm::msgHeader(timer.msg)->receiver, kOwnAddress);
  EXPECT_EQ(Olm::msgHeader(timer.msg)->sender, kOwnAddress);
  EXPECT_EQ(stats->meterPeriodMs, 10u);
  stopMeterAndReleaseItsMessage();
  EXPECT_EQ(stats->meterPeriodMs, 0u);
}

TEST_F(EchoServerTest, BeforeAnyTickTheLoadIsFullWithMinimumFullAndMaximumZero) {
  server.startIdleMeter(100);
  uint32_t load = 1, minLoad = 1, maxLoad = 1;
  server.getIdleMeterCpuLoad(load, minLoad, maxLoad);
  EXPECT_EQ(load, 10000u);
  EXPECT_EQ(minLoad, 10000u);
  EXPECT_EQ(maxLoad, 0u);
  stopMeterAndReleaseItsMessage();
}

TEST_F(EchoServerTest, LoadIsTheBusyShareSinceStartOrLastRead) {
  setAccumulators(1000, 50, 1000);
  server.startIdleMeter(20);
  setAccumulators(1000 + 300, 80, 1000 + 100);  // 25 % busy since the start
  deliverTick(EchoServer::kMeterTickMsgId);
  EXPECT_EQ(stats->load, 2500u);
  EXPECT_EQ(stats->latestSnapshot[EchoServer::TotalLoopTicks], 1100u);
  setAccumulators(1000 + 400, 90, 1000 + 400);  // 50 % over the whole time since the start
  deliverTick(EchoServer::kMeterTickMsgId);
  EXPECT_EQ(stats->measurementCount, 2u);

  uint32_t load = 0, minLoad = 0, maxLoad = 0;
  server.getIdleMeterCpuLoad(load, minLoad, maxLoad);
  EXPECT_EQ(load, 5000u);
  EXPECT_EQ(minLoad, 2500u);
  EXPECT_EQ(maxLoad, 5000u);
  EXPECT_EQ(stats->measurementCount, 0u);

  // The read starts a new period: 100 % busy since then, whatever came before.
  setAccumulators(1400, 90, 1400 + 600);
  deliverTick(EchoServer::kMeterTickMsgId);
  server.getIdleMeterCpuLoad(load, minLoad, maxLoad);
  EXPECT_EQ(load, 10000u);
  EXPECT_EQ(maxLoad, 10000u);
  // Nothing measured since: the load reads as full, the extremes stay.
  server.getIdleMeterCpuLoad(load, minLoad, maxLoad);
  EXPECT_EQ(load, 10000u);
  EXPECT_EQ(minLoad, 2500u);
  stopMeterAndReleaseItsMessage();
}

TEST_F(EchoServerTest, LoadRoundsTowardsZeroThroughSinglePrecision) {
  server.startIdleMeter(10);
  setAccumulators(2, 0, 1);  // one third busy: 3333.33...
  deliverTick(EchoServer::kMeterTickMsgId);
  EXPECT_EQ(stats->load, 3333u);
  stopMeterAndReleaseItsMessage();
}

TEST_F(EchoServerTest, AResetOfTheAccumulatorsRestartsTheAverageAndReadsAsFullLoad) {
  setAccumulators(5000, 0, 5000);
  server.startIdleMeter(10);
  setAccumulators(10, 0, 30);
  deliverTick(EchoServer::kMeterTickMsgId);
  EXPECT_EQ(stats->load, 10000u);
  EXPECT_EQ(stats->referenceSnapshot[EchoServer::IdleTicks], 10u);
  EXPECT_EQ(stats->referenceSnapshot[EchoServer::TotalLoopTicks], 30u);
  EXPECT_EQ(stats->minLoad, 10000u) << "a reset is not a measurement of the extremes";
  EXPECT_EQ(stats->maxLoad, 0u);
  // Nothing elapsed at all reads as full load too.
  setAccumulators(10, 0, 30);
  deliverTick(EchoServer::kMeterTickMsgId);
  EXPECT_EQ(stats->load, 10000u);
  EXPECT_EQ(stats->maxLoad, 0u);
  stopMeterAndReleaseItsMessage();
}

TEST_F(EchoServerTest, ASecondStartWhileTheMeterRunsChangesNothing) {
  server.startIdleMeter(10);
  setAccumulators(100, 0, 100);
  deliverTick(EchoServer::kMeterTickMsgId);
  const std::string output = captured([](EchoServer& eu) { eu.startIdleMeter(50); });
  EXPECT_EQ(output, "OLMLite IdleMeterStart is called before meter being closed.\n");
  EXPECT_EQ(runtime.timers().size(), 1u);
  EXPECT_EQ(stats->meterPeriodMs, 10u);
  EXPECT_EQ(stats->minLoad, 5000u);
  // Stopped, it starts again with fresh extremes; a second stop does nothing.
  stopMeterAndReleaseItsMessage();
  server.stopIdleMeter();
  server.startIdleMeter(50);
  EXPECT_EQ(runtime.timers().size(), 2u);
  EXPECT_EQ(stats->minLoad, 10000u);
  EXPECT_EQ(stats->maxLoad, 0u);
  stopMeterAndReleaseItsMessage();
}

TEST_F(EchoServerTest, LongPeriodsAreCutToALimitThatItselfAborts) {
  server.startIdleMeter(0x9FFFFF);
  EXPECT_EQ(runtime.timers().back().period.getSamples(), 0x9FFFFF * kBtuPerMs);
  stopMeterAndReleaseItsMessage();
  EXPECT_DEATH(server.startIdleMeter(0xA00000), "m_samples < MaxSamples");
  EXPECT_DEATH(server.startIdleMeter(0xFFFFFFFF), "m_samples < MaxSamples");
}

TEST(EchoServerWithoutDispatcher, TimersAbort) {
  EchoServer server;
  server.initStatsRaw();
  EXPECT_DEATH(server.stopIdleMeter(), "Realtime/Dispatcher/EchoServer.*disp != 0");
  EXPECT_DEATH(server.stopHistTimer(), "Realtime/Dispatcher/EchoServer.*disp != 0");
}

// ---------------------------------------------------------------------------------------------
// History

TEST_F(EchoServerTest, HistoryTicksFillTwelveSlotsAndTheThirteenthOverwritesTheFirst) {
  server.startHistTimer();
  ASSERT_EQ(runtime.timers().size(), 1u);
  EXPECT_EQ(runtime.timers()[0].period.getSamples(), 10000 * kBtuPerMs);
  for (uint64_t tick = 1; tick <= EchoServer::kHistorySlots + 1; ++tick) {
    setAccumulators(tick * 10, tick * 10 + 1, tick * 10 + 2);
    deliverTick(EchoServer::kHistoryTickMsgId);
  }
  EXPECT_EQ(stats->nextHistorySlot, 1u);
  EXPECT_EQ(stats->idleTicksHistory[0], 130u);
  EXPECT_EQ(stats->messagingTicksHistory[0], 131u);
  EXPECT_EQ(stats->totalLoopTicksHistory[0], 132u);
  EXPECT_EQ(stats->idleTicksHistory[1], 20u);
  EXPECT_EQ(stats->totalLoopTicksHistory[11], 122u);
  server.stopHistTimer();
  runtime.deleteMessage(runtime.timers()[0].msg);
}

TEST_F(EchoServerTest, AccumulatorsNearingOverflowAreResetAfterTheirHistoryIsTaken) {
  setAccumulators(0xFFFFFFFF00000000ull, 7, 0);
  deliverTick(EchoServer::kHistoryTickMsgId);
  EXPECT_EQ(stats->idleTicks, 0xFFFFFFFF00000000ull) << "at the threshold nothing is reset";
  setAccumulators(0xFFFFFFFF00000000ull, 7, 1);
  deliverTick(EchoServer::kHistoryTickMsgId);
  EXPECT_EQ(stats->idleTicksHistory[1], 0xFFFFFFFF00000000ull);
  EXPECT_EQ(stats->idleTicks, 0u);
  EXPECT_EQ(stats->messagingTicks, 0u);
  EXPECT_EQ(stats->totalLoopTicks, 0u);
}

// ---------------------------------------------------------------------------------------------
// Echo

TEST_F(EchoServerTest, AnyOtherMessageGoesBackToItsSenderFromTheStatisticsAddress) {
  const uint32_t peer = 0x43210700;
  void* msg = runtime.makeMessage(0x0B01, kOwnAddress, peer, 6);
  std::memcpy(AaSysComMsgGetPayload(msg), "probe", 6);
  server.ProcessMessage(msg);
  EXPECT_EQ(msg, nullptr);
  ASSERT_EQ(runtime.sent().size(), 1u);
  const SAaSysComMsgHeader* header = Olm::msgHeader(runtime.sent()[0]);
  EXPECT_EQ(header->msgId, 0x0B01);
  EXPECT_EQ(header->receiver, peer);
  EXPECT_EQ(header->sender, kOwnAddress);
  EXPECT_EQ(header->totalLength, AASYSCOM_HEADER_SIZE + 6);
  EXPECT_STREQ(static_cast<const char*>(AaSysComMsgGetPayload(runtime.sent()[0])), "probe");
}

// Two statistics EUs would otherwise bounce one message between them for ever; one would bounce
// a message from itself to itself.
TEST_F(EchoServerTest, AnEchoFromAStatisticsEuIsNotEchoedAgain) {
  for (uint32_t sender : {kOwnAddress, 0x43210610u}) {
    void* msg = runtime.makeMessage(0x0B01, kOwnAddress, sender);
    server.ProcessMessage(msg);
    EXPECT_EQ(msg, nullptr);
  }
  EXPECT_TRUE(runtime.sent().empty());
  EXPECT_EQ(runtime.liveBuffers(), 0u);
}

// ---------------------------------------------------------------------------------------------
// The text and the raw file

unsigned long long numberAfter(const std::string& text, const std::string& key) {
  const size_t at = text.find("\n" + key + "=");
  if (at == std::string::npos) return ~0ull;
  return std::stoull(text.substr(at + key.size() + 2));
}

double percentAfter(const std::string& text, const std::string& key) {
  const size_t at = text.find("\n" + key + "=");
  return at == std::string::npos ? -1 : std::stod(text.substr(at + key.size() + 2));
}

TEST_F(EchoServerTest, TheTextShowsTheRecordsDeltasSinceTheLastReadAndMovesTheLastRead) {
  char text[256];
  setAccumulators(700, 250, 1300);
  server.writeStatsText(text, sizeof(text));
  setAccumulators(1000, 400, 2000);
  server.writeStatsText(text, sizeof(text));
  const std::string second = text;
  EXPECT_EQ(second.rfind("Ticks since last read:\n", 0), 0u) << second;
  EXPECT_EQ(numberAfter(second, "idleTicks"), 300u) << second;
  EXPECT_EQ(numberAfter(second, "messagingTicks"), 150u);
  EXPECT_EQ(numberAfter(second, "dispOverHeadTicks"), 700u - 150u);
  EXPECT_NE(second.find("\nCPU Usage since last read:\n"), std::string::npos);
  EXPECT_DOUBLE_EQ(percentAfter(second, "Idle Time"), 30.00);
  EXPECT_DOUBLE_EQ(percentAfter(second, "Dispatcher Overhead"), 55.00);
  EXPECT_DOUBLE_EQ(percentAfter(second, "Messaging Callbacks"), 15.00);
  EXPECT_EQ(stats->lastReadIdleTicks, 1000u);
  EXPECT_EQ(stats->lastReadMessagingTicks, 400u);
  EXPECT_EQ(stats->lastReadTotalLoopTicks, 2000u);
  // The text never outgrows the file: the largest numbers are cut, terminated.
  setAccumulators(~0ull, ~0ull - 1, ~0ull);
  stats->lastReadIdleTicks = stats->lastReadMessagingTicks = stats->lastReadTotalLoopTicks = 0;
  char small[64];
  server.writeStatsText(small, sizeof(small));
  EXPECT_EQ(std::strlen(small), sizeof(small) - 1);
}

TEST_F(EchoServerTest, TheRawFileShowsTheRecordAsItWasWhenTheReaderOpenedIt) {
  Record* view = server.getStatsFileView();
  ASSERT_NE(view, nullptr);
  ASSERT_NE(view, stats);
  server.startIdleMeter(10);
  setAccumulators(1, 2, 3);
  deliverTick(EchoServer::kMeterTickMsgId);
  deliverTick(EchoServer::kHistoryTickMsgId);
  char text[256];
  server.writeStatsText(text, sizeof(text));
  EXPECT_NE(std::memcmp(view, stats, sizeof(Record)), 0);
  EXPECT_EQ(EchoServer::lockFn(&server), EAaFileCallbackAction_Ok);
  EXPECT_EQ(std::memcmp(view, stats, sizeof(Record)), 0);
  setAccumulators(4, 5, 6);
  EXPECT_EQ(EchoServer::unlockFn(&server), EAaFileCallbackAction_Ok);
  EXPECT_EQ(view->idleTicks, 1u);
  stopMeterAndReleaseItsMessage();
}

}  // namespace
