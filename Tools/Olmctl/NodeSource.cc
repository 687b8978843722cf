#include "NodeSource.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <map>

#include "RhyddalHost.h"

// The board's platform library has no such list: there the tool finds none.
extern "C" RHYDDAL_HOST_OPTIONAL int rhyddal_host_live_nodes(struct rhyddal_host_node* nodes, uint32_t capacity);
extern "C" RHYDDAL_HOST_OPTIONAL int rhyddal_host_remote_nodes(struct rhyddal_host_remote_node* nodes,
                                                               uint32_t capacity);

namespace Olmctl {

namespace {

// A node may start between counting and listing: a little room for it saves a second round.
constexpr uint32_t kRoomForLateStarts = 16;
constexpr int kListAttempts = 3;

// The platform's listing functions count first and write what fits: a node may start between
// counting and listing. Returns the count, or the negated errno of the failed listing.
template <typename Entry>
int listAll(int (*listing)(Entry*, uint32_t), std::vector<Entry>& entries) {
  int count = listing(nullptr, 0);
  for (int attempt = 0; attempt < kListAttempts && count >= 0; ++attempt) {
    entries.resize(static_cast<size_t>(count) + kRoomForLateStarts);
    count = listing(entries.data(), static_cast<uint32_t>(entries.size()));
    if (count >= 0 && static_cast<size_t>(count) <= entries.size()) break;
  }
  if (count >= 0) entries.resize(std::min(entries.size(), static_cast<size_t>(count)));
  return count;
}

}  // namespace

bool HostNodeSource::list(std::vector<ListedNode>& nodes, std::string& error) {
  if (rhyddal_host_live_nodes == nullptr) {
    error = "this platform library cannot list the nodes of its host";
    return false;
  }
  std::vector<rhyddal_host_node> live;
  const int count = listAll(rhyddal_host_live_nodes, live);
  if (count < 0) {
    error = std::string("cannot list the nodes of this host: ") + std::strerror(-count);
    return false;
  }
  for (const rhyddal_host_node& node : live) nodes.push_back(ListedNode{node.nid, node.waiting, ""});
  return true;
}

bool RemoteNodeSource::list(std::vector<ListedNode>& nodes, std::string& error) {
  if (rhyddal_host_remote_nodes == nullptr) return true;  // a platform without other hosts
  std::vector<rhyddal_host_remote_node> remote;
  const int count = listAll(rhyddal_host_remote_nodes, remote);
  if (count == -EINVAL) {
    error = "cannot list the nodes of other hosts: the node map (RHYDDAL_NODE_MAP) cannot be read";
    return false;
  }
  if (count < 0) {
    error = std::string("cannot list the nodes of other hosts: ") + std::strerror(-count);
    return false;
  }
  for (const rhyddal_host_remote_node& node : remote) {
    const std::string endpoint(node.endpoint, strnlen(node.endpoint, sizeof(node.endpoint)));
    nodes.push_back(ListedNode{node.nid, std::nullopt, endpoint});
  }
  return true;
}

std::vector<std::unique_ptr<INodeSource>> nodeSources(const CommonOptions&) {
  std::vector<std::unique_ptr<INodeSource>> sources;
  sources.push_back(std::make_unique<HostNodeSource>());
  sources.push_back(std::make_unique<RemoteNodeSource>());
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
