// olmctl's look at running nodes (nodes, ping, stats, top, send, history) against real node
// processes that share one RAM root, as the nodes of a host do. The nodes keep busy with the probe
// EU, echoing each other every 20 ms and running the idle meter: a node with nothing to do waits
// for events without counting ticks, and its load over an interval would be empty. Every
// invocation takes a node id of its own: under user-mode emulation a node id that a process has
// served stays taken.
#include <signal.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <memory>
// GCC 12 warns of a maybe-uninitialized std::function inside its own <regex> when it inlines the
// automaton under the sanitizers' optimisation; the warning is about the library, not this file.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "NodeProcess.h"
#include "OlmctlTestUtil.h"
#include "TestNamespace.h"
#include "WireNode.h"

namespace {

using OlmTest::hex;
using OlmTest::NodeProcess;
using OlmTest::ProgramRun;
using Args = std::vector<std::string>;
using Clock = std::chrono::steady_clock;

using OlmTest::expectFailureLine;
using OlmTest::expectUsageError;
constexpr int kOk = OlmTest::kOlmctlOk;
constexpr int kFailed = OlmTest::kOlmctlFailed;
constexpr int kReadinessMs = 10000;
constexpr auto kReadiness = std::chrono::milliseconds(kReadinessMs);
constexpr auto kPollPeriod = std::chrono::milliseconds(20);
constexpr uint16_t kToolNid = 0x1FF3;
constexpr char kShortTimeout[] = "300";

std::vector<std::string> linesOf(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) lines.push_back(line);
  return lines;
}

// The line of a table that starts with the node's id, split at runs of spaces ("in 84 us" is
// three cells); empty when there is none.
std::vector<std::string> rowOf(const std::string& table, uint16_t nid) {
  for (const std::string& line : linesOf(table)) {
    if (line.rfind(hex(nid) + " ", 0) != 0) continue;
    std::vector<std::string> cells;
    std::istringstream words(line);
    for (std::string word; words >> word;) cells.push_back(word);
    return cells;
  }
  return {};
}

bool waitFor(const std::function<bool()>& condition) {
  const auto deadline = Clock::now() + kReadiness;
  while (!condition()) {
    if (Clock::now() > deadline) return false;
    std::this_thread::sleep_for(kPollPeriod);
  }
  return true;
}

// A node that serves its node id and never answers anything, in a child process.
class SilentNode {
 public:
  explicit SilentNode(uint16_t nid) {
    int ready[2];
    if (pipe(ready) != 0) return;
    m_child = OlmTest::startChild([nid, &ready] {
      OlmTest::WireNode node(nid);
      const char served = node.ok() ? 1 : 0;
      if (write(ready[1], &served, 1) != 1 || served == 0) return 1;
      pause();
      return 0;
    });
    close(ready[1]);
    pollfd readable{ready[0], POLLIN, 0};
    char served = 0;
    m_up = poll(&readable, 1, kReadinessMs) == 1 && read(ready[0], &served, 1) == 1 && served == 1;
    close(ready[0]);
  }
  ~SilentNode() {
    if (m_child <= 0) return;
    kill(m_child, SIGKILL);
    waitpid(m_child, nullptr, 0);
  }
  SilentNode(const SilentNode&) = delete;
  SilentNode& operator=(const SilentNode&) = delete;
  // Whether it serves its node id.
  bool up() const { return m_up; }

 private:
  pid_t m_child = -1;
  bool m_up = false;
};

class NodeOlmctlProbes : public ::testing::Test {
 protected:
  void SetUp() override {
    char root[] = "/tmp/olm-ram-XXXXXX";
    ASSERT_NE(mkdtemp(root), nullptr);
    m_ramRoot = root;
    m_a = startNode(m_nidA, m_nidB);
    m_b = startNode(m_nidB, m_nidA);
    ASSERT_TRUE(m_a->waitForOutput("StatsProbeEu ready")) << m_a->output();
    ASSERT_TRUE(m_b->waitForOutput("StatsProbeEu ready")) << m_b->output();
  }

  void TearDown() override {
    m_a.reset();
    m_b.reset();
    OlmTest::removeDirectoryWithMounts(m_ramRoot);
  }

