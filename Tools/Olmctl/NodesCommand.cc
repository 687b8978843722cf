// olmctl nodes: the nodes that run, and whether each answers.
#include "Commands.h"
#include "NodeSurvey.h"

namespace Olmctl {

namespace {

constexpr char kUsage[] = "Usage: olmctl nodes\n";

constexpr char kHelp[] =
    "Usage: olmctl nodes\n"
    "\n"
    "The nodes that run on this host (this user's), in node id order: each node's id, the\n"
    "messages sent to it that it has not received yet, and whether its statistics EU answers an\n"
    "echo within the timeout (all are asked at once). Other tools (node ids 0x1ff0 to 0x1ff7)\n"
    "are listed as such and not asked; the tool itself is left out.\n"
    "\n"
    "Examples:\n"
    "  olmctl nodes\n"
    "  olmctl nodes --timeout 200 --json\n";

std::string table(const std::vector<SurveyedNode>& nodes, uint32_t waitedMs) {
  Table table({{"NODE", false}, {"WAITING", true}, {"ANSWER", false}});
  for (const SurveyedNode& node : nodes) {
    const std::string waiting = node.listed.waiting ? std::to_string(*node.listed.waiting) : "-";
    table.add({nidText(node.listed.nid), waiting, answerText(node, waitedMs)});
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
