// The mailboxes of other nodes this process sends to, mapped once and kept, each with the lane
// this process claimed in it.
//
// A cached mapping is used only while its owner lives (one load, no system call). When the owner
// is gone the mapping is dropped and the name opened again, which finds the mailbox of a node
// restarted with the same id, or nothing. A node id where no node runs may have an alias
// (NodeAlias.h): its sends then go to the alias's target, through the same mapping and lane as the
// target's own, for as long as the alias holds. Not thread-safe: the event machine's lock covers it.
#pragma once

#include <cstdint>
#include <memory>
#include <unordered_map>

#include "Mailbox.h"
#include "NodeAlias.h"

namespace rhyddal {

class MailboxDirectory {
 public:
  // The mailbox of a live node nid, or of the live node nid's alias leads to, or null with *error
  // set to -EHOSTUNREACH (no node runs there), -EPROTO (made by an incompatible build), -EINVAL
  // (unusable RHYDDAL_NAMESPACE) or the negated errno of a failed system call.
  Mailbox* find(uint16_t nid, int* error);
  // The host's bridge mailbox while the bridge lives, with the same errors.
  Mailbox* findBridge(int* error);

  // In a forked child: the lanes belong to the parent.
  void clear() {
    cache_.clear();
    last_ = nullptr;
    bridge_.reset();
  }

 private:
  // Where sends to one node id go: its own mailbox, or through its alias to the target's.
  struct Route {
    std::shared_ptr<Mailbox> mailbox;
    std::shared_ptr<NodeAlias> alias;
    bool usable() const { return alias == nullptr ? mailbox->ownerAlive() : alias->leadsTo(*mailbox); }
  };

  int openRoute(uint16_t nid, Route* route);
  std::shared_ptr<Mailbox> liveMailbox(uint16_t nid, int* error);

  std::unordered_map<uint16_t, Route> cache_;  // element addresses stay put across insertions
  const Route* last_ = nullptr;  // the last one found: a node mostly sends to the same peer again
  uint16_t lastNid_ = 0;
  std::shared_ptr<Mailbox> bridge_;
};

}  // namespace rhyddal
