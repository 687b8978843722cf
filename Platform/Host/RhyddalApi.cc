// The C interface of libRHYDDAL.so on a development host: thin calls into the process's event
// machine and radio clock. Only the functions of Rhyddal.h and RhyddalHost.h are exported
// (RHYDDAL.map).
#include <pthread.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "Bridge.h"
#include "BtsTimeSync.h"
#include "EventMachine.h"
#include "HostEnvironment.h"
#include "Mailbox.h"
#include "MailboxLayout.h"
#include "NodeMap.h"
#include "PhysicalMemory.h"
#include "RadioClock.h"
#include "RemoteNodes.h"
#include "Rhyddal.h"
#include "RhyddalHost.h"
#include "RhyddalInternal.h"

namespace rhyddal {
namespace {

constexpr uint64_t kDefaultPoolBytes = uint64_t{256} << 20;
constexpr uint64_t kMinPoolBytes = uint64_t{1} << 20;
// A 32-bit process has 3 GiB of address space; a pool larger than a third of it is a typo.
constexpr uint64_t kMaxPoolBytes = sizeof(void*) == 4 ? uint64_t{1} << 30 : uint64_t{64} << 30;
constexpr uint64_t kMaxHoldBuffers = uint64_t{1} << 24;
constexpr uint64_t kMaxSpinUs = 10000;
// Long enough to bridge a peer's burst of a few dozen messages; spent only after traffic.
constexpr uint64_t kDefaultSpinUs = 50;
constexpr uint64_t kDefaultTimerSlackNs = 1000;
constexpr uint64_t kMaxTimerSlackNs = 50 * 1000 * 1000;

uint32_t roundUpToPowerOfTwo(uint64_t value) {
  uint64_t power = 1;
  while (power < value) power <<= 1;
  return static_cast<uint32_t>(power);
}

MachineSettings settingsFromEnvironment() {
  MachineSettings settings{};
  settings.poolBytes = environmentNumber("RHYDDAL_POOL_BYTES", kDefaultPoolBytes, kMinPoolBytes, kMaxPoolBytes);
  settings.laneBytes = roundUpToPowerOfTwo(
      environmentNumber("RHYDDAL_QUEUE_BYTES", kDefaultLaneBytes, kMinLaneBytes, kMaxLaneBytes));
  settings.holdLimit =
      static_cast<uint32_t>(environmentNumber("RHYDDAL_SENT_HOLD", kDefaultHoldLimit, 0, kMaxHoldBuffers));
  settings.spinNs = environmentNumber("RHYDDAL_SPIN_US", kDefaultSpinUs, 0, kMaxSpinUs) * 1000;
  settings.timerSlackNs = environmentNumber("RHYDDAL_TIMER_SLACK_NS", kDefaultTimerSlackNs, 0, kMaxTimerSlackNs);
  return settings;
}

EventMachine* createMachine();

EventMachine& machine() {
  static EventMachine* const instance = createMachine();
  return *instance;
}

void prepareFork() { machine().prepareFork(); }
void afterForkInParent() { machine().afterForkInParent(); }
void afterForkInChild() { machine().afterForkInChild(); }
void unlinkOwnObjectsAtExit() { machine().unlinkOwnObjects(); }

// Never destroyed: buffers may be freed and messages sent from destructors that run at exit.
EventMachine* createMachine() {
  auto* created = new EventMachine(settingsFromEnvironment());
  pthread_atfork(prepareFork, afterForkInParent, afterForkInChild);
  return created;
}

}  // namespace

PoolStatistics processPoolStatistics() { return machine().poolStatistics(); }

}  // namespace rhyddal

using rhyddal::machine;

