// The history log's record: the content of the "<nid>_HistoryLog.bin" RAM file, a file format
// that the dump and olm-history read, 88 bytes in host byte order on every word size.
//
//   offset  width  field
//        0     20  time: the sample count (u64), the hardware frame counter (u64: frame number in
//                  bits 0-9, hyper frame in bits 10-19) and the fine count within the frame (u32,
//                  40 per basic time unit), as the time source read them
//       20    u16  type: 101 line (vlogf), 102 text chunk (vlogfString), 103 message event
//                  (vlogfMessage); 0 in a record never written
//       22    u16  count: a line's argument count (0 to 11); a message event's count as the caller
//                  gave it (1 to 6); a text chunk's number of chunks still to come, itself included
//       24    u32  format word (lines and message events; a text chunk leaves it as it was)
//       28     60  payload: a line's arguments; a message event's count - 1 arguments, then the
//                  message handle, the message id (u32), receiver and sender; or up to 60 bytes of
//                  text, zero-padded, unterminated when full
//
// Arguments are stored one after the other with their real types, as the format reads them:
// int-sized values (everything up to int, and '*' widths) take one 32-bit word; long long,
// intmax_t and double two; long, size_t and ptrdiff_t a long's width; long double its own size;
// pointers a pointer's width (words in host order, low word first). The record does not say which
// is which: its reader walks the same format. A line whose arguments need more words than the
// payload holds is refused as one with too many arguments (only formats with many 64-bit values
// come near that).
//
// Pointers. The pointers a dump reads through, the format and the %s texts, are stored as their
// distance from an anchor in this library's read-only data, modulo the pointer width. Inside the
// writing process the anchor gives every pointer back exactly. A program that loads the same
// libOlmLiteRt (olm-history) finds the formats and texts of the runtime itself at the same
// distance from its own anchor, so a history log read after the node has gone still turns into
// text; what lies elsewhere (an EU library's formats) is shown as unresolved. Pointers that are
// only printed (%p, %n, the message handle) are stored as they are. On a 32-bit build a pointer
// is one word, so the format sits whole at 24; on a 64-bit build a pointer takes two words and the
// format's high word is the last payload word, which leaves 56 bytes for the payload there.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "FormatArguments.h"
#include "LteTime.h"

namespace Olm {
namespace history {

constexpr uint16_t kLineRecord = 101;
constexpr uint16_t kTextRecord = 102;
constexpr uint16_t kMessageRecord = 103;

constexpr unsigned kRecordSize = 88;
constexpr unsigned kTimeWords = 5;
constexpr unsigned kPayloadBytes = 60;
constexpr unsigned kPayloadWords = kPayloadBytes / sizeof(uint32_t);
constexpr unsigned kPointerWords = sizeof(void*) / sizeof(uint32_t);
constexpr bool kWidePointers = kPointerWords > 1;
// The word that holds the format's high half on a 64-bit build.
constexpr unsigned kFormatHighWord = kPayloadWords - 1;
constexpr unsigned kArgumentWords = kWidePointers ? kFormatHighWord : kPayloadWords;
constexpr unsigned kMaxLineArguments = 11;
constexpr unsigned kMaxMessageCount = 6;
constexpr unsigned kMessageFieldWords = 3;  // id, receiver, sender

struct SHistoryRecord {
  uint32_t time[kTimeWords];
  uint16_t type;
  uint16_t count;
  uint32_t format;
  uint32_t payload[kPayloadWords];
};

static_assert(sizeof(void*) == 4 || sizeof(void*) == 8, "pointers are one or two record words");
static_assert(sizeof(SHistoryRecord) == kRecordSize, "a record is 88 bytes on every word size");
static_assert(offsetof(SHistoryRecord, type) == 20, "record type at 20");
static_assert(offsetof(SHistoryRecord, count) == 22, "record count at 22");
static_assert(offsetof(SHistoryRecord, format) == 24, "format word at 24");
static_assert(offsetof(SHistoryRecord, payload) == 28, "payload words at 28");

// What a stored argument is; a value of FormatArgument, or one of the pointer kinds.
enum class StoredKind : uint8_t {
  Int,
  Long,
  LongLong,
  Size,
  IntMax,
  PtrDiff,
  Double,
  LongDouble,
  Text,     // %s: distance from the anchor
  Address,  // %p: as it is
  Written,  // %n: as it is, never written through
};

// The record words one argument of a kind takes.
unsigned wordsOf(StoredKind kind);

// The arguments of one format, as a record stores them: worked out once per format.
struct ArgumentLayout {
  const char* format = nullptr;
  uint8_t count = 0;  // arguments the format reads, at most kMaxLineArguments
  StoredKind kinds[kMaxLineArguments] = {};
  // Offset in the format after each conversion's letter; 0 for a '*' width or precision.
  uint16_t ends[kMaxLineArguments] = {};
  // Payload words of the first i arguments.
  uint8_t wordsBefore[kMaxLineArguments + 1] = {};
};

void buildArgumentLayout(const char* format, ArgumentLayout& layout);

// The layouts of the formats seen lately, by format address (formats are string literals).
class ArgumentLayoutCache {
 public:
  const ArgumentLayout& of(const char* format) {
    ArgumentLayout& entry = m_entries[slotOf(format)];
    if (entry.format != format || format == nullptr) buildArgumentLayout(format, entry);
    return entry;
  }

 private:
  static constexpr unsigned kSlots = 64;
  static unsigned slotOf(const char* format) {
    const uintptr_t address = reinterpret_cast<uintptr_t>(format);
    return static_cast<unsigned>((address >> 3) ^ (address >> 9)) % kSlots;
  }
  ArgumentLayout m_entries[kSlots];
};

// Takes the first count arguments of layout off args, each with its real type, into words.
void storeArguments(const ArgumentLayout& layout, unsigned count, va_list* args, uint32_t* words);

// Pointers read through, as distances from the anchor and back.
uintptr_t textOffset(const void* text);
const char* textAt(uintptr_t offset);
// The anchor itself: the runtime library's read-only data holds it.
const char* textAnchor();

template <typename T>
inline void storeValue(uint32_t* words, T value) {
  std::memcpy(words, &value, sizeof(value));
}

template <typename T>
inline T loadValue(const uint32_t* words) {
  T value;
  std::memcpy(&value, words, sizeof(value));
  return value;
}

inline void storeFormat(SHistoryRecord& record, const char* format) {
  const uintptr_t offset = textOffset(format);
  record.format = static_cast<uint32_t>(offset);
  if (kWidePointers) record.payload[kFormatHighWord] = static_cast<uint32_t>(static_cast<uint64_t>(offset) >> 32);
}

inline uintptr_t formatOffset(const SHistoryRecord& record) {
  uint64_t offset = record.format;
  if (kWidePointers) offset |= static_cast<uint64_t>(record.payload[kFormatHighWord]) << 32;
  return static_cast<uintptr_t>(offset);
}

inline void storeTime(SHistoryRecord& record, const LteTime& time) {
  storeValue(&record.time[0], time.getSamples());
  storeValue(&record.time[2], time.getRawFrameCounter());
  record.time[4] = time.getFineOffset();
}

}  // namespace history
}  // namespace Olm
