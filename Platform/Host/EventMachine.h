// The event machine of one process: its buffer pool, raw-event handles, its own mailbox when it
// is a node's server, the mailboxes of the nodes it sends to, and its loop-back test routes.
// RhyddalApi.cc puts the C interface of libRHYDDAL.so on top of one instance per process.
//
// One process-local lock (ProcessLock.h) serialises the pool, the handles, the directory and the consumer side
// of the own mailbox: each C call takes it once at most, and never while it waits. Threads of one
// process therefore serialise among themselves; nothing they do can hold up another process. The
// runtime's empty poll (vakem_receive with nothing waiting) takes no lock.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <vector>

#include "Bridge.h"
#include "MailboxDirectory.h"
#include "MessagePool.h"
#include "ProcessLock.h"
#include "RawEvents.h"
#include "RemoteNodes.h"

namespace rhyddal {

struct MachineSettings {
  uint64_t poolBytes;
  uint32_t laneBytes;
  uint32_t holdLimit;    // MessagePool's bound on buffers held after a send
  uint64_t spinNs;       // busy-poll before parking in waitForEvent after traffic; 0: never
  uint64_t timerSlackNs; // the server thread's timer slack; 0: the kernel's default
};

class EventMachine {
 public:
  explicit EventMachine(const MachineSettings& settings);

  // Result codes are those documented for the C functions in Rhyddal.h and RhyddalHost.h, and
  // here where they go beyond them.
  // serverInit: 0, -EINVAL, -EALREADY, -EADDRINUSE, -ENOTSUP (see Mailbox::create), other < 0.
  int serverInit(uint32_t nid, uint32_t cpu, uint32_t* handle);
  // After serverInit, with a node map: returns once the host's bridge has heard the other hosts,
  // or after kBridgeSettleWaitNs. Takes no lock.
  void waitForBridgeToSettle();
  // 0, -EINVAL, -ENOSPC.
  int addTestRoute(uint32_t kind, uint32_t from, uint32_t to);
  void* alloc(uint32_t size);
  uint32_t allocDirect(uint32_t size);
  // Judged by MessagePool::release; refused frees get one line on stderr each.
  void free(void* buffer);
  void* receive(uint32_t nid);
  // 0, -EINVAL (also: receiver is on another host and the header names another node), -EMSGSIZE,
  // -EHOSTUNREACH, -ENOBUFS (the sender's lane is full, or every lane of
  // the receiving node belongs to another live sending process), -ENOTCONN, -EPROTO (an
  // incompatible build made the receiving mailbox, or the sender's lane in it was damaged), or
  // the negated errno of a failed shared-memory call.
  int send(void* message, uint32_t receiver);
  int sendLocalUnreliable(void* message);
  int sendDirect(uint32_t event, uint32_t receiver);
  // 0: a message may be waiting; 1: timed out, or no node is served by this process.
  int waitForEvent(uint32_t seconds, uint32_t nanoseconds);
  void* eventPointer(uint32_t event);
  void timingPageInUse();
  // rhyddal_host_alias: 0, -ENOTCONN, -EINVAL, -EADDRINUSE, -EBUSY, other < 0 (NodeAlias.h).
  int alias(uint32_t nid);
  // rhyddal_host_standing_alias: 0, -ENOTCONN, -EINVAL, -EBUSY, other < 0 (NodeAlias.h).
  int standingAlias(uint32_t digit);

  PoolStatistics poolStatistics();

  // Orderly exit of a server: its mailbox name and its aliases go away with it.
  void unlinkOwnObjects();

  // fork(): the lock is taken before and released after, in parent and child alike; the child is
  // not the server of its parent's node and owns none of its parent's lanes.
  void prepareFork();
  void afterForkInParent();
  void afterForkInChild();

 private:
  struct LoopbackRoute {
    uint32_t from;
    uint32_t to;
  };
  static constexpr uint32_t kMaxRoutes = 16;
  static constexpr uint32_t kNoNode = 0x10000;  // above every 16-bit node id

  int sendLocked(void* message, uint32_t receiver);
  int transmit(void* buffer, uint32_t length, RecordKind kind, uint16_t nid);
  bool isLocal(uint16_t nid) const;
  bool placedOnOtherHost(uint16_t nid) const;
  int ownNode(uint16_t* nid, uint32_t* tid);
  bool bridgeSettled();
  bool headerAgreesOffHost(const void* message, uint32_t receiver) const;
  Mailbox* mailboxFor(uint16_t nid, int* error);

  const MachineSettings settings_;
  ProcessLock lock_;
  MessagePool pool_;
  RawEvents events_;
  MailboxDirectory directory_;
  std::unique_ptr<Mailbox> ownMailbox_;
  std::atomic<Mailbox*> own_{nullptr};
  std::atomic<bool> lastWaitEndedWithRecord_{false};
  std::atomic<uint32_t> ownNid_{kNoNode};
  LoopbackRoute routes_[kMaxRoutes] = {};
  std::atomic<uint32_t> routeCount_{0};
  std::atomic<bool> timingPageInUse_{false};
  std::atomic<bool> waitWithoutServerReported_{false};
  // From RHYDDAL_NODE_MAP, set by serverInit: node ids the map places on other hosts go through the
  // host's bridge, while RemoteNodes says they are reachable.
  BridgeSettings bridge_;
  std::unique_ptr<RemoteNodes> remoteNodes_;
  std::vector<uint16_t> aliases_;  // taken by this process's node
  bool standingAliasHeld_ = false;
};

}  // namespace rhyddal
