#include "MailboxDirectory.h"

#include <cerrno>

namespace rhyddal {

std::shared_ptr<Mailbox> MailboxDirectory::find(uint16_t nid, int* error) {
  std::lock_guard<std::mutex> guard(mutex_);
  const auto cached = cache_.find(nid);
  if (cached != cache_.end()) {
    if (cached->second->ownerAlive()) return cached->second;
    cache_.erase(cached);
  }
  return reopen(nid, error);
}

std::shared_ptr<Mailbox> MailboxDirectory::reopen(uint16_t nid, int* error) {
  std::shared_ptr<Mailbox> mailbox;
  *error = Mailbox::open(nid, &mailbox);
  if (*error != 0) return nullptr;
  if (!mailbox->ownerAlive()) {
    *error = -EHOSTUNREACH;
    return nullptr;
  }
  cache_[nid] = mailbox;
  return mailbox;
}

}  // namespace rhyddal
