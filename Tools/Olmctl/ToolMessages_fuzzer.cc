// What the tool reads from others, of any length and content: echo replies (the first two bytes
// are the header's flags, the next four the sender, the rest the payload, whose first word is taken
// as the tool's token so that the decoding goes past the match), a reply as send --wait prints it,
// the log collector's lines and answers as log shows them, a RAM file server's reply for the chunk
// at the offset of the payload's fourth word, and the whole input as a node's statistics record
// file.
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "Echo.h"
#include "LogMessages.h"
#include "RamFileReader.h"
#include "SendMessages.h"
#include "StatsRecord.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  constexpr size_t kPrefix = 6;
  const std::vector<uint8_t> whole(data, data + size);
  if (const std::optional<Olmctl::StatsRecord> record = Olmctl::parseStatsRecord(whole)) {
    Olmctl::loadShares(Olmctl::ticksBetween(Olmctl::LoadCounters{}, record->counters));
  }
  if (size < kPrefix) return 0;
  Olmctl::WireClient::Message message;
  std::memcpy(&message.flags, data, sizeof(message.flags));
  std::memcpy(&message.sender, data + sizeof(message.flags), sizeof(message.sender));
  message.id = Olmctl::kEchoMsgId;
  message.payload.assign(data + kPrefix, data + size);
  const std::vector<uint32_t> words = message.words();
  Olmctl::echoReply(message, words.empty() ? 0 : words[0]);
  Olmctl::payloadLines(message.payload);
  if (const std::optional<Olmctl::LogEntry> entry = Olmctl::logEntry(message)) {
    Olmctl::logEntryText(*entry);
    Olmctl::logEntryJson(*entry);
  }
  Olmctl::followAnswer(message);
  constexpr size_t kOffsetWord = 3;
  const uint32_t offset = words.size() > kOffsetWord ? words[kOffsetWord] : 0;
  message.id = RAMFILE_READ_REPLY_MSG;
  Olmctl::isServerReplyFor(message, words.size() > 1 ? static_cast<uint16_t>(words[1]) : 0, offset);
  Olmctl::parseServerChunk(message, offset);
  return 0;
}
