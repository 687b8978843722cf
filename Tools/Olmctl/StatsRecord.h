// A node's load figures as its statistics EU publishes them in the RAM file
// "olmliteStatsRaw.bin": where the Dispatcher's thread spent its ticks since start-up, and the idle
// meter an EU may run. Reading the file changes nothing on the node (reading "olmliteStats.txt"
// would: it restarts that file's figures for everybody).
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace Olmctl {

class IRamFileReader;

constexpr char kStatsRecordFileName[] = "olmliteStatsRaw.bin";

// AaTicksGet ticks since start-up (or since the node put them back to 0 near overflow).
struct LoadCounters {
  uint64_t idle = 0;       // loop iterations that found nothing to do
  uint64_t messaging = 0;  // inside the EUs' PrioritizeMessage and ProcessMessage
  uint64_t busy = 0;       // loop iterations that found work, the messaging included
};

// The idle meter's figures in hundredths of a percent of busy time (10000 is 100 %).
struct IdleMeterReading {
  uint32_t periodMs;
  uint32_t load;  // the latest measurement
  uint32_t minimum;
  uint32_t maximum;
};

struct StatsRecord {
  LoadCounters counters;
  std::optional<IdleMeterReading> meter;  // while an EU runs it
};

// The record from the file's bytes, little-endian; nothing when there are fewer bytes than it has.
std::optional<StatsRecord> parseStatsRecord(const std::vector<uint8_t>& bytes);

// How the loop's time divided between two readings, in percent; the three add up to 100.
struct LoadShares {
  double idle;
  double overhead;  // busy, outside the EUs' callbacks: the Dispatcher's own work
  double messaging;
};
// The ticks from earlier to later; from 0 when later is behind earlier (the node reset them).
LoadCounters ticksBetween(const LoadCounters& earlier, const LoadCounters& later);
// The shares of those ticks; nothing when no tick passed.
std::optional<LoadShares> loadShares(const LoadCounters& ticks);

// The record of node nid, from its RAM file as reader finds it; false with error.
bool readStatsRecord(IRamFileReader& reader, uint16_t nid, StatsRecord& record, std::string& error);

}  // namespace Olmctl