extern "C" {

int vak_em_server_init(uint32_t nid, uint32_t cpu, uint32_t flags, uint32_t* handle) {
  (void)flags;
  const int rc = machine().serverInit(nid, cpu, handle);
  if (rc != 0) return rc;
  machine().waitForBridgeToSettle();
  std::atexit(rhyddal::unlinkOwnObjectsAtExit);
  // A node whose CDMA time service cannot map the object still runs: its calls then fail softly.
  rhyddal::ensureBtsTimeSyncObject();
  return 0;
}

int vak_em_add_test_route(uint32_t kind, uint32_t from, uint32_t to, uint32_t arg) {
  (void)arg;
  return machine().addTestRoute(kind, from, to);
}

void* vakem_alloc(uint32_t size) { return machine().alloc(size); }

uint32_t vakem_alloc_direct(uint32_t size, uint32_t type, uint32_t pool) {
  (void)type;
  (void)pool;
  return machine().allocDirect(size);
}

void vakem_free(void* buffer) { machine().free(buffer); }

void* vakem_receive(uint32_t nid) { return machine().receive(nid); }

int vakem_send(void* message, uint32_t receiver) { return machine().send(message, receiver); }

int vakem_send_local_unreliable(void* message) { return machine().sendLocalUnreliable(message); }

int vakem_send_direct(uint32_t event, uint32_t receiver) { return machine().sendDirect(event, receiver); }

int vakem_wait_for_event(uint32_t seconds, uint32_t nanoseconds) {
  return machine().waitForEvent(seconds, nanoseconds);
}

void* em_event_pointer(uint32_t event) { return machine().eventPointer(event); }

int ddal_sfn_get_bcn(unsigned long long* counter, uint32_t* fine, uint32_t flags) {
  (void)flags;
  const rhyddal::RadioTime now = rhyddal::radioTimeNow();
  if (counter != nullptr) *counter = now.frameCounter;
  if (fine != nullptr) *fine = now.fine;
  return 0;
}

const char* rhyddal_host_physical_memory_path(void) { return rhyddal::hostPhysicalMemoryPath(); }

int rhyddal_host_shm_name(const char* systemName, char* name, uint32_t size) {
  if (systemName == nullptr || name == nullptr) return -EINVAL;
  std::string translated;
  const int rc = rhyddal::systemObjectName(systemName, &translated);
  if (rc != 0) return rc;
  if (translated.size() + 1 > size) return -ENAMETOOLONG;
  std::memcpy(name, translated.c_str(), translated.size() + 1);
  return 0;
}

void rhyddal_host_timing_page_in_use(void) { machine().timingPageInUse(); }

int rhyddal_host_alias(uint32_t nid) { return machine().alias(nid); }

int rhyddal_host_standing_alias(uint32_t digit) { return machine().standingAlias(digit); }

// A mailbox is listed while its owner lives: one left behind by a killed node is not a node.
int rhyddal_host_live_nodes(struct rhyddal_host_node* nodes, uint32_t capacity) {
  if ((nodes == nullptr && capacity != 0) || !rhyddal::namespaceUsable()) return -EINVAL;
  std::vector<uint16_t> nids = rhyddal::listMailboxNids();
  std::sort(nids.begin(), nids.end());
  uint32_t live = 0;
  for (const uint16_t nid : nids) {
    std::shared_ptr<rhyddal::Mailbox> mailbox;
    if (rhyddal::Mailbox::open(nid, &mailbox) != 0 || !mailbox->ownerAlive()) continue;
    if (live < capacity) nodes[live] = rhyddal_host_node{nid, 0, mailbox->waitingRecords()};
    ++live;
  }
  return static_cast<int>(live);
}

static_assert(rhyddal::RemoteNodes::kNoHostIndex == rhyddal::NodeMap::kNoHost, "one word for no host");
static_assert(sizeof(rhyddal_host_remote_node::endpoint) > rhyddal::NodeMap::kMaxEndpointLength,
              "every endpoint the map accepts fits with its terminator");

// The node map and this host's table of other hosts, for the host extensions that read them:
// 0 and *mapped false without a map, 0 and both with one, else a negative errno.
static int openMapAndRemoteNodes(rhyddal::NodeMap* map, std::unique_ptr<rhyddal::RemoteNodes>* remote, bool* mapped) {
  *mapped = false;
  if (!rhyddal::namespaceUsable()) return -EINVAL;
  const char* mapPath = std::getenv(rhyddal::kNodeMapVariable);
  if (mapPath == nullptr || *mapPath == '\0') return 0;
  std::vector<std::string> errors;
  if (!rhyddal::NodeMap::load(mapPath, map, &errors)) return -EINVAL;
  const int rc = rhyddal::RemoteNodes::open(remote);
  *mapped = rc == 0;
  return rc;
}

int rhyddal_host_is_on_this_host(uint32_t nid) {
  if (nid > 0xFFFF) return -EINVAL;
  rhyddal::NodeMap map;
  std::unique_ptr<rhyddal::RemoteNodes> remote;
  bool mapped = false;
  const int rc = openMapAndRemoteNodes(&map, &remote, &mapped);
  if (rc != 0 || !mapped) return rc != 0 ? rc : 1;
  const uint8_t own = remote->ownHost();
  if (own == rhyddal::RemoteNodes::kNoHostIndex) return -ENOTCONN;
  return map.hostOf(static_cast<uint16_t>(nid)) == own ? 1 : 0;
}

int rhyddal_host_remote_nodes(struct rhyddal_host_remote_node* nodes, uint32_t capacity) {
  if (nodes == nullptr && capacity != 0) return -EINVAL;
  rhyddal::NodeMap map;
  std::unique_ptr<rhyddal::RemoteNodes> remote;
  bool mapped = false;
  const int rc = openMapAndRemoteNodes(&map, &remote, &mapped);
  if (rc != 0 || !mapped) return rc;
  uint32_t listed = 0;
  for (const uint16_t nid : remote->reachableNids()) {
    const uint8_t host = map.hostOf(nid);
    if (host == rhyddal::NodeMap::kNoHost || remote->isAlias(nid)) continue;  // no host: a bit left from an earlier map
    if (listed < capacity) {
      nodes[listed] = rhyddal_host_remote_node{nid, 0, {}};
      const std::string& endpoint = map.hosts()[host].endpoint;
      std::memcpy(nodes[listed].endpoint, endpoint.c_str(), endpoint.size() + 1);
    }
    ++listed;
  }
  return static_cast<int>(listed);
}

}  // extern "C"
