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
  if (last_ != nullptr && lastNid_ == nid && last_->usable()) return last_->mailbox.get();
  last_ = nullptr;
  const auto cached = cache_.find(nid);
  if (cached != cache_.end()) {
    if (cached->second.usable()) {
      last_ = &cached->second;
      lastNid_ = nid;
      return last_->mailbox.get();
    }
    cache_.erase(cached);
  }
  Route route;
  *error = openRoute(nid, &route);
  if (*error != 0) return nullptr;
  last_ = &(cache_[nid] = std::move(route));
  lastNid_ = nid;
  return last_->mailbox.get();
}

// A node running at nid always wins over an alias of nid.
int MailboxDirectory::openRoute(uint16_t nid, Route* route) {
  int error = 0;
  route->mailbox = liveMailbox(nid, &error);
  if (error != -EHOSTUNREACH) return error;
  if (NodeAlias::open(nid, &route->alias) != 0 || route->alias->target() == nid) return -EHOSTUNREACH;
  route->mailbox = liveMailbox(route->alias->target(), &error);
  if (error != 0) return error;
  return route->alias->leadsTo(*route->mailbox) ? 0 : -EHOSTUNREACH;
}

// The target of an alias is also sent to directly: both routes share one mapping, and so one lane
// and one order.
std::shared_ptr<Mailbox> MailboxDirectory::liveMailbox(uint16_t nid, int* error) {
  const auto cached = cache_.find(nid);
  if (cached != cache_.end() && cached->second.alias == nullptr && cached->second.mailbox->ownerAlive()) {
    *error = 0;
    return cached->second.mailbox;
  }
  std::shared_ptr<Mailbox> mailbox = openLive([nid](std::shared_ptr<Mailbox>* out) { return Mailbox::open(nid, out); }, error);
  if (mailbox != nullptr) cache_[nid] = Route{mailbox, nullptr};
  return mailbox;
}

Mailbox* MailboxDirectory::findBridge(int* error) {
  if (bridge_ != nullptr && bridge_->ownerAlive()) return bridge_.get();
  bridge_ = openLive(Mailbox::openBridge, error);
  return bridge_.get();
}

}  // namespace rhyddal
