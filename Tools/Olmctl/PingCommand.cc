// olmctl ping: round trips through a node's statistics EU, printed as ping prints them.
#include <algorithm>
#include <limits>
#include <map>

#include "Commands.h"
#include "Echo.h"
#include "Interruption.h"
#include "Output.h"

namespace Olmctl {

namespace {

using Clock = Session::Clock;

constexpr uint32_t kUnlimited = 0;
constexpr uint32_t kMaxCount = 1000000000;
constexpr uint32_t kWholePercent = 100;

constexpr char kUsage[] = "Usage: olmctl ping NID [-c COUNT] [-i INTERVAL_MS]\n";

constexpr char kHelp[] =
    "Usage: olmctl ping NID [-c COUNT] [-i INTERVAL_MS]\n"
    "\n"
    "Round trips through the node's statistics EU (CPID 0x0610), which sends every message back\n"
    "to its sender: one line per reply with its sequence number and the time in microseconds,\n"
    "then the number sent and received, the loss and the minimum, average and maximum time.\n"
    "\n"
    "  -c COUNT        stop after COUNT pings (default: until Ctrl-C)\n"
    "  -i INTERVAL_MS  time between pings (default 1000)\n"
    "\n"
    "Each ping waits up to the timeout for its reply while the next ones go out. Ctrl-C stops\n"
    "sending, waits for the pings under way and prints the summary. Exit status 0 when every\n"
    "ping was answered, 1 otherwise, with one line on standard error: a node that is not\n"
    "running, or how many pings got no reply.\n"
    "\n"
    "Examples:\n"
    "  olmctl ping 0x1011 -c 3\n"
    "  olmctl ping 0x1011 -i 200 --json -c 10\n";

struct PingSettings {
  uint16_t nid = 0;
  uint32_t count = kUnlimited;
  std::chrono::milliseconds interval{kDefaultIntervalMs};
};

struct Lost {
  uint32_t sequence;
  std::string reason;
};

// What the pings came to, as the summary and the exit status tell it.
class PingTally {
 public:
  explicit PingTally(uint16_t nid) : m_nid(nid) {}

  void sent() { ++m_sent; }
  void answered(uint32_t sequence, RoundTripTime time) { m_replies.emplace_back(sequence, time); }
  void lost(uint32_t sequence, const std::string& reason) { m_lost.push_back(Lost{sequence, reason}); }
  void sendFailed(uint32_t sequence, const std::string& reason) {
    lost(sequence, reason);
    m_sendFailure = reason;
  }

  std::string summary() const {
    std::string text = "\n--- node " + nidText(m_nid) + " ping statistics ---\n" + std::to_string(m_sent) + " sent, " +
                       std::to_string(m_replies.size()) + " received, " + std::to_string(lossPercent()) + "% loss\n";
    if (m_replies.empty()) return text;
    return text + "round trip min/avg/max = " + std::to_string(minimum()) + "/" + std::to_string(average()) + "/" +
           std::to_string(maximum()) + " us\n";
  }

  std::string json() const {
    std::vector<std::string> replies, lost;
    for (const auto& [sequence, time] : m_replies) {
      replies.push_back(JsonObject().number("sequence", uint64_t{sequence}).number("timeUs", uint64_t(time.count())).text());
    }
    for (const Lost& one : m_lost) {
      lost.push_back(JsonObject().number("sequence", uint64_t{one.sequence}).string("reason", one.reason).text());
    }
    JsonObject object;
    object.number("node", uint64_t{m_nid})
        .number("sent", uint64_t{m_sent})
        .number("received", uint64_t{m_replies.size()})
        .number("lossPercent", uint64_t{lossPercent()})
        .raw("replies", jsonArray(replies))
        .raw("lost", jsonArray(lost));
    if (!m_replies.empty()) object.number("minUs", minimum()).number("avgUs", average()).number("maxUs", maximum());
    return object.text() + "\n";
  }

  Outcome outcome() const {
    if (m_lost.empty()) return succeeded();
    if (!m_sendFailure.empty()) return failed(m_sendFailure);
    return failed(std::to_string(m_lost.size()) + " of " + std::to_string(m_sent) + " pings to node " + nidText(m_nid) +
                  " got no reply");
  }

 private:
  uint32_t lossPercent() const {
    return m_sent == 0 ? 0 : static_cast<uint32_t>((m_sent - m_replies.size()) * kWholePercent / m_sent);
  }
  uint64_t minimum() const {
    uint64_t least = std::numeric_limits<uint64_t>::max();
    for (const auto& reply : m_replies) least = std::min<uint64_t>(least, reply.second.count());
    return least;
  }
  uint64_t maximum() const {
    uint64_t most = 0;
    for (const auto& reply : m_replies) most = std::max<uint64_t>(most, reply.second.count());
    return most;
  }
  uint64_t average() const {
    uint64_t sum = 0;
    for (const auto& reply : m_replies) sum += reply.second.count();
    return sum / m_replies.size();
  }

