#include "LiveNodes.h"

#include <gtest/gtest.h>

#include <vector>

#include "RhyddalPhysicalMemory.h"

namespace {

// Only a record at its node's own index names a live node: stale or foreign words elsewhere in
// the table must not become nodes the server writes to.
TEST(LiveNodes, AreTheRecordsThatHoldTheirOwnNodeId) {
  std::vector<uint32_t> table(RHYDDAL_QUEUE_TABLE_BYTES / sizeof(uint32_t));
  auto nidWord = [&](uint32_t queue) -> uint32_t& {
    return table[queue * RHYDDAL_QUEUE_RECORD_WORDS + RHYDDAL_QUEUE_WORD_NID];
  };
  nidWord(0x1011) = 0x1011;
  nidWord(0x0FF0) = 0xCFF0;  // 0xCFF0 & 0x3FFF
  nidWord(0x0123) = 0x2123;  // not its index
  nidWord(0x0200) = 0x10200; // not a node id
  table[0x0300 * RHYDDAL_QUEUE_RECORD_WORDS + RHYDDAL_QUEUE_WORD_WAITING] = 0x0300;
  EXPECT_EQ(liveNodesIn(table.data()), (std::vector<uint16_t>{0xCFF0, 0x1011}));
}

}  // namespace
