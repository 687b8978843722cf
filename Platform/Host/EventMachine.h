// The event machine of one process: its buffer pool, raw-event handles, its own mailbox when it
// is a node's server, the mailboxes of the nodes it sends to, and its loop-back test routes.
// RhyddalApi.cc puts the C interface of libRHYDDAL.so on top of one instance per process.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>

#include "MailboxDirectory.h"
#include "MessagePool.h"
#include "RawEvents.h"

namespace rhyddal {

class EventMachine {
 public:
  EventMachine(uint64_t poolBytes, uint32_t ringBytes);

  // Result codes are those documented for the C functions in Rhyddal.h.
  int serverInit(uint32_t nid, uint32_t cpu, uint32_t* handle);
  int addTestRoute(uint32_t kind, uint32_t from, uint32_t to);
  void* alloc(uint32_t size);
  uint32_t allocDirect(uint32_t size);
  void free(void* buffer);
  void* receive(uint32_t nid);
  int send(void* message, uint32_t receiver);
  int sendLocalUnreliable(void* message);
  int sendDirect(uint32_t event, uint32_t receiver);
  int waitForEvent(uint32_t seconds, uint32_t nanoseconds);
  void* eventPointer(uint32_t event);

  // Orderly exit of a server: its mailbox name goes away with it.
  void unlinkOwnMailbox();

  // fork(): every lock is taken before and released after, in parent and child alike; the child
  // is not the server of its parent's node.
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

  int transmit(void* buffer, uint32_t length, RecordKind kind, uint16_t nid);
  bool isLocal(uint16_t nid) const;

  MessagePool pool_;
  RawEvents events_;
  MailboxDirectory directory_;
  const uint32_t ringBytes_;
  std::mutex serverMutex_;
  std::unique_ptr<Mailbox> ownMailbox_;
  std::atomic<Mailbox*> own_{nullptr};
  std::atomic<uint32_t> ownNid_{kNoNode};
  LoopbackRoute routes_[kMaxRoutes] = {};
  std::atomic<uint32_t> routeCount_{0};
  std::atomic<bool> waitWithoutServerReported_{false};
};

}  // namespace rhyddal
