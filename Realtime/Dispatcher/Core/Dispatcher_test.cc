#include "Dispatcher.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "AaFile.h"
#include "AaSysComMsgHeader.h"
#include "CapturingLog.h"
#include "FakeMsgPort.h"
#include "FakeTimeSource.h"
#include "IdleMeter.h"

namespace {

using Olm::Dispatcher;
using Olm::LteTime;

constexpr uint16_t kOwnNid = 0x1234;
constexpr uint16_t kOtherNid = 0x1235;

uint32_t sicad(uint16_t nid, uint16_t cpid) { return (static_cast<uint32_t>(nid) << 16) | cpid; }

// An EU that records what it saw and answers PrioritizeMessage with a fixed priority; a journal
// shared by several EUs shows the order in which they processed, by their priorities.
class RecordingEu : public Olm::IAaSysDispatcherSicHandler {
 public:
  explicit RecordingEu(int priority, std::vector<int>* journal = nullptr) : m_priority(priority), m_journal(journal) {}

  int PrioritizeMessage(void*&) override {
    ++prioritized;
    return m_priority;
  }
  void ProcessMessage(void*& msg) override {
    processedIds.push_back(Olm::msgHeader(msg)->msgId);
    if (m_journal) m_journal->push_back(m_priority);
    if (keepMessages) {
      kept.push_back(msg);
      msg = nullptr;
    }
  }

  int prioritized = 0;
  std::vector<uint16_t> processedIds;
  std::vector<void*> kept;
  bool keepMessages = false;

 private:
  int m_priority;
  std::vector<int>* m_journal;
};

// A Dispatcher over fakes; like the node's own, it is the process's runtime.
class DispatcherTest : public ::testing::Test {
 protected:
  void SetUp() override {
    dispatcher = new Dispatcher();
    dispatcher->setItsIMsgPort(&port);
    dispatcher->setItsITimeSource(&time);
    dispatcher->setItsILog(&log);
    dispatcher->setOwnNid(kOwnNid);
    dispatcher->setWait(0);
  }
  void TearDown() override {
    testing::internal::CaptureStdout();  // the RAM file registry reports the removals
    delete dispatcher;
    testing::internal::GetCapturedStdout();
    Dispatcher::setTheDispatcher(nullptr);
    EXPECT_EQ(port.doubleFrees(), 0u);
  }

  void* localMessage(uint16_t id, uint16_t cpid) {
    return port.makeMessage(id, sicad(kOwnNid, cpid), sicad(kOwnNid, 1));
  }

