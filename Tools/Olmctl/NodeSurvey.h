// Every node the sources list, each asked for an echo at once and the answers collected until one
// deadline: what olmctl nodes and olmctl top show of each node.
#pragma once

#include <string>
#include <vector>

#include "Echo.h"
#include "NodeSource.h"
#include "Output.h"
#include "Session.h"

namespace Olmctl {

struct SurveyedNode {
  ListedNode listed;
  bool tool = false;  // another tool: it has no statistics EU, so it is not asked
  RoundTrip trip;
};

// The nodes but the tool itself; false with error when a source cannot be read.
bool surveyNodes(Session& session, EchoProbe& probe, Session::Clock::time_point deadline,
                 std::vector<SurveyedNode>& nodes, std::string& error);

// "in 84 us", "none within 2000 ms", "tool, not asked" or why the echo could not be sent.
std::string answerText(const SurveyedNode& node, uint32_t waitedMs);
// The node, its messages waiting and its answer as JSON members.
JsonObject surveyJson(const SurveyedNode& node);

}  // namespace Olmctl
