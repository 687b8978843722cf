#include "MsgFilterLog.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

#include "AaSysComMsgHeader.h"
#include "AaSysTime.h"
#include "MsgNameCatalogue.h"

#if defined(__SANITIZE_THREAD__)
extern "C" void AnnotateIgnoreWritesBegin(const char* file, int line);
extern "C" void AnnotateIgnoreWritesEnd(const char* file, int line);
#endif

namespace Olm {

namespace {

// The RAM file service thread reads the buffer while entries are written into it, without a lock
// and on purpose (a reader may see the newest entry half written). The thread sanitizer is told
// to leave these writes out of its race detection.
class UnlockedBufferWrites {
 public:
#if defined(__SANITIZE_THREAD__)
  UnlockedBufferWrites() { AnnotateIgnoreWritesBegin(__FILE__, __LINE__); }
  ~UnlockedBufferWrites() { AnnotateIgnoreWritesEnd(__FILE__, __LINE__); }
#else
  UnlockedBufferWrites() = default;
#endif
  UnlockedBufferWrites(const UnlockedBufferWrites&) = delete;
  UnlockedBufferWrites& operator=(const UnlockedBufferWrites&) = delete;
};

constexpr int kAnyBase = 0;  // "0x" hexadecimal, a leading "0" octal, else decimal
constexpr size_t kIdTextSize = 32;
constexpr unsigned long kLargestMsgId = 0xFFFF;  // ids travel in 16 bits
constexpr unsigned kDumpBytesPerLine = 16;
constexpr char kHexDigits[] = "0123456789abcdef";

// One piece of the id list as an id: the whole piece (blanks around it aside) must be a number
// that fits a message id; 0 when it is not one.
uint32_t parseId(const char* begin, const char* end) {
  while (begin < end && std::isspace(static_cast<unsigned char>(*begin))) ++begin;
  while (end > begin && std::isspace(static_cast<unsigned char>(end[-1]))) --end;
  const size_t length = static_cast<size_t>(end - begin);
  // strtoul would also take a sign and skip blanks of its own: a digit must come first.
  if (length == 0 || length >= kIdTextSize || !std::isdigit(static_cast<unsigned char>(*begin))) return 0;
  char text[kIdTextSize];
  std::memcpy(text, begin, length);
  text[length] = '\0';
  char* stop = nullptr;
  errno = 0;
  const unsigned long value = std::strtoul(text, &stop, kAnyBase);
  if (*stop != '\0' || errno == ERANGE || value > kLargestMsgId) return 0;
  return static_cast<uint32_t>(value);
}

// Text appended to a fixed area, each piece cut to the room left (one byte stays free, as
// snprintf keeps it for its terminator).
class EntryText {
 public:
  EntryText(char* area, size_t capacity) : m_area(area), m_capacity(capacity) {}

  __attribute__((format(printf, 2, 3))) void print(const char* format, ...) {
    const size_t room = m_capacity - m_length;
    va_list args;
    va_start(args, format);
    const int wanted = std::vsnprintf(m_area + m_length, room, format, args);
    va_end(args);
    if (wanted > 0) m_length += std::min(static_cast<size_t>(wanted), room - 1);
  }

  // "%02x" for every byte, a line feed after every 16th.
  void hexDump(const uint8_t* bytes, size_t count) {
    for (size_t i = 0; i < count; ++i) {
      put(kHexDigits[bytes[i] >> 4]);
      put(kHexDigits[bytes[i] & 0xF]);
      if ((i + 1) % kDumpBytesPerLine == 0) put('\n');
    }
  }

  uint32_t length() const { return static_cast<uint32_t>(m_length); }

 private:
  void put(char c) {
    if (m_length + 1 < m_capacity) m_area[m_length++] = c;
  }

