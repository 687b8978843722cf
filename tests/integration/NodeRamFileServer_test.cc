// The RAM file server in real nodes: loaded by a node of its own, it serves files under its root
// to a tool in chunks as large as a message carries; loaded by the controller (olm-controller), it
// serves olmctl stats and history of a node as olmctl reads the nodes of another host. On one host
// every node is this host's, so the tool is told to take the way through the server for all
// (OLMCTL_TEST_RAM_FILES_THROUGH_SERVER); the controller reaches the server through the alias of the
// node's group it takes anyway. A stand-in server whose file keeps changing, and then answers
// nonsense, shows the tool starting again from the file's start and giving up.
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "NodeProcess.h"
#include "OlmctlTestUtil.h"
#include "RamFileRead.h"
#include "TestHost.h"
#include "TestNamespace.h"
#include "WireNode.h"

namespace {

using OlmTest::hex;
using OlmTest::NodeProcess;
using OlmTest::ProgramRun;
using OlmTest::WireNode;
using Args = std::vector<std::string>;
using Bytes = std::vector<uint8_t>;

// Fixed node ids, so that the groups are known: each test runs in a platform namespace of its own.
constexpr uint16_t kController = 0x30F0;
constexpr uint16_t kNode = 0x3011;
constexpr uint16_t kServerOfNode = 0x301D;
constexpr uint16_t kAbsentNodeOfServedGroup = 0x3013;
constexpr uint16_t kNodeOfEmptyGroup = 0x3051;
constexpr uint16_t kNodeOfSilentGroup = 0x3061;
constexpr uint16_t kSilentServer = 0x306D;
constexpr uint16_t kNodeOfChangingGroup = 0x3071;
constexpr uint16_t kChangingServer = 0x307D;
constexpr int kPassesOfAChangingFile = 5;  // the tool's limit
constexpr uint16_t kTool = 0x3FF0;
constexpr uint16_t kToolCpid = 0x0700;
constexpr uint32_t kLargeFileSize = 150000;  // three chunks, the last a short one
constexpr char kShortTimeout[] = "300";
constexpr auto kReadiness = std::chrono::seconds(10);

uint32_t sicad(uint16_t nid, uint16_t cpid) { return (uint32_t{nid} << 16) | cpid; }

Bytes countingBytes(size_t size) {
  Bytes bytes(size);
  for (size_t i = 0; i < size; ++i) bytes[i] = static_cast<uint8_t>(i * 31 + i / 509);
  return bytes;
}

std::string fileUnder(const std::string& root, uint16_t nid, const std::string& name) {
  return root + "/olm_lite/" + hex(nid) + "/fusemnt/" + name;
}

bool writeFile(const std::string& path, const Bytes& bytes) {
  if (std::system(("mkdir -p '" + path.substr(0, path.rfind('/')) + "'").c_str()) != 0) return false;
  std::ofstream(path, std::ios::binary).write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
  struct stat status {};
  return stat(path.c_str(), &status) == 0 && static_cast<size_t>(status.st_size) == bytes.size();
}

// A tool that asks the server of kServerOfNode's group.
class ServerClient {
 public:
  ServerClient() : m_node(kTool) {}
  bool ok() const { return m_node.ok(); }

  // The reply's words (status, node id, size, offset, length) and its bytes; no words when none came.
  std::vector<uint32_t> read(uint32_t nid, uint32_t offset, uint32_t largest, const std::string& name, Bytes& bytes) {
    if (!ask(nid, offset, largest, name)) return {};
    return nextReply(bytes);
  }
  bool ask(uint32_t nid, uint32_t offset, uint32_t largest, const std::string& name) {
    Bytes request(RAMFILE_READ_REQ_HEADER_SIZE);
    const uint32_t words[] = {nid, offset, largest};
    std::memcpy(request.data(), words, sizeof(words));
    request.insert(request.end(), name.begin(), name.end());
    request.push_back('\0');
    return m_node.send(RAMFILE_READ_REQ_MSG, sicad(kServerOfNode, RAMFILE_SERVER_CPID), sicad(kTool, kToolCpid),
                       request.data(), static_cast<uint32_t>(request.size()));
  }
  std::vector<uint32_t> nextReply(Bytes& bytes) {
    WireNode::Message reply;
    if (!m_node.receive(RAMFILE_READ_REPLY_MSG, reply)) return {};
    EXPECT_EQ(reply.sender, sicad(kServerOfNode, RAMFILE_SERVER_CPID)) << "from the address asked";
    bytes.assign(reply.payload.begin() + RAMFILE_READ_REPLY_HEADER_SIZE, reply.payload.end());
    std::vector<uint32_t> header = reply.words();
    header.resize(RAMFILE_READ_REPLY_HEADER_SIZE / 4);
    return header;
  }

