#include "SysLogCollector.h"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <set>

#include "AaLteTime.h"
#include "AaSysCom.h"
#include "AaSysTime.h"
#include "SysLogFollow.h"

namespace {

constexpr int kLowPriority = 3;
// The collector's own timer message, from and to its own address: look at the running nodes.
constexpr TAaSysComMsgId kRescanMsgId = 0x097B;
constexpr uint32_t kRescanPeriodUs = 1000000;
constexpr uint16_t kGroupMask = 0xFFF0;
constexpr uint16_t kCollectorDigit = 0xD;
constexpr size_t kWordBytes = 4;
constexpr size_t kLineBytes = 256;
constexpr uint32_t kMaxTextBytes = SYSLOG_FOLLOW_MAX_TEXT_SIZE - 1;

uint16_t collectorOf(uint16_t nid) { return static_cast<uint16_t>((nid & kGroupMask) | kCollectorDigit); }

TAaSysComSicad ownAddress() { return AaSysComSicadGet(SYSLOG_COLLECTOR_CPID, AaSysComGetOwnNid()); }

// A received message's payload, never beyond the message's own length.
struct Payload {
  const uint8_t* bytes;
  uint32_t size;
};

Payload payloadOf(const void* msg) {
  const uint32_t size = AaSysComMsgGetPayloadSize(msg);
  const uint32_t total = AaSysComMsgGetBulkMsgLength(msg);
  return Payload{static_cast<const uint8_t*>(AaSysComMsgGetPayload(msg)), size <= total ? size : 0};
}

// The index-th word of the payload in host order, whatever order the message is in.
uint32_t wordAt(const Payload& payload, uint32_t index, bool swapped) {
  uint32_t word = 0;
  std::memcpy(&word, payload.bytes + index * kWordBytes, sizeof(word));
  return swapped ? __builtin_bswap32(word) : word;
}

// The line up to its terminating NUL (or the payload's end), at most kMaxTextBytes, without its
// trailing line feeds; control characters other than tab and line feed become '?', so that a line
// cannot steer the terminal it is printed on.
std::string textOf(const Payload& payload) {
  const auto* start = reinterpret_cast<const char*>(payload.bytes);
  size_t length = strnlen(start, std::min(payload.size, kMaxTextBytes));
  while (length > 0 && (start[length - 1] == '\n' || start[length - 1] == '\r')) --length;
  std::string text(start, length);
  for (char& c : text) {
    const auto code = static_cast<unsigned char>(c);
    if ((code < 0x20 && c != '\t' && c != '\n') || code == 0x7F) c = '?';
  }
  return text;
}

std::string nidList(const std::vector<uint16_t>& nids) {
  if (nids.empty()) return "every node";
  std::string list = "node";
  if (nids.size() > 1) list += "s";
  for (const uint16_t nid : nids) {
    char one[8];
    std::snprintf(one, sizeof(one), " 0x%04x", nid);
    list += one;
  }
  return list;
}

const char* dropReason(int error) {
  if (error == -ENOBUFS) return "its queue is full";
  if (error == -EHOSTUNREACH) return "it has gone";
  return std::strerror(-error);
}

}  // namespace

SysLogCollector::SysLogCollector(Hooks hooks) : m_hooks(std::move(hooks)) {}

bool SysLogCollector::Follower::wants(uint16_t nid) const {
  return nids.empty() || std::find(nids.begin(), nids.end(), nid) != nids.end();
}

void SysLogCollector::start() {
  if (m_hooks.relayTo != 0) {
    report("collecting the system log of this host on node 0x%04x for the controller, node 0x%04x",
           AaSysComGetOwnNid(), m_hooks.relayTo);
  } else {
    report("collecting the system log on node 0x%04x%s", AaSysComGetOwnNid(), m_hooks.quiet ? " (quiet)" : "");
  }
  if (m_hooks.takeStandingAlias) {
    const int rc = m_hooks.takeStandingAlias(kCollectorDigit);
    if (rc != 0) report("a new group's lines arrive only once the group is noticed: %s", std::strerror(-rc));
  }
  rescan();
  void* tick = AaSysComMsgCreate(kRescanMsgId, 0, ownAddress());
  if (tick == nullptr) return;
  AaSysComMsgSetSender(tick, ownAddress());
  TAaSysTimerId timer = 0;
  if (AaSysTimermCreate(&timer, kRescanPeriodUs, kRescanPeriodUs, tick) != 0) AaSysComMsgDestroy(&tick);
}