  std::unique_ptr<NodeProcess> startNode(uint16_t nid, uint16_t peer) {
    return std::make_unique<NodeProcess>(
        Args{"--nid", hex(nid), "--wait", "1000", "--load-local", OlmTest::libraryPath("StatsProbeEu")},
        Args{"OLM_RAM_ROOT=" + m_ramRoot, "OLM_STATS_PEER=" + hex(peer), "OLM_PROBE_PERIOD_MS=20", "OLM_PROBE_QUIET=1"});
  }

  // olmctl with a fresh node id of its own and the nodes' RAM root.
  Args olmctlCommand(const Args& args) const {
    Args command{OLM_TEST_OLMCTL, "--nid", hex(OlmTest::nextTestNid()), "--ram-root", m_ramRoot};
    command.insert(command.end(), args.begin(), args.end());
    return command;
  }
  ProgramRun olmctl(const Args& args) const { return OlmTest::runProgram(olmctlCommand(args)); }

  std::string statsFile(uint16_t nid) const { return m_ramRoot + "/olm_lite/" + hex(nid) + "/fusemnt/olmliteStatsRaw.bin"; }

  // Both nodes publish their RAM files; the reason why not otherwise.
  std::string ramFilesMissing() const {
    if (access("/dev/fuse", R_OK | W_OK) != 0) return "/dev/fuse is not usable here";
    const bool published = waitFor([this] {
      struct stat status {};
      return stat(statsFile(m_nidA).c_str(), &status) == 0 && stat(statsFile(m_nidB).c_str(), &status) == 0;
    });
    return published ? "" : "the nodes cannot mount their RAM files here: " + m_a->output();
  }


  const uint16_t m_nidA = OlmTest::nextTestNid();
  const uint16_t m_nidB = OlmTest::nextTestNid();
  std::string m_ramRoot;
  std::unique_ptr<NodeProcess> m_a;
  std::unique_ptr<NodeProcess> m_b;
};

TEST_F(NodeOlmctlProbes, PingPrintsEachReplyAndASummary) {
  const ProgramRun run = olmctl({"ping", hex(m_nidA), "-c", "3", "-i", "50"});
  ASSERT_EQ(run.status, kOk) << run.out << run.err;
  const std::regex reply("reply from node " + hex(m_nidA) + ": seq=([0-9]+) time=([0-9]+) us");
  std::vector<unsigned> sequences, times;
  for (const std::string& line : linesOf(run.out)) {
    std::smatch match;
    if (!std::regex_match(line, match, reply)) continue;
    sequences.push_back(std::stoul(match[1]));
    times.push_back(std::stoul(match[2]));
  }
  EXPECT_EQ(sequences, (std::vector<unsigned>{1, 2, 3})) << run.out;
  ASSERT_EQ(times.size(), 3u);
  EXPECT_NE(run.out.find("3 sent, 3 received, 0% loss\n"), std::string::npos) << run.out;
  const unsigned least = *std::min_element(times.begin(), times.end());
  const unsigned most = *std::max_element(times.begin(), times.end());
  const unsigned average = (times[0] + times[1] + times[2]) / 3;
  EXPECT_NE(run.out.find("round trip min/avg/max = " + std::to_string(least) + "/" + std::to_string(average) + "/" +
                         std::to_string(most) + " us\n"),
            std::string::npos)
      << "the summary is of the times printed: " << run.out;

  const ProgramRun json = olmctl({"--json", "ping", hex(m_nidB), "-c", "2", "-i", "20"});
  EXPECT_EQ(json.status, kOk) << json.err;
  EXPECT_EQ(json.out.rfind("{\"node\":" + std::to_string(m_nidB) + ",\"sent\":2,\"received\":2,\"lossPercent\":0,", 0),
            0u)
      << json.out;
  EXPECT_NE(json.out.find("\"lost\":[]"), std::string::npos) << json.out;
  EXPECT_EQ(linesOf(json.out).size(), 1u) << "one object, nothing for people: " << json.out;
}

TEST_F(NodeOlmctlProbes, PingOfAnUnknownOrSilentNodeFails) {
  const uint16_t absent = OlmTest::nextTestNid();
  expectFailureLine(olmctl({"ping", hex(absent), "-c", "2"}), "node " + hex(absent) + " is not running");

  const uint16_t silent = OlmTest::nextTestNid();
  SilentNode silentNode(silent);
  ASSERT_TRUE(silentNode.up());
  const ProgramRun run = olmctl({"--timeout", kShortTimeout, "ping", hex(silent), "-c", "2", "-i", "50"});
  EXPECT_EQ(run.status, kFailed) << run.out << run.err;
  EXPECT_EQ(run.err, "olmctl: 2 of 2 pings to node " + hex(silent) + " got no reply\n");
  EXPECT_NE(run.out.find("seq=1: no answer from node " + hex(silent) + " within 300 ms\n"), std::string::npos) << run.out;
  EXPECT_NE(run.out.find("2 sent, 0 received, 100% loss\n"), std::string::npos) << run.out;
  EXPECT_EQ(run.out.find("round trip"), std::string::npos) << "no times without replies: " << run.out;
}

