// Reading the text of a message filter log ("<nid>_MsgFilterLog.log") back into entries, for the
// tests of the log and of nodes that write it.
#pragma once

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

namespace OlmTest {

struct MsgFilterEntry {
  std::string operation, wallClock, lteTime, id, target, sender, flags, name;
  unsigned payloadSize = 0;
  bool dumped = false;
  std::string dumpHeader;  // the 32 hex digits after "START:"
  std::string payloadHex;  // the dumped bytes, line feeds left out
};

// The entries from the start of text up to the first place that is not a complete entry; *end
// (if given) gets that place. A log read while its node writes may end in a cut entry.
inline std::vector<MsgFilterEntry> parseMsgFilterLog(const std::string& text, size_t* end = nullptr) {
  static const char kEntryStart[] = "\n[op:";
  static const char kDumpStart[] = "START:\n";
  static const char kDumpEnd[] = "\n:END\n";
  std::vector<MsgFilterEntry> entries;
  size_t at = 0;
  while (text.compare(at, std::strlen(kEntryStart), kEntryStart) == 0) {
    const size_t lineEnd = text.find('\n', at + 1);
    if (lineEnd == std::string::npos) break;
    const std::string line = text.substr(at + 1, lineEnd - at - 1);
    char operation[64], wallClock[32], lte[32], id[8], target[16], sender[16], flags[8], name[128];
    unsigned payloadSize = 0;
    int used = -1;
    std::sscanf(line.c_str(),
                "[op:%63[^]]][%31[^]]][%31[^]]]{Id:%7[0-9a-f] Target:%15[0-9a-f] Sender:%15[0-9a-f] "
                "Flags:%7[0-9a-f]} (%127[^,],len:%u)%n",
                operation, wallClock, lte, id, target, sender, flags, name, &payloadSize, &used);
    if (used != static_cast<int>(line.size())) break;
    MsgFilterEntry entry{operation, wallClock, lte, id, target, sender, flags, name, payloadSize, false, "", ""};
    size_t next = lineEnd + 1;
    if (text.compare(next, std::strlen(kDumpStart), kDumpStart) == 0) {
      const size_t dumpEnd = text.find(kDumpEnd, next);
      if (dumpEnd == std::string::npos) break;
      std::string dump = text.substr(next + std::strlen(kDumpStart), dumpEnd - next - std::strlen(kDumpStart));
      entry.dumped = true;
      entry.dumpHeader = dump.substr(0, dump.find('\n'));
      for (size_t i = entry.dumpHeader.size(); i < dump.size(); ++i) {
        if (dump[i] != '\n') entry.payloadHex += dump[i];
      }
      next = dumpEnd + std::strlen(kDumpEnd);
    }
    entries.push_back(entry);
    at = next;
  }
  if (end != nullptr) *end = at;
  return entries;
}

// The text with every entry's wall clock, which a test cannot choose, as "hh:mm:ss.uuuuuu".
inline std::string maskWallClocks(std::string text) {
  static const char kClockPrefix[] = "][";
  static const char kMask[] = "hh:mm:ss.uuuuuu";
  for (size_t at = text.find("\n[op:"); at != std::string::npos; at = text.find("\n[op:", at + 1)) {
    const size_t clock = text.find(kClockPrefix, at);
    if (clock == std::string::npos) break;
    text.replace(clock + 2, std::strlen(kMask), kMask);
  }
  return text;
}

}  // namespace OlmTest
