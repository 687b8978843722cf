// The server's handling of read requests over files the test makes up: chunks and their bounds,
// requests of either byte order, malformed requests that must never reach a file, and replies
// that cannot be delivered.
#include "RamFileServer.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "AaSysCom.h"
#include "AaSysComMsgHeader.h"
#include "FakeRuntime.h"
#include "RamFileRead.h"

namespace {

using Bytes = std::vector<uint8_t>;
using Words = std::vector<uint32_t>;

constexpr char kRoot[] = "/srv/ram";
constexpr uint16_t kNode = 0x1011;
constexpr uint32_t kTool = 0x1FF00700;
// The alias the tool asks at: the server's node id is another.
constexpr uint32_t kServerAddress = 0x101D0000u | RAMFILE_SERVER_CPID;
constexpr uint32_t kHeaderWords = RAMFILE_READ_REPLY_HEADER_SIZE / 4;

// A reply as the tool reads it.
struct Reply {
  uint32_t receiver;
  uint32_t sender;
  Words header;  // status, node id, file size, offset, chunk length
  Bytes bytes;
};

Bytes countingBytes(size_t size) {
  Bytes bytes(size);
  for (size_t i = 0; i < size; ++i) bytes[i] = static_cast<uint8_t>(i * 7 + i / 251);
  return bytes;
}

class RamFileServerTest : public OlmTest::FakeRuntimeTest {
 protected:
  RamFileServer::Hooks hooks() {
    RamFileServer::Hooks hooks;
    hooks.readFile = [this](const std::string& path, uint32_t offset, uint32_t count, uint32_t& fileSize, Bytes& bytes) {
      m_paths.push_back(path);
      const auto file = m_files.find(path);
      if (file == m_files.end()) return ENOENT;
      fileSize = static_cast<uint32_t>(file->second.size());
      if (offset < fileSize) {
        const auto from = file->second.begin() + offset;
        bytes.assign(from, from + std::min<uint32_t>(count, fileSize - offset));
      }
      return 0;
    };
    // Reads wait in m_reads until the test runs them, or run as soon as they start.
    hooks.runRead = [this](std::function<void()> read) {
      m_reads.push_back(std::move(read));
      if (m_readsRunAtOnce) runRead(m_reads.size() - 1);
    };
    // The server's wake-ups to itself wait in m_wakeUps until delivered (or are refused); only
    // replies are the tool's.
    hooks.transmit = [this](void* msg) {
      if (AaSysComMsgGetReceiver(msg) == ownAddress()) {
        if (m_wakeUpRefusal != 0) return m_wakeUpRefusal;
        m_wakeUps.push_back(msg);
        return 0;
      }
      if (m_sendRefusal != 0) return m_sendRefusal;
      runtime.sendMessage(msg);
      return 0;
    };
    hooks.release = [](void* msg) { AaSysComMsgDestroy(&msg); };
    hooks.print = [this](const std::string& line) { m_printed.push_back(line); };
    hooks.ramRoot = kRoot;
    return hooks;
  }

  // Where node 0x1011's file name is.
  static std::string pathOf(const std::string& name) { return std::string(kRoot) + "/olm_lite/0x1011/fusemnt/" + name; }

  static uint32_t ownAddress() { return (uint32_t{OlmTest::kOwnNid} << 16) | RAMFILE_SERVER_CPID; }

  // The message; with reads run at once, then the wake-ups they sent too.
  void deliver(void* msg) {
    server.ProcessMessage(msg);
    EXPECT_EQ(msg, nullptr) << "the server left its message in the reference";
    if (m_readsRunAtOnce) deliverWakeUps();
  }
  void runRead(size_t index) {
    std::function<void()> read = std::move(m_reads.at(index));
    ASSERT_TRUE(read) << "read " << index << " ran already";
    read();
  }
  // Delivers the wake-ups the reads run so far sent.
  void deliverWakeUps() {
    std::vector<void*> wakeUps;
    wakeUps.swap(m_wakeUps);
    for (void* wakeUp : wakeUps) {
      server.ProcessMessage(wakeUp);
      EXPECT_EQ(wakeUp, nullptr) << "the server left its wake-up in the reference";
    }
  }
  void* message(TAaSysComMsgId id, const void* payload, uint32_t size, uint32_t sender = kTool) {
    void* msg = AaSysComMsgCreate(id, static_cast<TAaSysComMsgSize>(size), kServerAddress);
    if (size != 0) std::memcpy(AaSysComMsgGetPayload(msg), payload, size);
    AaSysComMsgSetSender(msg, sender);
    return msg;
  }
  // A request's payload: the words, then the name as given (its NUL included when wanted).
  static Bytes requestBytes(const Words& words, const std::string& name, bool terminated = true) {
    Bytes bytes(words.size() * 4);
    std::memcpy(bytes.data(), words.data(), bytes.size());
    bytes.insert(bytes.end(), name.begin(), name.end());
    if (terminated) bytes.push_back(0);
    return bytes;
  }
  void request(uint32_t nid, uint32_t offset, uint32_t largest, const std::string& name) {
    const Bytes bytes = requestBytes({nid, offset, largest}, name);
    deliver(message(RAMFILE_READ_REQ_MSG, bytes.data(), static_cast<uint32_t>(bytes.size())));
  }

