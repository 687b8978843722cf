// The statistics EU of real nodes: its echoes across nodes, the idle meter of a running node, and
// the statistics files read through the node's RAM file mount while it exchanges messages.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <sstream>
#include <string>

#include "FileTestUtil.h"
#include "NodeProcess.h"
#include "TestNamespace.h"

namespace {

using OlmTest::fileContents;
using OlmTest::hex;
using OlmTest::NodeProcess;

constexpr unsigned kStatisticsCpid = 0x0610;
constexpr unsigned kProbeCpid = 0x0720;
constexpr size_t kRawFileSize = 416;
constexpr size_t kTextFileSize = 256;
constexpr unsigned kFullLoad = 10000;

std::string address(unsigned nid, unsigned cpid) {
  char text[16];
  std::snprintf(text, sizeof(text), "0x%08x", nid << 16 | cpid);
  return text;
}

// A node running StatsProbeEu (and PingEu towards the peer, when asked to), ready.
std::unique_ptr<NodeProcess> startProbeNode(unsigned nid, unsigned peer, bool withPing = false) {
  std::vector<std::string> args{"--nid", hex(nid), "--wait", "1000", "--load-local", OlmTest::libraryPath("StatsProbeEu")};
  if (withPing) args.insert(args.end(), {"--load-local", OlmTest::pingEuPath()});
  auto node = std::make_unique<NodeProcess>(
      args, std::vector<std::string>{"OLM_STATS_PEER=" + hex(peer), "OLM_PING_PEER=" + hex(peer), "OLM_PING_PERIOD_MS=20",
                                     "OLM_PROBE_PERIOD_MS=100", "OLM_METER_MS=0"});
  node->waitForOutput("StatsProbeEu ready");
  return node;
}

struct MeterReading {
  unsigned load, minLoad, maxLoad;
};

std::vector<MeterReading> meterReadings(const std::string& output) {
  static const std::string kPrefix = "meter load=";
  std::vector<MeterReading> readings;
  for (size_t at = output.find(kPrefix); at != std::string::npos; at = output.find(kPrefix, at + 1)) {
    MeterReading reading{};
    if (std::sscanf(output.c_str() + at, "meter load=%u min=%u max=%u", &reading.load, &reading.minLoad,
                    &reading.maxLoad) == 3) {
      readings.push_back(reading);
    }
  }
  return readings;
}

TEST(NodeStatistics, TheStatisticsEuEchoesProbesAndMetersTheLoadOfARunningNode) {
  const unsigned a = OlmTest::nextTestNid(), b = OlmTest::nextTestNid();
  auto nodeA = startProbeNode(a, b);
  auto nodeB = startProbeNode(b, a);
  const std::string toProbe = " to " + address(a, kProbeCpid) + " payload probe #";
  EXPECT_TRUE(nodeA->waitForOutput("id 0x0b01 from " + address(a, kStatisticsCpid) + toProbe)) << nodeA->output();
  EXPECT_TRUE(nodeA->waitForOutput("id 0x0b01 from " + address(b, kStatisticsCpid) + toProbe)) << nodeA->output();
  EXPECT_TRUE(nodeB->waitForOutput("from " + address(a, kStatisticsCpid) + " to " + address(b, kProbeCpid)))
      << nodeB->output();

  for (int reading = 0; reading < 4; ++reading) ASSERT_TRUE(nodeA->waitForOutput("meter load=")) << nodeA->output();
  EXPECT_EQ(nodeA->countOutput("OLMLite IdleMeterStart is called before meter being closed."), 1u);
  // Every reading follows measurements (every 10 ms, read every 100 ms).
  for (const MeterReading& reading : meterReadings(nodeA->output())) {
    EXPECT_LE(reading.minLoad, reading.load);
    EXPECT_LE(reading.load, reading.maxLoad);
    EXPECT_LE(reading.maxLoad, kFullLoad);
  }
}

// ---------------------------------------------------------------------------------------------
// The files, as a developer reads them with cat

std::map<std::string, double> textFields(const std::string& text) {
  std::map<std::string, double> fields;
  std::istringstream lines(text);
  std::string line;
  while (std::getline(lines, line)) {
    const size_t equals = line.find('=');
    if (equals != std::string::npos) fields[line.substr(0, equals)] = std::stod(line.substr(equals + 1));
  }
  return fields;
}

template <typename Word>
Word wordAt(const std::string& raw, size_t offset) {
  Word word = 0;
  std::memcpy(&word, raw.data() + offset, sizeof(word));
  return word;
}

constexpr size_t kIdleTicks = 0, kMessagingTicks = 8, kTotalLoopTicks = 16, kNextHistorySlot = 312;
constexpr size_t kLastReadIdle = 320, kLastReadMessaging = 328, kLastReadTotal = 336;
constexpr size_t kMinLoad = 348, kMaxLoad = 352, kMeterPeriod = 356;

TEST(NodeStatistics, TheFilesOfANodeExchangingMessagesAgreeAndShowSensibleLoads) {
  if (access("/dev/fuse", R_OK | W_OK) != 0) GTEST_SKIP() << "/dev/fuse is not usable: " << std::strerror(errno);
  const unsigned a = OlmTest::nextTestNid(), b = OlmTest::nextTestNid();
  auto nodeA = startProbeNode(a, b, true);
  auto nodeB = startProbeNode(b, a, true);
  if (nodeA->output().find("fuse_mount failed") != std::string::npos) GTEST_SKIP() << nodeA->output();
  ASSERT_TRUE(nodeA->waitForOutput("pong #")) << nodeA->output();
  ASSERT_TRUE(nodeA->waitForOutput("meter load=")) << nodeA->output();
  const std::string mount = nodeA->ramFileMount(a);

  const std::string rawBefore = fileContents(mount + "/olmliteStatsRaw.bin");
  ASSERT_EQ(rawBefore.size(), kRawFileSize);
  EXPECT_EQ(wordAt<uint32_t>(rawBefore, kMeterPeriod), 10u) << "OLM_METER_MS=0 measures every 10 ms";
  EXPECT_LT(wordAt<uint32_t>(rawBefore, kNextHistorySlot), 12u);
  EXPECT_LE(wordAt<uint32_t>(rawBefore, kMaxLoad), kFullLoad);
  EXPECT_LE(wordAt<uint32_t>(rawBefore, kMinLoad), kFullLoad);
  EXPECT_EQ(wordAt<uint64_t>(rawBefore, kLastReadIdle), 0u) << "nobody has read the text yet";

  const std::string text = fileContents(mount + "/olmliteStats.txt");
  ASSERT_EQ(text.size(), kTextFileSize);
  EXPECT_EQ(text.rfind("Ticks since last read:\nidleTicks=", 0), 0u) << text;
  std::map<std::string, double> fields = textFields(text.c_str());
  EXPECT_GT(fields["Tick resolution"], 0);
  EXPECT_GT(fields["idleTicks"], 0);
  EXPECT_GT(fields["messagingTicks"], 0) << "the node has processed messages";
  const double idle = fields["Idle Time"], overhead = fields["Dispatcher Overhead"], messaging = fields["Messaging Callbacks"];
  for (double percent : {idle, overhead, messaging}) {
    EXPECT_GE(percent, 0);
    EXPECT_LE(percent, 100);
  }
  EXPECT_NEAR(idle + overhead + messaging, 100, 0.03) << text;
  EXPECT_GT(messaging, 0) << text;

  // The text's ticks are exactly what the record took as its last read.
  const std::string rawAfter = fileContents(mount + "/olmliteStatsRaw.bin");
  ASSERT_EQ(rawAfter.size(), kRawFileSize);
  const uint64_t lastIdle = wordAt<uint64_t>(rawAfter, kLastReadIdle);
  const uint64_t lastMessaging = wordAt<uint64_t>(rawAfter, kLastReadMessaging);
  const uint64_t lastTotal = wordAt<uint64_t>(rawAfter, kLastReadTotal);
  EXPECT_EQ(lastIdle, static_cast<uint64_t>(fields["idleTicks"]));
  EXPECT_EQ(lastMessaging, static_cast<uint64_t>(fields["messagingTicks"]));
  EXPECT_EQ(lastTotal, static_cast<uint64_t>(fields["dispOverHeadTicks"] + fields["messagingTicks"]));
  EXPECT_GE(lastIdle, wordAt<uint64_t>(rawBefore, kIdleTicks));
  EXPECT_GE(lastMessaging, wordAt<uint64_t>(rawBefore, kMessagingTicks));
  EXPECT_GE(lastTotal, wordAt<uint64_t>(rawBefore, kTotalLoopTicks));
  EXPECT_GE(wordAt<uint64_t>(rawAfter, kIdleTicks), lastIdle);

  // A second read shows only what happened since the first.
  const std::map<std::string, double> again = textFields(fileContents(mount + "/olmliteStats.txt").c_str());
  EXPECT_LT(again.at("idleTicks"), fields["idleTicks"] + fields["dispOverHeadTicks"] + fields["messagingTicks"]);
  // The node's thread sanitizer (in that build) saw no race between the reads and the loop.
  ASSERT_TRUE(nodeA->waitForOutput("meter load="));
  EXPECT_EQ(nodeA->countOutput("ThreadSanitizer"), 0u) << nodeA->output();
}

}  // namespace
