// The file-transfer forwarder of a real node: a get request sent to the node is rewritten to the
// node's RAM file mount and goes on to the node of the master node id tag, or to the group's node
// ending in D once that tag is deleted. The tool and the receiving node are a child process of the
// test serving a node id of its own on the host platform (WireNode).
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "NodeProcess.h"
#include "TestNamespace.h"
#include "WireNode.h"

namespace {

using OlmTest::hex;
using OlmTest::NodeProcess;

constexpr uint16_t kForwarderCpid = 0x0614;
constexpr uint16_t kToolCpid = 0x0777;
constexpr uint16_t kGetReqMsgId = 0x0A82;
constexpr uint32_t kPathSize = 240;
constexpr const char kReadyLine[] = "file transfer test EU: master node id tag ";

uint32_t sicad(uint16_t nid, uint16_t cpid) { return (uint32_t{nid} << 16) | cpid; }

// A tool serving toolNid sends a get request for path to the forwarder of node; the request must
// come back to toolNid's forwarder CPID, from the tool, with the path expected. Exit status 0 when
// it did.
int requestThroughForwarder(uint16_t toolNid, uint16_t node, const char* path, const std::string& expected) {
  return OlmTest::exitStatusOfChild([=] {
    OlmTest::WireNode tool(toolNid);
    char field[kPathSize] = {};
    std::strncpy(field, path, sizeof(field) - 1);
    if (!tool.ok() || !tool.send(kGetReqMsgId, sicad(node, kForwarderCpid), sicad(toolNid, kToolCpid), field,
                                 sizeof(field))) {
      return 1;
    }
    OlmTest::WireNode::Message forwarded;
    if (!tool.receive(kGetReqMsgId, forwarded)) return 2;
    const std::string got(reinterpret_cast<const char*>(forwarded.payload.data()),
                          strnlen(reinterpret_cast<const char*>(forwarded.payload.data()), forwarded.payload.size()));
    if (forwarded.receiver != sicad(toolNid, kForwarderCpid) || forwarded.sender != sicad(toolNid, kToolCpid) ||
        got != expected) {
      std::fprintf(stderr, "forwarded to 0x%08x from 0x%08x: %s\n", forwarded.receiver, forwarded.sender, got.c_str());
      return 3;
    }
    return 0;
  });
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

  EXPECT_EQ(requestThroughForwarder(master, nid, "/tmp/a/b/trace.bin", expectedPath(node, nid)), 0) << node.output();
}

TEST(NodeFileTransfer, WithTheMasterTagDeletedAGetRequestGoesToTheGroupsDNode) {
  const uint16_t master = OlmTest::nextTestNid();
  const uint16_t nid = nodeOutsideGroupsOf(master);
  const uint16_t dNode = static_cast<uint16_t>((nid & 0xFFF0) | 0xD);
  NodeProcess node({"--nid", hex(nid), "--masternid", hex(master), "--wait", "1000", "--load-local",
                    OlmTest::libraryPath("FileTransferTestEu")},
                   {"OLM_TEST_DELETE_MASTER_TAG=1"});
  ASSERT_TRUE(node.waitForOutput(std::string(kReadyLine) + "unset")) << node.output();

  EXPECT_EQ(requestThroughForwarder(dNode, nid, "trace.bin", expectedPath(node, nid)), 0) << node.output();
}

}  // namespace
