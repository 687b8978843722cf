// The node ids on other hosts that this host's bridge can reach now: one bit per node id in a
// small shared-memory object, written by the bridge only and read by every sender of the host.
//
// A send to a node id the map places elsewhere first reads its bit (one load, no system call), so
// a send to a node that is not running, or to a host that is down or silent, fails at once with
// the error a dead local node gives, and the runtime frees the message as it always does.
//
// After the bits, one word tells how far the host's bridge has come: a node starting waits (a
// bounded time) until the bridge has heard the other hosts, so the messages it sends as it starts
// do not fail only because the bridge has not learned yet which of their nodes run.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

namespace rhyddal {

class RemoteNodes {
 public:
  static constexpr size_t kWords = 0x10000 / 64;  // the bits
  static constexpr size_t kStateWord = kWords;
  // Which of the reachable ids are aliases a node of their host holds, not nodes.
  static constexpr size_t kAliasWords = kStateWord + 1;
  // This host's index in the map, plus one; 0 until a bridge has started here.
  static constexpr size_t kOwnHostWord = kAliasWords + kWords;
  static constexpr size_t kTotalWords = kOwnHostWord + 1;
  static constexpr size_t kBytes = kTotalWords * sizeof(uint64_t);

  enum class BridgeState : uint64_t {
    kNone = 0,      // no bridge has started on this host yet
    kStarting = 1,  // a bridge started and has not heard every other host yet
    kSettled = 2,   // it has, or has waited long enough for those that are down
  };

  // Over words the caller keeps (kTotalWords of them), for tests and the fuzz target.
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
  // Every reachable node id, ascending.
  std::vector<uint16_t> reachableNids() const;
  // Acquire: pairs with the release of setAlias. Set only while reachable(nid) is.
  bool isAlias(uint16_t nid) const {
    return (words_[kAliasWords + nid / 64].load(std::memory_order_acquire) >> (nid % 64) & 1) != 0;
  }
  void setAlias(uint16_t nid, bool alias);

  void setBridgeState(BridgeState state) { words_[kStateWord].store(static_cast<uint64_t>(state), std::memory_order_release); }
  BridgeState bridgeState() const { return static_cast<BridgeState>(words_[kStateWord].load(std::memory_order_acquire)); }

  // Which host of the map this one is, as its bridge knows it: kNoHost before one started.
  void setOwnHost(uint8_t host) { words_[kOwnHostWord].store(uint64_t{host} + 1, std::memory_order_release); }
  uint8_t ownHost() const {
    const uint64_t word = words_[kOwnHostWord].load(std::memory_order_acquire);
    return word == 0 || word > kNoHostIndex ? kNoHostIndex : static_cast<uint8_t>(word - 1);
  }
  static constexpr uint8_t kNoHostIndex = 0xFF;  // NodeMap::kNoHost

 private:
  RemoteNodes(std::atomic<uint64_t>* words, bool mapped) : words_(words), mapped_(mapped) {}
  // Atomic per bit: the bridge's threads set and clear bits of different hosts.
  void setBit(size_t firstWord, uint16_t nid, bool value);
  std::atomic<uint64_t>* words_;
  bool mapped_;
};

}  // namespace rhyddal
