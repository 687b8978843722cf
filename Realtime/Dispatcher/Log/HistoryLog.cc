#include "HistoryLog.h"

#include <algorithm>
#include <cstdio>
#include <new>
#include <type_traits>

#include "AaSysComMsgHeader.h"

namespace Olm {

using history::SHistoryRecord;

namespace {

constexpr unsigned kChunkBytes = history::kPayloadBytes;

void printNotInitialised(const char* function, const char* format, va_list args, bool lineFeed) {
  char text[HistoryLog::kTextAreaSize];
  std::vsnprintf(text, sizeof(text), format, args);
  // vlogf's line has never ended in a line feed; the others have.
  std::printf(lineFeed ? "%s: hb not init: '%s'\n" : "%s: hb not init: '%s'", function, text);
}

}  // namespace

void HistoryLog::initHistoryLog(const char* name) {
  if (m_size == 0) m_size = kDefaultSize;
  m_capacity = m_size / history::kRecordSize;
  // The RAM file's length is the configured size, up to 87 bytes beyond the last whole record: the
  // buffer covers it (and one record at least, which a ring of capacity 0 keeps rewriting).
  const size_t words = (std::max<size_t>(m_size, sizeof(SHistoryRecord)) + sizeof(uint32_t) - 1) / sizeof(uint32_t);
  uint32_t* buffer = new (std::nothrow) uint32_t[words]();
  if (buffer == nullptr) {
    std::printf("init: problem with ramfs");
    return;
  }
  m_buffer = reinterpret_cast<SHistoryRecord*>(buffer);
  std::printf("Hist buff address is: %p\n", static_cast<void*>(m_buffer));
  if (AaFileRamfsSetExt(name, m_buffer, m_size, lockFn, unlockFn, nullptr) != EAaFileRet_Ok) {
    std::printf("init: problem with ramfs");
    return;
  }
  std::snprintf(m_fileName, sizeof(m_fileName), "%s", name);
}

HistoryLog::~HistoryLog() {
  if (m_fileName[0] != '\0') AaFileRamfsRemove(m_fileName);
  delete[] reinterpret_cast<uint32_t*>(m_buffer);
}

void HistoryLog::putTime(LteTime time) {
  LteTime::SLteTime parts;
  time.vector(parts);
  std::printf("[%04d,%04d,%02d,%05d] ", parts.hyperFrame, parts.frame, parts.slot, parts.basicTimeUnit);
}

SHistoryRecord& HistoryLog::startRecord(uint16_t type, uint16_t count) {
  SHistoryRecord& record = m_buffer[m_next];
  // The time source builds its reading in m_lastTime itself (LteTime is trivially destructible).
  // Assigned from a returned temporary, the copy read it with wide loads over the narrower stores
  // just made, a store-forwarding stall that cost as much as the rest of the record.
  static_assert(std::is_trivially_destructible<LteTime>::value, "the last time is rebuilt in place");
  new (&m_lastTime) LteTime(m_timeSource->getLTETime());
  history::storeTime(record, m_lastTime);
  record.type = type;
  record.count = count;
  return record;
}

SHistoryRecord& HistoryLog::startRecord(uint16_t type, unsigned count, const char* format,
                                        const history::ArgumentLayout& layout, unsigned stored, va_list* args) {
  SHistoryRecord& record = startRecord(type, static_cast<uint16_t>(count));
  history::storeFormat(record, format);
  history::storeArguments(layout, stored, args, record.payload);
  return record;
}

void HistoryLog::commitRecord() {
  if (++m_next >= m_capacity) m_next = 0;
  if (m_next == m_oldest) m_oldest = m_next + 1 < m_capacity ? m_next + 1 : 0;
}

void HistoryLog::vlogf(unsigned int count, const char* format, va_list args) {
  if (m_buffer == nullptr) {
    printNotInitialised("vlogf", format, args, false);
    return;
  }
  const history::ArgumentLayout& layout = m_layouts.of(format);
  // Arguments beyond the format's conversions are never printed, so they are not kept.
  const unsigned stored = std::min<unsigned>(count, layout.count);
  if (count > history::kMaxLineArguments || layout.wordsBefore[stored] > history::kArgumentWords) {
    std::printf("vlogf: Too may args");
    return;
  }
  va_list words;
  va_copy(words, args);
  startRecord(history::kLineRecord, count, format, layout, stored, &words);
  va_end(words);
  commitRecord();
}

void HistoryLog::vlogfMessage(unsigned int count, const char* format, va_list args) {
  if (m_buffer == nullptr) {
    printNotInitialised("vlogfMessage", format, args, true);
    return;
  }
  const history::ArgumentLayout& layout = m_layouts.of(format);
  const unsigned formatArguments = count - 1;
  const unsigned stored = std::min<unsigned>(formatArguments, layout.count);
  const unsigned handleAt = layout.wordsBefore[stored];
  if (count < 1 || count > history::kMaxMessageCount ||
      handleAt + history::kPointerWords + history::kMessageFieldWords > history::kArgumentWords) {
    std::printf("vmessgaef: Incorrect number of args");
    return;
  }
  va_list words;
  va_copy(words, args);
  SHistoryRecord& record = startRecord(history::kMessageRecord, count, format, layout, stored, &words);
  // A caller's arguments beyond the format's conversions come before the message; they are words.
  for (unsigned i = stored; i < formatArguments; ++i) (void)va_arg(words, void*);
  const void* msg = va_arg(words, void*);
  va_end(words);
  storeMessage(record.payload + handleAt, msg);
  commitRecord();
}

void HistoryLog::logMsgOperation(unsigned int cpid, const char* operation, void* msg) {
  if (m_buffer == nullptr) {
    ILog::logMsgOperation(cpid, operation, msg);
    return;
  }
  // The words vlogfMessage stores for kMsgOperationFormat with count 3: the CPID as the int it is
  // promoted to, the operation as a text, then the message.
  constexpr unsigned kOperationAt = 1;
  constexpr unsigned kMessageAt = kOperationAt + history::kPointerWords;
  SHistoryRecord& record = startRecord(history::kMessageRecord, 3);
  history::storeFormat(record, kMsgOperationFormat);
  history::storeValue(record.payload, static_cast<int>(cpid));
  history::storeValue(record.payload + kOperationAt, history::textOffset(operation));
  storeMessage(record.payload + kMessageAt, msg);
  commitRecord();
}

// The message handle, then the id, receiver and sender from its header (zeros for no message).
void HistoryLog::storeMessage(uint32_t* at, const void* msg) {
  history::storeValue(at, reinterpret_cast<uintptr_t>(msg));
  at += history::kPointerWords;
  const SAaSysComMsgHeader* header = msg != nullptr ? msgHeader(msg) : nullptr;
  at[0] = header != nullptr ? header->msgId : 0;
  at[1] = header != nullptr ? header->receiver : 0;
  at[2] = header != nullptr ? header->sender : 0;
}

void HistoryLog::vlogfString(const char* format, va_list args) {
  char text[kTextAreaSize];
  va_list formatArgs;
  va_copy(formatArgs, args);
  std::vsnprintf(text, sizeof(text), format, formatArgs);
  va_end(formatArgs);
  if (m_buffer == nullptr) {
    std::printf("%s: hb not init: '%s'\n", "vlogfString", text);
    return;
  }
  storeTextChunks(text);
}

// len / 60 + 1 chunks: a text of exactly 60 characters ends in an empty chunk.
void HistoryLog::storeTextChunks(const char* text) {
  const size_t length = std::strlen(text);
  const unsigned chunks = static_cast<unsigned>(length / kChunkBytes + 1);
  for (unsigned i = 0; i < chunks; ++i) {
    SHistoryRecord& record = startRecord(history::kTextRecord, static_cast<uint16_t>(chunks - i));
    char* chunk = reinterpret_cast<char*>(record.payload);
    const size_t from = size_t{i} * kChunkBytes;
    const size_t bytes = std::min<size_t>(kChunkBytes, length - from);
    std::memcpy(chunk, text + from, bytes);
    std::memset(chunk + bytes, 0, kChunkBytes - bytes);
    commitRecord();
  }
}

}  // namespace Olm
