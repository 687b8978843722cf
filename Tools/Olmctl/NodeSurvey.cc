#include "NodeSurvey.h"

namespace Olmctl {

bool surveyNodes(Session& session, EchoProbe& probe, Session::Clock::time_point deadline,
                 std::vector<SurveyedNode>& nodes, std::string& error) {
  std::vector<ListedNode> listed;
  if (!listNodes(nodeSources(session.options()), listed, error)) return false;
  nodes.clear();
  std::vector<uint16_t> asked;
  for (const ListedNode& node : listed) {
    if (node.nid == session.nid()) continue;
    nodes.push_back(SurveyedNode{node, isToolNid(node.nid), RoundTrip{node.nid, std::nullopt, ""}});
    if (!nodes.back().tool) asked.push_back(node.nid);
  }
  const std::vector<RoundTrip> trips = probe.roundTrips(asked, deadline);
  size_t next = 0;
  for (SurveyedNode& node : nodes) {
    if (!node.tool) node.trip = trips[next++];
  }
  return true;
}

std::string answerText(const SurveyedNode& node, uint32_t waitedMs) {
  if (node.tool) return "tool, not asked";
  if (node.trip.time) return "in " + std::to_string(node.trip.time->count()) + " us";
  if (!node.trip.failure.empty()) return node.trip.failure;
  return "none within " + std::to_string(waitedMs) + " ms";
}

JsonObject surveyJson(const SurveyedNode& node) {
  JsonObject object;
  object.number("node", uint64_t{node.listed.nid});
  if (!node.listed.host.empty()) object.string("host", node.listed.host);
  if (node.listed.waiting) object.number("waiting", uint64_t{*node.listed.waiting});
  if (node.tool) return object.boolean("tool", true);
  object.boolean("answers", node.trip.time.has_value());
  if (node.trip.time) object.number("roundTripUs", uint64_t(node.trip.time->count()));
  if (!node.trip.failure.empty()) object.string("failure", node.trip.failure);
  return object;
}

}  // namespace Olmctl
