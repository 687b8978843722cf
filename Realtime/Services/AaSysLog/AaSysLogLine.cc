#include "AaSysLogLine.h"

#include <cstdio>
#include <cstring>

namespace Olm {

namespace {

constexpr const char* kLevelNames[] = {"?V?", "DBG", "INF", "WRN", "ERR", "VIP", "?N?"};
constexpr size_t kLevelCount = sizeof(kLevelNames) / sizeof(kLevelNames[0]);
constexpr const char* kPrefixFormat = "%04X <%04u-%02u-%02uT%02u:%02u:%02u.%06uZ> %X %s/";
constexpr const char* kSourceFormat = "File: %s, line %u: ";
// A piece after the prefix is added only while the area has room for one character of it and the
// zero byte.
constexpr size_t kMaxLengthBeforePiece = kSysLogAreaSize - 2;

// Text formatted into an area that keeps its length; each piece is cut to the room left.
class Area {
 public:
  explicit Area(char* text) : m_text(text) { std::memset(m_text, 0, kSysLogAreaSize); }

  bool append(const char* format, ...) __attribute__((format(printf, 2, 3))) {
    va_list args;
    va_start(args, format);
    const bool ok = vappend(format, args);
    va_end(args);
    return ok;
  }

  bool vappend(const char* format, va_list args) {
    if (std::vsnprintf(m_text + m_length, kSysLogAreaSize - m_length, format, args) < 0) return false;
    m_length = std::strlen(m_text);
    return true;
  }

  size_t length() const { return m_length; }

 private:
  char* m_text;
  size_t m_length = 0;
};

bool appendPrefix(Area& area, const SysLogStamp& stamp, EAaSysLogSeverityLevel level) {
  const SAaTime& t = stamp.localTime;
  return area.append(kPrefixFormat, unsigned{stamp.nid}, t.year, t.month, t.day, t.hour, t.minute,
                     t.second, stamp.microseconds, stamp.pid, sysLogLevelName(level));
}

bool appendSource(Area& area, const SysLogSource* source) {
  if (source == nullptr || area.length() > kMaxLengthBeforePiece) return true;
  return area.append(kSourceFormat, source->file != nullptr ? source->file : "(null)", source->line);
}

bool appendText(Area& area, const char* format, va_list args) {
  if (format == nullptr || area.length() > kMaxLengthBeforePiece) return true;
  return area.vappend(format, args);
}

void endLine(SysLogLine& line, size_t length) {
  line.text[length] = '\n';
  line.text[length + 1] = '\0';
  line.payloadSize = static_cast<uint32_t>(length + kSysLogLineEndSize);
}

}  // namespace

const char* sysLogLevelName(EAaSysLogSeverityLevel level) {
  const size_t index = static_cast<size_t>(level);
  return kLevelNames[index < kLevelCount ? index : kLevelCount - 1];
}

bool formatSysLogLine(SysLogLine& line, const SysLogStamp& stamp, EAaSysLogSeverityLevel level,
                      const SysLogSource* source, const char* format, va_list args) {
  Area area(line.text);
  if (!appendPrefix(area, stamp, level)) return false;
  if (!appendSource(area, source)) return false;
  if (!appendText(area, format, args)) return false;
  endLine(line, area.length());
  return true;
}

}  // namespace Olm
