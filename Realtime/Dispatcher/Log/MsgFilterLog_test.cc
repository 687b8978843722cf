#include "MsgFilterLog.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "AaFile.h"
#include "AaSysComMsgHeader.h"
#include "BufferPool.h"
#include "FakeTimeSource.h"

namespace {

using Olm::LteTime;
using Olm::MsgFilterLog;

constexpr const char kDispatcherFormat[] = "(%04x)->%s(%p)";
constexpr uint32_t kReceiver = 0x10120700;
constexpr uint32_t kSender = 0x10110700;

// The ids a list leaves in the log, as "1 2 ".
std::string parsedIds(const char* text) {
  MsgFilterLog log;
  log.setMsgFilterIds(text);
  std::string ids;
  for (unsigned i = 0; i < log.getFilterCount(); ++i) ids += std::to_string(log.getFilterId(i)) + " ";
  return ids;
}

// "Send*:0a01 Output:0a01 ": each entry's operation, a star when a dump follows, and the id.
std::string entries(const std::string& text) {
  std::string summary;
  for (size_t at = text.find("\n[op:"); at != std::string::npos; at = text.find("\n[op:", at + 1)) {
    const bool dumped = text.compare(text.find('\n', at + 1) + 1, 6, "START:") == 0;
    summary += text.substr(at + 5, text.find(']', at) - at - 5) + (dumped ? "*:" : ":") +
               text.substr(text.find("{Id:", at) + 4, 4) + " ";
  }
  return summary;
}

// The text with the wall clock of every entry, which a test cannot choose, as "hh:mm:ss.uuuuuu".
std::string maskWallClocks(std::string text) {
  for (size_t at = text.find("\n[op:"); at != std::string::npos; at = text.find("\n[op:", at + 1)) {
    text.replace(text.find("][", at) + 2, 15, "hh:mm:ss.uuuuuu");
  }
  return text;
}

const CRamFs* registeredFile(const char* name) {
  return g_RamFsFiles.find(CRamFs(name, nullptr, 0, nullptr, nullptr, nullptr));
}

TEST(MsgFilterLogIds, ListsKeepUpTo24NonZeroReadableIdsOnceAndLeaveTheTextAsItWas) {
  char text[] = "0x26B8,0x26B9";
  EXPECT_EQ(parsedIds(text), "9912 9913 ");
  EXPECT_STREQ(text, "0x26B8,0x26B9");
  EXPECT_EQ(parsedIds(""), "");
  EXPECT_EQ(parsedIds("0,0x10"), "16 ");
  EXPECT_EQ(parsedIds("017, 12 ,0"), "15 12 ");  // octal, decimal, blanks around a piece
  // Not wholly a number, signed, beyond 16 bits, beyond unsigned long, empty pieces; repeats.
  EXPECT_EQ(parsedIds("abc,,0x1g,12x,-5,+7,0x10000,99999999999999999999999,0x,7"), "7 ");
  EXPECT_EQ(parsedIds("0x10,16,020,0x11"), "16 17 ");
  std::string thirty = "0", first24;
  for (int id = 1; id <= 30; ++id) thirty += "," + std::to_string(id) + (id == 5 ? ",0,5" : "");
  for (int id = 1; id <= 24; ++id) first24 += std::to_string(id) + " ";
  EXPECT_EQ(parsedIds(thirty.c_str()), first24);
  MsgFilterLog log;  // a later list replaces the former
  log.setMsgFilterIds("1,2");
  log.setMsgFilterIds("3");
  EXPECT_EQ(log.getFilterCount(), 1u);
  EXPECT_EQ(log.getFilterId(0), 3u);
}

// A log with its RAM file, a scripted time source and messages from a tracked pool.
class MsgFilterLogTest : public ::testing::Test {
 protected:
  void SetUp() override { time.setNow(LteTime(12, 345, 7, 1234)); }

  void start(uint32_t mode, const char* ids = nullptr, unsigned size = MsgFilterLog::MinimumSize) {
    log.setMode(mode);
    log.setMsgFilterIds(ids);
    log.setMsgFilterLogSize(size);
    log.setItsITimeSource(&time);
    log.initMsgFilterLog("1011_MsgFilterLog.log");
    ASSERT_NE(log.getBuffer(), nullptr);
  }
  void* message(uint16_t id, uint16_t payloadSize = 4) {
    void* msg = pool.makeMessage(id, kReceiver, kSender, payloadSize);
    uint8_t* payload = static_cast<uint8_t*>(msg) + AASYSCOM_HEADER_SIZE;
    for (uint16_t i = 0; i < payloadSize; ++i) payload[i] = static_cast<uint8_t>(i * 0x11);
    return msg;
  }
  void trace(const char* operation, void* msg) { log.logfMessage(3, kDispatcherFormat, 0x0700, operation, msg); }
  std::string text() const {
    return maskWallClocks(std::string(log.getBuffer(), strnlen(log.getBuffer(), log.getSize())));
  }

