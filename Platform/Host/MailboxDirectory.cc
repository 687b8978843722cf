#include "MailboxDirectory.h"

#include <cerrno>

namespace rhyddal {
namespace {

// The mailbox open gives, if its owner lives; else null with *error set.
template <typename Open>
std::shared_ptr<Mailbox> openLive(Open open, int* error) {
  std::shared_ptr<Mailbox> mailbox;
  *error = open(&mailbox);
  if (*error != 0) return nullptr;
  if (!mailbox->ownerAlive()) {
    *error = -EHOSTUNREACH;
    return nullptr;
  }
  return mailbox;
}

}  // namespace

Mailbox* MailboxDirectory::find(uint16_t nid, int* error) {
  if (last_ != nullptr && last_->nid() == nid && last_->ownerAlive()) return last_;
  last_ = nullptr;
  const auto cached = cache_.find(nid);
  if (cached != cache_.end()) {
    if (cached->second->ownerAlive()) return last_ = cached->second.get();
    cache_.erase(cached);
  }
  std::shared_ptr<Mailbox> mailbox = openLive([nid](std::shared_ptr<Mailbox>* out) { return Mailbox::open(nid, out); }, error);
  if (mailbox == nullptr) return nullptr;
  cache_[nid] = mailbox;
  return last_ = mailbox.get();
}

Mailbox* MailboxDirectory::findBridge(int* error) {
  if (bridge_ != nullptr && bridge_->ownerAlive()) return bridge_.get();
  bridge_ = openLive(Mailbox::openBridge, error);
  return bridge_.get();
}

}  // namespace rhyddal