  OlmTest::FakeMsgPort port;
  OlmTest::FakeTimeSource time;
  OlmTest::CapturingLog log;
  Dispatcher* dispatcher = nullptr;
};

// Binding

TEST_F(DispatcherTest, SixtyFifthBindingIsDroppedSilentlyAndItsMessagesAreDiscarded) {
  std::vector<RecordingEu> eus(Dispatcher::kEuSlots + 1, RecordingEu(3));
  for (unsigned i = 0; i <= Dispatcher::kEuSlots; ++i) dispatcher->AaSysDispatcherCpidBind(eus[i], 0x100 + i);
  EXPECT_EQ(dispatcher->getItsIEu(0x100 + Dispatcher::kEuSlots - 1), &eus[Dispatcher::kEuSlots - 1]);
  EXPECT_EQ(dispatcher->getItsIEu(0x100 + Dispatcher::kEuSlots), nullptr);
  EXPECT_EQ(log.count("duplicate"), 0u);

  EXPECT_FALSE(dispatcher->ingress(localMessage(1, 0x100 + Dispatcher::kEuSlots)));
  EXPECT_EQ(port.liveBuffers(), 0u);
}

TEST_F(DispatcherTest, DuplicateCpidAborts) {
  RecordingEu a(3), b(3);
  dispatcher->AaSysDispatcherCpidBind(a, 0x100);
  EXPECT_DEATH(dispatcher->AaSysDispatcherCpidBind(b, 0x100), "Realtime/Dispatcher/Dispatcher:.*Assertion `0' failed");
}

TEST_F(DispatcherTest, BuiltInEusHoldTheirCpidsSoAnEuLibraryCannotTakeThem) {
  dispatcher->getItsEchoServer().initStatsRaw();
  dispatcher->bindBuiltInEus();
  EXPECT_NE(dispatcher->getItsIEu(Dispatcher::kStatisticsCpid), nullptr);
  EXPECT_NE(dispatcher->getItsIEu(Dispatcher::kFileTransferCpid), nullptr);
  EXPECT_NE(dispatcher->getItsIEu(Dispatcher::kFileTransferLegacyCpid), nullptr);
  RecordingEu intruder(3);
  EXPECT_DEATH(dispatcher->AaSysDispatcherCpidBind(intruder, 0x610), "Assertion `0' failed");
  // The statistics history timer is armed from the start.
  EXPECT_NE(dispatcher->getItsTimerQueue().getEntry(0).msg, nullptr);
}

// Ingress and dispatch

TEST_F(DispatcherTest, DispatchOrderIsHighMedLowWhateverTheArrivalOrder) {
  std::vector<int> journal;
  RecordingEu high(1, &journal), med(2, &journal), low(7, &journal);
  dispatcher->AaSysDispatcherCpidBind(low, 0x300);
  dispatcher->AaSysDispatcherCpidBind(med, 0x200);
  dispatcher->AaSysDispatcherCpidBind(high, 0x100);
  ASSERT_TRUE(dispatcher->ingress(localMessage(3, 0x300)));
  ASSERT_TRUE(dispatcher->ingress(localMessage(2, 0x200)));
  ASSERT_TRUE(dispatcher->ingress(localMessage(1, 0x100)));
  for (int i = 0; i < 4; ++i) dispatcher->dispatch();
  EXPECT_EQ(journal, (std::vector<int>{1, 2, 7}));
  EXPECT_EQ(dispatcher->getCurrentCpid(), 0x300);  // not reset after processing
  EXPECT_EQ(port.liveBuffers(), 0u);              // processed messages were freed
}

TEST_F(DispatcherTest, MessageForUnknownCpidIsDiscardedAndFreed) {
  dispatcher->setVerbose(true);
  EXPECT_FALSE(dispatcher->ingress(localMessage(1, 0x999)));
  EXPECT_FALSE(dispatcher->ingress(nullptr));
  EXPECT_EQ(port.liveBuffers(), 0u);
  EXPECT_EQ(log.count("Discard"), 1u);
}

TEST_F(DispatcherTest, EuThatKeepsTheMessageOwnsIt) {
  RecordingEu eu(3);
  eu.keepMessages = true;
  dispatcher->AaSysDispatcherCpidBind(eu, 0x100);
  dispatcher->ingress(localMessage(1, 0x100));
  dispatcher->dispatch();
  ASSERT_EQ(eu.kept.size(), 1u);
  EXPECT_EQ(port.liveBuffers(), 1u);
  port.freeMsg(eu.kept[0]);
}

TEST_F(DispatcherTest, QueueHoldsAtMost1023MessagesAndThe1024thAborts) {
  RecordingEu eu(2);
  dispatcher->AaSysDispatcherCpidBind(eu, 0x100);
  for (int i = 0; i < 1023; ++i) ASSERT_TRUE(dispatcher->ingress(localMessage(1, 0x100)));
  EXPECT_TRUE(dispatcher->getQueue(Dispatcher::MedQueue).isFull());
  EXPECT_DEATH(dispatcher->ingress(localMessage(1, 0x100)), "Assertion `0' failed");
  for (int i = 0; i < 1023; ++i) dispatcher->dispatch();
}

TEST_F(DispatcherTest, SendToOwnNodeIsQueuedLocallyAndToAnyOtherNodeGoesToThePort) {
  RecordingEu eu(3);
  dispatcher->AaSysDispatcherCpidBind(eu, 0x100);
  EXPECT_TRUE(dispatcher->sendMessage(localMessage(1, 0x100)));
  EXPECT_TRUE(port.sent().empty());
  EXPECT_EQ(dispatcher->getQueue(Dispatcher::LowQueue).count(), 1u);

  void* remote = port.makeMessage(2, sicad(kOtherNid, 0x100), sicad(kOwnNid, 1));
  dispatcher->sendMessage(remote);
  ASSERT_EQ(port.sent().size(), 1u);
  EXPECT_EQ(port.sent()[0], remote);
  EXPECT_EQ(dispatcher->getQueue(Dispatcher::LowQueue).count(), 1u);
  dispatcher->dispatch();
}

TEST_F(DispatcherTest, VerboseTraceNamesEachOperationWithTheCurrentCpid) {
  RecordingEu eu(3);
  dispatcher->AaSysDispatcherCpidBind(eu, 0x100);
  dispatcher->setVerbose(true);
  dispatcher->deleteMessage(dispatcher->newMessage(16));
  dispatcher->sendMessage(localMessage(1, 0x100));
  dispatcher->dispatch();
  EXPECT_EQ(log.count("->Allocate("), 1u);
  EXPECT_EQ(log.count("->Send("), 1u);
  EXPECT_EQ(log.count("->Prioritize("), 1u);
  EXPECT_EQ(log.count("(0100)->Process("), 1u);
  EXPECT_EQ(log.count("->Destroy("), 2u);
  EXPECT_EQ(log.count("(0100)->Destroy("), 1u);
}

// The run loop

TEST_F(DispatcherTest, HighMessageIsDispatchedBeforeTimersAndInput) {
  RecordingEu high(1), low(3);
  dispatcher->AaSysDispatcherCpidBind(high, 0x100);
  dispatcher->AaSysDispatcherCpidBind(low, 0x200);
  dispatcher->ingress(localMessage(1, 0x100));
  port.deliver(localMessage(2, 0x200));
  dispatcher->runIteration();
  EXPECT_EQ(high.processedIds.size(), 1u);
  EXPECT_EQ(low.prioritized, 0);  // the port was not read in that iteration
  dispatcher->runIteration();     // input
  EXPECT_EQ(low.prioritized, 1);
  EXPECT_TRUE(low.processedIds.empty());
  dispatcher->runIteration();  // dispatch of LOW
  EXPECT_EQ(low.processedIds.size(), 1u);
}

TEST_F(DispatcherTest, AtMostOneMessageEntersFromThePortPerIteration) {
  RecordingEu eu(3);
  dispatcher->AaSysDispatcherCpidBind(eu, 0x100);
  port.deliver(localMessage(1, 0x100));
  port.deliver(localMessage(2, 0x100));
  dispatcher->runIteration();
  EXPECT_EQ(eu.prioritized, 1);
  dispatcher->runIteration();
  // Input keeps the LOW message waiting; it is dispatched once the port is empty.
  EXPECT_TRUE(eu.processedIds.empty());
  dispatcher->runIteration();
  dispatcher->runIteration();
  EXPECT_EQ(eu.processedIds, (std::vector<uint16_t>{1, 2}));
}

TEST_F(DispatcherTest, EveryIterationSleepsTheConfiguredWaitAndReadsTheTime) {
  dispatcher->setWait(250);
  dispatcher->runIteration();
  dispatcher->runIteration();
  EXPECT_EQ(time.waits(), (std::vector<unsigned>{250, 250}));
  EXPECT_EQ(time.reads(), 2u);
}

TEST_F(DispatcherTest, IdleWaitIsUnboundedWithoutTimersAndEndsAtTheNextDeadline) {
  dispatcher->runIteration();
  ASSERT_EQ(port.waits().size(), 1u);
  EXPECT_EQ(port.waits()[0], std::make_pair(0xFFFFFFFFu, 0u));
  EXPECT_TRUE(dispatcher->getIdle());

  // 46080000 BTUs = 1.5 s.
  RecordingEu eu(3);
  dispatcher->AaSysDispatcherCpidBind(eu, 0x100);
  dispatcher->startTimer(LteTime(uint64_t{46080000}), LteTime(uint64_t{0}), localMessage(1, 0x100));
  dispatcher->runIteration();
  ASSERT_EQ(port.waits().size(), 2u);
  EXPECT_EQ(port.waits()[1], std::make_pair(1u, 500000000u));
  dispatcher->cancelTimer(dispatcher->getItsTimerQueue().getEntry(0).id);
}

TEST_F(DispatcherTest, OneShotTimerDeliversItsMessageOnceWhenDue) {
  RecordingEu eu(3);
  dispatcher->AaSysDispatcherCpidBind(eu, 0x100);
  dispatcher->runIteration();  // first count-down at time 0
  dispatcher->startTimer(LteTime(uint64_t{1000}), LteTime(uint64_t{0}), localMessage(7, 0x100));
  time.setSamples(999);
  dispatcher->runIteration();
  EXPECT_EQ(eu.prioritized, 0);
  time.setSamples(1000);
  dispatcher->runIteration();  // delivered into the queue
  EXPECT_EQ(eu.prioritized, 1);
  EXPECT_FALSE(dispatcher->getIdle());
  dispatcher->runIteration();  // dispatched
  EXPECT_EQ(eu.processedIds, (std::vector<uint16_t>{7}));
  time.setSamples(5000);
  dispatcher->runIteration();
  EXPECT_EQ(eu.prioritized, 1);
}

TEST_F(DispatcherTest, PeriodicTimerDeliversACopyEachPeriodAndKeepsItsMessage) {
  RecordingEu eu(3);
  dispatcher->AaSysDispatcherCpidBind(eu, 0x100);
  dispatcher->runIteration();
  void* stored = localMessage(9, 0x100);
  const unsigned id = dispatcher->startTimer(LteTime(uint64_t{100}), LteTime(uint64_t{100}), stored);
  for (uint64_t now = 100; now <= 300; now += 100) {
    time.setSamples(now);
    dispatcher->runIteration();  // timer
    dispatcher->runIteration();  // dispatch
  }
  EXPECT_EQ(eu.processedIds, (std::vector<uint16_t>{9, 9, 9}));
  EXPECT_EQ(port.liveBuffers(), 1u);  // only the stored original
  port.failAllocations(true);  // no buffer for the copy: this firing is lost, the timer is not
  time.setSamples(400);
  dispatcher->runIteration();
  port.failAllocations(false);
  time.setSamples(500);
  dispatcher->runIteration();
  dispatcher->runIteration();
  EXPECT_EQ(eu.processedIds, (std::vector<uint16_t>{9, 9, 9, 9}));
  EXPECT_EQ(dispatcher->cancelTimer(id), stored);
  EXPECT_EQ(dispatcher->cancelTimer(id), nullptr);
  port.freeMsg(stored);
}

TEST_F(DispatcherTest, PeriodicTimerWithZeroLengthMessageAborts) {
  RecordingEu eu(3);
  dispatcher->AaSysDispatcherCpidBind(eu, 0x100);
  dispatcher->runIteration();
  void* broken = localMessage(9, 0x100);
  Olm::msgHeader(broken)->totalLength = 0;
  dispatcher->startTimer(LteTime(uint64_t{10}), LteTime(uint64_t{10}), broken);
  time.setSamples(10);
  EXPECT_DEATH(dispatcher->runIteration(), "Assertion `0' failed");
  dispatcher->cancelTimer(dispatcher->getItsTimerQueue().getEntry(0).id);
  port.freeMsg(broken);
}

// Statistics text

TEST_F(DispatcherTest, StatisticsTextShowsDeltasSinceTheLastRead) {
  dispatcher->initStatsLog();
  Olm::EchoServer::OLMLiteStatsRaw* stats = dispatcher->getItsEchoServer().getStatsRaw();
  stats->idleTicks = 300;
  stats->messagingTicks = 100;
  stats->totalLoopTicks = 300;
  Dispatcher::lockFn(nullptr);
  const std::string first = dispatcher->getStatsBuffer();
  EXPECT_NE(first.find("idleTicks=300\ndispOverHeadTicks=200\nmessagingTicks=100\n"), std::string::npos) << first;
  EXPECT_NE(first.find("Idle Time=50.00\nDispatcher Overhead=33.33\nMessaging Callbacks=16.67\n"), std::string::npos)
      << first;
  Dispatcher::unlockFn(nullptr);
  EXPECT_EQ(dispatcher->getStatsBuffer()[0], '\0');
  Dispatcher::lockFn(nullptr);
  const std::string second = dispatcher->getStatsBuffer();
  EXPECT_NE(second.find("idleTicks=0\n"), std::string::npos);
  EXPECT_NE(second.find("Idle Time=0.00\n"), std::string::npos);
}

const CRamFs* registeredFile(const char* name) {
  const CRamFs key(name, nullptr, 0, nullptr, nullptr, nullptr);
  return g_RamFsFiles.find(key);
}

TEST_F(DispatcherTest, StatisticsFilesAreRegisteredAtStartUpAndGoWithTheDispatcher) {
  testing::internal::CaptureStdout();
  dispatcher->initStatsLog();
  const std::string output = testing::internal::GetCapturedStdout();
  EXPECT_NE(output.find("m_statsBuffer address is: "), std::string::npos) << output;
  const CRamFs* raw = registeredFile("olmliteStatsRaw.bin");
  const CRamFs* text = registeredFile("olmliteStats.txt");
  ASSERT_NE(raw, nullptr);
  ASSERT_NE(text, nullptr);
  EXPECT_EQ(raw->size, 416u);
  EXPECT_EQ(raw->data, dispatcher->getItsEchoServer().getStatsFileView());
  EXPECT_EQ(text->size, 256u);
  EXPECT_EQ(text->data, dispatcher->getStatsBuffer());

  testing::internal::CaptureStdout();
  delete dispatcher;
  dispatcher = nullptr;
  testing::internal::GetCapturedStdout();
  EXPECT_EQ(registeredFile("olmliteStatsRaw.bin"), nullptr);
  EXPECT_EQ(registeredFile("olmliteStats.txt"), nullptr);
}

// The meter's first tick is due at once; each tick is a measurement of the statistics EU.
TEST_F(DispatcherTest, IdleMeterMeasuresOnTheDispatchersOwnTimerQueue) {
  dispatcher->initStatsLog();
  dispatcher->bindBuiltInEus();
  IdleMeterStart(0);
  const Olm::EchoServer::OLMLiteStatsRaw* stats = dispatcher->getItsEchoServer().getStatsRaw();
  EXPECT_EQ(stats->meterPeriodMs, 10u);
  for (int i = 0; i < 4; ++i) dispatcher->runIteration();  // deliver, dispatch, idle
  EXPECT_EQ(stats->measurementCount, 1u);
  time.setSamples(10 * 30720);
  for (int i = 0; i < 4; ++i) dispatcher->runIteration();
  EXPECT_EQ(stats->measurementCount, 2u);

  uint32_t load = 0, minLoad = 0, maxLoad = 0;
  IdleMeterGetCpuLoad(&load, &minLoad, &maxLoad);
  EXPECT_LE(minLoad, load);
  EXPECT_LE(load, maxLoad);
  EXPECT_LE(maxLoad, 10000u);
  EXPECT_EQ(stats->measurementCount, 0u);
  testing::internal::CaptureStdout();
  IdleMeterGetCpuLoad(&load, nullptr, &maxLoad);
  IdleMeterStart(10);
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "IdleMeter : input param null. \nOLMLite IdleMeterStart is called before meter being closed.\n");
  IdleMeterStop();
  EXPECT_EQ(stats->meterPeriodMs, 0u);
  EXPECT_EQ(IdleMeterGetCycleCounter(), 0u);
  // The stopped timer's message is not released by the statistics EU: the port still holds it.
  EXPECT_EQ(port.liveBuffers(), 2u) << "the history timer's and the stopped meter's message";
}