TEST_F(NodeOlmctlProbes, PingStopsOnInterruptWithTheSummary) {
  NodeProcess ping(NodeProcess::Program{olmctlCommand({"ping", hex(m_nidA), "-i", "100"})});
  ASSERT_TRUE(ping.waitForOutput(": seq=2 time=")) << ping.output();
  ping.kill(SIGINT);
  const int status = ping.waitForExit();
  ASSERT_TRUE(WIFEXITED(status)) << ping.output();
  EXPECT_EQ(WEXITSTATUS(status), kOk) << "every ping sent was answered: " << ping.output();
  const std::regex summary("\n([0-9]+) sent, \\1 received, 0% loss\nround trip min/avg/max = [0-9]+/[0-9]+/[0-9]+ us\n");
  EXPECT_TRUE(std::regex_search(ping.output(), summary)) << ping.output();
}

TEST_F(NodeOlmctlProbes, PingOfANodeKilledMidCommandFails) {
  NodeProcess ping(
      NodeProcess::Program{olmctlCommand({"--timeout", kShortTimeout, "ping", hex(m_nidB), "-c", "4", "-i", "200"})});
  ASSERT_TRUE(ping.waitForOutput(": seq=1 time=")) << ping.output();
  m_b->kill(SIGKILL);
  const int status = ping.waitForExit();
  ASSERT_TRUE(WIFEXITED(status)) << ping.output();
  EXPECT_EQ(WEXITSTATUS(status), kFailed) << ping.output();
  EXPECT_NE(ping.output().find("4 sent, "), std::string::npos) << ping.output();
  // Sends to a dead node fail at once where the platform sees it dead; under user-mode emulation
  // it looks alive and the pings go unanswered.
  const std::string reason = OlmTest::deadLockOwnersAreDetected()
                                 ? "olmctl: node " + hex(m_nidB) + " is not running\n"
                                 : "pings to node " + hex(m_nidB) + " got no reply\n";
  EXPECT_NE(ping.output().find(reason), std::string::npos) << ping.output();
}

TEST_F(NodeOlmctlProbes, SendWaitPrintsTheEchoedMessage) {
  const std::string echo = hex((uint32_t{m_nidA} << 16) | 0x0610);
  const ProgramRun run = olmctl({"send", echo, "0x7001", "0a000000", "ff", "--wait"});
  ASSERT_EQ(run.status, kOk) << run.err;
  const std::vector<std::string> lines = linesOf(run.out);
  ASSERT_EQ(lines.size(), 3u) << run.out;
  EXPECT_EQ(lines[0].rfind("sent message 0x7001 to " + echo + " from ", 0), 0u) << run.out;
  EXPECT_NE(lines[1].find("reply 0x7001 to "), std::string::npos) << run.out;
  EXPECT_NE(lines[1].find(" from " + echo + ", 5 bytes of payload"), std::string::npos) << run.out;
  EXPECT_EQ(lines[2], "  0a000000 ff");

  const ProgramRun json = olmctl({"--json", "send", echo, "28673", "0102030405060708", "--wait"});
  ASSERT_EQ(json.status, kOk) << json.err;
  EXPECT_NE(json.out.find(",\"reply\":{\"id\":28673,"), std::string::npos) << json.out;
  EXPECT_NE(json.out.find(",\"sender\":" + std::to_string((uint32_t{m_nidA} << 16) | 0x0610) +
                          ",\"payload\":\"0102030405060708\"}}"),
            std::string::npos)
      << json.out;

  const uint16_t absent = OlmTest::nextTestNid();
  expectFailureLine(olmctl({"send", hex((uint32_t{absent} << 16) | 0x0610), "1"}),
                    "node " + hex(absent) + " is not running");
  const std::string unbound = hex((uint32_t{m_nidA} << 16) | 0x0777);
  expectFailureLine(olmctl({"--timeout", kShortTimeout, "send", unbound, "1", "--wait"}),
                    "no reply came to the tool within 300 ms");
}

