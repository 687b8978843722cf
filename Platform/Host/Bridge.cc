#include "Bridge.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>
#include <zmq.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "BridgeCurve.h"
#include "BridgeInbound.h"
#include "BridgeWire.h"
#include "HostEnvironment.h"
#include "Mailbox.h"
#include "MailboxDirectory.h"
#include "MessagePool.h"
#include "NodeAlias.h"
#include "RadioClock.h"
#include "RemoteNodes.h"
#include "SysComFields.h"
#include "ZmqFrames.h"

namespace rhyddal {
namespace {

// The outbound thread copies each record out of its lane into one of these buffers and gives it
// back as soon as ZeroMQ has taken the bytes: a few buffers in use at any time.
constexpr uint64_t kBridgePoolBytes = uint64_t{8} << 20;
// Messages queued per peer host before one is dropped: a sender's lane holds about 13000 of the
// smallest, so most of a full lane goes through in one burst. Were they all of the largest size,
// 650 MiB could queue, which only a link far slower than the senders would let happen.
constexpr int kSendHighWaterMark = 10000;
constexpr int kReceiveHighWaterMark = 10000;
// A list of running nodes is the largest frame: two bytes for each of 65536 node ids.
constexpr int64_t kMaxFrameBytes = 2 * 0x10000;
// ZMTP heartbeats close a connection whose peer has stopped answering (a link gone, a host
// halted) so that it is made again when the peer comes back. Closing one loses what it still
// held, so the time-out is generous: a peer busy or starved of CPU for seconds is not gone.
constexpr int kHeartbeatIntervalMs = 1000;
constexpr int kHeartbeatTimeoutMs = 10000;
constexpr uint32_t kForwardsBetweenClockReads = 64;
constexpr uint64_t kBindRetryNs = 1000 * 1000 * 1000;
// How long a new bridge waits for hosts that stay silent before it counts as settled (a host up
// is heard within an announcement period of the connection being made).
constexpr uint64_t kSettleNs = 1000 * 1000 * 1000;
constexpr uint64_t kNanosecondsPerMillisecond = 1000 * 1000;
constexpr size_t kFramesKept = 4;  // one more than a valid message has, to tell "too many"

uint16_t nidOf(uint32_t sicAddress) { return static_cast<uint16_t>(sicAddress >> 16); }

void setOption(void* socket, int option, int value) { zmq_setsockopt(socket, option, &value, sizeof(value)); }

void setOption(void* socket, int option, const std::string& value) {
  zmq_setsockopt(socket, option, value.data(), value.size());
}

// Options both sockets share: no lingering of unsent messages at close, heartbeats, bounded frames.
void* newRouterSocket(void* context) {
  void* socket = zmq_socket(context, ZMQ_ROUTER);
  if (socket == nullptr) return nullptr;
  setOption(socket, ZMQ_LINGER, 0);
  setOption(socket, ZMQ_HEARTBEAT_IVL, kHeartbeatIntervalMs);
  setOption(socket, ZMQ_HEARTBEAT_TIMEOUT, kHeartbeatTimeoutMs);
  const int64_t maxFrame = kMaxFrameBytes;
  zmq_setsockopt(socket, ZMQ_MAXMSGSIZE, &maxFrame, sizeof(maxFrame));
  return socket;
}

// Addresses no other machine can reach. Plain links anywhere else let any machine that reaches
// the address speak as this host's peers.
bool isLocalOnly(const std::string& endpoint) {
  static const char* const kLocalPrefixes[] = {"ipc://", "tcp://127.", "tcp://localhost:", "tcp://[::1]:"};
  for (const char* prefix : kLocalPrefixes) {
    if (endpoint.compare(0, std::strlen(prefix), prefix) == 0) return true;
  }
  return false;
}

class Bridge {
 public:
  explicit Bridge(const BridgeSettings& settings) : settings_(settings), map_(*settings.map), own_(settings.ownHost) {}

