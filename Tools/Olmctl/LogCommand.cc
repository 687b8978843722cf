// olmctl log: the system log of the nodes as it arrives, followed through the log collector on the
// controller node.
#include <cstdio>
#include <optional>

#include "Commands.h"
#include "Interruption.h"
#include "LogMessages.h"
#include "Output.h"
#include "Session.h"
#include "SysLogFollow.h"

namespace Olmctl {

namespace {

using Clock = Session::Clock;

constexpr uint32_t kUntilInterrupted = 0;
constexpr uint32_t kMaxLines = 1000000000;
// The request is repeated this often: the answer shows that the collector still runs and still
// follows for the tool.
constexpr auto kRenewalPeriod = std::chrono::seconds(5);

constexpr char kUsage[] = "Usage: olmctl log [NID...] [-n LINES]\n";

constexpr char kHelp[] =
    "Usage: olmctl log [NID...] [-n LINES]\n"
    "\n"
    "The system log lines of the nodes named (of every node when none is named) as they arrive,\n"
    "until Ctrl-C, through the log collector on the controller node (--master, CPID 0x0601;\n"
    "olm-controller starts it). Each line as the controller prints it: the sending node, the\n"
    "collector's LTE time at arrival (hyper frame, frame, slot, basic time unit) and the node's\n"
    "line; and \"node 0x1011 appeared\" or \"... gone\" as the collector sees the nodes come and go.\n"
    "\n"
    "  -n LINES  stop after this many log lines (scripts, tests)\n"
    "\n"
    "With --json each line is one JSON object on a line of its own: kind (line, appeared, gone),\n"
    "node, hyperFrame, frame, slot, basicTimeUnit, text. Exit status 0 when stopped; 1 with one\n"
    "line on standard error when no collector answers within the timeout, the controller's node\n"
    "is not running, or the collector refuses. A tool that cannot keep up is dropped by the\n"
    "collector rather than slowing it: it follows again within five seconds and says on standard\n"
    "error that lines were lost.\n"
    "\n"
    "Examples:\n"
    "  olmctl log\n"
    "  olmctl log 0x1011 0x1012 --json\n";

struct LogSettings {
  std::vector<uint32_t> nids;
  uint32_t lines = kUntilInterrupted;
};

bool parseLog(const Arguments& arguments, LogSettings& settings, std::string& error) {
  for (const std::string& word : arguments.words) {
    uint16_t nid = 0;
    if (!parseNid(word, nid, error)) return false;
    settings.nids.push_back(nid);
  }
  if (settings.nids.size() > SYSLOG_FOLLOW_MAX_NIDS) {
    error = "at most " + std::to_string(SYSLOG_FOLLOW_MAX_NIDS) + " node ids";
    return false;
  }
  return optionNumber(arguments, "-n", 1, kMaxLines, kUntilInterrupted, settings.lines, error);
}

// Follows the collector's log and shows what comes, renewing the request on its period.
class LogFollower {
 public:
  LogFollower(Session& session, const LogSettings& settings)
      : m_session(session),
        m_settings(settings),
        m_collector(sicad(session.options().masterNid, SYSLOG_COLLECTOR_CPID)),
        m_whom("the log collector on node " + nidText(session.options().masterNid)),
        m_people(!session.options().json) {}

  // The first request and its answer; false with the reason.
  bool start(std::string& error) {
    if (!m_session.request(SYSLOG_FOLLOW_REQ_MSG, m_collector, request(), error)) return false;
    WireClient::Message answer;
    return m_session.await(fromCollector(), m_whom, answer, error) && accepted(answer, error);
  }

  Outcome run() {
    std::string error;
    uint32_t shown = 0;
    Clock::time_point renewAt = Clock::now() + kRenewalPeriod;
    std::optional<Clock::time_point> answerDue;
    while (!interrupted()) {
      WireClient::Message message;
      if (m_session.next(fromCollector(), answerDue ? *answerDue : renewAt, message)) {
        if (message.id == SYSLOG_FOLLOW_ACK_MSG) {
          if (!accepted(message, error)) return finish(failed(error));
          answerDue.reset();
        } else if (show(message) && ++shown == m_settings.lines) {
          break;
        }
        continue;
      }
      const Clock::time_point now = Clock::now();
      if (answerDue && now >= *answerDue) return finish(failed(noAnswer(m_whom, m_session.options().timeoutMs)));
      if (!answerDue && now >= renewAt) {
        if (!m_session.send(SYSLOG_FOLLOW_REQ_MSG, m_collector, request(), error)) return finish(failed(error));
        answerDue = now + std::chrono::milliseconds(m_session.options().timeoutMs);
        renewAt = now + kRenewalPeriod;
      }
    }
    return finish(succeeded());
  }

 private:
  std::vector<uint32_t> request() const {
    std::vector<uint32_t> words{static_cast<uint32_t>(m_settings.nids.size())};
    words.insert(words.end(), m_settings.nids.begin(), m_settings.nids.end());
    return words;
  }

  WireClient::Wanted fromCollector() const {
    const uint32_t collector = m_collector;
    return [collector](const WireClient::Message& message) {
      return message.sender == collector && (message.id == SYSLOG_FOLLOW_LINE_MSG || message.id == SYSLOG_FOLLOW_ACK_MSG);
    };
  }

  // A renewal that started the following anew found the tool dropped: what came meanwhile is lost.
  bool accepted(const WireClient::Message& answer, std::string& error) {
    const std::optional<FollowAnswer> words = followAnswer(answer);
    if (answer.id != SYSLOG_FOLLOW_ACK_MSG || !words) {
      error = m_whom + " answered what is not an answer to a follow request";
      return false;
    }
    if (words->status != SYSLOG_FOLLOW_STATUS_OK) {
      error = m_whom + " refused to follow: " + followRefusal(words->status);
      return false;
    }
    if (words->started && m_following) {
      std::fprintf(stderr, "olmctl: %s had dropped this tool, which did not keep up: lines were lost\n", m_whom.c_str());
    }
    m_following = true;
    return true;
  }

  // True for a log line shown (the count of -n), false for anything else.
  bool show(const WireClient::Message& message) const {
    const std::optional<LogEntry> entry = logEntry(message);
    if (!entry) return false;
    printOut(m_people ? logEntryText(*entry) : logEntryJson(*entry));
    return entry->kind == SYSLOG_FOLLOW_KIND_LINE;
  }

  // The collector is told, so that it stops at once rather than at its first failed copy.
  Outcome finish(Outcome outcome) {
    std::string ignored;
    m_session.send(SYSLOG_FOLLOW_CANCEL_MSG, m_collector, nullptr, 0, ignored);
    return outcome;
  }

  Session& m_session;
  LogSettings m_settings;
  uint32_t m_collector;
  std::string m_whom;
  bool m_people;
  bool m_following = false;
};

Outcome runLog(const CommonOptions& options, const Arguments& arguments) {
  LogSettings settings;
  std::string error;
  if (!parseLog(arguments, settings, error)) return misused(error);
  Session session(options);
  if (!session.open(error)) return failed(error);
  InterruptionScope interruptions(session.client(), session.address());
  LogFollower follower(session, settings);
  if (!follower.start(error)) return failed(error);
  return follower.run();
}

}  // namespace

const Command& logCommand() {
  static const Command command{"log",
                               "  log [NID...] [-n LINES]         the nodes' system log as it arrives\n",
                               kUsage,
                               kHelp,
                               runLog,
                               {{"-n", true}}};
  return command;
}

}  // namespace Olmctl
