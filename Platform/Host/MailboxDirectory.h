// The mailboxes of other nodes this process sends to, mapped once and kept.
//
// A cached mapping is used only while its owner lives (a trylock, no system call). When the owner
// is gone the mapping is dropped and the name opened again, which finds the mailbox of a node
// restarted with the same id, or nothing.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <unordered_map>

#include "Mailbox.h"

namespace rhyddal {

class MailboxDirectory {
 public:
  // The mailbox of a live node nid, or null with *error set to -EHOSTUNREACH (no node runs
  // there), -EPROTO (made by an incompatible build) or another negative errno.
  std::shared_ptr<Mailbox> find(uint16_t nid, int* error);

  void lockForFork() { mutex_.lock(); }
  void unlockAfterFork() { mutex_.unlock(); }

 private:
  std::shared_ptr<Mailbox> reopen(uint16_t nid, int* error);

  std::mutex mutex_;
  std::unordered_map<uint16_t, std::shared_ptr<Mailbox>> cache_;
};

}  // namespace rhyddal
