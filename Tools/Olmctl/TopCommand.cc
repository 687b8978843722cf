// olmctl top: every node's load in a table refreshed in place, like top.
#include <unistd.h>

#include <algorithm>
#include <map>

#include "Commands.h"
#include "Interruption.h"
#include "LoadText.h"
#include "NodeSurvey.h"
#include "RamFileReader.h"

namespace Olmctl {

namespace {

using Clock = Session::Clock;

constexpr uint32_t kUntilInterrupted = 0;
constexpr uint32_t kMaxRefreshes = 1000000000;
// Cursor home, then clear to the end of the screen: the next frame replaces the last in place.
constexpr char kRedraw[] = "\x1b[H\x1b[J";

constexpr char kUsage[] = "Usage: olmctl top [-n REFRESHES] [-i INTERVAL_MS]\n";

constexpr char kHelp[] =
    "Usage: olmctl top [-n REFRESHES] [-i INTERVAL_MS]\n"
    "\n"
    "A table of every node (as olmctl nodes lists them), refreshed in place every\n"
    "INTERVAL_MS (default 1000) until Ctrl-C: whether it answered its echo within the interval\n"
    "(or the timeout, if shorter), its messages waiting and its load over the last interval\n"
    "(idle, dispatcher overhead and messaging callbacks, as olmctl stats explains them). A node\n"
    "that does not answer shows so and holds up nothing; a node whose load cannot be read shows\n"
    "'-', as does a node that appeared in the last interval. The load of a node on another\n"
    "host is read through the RAM file server of its host (olmctl stats --help).\n"
    "\n"
    "  -n REFRESHES    stop after this many tables (scripts, tests)\n"
    "  -i INTERVAL_MS  time between tables\n"
    "\n"
    "Where standard output is not a terminal the tables follow one another; with --json each is\n"
    "one JSON object on a line of its own.\n"
    "\n"
    "Examples:\n"
    "  olmctl top\n"
    "  olmctl top -n 5 --json\n";

struct TopSettings {
  uint32_t refreshes = kUntilInterrupted;
  uint32_t intervalMs = kDefaultIntervalMs;
};

// One node's line of a table.
struct TopRow {
  SurveyedNode node;
  std::optional<LoadShares> shares;
};

// Each node's statistics record as last read, so that every table shows the load of one interval.
class LoadTracker {
 public:
  // The shares since the last reading of the node; nothing the first time, or without a record.
  std::optional<LoadShares> update(IRamFileReader& reader, uint16_t nid) {
    StatsRecord record;
    std::string ignored;
    if (!readStatsRecord(reader, nid, record, ignored)) {
      m_last.erase(nid);
      return std::nullopt;
    }
    const auto last = m_last.find(nid);
    const std::optional<LoadCounters> before =
        last != m_last.end() ? std::optional<LoadCounters>(last->second) : std::nullopt;
    m_last[nid] = record.counters;
    if (!before) return std::nullopt;
    return loadShares(ticksBetween(*before, record.counters));
  }

 private:
  std::map<uint16_t, LoadCounters> m_last;
};

std::string tableText(const std::vector<TopRow>& rows, const TopSettings& settings, uint32_t waitedMs) {
  Table table({{"NODE", false},
               {"ANSWER", false},
               {"WAITING", true},
               {"IDLE %", true},
               {"OVERHEAD %", true},
               {"MESSAGING %", true}});
  for (const TopRow& row : rows) {
    const SurveyedNode& node = row.node;
    table.add({nidText(node.listed.nid), answerText(node, waitedMs),
               node.listed.waiting ? std::to_string(*node.listed.waiting) : "-", shareText(row.shares, &LoadShares::idle),
               shareText(row.shares, &LoadShares::overhead), shareText(row.shares, &LoadShares::messaging)});
  }
  return "olmctl top: " + std::to_string(rows.size()) + " nodes, load over the last " +
         std::to_string(settings.intervalMs) + " ms; Ctrl-C ends\n" + table.text();
}

std::string jsonText(const std::vector<TopRow>& rows, uint32_t refresh, const TopSettings& settings) {
  std::vector<std::string> nodes;
  for (const TopRow& row : rows) {
    JsonObject object = surveyJson(row.node);
    if (!row.node.tool) addShares(object, row.shares);
    nodes.push_back(object.text());
  }
  return JsonObject()
             .number("refresh", uint64_t{refresh})
             .number("intervalMs", uint64_t{settings.intervalMs})
             .raw("nodes", jsonArray(nodes))
             .text() +
         "\n";
}

class Top {
 public:
  Top(Session& session, const TopSettings& settings)
      : m_session(session),
        m_settings(settings),
        m_probe(session),
        m_terminal(!session.options().json && isatty(STDOUT_FILENO) == 1) {}