  // Candidates block on the lock instead of polling for it: the kernel hands it to one of them the
  // moment the bridge's process dies.
  void runCandidate() {
    const int fd = ::open(bridgeLockPath().c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (fd < 0) {
      std::fprintf(stderr, "rhyddal: no bridge to other hosts: cannot open %s: %s\n", bridgeLockPath().c_str(),
                   std::strerror(errno));
      return;
    }
    lockFd_.store(fd);
    while (flock(fd, LOCK_EX) != 0) {
      if (errno != EINTR) return;
    }
    // A bridge that cannot start leaves the role to a candidate that can.
    if (lockFd_.load() == fd && !serve()) closeLock();
  }

  void closeLock() {
    const int fd = lockFd_.exchange(-1);
    if (fd >= 0) close(fd);
  }

 private:
  // Holds the role for the rest of the process's life once it starts; false when it cannot. What
  // a predecessor knew of other hosts may be stale: every remote node counts as unreachable until
  // its host says otherwise. That is done before the bridge's mailbox is made: a node starting
  // takes a settled state for this bridge's only while the mailbox lives.
  bool serve() {
    int rc = RemoteNodes::open(&remote_);
    if (rc == 0) {
      remote_->clearAll();
      remote_->setBridgeState(RemoteNodes::BridgeState::kStarting);
      remote_->setOwnHost(own_);
      rc = Mailbox::createBridge(settings_.laneBytes, &mailbox_);
    }
    context_ = rc == 0 ? zmq_ctx_new() : nullptr;
    if (context_ == nullptr) {
      std::fprintf(stderr, "rhyddal: no bridge to other hosts: %s\n", std::strerror(rc != 0 ? -rc : errno));
      return false;
    }
    outbound_ = newRouterSocket(context_);
    inbound_ = newRouterSocket(context_);
    if (outbound_ == nullptr || inbound_ == nullptr || !secureLinks()) {
      std::fprintf(stderr, "rhyddal: no bridge to other hosts: %s\n", zmq_strerror(zmq_errno()));
      return false;
    }
    connectToOtherHosts();
    std::fprintf(stderr, "rhyddal: bridge of %s to %zu other hosts\n", endpointOf(own_).c_str(), map_.hosts().size() - 1);
    std::thread([this] { runInbound(); }).detach();
    runOutbound();
  }

  const std::string& endpointOf(uint8_t host) const { return map_.hosts()[host].endpoint; }

  // With keys, the authentication handler must answer before the bound socket takes its first
  // connection: it is bound here, before the inbound thread binds.
  bool secureLinks() {
    if (!map_.hasKeys()) {
      if (!isLocalOnly(endpointOf(own_))) {
        std::fprintf(stderr, "rhyddal: bridge: plain links (no keys in the map) on %s: whoever reaches it may speak as the other hosts\n",
                     endpointOf(own_).c_str());
      }
      return true;
    }
    zap_ = std::make_unique<ZapHandler>(map_, own_);
    return zap_->bind(context_) && makeCurveServer(inbound_, map_) && makeCurveClient(outbound_, map_, own_);
  }

  // The peers' bound sockets know us by our endpoint; we know each of them by theirs.
  void connectToOtherHosts() {
    setOption(outbound_, ZMQ_ROUTING_ID, endpointOf(own_));
    setOption(outbound_, ZMQ_ROUTER_MANDATORY, 1);
    setOption(outbound_, ZMQ_SNDHWM, kSendHighWaterMark);
    for (size_t host = 0; host < map_.hosts().size(); ++host) {
      if (host == own_) continue;
      setOption(outbound_, ZMQ_CONNECT_ROUTING_ID, endpointOf(static_cast<uint8_t>(host)));
      if (map_.hasKeys()) expectCurveServer(outbound_, map_, static_cast<uint8_t>(host));
      if (zmq_connect(outbound_, endpointOf(static_cast<uint8_t>(host)).c_str()) != 0) {
        std::fprintf(stderr, "rhyddal: bridge cannot connect to %s: %s\n", endpointOf(static_cast<uint8_t>(host)).c_str(),
                     zmq_strerror(zmq_errno()));
      }
    }
  }

  [[noreturn]] void runOutbound() {
    MessagePool pool(kBridgePoolBytes);
    MailboxDirectory localNodes;
    uint64_t nextAnnounce = 0;
    for (;;) {
      uint64_t now = monotonicNanoseconds();
      if (now >= nextAnnounce) {
        announceRunningNodes(localNodes);
        nextAnnounce = now + kAnnouncePeriodNs;
      }
      // Traffic that never lets up must not hold back the announcements: peers would count this
      // host as down.
      uint16_t origin = 0;
      for (uint32_t forwarded = 1; void* message = mailbox_->pop(pool, &origin); ++forwarded) {
        forward(origin, message);
        pool.release(message);
        if (forwarded % kForwardsBetweenClockReads == 0 && monotonicNanoseconds() >= nextAnnounce) break;
      }
      now = monotonicNanoseconds();
      const uint64_t untilAnnounce = nextAnnounce > now ? nextAnnounce - now : 0;
      // A sender that died between publishing and announcing left a record only a sweep finds.
      if (!mailbox_->waitForRecord(0, static_cast<uint32_t>(untilAnnounce), 0)) mailbox_->collectAllLanes();
    }
  }

  // The lane reader has checked that the header's total length lies within the record. origin is
  // the node the sending process serves, which the peer checks against this host.
  void forward(uint16_t origin, const void* message) {
    const uint16_t nid = nidOf(sysComReceiver(message));
    const uint8_t host = map_.hostOf(nid);
    if (host == NodeMap::kNoHost || host == own_) {
      unsent_.report(monotonicNanoseconds(), "bridge dropped a message whose header names node 0x%04x, not a node of another host",
                     static_cast<unsigned>(nid));
      return;
    }
    const WireEnvelope envelope = wireEnvelope(WireTag::kMessage, origin);
    const Frame frames[] = {{endpointOf(host).data(), endpointOf(host).size()},
                            {&envelope, sizeof(envelope)},
                            {message, sysComTotalLength(message)}};
    if (!sendFrames(outbound_, frames, 3, ZMQ_DONTWAIT)) {
      unsent_.report(monotonicNanoseconds(), "bridge dropped a message for node 0x%04x: %s", static_cast<unsigned>(nid),
                     zmq_errno() == EAGAIN ? "too many queued for its host" : "its host is not connected");
    }
  }

  // Node ids with a live alias here are announced too, after the nodes: the bridge delivers to the
  // alias, and the other hosts tell them apart from nodes.
  void announceRunningNodes(MailboxDirectory& localNodes) {
    std::vector<uint8_t> body;
    appendReachable(localNodes, listMailboxNids(), body);
    const uint16_t aliases = appendReachable(localNodes, listAliasNids(), body);
    const WireEnvelope envelope = wireEnvelope(WireTag::kLiveNodes, aliases);
    for (size_t host = 0; host < map_.hosts().size(); ++host) {
      if (host == own_) continue;
      const std::string& peer = endpointOf(static_cast<uint8_t>(host));
      const Frame frames[] = {{peer.data(), peer.size()}, {&envelope, sizeof(envelope)}, {body.data(), body.size()}};
      sendFrames(outbound_, frames, 3, ZMQ_DONTWAIT);  // a host not connected hears the next one
    }
  }

  // The node ids of this host that a delivery finds, two bytes each; how many.
  uint16_t appendReachable(MailboxDirectory& localNodes, const std::vector<uint16_t>& nids, std::vector<uint8_t>& body) {
    uint16_t appended = 0;
    for (const uint16_t nid : nids) {
      int error = 0;
      if (map_.hostOf(nid) != own_ || localNodes.find(nid, &error) == nullptr) continue;
      body.push_back(static_cast<uint8_t>(nid));
      body.push_back(static_cast<uint8_t>(nid >> 8));
      ++appended;
    }
    return appended;
  }

  [[noreturn]] void runInbound() {
    MailboxDirectory receivers;
    RateLimitedReport undelivered;
    BridgeInbound inbound(map_, own_, *remote_, [&](uint16_t nid, uint16_t origin, const void* message, uint32_t length) {
      int error = 0;
      Mailbox* mailbox = receivers.find(nid, &error);
      if (mailbox == nullptr) {
        undelivered.report(monotonicNanoseconds(), "bridge dropped a message for node 0x%04x, which is not running",
                           static_cast<unsigned>(nid));
      } else if (mailbox->push(message, length, RecordKind::kMessage, origin) != PushResult::kDelivered) {
        undelivered.report(monotonicNanoseconds(), "bridge dropped a message for node 0x%04x: its queue is full",
                           static_cast<unsigned>(nid));
      }
    });
    setOption(inbound_, ZMQ_ROUTER_HANDOVER, 1);  // a restarted peer takes its routing id over at once
    setOption(inbound_, ZMQ_RCVHWM, kReceiveHighWaterMark);
    bool bound = false;
    bool settled = false;
    uint64_t nextBind = 0;
    const uint64_t startNs = monotonicNanoseconds();
    for (;;) {
      const uint64_t now = monotonicNanoseconds();
      if (!bound && now >= nextBind) {
        bound = bind(nextBind == 0);
        nextBind = now + kBindRetryNs;
      }
      zmq_pollitem_t items[] = {{inbound_, 0, ZMQ_POLLIN, 0}, {zap_ != nullptr ? zap_->socket() : nullptr, 0, ZMQ_POLLIN, 0}};
      zmq_poll(items, zap_ != nullptr ? 2 : 1, static_cast<long>(kAnnouncePeriodNs / kNanosecondsPerMillisecond));
      if (zap_ != nullptr) zap_->answerWaiting(monotonicNanoseconds());
      while (receiveOne(inbound)) {
      }
      inbound.expireSilentPeers(monotonicNanoseconds());
      if (!settled && (inbound.allPeersHeard() || monotonicNanoseconds() - startNs >= kSettleNs)) {
        remote_->setBridgeState(RemoteNodes::BridgeState::kSettled);
        settled = true;
      }
    }
  }

  // Retried every second: the address may not be up yet. Reported once.
  bool bind(bool first) {
    if (zmq_bind(inbound_, endpointOf(own_).c_str()) == 0) return true;
    if (first) {
      std::fprintf(stderr, "rhyddal: bridge cannot bind %s: %s; trying again every second\n", endpointOf(own_).c_str(),
                   zmq_strerror(zmq_errno()));
    }
    return false;
  }

  // Frames beyond kFramesKept are let go; the count tells the handler there were too many. With
  // keys, the key the authentication handler accepted for the connection comes with every frame.
  bool receiveOne(BridgeInbound& inbound) {
    zmq_msg_t parts[kFramesKept];
    const size_t count = receiveFrames(inbound_, parts, kFramesKept);
    if (count == 0) return false;
    const size_t kept = count < kFramesKept ? count : kFramesKept;
    Frame frames[kFramesKept];
    for (size_t i = 0; i < kept; ++i) frames[i] = Frame{zmq_msg_data(&parts[i]), zmq_msg_size(&parts[i])};
    // The routing id frame is the socket's own making: the properties of the connection come with
    // the frames that crossed it.
    const char* peerKey = zap_ != nullptr && kept > 1 ? zmq_msg_gets(&parts[1], "User-Id") : nullptr;
    inbound.handle(frames, kept, peerKey, monotonicNanoseconds());
    closeFrames(parts, kept);
    return true;
  }

  const BridgeSettings settings_;
  const NodeMap& map_;
  const uint8_t own_;
  std::atomic<int> lockFd_{-1};
  std::unique_ptr<RemoteNodes> remote_;
  std::unique_ptr<Mailbox> mailbox_;
  void* context_ = nullptr;
  void* outbound_ = nullptr;
  void* inbound_ = nullptr;
  std::unique_ptr<ZapHandler> zap_;  // with keys only
  RateLimitedReport unsent_;
};

// Never destroyed: the threads run until the process ends, also through exit's destructors.
std::atomic<Bridge*> theBridge{nullptr};

void reportMapErrors(const char* path, const std::vector<std::string>& errors) {
  for (const std::string& error : errors) std::fprintf(stderr, "rhyddal: %s=%s, %s\n", kNodeMapVariable, path, error.c_str());
}

}  // namespace

int nodeMapFromEnvironment(uint16_t ownNid, BridgeSettings* settings) {
  settings->map.reset();
  const char* path = std::getenv(kNodeMapVariable);
  if (path == nullptr || *path == '\0') return 0;
  auto map = std::make_shared<NodeMap>();
  std::vector<std::string> errors;
  if (!NodeMap::load(path, map.get(), &errors)) {
    reportMapErrors(path, errors);
    std::fprintf(stderr, "rhyddal: the node map is not used, and no node can run until it is right\n");
    return -EINVAL;
  }
  settings->ownHost = map->hostOf(ownNid);
  if (settings->ownHost == NodeMap::kNoHost) {
    std::fprintf(stderr, "rhyddal: %s=%s places node 0x%04x on no host\n", kNodeMapVariable, path, static_cast<unsigned>(ownNid));
    return -EINVAL;
  }
  const std::string keysProblem = curveKeysProblem(*map, settings->ownHost);
  if (!keysProblem.empty()) {
    std::fprintf(stderr, "rhyddal: %s=%s: %s; no node can run with it\n", kNodeMapVariable, path, keysProblem.c_str());
    return -EINVAL;
  }
  settings->map = std::move(map);
  return 0;
}

void startBridgeCandidate(const BridgeSettings& settings) {
  if (settings.map == nullptr || theBridge.load() != nullptr) return;
  auto* bridge = new Bridge(settings);
  Bridge* expected = nullptr;
  if (!theBridge.compare_exchange_strong(expected, bridge)) {
    delete bridge;
    return;
  }
  std::thread([bridge] { bridge->runCandidate(); }).detach();
}

void forgetBridgeAfterFork() {
  Bridge* bridge = theBridge.exchange(nullptr);
  if (bridge != nullptr) bridge->closeLock();
}

}  // namespace rhyddal
