// The message filter log of real nodes exchanging PingEu's pings and pongs, read as a developer
// reads it: "<nid>_MsgFilterLog.log" in the node's RAM file mount while the node runs.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "FileTestUtil.h"
#include "NodeProcess.h"
#include "TestNamespace.h"

namespace {

using OlmTest::hex;
using OlmTest::NodeProcess;

std::string format(const char* pattern, unsigned value) {
  char text[64];
  std::snprintf(text, sizeof(text), pattern, value);
  return text;
}

// PingEu's EU address on a node.
std::string sicad(unsigned nid) { return format("%08x", nid << 16 | 0x0700); }

std::string readLog(const NodeProcess& node, unsigned nid, off_t* size) {
  const std::string path = node.ramFileMount(nid) + "/" + format("%x_MsgFilterLog.log", nid);
  struct stat status {};
  *size = stat(path.c_str(), &status) == 0 ? status.st_size : -1;
  const std::string contents = OlmTest::fileContents(path);
  return contents.substr(0, contents.find('\0'));
}

size_t count(const std::string& text, const std::string& part) {
  size_t found = 0;
  for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++found;
  return found;
}

std::unique_ptr<NodeProcess> startPingNode(unsigned nid, unsigned peer, const std::vector<std::string>& filterOptions) {
  std::vector<std::string> args{"--nid", hex(nid), "--wait", "1000", "--load-local", OlmTest::pingEuPath()};
  args.insert(args.end(), filterOptions.begin(), filterOptions.end());
  return std::make_unique<NodeProcess>(args,
                                       std::vector<std::string>{"OLM_PING_PEER=" + hex(peer), "OLM_PING_PERIOD_MS=50"});
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
  if (!exchanged && (nodeA->output() + nodeB->output()).find("AaStartupEeStartup failure") != std::string::npos) {
    GTEST_SKIP() << "the nodes cannot mount their RAM files here";
  }
  ASSERT_TRUE(exchanged) << nodeA->output() << nodeB->output();

  off_t size = 0;
  const std::string logA = readLog(*nodeA, a, &size);
  EXPECT_EQ(size, 0x200000);
  EXPECT_EQ(count(logA, "{Id:"), count(logA, "{Id:0a01 ")) << logA;
  for (const char* operation : {"Send", "Output", "Input", "Prioritize", "Process", "Destroy"}) {
    EXPECT_NE(count(logA, std::string("[op:") + operation + "]"), 0u) << operation;
  }
  // Pings 1 to 3 that A sent, and those of B's that it answered (B may have sent its first before A
  // was up), byte for byte: the header words (id, control, receiver, sender, flags, total length
  // 28), then the sequence number leading the payload.
  for (unsigned sequence = 1; sequence <= 3; ++sequence) {
    const std::string payloadStart = "0004001c\n" + format("%02x000000", sequence);
    EXPECT_EQ(count(logA, "START:\n0a010000" + sicad(b) + sicad(a) + payloadStart), 1u) << sequence << logA;
    EXPECT_EQ(count(logA, "START:\n0a010000" + sicad(a) + sicad(b) + payloadStart),
              nodeA->countOutput(format("ping #%u ", sequence)))
        << sequence << logA;
  }
  // Only Send and Input are dumped.
  for (size_t at = logA.find("START:"); at != std::string::npos; at = logA.find("START:", at + 1)) {
    const size_t entry = logA.rfind("\n[op:", at);
    const std::string operation = logA.substr(entry, logA.find(']', entry) + 1 - entry);
    EXPECT_TRUE(operation == "\n[op:Send]" || operation == "\n[op:Input]") << operation;
  }

  const std::string logB = readLog(*nodeB, b, &size);
  EXPECT_EQ(size, 0x300000);
  EXPECT_EQ(count(logB, "START:"), 0u);
  for (const char* id : {"{Id:0a00 ", "{Id:0a01 ", "{Id:0a02 "}) EXPECT_NE(count(logB, id), 0u) << id;
}

}  // namespace