  // Until the refreshes are done or an interruption; false with error when the nodes cannot be
  // listed.
  bool run(std::string& error) {
    if (!takeFirstReadings(error)) return false;
    Clock::time_point frameAt = Clock::now();
    for (uint32_t refresh = 1; m_settings.refreshes == kUntilInterrupted || refresh <= m_settings.refreshes;
         ++refresh) {
      frameAt += std::chrono::milliseconds(m_settings.intervalMs);
      const Clock::time_point answersBy =
          std::min(frameAt, Clock::now() + std::chrono::milliseconds(m_session.options().timeoutMs));
      std::vector<SurveyedNode> nodes;
      if (!surveyNodes(m_session, m_probe, answersBy, nodes, error)) return false;
      if (!m_session.pause(frameAt) || interrupted()) return true;
      show(rows(nodes), refresh, std::min(m_settings.intervalMs, m_session.options().timeoutMs));
    }
    return true;
  }

 private:
  bool takeFirstReadings(std::string& error) {
    std::vector<ListedNode> nodes;
    if (!listNodes(nodeSources(m_session.options()), nodes, error)) return false;
    NodeRamFileReader reader = readerOfThisFrame();
    for (const ListedNode& node : nodes) m_loads.update(reader, node.nid);
    return true;
  }

  // The nodes of this host as they are now; a RAM file server of another host that does not
  // answer costs one wait a table, within the interval.
  NodeRamFileReader readerOfThisFrame() {
    return NodeRamFileReader(m_session, std::min(m_settings.intervalMs, m_session.options().timeoutMs));
  }

  std::vector<TopRow> rows(const std::vector<SurveyedNode>& nodes) {
    NodeRamFileReader reader = readerOfThisFrame();
    std::vector<TopRow> rows;
    for (const SurveyedNode& node : nodes) {
      rows.push_back(TopRow{node, node.tool ? std::nullopt : m_loads.update(reader, node.listed.nid)});
    }
    return rows;
  }

  void show(const std::vector<TopRow>& rows, uint32_t refresh, uint32_t waited) {
    if (m_session.options().json) {
      printOut(jsonText(rows, refresh, m_settings));
    } else {
      const std::string separator = m_terminal ? kRedraw : refresh == 1 ? "" : "\n";
      printOut(separator + tableText(rows, m_settings, waited));
    }
  }

  Session& m_session;
  TopSettings m_settings;
  EchoProbe m_probe;
  LoadTracker m_loads;
  bool m_terminal;
};

bool parseTop(const Arguments& arguments, TopSettings& settings, std::string& error) {
  if (!arguments.words.empty()) {
    error = "top takes no arguments";
    return false;
  }
  return optionNumber(arguments, "-n", 1, kMaxRefreshes, kUntilInterrupted, settings.refreshes, error) &&
         intervalOption(arguments, settings.intervalMs, error);
}

Outcome runTop(const CommonOptions& options, const Arguments& arguments) {
  TopSettings settings;
  std::string error;
  if (!parseTop(arguments, settings, error)) return misused(error);
  Session session(options);
  if (!session.open(error)) return failed(error);
  InterruptionScope interruptions(session.client(), session.address());
  Top top(session, settings);
  if (!top.run(error)) return failed(error);
  return succeeded();
}

}  // namespace

const Command& topCommand() {
  static const Command command{"top",
                               "  top [-n N] [-i MS]              every node's load, refreshed in place until Ctrl-C\n",
                               kUsage,
                               kHelp,
                               runTop,
                               {{"-n", true}, {"-i", true}}};
  return command;
}

}  // namespace Olmctl
