// The file-transfer forwarder of a real node: a get request sent to the node is rewritten to the
// node's RAM file mount and goes on to the node of the master node id tag, or to the group's node
// ending in D once that tag is deleted. The tool and the receiving node are a child process of the
// test serving a node id of its own on the host platform.
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <string>

#include "AaSysComMsgHeader.h"
#include "NodeProcess.h"
#include "Rhyddal.h"
#include "TestNamespace.h"

namespace {

using OlmTest::hex;
using OlmTest::NodeProcess;

constexpr uint16_t kForwarderCpid = 0x0614;
constexpr uint16_t kToolCpid = 0x0777;
constexpr uint16_t kGetReqMsgId = 0x0A82;
constexpr uint32_t kPathSize = 240;
constexpr uint32_t kNoCpu = 0xFFFFFFFFu;
constexpr int kWaitSeconds = 15;
constexpr const char kReadyLine[] = "file transfer test EU: master node id tag ";

uint32_t sicad(uint16_t nid, uint16_t cpid) { return (uint32_t{nid} << 16) | cpid; }

// What arrived at the tool's node.
struct Forwarded {
  uint32_t receiver;
  uint32_t sender;
  char path[kPathSize + 1];
};

void* getRequest(uint16_t node, uint16_t toolNid, const char* path) {
  auto* header = static_cast<SAaSysComMsgHeader*>(vakem_alloc(sizeof(SAaSysComMsgHeader) + kPathSize));
  if (header == nullptr) return nullptr;
  std::memset(header, 0, sizeof(*header) + kPathSize);
  header->msgId = kGetReqMsgId;
  header->receiver = sicad(node, kForwarderCpid);
  header->sender = sicad(toolNid, kToolCpid);
  header->flags = AASYSCOM_APF_HOST_WORDS << AASYSCOM_APF_SHIFT;
  header->totalLength = sizeof(*header) + kPathSize;
  std::strncpy(reinterpret_cast<char*>(header + 1), path, kPathSize - 1);
  return header;
}

// The child: serves toolNid, sends the request to the node's forwarder and reports the first get
// request that reaches toolNid (system log lines may come before it).
[[noreturn]] void runTool(uint16_t toolNid, uint16_t node, const char* path, int report) {
  uint32_t handle = 0;
  if (vak_em_server_init(toolNid, kNoCpu, 0, &handle) != 0) _exit(1);
  void* request = getRequest(node, toolNid, path);
  if (request == nullptr || vakem_send(request, sicad(node, kForwarderCpid)) != 0) _exit(2);
  for (int second = 0; second < kWaitSeconds; vakem_wait_for_event(1, 0), ++second) {
    while (void* msg = vakem_receive(toolNid)) {
      const auto* header = static_cast<const SAaSysComMsgHeader*>(msg);
      if (header->msgId == kGetReqMsgId) {
        Forwarded forwarded{header->receiver, header->sender, {}};
        std::memcpy(forwarded.path, header + 1, std::min<uint32_t>(header->totalLength - sizeof(*header), kPathSize));
        _exit(write(report, &forwarded, sizeof(forwarded)) == sizeof(forwarded) ? 0 : 3);
      }
      vakem_free(msg);
    }
  }
  _exit(4);
}

// Sends a get request for path from a tool serving toolNid to the forwarder of node; false when
// nothing came back to toolNid in time.
bool requestThroughForwarder(uint16_t toolNid, uint16_t node, const char* path, Forwarded& forwarded) {
  int report[2];
  if (pipe(report) != 0) return false;
  const pid_t child = fork();
  if (child == 0) runTool(toolNid, node, path, report[1]);
  close(report[1]);
  pollfd readable{report[0], POLLIN, 0};
  const bool came = child > 0 && poll(&readable, 1, (kWaitSeconds + 5) * 1000) == 1 &&
                    read(report[0], &forwarded, sizeof(forwarded)) == static_cast<ssize_t>(sizeof(forwarded));
  close(report[0]);
  int status = 0;
  if (child > 0) waitpid(child, &status, 0);
  return came && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

// A node id whose group's D node is neither itself nor any of the others.
uint16_t nodeOutsideGroupsOf(uint16_t other) {
  for (;;) {
    const uint16_t nid = OlmTest::nextTestNid();
    if ((nid & 0xF) != 0xD && ((nid & 0xFFF0) | 0xD) != other) return nid;
  }
}

std::string expectedPath(const NodeProcess& node, uint16_t nid) {
  char path[kPathSize];
  std::snprintf(path, sizeof(path), "%s/olm_lite/0x%x/fusemnt/trace.bin", node.workingArea().c_str(), nid);
  return path;
}

TEST(NodeFileTransfer, AGetRequestGoesToTheMasterNodeWithItsPathInTheNodesMount) {
  const uint16_t master = OlmTest::nextTestNid();
  const uint16_t nid = nodeOutsideGroupsOf(master);
  NodeProcess node({"--nid", hex(nid), "--masternid", hex(master), "--wait", "1000", "--load-local",
                    OlmTest::libraryPath("FileTransferTestEu")});
  ASSERT_TRUE(node.waitForOutput(std::string(kReadyLine) + "set")) << node.output();

  Forwarded forwarded{};
  ASSERT_TRUE(requestThroughForwarder(master, nid, "/tmp/a/b/trace.bin", forwarded)) << node.output();
  EXPECT_EQ(forwarded.receiver, sicad(master, kForwarderCpid));
  EXPECT_EQ(forwarded.sender, sicad(master, kToolCpid));
  EXPECT_EQ(forwarded.path, expectedPath(node, nid));
}

TEST(NodeFileTransfer, WithTheMasterTagDeletedAGetRequestGoesToTheGroupsDNode) {
  const uint16_t master = OlmTest::nextTestNid();
  const uint16_t nid = nodeOutsideGroupsOf(master);
  const uint16_t dNode = static_cast<uint16_t>((nid & 0xFFF0) | 0xD);
  NodeProcess node({"--nid", hex(nid), "--masternid", hex(master), "--wait", "1000", "--load-local",
                    OlmTest::libraryPath("FileTransferTestEu")},
                   {"OLM_TEST_DELETE_MASTER_TAG=1"});
  ASSERT_TRUE(node.waitForOutput(std::string(kReadyLine) + "unset")) << node.output();

  Forwarded forwarded{};
  ASSERT_TRUE(requestThroughForwarder(dNode, nid, "trace.bin", forwarded)) << node.output();
  EXPECT_EQ(forwarded.receiver, sicad(dNode, kForwarderCpid));
  EXPECT_EQ(forwarded.path, expectedPath(node, nid));
}

}  // namespace
