#include "AifTimeSource.h"

#include <gtest/gtest.h>

#include <cstdint>

namespace {

using Olm::AifTimeSource;

class AifTimeSourceTest : public ::testing::Test {
 protected:
  uint32_t page[AifTimeSource::kRegisterPageSize / 4] = {};
  AifTimeSource source{page};
};

TEST_F(AifTimeSourceTest, SimulatedTimeCountsSymbolsOf2195BasicTimeUnits) {
  source.setSimMode(true);
  page[AifTimeSource::kSymbolCounterWord] = 141;
  EXPECT_EQ(source.getLTETime().getSamples(), 307200u + 2195u);
  EXPECT_EQ(source.getLTETime().getStatus(), EAaLteTimeRetVal_Ok);

  // The last symbol of the range is accepted; it lies 100 BTUs past the end of its frame's 139
  // symbols' worth, the deliberate rounding.
  page[AifTimeSource::kSymbolCounterWord] = 573439;
  EXPECT_EQ(source.getLTETime().getSamples(), 4095ull * 307200 + 139 * 2195);
}

TEST_F(AifTimeSourceTest, SymbolCounterOutOfRangeAborts) {
  source.setSimMode(true);
  page[AifTimeSource::kSymbolCounterWord] = 573440;
  EXPECT_DEATH(source.getLTETime(), "Realtime/Dispatcher/AifTimeSource.*symbol < \\(4096\\*10\\*14\\)");
}

TEST_F(AifTimeSourceTest, HardwareCdmaTimePacksCountAndSubChip) {
  page[AifTimeSource::kCdmaLowWord] = 0x800;
  page[AifTimeSource::kCdmaHighWord] = 0x12345678;
  unsigned long long time = 0;
  // sub = ((1 << 10) | 5) & 0xFFF = 0x405, below the low word: the count is the next one.
  EXPECT_EQ(source.getCdmaTime(&time, 1, 5), 0x12345679);
  EXPECT_EQ(time, (0x23ull << 32) | ((0x12345679u << 12) | 0x405u));
  // sub 0xFFF is not below the low word: the count stays.
  EXPECT_EQ(source.getCdmaTime(&time, 3, 0x3FF), 0x12345678);
  EXPECT_EQ(time & 0xFFFFFFFFu, (0x12345678u << 12) | 0xFFFu);
}

}  // namespace
