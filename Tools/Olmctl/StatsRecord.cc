#include "StatsRecord.h"

#include <cstddef>

#include "Output.h"
#include "RamFileReader.h"

namespace Olmctl {

namespace {

// The record's layout, fixed on every build of the runtime (and checked there at compile time).
constexpr size_t kRecordBytes = 416;
constexpr size_t kIdleTicksAt = 0;
constexpr size_t kMessagingTicksAt = 8;
constexpr size_t kBusyTicksAt = 16;
constexpr size_t kMeterLoadAt = 344;
constexpr size_t kMeterMinimumAt = 348;
constexpr size_t kMeterMaximumAt = 352;
constexpr size_t kMeterPeriodAt = 356;
constexpr double kPercent = 100.0;

uint64_t littleEndian(const std::vector<uint8_t>& bytes, size_t at, size_t size) {
  uint64_t value = 0;
  for (size_t i = size; i-- > 0;) value = (value << 8) | bytes[at + i];
  return value;
}

uint64_t u64At(const std::vector<uint8_t>& bytes, size_t at) { return littleEndian(bytes, at, sizeof(uint64_t)); }

uint32_t u32At(const std::vector<uint8_t>& bytes, size_t at) {
  return static_cast<uint32_t>(littleEndian(bytes, at, sizeof(uint32_t)));
}

double share(int64_t part, uint64_t whole) { return static_cast<double>(part) * kPercent / static_cast<double>(whole); }

}  // namespace

std::optional<StatsRecord> parseStatsRecord(const std::vector<uint8_t>& bytes) {
  if (bytes.size() < kRecordBytes) return std::nullopt;
  StatsRecord record;
  record.counters = LoadCounters{u64At(bytes, kIdleTicksAt), u64At(bytes, kMessagingTicksAt), u64At(bytes, kBusyTicksAt)};
  const uint32_t period = u32At(bytes, kMeterPeriodAt);
  if (period != 0) {
    record.meter = IdleMeterReading{period, u32At(bytes, kMeterLoadAt), u32At(bytes, kMeterMinimumAt),
                                    u32At(bytes, kMeterMaximumAt)};
  }
  return record;
}

LoadCounters ticksBetween(const LoadCounters& earlier, const LoadCounters& later) {
  const bool reset = later.idle < earlier.idle || later.messaging < earlier.messaging || later.busy < earlier.busy;
  const LoadCounters from = reset ? LoadCounters{} : earlier;
  return LoadCounters{later.idle - from.idle, later.messaging - from.messaging, later.busy - from.busy};
}

// A message an EU sends to its own node inside ProcessMessage counts twice as messaging, so the
// overhead can come out negative: shown as it is, not wrapped.
std::optional<LoadShares> loadShares(const LoadCounters& ticks) {
  const uint64_t all = ticks.idle + ticks.busy;
  if (all == 0) return std::nullopt;
  const int64_t overhead = static_cast<int64_t>(ticks.busy - ticks.messaging);
  return LoadShares{share(static_cast<int64_t>(ticks.idle), all), share(overhead, all),
                    share(static_cast<int64_t>(ticks.messaging), all)};
}

bool readStatsRecord(IRamFileReader& reader, uint16_t nid, StatsRecord& record, std::string& error) {
  std::vector<uint8_t> bytes;
  if (!reader.read(nid, kStatsRecordFileName, bytes, error)) return false;
  const std::optional<StatsRecord> parsed = parseStatsRecord(bytes);
  if (!parsed) {
    error = std::string(kStatsRecordFileName) + " of node " + nidText(nid) + " holds " + std::to_string(bytes.size()) +
            " bytes, fewer than a statistics record";
    return false;
  }
  record = *parsed;
  return true;
}

}  // namespace Olmctl