  OlmTest::FakeTimeSource time;
  OlmTest::BufferPool pool;
  MsgFilterLog log;
};

TEST_F(MsgFilterLogTest, SizesBelowTheSmallestAreRaisedAndTheBufferIsTheRegisteredFile) {
  const uint32_t cases[][2] = {{0, 0x200000}, {1, 0x200A0}, {1000, 0x200A0}, {0x2009F, 0x200A0}, {0x200A1, 0x200A1}};
  for (const auto& c : cases) {
    MsgFilterLog sized;
    sized.setMsgFilterLogSize(c[0]);
    sized.initMsgFilterLog("sized_MsgFilterLog.log");
    const CRamFs* file = registeredFile("sized_MsgFilterLog.log");
    ASSERT_NE(file, nullptr);
    EXPECT_EQ(file->size, c[1]) << c[0];
    EXPECT_EQ(std::string(static_cast<char*>(file->data), file->size), std::string(c[1], '\0'));
  }
  EXPECT_EQ(registeredFile("sized_MsgFilterLog.log"), nullptr);  // each went with its log
}

TEST_F(MsgFilterLogTest, MisuseSaysSoOnStandardOutputAndLogsNothing) {
  start(MsgFilterLog::ModeHeaderAndDump);
  void* msg = message(0x0A01);
  testing::internal::CaptureStdout();
  log.logfMessage(0, "Send");
  log.logfMessage(7, "%d%d%d%d%d%d", 1, 2, 3, 4, 5, 6, msg);
  MsgFilterLog twin;
  twin.initMsgFilterLog("1011_MsgFilterLog.log");  // the name is taken
  const std::string out = testing::internal::GetCapturedStdout();  // the registry has its own line too
  EXPECT_EQ(out.rfind("MsgFilLog: Incorrect number of args\nMsgFilLog: Incorrect number of args\n", 0), 0u) << out;
  EXPECT_EQ(out.substr(out.size() - 26), "\ninit: problem with ramfs\n") << out;
  trace("Send", nullptr);
  EXPECT_EQ(log.getWriteOffset(), 0u);
  MsgFilterLog().logfMessage(1, "Send", msg);  // no buffer yet: skipped
}

TEST_F(MsgFilterLogTest, ModeOneDumpsSendAndInputInTheFixedFormat) {
  start(MsgFilterLog::ModeHeaderAndDump);
  trace("Send", message(0x2101, 16));
  log.logfMessage(1, "Input", message(0x0001, 17));  // no argument before the message: the format names it
  EXPECT_EQ(text(),
            "\n[op:Send][hh:mm:ss.uuuuuu][0012,0345,07,01234]{Id:2101 Target:10120700 Sender:10110700 Flags:0004} "
            "(PHY_CCPCH_SEND_REQ_MSG,len:16)\n"
            "START:\n2101000010120700101107000004" "0020\n"
            "00112233445566778899aabbccddeeff\n"
            "\n:END\n"
            "\n[op:Input][hh:mm:ss.uuuuuu][0012,0345,07,01234]{Id:0001 Target:10120700 Sender:10110700 Flags:0004} "
            "(UNKNOWN,len:17)\n"
            "START:\n0001000010120700101107000004" "0021\n"
            "00112233445566778899aabbccddeeff\n"
            "10\n:END\n");
  EXPECT_EQ(log.getWriteOffset(), text().size());
}

TEST_F(MsgFilterLogTest, OnlyOperationsStartingWithIOrSAreDumpedAndOnlyInModeOne) {
  for (uint32_t mode : {1u, 2u, 3u}) {
    MsgFilterLog modal;
    modal.setMode(mode);
    modal.initMsgFilterLog("modal_MsgFilterLog.log");
    for (const char* op : {"Allocate", "Destroy", "Discard", "Input", "Output", "Prioritize", "Process", "Send"}) {
      modal.logfMessage(3, kDispatcherFormat, 0x0700, op, message(0x0A01));
    }
    EXPECT_EQ(entries(modal.getBuffer()), mode == 1 ? "Allocate:0a01 Destroy:0a01 Discard:0a01 Input*:0a01 Output:0a01 "
                                                      "Prioritize:0a01 Process:0a01 Send*:0a01 "
                                                    : "Allocate:0a01 Destroy:0a01 Discard:0a01 Input:0a01 Output:0a01 "
                                                      "Prioritize:0a01 Process:0a01 Send:0a01 ");
  }
}

TEST_F(MsgFilterLogTest, TheListChoosesTheMessagesAndAnEmptyListTakesThemAll) {
  start(MsgFilterLog::ModeHeaderOnly, "0x26B8,0x26B9");
  for (uint16_t id : {0x26B7, 0x26B8, 0x26BA, 0x26B9, 0x36B8}) trace("Send", message(id));
  EXPECT_EQ(entries(text()), "Send:26b8 Send:26b9 ");
  // The Dispatcher's question before the call agrees with what the call records.
  EXPECT_TRUE(log.wantsMessage(message(0x26B9)));
  EXPECT_FALSE(log.wantsMessage(message(0x36B8)));
  MsgFilterLog all;
  all.initMsgFilterLog("all_MsgFilterLog.log");
  for (uint16_t id : {0x26B7, 0x26B8}) all.logfMessage(3, kDispatcherFormat, 0x0700, "Send", message(id));
  EXPECT_EQ(entries(all.getBuffer()), "Send:26b7 Send:26b8 ");
  EXPECT_TRUE(all.wantsMessage(message(0x26B7)));
}

TEST_F(MsgFilterLogTest, ArgumentsBeforeTheOperationAreReadWithTheirOwnTypes) {
  start(MsgFilterLog::ModeHeaderOnly);
  log.logfMessage(4, "%llu %.1f %s", 1ULL << 40, 0.5, "Process", message(0x0A01));
  log.logfMessage(3, "%p %p", static_cast<void*>(&log), "Send", message(0x0A02));  // not %s: not a name
  log.logfMessage(2, "(%04x)", 0x0700, message(0x0A03));
  EXPECT_EQ(entries(text()), "Process:0a01 %p %p:0a02 (%04x):0a03 ");
}

TEST_F(MsgFilterLogTest, AnEntryThatDoesNotFitZeroesTheBufferAndStartsItAgain) {
  start(MsgFilterLog::ModeHeaderAndDump);
  // Each entry of a 60000-byte payload fills most of the smallest buffer.
  trace("Send", message(0x0A01, 60000));
  const uint32_t first = log.getWriteOffset();
  ASSERT_GT(2 * first, log.getSize());
  trace("Send", message(0x0A02, 60000));
  const std::string second = text();
  EXPECT_EQ(log.getWriteOffset(), 0u);
  EXPECT_EQ(second.size(), first);
  EXPECT_EQ(entries(second), "Send*:0a02 ");
  EXPECT_EQ(std::string(log.getBuffer() + first, log.getSize() - first), std::string(log.getSize() - first, '\0'));
  // The next entry overwrites the start of that one; the rest of it stays behind the new entry.
  trace("Output", message(0x0A03));
  const std::string third = text();
  EXPECT_EQ(log.getWriteOffset(), third.find('\n', 1) + 1);
  EXPECT_EQ(third.rfind("\n[op:Output]", 0), 0u);
  EXPECT_EQ(third.substr(log.getWriteOffset()), second.substr(log.getWriteOffset()));
}

TEST_F(MsgFilterLogTest, PayloadsAboveTheLimitAreSkippedAndTheLargestIsCutToTheTextArea) {
  start(MsgFilterLog::ModeHeaderAndDump, nullptr, MsgFilterLog::DefaultSize);
  trace("Send", message(0x0A01, MsgFilterLog::MaxLoggedPayload + 1));
  EXPECT_EQ(log.getWriteOffset(), 0u);
  trace("Send", message(0x0A01, MsgFilterLog::MaxLoggedPayload));
  EXPECT_EQ(log.getWriteOffset(), MsgFilterLog::MinimumSize - 1);
  const std::string written = text();
  EXPECT_NE(written.find("len:65466)\nSTART:\n"), std::string::npos);
  EXPECT_EQ(written.find(":END"), std::string::npos);
}

TEST_F(MsgFilterLogTest, TheDumpStaysInsideTheTotalLength) {
  start(MsgFilterLog::ModeHeaderAndDump);
  // Buffers exactly as long as the header says; the sanitizer build sees any byte read beyond.
  auto exact = [this](uint16_t totalLength, uint16_t flags) {
    void* msg = pool.allocate(totalLength < AASYSCOM_HEADER_SIZE ? AASYSCOM_HEADER_SIZE : totalLength);
    *Olm::msgHeader(msg) = SAaSysComMsgHeader{0x0A01, 0, kReceiver, kSender, flags, totalLength};
    return msg;
  };
  trace("Send", exact(AASYSCOM_HEADER_SIZE + 3, 0x0004));
  EXPECT_NE(text().find("len:3)\nSTART:\n0a01000010120700101107000004" "0013\n000000\n:END\n"), std::string::npos);
  const uint32_t logged = log.getWriteOffset();
  trace("Send", exact(20, 0x0004 | AASYSCOM_MEF_TRAILER));  // too short for header and trailer
  trace("Send", exact(10, 0x0004));                          // too short for the header
  EXPECT_EQ(log.getWriteOffset(), logged);
}

}  // namespace
