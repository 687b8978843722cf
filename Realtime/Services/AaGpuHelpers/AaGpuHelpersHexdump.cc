#include "AaGpuHelpers.h"
#include "AaSysLog.h"
#include "LineWriter.h"

namespace {

constexpr size_t kLineCharacters = AAGPUHELPERS_HEXDUMP_LINE_SIZE - 1;
constexpr size_t kDigitsPerByte = 2;
// "  |" before the characters and "|" after them.
constexpr size_t kCharactersFrame = 4;
constexpr unsigned char kFirstPrintable = 0x20;
constexpr unsigned char kLastPrintable = 0x7E;

struct Layout {
  size_t bytesPerGroup;
  size_t groupBlanks;
  bool withCharacters;
  size_t groupsPerLine;

  size_t hexWidth(size_t groups) const {
    return groups * bytesPerGroup * kDigitsPerByte + (groups - 1) * groupBlanks;
  }
  size_t lineWidth(size_t groups) const {
    return hexWidth(groups) + (withCharacters ? kCharactersFrame + groups * bytesPerGroup : 0);
  }
  size_t bytesPerLine() const { return groupsPerLine * bytesPerGroup; }
};

// 0 groups when not even one fits.
size_t groupsThatFit(const Layout& layout) {
  size_t groups = 0;
  while (layout.lineWidth(groups + 1) <= kLineCharacters) ++groups;
  return groups;
}

bool isPrintable(unsigned char byte) { return byte >= kFirstPrintable && byte <= kLastPrintable; }

void writeLine(Olm::LineWriter& line, const Layout& layout, const unsigned char* bytes, size_t count) {
  for (size_t i = 0; i < count; ++i) {
    if (i != 0 && i % layout.bytesPerGroup == 0) line.repeated(' ', layout.groupBlanks);
    line.hex(bytes[i], kDigitsPerByte);
  }
  if (!layout.withCharacters) return;
  line.repeated(' ', layout.hexWidth(layout.groupsPerLine) - line.length()).text("  |");
  for (size_t i = 0; i < count; ++i) line.character(isPrintable(bytes[i]) ? static_cast<char>(bytes[i]) : '.');
  line.character('|');
}

EAaGpuHelpersRet reject(uint32_t* remainingLength, char* line, const char* reason) {
  if (remainingLength != nullptr) *remainingLength = 0;
  if (line != nullptr) line[0] = '\0';
  AaSysLogPrintE(EAaSysLogSeverityLevel_Error, AASYSLOG_FEATURE_NONE, "AaGpuHelpersHexdumpBuild(): %s", reason);
  return EAaGpuHelpersRet_InvalidParameter;
}

}  // namespace

extern "C" EAaGpuHelpersRet AaGpuHelpersHexdumpBuild(const void** data, uint32_t* remainingLength, char* line,
                                                     uint32_t bytesPerGroup, uint32_t groupBlanks,
                                                     uint32_t withCharacters) {
  if (data == nullptr || remainingLength == nullptr || line == nullptr) {
    return reject(remainingLength, line, "null data cursor, length or line");
  }
  if (*data == nullptr && *remainingLength != 0) return reject(remainingLength, line, "null data");
  if (bytesPerGroup == 0 || bytesPerGroup > AAGPUHELPERS_HEXDUMP_MAX_GROUP_BYTES) {
    return reject(remainingLength, line, "bytes per group out of range");
  }
  if (groupBlanks > AAGPUHELPERS_HEXDUMP_MAX_GROUP_BLANKS) return reject(remainingLength, line, "group blanks out of range");
  Layout layout{bytesPerGroup, groupBlanks, withCharacters != 0, 0};
  layout.groupsPerLine = groupsThatFit(layout);
  if (layout.groupsPerLine == 0) return reject(remainingLength, line, "not one group fits in a line");

  Olm::LineWriter writer(line, AAGPUHELPERS_HEXDUMP_LINE_SIZE);
  if (*remainingLength == 0) return EAaGpuHelpersRet_Ok;
  const auto* bytes = static_cast<const unsigned char*>(*data);
  const size_t shown = *remainingLength < layout.bytesPerLine() ? *remainingLength : layout.bytesPerLine();
  writeLine(writer, layout, bytes, shown);
  *data = bytes + shown;
  *remainingLength -= static_cast<uint32_t>(shown);
  return EAaGpuHelpersRet_Ok;
}