int SysLogCollector::PrioritizeMessage(void*&) { return kLowPriority; }

void SysLogCollector::ProcessMessage(void*& msg) {
  if (msg == nullptr) return;
  const TAaSysComSicad sender = AaSysComMsgGetSender(msg);
  switch (AaSysComMsgGetId(msg)) {
    case SYSLOG_LINE_MSG:
      collect(msg);
      break;
    case SYSLOG_FOLLOW_REQ_MSG:
      follow(msg);
      break;
    case SYSLOG_FOLLOW_CANCEL_MSG:
      cancel(sender);
      break;
    case kRescanMsgId:
      if (sender == ownAddress()) rescan();
      break;
    default:
      report("dropped message 0x%04x from 0x%08x: neither a log line nor a follow request", AaSysComMsgGetId(msg),
             sender);
      break;
  }
  AaSysComMsgDestroy(&msg);
}

std::vector<uint32_t> SysLogCollector::followers() const {
  std::vector<uint32_t> addresses;
  for (const Follower& follower : m_followers) addresses.push_back(follower.address);
  return addresses;
}

// ---------------------------------------------------------------------------------------------
// The running nodes

void SysLogCollector::rescan() {
  std::vector<uint16_t> nodes;
  if (!m_hooks.liveNodes || !m_hooks.liveNodes(nodes)) {
    if (!m_tableUnreadableReported) report("the running nodes cannot be read: only lines sent to this node arrive");
    m_tableUnreadableReported = true;
    return;
  }
  std::sort(nodes.begin(), nodes.end());
  nodes.erase(std::unique(nodes.begin(), nodes.end()), nodes.end());
  std::vector<uint16_t> everyNode = nodes;
  std::vector<uint16_t> remote;
  if (m_hooks.remoteNodes && m_hooks.remoteNodes(remote)) {
    everyNode.insert(everyNode.end(), remote.begin(), remote.end());
    std::sort(everyNode.begin(), everyNode.end());
    everyNode.erase(std::unique(everyNode.begin(), everyNode.end()), everyNode.end());
  }
  noteNodes(everyNode);
  takeAliases(nodes);
}

void SysLogCollector::noteNodes(const std::vector<uint16_t>& nodes) {
  std::vector<uint16_t> appeared, gone;
  std::set_difference(nodes.begin(), nodes.end(), m_nodes.begin(), m_nodes.end(), std::back_inserter(appeared));
  std::set_difference(m_nodes.begin(), m_nodes.end(), nodes.begin(), nodes.end(), std::back_inserter(gone));
  m_nodes = nodes;
  const LteStamp stamp = lteNow();
  for (const uint16_t nid : appeared) {
    report("node 0x%04x appeared", nid);
    forward(SYSLOG_FOLLOW_KIND_NODE_APPEARED, nid, stamp, "");
  }
  for (const uint16_t nid : gone) {
    report("node 0x%04x gone", nid);
    forward(SYSLOG_FOLLOW_KIND_NODE_GONE, nid, stamp, "");
  }
}

// A group whose collector id runs a node of its own keeps it; the others' lines come here. Taking
// an alias again is cheap and takes it back after a node at that id has gone.
void SysLogCollector::takeAliases(const std::vector<uint16_t>& nodes) {
  if (!m_hooks.takeAlias) return;
  std::set<uint16_t> collectors;
  for (const uint16_t nid : nodes) collectors.insert(collectorOf(nid));
  for (const uint16_t collector : collectors) {
    const bool running = std::binary_search(nodes.begin(), nodes.end(), collector);
    const int rc = running ? -EADDRINUSE : m_hooks.takeAlias(collector);
    const GroupState state = rc == 0 ? GroupState::kAliased : rc == -EADDRINUSE ? GroupState::kOwnCollector : GroupState::kFailed;
    GroupState& known = m_groups[collector];
    if (state == known) continue;
    known = state;
    const unsigned group = collector & kGroupMask;
    if (state == GroupState::kAliased) {
      report("collecting the lines of group 0x%04x, sent to node 0x%04x", group, collector);
    } else if (state == GroupState::kOwnCollector) {
      report("group 0x%04x has a collector of its own, node 0x%04x", group, collector);
    } else {
      report("cannot collect the lines of group 0x%04x: %s", group, std::strerror(-rc));
    }
  }
}

