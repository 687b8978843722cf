#include "HistoryLogDump.h"

#include <link.h>

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <cstring>

#include "HistoryRecord.h"
#include "MsgNameCatalogue.h"

namespace Olm {

namespace {

using namespace history;

constexpr size_t kLineSize = 1024;
constexpr size_t kMaxConversionLength = 64;
constexpr size_t kPlaceholderSize = 48;
constexpr uint32_t kFrameWordMask = 0xFFFFF;  // hyper frame x 1024 + frame
constexpr unsigned kMaxStars = 2;             // a width and a precision
constexpr unsigned kMaxLoadSegments = 8;

// One output line of at most 1023 characters; what does not fit is cut.
class Line {
 public:
  void clear() {
    m_length = 0;
    m_text[0] = '\0';
  }
  const char* text() const { return m_text; }

  void append(const char* text, size_t length) {
    const size_t bytes = std::min(length, kLineSize - 1 - m_length);
    std::memcpy(m_text + m_length, text, bytes);
    m_length += bytes;
    m_text[m_length] = '\0';
  }

  // One printf conversion, its '*' widths first.
  template <typename T>
  void print(const char* conversion, const int* stars, unsigned starCount, T value) {
    char* at = m_text + m_length;
    const size_t room = kLineSize - m_length;
    int written = 0;
    if (starCount == 0) written = std::snprintf(at, room, conversion, value);
    if (starCount == 1) written = std::snprintf(at, room, conversion, stars[0], value);
    if (starCount == 2) written = std::snprintf(at, room, conversion, stars[0], stars[1], value);
    if (written > 0) m_length = std::min(m_length + static_cast<size_t>(written), kLineSize - 1);
  }

 private:
  char m_text[kLineSize] = {};
  size_t m_length = 0;
};

// Literal format text from..to (to null: the end), "%%" written as "%".
void appendLiteral(Line& line, const char* from, const char* to) {
  while (from != to && *from != '\0') {
    const char* stop = from;
    while (stop != to && *stop != '\0' && *stop != '%') ++stop;
    line.append(from, static_cast<size_t>(stop - from));
    if (stop == to || *stop == '\0') return;
    line.append("%", 1);
    from = stop + 1;
    if (from != to && *from == '%') ++from;
  }
}

// Where formats and texts of a record are read.
class TextResolver {
 public:
  explicit TextResolver(bool offline) : m_offline(offline) {
    if (offline) dl_iterate_phdr(collectReadOnlySegments, this);
  }

  // The text at offset from the anchor; null when it may not be read.
  const char* resolve(uintptr_t offset) const {
    const char* text = textAt(offset);
    if (!m_offline) return text;
    const uintptr_t address = reinterpret_cast<uintptr_t>(text);
    for (unsigned i = 0; i < m_segmentCount; ++i) {
      const Segment& segment = m_segments[i];
      if (address >= segment.begin && address < segment.end &&
          std::memchr(text, '\0', segment.end - address) != nullptr) {
        return text;
      }
    }
    return nullptr;
  }

 private:
  struct Segment {
    uintptr_t begin, end;
  };

  // The read-only loadable segments of the object that holds the anchor: this library.
  static int collectReadOnlySegments(dl_phdr_info* info, size_t, void* data) {
    TextResolver& resolver = *static_cast<TextResolver*>(data);
    const uintptr_t anchor = reinterpret_cast<uintptr_t>(textAnchor());
    bool holdsAnchor = false;
    for (unsigned i = 0; i < info->dlpi_phnum; ++i) {
      const ElfW(Phdr)& header = info->dlpi_phdr[i];
      if (header.p_type != PT_LOAD) continue;
      const uintptr_t begin = info->dlpi_addr + header.p_vaddr;
      if (anchor >= begin && anchor < begin + header.p_memsz) holdsAnchor = true;
    }
    if (!holdsAnchor) return 0;
    for (unsigned i = 0; i < info->dlpi_phnum && resolver.m_segmentCount < kMaxLoadSegments; ++i) {
      const ElfW(Phdr)& header = info->dlpi_phdr[i];
      if (header.p_type != PT_LOAD || (header.p_flags & PF_W) != 0 || (header.p_flags & PF_R) == 0) continue;
      const uintptr_t begin = info->dlpi_addr + header.p_vaddr;
      resolver.m_segments[resolver.m_segmentCount++] = {begin, begin + header.p_filesz};
    }
    return 1;
  }

