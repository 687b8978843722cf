// The system log collector of the controller node: the EU at CPID 0x0601 that prints the lines
// every node sends to its group's collector, with the sending node and the LTE time of arrival,
// prints nodes appearing and going, and passes copies to followers (SysLogFollow.h).
//
// Nodes send their lines to the node id ending in D of their group. Every second the collector
// reads which nodes run on its host and takes the alias of the collector id of each group that has
// no node there (rhyddal_host_alias), so those lines reach it while nothing in the nodes changes.
// A node that starts after the collector gives it that alias itself as it starts (the collector
// holds the host's standing alias, rhyddal_host_standing_alias), so even a new group's first line
// arrives, before the collector has noticed the group.
//
// A system across hosts has one collector per host: the controller's, and an agent on every other
// host that takes the aliases of its own host's groups and passes each line on to the controller's
// collector, with the sending node's address, as if the node had sent it there itself.
//
// What it needs from outside comes through Hooks, so that tests give their own.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "IAaSysDispatcherSicHandler.h"

class SysLogCollector : public Olm::IAaSysDispatcherSicHandler {
 public:
  struct Hooks {
    // The node ids running now; false when they cannot be read.
    std::function<bool(std::vector<uint16_t>& nodes)> liveNodes;
    // Makes sends to node id nid reach this node: rhyddal_host_alias's result. Empty where the
    // platform has no aliases.
    std::function<int(uint16_t nid)> takeAlias;
    // Makes every node that starts later give this node its group's id ending in digit:
    // rhyddal_host_standing_alias's result. Empty where the platform has no aliases.
    std::function<int(uint16_t digit)> takeStandingAlias;
    // Sends a message the collector made at once, never waiting: 0 when it is gone, else a
    // negative errno, and the message is still the caller's.
    std::function<int(void* msg)> transmit;
    // One line of output, without its line feed.
    std::function<void(const std::string& line)> print;
    // The nodes on other hosts, reported appearing and going like this host's (never aliased:
    // their lines come from their hosts' agents); empty where nobody asks.
    std::function<bool(std::vector<uint16_t>& nodes)> remoteNodes;
    // Quiet: the lines are not printed (followers still get them).
    bool quiet = false;
    // An agent's controller node: every line collected here goes on to its collector. 0: none.
    uint16_t relayTo = 0;
  };

  explicit SysLogCollector(Hooks hooks);

  // The first look at the running nodes, and the timer of the next ones. Call once it is bound.
  void start();

  int PrioritizeMessage(void*& msg) override;
  void ProcessMessage(void*& msg) override;

  // Followers' addresses, in the order they came.
  std::vector<uint32_t> followers() const;

 private:
  struct LteStamp {
    uint32_t hyperFrame = 0, frame = 0, slot = 0, basicTU = 0;
  };
  struct Follower {
    uint32_t address;
    std::vector<uint16_t> nids;  // empty: every node
    bool wants(uint16_t nid) const;
  };
  enum class GroupState { kUnknown, kAliased, kOwnCollector, kFailed };

  void rescan();
  void noteNodes(const std::vector<uint16_t>& nodes);
  void takeAliases(const std::vector<uint16_t>& nodes);
  void collect(const void* msg);
  void relay(const void* msg);
  void follow(const void* msg);
  void cancel(uint32_t address);
  std::vector<Follower>::iterator findFollower(uint32_t address);
  void forward(uint32_t kind, uint16_t nid, const LteStamp& stamp, const std::string& text);
  bool transmitTo(uint32_t address, void* msg);
  void acknowledge(uint32_t address, uint32_t status, uint32_t followed, bool started);
  void drop(uint32_t address, int error);
  static LteStamp lteNow();
  void report(const char* format, ...) __attribute__((format(printf, 2, 3)));

  Hooks m_hooks;
  std::vector<uint16_t> m_nodes;  // sorted
  std::map<uint16_t, GroupState> m_groups;  // by the group's collector node id
  std::vector<Follower> m_followers;
  bool m_tableUnreadableReported = false;
  int m_relayError = 0;  // of the last line passed on; reported when it changes
};