// ---------------------------------------------------------------------------------------------
// Lines and followers

void SysLogCollector::collect(const void* msg) {
  if (m_hooks.relayTo != 0) relay(msg);
  const uint16_t nid = AaSysComSicadGetNid(AaSysComMsgGetSender(msg));
  const std::string text = textOf(payloadOf(msg));
  const LteStamp stamp = lteNow();
  if (!m_hooks.quiet) {
    char prefix[kLineBytes];
    std::snprintf(prefix, sizeof(prefix), "0x%04x [%04u,%04u,%02u,%05u] ", nid, stamp.hyperFrame, stamp.frame,
                  stamp.slot, stamp.basicTU);
    size_t from = 0;
    for (;;) {
      const size_t end = text.find('\n', from);
      m_hooks.print(prefix + text.substr(from, end == std::string::npos ? std::string::npos : end - from));
      if (end == std::string::npos) break;
      from = end + 1;
    }
  }
  forward(SYSLOG_FOLLOW_KIND_LINE, nid, stamp, text);
}

// A copy goes, so that the received line is freed as every other message is. A controller that
// cannot take it loses the line: waiting would hold up every node of this host.
void SysLogCollector::relay(const void* msg) {
  const Payload payload = payloadOf(msg);
  void* copy = AaSysComMsgCreate(SYSLOG_LINE_MSG, static_cast<TAaSysComMsgSize>(payload.size),
                                 AaSysComSicadGet(SYSLOG_COLLECTOR_CPID, m_hooks.relayTo));
  if (copy == nullptr) return;
  if (payload.size != 0) std::memcpy(AaSysComMsgGetPayload(copy), payload.bytes, payload.size);
  AaSysComMsgSetSender(copy, AaSysComMsgGetSender(msg));
  const int rc = m_hooks.transmit(copy);
  if (rc != 0) AaSysComMsgDestroy(&copy);
  if (rc == m_relayError) return;
  m_relayError = rc;
  if (rc == 0) {
    report("passing lines on to the controller, node 0x%04x, again", m_hooks.relayTo);
  } else {
    report("cannot pass lines on to the controller, node 0x%04x: %s; they are lost until it can take them",
           m_hooks.relayTo, dropReason(rc));
  }
}

// Words are read in the message's own order: a request reaches here converted by the Dispatcher,
// or not, when it comes in an order the Dispatcher leaves alone.
void SysLogCollector::follow(const void* msg) {
  const TAaSysComSicad address = AaSysComMsgGetSender(msg);
  const Payload payload = payloadOf(msg);
  const bool swapped = AaSysComIsHostAndMsgEndianSame(msg) == 0;
  const uint32_t words = payload.size / kWordBytes;
  const uint32_t count = words > 0 ? wordAt(payload, 0, swapped) : 0;
  uint32_t status = SYSLOG_FOLLOW_STATUS_OK;
  std::vector<uint16_t> nids;
  if (words == 0) {
    status = SYSLOG_FOLLOW_STATUS_MALFORMED;
  } else if (count > SYSLOG_FOLLOW_MAX_NIDS) {
    status = SYSLOG_FOLLOW_STATUS_TOO_MANY_NIDS;
  } else if (words - 1 < count) {
    status = SYSLOG_FOLLOW_STATUS_MALFORMED;
  }
  for (uint32_t i = 1; status == SYSLOG_FOLLOW_STATUS_OK && i <= count; ++i) {
    const uint32_t nid = wordAt(payload, i, swapped);
    if (nid > 0xFFFF) status = SYSLOG_FOLLOW_STATUS_MALFORMED;
    nids.push_back(static_cast<uint16_t>(nid));
  }
  auto known = findFollower(address);
  if (status == SYSLOG_FOLLOW_STATUS_OK && known == m_followers.end() && m_followers.size() == SYSLOG_FOLLOW_MAX_FOLLOWERS) {
    status = SYSLOG_FOLLOW_STATUS_TOO_MANY_FOLLOWERS;
  }
  if (status != SYSLOG_FOLLOW_STATUS_OK) {
    if (known != m_followers.end()) m_followers.erase(known);
    report("refused the follow request of 0x%08x (status %u)", address, status);
    acknowledge(address, status, 0, false);
    return;
  }
  std::sort(nids.begin(), nids.end());
  nids.erase(std::unique(nids.begin(), nids.end()), nids.end());
  const bool started = known == m_followers.end();
  // A follower repeating its request (to learn that it is still followed) is not reported again.
  if (started || known->nids != nids) report("0x%08x follows %s", address, nidList(nids).c_str());
  if (started) {
    m_followers.push_back(Follower{address, nids});
  } else {
    known->nids = nids;
  }
  acknowledge(address, status, static_cast<uint32_t>(nids.size()), started);
}

