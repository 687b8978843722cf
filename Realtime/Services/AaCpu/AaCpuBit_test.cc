#include "AaCpuBit.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

using Bytes = std::vector<unsigned char>;

TEST(AaCpuBitTest, SingleValuesAreReversedInPlaceAtAnyAddress) {
  Bytes data{0xEE, 1, 2, 3, 4, 5, 6, 7, 8};  // values start at an odd address
  AaCpuBitSwapByteOrder16(&data[1]);
  EXPECT_EQ(data, (Bytes{0xEE, 2, 1, 3, 4, 5, 6, 7, 8}));
  AaCpuBitSwapByteOrder32(&data[1]);
  EXPECT_EQ(data, (Bytes{0xEE, 4, 3, 1, 2, 5, 6, 7, 8}));
  AaCpuBitSwapByteOrder64(&data[1]);
  EXPECT_EQ(data, (Bytes{0xEE, 8, 7, 6, 5, 2, 1, 3, 4}));
  AaCpuBitSwapByteOrder64(nullptr);
}

TEST(AaCpuBitTest, RunsSwapEachValueAndStopAtTheCount) {
  Bytes data{1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 0xEE};
  AaCpuBitSwapMultiByteOrder16(data.data(), 3);
  EXPECT_EQ(data, (Bytes{2, 1, 4, 3, 6, 5, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 0xEE}));
  AaCpuBitSwapMultiByteOrder32(data.data(), 0);
  AaCpuBitSwapMultiByteOrder32(&data[8], 2);
  EXPECT_EQ(data, (Bytes{2, 1, 4, 3, 6, 5, 7, 8, 12, 11, 10, 9, 16, 15, 14, 13, 0xEE}));
  AaCpuBitSwapMultiByteOrder64(data.data(), 2);
  EXPECT_EQ(data, (Bytes{8, 7, 5, 6, 3, 4, 1, 2, 13, 14, 15, 16, 9, 10, 11, 12, 0xEE}));
}

TEST(AaCpuBitTest, CopySwapLeavesTheSourceAndWorksInPlace) {
  const Bytes source{1, 2, 3, 4, 5, 6, 7, 8};
  Bytes destination(9, 0xEE);
  AaCpuBitCopySwapMultiByteOrder32(destination.data(), source.data(), 2);
  EXPECT_EQ(destination, (Bytes{4, 3, 2, 1, 8, 7, 6, 5, 0xEE}));
  AaCpuBitCopySwapMultiByteOrder32(destination.data(), destination.data(), 2);
  EXPECT_EQ(destination, (Bytes{1, 2, 3, 4, 5, 6, 7, 8, 0xEE}));
}

}  // namespace