  bool m_offline;
  Segment m_segments[kMaxLoadSegments] = {};
  unsigned m_segmentCount = 0;
};

void describeOffset(char* placeholder, const char* what, uintptr_t offset) {
  const intptr_t distance = static_cast<intptr_t>(offset);
  const unsigned long long magnitude =
      distance < 0 ? 0ull - static_cast<unsigned long long>(distance) : static_cast<unsigned long long>(distance);
  std::snprintf(placeholder, kPlaceholderSize, "<%s %c0x%llx>", what, distance < 0 ? '-' : '+', magnitude);
}

// The segment's literal text, then its one conversion filled from words.
void appendConversion(Line& line, const char* segment, const char* end, StoredKind kind, const uint32_t* words,
                      const int* stars, unsigned starCount, const TextResolver& resolver) {
  const char* percent = end - 1;
  while (percent > segment && *percent != '%') --percent;
  appendLiteral(line, segment, percent);
  char conversion[kMaxConversionLength];
  const size_t length = static_cast<size_t>(end - percent);
  if (length >= sizeof(conversion)) {
    appendLiteral(line, percent, end);
    return;
  }
  std::memcpy(conversion, percent, length);
  conversion[length] = '\0';
  switch (kind) {
    case StoredKind::Int: line.print(conversion, stars, starCount, loadValue<int>(words)); break;
    case StoredKind::Long: line.print(conversion, stars, starCount, loadValue<long>(words)); break;
    case StoredKind::LongLong: line.print(conversion, stars, starCount, loadValue<long long>(words)); break;
    case StoredKind::Size: line.print(conversion, stars, starCount, loadValue<size_t>(words)); break;
    case StoredKind::IntMax: line.print(conversion, stars, starCount, loadValue<intmax_t>(words)); break;
    case StoredKind::PtrDiff: line.print(conversion, stars, starCount, loadValue<ptrdiff_t>(words)); break;
    case StoredKind::Double: line.print(conversion, stars, starCount, loadValue<double>(words)); break;
    case StoredKind::LongDouble: line.print(conversion, stars, starCount, loadValue<long double>(words)); break;
    case StoredKind::Text: {
      const uintptr_t offset = loadValue<uintptr_t>(words);
      const char* text = resolver.resolve(offset);
      char placeholder[kPlaceholderSize];
      if (text == nullptr && textAt(offset) != nullptr) {
        describeOffset(placeholder, "text", offset);
        text = placeholder;
      }
      if (text == nullptr) text = "(null)";
      line.print(conversion, stars, starCount, text);
      break;
    }
    case StoredKind::Address:
      line.print(conversion, stars, starCount, reinterpret_cast<void*>(loadValue<uintptr_t>(words)));
      break;
    case StoredKind::Written: break;  // never written through
  }
}

// The format with its first count arguments from the record's words.
void appendFormatted(Line& line, const char* format, const ArgumentLayout& layout, unsigned count,
                     const uint32_t* words, const TextResolver& resolver) {
  const char* segment = format;
  int stars[kMaxStars] = {};
  unsigned starCount = 0;
  for (unsigned i = 0; i < std::min<unsigned>(count, layout.count); ++i) {
    const uint32_t* at = words + layout.wordsBefore[i];
    if (layout.ends[i] == 0) {
      if (starCount < kMaxStars) stars[starCount++] = loadValue<int>(at);
      continue;
    }
    const char* end = format + layout.ends[i];
    appendConversion(line, segment, end, layout.kinds[i], at, stars, starCount, resolver);
    starCount = 0;
    segment = end;
  }
  // What the stored arguments do not reach is written as it stands.
  appendLiteral(line, segment, nullptr);
}

class HistoryDump {
 public:
  HistoryDump(std::FILE* out, bool offline) : m_out(out), m_offline(offline), m_resolver(offline) {}

  void write(const SHistoryRecord& record) {
    m_line.clear();
    switch (record.type) {
      case kLineRecord: writeLine(record); break;
      case kMessageRecord: writeMessage(record); break;
      case kTextRecord: writeText(record); break;
      default: return;  // never written
    }
    std::fputs(m_line.text(), m_out);
  }

 private:
  // The time the record was stamped with: from the hardware counters when the reading carried
  // them, otherwise the sample count.
  static uint64_t recordedSamples(const SHistoryRecord& record) {
    if ((record.time[2] != 0 || record.time[3] != 0) && record.time[4] != 0) {
      return uint64_t{record.time[2] & kFrameWordMask} * LteTime::BasicTimeUnitsPerFrame +
             record.time[4] / LteTime::FineUnitsPerBasicTimeUnit;
    }
    return loadValue<uint64_t>(record.time);
  }

  void writeTime(const SHistoryRecord& record) {
    const uint64_t samples = recordedSamples(record);
    char prefix[32];
    if (m_offline && samples >= LteTime::MaxSamples) {
      std::snprintf(prefix, sizeof(prefix), "[????,????,??,?????] ");
    } else {
      LteTime::SLteTime parts;
      LteTime(samples).vector(parts);  // in-process: a time beyond the cycle ends the process
      std::snprintf(prefix, sizeof(prefix), "[%04d,%04d,%02d,%05d] ", parts.hyperFrame, parts.frame, parts.slot,
                    parts.basicTimeUnit);
    }
    m_line.append(prefix, std::strlen(prefix));
  }

