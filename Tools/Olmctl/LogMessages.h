// What the log collector on the controller node sends a follower (SysLogFollow.h), as olmctl log
// reads it and shows it to people and scripts.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "WireClient.h"

namespace Olmctl {

struct LogEntry {
  uint32_t kind = 0;  // SYSLOG_FOLLOW_KIND_*
  uint16_t nid = 0;
  uint32_t hyperFrame = 0, frame = 0, slot = 0, basicTU = 0;  // the collector's LTE time at arrival
  std::string text;  // up to its NUL or the payload's end
};

struct FollowAnswer {
  uint32_t status = 0;  // SYSLOG_FOLLOW_STATUS_*
  uint32_t followed = 0;
  bool started = false;  // the request started the following: it had not been, or had been dropped
};

// A line message's contents; nothing when it is too short for its words or of a kind unknown.
std::optional<LogEntry> logEntry(const WireClient::Message& message);
// An acknowledgement's words; nothing when it is too short for them.
std::optional<FollowAnswer> followAnswer(const WireClient::Message& message);

// For people, as the controller prints it: "0x1011 [0517,0391,00,00012] <text>", a line of text
// each, and "node 0x1011 appeared" or "... gone". Control characters but tab show as '?'.
std::string logEntryText(const LogEntry& entry);
// For scripts: one JSON object on a line of its own.
std::string logEntryJson(const LogEntry& entry);
// Why the collector refused a request, as the error line says it.
std::string followRefusal(uint32_t status);

}  // namespace Olmctl
