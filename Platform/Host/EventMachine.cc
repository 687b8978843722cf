#include "EventMachine.h"

#include <pthread.h>
#include <sched.h>
#include <sys/prctl.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <utility>

#include "Futex.h"
#include "HostEnvironment.h"
#include "NodeAlias.h"
#include "PhysicalMemory.h"
#include "RadioClock.h"
#include "SysComFields.h"

namespace rhyddal {
namespace {

constexpr uint32_t kLoopbackRouteKind = 1;
constexpr uint32_t kMaxNid = 0xFFFF;
constexpr uint32_t kMaxStandingDigit = 0xF;  // the last hexadecimal digit of a node id
constexpr uint32_t kHandleTag = 0x00010000;  // keeps the transport handle non-zero for node 0
constexpr int kTimedOut = 1;
// With a map, the process may run the host's bridge, whose threads a spinning node would keep off
// its CPU at every hop of a message to or from another host: it gives way at every check.
constexpr uint32_t kSpinYieldEveryBesideBridge = 1;
// A new bridge settles within a second (Bridge.cc, kSettleNs) of winning its election.
constexpr uint64_t kBridgeSettleWaitNs = uint64_t{1500} * 1000 * 1000;
constexpr uint64_t kBridgeSettlePollNs = 2 * 1000 * 1000;

uint16_t nidOf(uint32_t sicAddress) { return static_cast<uint16_t>(sicAddress >> 16); }

// On a development host several nodes share a few cores, and a node's CPU defaults to 0, so
// pinning is done only when RHYDDAL_PIN_CPU=1 asks for it: otherwise every node would be stacked on
// CPU 0. A CPU that does not exist, or that this process may not use, leaves the thread as it was:
// the kernel refuses the mask and the refusal is ignored. (Checking against the thread's current
// mask instead would wrongly refuse a CPU that an inherited pinning merely excludes.)
void pinCallingThread(uint32_t cpu) {
  if (environmentNumber("RHYDDAL_PIN_CPU", 0, 0, 1) == 0) return;
  if (cpu >= CPU_SETSIZE) return;
  cpu_set_t only;
  CPU_ZERO(&only);
  CPU_SET(cpu, &only);
  pthread_setaffinity_np(pthread_self(), sizeof(only), &only);
}

int pushResultCode(PushResult result) {
  switch (result) {
    case PushResult::kDelivered:
      return 0;
    case PushResult::kFull:
    case PushResult::kNoLane:
      return -ENOBUFS;
    case PushResult::kTooLarge:
      return -EMSGSIZE;
    case PushResult::kLaneDamaged:
      break;
  }
  return -EPROTO;
}

const char* refusalReason(ReleaseResult result) {
  switch (result) {
    case ReleaseResult::kRefusedAlreadyFree:
      return "already free";
    case ReleaseResult::kRefusedSentAndFreed:
      return "sent and already freed once";
    case ReleaseResult::kRefusedForeign:
      return "not an event-machine buffer";
    default:
      return nullptr;
  }
}

}  // namespace

EventMachine::EventMachine(const MachineSettings& settings)
    : settings_(settings), pool_(settings.poolBytes, settings.holdLimit) {}

// The timing updater starts before the thread is pinned, so it does not inherit the pinning and
// compete with the node's own thread for its CPU. The timer slack is the calling thread's: the
// kernel's default (50 us) would make every timed wait of the node's loop that much late.
int EventMachine::serverInit(uint32_t nid, uint32_t cpu, uint32_t* handle) {
  if (handle == nullptr || nid > kMaxNid) return -EINVAL;
  ProcessLockGuard guard(lock_);
  if (ownMailbox_ != nullptr) return -EALREADY;
  BridgeSettings bridge;
  std::unique_ptr<RemoteNodes> remoteNodes;
  int rc = nodeMapFromEnvironment(static_cast<uint16_t>(nid), &bridge);
  if (rc == 0 && bridge.map != nullptr) rc = RemoteNodes::open(&remoteNodes);
  if (rc == 0) rc = Mailbox::create(static_cast<uint16_t>(nid), settings_.laneBytes, &ownMailbox_);
  if (rc != 0) return rc;
  revokeAlias(static_cast<uint16_t>(nid));
  bridge.laneBytes = settings_.laneBytes;
  bridge_ = bridge;
  takeStandingAliasFor(static_cast<uint16_t>(nid), [this](uint16_t alias) { return !placedOnOtherHost(alias); });
  remoteNodes_ = std::move(remoteNodes);
  startBridgeCandidate(bridge_);
  if (timingPageInUse_.load()) ownMailbox_->markTimingPageInUse();
  ownNid_.store(nid, std::memory_order_relaxed);
  own_.store(ownMailbox_.get(), std::memory_order_release);
  startTimingUpdater();
  if (timingPageInUse_.load()) wakeTimingUpdater();
  if (settings_.timerSlackNs != 0) prctl(PR_SET_TIMERSLACK, static_cast<unsigned long>(settings_.timerSlackNs), 0, 0, 0);
  pinCallingThread(cpu);
  *handle = kHandleTag | nid;
  return 0;
}

// A node sends its first messages, to other hosts too, as it starts (announcing itself to the
// broker server, registering its parameters): while the host's bridge has not yet heard a host,
// they would fail as if no node ran there. A bridge that cannot start must not keep the node from
// running, hence the bound.
void EventMachine::waitForBridgeToSettle() {
  if (remoteNodes_ == nullptr) return;
  const uint64_t deadline = monotonicNanoseconds() + kBridgeSettleWaitNs;
  while (!bridgeSettled() && monotonicNanoseconds() < deadline) {
    const timespec pause{0, static_cast<long>(kBridgeSettlePollNs)};
    nanosleep(&pause, nullptr);
  }
}

// A settled state left by a bridge that has died is not this host's bridge's: the mailbox of a
// live bridge says the state is current.
bool EventMachine::bridgeSettled() {
  if (remoteNodes_->bridgeState() != RemoteNodes::BridgeState::kSettled) return false;
  ProcessLockGuard guard(lock_);
  int error = 0;
  return directory_.findBridge(&error) != nullptr;
}

// Routes are appended and never removed: readers on the send path take the count with acquire
// (pairing with the release store here) and read only entries published before it.
int EventMachine::addTestRoute(uint32_t kind, uint32_t from, uint32_t to) {
  if (kind != kLoopbackRouteKind || from > to || to > kMaxNid) return -EINVAL;
  ProcessLockGuard guard(lock_);
  const uint32_t count = routeCount_.load(std::memory_order_relaxed);
  if (count == kMaxRoutes) return -ENOSPC;
  routes_[count] = LoopbackRoute{from, to};
  routeCount_.store(count + 1, std::memory_order_release);
  return 0;
}

void* EventMachine::alloc(uint32_t size) {
  ProcessLockGuard guard(lock_);
  return pool_.allocate(size);
}

uint32_t EventMachine::allocDirect(uint32_t size) {
  ProcessLockGuard guard(lock_);
  void* data = pool_.allocate(size);
  if (data == nullptr) return 0;
  const uint32_t handle = events_.bind(data);
  if (handle == 0) {
    pool_.release(data);
    return 0;
  }
  pool_.setEventHandle(data, handle);
  return handle;
}

void EventMachine::free(void* buffer) {
  if (buffer == nullptr) return;
  ReleaseResult result;
  {
    ProcessLockGuard guard(lock_);
    uint32_t boundEvent = 0;
    result = pool_.release(buffer, &boundEvent);
    if (boundEvent != 0) events_.unbind(boundEvent);
  }
  if (const char* reason = refusalReason(result)) {
    std::fprintf(stderr, "rhyddal: vakem_free(%p) refused: %s\n", buffer, reason);
  }
}

void* EventMachine::receive(uint32_t nid) {
  Mailbox* own = own_.load(std::memory_order_acquire);
  if (own == nullptr || nid != ownNid_.load(std::memory_order_relaxed) || !own->worthPopping()) return nullptr;
  ProcessLockGuard guard(lock_);
  return own->pop(pool_);
}

int EventMachine::send(void* message, uint32_t receiver) {
  ProcessLockGuard guard(lock_);
  return sendLocked(message, receiver);
}

int EventMachine::sendLocked(void* message, uint32_t receiver) {
  BufferInfo info{};
  if (message == nullptr || !pool_.inspect(message, &info)) return -EINVAL;
  const uint32_t length = sysComTotalLength(message);
  if (length < kSysComHeaderBytes || length > info.capacity) return -EMSGSIZE;
  if (!headerAgreesOffHost(message, receiver)) return -EINVAL;
  return transmit(message, length, RecordKind::kMessage, nidOf(receiver));
}

// Across hosts a message travels to the node its header names (the bridges read nothing else), so
// a receiver that names another node there would send it somewhere the caller did not ask for.
bool EventMachine::headerAgreesOffHost(const void* message, uint32_t receiver) const {
  return !placedOnOtherHost(nidOf(receiver)) || nidOf(sysComReceiver(message)) == nidOf(receiver);
}

int EventMachine::sendLocalUnreliable(void* message) {
  ProcessLockGuard guard(lock_);
  BufferInfo info{};
  if (message == nullptr || !pool_.inspect(message, &info)) return -EINVAL;
  return sendLocked(message, sysComReceiver(message));
}

int EventMachine::sendDirect(uint32_t event, uint32_t receiver) {
  ProcessLockGuard guard(lock_);
  void* data = events_.lookup(event);
  BufferInfo info{};
  if (data == nullptr || !pool_.inspect(data, &info)) return -EINVAL;
  if (info.requestedBytes < kSysComHeaderBytes) return -EMSGSIZE;
  if (!headerAgreesOffHost(data, receiver)) return -EINVAL;
  return transmit(data, info.requestedBytes, RecordKind::kRawEvent, nidOf(receiver));
}

// After a timed-out wait the lanes are swept once for records whose announcement was lost with a
// sender that died between publishing and announcing.
//
// The spin before parking is adaptive: only a node whose last wait ended with a record spins, so
// a node that traffic keeps busy stays awake across the short gaps between its peers' bursts
// (where a futex sleep and wake-up would cost tens of microseconds each), while a node that only
// waits for its timers never spins. Only the server thread waits, so the flag needs no ordering.
int EventMachine::waitForEvent(uint32_t seconds, uint32_t nanoseconds) {
  Mailbox* own = own_.load(std::memory_order_acquire);
  if (own == nullptr) {
    if (!waitWithoutServerReported_.exchange(true)) {
      std::fprintf(stderr, "rhyddal: vakem_wait_for_event before vak_em_server_init: nothing to wait for\n");
    }
    return kTimedOut;
  }
  const uint64_t spinNs = lastWaitEndedWithRecord_.load(std::memory_order_relaxed) ? settings_.spinNs : 0;
  bool record = own->waitForRecord(seconds, nanoseconds, spinNs, bridge_.map != nullptr ? kSpinYieldEveryBesideBridge : kSpinYieldEvery);
  if (!record) {
    ProcessLockGuard guard(lock_);
    own->collectAllLanes();
    record = own->mayHaveRecords();
  }
  lastWaitEndedWithRecord_.store(record, std::memory_order_relaxed);
  return record ? 0 : kTimedOut;
}

void* EventMachine::eventPointer(uint32_t event) {
  ProcessLockGuard guard(lock_);
  return events_.lookup(event);
}

void EventMachine::timingPageInUse() {
  if (timingPageInUse_.exchange(true)) return;
  Mailbox* own = own_.load(std::memory_order_acquire);
  if (own == nullptr) return;  // serverInit marks the mailbox
  own->markTimingPageInUse();
  wakeTimingUpdater();
}

PoolStatistics EventMachine::poolStatistics() {
  ProcessLockGuard guard(lock_);
  return pool_.statistics();
}

// The own node's id and its server thread's: 0, or -ENOTCONN when this process serves no node.
// What serverInit set up before it published the own mailbox (the bridge's settings) is settled
// once this finds the mailbox.
int EventMachine::ownNode(uint16_t* nid, uint32_t* tid) {
  ProcessLockGuard guard(lock_);
  Mailbox* own = own_.load(std::memory_order_acquire);
  if (own == nullptr) return -ENOTCONN;
  *nid = static_cast<uint16_t>(ownNid_.load(std::memory_order_relaxed));
  *tid = own->ownerTid();
  return 0;
}

// Aliases are taken outside the process lock: they wait for node start-ups of the host.
int EventMachine::alias(uint32_t nid) {
  if (nid > kMaxNid) return -EINVAL;
  uint16_t ownNid = 0;
  uint32_t ownTid = 0;
  int rc = ownNode(&ownNid, &ownTid);
  if (rc != 0) return rc;
  if (nid == ownNid || placedOnOtherHost(static_cast<uint16_t>(nid))) return -EINVAL;
  rc = takeAlias(static_cast<uint16_t>(nid), ownNid, ownTid);
  if (rc != 0) return rc;
  ProcessLockGuard guard(lock_);
  if (std::find(aliases_.begin(), aliases_.end(), nid) == aliases_.end()) aliases_.push_back(static_cast<uint16_t>(nid));
  return 0;
}

int EventMachine::standingAlias(uint32_t digit) {
  if (digit > kMaxStandingDigit) return -EINVAL;
  uint16_t ownNid = 0;
  uint32_t ownTid = 0;
  int rc = ownNode(&ownNid, &ownTid);
  if (rc != 0) return rc;
  rc = takeStandingAlias(static_cast<uint16_t>(digit), ownNid, ownTid);
  if (rc != 0) return rc;
  ProcessLockGuard guard(lock_);
  standingAliasHeld_ = true;
  return 0;
}

// Nodes that started take aliases for the holder of the standing alias on their own, so the holder
// looks for its aliases among all of them.
void EventMachine::unlinkOwnObjects() {
  Mailbox* own = own_.load(std::memory_order_acquire);
  if (own == nullptr) return;
  const auto ownNid = static_cast<uint16_t>(ownNid_.load(std::memory_order_relaxed));
  for (const uint16_t nid : aliases_) releaseAlias(nid, ownNid, own->ownerTid());
  if (standingAliasHeld_) {
    releaseStandingAlias(ownNid, own->ownerTid());
    releaseAliasesOf(ownNid, own->ownerTid());
  }
  own->unlinkName();
}

// On success the buffer is held by the pool, and a raw event's handle is gone.
int EventMachine::transmit(void* buffer, uint32_t length, RecordKind kind, uint16_t nid) {
  int error = 0;
  Mailbox* target = mailboxFor(nid, &error);
  if (target == nullptr) return error;
  const uint16_t origin = static_cast<uint16_t>(ownNid_.load(std::memory_order_relaxed));
  const int rc = pushResultCode(target->push(buffer, length, kind, origin));
  if (rc != 0) return rc;
  uint32_t boundEvent = 0;
  pool_.hold(buffer, &boundEvent);
  if (boundEvent != 0) events_.unbind(boundEvent);
  return 0;
}

// A node on another host is reached through the bridge's mailbox, and only while the bridge says
// it is reachable: otherwise the send fails as one to a dead local node does.
Mailbox* EventMachine::mailboxFor(uint16_t nid, int* error) {
  if (isLocal(nid)) {
    Mailbox* own = own_.load(std::memory_order_acquire);
    if (own == nullptr) *error = -ENOTCONN;
    return own;
  }
  if (!placedOnOtherHost(nid)) return directory_.find(nid, error);
  if (!remoteNodes_->reachable(nid)) {
    *error = -EHOSTUNREACH;
    return nullptr;
  }
  return directory_.findBridge(error);
}

bool EventMachine::placedOnOtherHost(uint16_t nid) const {
  if (bridge_.map == nullptr) return false;
  const uint8_t host = bridge_.map->hostOf(nid);
  return host != bridge_.ownHost && host != NodeMap::kNoHost;
}

// The own node id, and node ids on a loop-back route, are delivered into the own mailbox.
bool EventMachine::isLocal(uint16_t nid) const {
  if (nid == ownNid_.load(std::memory_order_relaxed)) return true;
  const uint32_t count = routeCount_.load(std::memory_order_acquire);
  for (uint32_t i = 0; i < count; ++i) {
    if (nid >= routes_[i].from && nid <= routes_[i].to) return true;
  }
  return false;
}

void EventMachine::prepareFork() { lock_.lock(); }

void EventMachine::afterForkInParent() { lock_.unlock(); }

void EventMachine::afterForkInChild() {
  own_.store(nullptr, std::memory_order_relaxed);
  ownNid_.store(kNoNode, std::memory_order_relaxed);
  routeCount_.store(0, std::memory_order_relaxed);
  timingPageInUse_.store(false, std::memory_order_relaxed);
  if (ownMailbox_ != nullptr) ownMailbox_->disownAfterFork();
  ownMailbox_.reset();
  directory_.clear();
  aliases_.clear();
  standingAliasHeld_ = false;
  bridge_ = BridgeSettings{};
  remoteNodes_.reset();
  lock_.resetInChild();
  forgetTimingUpdaterAfterFork();
  forgetBridgeAfterFork();
}

}  // namespace rhyddal
