// Where the tool learns which nodes run: this host's platform library, and for nodes on other
// hosts, what this host's bridge has heard from theirs (the node map's hosts).
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "CommandLine.h"

namespace Olmctl {

struct ListedNode {
  uint16_t nid = 0;
  std::optional<uint32_t> waiting;  // messages sent to it and not yet received, where the source sees them
  std::string host;                 // empty for this host, else its endpoint in the node map
};

class INodeSource {
 public:
  virtual ~INodeSource() = default;
  // The nodes the source knows to run; false with error when it cannot be read.
  virtual bool list(std::vector<ListedNode>& nodes, std::string& error) = 0;
};

// The nodes of this host that the platform library serves (this user's; in RHYDDAL_NAMESPACE
// when set).
class HostNodeSource : public INodeSource {
 public:
  bool list(std::vector<ListedNode>& nodes, std::string& error) override;
};

// The nodes on other hosts that this host's bridge reaches now (none without a node map).
class RemoteNodeSource : public INodeSource {
 public:
  bool list(std::vector<ListedNode>& nodes, std::string& error) override;
};

// The sources the tool reads, this host's first.
std::vector<std::unique_ptr<INodeSource>> nodeSources(const CommonOptions& options);

// Every source's nodes in node id order; a node that several sources list appears once, as the
// first of them lists it. False with the first source's error that could not be read.
bool listNodes(const std::vector<std::unique_ptr<INodeSource>>& sources, std::vector<ListedNode>& nodes,
               std::string& error);

// The node ids tools take for themselves when --nid does not name one, on any host.
inline bool isToolNid(uint16_t nid) {
  const uint16_t inBlock = nid % kToolNidBlock;
  return nid >= kToolNidBlock && inBlock >= kFirstToolNid % kToolNidBlock && inBlock <= kLastToolNid % kToolNidBlock;
}

}  // namespace Olmctl