  // The record's format, or null after writing why it cannot be read.
  const char* readableFormat(const SHistoryRecord& record) {
    const uintptr_t offset = formatOffset(record);
    const char* format = m_resolver.resolve(offset);
    if (format == nullptr) {
      char placeholder[kPlaceholderSize];
      describeOffset(placeholder, "format", offset);
      m_line.append(placeholder, std::strlen(placeholder));
    }
    return format;
  }

  void writeLine(const SHistoryRecord& record) {
    if (textAt(formatOffset(record)) == nullptr) return;
    writeTime(record);
    const char* format = readableFormat(record);
    if (format == nullptr) {
      writeWords(record, std::min<unsigned>(record.count, kArgumentWords));
    } else if (record.count <= kMaxLineArguments) {
      ArgumentLayout layout;
      buildArgumentLayout(format, layout);
      if (layout.wordsBefore[std::min<unsigned>(record.count, layout.count)] <= kArgumentWords) {
        appendFormatted(m_line, format, layout, record.count, record.payload, m_resolver);
      }
    }
    m_line.append("\n", 1);
  }

  void writeMessage(const SHistoryRecord& record) {
    if (textAt(formatOffset(record)) == nullptr) return;
    writeTime(record);
    const char* format = readableFormat(record);
    if (format == nullptr) {
      m_line.append("\n", 1);
      return;
    }
    ArgumentLayout layout;
    buildArgumentLayout(format, layout);
    const bool countValid = record.count >= 1 && record.count <= kMaxMessageCount;
    const unsigned formatArguments = countValid ? record.count - 1u : 0u;
    const unsigned fieldsAt = layout.wordsBefore[std::min<unsigned>(formatArguments, layout.count)] + kPointerWords;
    if (fieldsAt + kMessageFieldWords > kArgumentWords) {
      m_line.append("\n", 1);
      return;
    }
    if (countValid) {
      // The handle follows the format's arguments, so a format whose last conversion is a %p
      // prints it, as the Dispatcher's "(%04x)->%s(%p)" does.
      const bool printsHandle = layout.count > formatArguments && layout.kinds[formatArguments] == StoredKind::Address;
      appendFormatted(m_line, format, layout, formatArguments + (printsHandle ? 1 : 0), record.payload, m_resolver);
    }
    const uint32_t* fields = record.payload + fieldsAt;
    char message[kLineSize];
    std::snprintf(message, sizeof(message), " {Id:%04x Target:%08x Sender:%08x} (%s)\n", fields[0], fields[1],
                  fields[2], msgNameLookup(fields[0]));
    m_line.append(message, std::strlen(message));
  }

  // Text chunks carry no time: a long text continues the line of its first chunk.
  void writeText(const SHistoryRecord& record) {
    const char* text = reinterpret_cast<const char*>(record.payload);
    m_line.append(text, strnlen(text, kPayloadBytes));
    if (record.count == 1) m_line.append("\n", 1);
  }

  void writeWords(const SHistoryRecord& record, unsigned count) {
    for (unsigned i = 0; i < count; ++i) {
      char word[16];
      std::snprintf(word, sizeof(word), " %08" PRIx32, record.payload[i]);
      m_line.append(word, std::strlen(word));
    }
  }

  std::FILE* m_out;
  bool m_offline;
  TextResolver m_resolver;
  Line m_line;
};

int dumpHistoryLog(const char* inputPath, const char* outputPath, bool offline) {
  if (inputPath == nullptr || outputPath == nullptr) return -1;
  std::FILE* in = std::fopen(inputPath, "rb");
  if (in == nullptr) return -1;
  std::FILE* out = std::fopen(outputPath, "w");
  if (out == nullptr) {
    std::fclose(in);
    return -1;
  }
  std::fputs("*********** History Log *************\n", out);
  HistoryDump dump(out, offline);
  // The record is not cleared between reads: a short last read leaves the rest of the record
  // before it in place, and that record is written once more with the new leading bytes.
  SHistoryRecord record = {};
  while (!std::feof(in) && !std::ferror(in)) {
    if (std::fread(&record, 1, sizeof(record), in) == 0 && std::ferror(in)) break;
    dump.write(record);
  }
  std::fputs("*********** End history *************\n\n", out);
  std::fclose(out);
  std::fclose(in);
  return 0;
}

}  // namespace

void outputHistoryLog(const char* inputPath, const char* outputPath) { dumpHistoryLog(inputPath, outputPath, false); }

int outputHistoryLogOffline(const char* inputPath, const char* outputPath) {
  return dumpHistoryLog(inputPath, outputPath, true);
}

}  // namespace Olm
