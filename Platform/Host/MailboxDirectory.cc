#include "MailboxDirectory.h"

#include <cerrno>

namespace rhyddal {

Mailbox* MailboxDirectory::find(uint16_t nid, int* error) {
  if (last_ != nullptr && last_->nid() == nid && last_->ownerAlive()) return last_;
  last_ = nullptr;
  const auto cached = cache_.find(nid);
  if (cached != cache_.end()) {
    if (cached->second->ownerAlive()) return last_ = cached->second.get();
    cache_.erase(cached);
  }
  std::shared_ptr<Mailbox> mailbox;
  *error = Mailbox::open(nid, &mailbox);
  if (*error != 0) return nullptr;
  if (!mailbox->ownerAlive()) {
    *error = -EHOSTUNREACH;
    return nullptr;
  }
  cache_[nid] = mailbox;
  return last_ = mailbox.get();
}

}  // namespace rhyddal