TEST_F(NodeOlmctlProbes, NodesListsEveryNodeAndWhetherItAnswers) {
  const uint16_t silent = OlmTest::nextTestNid();
  SilentNode silentNode(silent);
  SilentNode otherTool(kToolNid);
  ASSERT_TRUE(silentNode.up());
  ASSERT_TRUE(otherTool.up());

  const ProgramRun run = olmctl({"--timeout", kShortTimeout, "nodes"});
  ASSERT_EQ(run.status, kOk) << run.err;
  const std::vector<std::string> lines = linesOf(run.out);
  ASSERT_FALSE(lines.empty());
  EXPECT_EQ(lines[0], "NODE    WAITING  ANSWER");
  for (const uint16_t nid : {m_nidA, m_nidB}) {
    const std::vector<std::string> row = rowOf(run.out, nid);
    ASSERT_EQ(row.size(), 5u) << run.out;
    EXPECT_EQ(row[1].find_first_not_of("0123456789"), std::string::npos) << "messages waiting: " << row[1];
    EXPECT_EQ(row[2], "in");
    EXPECT_EQ(row[4], "us");
  }
  EXPECT_EQ(rowOf(run.out, silent), (Args{hex(silent), "0", "none", "within", "300", "ms"})) << run.out;
  EXPECT_EQ(rowOf(run.out, kToolNid), (Args{hex(kToolNid), "0", "tool,", "not", "asked"})) << run.out;
  EXPECT_LT(run.out.find(hex(m_nidA)), run.out.find(hex(silent))) << "node id order: " << run.out;

  // The silent node keeps the echo it was sent: one message waiting now.
  const ProgramRun json = olmctl({"--timeout", kShortTimeout, "--json", "nodes"});
  ASSERT_EQ(json.status, kOk) << json.err;
  EXPECT_TRUE(std::regex_search(json.out, std::regex("\\{\"node\":" + std::to_string(m_nidA) +
                                                    ",\"waiting\":[0-9]+,\"answers\":true,\"roundTripUs\":[0-9]+\\}")))
      << json.out;
  EXPECT_NE(json.out.find("{\"node\":" + std::to_string(silent) + ",\"waiting\":1,\"answers\":false}"),
            std::string::npos)
      << json.out;
  EXPECT_NE(json.out.find("{\"node\":" + std::to_string(kToolNid) + ",\"waiting\":0,\"tool\":true}"),
            std::string::npos)
      << json.out;
}

TEST_F(NodeOlmctlProbes, StatsNamesTheLoadFiguresOfANode) {
  const std::string missing = ramFilesMissing();
  if (!missing.empty()) GTEST_SKIP() << missing;
  const ProgramRun run = olmctl({"stats", hex(m_nidA), "-i", "200"});
  ASSERT_EQ(run.status, kOk) << run.err;
  EXPECT_EQ(run.out.rfind("node " + hex(m_nidA) + ": the statistics EU answered in ", 0), 0u) << run.out;
  double recent = 0, overall = 0;
  for (const char* figure : {"idle", "dispatcher overhead", "messaging callbacks"}) {
    const std::regex row(std::string(figure) + " +(-?[0-9]+\\.[0-9]{2}) % +(-?[0-9]+\\.[0-9]{2}) %\n");
    std::smatch match;
    ASSERT_TRUE(std::regex_search(run.out, match, row)) << figure << ":\n" << run.out;
    recent += std::stod(match[1]);
    overall += std::stod(match[2]);
  }
  EXPECT_NEAR(recent, 100, 0.03) << run.out;
  EXPECT_NEAR(overall, 100, 0.03) << run.out;
  const std::regex ticks("idle ticks +([0-9]+) +([0-9]+)\n");
  std::smatch match;
  ASSERT_TRUE(std::regex_search(run.out, match, ticks)) << run.out;
  EXPECT_LE(std::stoull(match[1]), std::stoull(match[2])) << "the interval's ticks are part of all since start-up";
  EXPECT_TRUE(std::regex_search(
      run.out, std::regex("\nidle meter: busy [0-9]+\\.[0-9]{2} % \\(min [0-9]+\\.[0-9]{2} %, max [0-9]+\\.[0-9]{2} %\\), "
                          "measured every 10 ms\n$")))
      << "the probe EU runs the meter every 10 ms: " << run.out;

  const ProgramRun json = olmctl({"--json", "stats", hex(m_nidB), "-i", "100"});
  ASSERT_EQ(json.status, kOk) << json.err;
  EXPECT_NE(json.out.find(",\"intervalMs\":100,\"interval\":{\"idlePercent\":"), std::string::npos) << json.out;
  EXPECT_NE(json.out.find(",\"idleMeter\":{\"periodMs\":10,\"busyPercent\":"), std::string::npos) << json.out;

  const uint16_t silent = OlmTest::nextTestNid();
  SilentNode silentNode(silent);
  ASSERT_TRUE(silentNode.up());
  expectFailureLine(olmctl({"--timeout", kShortTimeout, "stats", hex(silent)}),
                    "no answer from node " + hex(silent) + " within 300 ms");
  const uint16_t absent = OlmTest::nextTestNid();
  expectFailureLine(olmctl({"stats", hex(absent)}), "node " + hex(absent) + " is not running");
  expectFailureLine(olmctl({"--ram-root", "/nonexistent", "stats", hex(m_nidA)}),
                    "cannot read /nonexistent/olm_lite/" + hex(m_nidA) + "/fusemnt/olmliteStatsRaw.bin");
}

