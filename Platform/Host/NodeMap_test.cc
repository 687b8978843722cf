#include "NodeMap.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>

namespace rhyddal {
namespace {

constexpr char kKey[] = "rq:rM>}U?@Lns47E1%kR.o@n%FcmmsL/@{H8]yf7";

std::vector<std::string> errorsOf(const std::string& text) {
  NodeMap map;
  std::vector<std::string> errors;
  EXPECT_FALSE(NodeMap::parse(text, &map, &errors)) << text;
  return errors;
}

NodeMap parsed(const std::string& text) {
  NodeMap map;
  std::vector<std::string> errors;
  EXPECT_TRUE(NodeMap::parse(text, &map, &errors)) << (errors.empty() ? "" : errors[0]);
  return map;
}

TEST(NodeMap, HostsAreTheDistinctEndpointsAndRangesAreInclusive) {
  const NodeMap map = parsed(
      "0x1000-0x10ef  tcp://127.0.0.1:5601   # host A\n"
      "\t0x2000-0x20FF\ttcp://127.0.0.1:5602\n"
      "0x10F0         tcp://127.0.0.1:5602\n"
      "0             ipc:///tmp/olm-c\n"
      "65535         ipc:///tmp/olm-c\n");
  ASSERT_EQ(map.hosts().size(), 3u);
  EXPECT_EQ(map.hostOf(0x0fff), NodeMap::kNoHost);
  EXPECT_EQ(map.hostOf(0x1000), 0);
  EXPECT_EQ(map.hostOf(0x10ef), 0);
  EXPECT_EQ(map.hostOf(0x10f0), 1);
  EXPECT_EQ(map.hostOf(0x10f1), NodeMap::kNoHost);
  EXPECT_EQ(map.hostOf(0x20ff), 1);
  EXPECT_EQ(map.hostOf(0x2100), NodeMap::kNoHost);
  EXPECT_EQ(map.hostOf(0), 2);
  EXPECT_EQ(map.hostOf(0xffff), 2);
  EXPECT_EQ(map.hostOf(1), NodeMap::kNoHost);
  EXPECT_EQ(map.hosts()[1].endpoint, "tcp://127.0.0.1:5602");
  EXPECT_FALSE(map.hasKeys());
}

TEST(NodeMap, OverlapsAreReportedOnTheLaterLineWhereverTheyLie) {
  // Line 3 lies inside line 1 though line 2 comes between them once sorted.
  const std::vector<std::string> errors = errorsOf(
      "0x1000-0x1fff tcp://127.0.0.1:5601\n"
      "0x1000        tcp://127.0.0.1:5602\n"
      "0x1800-0x1801 tcp://127.0.0.1:5603\n"
      "0x1fff-0x2000 tcp://127.0.0.1:5604\n"
      "0x3000        tcp://127.0.0.1:5605\n"
      "0x3000        tcp://127.0.0.1:5605\n");
  ASSERT_EQ(errors.size(), 4u);
  EXPECT_NE(errors[0].find("overlap"), std::string::npos) << errors[0];
  std::string all;
  for (const std::string& error : errors) all += error + "\n";
  for (const char* expected : {"line 2: node ids 0x1000-0x1000 overlap those of line 1",
                               "line 3: node ids 0x1800-0x1801 overlap those of line 1",
                               "line 4: node ids 0x1fff-0x2000 overlap those of line 1", "line 6:"}) {
    EXPECT_NE(all.find(expected), std::string::npos) << expected << " in\n" << all;
  }
}

TEST(NodeMap, EveryBadLineIsReportedWithItsNumber) {
  const std::vector<std::string> errors = errorsOf(
      "0x1000 tcp://127.0.0.1:5601\n"    // 1 good
      "0x1001\n"                          // 2 no endpoint
      "0x10000 tcp://127.0.0.1:5602\n"   // 3 beyond 16 bits
      "0x20-0x10 tcp://127.0.0.1:5602\n" // 4 reversed range
      "-5 tcp://127.0.0.1:5602\n"        // 5 negative
      "12abc tcp://127.0.0.1:5602\n"     // 6 trailing garbage
      "0x30 udp://127.0.0.1:5602\n"      // 7 scheme
      "0x31 tcp://127.0.0.1\n"           // 8 no port
      "0x32 tcp://127.0.0.1:0\n"         // 9 port 0
      "0x33 tcp://127.0.0.1:65536\n"     // 10 port too large
      "0x34 tcp://*:5602\n"              // 11 wildcard cannot be connected to
      "0x35 ipc://relative\n"            // 12 ipc path not absolute
      "0x36 tcp://127.0.0.1:5603 shortkey\n"            // 13 key length
      "0x37 tcp://127.0.0.1:5603 a b\n"                 // 14 too many words
      "secret-key\n"                                    // 15 no key
      "0x38 tcp://127.0.0.1:5601 " + std::string(kKey) + "\n"  // 16 key differs for host of line 1
      "0x39 tcp://127.0.0.1:" + std::string(NodeMap::kMaxEndpointLength, '1') + "\n");  // 17
  std::string all;
  for (const std::string& error : errors) all += error + "\n";
  for (unsigned line = 2; line <= 17; ++line) {
    EXPECT_NE(all.find("line " + std::to_string(line) + ": "), std::string::npos) << "line " << line << " in\n" << all;
  }
  EXPECT_EQ(all.find("line 1: "), std::string::npos) << all;
  EXPECT_EQ(errors.size(), 16u) << all;
}

TEST(NodeMap, KeysAreKeptPerHostAndTheSecretKeyOnce) {
  const std::string key(kKey);
  const NodeMap map = parsed("0x1000-0x10ff tcp://10.0.0.1:5601 " + key + "\nsecret-key " + key + "\n");
  ASSERT_EQ(map.hosts().size(), 1u);
  EXPECT_EQ(map.hosts()[0].publicKey, key);
  EXPECT_EQ(map.secretKey(), key);
  EXPECT_TRUE(map.hasKeys());
  const std::vector<std::string> errors = errorsOf("secret-key " + key + "\nsecret-key " + key + "\n");
  ASSERT_EQ(errors.size(), 1u);
  EXPECT_EQ(errors[0], "line 2: a second secret-key");

  // '#' is a Z85 character: a key may hold one anywhere, even first, and stays a key.
  const std::string hashFirst = "#" + key.substr(1), hashInside = key.substr(0, 20) + "#" + key.substr(21);
  const NodeMap hashes = parsed("0x1000 tcp://10.0.0.1:5601 " + hashFirst + " # host A\n" +
                                "secret-key " + hashInside + " # the comment\n");
  EXPECT_EQ(hashes.hosts()[0].publicKey, hashFirst);
  EXPECT_EQ(hashes.secretKey(), hashInside);
}

TEST(NodeMap, AMapOnDiskIsReadAndAMissingOneIsOneError) {
  char path[] = "/tmp/olm-nodemap-XXXXXX";
  const int fd = mkstemp(path);
  ASSERT_GE(fd, 0);
  close(fd);
  std::ofstream(path) << "0x1000 tcp://127.0.0.1:5601";  // no final line feed
  NodeMap map;
  std::vector<std::string> errors;
  EXPECT_TRUE(NodeMap::load(path, &map, &errors));
  EXPECT_EQ(map.hostOf(0x1000), 0);
  std::remove(path);
  EXPECT_FALSE(NodeMap::load(path, &map, &errors));
  ASSERT_EQ(errors.size(), 1u);
  EXPECT_NE(errors[0].find(path), std::string::npos);
}

}  // namespace
}  // namespace rhyddal
