// The error handler as users meet it: real signals in real node processes, the exception report
// read from the system log. No syslog daemon is involved: each node runs in a private mount
// namespace whose /dev/log is a socket this test listens on (SystemLogCapture).
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "NodeProcess.h"
#include "SystemLogCapture.h"
#include "TestNamespace.h"

namespace {

using OlmTest::hex;
using OlmTest::NodeProcess;
using OlmTest::SystemLogCapture;

constexpr char kFatalBanner[] = "NEW -=-= Olm Error Handler exception report =-=-";
constexpr char kReportIdentity[] = "ERR";
constexpr int kRedirectFailed = 125;
// Emulated nodes start slowly.
constexpr std::chrono::seconds kNodeTimeout{60};

// The rest of the first line that starts with label ("" when there is none).
std::string valueOf(const std::vector<std::string>& lines, const std::string& label) {
  for (const std::string& line : lines) {
    if (line.compare(0, label.size(), label) == 0) return line.substr(label.size());
  }
  return "";
}

class NodeErrorHandling : public testing::Test {
 protected:
  void SetUp() override {
    char directory[] = "/tmp/olm-ram-XXXXXX";
    ASSERT_NE(mkdtemp(directory), nullptr);
    m_ramRoot = directory;
  }
  void TearDown() override {
    std::error_code ignored;
    std::filesystem::remove_all(m_ramRoot, ignored);
  }

  // A node with a private working area whose system log goes to capture.
  std::unique_ptr<NodeProcess> startNode(const std::vector<std::string>& args, SystemLogCapture& capture) {
    return std::make_unique<NodeProcess>(args, nodeEnvironment(), [&capture] {
      if (!capture.redirectThisProcess()) _exit(kRedirectFailed);
    });
  }

  std::vector<std::string> nodeEnvironment() const { return {"OLM_RAM_ROOT=" + m_ramRoot}; }

  static void skipWithoutCapture() {
    const std::string reason = SystemLogCapture::unavailableReason();
    if (!reason.empty()) GTEST_SKIP() << "the system log cannot be captured here: " << reason;
  }

  std::string m_ramRoot;
};

TEST_F(NodeErrorHandling, ANullDereferenceInAnEuIsReportedWithTheEuInTheCallTraceAndEndsTheNodeBySigsegv) {
  skipWithoutCapture();
  SystemLogCapture capture;
  const std::string nid = hex(OlmTest::nextTestNid());
  const std::string library = OlmTest::libraryPath("CrashTestEu");
  auto node = startNode({"--nid", nid, "--wait", "0", "--load-local", library}, capture);
  const int status = node->waitForExit(kNodeTimeout);
  const std::vector<std::string> lines = OlmTest::textsOf(capture.finish(), kReportIdentity);
  const std::string report = testing::PrintToString(lines) + "\n" + node->output();

  ASSERT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGSEGV) << status << report;
  ASSERT_FALSE(lines.empty()) << report;
  EXPECT_EQ(lines.front(), kFatalBanner);
  EXPECT_EQ(valueOf(lines, "fatality       : "), "2 (EAaErrorFatality_System)");
  EXPECT_EQ(valueOf(lines, "description    : "),
            "Invalid memory reference (reason: 1 'address not mapped to object') detected by kernel at address "
            "(nil) from ?");
  EXPECT_NE(valueOf(lines, "EE command     : ").find("OLMLiteExe --nid " + nid + " --wait 0 --load-local "),
            std::string::npos)
      << report;
  EXPECT_EQ(valueOf(lines, "filename       : "), "Realtime/Services/AaError/AaError_Lite");
  EXPECT_EQ(valueOf(lines, "line number    : "), "118");
  // The trace starts in the EU's function that faulted, inside the EU library, then its caller.
  const std::string innermost = valueOf(lines, "#00 ");
  EXPECT_NE(innermost.find(" olmCrashTestEuDereferenceNull+0x"), std::string::npos) << report;
  EXPECT_NE(innermost.find("libCrashTestEu.so+0x"), std::string::npos) << report;
  EXPECT_NE(valueOf(lines, "#01 ").find("ProcessMessage"), std::string::npos) << report;
  EXPECT_EQ(lines.back(), "===>>> letting OS handle the error");
  // The same report on the node's standard error.
  EXPECT_NE(node->output().find(std::string("ERR: ") + kFatalBanner), std::string::npos) << report;
}

TEST_F(NodeErrorHandling, SigtermAndSigintEndTheNodeWithStatusZeroAndNoReport) {
  skipWithoutCapture();
  const std::string library = OlmTest::libraryPath("NoEntryTestEu");
  for (int signalNumber : {SIGTERM, SIGINT}) {
    SystemLogCapture capture;
    auto node = startNode({"--nid", hex(OlmTest::nextTestNid()), "--wait", "0", "--load-local", library}, capture);
    // Start-up installed the handlers before it initialises the libraries.
    ASSERT_TRUE(node->waitForOutput("Shared Eu Library " + library + " invalid entry point", kNodeTimeout))
        << node->output();
    node->kill(signalNumber);
    const int status = node->waitForExit(kNodeTimeout);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << signalNumber << ": " << status << node->output();
    EXPECT_TRUE(capture.finish().empty()) << signalNumber;
    EXPECT_EQ(node->output().find("exception report"), std::string::npos) << node->output();
  }
}

}  // namespace
