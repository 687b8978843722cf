// olmctl nodes: the nodes that run, and whether each answers.
#include <algorithm>

#include "Commands.h"
#include "NodeSurvey.h"

namespace Olmctl {

namespace {

constexpr char kUsage[] = "Usage: olmctl nodes\n";

constexpr char kHelp[] =
    "Usage: olmctl nodes\n"
    "\n"
    "The nodes that run on this host (this user's) and, with a node map (RHYDDAL_NODE_MAP), on\n"
    "the other hosts this host's bridge reaches, in node id order: each node's id, its host\n"
    "(shown once a node of another host is listed: '-' for this\n"
    "one, else its endpoint in the map), the messages sent to it that it has not\n"
    "received yet (known for this host's nodes only), and whether its statistics EU answers an\n"
    "echo within the timeout (all are asked at once). Other tools (node ids 0x1ff0 to 0x1ff7,\n"
    "or the same last ids of other blocks of 0x1000) are listed as such and not asked; the tool\n"
    "itself is left out.\n"
    "\n"
    "Examples:\n"
    "  olmctl nodes\n"
    "  olmctl nodes --timeout 200 --json\n";

std::string table(const std::vector<SurveyedNode>& nodes, uint32_t waitedMs) {
  const bool severalHosts = std::any_of(nodes.begin(), nodes.end(),
                                        [](const SurveyedNode& node) { return !node.listed.host.empty(); });
  std::vector<Table::Column> columns{{"NODE", false}, {"WAITING", true}, {"ANSWER", false}};
  if (severalHosts) columns.insert(columns.begin() + 1, Table::Column{"HOST", false});
  Table table(columns);
  for (const SurveyedNode& node : nodes) {
    const std::string waiting = node.listed.waiting ? std::to_string(*node.listed.waiting) : "-";
    std::vector<std::string> cells{nidText(node.listed.nid), waiting, answerText(node, waitedMs)};
    if (severalHosts) cells.insert(cells.begin() + 1, node.listed.host.empty() ? "-" : node.listed.host);
    table.add(cells);
  }
  return table.text();
}

std::string json(const std::vector<SurveyedNode>& nodes) {
  std::vector<std::string> elements;
  for (const SurveyedNode& node : nodes) elements.push_back(surveyJson(node).text());
  return JsonObject().raw("nodes", jsonArray(elements)).text() + "\n";
}

Outcome runNodes(const CommonOptions& options, const Arguments& arguments) {
  if (!arguments.words.empty()) return misused("nodes takes no arguments");
  Session session(options);
  std::string error;
  if (!session.open(error)) return failed(error);
  EchoProbe probe(session);
  std::vector<SurveyedNode> nodes;
  const auto deadline = Session::Clock::now() + std::chrono::milliseconds(options.timeoutMs);
  if (!surveyNodes(session, probe, deadline, nodes, error)) return failed(error);
  printOut(options.json ? json(nodes) : table(nodes, options.timeoutMs));
  return succeeded();
}

}  // namespace

const Command& nodesCommand() {
  static const Command command{"nodes", "  nodes                           the nodes that run, and whether each answers\n",
                               kUsage, kHelp, runNodes};
  return command;
}

}  // namespace Olmctl