  uint16_t m_nid;
  uint32_t m_sent = 0;
  std::vector<std::pair<uint32_t, RoundTripTime>> m_replies;
  std::vector<Lost> m_lost;
  std::string m_sendFailure;
};

// Sends on the interval's beat and takes the replies as they come, each ping waiting up to the
// timeout; ends when the count is reached (or an interruption came) and nothing is under way.
class Pinger {
 public:
  Pinger(Session& session, const PingSettings& settings)
      : m_settings(settings),
        m_probe(session),
        m_tally(settings.nid),
        m_timeout(session.options().timeoutMs),
        m_people(!session.options().json) {}

  // False with the reason when the first ping cannot be sent: the node is unknown.
  bool start(std::string& error) {
    m_nextSend = Clock::now();
    if (!sendNext(error)) return false;
    print("PING node " + nidText(m_settings.nid) + " through its statistics EU " +
          sicadText(sicad(m_settings.nid, kStatisticsCpid)) + "\n");
    return true;
  }

  void run() {
    std::string error;
    for (;;) {
      if (interrupted()) m_sending = false;
      if (m_sending && Clock::now() >= m_nextSend) sendNext(error);
      expireOverdue();
      if (!m_sending && m_underWay.empty()) break;
      if (const std::optional<EchoReply> reply = m_probe.next(nextWakeUp())) take(*reply);
    }
    print(m_tally.summary());
    if (!m_people) printOut(m_tally.json());
  }

  Outcome outcome() const { return m_tally.outcome(); }

 private:
  bool sendNext(std::string& error) {
    const uint32_t sequence = ++m_sequence;
    m_tally.sent();
    m_nextSend += m_settings.interval;
    m_sending = m_settings.count == kUnlimited || m_sequence < m_settings.count;
    if (m_probe.send(m_settings.nid, sequence, error)) {
      m_underWay[sequence] = Clock::now();
      return true;
    }
    if (sequence == 1) return false;
    print("seq=" + std::to_string(sequence) + ": " + error + "\n");
    m_tally.sendFailed(sequence, error);
    return false;
  }

  void take(const EchoReply& reply) {
    const auto pending = m_underWay.find(reply.sequence);
    if (reply.nid != m_settings.nid || pending == m_underWay.end()) return;
    const auto time = std::chrono::duration_cast<RoundTripTime>(Clock::now() - pending->second);
    m_underWay.erase(pending);
    m_tally.answered(reply.sequence, time);
    print("reply from node " + nidText(reply.nid) + ": seq=" + std::to_string(reply.sequence) +
          " time=" + std::to_string(time.count()) + " us\n");
  }

  void expireOverdue() {
    const Clock::time_point now = Clock::now();
    for (auto pending = m_underWay.begin(); pending != m_underWay.end();) {
      if (now < pending->second + m_timeout) {
        ++pending;
        continue;
      }
      const std::string reason = noAnswer("node " + nidText(m_settings.nid), static_cast<uint32_t>(m_timeout.count()));
      print("seq=" + std::to_string(pending->first) + ": " + reason + "\n");
      m_tally.lost(pending->first, reason);
      pending = m_underWay.erase(pending);
    }
  }

  Clock::time_point nextWakeUp() const {
    Clock::time_point wakeUp = m_sending ? m_nextSend : Clock::time_point::max();
    for (const auto& pending : m_underWay) wakeUp = std::min(wakeUp, pending.second + m_timeout);
    return wakeUp;
  }

  void print(const std::string& text) const {
    if (m_people) printOut(text);
  }

  PingSettings m_settings;
  EchoProbe m_probe;
  PingTally m_tally;
  std::chrono::milliseconds m_timeout;
  bool m_people;
  uint32_t m_sequence = 0;
  bool m_sending = true;
  Clock::time_point m_nextSend;
  std::map<uint32_t, Clock::time_point> m_underWay;  // by sequence: when it was sent
};

bool parsePing(const Arguments& arguments, PingSettings& settings, std::string& error) {
  uint32_t intervalMs = 0;
  if (!parseOnlyNid("ping", arguments, settings.nid, error) ||
      !optionNumber(arguments, "-c", 1, kMaxCount, kUnlimited, settings.count, error) ||
      !intervalOption(arguments, intervalMs, error)) {
    return false;
  }
  settings.interval = std::chrono::milliseconds(intervalMs);
  return true;
}

Outcome runPing(const CommonOptions& options, const Arguments& arguments) {
  PingSettings settings;
  std::string error;
  if (!parsePing(arguments, settings, error)) return misused(error);
  Session session(options);
  if (!session.open(error)) return failed(error);
  InterruptionScope interruptions(session.client(), session.address());
  Pinger pinger(session, settings);
  if (!pinger.start(error)) return failed(error);
  pinger.run();
  return pinger.outcome();
}

}  // namespace

const Command& pingCommand() {
  static const Command command{"ping",
                               "  ping NID [-c COUNT] [-i MS]     round trips through a node's statistics EU\n",
                               kUsage,
                               kHelp,
                               runPing,
                               {{"-c", true}, {"-i", true}}};
  return command;
}

}  // namespace Olmctl
