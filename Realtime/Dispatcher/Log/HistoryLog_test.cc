#include "HistoryLog.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "AaSysComMsgHeader.h"
#include "FakeTimeSource.h"
#include "FileTestUtil.h"
#include "HistoryLogDump.h"

namespace {

using Olm::LteTime;
using Olm::history::SHistoryRecord;

constexpr char kBanner[] = "*********** History Log *************\n";
constexpr char kEndBanner[] = "*********** End history *************\n\n";
constexpr char kPrefix[] = "[0012,0345,07,01234] ";
constexpr unsigned kRecord = Olm::history::kRecordSize;

template <typename... T>
std::string printed(const char* format, T... values) {
  char text[1024];
  std::snprintf(text, sizeof(text), format, values...);
  return text;
}

class HistoryLogTest : public ::testing::Test {
 protected:
  void SetUp() override {
    time.setNow(LteTime(12, 345, 7, 1234));
    log.setItsITimeSource(&time);
  }
  // Returns what initialisation printed.
  std::string init(unsigned size) {
    m_fileName = std::string(::testing::UnitTest::GetInstance()->current_test_info()->name()) + "_HistoryLog.bin";
    log.setHistoryLogSize(size);
    ::testing::internal::CaptureStdout();
    log.initHistoryLog(m_fileName.c_str());
    return ::testing::internal::GetCapturedStdout();
  }

  // The ring as its RAM file holds it, converted to text.
  std::string dump(bool offline = false) {
    const std::string binary = ::testing::TempDir() + m_fileName;
    const std::string text = binary + ".txt";
    std::FILE* file = std::fopen(binary.c_str(), "wb");
    std::fwrite(log.getBuffer(), 1, log.getSize(), file);
    std::fclose(file);
    if (offline) {
      EXPECT_EQ(Olm::outputHistoryLogOffline(binary.c_str(), text.c_str()), 0);
    } else {
      Olm::outputHistoryLog(binary.c_str(), text.c_str());
    }
    std::string result = OlmTest::fileContents(text);
    std::remove(binary.c_str());
    std::remove(text.c_str());
    return result;
  }

  const SHistoryRecord& record(unsigned index) const { return log.getBuffer()[index]; }