std::vector<SysLogCollector::Follower>::iterator SysLogCollector::findFollower(uint32_t address) {
  return std::find_if(m_followers.begin(), m_followers.end(), [address](const Follower& f) { return f.address == address; });
}

void SysLogCollector::cancel(uint32_t address) {
  const auto known = findFollower(address);
  if (known == m_followers.end()) return;
  m_followers.erase(known);
  report("0x%08x stopped following", address);
}

void SysLogCollector::acknowledge(uint32_t address, uint32_t status, uint32_t followed, bool started) {
  const uint32_t words[] = {status, followed, started ? 1u : 0u};
  void* ack = AaSysComMsgCreate(SYSLOG_FOLLOW_ACK_MSG, sizeof(words), address);
  if (ack == nullptr) return;
  std::memcpy(AaSysComMsgGetPayload(ack), words, sizeof(words));
  transmitTo(address, ack);
}

void SysLogCollector::forward(uint32_t kind, uint16_t nid, const LteStamp& stamp, const std::string& text) {
  const SSysLogFollowLineHeader header{kind, nid, stamp.hyperFrame << 16 | stamp.frame, stamp.slot << 16 | stamp.basicTU};
  const auto size = static_cast<TAaSysComMsgSize>(sizeof(header) + text.size() + 1);
  // Copied first: a failed send removes its follower from the list.
  const std::vector<Follower> followers = m_followers;
  for (const Follower& follower : followers) {
    if (!follower.wants(nid)) continue;
    void* line = AaSysComMsgCreate(SYSLOG_FOLLOW_LINE_MSG, size, follower.address);
    if (line == nullptr) return;
    auto* payload = static_cast<uint8_t*>(AaSysComMsgGetPayload(line));
    std::memcpy(payload, &header, sizeof(header));
    std::memcpy(payload + sizeof(header), text.c_str(), text.size() + 1);
    transmitTo(follower.address, line);
  }
}

// A follower that cannot take a message now is dropped rather than waited for.
bool SysLogCollector::transmitTo(uint32_t address, void* msg) {
  AaSysComMsgSetSender(msg, ownAddress());
  const int rc = m_hooks.transmit(msg);
  if (rc == 0) return true;
  AaSysComMsgDestroy(&msg);
  drop(address, rc);
  return false;
}

void SysLogCollector::drop(uint32_t address, int error) {
  const auto known = findFollower(address);
  if (known == m_followers.end()) return;
  m_followers.erase(known);
  report("dropped follower 0x%08x: %s", address, dropReason(error));
}

SysLogCollector::LteStamp SysLogCollector::lteNow() {
  LteStamp stamp;
  AaLteTimeGet(&stamp.hyperFrame, &stamp.frame, nullptr, &stamp.slot, &stamp.basicTU);
  return stamp;
}

void SysLogCollector::report(const char* format, ...) {
  char line[kLineBytes] = "log collector: ";
  const size_t prefix = std::strlen(line);
  va_list args;
  va_start(args, format);
  std::vsnprintf(line + prefix, sizeof(line) - prefix, format, args);
  va_end(args);
  if (m_hooks.print) m_hooks.print(line);
}
