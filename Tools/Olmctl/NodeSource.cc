#include "NodeSource.h"

#include <algorithm>
#include <cstring>
#include <map>

#include "RhyddalHost.h"

// The board's platform library has no such list: there the tool finds none.
extern "C" RHYDDAL_HOST_OPTIONAL int rhyddal_host_live_nodes(struct rhyddal_host_node* nodes, uint32_t capacity);

namespace Olmctl {

namespace {

// A node may start between counting and listing: a little room for it saves a second round.
constexpr uint32_t kRoomForLateStarts = 16;
constexpr int kListAttempts = 3;

}  // namespace

bool HostNodeSource::list(std::vector<ListedNode>& nodes, std::string& error) {
  if (rhyddal_host_live_nodes == nullptr) {
    error = "this platform library cannot list the nodes of its host";
    return false;
  }
  std::vector<rhyddal_host_node> live;
  int count = rhyddal_host_live_nodes(nullptr, 0);
  for (int attempt = 0; attempt < kListAttempts && count >= 0; ++attempt) {
    live.resize(static_cast<size_t>(count) + kRoomForLateStarts);
    count = rhyddal_host_live_nodes(live.data(), static_cast<uint32_t>(live.size()));
    if (count >= 0 && static_cast<size_t>(count) <= live.size()) break;
  }
  if (count < 0) {
    error = std::string("cannot list the nodes of this host: ") + std::strerror(-count);
    return false;
  }
  live.resize(std::min(live.size(), static_cast<size_t>(count)));
  for (const rhyddal_host_node& node : live) nodes.push_back(ListedNode{node.nid, node.waiting, ""});
  return true;
}

std::vector<std::unique_ptr<INodeSource>> nodeSources(const CommonOptions&) {
  std::vector<std::unique_ptr<INodeSource>> sources;
  sources.push_back(std::make_unique<HostNodeSource>());
  return sources;
}

bool listNodes(const std::vector<std::unique_ptr<INodeSource>>& sources, std::vector<ListedNode>& nodes,
               std::string& error) {
  std::map<uint16_t, ListedNode> byNid;
  for (const auto& source : sources) {
    std::vector<ListedNode> listed;
    if (!source->list(listed, error)) return false;
    for (const ListedNode& node : listed) byNid.emplace(node.nid, node);
  }
  nodes.clear();
  for (const auto& entry : byNid) nodes.push_back(entry.second);
  return true;
}

}  // namespace Olmctl