  char* m_area;
  size_t m_capacity;
  size_t m_length = 0;
};

// takeFormatArgument, with the kinds the Dispatcher passes read in place: this runs for every
// message operation, logged or not.
inline void takeArgument(FormatArgument argument, va_list* args) {
  if (argument == FormatArgument::Int) {
    (void)va_arg(*args, int);
  } else if (argument == FormatArgument::Pointer) {
    (void)va_arg(*args, void*);
  } else {
    takeFormatArgument(argument, args);
  }
}

bool dumpsOperation(const char* operation) { return operation[0] == 'I' || operation[0] == 'S'; }

}  // namespace

MsgFilterLog::~MsgFilterLog() {
  if (m_registered) AaFileRamfsRemove(m_fileName);
}

void MsgFilterLog::setMsgFilterIds(const char* text) {
  m_filterCount = 0;
  std::memset(m_filterIds, 0, sizeof(m_filterIds));
  if (text == nullptr) return;
  const char* piece = text;
  while (m_filterCount < MaxFilterIds) {
    const char* comma = std::strchr(piece, ',');
    const char* end = comma != nullptr ? comma : piece + std::strlen(piece);
    const uint32_t id = parseId(piece, end);
    // A repeat would only take the slot of another id.
    if (id != 0 && !isListed(static_cast<uint16_t>(id))) m_filterIds[m_filterCount++] = id;
    if (comma == nullptr) break;
    piece = comma + 1;
  }
}

void MsgFilterLog::initMsgFilterLog(const char* name) {
  if (m_buffer != nullptr) return;
  if (m_size == 0) {
    m_size = DefaultSize;
  } else if (m_size < MinimumSize) {
    m_size = MinimumSize;
  }
  // calloc: the pages of a large buffer stay unused until entries reach them.
  m_buffer.reset(static_cast<char*>(std::calloc(m_size, 1)));
  m_entryText.reset(new (std::nothrow) char[MinimumSize]);
  std::snprintf(m_fileName, sizeof(m_fileName), "%s", name != nullptr ? name : "");
  if (m_buffer == nullptr || m_entryText == nullptr) {
    m_buffer.reset();
    std::puts("init: problem with ramfs");
    return;
  }
  m_registered = name != nullptr && AaFileRamfsSetExt(m_fileName, m_buffer.get(), m_size, lockFn, unlockFn,
                                                      nullptr) == EAaFileRet_Ok;
  if (!m_registered) std::puts("init: problem with ramfs");
}

EAaFileCallbackAction MsgFilterLog::lockFn(void*) { return EAaFileCallbackAction_Ok; }

EAaFileCallbackAction MsgFilterLog::unlockFn(void*) { return EAaFileCallbackAction_Ok; }

void MsgFilterLog::learnShape(unsigned count, const char* format) {
  m_shape = CallShape();
  m_shape.format = format;
  m_shape.count = count;
  FormatArguments walk(format);
  bool lastIsText = false;
  for (unsigned i = 0; i + 1 < count; ++i) {
    // Arguments the format does not read are taken as machine words.
    FormatArgument argument = FormatArgument::Pointer;
    const bool read = walk.next(argument);
    m_shape.arguments[i] = read ? argument : FormatArgument::Pointer;
    lastIsText = read && walk.conversion() == 's';
  }
  m_shape.operationIsText = lastIsText;
}

bool MsgFilterLog::isListed(uint16_t msgId) const {
  for (unsigned i = m_filterCount; i-- > 0;) {
    if (m_filterIds[i] == msgId) return true;
  }
  return false;
}

bool MsgFilterLog::wantsMessage(const void* msg) const {
  return m_filterCount == 0 || msg == nullptr || isListed(msgHeader(msg)->msgId);
}

void MsgFilterLog::vlogfMessage(unsigned int count, const char* format, va_list args) {
  if (count < 1 || count > MaxArguments) {
    std::puts("MsgFilLog: Incorrect number of args");
    return;
  }
  if (format != m_shape.format || count != m_shape.count) learnShape(count, format);
  const CallShape& shape = m_shape;
  const char* operation = format;
  va_list rest;
  va_copy(rest, args);
  for (unsigned i = 0; i + 1 < count; ++i) {
    if (i + 2 == count && shape.operationIsText) {
      operation = va_arg(rest, const char*);
    } else {
      takeArgument(shape.arguments[i], &rest);
    }
  }
  const void* msg = va_arg(rest, void*);
  va_end(rest);
  if (msg == nullptr || m_buffer == nullptr) return;
  const SAaSysComMsgHeader* header = msgHeader(msg);
  if (m_filterCount != 0 && !isListed(header->msgId)) return;

  const uint16_t payloadSize = AaSysComMsgGetPayloadSize(msg);
  // A total length too short for its envelope wraps the payload size past the limit; the second
  // test keeps the dump inside the total length whatever the limit.
  if (payloadSize > MaxLoggedPayload || AASYSCOM_HEADER_SIZE + payloadSize > header->totalLength) return;
  m_lastTime = m_timeSource != nullptr ? m_timeSource->getLTETime() : LteTime();
  append(formatEntry(operation != nullptr ? operation : "(null)", msg, payloadSize));
}

uint32_t MsgFilterLog::formatEntry(const char* operation, const void* msg, uint16_t payloadSize) {
  const SAaSysComMsgHeader* header = msgHeader(msg);
  SAaTime wallClock{};
  AaLocalTimeGet(&wallClock);
  SAaUnixTime unixTime{};
  AaUnixTimeGet(&unixTime);
  LteTime::SLteTime lte;
  m_lastTime.vector(lte);

  EntryText text(m_entryText.get(), MinimumSize);
  text.print("\n[op:%s][%02u:%02u:%02u.%06u][%04d,%04d,%02d,%05d]{Id:%04x Target:%08x Sender:%08x Flags:%04x} "
             "(%s,len:%d)\n",
             operation, wallClock.hour, wallClock.minute, wallClock.second, unixTime.microseconds, lte.hyperFrame,
             lte.frame, lte.slot, lte.basicTimeUnit, header->msgId, header->receiver, header->sender, header->flags,
             msgNameLookup(header->msgId), payloadSize);
  if (m_mode == ModeHeaderAndDump && dumpsOperation(operation)) {
    text.print("START:\n%04x%04x%08x%08x%04x%04x\n", header->msgId, header->control, header->receiver,
               header->sender, header->flags, header->totalLength);
    text.hexDump(static_cast<const uint8_t*>(msg) + AASYSCOM_HEADER_SIZE, payloadSize);
    text.print("\n:END\n");
  }
  return text.length();
}

void MsgFilterLog::append(uint32_t length) {
  [[maybe_unused]] const UnlockedBufferWrites unlocked;
  if (uint64_t{m_writeOffset} + length < m_size) {
    std::memcpy(m_buffer.get() + m_writeOffset, m_entryText.get(), length);
    m_writeOffset += length;
    return;
  }
  // Kept on purpose: no entry is split at the end, and the file always starts with an entry.
  std::memset(m_buffer.get(), 0, m_size);
  std::memcpy(m_buffer.get(), m_entryText.get(), length);
  m_writeOffset = 0;
}

}  // namespace Olm
