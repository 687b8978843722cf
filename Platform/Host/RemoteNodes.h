// The node ids on other hosts that this host's bridge can reach now: one bit per node id in a
// small shared-memory object, written by the bridge only and read by every sender of the host.
//
// A send to a node id the map places elsewhere first reads its bit (one load, no system call), so
// a send to a node that is not running, or to a host that is down or silent, fails at once with
// the error a dead local node gives, and the runtime frees the message as it always does.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>

namespace rhyddal {

class RemoteNodes {
 public:
  static constexpr size_t kWords = 0x10000 / 64;
  static constexpr size_t kBytes = kWords * sizeof(uint64_t);

  // Over words the caller keeps (kWords of them), for tests and the fuzz target.
  explicit RemoteNodes(std::atomic<uint64_t>* words) : words_(words), mapped_(false) {}
  // Maps this host's object, creating it all clear when it does not exist yet. Returns 0 or the
  // negated errno of the failed call (-EINVAL for an unusable RHYDDAL_NAMESPACE).
  static int open(std::unique_ptr<RemoteNodes>* out);
  ~RemoteNodes();
  RemoteNodes(const RemoteNodes&) = delete;
  RemoteNodes& operator=(const RemoteNodes&) = delete;

  // Acquire: pairs with the bridge's release when it marks a node reachable.
  bool reachable(uint16_t nid) const {
    return (words_[nid / 64].load(std::memory_order_acquire) >> (nid % 64) & 1) != 0;
  }
  // The bridge's side. Atomic per bit: the bridge's threads set and clear bits of different hosts.
  void set(uint16_t nid, bool reachable);
  void clearAll();

 private:
  RemoteNodes(std::atomic<uint64_t>* words, bool mapped) : words_(words), mapped_(mapped) {}
  std::atomic<uint64_t>* words_;
  bool mapped_;
};

}  // namespace rhyddal
