#include "LogMessages.h"

#include <cstdio>
#include <cstring>

#include "Output.h"
#include "SysLogFollow.h"

namespace Olmctl {

namespace {

constexpr uint32_t kLineHeaderWords = SYSLOG_FOLLOW_LINE_HEADER_SIZE / sizeof(uint32_t);
constexpr uint32_t kAnswerWords = 3;
constexpr size_t kPrefixBytes = 64;

std::string lteText(const LogEntry& entry) {
  char text[kPrefixBytes];
  std::snprintf(text, sizeof(text), "[%04u,%04u,%02u,%05u]", entry.hyperFrame, entry.frame, entry.slot, entry.basicTU);
  return text;
}

std::string printable(std::string text) {
  for (char& c : text) {
    const auto code = static_cast<unsigned char>(c);
    if ((code < ' ' && c != '\t') || code == 0x7F) c = '?';
  }
  return text;
}

const char* kindName(uint32_t kind) {
  if (kind == SYSLOG_FOLLOW_KIND_NODE_APPEARED) return "appeared";
  if (kind == SYSLOG_FOLLOW_KIND_NODE_GONE) return "gone";
  return "line";
}

}  // namespace

std::optional<LogEntry> logEntry(const WireClient::Message& message) {
  const std::vector<uint32_t> words = message.words();
  if (words.size() < kLineHeaderWords || words[0] > SYSLOG_FOLLOW_KIND_NODE_GONE) return std::nullopt;
  LogEntry entry;
  entry.kind = words[0];
  entry.nid = static_cast<uint16_t>(words[1]);
  entry.hyperFrame = words[2] >> 16;
  entry.frame = words[2] & 0xFFFF;
  entry.slot = words[3] >> 16;
  entry.basicTU = words[3] & 0xFFFF;
  const auto* text = reinterpret_cast<const char*>(message.payload.data()) + SYSLOG_FOLLOW_LINE_HEADER_SIZE;
  entry.text.assign(text, strnlen(text, message.payload.size() - SYSLOG_FOLLOW_LINE_HEADER_SIZE));
  return entry;
}

std::optional<FollowAnswer> followAnswer(const WireClient::Message& message) {
  const std::vector<uint32_t> words = message.words();
  if (words.size() < kAnswerWords) return std::nullopt;
  return FollowAnswer{words[0], words[1], words[2] != 0};
}

std::string logEntryText(const LogEntry& entry) {
  if (entry.kind != SYSLOG_FOLLOW_KIND_LINE) return "node " + nidText(entry.nid) + " " + kindName(entry.kind) + "\n";
  const std::string prefix = nidText(entry.nid) + " " + lteText(entry) + " ";
  std::string text;
  size_t from = 0;
  for (;;) {
    const size_t end = entry.text.find('\n', from);
    text += prefix + printable(entry.text.substr(from, end == std::string::npos ? std::string::npos : end - from)) + "\n";
    if (end == std::string::npos) return text;
    from = end + 1;
  }
}

std::string logEntryJson(const LogEntry& entry) {
  return JsonObject()
             .string("kind", kindName(entry.kind))
             .number("node", uint64_t{entry.nid})
             .number("hyperFrame", uint64_t{entry.hyperFrame})
             .number("frame", uint64_t{entry.frame})
             .number("slot", uint64_t{entry.slot})
             .number("basicTimeUnit", uint64_t{entry.basicTU})
             .string("text", entry.text)
             .text() +
         "\n";
}

std::string followRefusal(uint32_t status) {
  switch (status) {
    case SYSLOG_FOLLOW_STATUS_TOO_MANY_FOLLOWERS:
      return "it has as many followers as it takes";
    case SYSLOG_FOLLOW_STATUS_MALFORMED:
      return "it could not read the request";
    case SYSLOG_FOLLOW_STATUS_TOO_MANY_NIDS:
      return "more than " + std::to_string(SYSLOG_FOLLOW_MAX_NIDS) + " node ids";
    default:
      return "status " + std::to_string(status);
  }
}

}  // namespace Olmctl
