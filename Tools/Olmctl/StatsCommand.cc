// olmctl stats: one node's load figures, from its statistics EU's record.
#include "Commands.h"
#include "Echo.h"
#include "LoadText.h"
#include "Output.h"
#include "RamFileReader.h"
#include "StatsRecord.h"

namespace Olmctl {

namespace {

constexpr char kUsage[] = "Usage: olmctl stats NID [-i INTERVAL_MS]\n";

constexpr char kHelp[] =
    "Usage: olmctl stats NID [-i INTERVAL_MS]\n"
    "\n"
    "The load figures of a node, from the record its statistics EU keeps (the RAM file\n"
    "olmliteStatsRaw.bin, under the nodes' RAM root for a node on this host, else through the\n"
    "RAM file server of its host; reading it changes nothing on the node). Each loop iteration\n"
    "of the node's Dispatcher counts its processor ticks as idle (it found nothing to do) or\n"
    "busy; the busy ticks inside the EUs' callbacks are the messaging:\n"
    "\n"
    "  idle                 share of the loop's time in iterations that found nothing to do\n"
    "  dispatcher overhead  share in busy iterations outside the EUs' callbacks\n"
    "  messaging callbacks  share inside the EUs' PrioritizeMessage and ProcessMessage\n"
    "\n"
    "over INTERVAL_MS (default 1000: the record is read twice) and since the node started, with\n"
    "the ticks themselves, and the idle meter's figures when an EU runs it. The node's echo is\n"
    "asked first: a node that does not answer within the timeout fails the command. A node on\n"
    "another host needs its host's controller (olm-controller, which loads the RAM file server).\n"
    "\n"
    "Examples:\n"
    "  olmctl stats 0x1011\n"
    "  olmctl stats 0x1011 -i 5000 --json\n";

struct StatsRequest {
  uint16_t nid = 0;
  uint32_t intervalMs = kDefaultIntervalMs;
};

std::string ticksText(const LoadCounters& ticks, uint64_t LoadCounters::*figure) { return std::to_string(ticks.*figure); }

std::string sharesText(const std::optional<LoadShares>& shares, double LoadShares::*figure) {
  return shares ? shareText(shares, figure) + " %" : "-";
}

std::string meterText(const std::optional<IdleMeterReading>& meter) {
  if (!meter) return "idle meter: not running\n";
  return "idle meter: busy " + meterPercentText(meter->load) + " % (min " + meterPercentText(meter->minimum) +
         " %, max " + meterPercentText(meter->maximum) + " %), measured every " + std::to_string(meter->periodMs) +
         " ms\n";
}

std::string text(const StatsRequest& request, RoundTripTime answeredIn, const LoadCounters& interval,
                 const StatsRecord& latest) {
  const std::optional<LoadShares> recent = loadShares(interval);
  const std::optional<LoadShares> overall = loadShares(latest.counters);
  Table table({{"FIGURE", false}, {"LAST " + std::to_string(request.intervalMs) + " MS", true}, {"SINCE START-UP", true}});
  for (const LoadFigure& figure : kLoadFigures) {
    table.add({figure.name, sharesText(recent, figure.share), sharesText(overall, figure.share)});
  }
  for (const TickFigure& figure : kTickFigures) {
    table.add({figure.name, ticksText(interval, figure.ticks), ticksText(latest.counters, figure.ticks)});
  }
  return "node " + nidText(request.nid) + ": the statistics EU answered in " + std::to_string(answeredIn.count()) +
         " us\n" + table.text() + meterText(latest.meter);
}

std::string json(const StatsRequest& request, RoundTripTime answeredIn, const LoadCounters& interval,
                 const StatsRecord& latest) {
  JsonObject object;
  object.number("node", uint64_t{request.nid})
      .number("roundTripUs", uint64_t(answeredIn.count()))
      .number("intervalMs", uint64_t{request.intervalMs})
      .raw("interval", loadJson(interval).text())
      .raw("sinceStartUp", loadJson(latest.counters).text());
  if (!latest.meter) return object.raw("idleMeter", "null").text() + "\n";
  return object.raw("idleMeter", meterJson(*latest.meter).text()).text() + "\n";
}

bool parseStats(const Arguments& arguments, StatsRequest& request, std::string& error) {
  return parseOnlyNid("stats", arguments, request.nid, error) && intervalOption(arguments, request.intervalMs, error);
}

Outcome runStats(const CommonOptions& options, const Arguments& arguments) {
  StatsRequest request;
  std::string error;
  if (!parseStats(arguments, request, error)) return misused(error);
  Session session(options);
  if (!session.open(error)) return failed(error);
  EchoProbe probe(session);
  const RoundTrip trip =
      probe.roundTrips({request.nid}, Session::Clock::now() + std::chrono::milliseconds(options.timeoutMs)).front();
  if (!trip.failure.empty()) return failed(trip.failure);
  if (!trip.time) return failed(noAnswer("node " + nidText(request.nid), options.timeoutMs));
  NodeRamFileReader reader(session, options.timeoutMs);
  StatsRecord first, second;
  if (!readStatsRecord(reader, request.nid, first, error)) return failed(error);
  session.pause(Session::Clock::now() + std::chrono::milliseconds(request.intervalMs));
  if (!readStatsRecord(reader, request.nid, second, error)) return failed(error);
  const LoadCounters interval = ticksBetween(first.counters, second.counters);
  printOut(options.json ? json(request, *trip.time, interval, second) : text(request, *trip.time, interval, second));
  return succeeded();
}

}  // namespace

const Command& statsCommand() {
  static const Command command{"stats",
                               "  stats NID [-i MS]               a node's load: idle, dispatcher overhead, messaging\n",
                               kUsage,
                               kHelp,
                               runStats,
                               {{"-i", true}}};
  return command;
}

}  // namespace Olmctl
