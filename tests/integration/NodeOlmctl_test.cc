// olmctl, run as the operator runs it, against real nodes: a master node with the broker server
// and the R&D master, and a node with the example NewsEu, whose R&D domain 50 ("NEWS") has an
// observer that prints every change. Every invocation takes a node id of its own: under user-mode
// emulation a node id that a process has served stays taken.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "NodeProcess.h"
#include "OlmctlTestUtil.h"
#include "TestNamespace.h"

namespace {

using OlmTest::hex;
using OlmTest::NodeProcess;
using OlmTest::ProgramRun;
using Args = std::vector<std::string>;

using OlmTest::expectFailureLine;
using OlmTest::expectUsageError;
constexpr int kOk = OlmTest::kOlmctlOk;

class NodeOlmctl : public ::testing::Test {
 protected:
  void SetUp() override {
    m_master = std::make_unique<NodeProcess>(Args{"--nid", hex(m_masterNid), "--masternid", hex(m_masterNid), "--wait",
                                                  "1000", "--load-local", OLM_TEST_BROKER_SERVER, "--load-local",
                                                  OLM_TEST_RAD_MASTER});
    ASSERT_TRUE(m_master->waitForOutput("R&D master: serving on node")) << m_master->output();
    m_node = std::make_unique<NodeProcess>(
        Args{"--nid", hex(m_nid), "--masternid", hex(m_masterNid), "--wait", "1000", "--load-local", OLM_TEST_NEWS_EU});
    ASSERT_TRUE(m_master->waitForOutput("R&D master: node " + hex(m_nid) + " registered domain 50 with 2 parameters"))
        << m_master->output() << m_node->output();
  }

  // olmctl with a fresh node id of its own and this system's master.
  ProgramRun olmctl(const Args& args) {
    Args command{OLM_TEST_OLMCTL, "--nid", hex(OlmTest::nextTestNid()), "--master", hex(m_masterNid)};
    command.insert(command.end(), args.begin(), args.end());
    return OlmTest::runProgram(command);
  }


  const uint16_t m_masterNid = OlmTest::nextTestNid();
  const uint16_t m_nid = OlmTest::nextTestNid();
  std::unique_ptr<NodeProcess> m_master;
  std::unique_ptr<NodeProcess> m_node;
};

TEST_F(NodeOlmctl, ASetReachesTheNodesObserverAndReadsBack) {
  const std::string node = hex(m_nid);
  const ProgramRun set = olmctl({"rad", "set", node, "50:0", "500"});
  EXPECT_EQ(set.status, kOk) << set.err;
  EXPECT_EQ(set.out, "domain 50 of node " + node + ", parameter 0x0000, set to 0x000001f4 (500)\n");
  EXPECT_TRUE(m_node->waitForOutput("node " + node + ": NewsPeriodMs set to 500, news published every 500 ms\n"))
      << m_node->output();

  const ProgramRun one = olmctl({"--json", "rad", "get", std::to_string(m_nid), "0x32:0"});
  EXPECT_EQ(one.status, kOk) << one.err;
  EXPECT_EQ(one.out, "{\"node\":" + std::to_string(m_nid) +
                         ",\"domain\":50,\"parameters\":[{\"index\":0,\"value\":500,\"default\":2000}]}\n");

  const ProgramRun all = olmctl({"rad", "get", node, "50"});
  EXPECT_EQ(all.status, kOk) << all.err;
  EXPECT_EQ(all.out,
            "INDEX   VALUE                    DEFAULT\n"
            "0x0000  0x000001f4 (500)         0x000007d0 (2000)\n"
            "0x0001  0x00000001 (1)           0x00000001 (1)\n");

  // Domain 1 by name, both ways.
  const ProgramRun off = olmctl({"rad", "set", node, "AaSysLogOutputMode", "0"});
  EXPECT_EQ(off.status, kOk) << off.err;
  const ProgramRun named = olmctl({"rad", "get", node, "1:AaSysLogOutputMode"});
  EXPECT_EQ(named.status, kOk) << named.err;
  EXPECT_EQ(named.out,
            "INDEX   VALUE                    DEFAULT                  NAME\n"
            "0x0041  0x00000000 (0)           0xffffffff (4294967295)  AaSysLogOutputMode\n");
}

TEST_F(NodeOlmctl, FailuresAreOneLineAndMisuseIsExitStatusTwo) {
  const std::string node = hex(m_nid);
  const uint16_t absent = OlmTest::nextTestNid();
  expectFailureLine(olmctl({"rad", "get", hex(absent), "50"}),
                    "node " + hex(absent) + " is not known to the R&D master");
  expectFailureLine(olmctl({"rad", "get", node, "7"}), "node " + node + " has no R&D domain 7");
  expectFailureLine(olmctl({"rad", "set", node, "50:9", "1"}),
                    "refused the set: domain 50 of node " + node + " has no parameter 0x0009");
  // No node at the master's id, and a node that runs no R&D master.
  expectFailureLine(olmctl({"--master", hex(absent), "rad", "get", node, "50"}),
                    "node " + hex(absent) + " is not running");
  expectFailureLine(olmctl({"--master", node, "--timeout", "200", "rad", "set", node, "50:0", "1"}),
                    "no answer from the R&D master on node " + node + " within 200 ms");
  const ProgramRun unchanged = olmctl({"--json", "rad", "get", node, "50:0"});
  EXPECT_NE(unchanged.out.find("\"value\":2000,"), std::string::npos) << "nothing was set: " << unchanged.out;

  for (const Args& malformed :
       {Args{"rad", "get", node}, Args{"rad", "set", node, "50", "1"}, Args{"rad", "set", node, "50:0", "0x100000000"},
        Args{"rad", "get", "0x10000", "50"}, Args{"rad", "get", node, "50:NoSuchName"},
        Args{"--timeout", "0", "rad", "get", node, "50"}, Args{"rad", "frob"}, Args{"frob"}, Args{}}) {
    SCOPED_TRACE(malformed.empty() ? "" : malformed[0]);
    expectUsageError(olmctl(malformed));
  }
  const ProgramRun help = olmctl({"rad", "--help"});
  EXPECT_EQ(help.status, kOk);
  EXPECT_NE(help.out.find("olmctl rad set NID DOMAIN:INDEX VALUE"), std::string::npos) << help.out;
}

}  // namespace
