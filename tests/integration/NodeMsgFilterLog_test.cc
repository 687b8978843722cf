// The message filter log of real nodes exchanging PingEu's pings and pongs, read as a developer
// reads it: cat of "<nid>_MsgFilterLog.log" in the node's RAM file mount while the node runs.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "FileTestUtil.h"
#include "MsgFilterLogText.h"
#include "NodeProcess.h"
#include "TestNamespace.h"

namespace {

using OlmTest::hex;
using OlmTest::NodeProcess;

constexpr unsigned kPingCpid = 0x0700;  // PingEu's
constexpr unsigned kPingPayloadSize = 12;

using Entry = OlmTest::MsgFilterEntry;

std::string sicad(unsigned nid) {
  char text[9];
  std::snprintf(text, sizeof(text), "%08x", nid << 16 | kPingCpid);
  return text;
}

std::string fileName(unsigned nid) {
  char text[64];
  std::snprintf(text, sizeof(text), "%x_MsgFilterLog.log", nid);
  return text;
}

// The complete entries of the text. The node writes while it is read: what follows the last
// complete entry is the start of one being written, and the entry before it may be that one's
// header line without its dump yet.
std::vector<Entry> parseEntries(const std::string& text) {
  size_t end = 0;
  std::vector<Entry> entries = OlmTest::parseMsgFilterLog(text, &end);
  if (end != text.size() && !entries.empty()) entries.pop_back();
  EXPECT_LT(text.size() - end, 200u) << "not an entry at " << end << ": " << text.substr(end, 200);
  return entries;
}

std::string readLog(const std::string& path) {
  const std::string contents = OlmTest::fileContents(path);
  return contents.substr(0, contents.find('\0'));
}

off_t fileSize(const std::string& path) {
  struct stat status {};
  return stat(path.c_str(), &status) == 0 ? status.st_size : -1;
}

std::unique_ptr<NodeProcess> startPingNode(unsigned nid, unsigned peer, const std::vector<std::string>& filterOptions) {
  std::vector<std::string> args{"--nid", hex(nid), "--wait", "1000", "--load-local", OlmTest::pingEuPath()};
  args.insert(args.end(), filterOptions.begin(), filterOptions.end());
  return std::make_unique<NodeProcess>(args, std::vector<std::string>{"OLM_PING_PEER=" + hex(peer), "OLM_PING_PERIOD_MS=50"});
}

bool cannotMount(const NodeProcess& node) {
  return node.output().find("fuse_mount failed") != std::string::npos ||
         node.output().find("AaStartupEeStartup failure") != std::string::npos;
}

// Node A logs only pings (0x0A01), with dumps; node B logs every message, headers only.
TEST(NodeMsgFilterLog, OneIdSwitchedOnShowsExactlyThoseMessagesAndTheirBytes) {
  if (access("/dev/fuse", R_OK | W_OK) != 0) GTEST_SKIP() << "/dev/fuse is not usable: " << std::strerror(errno);
  const unsigned a = OlmTest::nextTestNid(), b = OlmTest::nextTestNid();
  auto nodeA = startPingNode(a, b, {"--msg-fil-enabled", "1", "--msg-fil-ids", "0x0A01"});
  auto nodeB = startPingNode(b, a, {"--msg-fil-enabled", "2", "--msg-fil-size", "0x300000"});
  // A has had answers to three pings and has answered three of B's (in either order).
  const bool exchanged = nodeA->waitForOutput("pong #3 ") &&
                         (nodeA->countOutput("ping #3 ") == 1 || nodeA->waitForOutput("ping #3 "));
  if (!exchanged && (cannotMount(*nodeA) || cannotMount(*nodeB))) GTEST_SKIP() << "the nodes cannot mount here";
  ASSERT_TRUE(exchanged) << nodeA->output() << nodeB->output();

  const std::string pathA = nodeA->ramFileMount(a) + "/" + fileName(a);
  EXPECT_EQ(fileSize(pathA), 0x200000);
  const std::vector<Entry> entriesA = parseEntries(readLog(pathA));
  std::vector<unsigned> sentSequences;
  std::set<std::string> operations;
  for (const Entry& e : entriesA) {
    EXPECT_EQ(e.id, "0a01") << e.operation;
    operations.insert(e.operation);
    EXPECT_EQ(e.dumped, e.operation == "Send" || e.operation == "Input") << e.operation;
    if (!e.dumped) continue;
    // The dump repeats the header: id, control, receiver, sender, flags, total length.
    EXPECT_EQ(e.dumpHeader.substr(0, 4) + e.dumpHeader.substr(8, 16), e.id + e.target + e.sender);
    EXPECT_EQ(std::stoul(e.dumpHeader.substr(28, 4), nullptr, 16), 16 + kPingPayloadSize);
    EXPECT_EQ(e.payloadSize, kPingPayloadSize);
    ASSERT_EQ(e.payloadHex.size(), 2 * kPingPayloadSize);
    if (e.operation == "Send") {
      EXPECT_EQ(e.target + e.sender, sicad(b) + sicad(a));
      sentSequences.push_back(static_cast<unsigned>(std::stoul(e.payloadHex.substr(0, 2), nullptr, 16)));
    } else {
      EXPECT_EQ(e.target + e.sender, sicad(a) + sicad(b));
    }
  }
  // The sequence number's low byte leads the little-endian payload.
  ASSERT_GE(sentSequences.size(), 3u);
  for (unsigned i = 0; i < sentSequences.size(); ++i) EXPECT_EQ(sentSequences[i], i + 1);
  for (const char* operation : {"Send", "Output", "Input", "Prioritize", "Process", "Destroy"}) {
    EXPECT_EQ(operations.count(operation), 1u) << operation;
  }

  const std::string pathB = nodeB->ramFileMount(b) + "/" + fileName(b);
  EXPECT_EQ(fileSize(pathB), 0x300000);
  std::set<std::string> idsB;
  for (const Entry& e : parseEntries(readLog(pathB))) {
    EXPECT_FALSE(e.dumped);
    idsB.insert(e.id);
  }
  for (const char* id : {"0a00", "0a01", "0a02"}) EXPECT_EQ(idsB.count(id), 1u) << id;
}

}  // namespace
