// Aliases of node ids: a node may ask that what this host's processes send to a node id where no
// node runs reach its own mailbox instead (rhyddal_host_alias). A controller collects the system log
// of node groups without a collector of their own this way: the nodes keep sending to their
// group's collector id, and nothing in them changes.
//
// An alias is a small shared-memory object per aliased node id, "<prefix>alias-<nid>", naming the
// target node id and the thread id of the target's server thread. Senders map it once and check
// it on every send with a few loads: it holds while it is not revoked and the target's mailbox is
// owned by that very thread. A node that starts at the aliased id revokes it, so a real node
// always wins; a target that dies makes it void at once, without anybody cleaning up.
//
// Taking and revoking run under the lock node start-ups take, so a node starting at an id and an
// alias being taken for it are never interleaved.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

namespace rhyddal {

class Mailbox;

constexpr uint32_t kAliasMagic = 0x41594852;  // "RHYA"
constexpr uint32_t kAliasLayoutVersion = 1;

struct AliasRecord {
  std::atomic<uint32_t> magic;  // stored last (release): a record whose magic reads right is complete
  uint32_t layoutVersion;
  uint32_t alias;
  uint32_t target;
  uint32_t targetTid;  // the target mailbox's owner thread: a later node at the target id is not it
  std::atomic<uint32_t> revoked;
};

// Makes alias lead to the mailbox of target, owned by the thread targetTid. Returns 0 (also when
// this very alias is in place already), -EADDRINUSE when a live node runs at alias, -EBUSY when
// the alias leads to another live node, -EINVAL for an unusable RHYDDAL_NAMESPACE, or the negated
// errno of a failed system call.
int takeAlias(uint16_t alias, uint16_t target, uint32_t targetTid);
// A node starting at nid takes its id back: an alias of nid ends at once for every sender.
void revokeAlias(uint16_t nid);
// Ends alias if it is still the one target's thread targetTid took (an orderly exit).
void releaseAlias(uint16_t alias, uint16_t target, uint32_t targetTid);

// The standing alias: while target's thread targetTid lives, every node that starts on this host
// at an id nid gives it the alias of its group's id (nid & 0xFFF0) | digit as it starts, where no
// node runs there and nobody else holds that alias. A log collector so gets the lines of a group
// from its first node's first line on, not only from when it notices the group. One per host
// namespace ("<prefix>standing-alias", an alias record whose alias field holds the digit).
// Returns 0 (also when target holds it already; a new digit replaces the old), -EBUSY when
// another live node holds it, -EINVAL for an unusable RHYDDAL_NAMESPACE, or the negated errno of
// a failed system call.
int takeStandingAlias(uint16_t digit, uint16_t target, uint32_t targetTid);
// Ends the standing alias if target's thread targetTid holds it (an orderly exit).
void releaseStandingAlias(uint16_t target, uint32_t targetTid);
// Called by the node starting at nid: takes the alias the standing alias asks for, if mayAlias
// agrees to its id (the node map may place it on another host).
void takeStandingAliasFor(uint16_t nid, const std::function<bool(uint16_t)>& mayAlias);
// Releases every alias target's thread targetTid holds, however it came by them.
void releaseAliasesOf(uint16_t target, uint32_t targetTid);

// An alias as a sender maps it.
class NodeAlias {
 public:
  // Maps the alias of nid. Returns 0, -EHOSTUNREACH when there is none (or it is still being
  // written, or of an incompatible build), -EINVAL for an unusable RHYDDAL_NAMESPACE, or the
  // negated errno of a failed system call.
  static int open(uint16_t nid, std::shared_ptr<NodeAlias>* out);
  ~NodeAlias();
  NodeAlias(const NodeAlias&) = delete;
  NodeAlias& operator=(const NodeAlias&) = delete;

  uint16_t target() const { return static_cast<uint16_t>(record_->target); }
  // Whether sends to the alias go to mailbox now: a few loads, no system call.
  bool leadsTo(const Mailbox& mailbox) const;

 private:
  explicit NodeAlias(const AliasRecord* record) : record_(record) {}
  const AliasRecord* record_;
};

// Node ids whose alias object exists (valid or not).
std::vector<uint16_t> listAliasNids();

}  // namespace rhyddal