TEST_F(NodeOlmctlProbes, TopRefreshesATableOfEveryNode) {
  const std::string missing = ramFilesMissing();
  if (!missing.empty()) GTEST_SKIP() << missing;
  const uint16_t silent = OlmTest::nextTestNid();
  SilentNode silentNode(silent);
  ASSERT_TRUE(silentNode.up());

  const ProgramRun run = olmctl({"--timeout", kShortTimeout, "top", "-n", "2", "-i", "400"});
  ASSERT_EQ(run.status, kOk) << run.err;
  const std::string heading = "olmctl top: 3 nodes, load over the last 400 ms; Ctrl-C ends\n";
  const size_t second = run.out.find(heading, 1);
  ASSERT_EQ(run.out.rfind(heading, 0), 0u) << run.out;
  ASSERT_NE(second, std::string::npos) << "two tables: " << run.out;
  EXPECT_EQ(run.out.find("\x1b"), std::string::npos) << "no terminal, no escapes";
  // The silent node keeps the echoes it is sent: none waiting in the first table, one in the second.
  const std::string tables[] = {run.out.substr(0, second), run.out.substr(second)};
  for (size_t i = 0; i < 2; ++i) {
    for (const uint16_t nid : {m_nidA, m_nidB}) {
      const std::vector<std::string> row = rowOf(tables[i], nid);
      ASSERT_EQ(row.size(), 8u) << tables[i];
      const double sum = std::stod(row[5]) + std::stod(row[6]) + std::stod(row[7]);
      EXPECT_NEAR(sum, 100, 0.03) << tables[i];
    }
    EXPECT_EQ(rowOf(tables[i], silent),
              (Args{hex(silent), "none", "within", "300", "ms", std::to_string(i), "-", "-", "-"}))
        << tables[i];
  }

  const ProgramRun json = olmctl({"--json", "top", "-n", "1", "-i", "200"});
  ASSERT_EQ(json.status, kOk) << json.err;
  ASSERT_EQ(linesOf(json.out).size(), 1u) << json.out;
  EXPECT_EQ(json.out.rfind("{\"refresh\":1,\"intervalMs\":200,\"nodes\":[{\"node\":" + std::to_string(m_nidA), 0), 0u)
      << json.out;
  EXPECT_NE(json.out.find("\"answers\":false,\"idlePercent\":null"), std::string::npos) << json.out;
}