  Reply reply(size_t index) const {
    const void* msg = runtime.sent().at(index);
    EXPECT_EQ(AaSysComMsgGetId(msg), RAMFILE_READ_REPLY_MSG);
    const uint32_t size = AaSysComMsgGetPayloadSize(msg);
    EXPECT_GE(size, RAMFILE_READ_REPLY_HEADER_SIZE);
    const auto* payload = static_cast<const uint8_t*>(AaSysComMsgGetPayload(msg));
    Reply reply{AaSysComMsgGetReceiver(msg), AaSysComMsgGetSender(msg), Words(kHeaderWords), {}};
    std::memcpy(reply.header.data(), payload, RAMFILE_READ_REPLY_HEADER_SIZE);
    reply.bytes.assign(payload + RAMFILE_READ_REPLY_HEADER_SIZE, payload + size);
    EXPECT_EQ(reply.bytes.size(), reply.header[4]) << "the chunk length is what the reply holds";
    return reply;
  }
  Reply lastReply() const { return reply(runtime.sent().size() - 1); }

  std::map<std::string, Bytes> m_files;
  std::vector<std::string> m_paths;
  std::vector<std::function<void()>> m_reads;
  bool m_readsRunAtOnce = true;
  std::vector<void*> m_wakeUps;
  int m_wakeUpRefusal = 0;
  int m_sendRefusal = 0;
  std::vector<std::string> m_printed;
  RamFileServer server{hooks()};
};

TEST_F(RamFileServerTest, AReadIsAnsweredWithTheChunkAtItsOffsetAndTheWholeSize) {
  const Bytes file = countingBytes(150000);
  m_files[pathOf("1011_HistoryLog.bin")] = file;
  request(kNode, 0, 100000, "1011_HistoryLog.bin");
  request(kNode, RAMFILE_READ_MAX_CHUNK, 1000, "1011_HistoryLog.bin");
  request(kNode, 140000, RAMFILE_READ_MAX_CHUNK, "1011_HistoryLog.bin");
  request(kNode, 150000, 10, "1011_HistoryLog.bin");
  request(kNode, 200000, 10, "1011_HistoryLog.bin");

  EXPECT_EQ(m_paths.front(), "/srv/ram/olm_lite/0x1011/fusemnt/1011_HistoryLog.bin");
  const Reply first = reply(0);
  EXPECT_EQ(first.receiver, kTool);
  EXPECT_EQ(first.sender, kServerAddress) << "from the address the tool asked";
  EXPECT_EQ(first.header, (Words{0, kNode, 150000, 0, RAMFILE_READ_MAX_CHUNK})) << "cut to what a message holds";
  EXPECT_EQ(first.bytes, Bytes(file.begin(), file.begin() + RAMFILE_READ_MAX_CHUNK));
  const Reply wanted = reply(1);
  EXPECT_EQ(wanted.header, (Words{0, kNode, 150000, RAMFILE_READ_MAX_CHUNK, 1000})) << "cut to what was wanted";
  EXPECT_EQ(wanted.bytes, Bytes(file.begin() + RAMFILE_READ_MAX_CHUNK, file.begin() + RAMFILE_READ_MAX_CHUNK + 1000));
  const Reply tail = reply(2);
  EXPECT_EQ(tail.header, (Words{0, kNode, 150000, 140000, 10000})) << "cut at the file's end";
  EXPECT_EQ(tail.bytes, Bytes(file.begin() + 140000, file.end()));
  EXPECT_EQ(reply(3).header, (Words{0, kNode, 150000, 150000, 0}));
  EXPECT_EQ(reply(4).header, (Words{0, kNode, 150000, 200000, 0}));
  EXPECT_TRUE(m_printed.empty()) << m_printed.front();
}

TEST_F(RamFileServerTest, AFileThatCannotBeReadIsAnsweredWithItsErrorAndNoBytes) {
  request(kNode, 0, 100, "olmliteStatsRaw.bin");
  EXPECT_EQ(lastReply().header, (Words{ENOENT, kNode, 0, 0, 0}));
  // Node ids below 0x1000 have directories of four digits as well.
  request(0x0123, 8, 100, "olmliteStatsRaw.bin");
  EXPECT_EQ(m_paths.back(), "/srv/ram/olm_lite/0x0123/fusemnt/olmliteStatsRaw.bin");
  EXPECT_EQ(lastReply().header, (Words{ENOENT, 0x0123, 0, 8, 0}));
}

TEST_F(RamFileServerTest, ARequestInTheOtherByteOrderIsReadInIt) {
  m_files[pathOf("eu_status.txt")] = countingBytes(300);
  const Bytes bytes = requestBytes({__builtin_bswap32(kNode), __builtin_bswap32(100), __builtin_bswap32(50)}, "eu_status.txt");
  for (const uint32_t apf : {AASYSCOM_APF_BIG_ENDIAN_WORDS, AASYSCOM_APF_TWO_BYTE_BIT}) {
    void* msg = message(RAMFILE_READ_REQ_MSG, bytes.data(), static_cast<uint32_t>(bytes.size()));
    AaSysComMsgSetApf(msg, apf);
    deliver(msg);
    EXPECT_EQ(lastReply().header, (Words{0, kNode, 300, 100, 50})) << "APF " << apf;
  }
}

TEST_F(RamFileServerTest, MalformedRequestsAreRefusedWithoutTouchingAFile) {
  const std::string longest(RAMFILE_READ_MAX_NAME_SIZE - 1, 'n');
  m_files[pathOf(longest)] = countingBytes(10);
  request(kNode, 0, 10, longest);
  ASSERT_EQ(lastReply().header, (Words{0, kNode, 10, 0, 10})) << "the longest name is read";
  m_paths.clear();

  struct Case {
    const char* what;
    Bytes payload;
    Words expected;
  };
  const Case cases[] = {
      {"no payload", {}, {EINVAL, 0, 0, 0, 0}},
      {"words cut short", Bytes{0x11, 0x10, 0, 0, 5, 0, 0}, {EINVAL, kNode, 0, 0, 0}},
      {"no name", requestBytes({kNode, 5, 10}, "", false), {EINVAL, kNode, 0, 5, 0}},
      {"an unterminated name", requestBytes({kNode, 0, 10}, "eu_status.txt", false), {EINVAL, kNode, 0, 0, 0}},
      {"a name too long", requestBytes({kNode, 0, 10}, longest + "n"), {EINVAL, kNode, 0, 0, 0}},
      {"an empty name", requestBytes({kNode, 0, 10}, ""), {EINVAL, kNode, 0, 0, 0}},
      {"a path", requestBytes({kNode, 0, 10}, "../0x1012/fusemnt/x"), {EINVAL, kNode, 0, 0, 0}},
      {"a directory", requestBytes({kNode, 0, 10}, "."), {EINVAL, kNode, 0, 0, 0}},
      {"its parent", requestBytes({kNode, 0, 10}, ".."), {EINVAL, kNode, 0, 0, 0}},
      {"a node id beyond 16 bits", requestBytes({0x11011, 0, 10}, "eu_status.txt"), {EINVAL, 0x11011, 0, 0, 0}},
  };
  for (const Case& c : cases) {
    deliver(message(RAMFILE_READ_REQ_MSG, c.payload.data(), static_cast<uint32_t>(c.payload.size())));
    EXPECT_EQ(lastReply().header, c.expected) << c.what;
  }
  // A header whose length cannot hold the trailer it claims: the payload size wraps.
  const Bytes whole = requestBytes({kNode, 0, 10}, "x");
  void* cut = message(RAMFILE_READ_REQ_MSG, whole.data(), 3);
  static_cast<SAaSysComMsgHeader*>(cut)->flags |= AASYSCOM_MEF_TRAILER;
  deliver(cut);
  EXPECT_EQ(lastReply().header, (Words{EINVAL, 0, 0, 0, 0}));
  EXPECT_TRUE(m_paths.empty()) << m_paths.front();
}

TEST_F(RamFileServerTest, WhatCannotBeAnsweredIsDroppedWithALine) {
  m_files[pathOf("eu_status.txt")] = countingBytes(10);
  const Bytes bytes = requestBytes({kNode, 0, 10}, "eu_status.txt");
  deliver(message(RAMFILE_READ_REQ_MSG, bytes.data(), static_cast<uint32_t>(bytes.size()), 0));
  deliver(message(RAMFILE_READ_REPLY_MSG, bytes.data(), static_cast<uint32_t>(bytes.size())));
  m_sendRefusal = -ENOBUFS;
  request(kNode, 0, 10, "eu_status.txt");
  EXPECT_TRUE(runtime.sent().empty());
  EXPECT_EQ(m_printed, (std::vector<std::string>{
                           "RAM file server: dropped a read request without a sender",
                           "RAM file server: dropped message 0x097d from 0x1ff00700: not a read request",
                           "RAM file server: dropped the reply to 0x1ff00700: the tool's queue is full",
                       }));
}

// A node stopped in a debugger does not answer reads of its files: those reads hold up nothing else.
TEST_F(RamFileServerTest, AReadThatHasNotFinishedHoldsUpNoOtherAndEachIsAnsweredWhenItFinishes) {
  m_readsRunAtOnce = false;
  m_files[pathOf("stopped.txt")] = countingBytes(10);
  m_files[pathOf("running.txt")] = countingBytes(20);
  request(kNode, 0, 100, "stopped.txt");
  request(kNode, 0, 100, "running.txt");
  EXPECT_TRUE(runtime.sent().empty()) << "nothing is answered before it is read";

  runRead(1);
  deliverWakeUps();
  ASSERT_EQ(runtime.sent().size(), 1u);
  EXPECT_EQ(lastReply().header, (Words{0, kNode, 20, 0, 20}));

  // A wake-up lost on the way (the server's own queue full) is made good by the next one.
  m_wakeUpRefusal = -ENOBUFS;
  runRead(0);
  m_wakeUpRefusal = 0;
  EXPECT_EQ(runtime.sent().size(), 1u);
  request(kNode, 5, 100, "running.txt");
  runRead(2);
  deliverWakeUps();
  ASSERT_EQ(runtime.sent().size(), 3u);
  EXPECT_EQ(reply(1).header, (Words{0, kNode, 10, 0, 10}));
  EXPECT_EQ(reply(2).header, (Words{0, kNode, 20, 5, 15}));
  EXPECT_TRUE(m_printed.empty()) << m_printed.front();
}

// A tool that keeps asking for the files of a stopped node ties up two reads, not the server.
TEST_F(RamFileServerTest, BeyondTwoUnfinishedReadsOfOneNodeItsRequestsAreRefusedBusyUntilOneIsAnswered) {
  m_readsRunAtOnce = false;
  m_files[pathOf("eu_status.txt")] = countingBytes(10);
  request(kNode, 0, 100, "eu_status.txt");
  request(kNode, 1, 100, "eu_status.txt");
  request(kNode, 2, 100, "eu_status.txt");
  ASSERT_EQ(runtime.sent().size(), 1u);
  EXPECT_EQ(lastReply().header, (Words{EBUSY, kNode, 0, 2, 0}));
  EXPECT_EQ(m_reads.size(), RamFileServer::kMaxReadsPerNode) << "the refused request is not read";
  request(kNode + 1, 0, 100, "eu_status.txt");
  EXPECT_EQ(m_reads.size(), RamFileServer::kMaxReadsPerNode + 1) << "another node's files are read";

  runRead(0);
  request(kNode, 3, 100, "eu_status.txt");
  EXPECT_EQ(lastReply().header, (Words{EBUSY, kNode, 0, 3, 0})) << "a read counts until it is answered";
  deliverWakeUps();
  request(kNode, 4, 100, "eu_status.txt");
  EXPECT_EQ(m_reads.size(), RamFileServer::kMaxReadsPerNode + 2) << "taken once one was answered";
  for (size_t i = 1; i < m_reads.size(); ++i) runRead(i);
  deliverWakeUps();
  EXPECT_EQ(runtime.sent().size(), 2u + m_reads.size()) << "two refusals, and an answer for every read";
}

TEST_F(RamFileServerTest, BeyondTheReadsInFlightOfAllNodesEveryRequestIsRefusedBusy) {
  m_readsRunAtOnce = false;
  for (uint32_t nid = 0; nid < RamFileServer::kMaxReadsInFlight; ++nid) request(nid, 0, 100, "eu_status.txt");
  EXPECT_TRUE(runtime.sent().empty());
  request(RamFileServer::kMaxReadsInFlight, 0, 100, "eu_status.txt");
  ASSERT_EQ(runtime.sent().size(), 1u);
  EXPECT_EQ(lastReply().header, (Words{EBUSY, RamFileServer::kMaxReadsInFlight, 0, 0, 0}));
  for (size_t i = 0; i < m_reads.size(); ++i) runRead(i);
  deliverWakeUps();
  EXPECT_EQ(runtime.sent().size(), 1u + RamFileServer::kMaxReadsInFlight);
}

}  // namespace