// The file system's thread opens, reads and closes both files while the loop runs with the meter
// on: under the thread sanitizer nothing of this may race.
TEST_F(DispatcherTest, StatisticsFilesAreReadWhileTheLoopCountsTicks) {
  dispatcher->initStatsLog();
  dispatcher->bindBuiltInEus();
  IdleMeterStart(0);
  const CRamFs* raw = registeredFile("olmliteStatsRaw.bin");
  const CRamFs* text = registeredFile("olmliteStats.txt");
  ASSERT_NE(raw, nullptr);
  ASSERT_NE(text, nullptr);
  constexpr int kReads = 2000;
  std::thread fileSystem([raw, text] {
    char copy[416];
    for (int read = 0; read < kReads; ++read) {
      for (const CRamFs* file : {raw, text}) {
        file->lock(file->arg);
        std::memcpy(copy, file->data, std::min<size_t>(file->size, sizeof(copy)));
        file->unlock(file->arg);
      }
    }
  });
  for (int iteration = 0; iteration < 4 * kReads; ++iteration) {
    time.setSamples(static_cast<uint64_t>(iteration) * 30720);
    dispatcher->runIteration();
  }
  fileSystem.join();
  EXPECT_GT(dispatcher->getItsEchoServer().getStatsRaw()->measurementCount, 0u);
  IdleMeterStop();
}

TEST(IdleMeterWithoutDispatcher, Aborts) {
  uint32_t load = 0;
  EXPECT_DEATH(IdleMeterStart(10), "theDispatcher != 0");
  EXPECT_DEATH(IdleMeterGetCpuLoad(&load, &load, &load), "theDispatcher != 0");
}

}  // namespace