 private:
  WireNode m_node;
};

TEST(NodeRamFileServer, ServesTheFilesUnderItsRootInChunks) {
  NodeProcess server({"--nid", hex(kServerOfNode), "--wait", "1000", "--load-local", OLM_TEST_RAM_FILE_SERVER});
  ASSERT_TRUE(server.waitForOutput("RAM file server: serving the RAM files under " + server.workingArea() + " on node " +
                                   hex(kServerOfNode)))
      << server.output();
  const Bytes large = countingBytes(kLargeFileSize);
  ASSERT_TRUE(writeFile(fileUnder(server.workingArea(), kNode, "trace.bin"), large));
  ServerClient tool;
  ASSERT_TRUE(tool.ok());

  Bytes whole, chunk;
  for (uint32_t offset = 0; offset < kLargeFileSize; offset += static_cast<uint32_t>(chunk.size())) {
    const std::vector<uint32_t> header = tool.read(kNode, offset, UINT32_MAX, "trace.bin", chunk);
    ASSERT_EQ(header.size(), 5u) << "no reply: " << server.output();
    const uint32_t expected = std::min(RAMFILE_READ_MAX_CHUNK, kLargeFileSize - offset);
    ASSERT_EQ(header, (std::vector<uint32_t>{0, kNode, kLargeFileSize, offset, expected}));
    whole.insert(whole.end(), chunk.begin(), chunk.end());
  }
  EXPECT_TRUE(whole == large) << "the chunks make up the file";

  EXPECT_EQ(tool.read(kNode, 0, 100, "absent.bin", chunk), (std::vector<uint32_t>{ENOENT, kNode, 0, 0, 0}));
  EXPECT_EQ(tool.read(kNode, 0, 100, "../" + hex(kNode) + "/trace.bin", chunk),
            (std::vector<uint32_t>{EINVAL, kNode, 0, 0, 0}));
  EXPECT_TRUE(server.running()) << server.output();
}

// A stopped node (a debugger holds it, or SIGSTOP) answers no read of its RAM files until it goes
// on: the server answers the requests for other files meanwhile, and the waiting one afterwards.
TEST(NodeRamFileServer, AStoppedNodeHoldsUpOnlyTheReadsOfItsOwnFiles) {
  if (access("/dev/fuse", R_OK | W_OK) != 0) GTEST_SKIP() << "/dev/fuse is not usable: nodes cannot mount RAM files";
  NodeProcess server({"--nid", hex(kServerOfNode), "--wait", "1000", "--load-local", OLM_TEST_RAM_FILE_SERVER});
  ASSERT_TRUE(server.waitForOutput("RAM file server: serving the RAM files under ")) << server.output();
  NodeProcess node({"--nid", hex(kNode), "--wait", "1000", "--load-local", OlmTest::libraryPath("RamFileTestEu")},
                   {"OLM_RAM_ROOT=" + server.workingArea()});
  if (!node.waitForOutput("RamFileTestEu ready")) {
    if (node.output().find("fuse_mount failed") != std::string::npos) GTEST_SKIP() << "no RAM file mount here";
    FAIL() << node.output();
  }
  const Bytes other = countingBytes(1000);
  ASSERT_TRUE(writeFile(fileUnder(server.workingArea(), kAbsentNodeOfServedGroup, "trace.bin"), other));
  ServerClient tool;
  ASSERT_TRUE(tool.ok());
  Bytes bytes;
  ASSERT_EQ(tool.read(kNode, 0, 100, "olmliteStatsRaw.bin", bytes).size(), 5u) << server.output();

  node.kill(SIGSTOP);
  ASSERT_TRUE(tool.ask(kNode, 0, 100, "olmliteStatsRaw.bin"));
  EXPECT_EQ(tool.read(kAbsentNodeOfServedGroup, 0, 2000, "trace.bin", bytes),
            (std::vector<uint32_t>{0, kAbsentNodeOfServedGroup, 1000, 0, 1000}))
      << "the first reply is the other file's";
  EXPECT_TRUE(bytes == other);
  node.kill(SIGCONT);
  const std::vector<uint32_t> late = tool.nextReply(bytes);
  ASSERT_EQ(late.size(), 5u) << "no reply once the node went on: " << server.output();
  EXPECT_EQ(late[0], 0u);
  EXPECT_EQ(late[1], kNode);
  EXPECT_TRUE(server.running()) << server.output();
}

// A server of kChangingServer's group whose file has another size at every reply, then a reply
// that announces more bytes than it holds. 0 when the tool asked as it should: each pass from
// offset 0 on, the second chunk from where the first ended.
int serveAChangingFile(OlmTest::Signal& ready) {
  WireNode server(kChangingServer);
  ready.send(server.ok() ? 1 : 2);
  uint32_t size = 100000;
  for (int request = 0; request <= 2 * kPassesOfAChangingFile; ++request) {
    WireNode::Message asked;
    if (!server.receive(RAMFILE_READ_REQ_MSG, asked) || asked.words().size() < 3) return 1;
    const uint32_t offset = asked.words()[1];
    const uint32_t expectedOffset = request % 2 == 0 ? 0 : RAMFILE_READ_MAX_CHUNK;
    if (request < 2 * kPassesOfAChangingFile && offset != expectedOffset) return 2;
    const uint32_t length = std::min(RAMFILE_READ_MAX_CHUNK, size - offset);
    const bool last = request == 2 * kPassesOfAChangingFile;
    Bytes reply(RAMFILE_READ_REPLY_HEADER_SIZE + (last ? 0 : length));
    const uint32_t words[] = {0, kNodeOfChangingGroup, size++, offset, length};
    std::memcpy(reply.data(), words, sizeof(words));
    if (!server.send(RAMFILE_READ_REPLY_MSG, asked.sender, sicad(kChangingServer, RAMFILE_SERVER_CPID), reply.data(),
                     static_cast<uint32_t>(reply.size()))) {
      return 3;
    }
  }
  return 0;
}

class NodeRamFileServerOlmctl : public ::testing::Test {
 protected:
  void SetUp() override {
    char root[] = "/tmp/olm-ram-XXXXXX";
    ASSERT_NE(mkdtemp(root), nullptr);
    m_ramRoot = root;
    m_controller = std::make_unique<NodeProcess>(NodeProcess::Program{{OLM_TEST_CONTROLLER, "--nid", hex(kController)}},
                                                 Args{"OLM_RAM_ROOT=" + m_ramRoot});
    m_node = std::make_unique<NodeProcess>(
        Args{"--nid", hex(kNode), "--masternid", hex(kController), "--wait", "1000", "--load-local",
             OlmTest::libraryPath("StatsProbeEu")},
        Args{"OLM_RAM_ROOT=" + m_ramRoot, "OLM_PROBE_PERIOD_MS=20", "OLM_PROBE_QUIET=1"});
    ASSERT_TRUE(m_node->waitForOutput("StatsProbeEu ready")) << m_node->output();
    ASSERT_TRUE(m_controller->waitUntilPrinted("log collector: collecting the lines of group 0x3010, sent to node " +
                                               hex(kServerOfNode)))
        << m_controller->output();
    ASSERT_TRUE(m_controller->waitUntilPrinted("RAM file server: serving the RAM files under " + m_ramRoot))
        << m_controller->output();
  }

