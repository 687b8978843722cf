// The load figures of the statistics record, named for people and keyed for scripts, as stats and
// top show them.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "Output.h"
#include "StatsRecord.h"

namespace Olmctl {

struct LoadFigure {
  const char* name;
  const char* jsonKey;
  double LoadShares::*share;
};
inline constexpr LoadFigure kLoadFigures[] = {{"idle", "idlePercent", &LoadShares::idle},
                                              {"dispatcher overhead", "overheadPercent", &LoadShares::overhead},
                                              {"messaging callbacks", "messagingPercent", &LoadShares::messaging}};

struct TickFigure {
  const char* name;
  const char* jsonKey;
  uint64_t LoadCounters::*ticks;
};
inline constexpr TickFigure kTickFigures[] = {{"idle ticks", "idleTicks", &LoadCounters::idle},
                                              {"busy loop ticks", "busyTicks", &LoadCounters::busy},
                                              {"messaging ticks", "messagingTicks", &LoadCounters::messaging}};

// One share of the time with two decimals, "-" when no tick passed.
std::string shareText(const std::optional<LoadShares>& shares, double LoadShares::*share);
// Hundredths of a percent as a percentage: 1234 is "12.34".
std::string meterPercentText(uint32_t hundredths);

// The shares' members (null each when no tick passed).
void addShares(JsonObject& object, const std::optional<LoadShares>& shares);
// The ticks and their shares.
JsonObject loadJson(const LoadCounters& ticks);
JsonObject meterJson(const IdleMeterReading& meter);

}  // namespace Olmctl
