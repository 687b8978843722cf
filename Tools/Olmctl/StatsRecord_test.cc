// The statistics record as a node writes it, and the shares of time the tool makes of it: the
// byte order and offsets of the file, counters a node put back to 0, and the overhead a node's
// sends to itself can drive below zero.
#include "StatsRecord.h"

#include <gtest/gtest.h>

#include <cstring>

namespace {

using Olmctl::LoadCounters;

constexpr size_t kRecordBytes = 416;

void putLittleEndian(std::vector<uint8_t>& bytes, size_t at, uint64_t value, size_t size) {
  for (size_t i = 0; i < size; ++i) bytes[at + i] = static_cast<uint8_t>(value >> (8 * i));
}

std::vector<uint8_t> record(uint64_t idle, uint64_t messaging, uint64_t busy, uint32_t meterPeriodMs) {
  std::vector<uint8_t> bytes(kRecordBytes, 0xEE);
  putLittleEndian(bytes, 0, idle, 8);
  putLittleEndian(bytes, 8, messaging, 8);
  putLittleEndian(bytes, 16, busy, 8);
  putLittleEndian(bytes, 344, 2500, 4);
  putLittleEndian(bytes, 348, 1000, 4);
  putLittleEndian(bytes, 352, 9000, 4);
  putLittleEndian(bytes, 356, meterPeriodMs, 4);
  return bytes;
}

TEST(OlmctlStatsRecord, FieldsAreReadWhereTheNodeWritesThem) {
  const auto parsed = Olmctl::parseStatsRecord(record(0x0102030405060708, 7, 0x1122334455667788, 10));
  ASSERT_TRUE(parsed.has_value());
  EXPECT_EQ(parsed->counters.idle, 0x0102030405060708u) << "little-endian, whatever the host";
  EXPECT_EQ(parsed->counters.messaging, 7u);
  EXPECT_EQ(parsed->counters.busy, 0x1122334455667788u);
  ASSERT_TRUE(parsed->meter.has_value());
  EXPECT_EQ(parsed->meter->periodMs, 10u);
  EXPECT_EQ(parsed->meter->load, 2500u);
  EXPECT_EQ(parsed->meter->minimum, 1000u);
  EXPECT_EQ(parsed->meter->maximum, 9000u);

  EXPECT_FALSE(Olmctl::parseStatsRecord(record(1, 1, 1, 0))->meter.has_value()) << "period 0: the meter is stopped";
  std::vector<uint8_t> cut = record(1, 1, 1, 10);
  cut.pop_back();
  EXPECT_FALSE(Olmctl::parseStatsRecord(cut).has_value()) << "a file shorter than the record";
  EXPECT_FALSE(Olmctl::parseStatsRecord({}).has_value());
}

TEST(OlmctlStatsRecord, SharesOfTheTicksBetweenTwoReadings) {
  const LoadCounters earlier{1000, 100, 3000};
  const LoadCounters later{2000, 300, 5000};
  const LoadCounters ticks = Olmctl::ticksBetween(earlier, later);
  EXPECT_EQ(ticks.idle, 1000u);
  EXPECT_EQ(ticks.messaging, 200u);
  EXPECT_EQ(ticks.busy, 2000u);
  const auto shares = Olmctl::loadShares(ticks);
  ASSERT_TRUE(shares.has_value());
  EXPECT_NEAR(shares->idle, 33.333, 0.001);
  EXPECT_NEAR(shares->overhead, 60.0, 0.001) << "busy outside the callbacks";
  EXPECT_NEAR(shares->messaging, 6.667, 0.001);

  const LoadCounters reset{10, 1, 20};
  const LoadCounters sinceReset = Olmctl::ticksBetween(later, reset);
  EXPECT_EQ(sinceReset.idle, 10u) << "counters put back to 0 count from 0, never wrap";
  EXPECT_EQ(sinceReset.busy, 20u);

  EXPECT_FALSE(Olmctl::loadShares(Olmctl::ticksBetween(later, later)).has_value()) << "no tick passed";
  const auto doubled = Olmctl::loadShares(LoadCounters{0, 150, 100});
  ASSERT_TRUE(doubled.has_value());
  EXPECT_NEAR(doubled->overhead, -50.0, 0.001) << "messaging counted twice shows as a negative overhead";
}

}  // namespace