  OlmTest::FakeTimeSource time;
  Olm::HistoryLog log;
  std::string m_fileName;
};

// --- The ring -------------------------------------------------------------------------------

TEST_F(HistoryLogTest, TheDefaultRingHoldsWholeRecordsAndIsPublishedWithTheConfiguredSize) {
  const std::string output = init(0);
  EXPECT_EQ(log.getSize(), 0x200000u);
  EXPECT_EQ(log.getCapacity(), 23831u);
  EXPECT_EQ(output, printed("Hist buff address is: %p\n", static_cast<const void*>(log.getBuffer())) +
                        "RamFs set " + m_fileName + "\n");
  // The RAM file's reader may read all 2 MiB: the tail beyond the last record is the buffer's too.
  const unsigned char* tail = reinterpret_cast<const unsigned char*>(log.getBuffer()) + log.getSize() - 1;
  EXPECT_EQ(*tail, 0);
}

TEST_F(HistoryLogTest, TheNewestRecordOverwritesTheOldestAtTheCapacityBoundary) {
  init(3 * kRecord + 40);  // three whole records and a tail
  ASSERT_EQ(log.getCapacity(), 3u);
  log.logf(1, "first %d", 1);
  log.logf(1, "second %d", 2);
  EXPECT_EQ(log.getNext(), 2u);
  EXPECT_EQ(log.getOldest(), 0u);
  log.logf(1, "third %d", 3);  // fills the last slot: next wraps onto the oldest, which moves on
  EXPECT_EQ(log.getNext(), 0u);
  EXPECT_EQ(log.getOldest(), 1u);
  log.logf(1, "fourth %d", 4);  // overwrites slot 0
  EXPECT_EQ(log.getNext(), 1u);
  EXPECT_EQ(log.getOldest(), 2u);
  log.logf(1, "fifth %d", 5);
  log.logf(1, "sixth %d", 6);
  EXPECT_EQ(log.getNext(), 0u);
  EXPECT_EQ(log.getOldest(), 1u);
  // The dump goes in slot order, not from the oldest record.
  EXPECT_EQ(dump(), std::string(kBanner) + kPrefix + "fourth 4\n" + kPrefix + "fifth 5\n" + kPrefix + "sixth 6\n" +
                        kEndBanner);
}

TEST_F(HistoryLogTest, WithTheDefaultSizeTheRecordAfterAFullRingLandsInSlotZero) {
  init(0);
  for (unsigned i = 0; i < 23831; ++i) log.logf(1, "record %u", i);
  EXPECT_EQ(log.getNext(), 0u);
  EXPECT_EQ(log.getOldest(), 1u);
  log.logf(1, "record %u", 23831u);
  EXPECT_EQ(log.getNext(), 1u);
  EXPECT_EQ(log.getOldest(), 2u);
  EXPECT_EQ(record(0).payload[0], 23831u);
  EXPECT_EQ(record(23830).payload[0], 23830u);
}

TEST_F(HistoryLogTest, ARecordHoldsTheTimeReadingTypeCountFormatAndArgumentWords) {
  init(0);
  LteTime reading(0x123456789ull, 4000, EAaLteTimeRetVal_Ok);
  constexpr uint64_t kCounter = 0xABCDE00000001ull;
  reading.setRawFrameCounter(kCounter);
  time.setNow(reading);
  log.logf(2, "(%04x)->CancelTimer(%d)\n", 0x0701, 5);
  const unsigned char* bytes = reinterpret_cast<const unsigned char*>(&record(0));
  uint32_t words[7];
  std::memcpy(words, bytes, sizeof(words));
  EXPECT_EQ(words[0], 0x23456789u);
  EXPECT_EQ(words[1], 0x1u);
  EXPECT_EQ(words[2], static_cast<uint32_t>(kCounter));
  EXPECT_EQ(words[3], static_cast<uint32_t>(kCounter >> 32));
  EXPECT_EQ(words[4], 4000u);
  EXPECT_EQ(words[5], 101u | (2u << 16));  // type at 20, count at 22
  uint32_t arguments[2];
  std::memcpy(arguments, bytes + 28, sizeof(arguments));
  EXPECT_EQ(arguments[0], 0x0701u);
  EXPECT_EQ(arguments[1], 5u);
  EXPECT_EQ(log.getLastTime().getSamples(), 0x123456789ull);
  EXPECT_EQ(time.reads(), 1u);
}

TEST_F(HistoryLogTest, ElevenArgumentsAreStoredTwelveAndLinesWiderThanARecordAreRefused) {
  init(0);
  log.logf(11, "%d %d %d %d %d %d %d %d %d %d %d", 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11);
  EXPECT_EQ(log.getNext(), 1u);
  ::testing::internal::CaptureStdout();
  log.logf(12, "%d %d %d %d %d %d %d %d %d %d %d %d", 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12);
  // Seven 64-bit values fill the 56 bytes every word size has room for; eight do not.
  log.logf(7, "%llu %llu %llu %llu %llu %llu %llu", 1ull, 2ull, 3ull, 4ull, 5ull, 6ull, 7ull);
  log.logf(8, "%llu %llu %llu %llu %llu %llu %llu %llu", 1ull, 2ull, 3ull, 4ull, 5ull, 6ull, 7ull, 8ull);
  EXPECT_EQ(::testing::internal::GetCapturedStdout(), "vlogf: Too may argsvlogf: Too may args");
  EXPECT_EQ(log.getNext(), 2u);
  EXPECT_EQ(dump(), std::string(kBanner) + kPrefix + "1 2 3 4 5 6 7 8 9 10 11\n" + kPrefix + "1 2 3 4 5 6 7\n" +
                        kEndBanner);
}

TEST_F(HistoryLogTest, MessageEventsTakeOneToSixArguments) {
  init(0);
  SAaSysComMsgHeader header{0x2101, 0, 0x12030123, 0x12030456, 4, 16};
  ::testing::internal::CaptureStdout();
  log.logfMessage(0, "none", &header);
  log.logfMessage(7, "%d %d %d %d %d %d", 1, 2, 3, 4, 5, 6, &header);
  EXPECT_EQ(::testing::internal::GetCapturedStdout(),
            "vmessgaef: Incorrect number of argsvmessgaef: Incorrect number of args");
  log.logfMessage(6, "%d %d %d %d %d", 1, 2, 3, 4, 5, &header);
  EXPECT_EQ(record(0).type, 103);
  EXPECT_EQ(record(0).count, 6);
  EXPECT_EQ(log.getNext(), 1u);
}

TEST_F(HistoryLogTest, BeforeInitialisationEveryCallPrintsItsLineAndStoresNothing) {
  SAaSysComMsgHeader header{0x2101, 0, 1, 2, 4, 16};
  ::testing::internal::CaptureStdout();
  log.logf(1, "line %d", 3);
  log.logfString("text %s", "here");
  log.logfMessage(3, "(%04x)->%s(%p)", 0x701, "Send", &header);
  EXPECT_EQ(::testing::internal::GetCapturedStdout(),
            "vlogf: hb not init: 'line 3'"
            "vlogfString: hb not init: 'text here'\n" +
                printed("vlogfMessage: hb not init: '(0701)->Send(%p)'\n", static_cast<void*>(&header)));
  EXPECT_EQ(log.getBuffer(), nullptr);
  EXPECT_EQ(time.reads(), 0u);
}

// The operation trace written directly is the record the variadic call makes: the dump and
// olm-history read both the same way.
TEST_F(HistoryLogTest, TheOperationTraceIsTheRecordOfItsVariadicCall) {
  init(0);
  SAaSysComMsgHeader header{0x2101, 0, 0x12030123, 0x12030456, 4, 16};
  log.logfMessage(3, Olm::kMsgOperationFormat, 0xF701, "Process", &header);
  log.logMsgOperation(0xF701, "Process", &header);
  log.logfMessage(3, Olm::kMsgOperationFormat, 0x0610, "Destroy", nullptr);
  log.logMsgOperation(0x0610, "Destroy", nullptr);
  EXPECT_EQ(std::memcmp(&record(0), &record(1), kRecord), 0);
  EXPECT_EQ(std::memcmp(&record(2), &record(3), kRecord), 0);

  Olm::HistoryLog uninitialised;
  ::testing::internal::CaptureStdout();
  uninitialised.logMsgOperation(0x0701, "Send", &header);
  EXPECT_EQ(::testing::internal::GetCapturedStdout(),
            printed("vlogfMessage: hb not init: '(0701)->Send(%p)'\n", static_cast<void*>(&header)));
}

// --- Text records -----------------------------------------------------------------------------

TEST_F(HistoryLogTest, TextIsStoredInChunksOfSixtyCountingDownAndDumpsAsOneLine) {
  init(0);
  const std::string text(130, 'x');
  log.logfString("%s", text.c_str());
  ASSERT_EQ(log.getNext(), 3u);
  EXPECT_EQ(record(0).count, 3);
  EXPECT_EQ(record(1).count, 2);
  EXPECT_EQ(record(2).count, 1);
  EXPECT_EQ(record(2).type, 102);
  log.logfString("%s", std::string(60, 'y').c_str());  // exactly 60: an empty chunk ends it
  EXPECT_EQ(log.getNext(), 5u);
  log.logfString("short %d", 7);
  EXPECT_EQ(dump(), std::string(kBanner) + text + "\n" + std::string(60, 'y') + "\nshort 7\n" + kEndBanner);
}

// --- The dump ---------------------------------------------------------------------------------

// Every kind of argument the Dispatcher and the system log write, each read with its own type.
TEST_F(HistoryLogTest, TheDumpFormatsEveryArgumentKindAsPrintfWould) {
  init(0);
  void* msg = reinterpret_cast<void*>(static_cast<uintptr_t>(0x7654321));
  const uint16_t cpid = 0x0701;
  const uint32_t id = 5, length = 70000;
  const unsigned long long expiry = 0x123456789ABull, period = 30720;
  const unsigned long clocks = 4000000000ul;
  log.logf(4, "(%04x)->StartTimer(%p,%llu,%llu)\n", cpid, msg, expiry, period);
  log.logf(2, "(%04x)->CancelTimer(%d)\n", cpid, id);
  log.logf(3, "Clocks,%04x,%04x,%lu\n", cpid, 0x2101, clocks);
  log.logf(1, "Invalid timer msg length (%d)\n", length);
  log.logf(0, "Pause\n");
  log.logf(6, "%c|%hhx|%-5d|%ld|%zu|%s", 'A', 0x1FF, -42, -70000l, size_t{123456}, "Process");
  log.logf(5, "%*d|%.*s|%5.1f|100%%", 6, 99, 3, "truncated", 2.25);
  log.logf(2, "%Lf %jd", 1.5L, intmax_t{-9000000000});
  std::string expected = kBanner;
  expected += kPrefix + printed("(%04x)->StartTimer(%p,%llu,%llu)\n", cpid, msg, expiry, period) + "\n";
  expected += kPrefix + printed("(%04x)->CancelTimer(%d)\n", cpid, id) + "\n";
  expected += kPrefix + printed("Clocks,%04x,%04x,%lu\n", cpid, 0x2101, clocks) + "\n";
  expected += kPrefix + std::string("Invalid timer msg length (70000)\n\n");
  expected += kPrefix + std::string("Pause\n\n");
  expected += kPrefix + std::string("A|ff|-42  |-70000|123456|Process\n");
  expected += kPrefix + printed("%*d|%.*s|%5.1f|100%%", 6, 99, 3, "truncated", 2.25) + "\n";
  expected += kPrefix + printed("%Lf %jd", 1.5L, intmax_t{-9000000000}) + "\n";
  expected += kEndBanner;
  EXPECT_EQ(dump(), expected);
}

TEST_F(HistoryLogTest, MessageEventsDumpFromTheirOwnCopyOfTheHeader) {
  init(0);
  SAaSysComMsgHeader header{0x2101, 0, 0x12030123, 0x12030456, 4, 16};
  SAaSysComMsgHeader unknown{0x0001, 0, 1, 2, 4, 16};
  log.logfMessage(3, "(%04x)->%s(%p)", 0x0610, "Process", &header);
  log.logfMessage(1, "Send", &unknown);
  header = SAaSysComMsgHeader{};  // the message is freed after the operation
  const std::string expected =
      std::string(kBanner) + kPrefix +
      printed("(0610)->Process(%p) {Id:2101 Target:12030123 Sender:12030456} (PHY_CCPCH_SEND_REQ_MSG)\n",
              static_cast<void*>(&header)) +
      kPrefix + "Send {Id:0001 Target:00000001 Sender:00000002} (UNKNOWN)\n" + kEndBanner;
  EXPECT_EQ(dump(), expected);
}

TEST_F(HistoryLogTest, TheDumpTakesTheTimeFromTheHardwareCountersWhenTheReadingHasThem) {
  init(0);
  constexpr uint64_t kCounter = (uint64_t{1} << 20) | (5u << 10) | 17u;  // bits above 19 are not the time
  constexpr uint32_t kFine = 3 * LteTime::FineUnitsPerSlot + 100 * LteTime::FineUnitsPerBasicTimeUnit;
  LteTime reading(0, kFine, EAaLteTimeRetVal_Ok);
  reading.setRawFrameCounter(kCounter);
  time.setNow(reading);
  log.logf(0, "counted");
  EXPECT_EQ(dump(), std::string(kBanner) + "[0005,0017,03,00100] counted\n" + kEndBanner);
}

// The record area is not cleared between reads: a file of whole records ends in a read of nothing,
// which writes its last record once more.
TEST_F(HistoryLogTest, AFileOfWholeRecordsDumpsItsLastRecordTwice) {
  init(2 * kRecord);
  log.logf(0, "one");
  log.logf(0, "two");
  EXPECT_EQ(dump(), std::string(kBanner) + kPrefix + "one\n" + kPrefix + "two\n" + kPrefix + "two\n" + kEndBanner);
}

// Offline only what lies in the runtime's read-only data is read; the rest is named, not followed.
TEST_F(HistoryLogTest, OfflineFormatsAndTextsOutsideTheRuntimeAreShownUnresolved) {
  init(0);
  const std::string heapFormat = "heap format %d";
  const std::string heapText = "heap text";
  log.logf(1, "literal %s", "text");
  log.logf(1, heapFormat.c_str(), 5);
  log.logf(1, "literal %s", heapText.c_str());
  const std::string text = dump(true);
  EXPECT_NE(text.find(std::string(kPrefix) + "literal text\n"), std::string::npos) << text;
  EXPECT_NE(text.find(std::string(kPrefix) + "<format "), std::string::npos) << text;
  EXPECT_NE(text.find(" 00000005\n"), std::string::npos) << text;
  EXPECT_NE(text.find(std::string(kPrefix) + "literal <text "), std::string::npos) << text;
  EXPECT_EQ(text.find("heap"), std::string::npos) << text;
}

TEST_F(HistoryLogTest, TheOfflineDumpReportsFilesItCannotOpen) {
  EXPECT_EQ(Olm::outputHistoryLogOffline("/nonexistent/history.bin", "/dev/null"), -1);
  EXPECT_EQ(Olm::outputHistoryLogOffline(nullptr, "/dev/null"), -1);
}

}  // namespace