// The table in a real terminal: tmux runs olmctl top, its screen shows every node, and Ctrl-C
// ends it with status 0.
TEST_F(NodeOlmctlProbes, TopInATerminalEndsOnCtrlC) {
  if (std::system("command -v tmux >/dev/null 2>&1") != 0) GTEST_SKIP() << "tmux is not installed";
  const std::string missing = ramFilesMissing();
  if (!missing.empty()) GTEST_SKIP() << missing;
  const std::string server = "olmctl-test-" + std::to_string(getpid());
  const auto tmux = [&server](const Args& args) {
    Args command{"/usr/bin/env", "tmux", "-f", "/dev/null", "-L", server};
    command.insert(command.end(), args.begin(), args.end());
    return OlmTest::runProgram(command);
  };
  // The pane's shell ignores Ctrl-C (top takes it all the same: it installs its own handler) and
  // writes top's exit status after it. tmux's own record of a pane's status is not used: under
  // user-mode emulation it sometimes misses it.
  std::string top = "trap '' INT;";
  for (const std::string& word : olmctlCommand({"top", "-i", "200"})) top += " '" + word + "'";
  top += "; echo \"top ended with status $?\"";
  ASSERT_EQ(tmux({"start-server", ";", "set-option", "-g", "remain-on-exit", "on", ";", "new-session", "-d", "-x", "120",
                  "-y", "30", top})
                .status,
            kOk);
  std::string screen;
  const bool shown = waitFor([&] {
    screen = tmux({"capture-pane", "-p", "-t", "0"}).out;
    return rowOf(screen, m_nidA).size() == 8 && rowOf(screen, m_nidB).size() == 8;
  });
  EXPECT_TRUE(shown) << screen;
  EXPECT_EQ(screen.rfind("olmctl top: 2 nodes", 0), 0u) << "drawn from the top left corner: " << screen;
  tmux({"send-keys", "-t", "0", "C-c"});
  EXPECT_TRUE(waitFor([&] {
    screen = tmux({"capture-pane", "-p", "-t", "0"}).out;
    return screen.find("top ended with status") != std::string::npos;
  })) << screen;
  EXPECT_NE(screen.find("top ended with status 0\n"), std::string::npos) << "Ctrl-C ends top with status 0: " << screen;
  tmux({"kill-server"});
}

TEST_F(NodeOlmctlProbes, HistoryOfARunningNodeAsText) {
  const std::string missing = ramFilesMissing();
  if (!missing.empty()) GTEST_SKIP() << missing;
  // The emulated tool cannot start the target's converter itself: it is given a wrapper.
  const std::string converter = OLM_TEST_HISTORY_PROGRAM;
  Args command = olmctlCommand({"history", hex(m_nidA)});
  if (!converter.empty()) command.insert(command.begin(), {"/usr/bin/env", "OLM_HISTORY_TOOL=" + converter});
  const ProgramRun run = OlmTest::runProgram(command);
  ASSERT_EQ(run.status, kOk) << run.err;
  EXPECT_EQ(run.out.rfind("*********** History Log *************\n", 0), 0u) << run.out.substr(0, 500);
  EXPECT_NE(run.out.find("*********** End history *************"), std::string::npos);
  char nodeWord[8];
  std::snprintf(nodeWord, sizeof(nodeWord), "%04X <", m_nidA);
  EXPECT_NE(run.out.find(nodeWord), std::string::npos) << "the node's own log lines: " << run.out.substr(0, 500);

  const uint16_t absent = OlmTest::nextTestNid();
  // Not on this host, and no RAM file server runs for its group.
  expectFailureLine(olmctl({"history", hex(absent)}), "node " + hex(absent) + " is not on this host, and nothing runs at");
  expectFailureLine(olmctl({"--ram-root", "/nonexistent", "history", hex(m_nidA)}), "cannot read /nonexistent/");
}

TEST_F(NodeOlmctlProbes, MalformedCommandLinesAreUsageErrors) {
  const std::string node = hex(m_nidA);
  for (const Args& malformed :
       {Args{"ping"}, Args{"ping", "0x10000"}, Args{"ping", node, "-c", "0"}, Args{"ping", node, "-i", "1s"},
        Args{"ping", node, node}, Args{"stats"}, Args{"stats", node, "-c", "1"}, Args{"top", node},
        Args{"top", "-n", "0"}, Args{"send", "0x10110610"}, Args{"send", "0x100000000", "1"},
        Args{"send", "0x10110610", "0x10000"}, Args{"send", "0x10110610", "1", "abc"},
        Args{"send", "0x10110610", "1", "0x12"}, Args{"nodes", node}, Args{"history"}, Args{"history", "x"},
        Args{"--ram-root", "ram", "nodes"}, Args{"nodes", "--wait"}}) {
    SCOPED_TRACE(malformed[0]);
    expectUsageError(olmctl(malformed));
  }
  const ProgramRun foreign = olmctl({"stats", node, "-n", "2"});
  EXPECT_NE(foreign.err.find("option -n is not an option of stats"), std::string::npos) << foreign.err;
  for (const char* command : {"nodes", "ping", "stats", "top", "send", "history"}) {
    const ProgramRun help = olmctl({command, "--help"});
    EXPECT_EQ(help.status, kOk);
    EXPECT_EQ(help.out.rfind(std::string("Usage: olmctl ") + command, 0), 0u) << help.out;
  }
}

}  // namespace