  void TearDown() override {
    m_node.reset();
    m_controller.reset();
    OlmTest::removeDirectoryWithMounts(m_ramRoot);
  }

  // olmctl with a fresh node id of its own, a RAM root where no node keeps its files, and every
  // node's RAM files read through the servers.
  ProgramRun olmctl(const Args& args) const {
    Args command{"/usr/bin/env", "OLMCTL_TEST_RAM_FILES_THROUGH_SERVER=1"};
    // The emulated tool cannot start the target's converter itself: it is given a wrapper.
    const std::string converter = OLM_TEST_HISTORY_PROGRAM;
    if (!converter.empty()) command.push_back("OLM_HISTORY_TOOL=" + converter);
    command.insert(command.end(), {OLM_TEST_OLMCTL, "--nid", hex(OlmTest::nextTestNid()), "--ram-root", "/nonexistent"});
    command.insert(command.end(), args.begin(), args.end());
    return OlmTest::runProgram(command);
  }

  // The node publishes its RAM files; the reason why not otherwise.
  std::string ramFilesMissing() const {
    if (access("/dev/fuse", R_OK | W_OK) != 0) return "/dev/fuse is not usable here";
    const std::string stats = fileUnder(m_ramRoot, kNode, "olmliteStatsRaw.bin");
    const auto deadline = std::chrono::steady_clock::now() + kReadiness;
    struct stat status {};
    while (stat(stats.c_str(), &status) != 0) {
      if (std::chrono::steady_clock::now() > deadline) return "the node cannot mount its RAM files here: " + m_node->output();
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return "";
  }

  std::string m_ramRoot;
  std::unique_ptr<NodeProcess> m_controller;
  std::unique_ptr<NodeProcess> m_node;
};

TEST_F(NodeRamFileServerOlmctl, StatsAndHistoryOfANodeComeThroughTheServerOfItsGroup) {
  const std::string missing = ramFilesMissing();
  if (!missing.empty()) GTEST_SKIP() << missing;
  // The idle meter's figures stand at the record's end.
  const ProgramRun stats = olmctl({"--json", "stats", hex(kNode), "-i", "200"});
  ASSERT_EQ(stats.status, OlmTest::kOlmctlOk) << stats.err;
  EXPECT_NE(stats.out.find(",\"intervalMs\":200,\"interval\":{\"idlePercent\":"), std::string::npos) << stats.out;
  EXPECT_NE(stats.out.find(",\"idleMeter\":{\"periodMs\":10,\"busyPercent\":"), std::string::npos) << stats.out;

  // The history log is 2 MiB: tens of chunks.
  const ProgramRun history = olmctl({"history", hex(kNode)});
  ASSERT_EQ(history.status, OlmTest::kOlmctlOk) << history.err;
  EXPECT_EQ(history.out.rfind("*********** History Log *************\n", 0), 0u) << history.out.substr(0, 500);
  EXPECT_NE(history.out.find("*********** End history *************"), std::string::npos);
  char nodeWord[8];
  std::snprintf(nodeWord, sizeof(nodeWord), "%04X <", kNode);
  EXPECT_NE(history.out.find(nodeWord), std::string::npos) << "the node's own log lines: " << history.out.substr(0, 500);
}

TEST_F(NodeRamFileServerOlmctl, NodesWithoutAServerThatAnswersFailWithOneLine) {
  OlmTest::expectFailureLine(olmctl({"history", hex(kAbsentNodeOfServedGroup)}),
                             "the RAM file server at " + hex(kServerOfNode) + " has no 3013_HistoryLog.bin of node " +
                                 hex(kAbsentNodeOfServedGroup));
  OlmTest::expectFailureLine(olmctl({"history", hex(kNodeOfEmptyGroup)}),
                             "node " + hex(kNodeOfEmptyGroup) + " is not on this host, and nothing runs at 0x305d");
  // A node at the server's id that runs no server: the request is dropped unanswered.
  NodeProcess silent({"--nid", hex(kSilentServer), "--wait", "1000"});
  ASSERT_TRUE(OlmTest::waitUntilShownLive(kSilentServer));
  OlmTest::expectFailureLine(olmctl({"--timeout", kShortTimeout, "history", hex(kNodeOfSilentGroup)}),
                             "no RAM file server answered for node " + hex(kNodeOfSilentGroup) + " at " +
                                 hex(kSilentServer) + " within 300 ms: start olm-controller --agent on its host");
}

// A node stopped in a debugger answers no read of its files: once two reads wait for it, the server
// says so at once.
TEST_F(NodeRamFileServerOlmctl, AStoppedNodesFilesAreRefusedBusyOnceTwoReadsWaitForIt) {
  const std::string missing = ramFilesMissing();
  if (!missing.empty()) GTEST_SKIP() << missing;
  m_node->kill(SIGSTOP);
  for (int waiting = 0; waiting < 2; ++waiting) {
    const ProgramRun timedOut = olmctl({"--timeout", kShortTimeout, "history", hex(kNode)});
    EXPECT_EQ(timedOut.status, OlmTest::kOlmctlFailed) << timedOut.err;
  }
  OlmTest::expectFailureLine(olmctl({"--timeout", kShortTimeout, "history", hex(kNode)}),
                             "the RAM file server at " + hex(kServerOfNode) + " is still waiting for node " +
                                 hex(kNode) + " to answer earlier reads of its files: is it stopped?");
  m_node->kill(SIGCONT);
}

TEST_F(NodeRamFileServerOlmctl, AFileThatKeepsChangingIsReadAgainAFewTimesThenGivenUp) {
  OlmTest::Signal ready;
  const pid_t server = OlmTest::startChild([&ready] { return serveAChangingFile(ready); });
  ASSERT_EQ(ready.wait(), 1u);
  const std::string node = hex(kNodeOfChangingGroup);
  OlmTest::expectFailureLine(olmctl({"history", node}),
                             "3071_HistoryLog.bin of node " + node + " changed while it was read, 5 times");
  OlmTest::expectFailureLine(olmctl({"history", node}),
                             "the RAM file server at " + hex(kChangingServer) + " sent a malformed reply");
  EXPECT_EQ(OlmTest::exitStatusOf(server), 0) << "each pass starts from the file's start";
}

}  // namespace
