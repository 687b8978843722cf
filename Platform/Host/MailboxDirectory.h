// The mailboxes of other nodes this process sends to, mapped once and kept, each with the lane
// this process claimed in it.
//
// A cached mapping is used only while its owner lives (one load, no system call). When the owner
// is gone the mapping is dropped and the name opened again, which finds the mailbox of a node
// restarted with the same id, or nothing. Not thread-safe: the event machine's lock covers it.
#pragma once

#include <cstdint>
#include <memory>
#include <unordered_map>

#include "Mailbox.h"

namespace rhyddal {

class MailboxDirectory {
 public:
  // The mailbox of a live node nid, or null with *error set to -EHOSTUNREACH (no node runs
  // there), -EPROTO (made by an incompatible build), -EINVAL (unusable RHYDDAL_NAMESPACE) or the
  // negated errno of a failed system call.
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
  std::unordered_map<uint16_t, std::shared_ptr<Mailbox>> cache_;
  Mailbox* last_ = nullptr;  // the last one found: a node mostly sends to the same peer again
  std::shared_ptr<Mailbox> bridge_;
};

}  // namespace rhyddal
