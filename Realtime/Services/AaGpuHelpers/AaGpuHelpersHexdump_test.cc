#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "AaGpuHelpers.h"
#include "AaSysComMsgHeader.h"
#include "FakeRuntime.h"
#include "LineWriter.h"

namespace {

constexpr char kCanary = '\x5A';

// The line buffer of one call, with a canary byte right after it.
struct GuardedLine {
  char bytes[AAGPUHELPERS_HEXDUMP_LINE_SIZE + 1];
  GuardedLine() { std::memset(bytes, kCanary, sizeof(bytes)); }
  bool canaryIntact() const { return bytes[AAGPUHELPERS_HEXDUMP_LINE_SIZE] == kCanary; }
  std::string text() const { return bytes; }
};

struct Dump {
  std::vector<std::string> lines;
  bool withinBuffer = true;
};

// Calls the builder as the error report does: until nothing remains.
Dump dumpAll(const void* data, uint32_t length, uint32_t bytesPerGroup, uint32_t groupBlanks, uint32_t withCharacters) {
  Dump dump;
  const void* cursor = data;
  uint32_t remaining = length;
  while (remaining != 0) {
    GuardedLine line;
    const uint32_t before = remaining;
    EXPECT_EQ(AaGpuHelpersHexdumpBuild(&cursor, &remaining, line.bytes, bytesPerGroup, groupBlanks, withCharacters),
              EAaGpuHelpersRet_Ok);
    EXPECT_EQ(static_cast<const char*>(cursor) - static_cast<const char*>(data), length - remaining);
    dump.withinBuffer = dump.withinBuffer && line.canaryIntact();
    dump.lines.push_back(line.text());
    if (remaining >= before) break;
  }
  return dump;
}

std::vector<unsigned char> countingBytes(size_t count) {
  std::vector<unsigned char> bytes(count);
  for (size_t i = 0; i < count; ++i) bytes[i] = static_cast<unsigned char>(i * 7 + 3);
  return bytes;
}

std::string hexOf(const std::vector<unsigned char>& bytes) {
  static const char digits[] = "0123456789abcdef";
  std::string hex;
  for (unsigned char byte : bytes) hex += {digits[byte >> 4], digits[byte & 0xF]};
  return hex;
}

// The hexadecimal digits of a dump's lines, the character column and blanks left out.
std::string hexDigitsOf(const Dump& dump) {
  std::string hex;
  for (const std::string& line : dump.lines) {
    for (char c : line.substr(0, line.find('|'))) {
      if (c != ' ') hex += c;
    }
  }
  return hex;
}

// Lines of known data

TEST(AaGpuHelpersHexdump, TheErrorReportLayoutShowsTwelveBytesAndTheirCharacters) {
  const char text[] = "The quick brown fox";
  const Dump dump = dumpAll(text, sizeof(text) - 1, 4, 1, 1);
  ASSERT_EQ(dump.lines.size(), 2u);
  EXPECT_EQ(dump.lines[0], "54686520 71756963 6b206272  |The quick br|");
  // A partial last line ends in a partial group; its characters line up with the line above.
  EXPECT_EQ(dump.lines[1], "6f776e20 666f78             |own fox|");
  EXPECT_TRUE(dump.withinBuffer);
}

TEST(AaGpuHelpersHexdump, BytesOutsidePrintableAsciiShowAsDots) {
  const unsigned char bytes[] = {0x00, 0x1F, 0x20, 0x7E, 0x7F, 0x80, 0xFF, 0x41};
  const Dump dump = dumpAll(bytes, sizeof(bytes), 1, 1, 1);
  ASSERT_EQ(dump.lines.size(), 1u);
  // Twelve bytes fit: the eight of a partial line leave room for four more.
  EXPECT_EQ(dump.lines[0], "00 1f 20 7e 7f 80 ff 41              |.. ~...A|");
}

TEST(AaGpuHelpersHexdump, ALineHoldsAsManyWholeGroupsAsFit) {
  const std::vector<unsigned char> bytes = countingBytes(40);
  const Dump words = dumpAll(bytes.data(), 40, 4, 1, 0);
  ASSERT_EQ(words.lines.size(), 2u);
  EXPECT_EQ(words.lines[0].size(), 44u);  // 20 bytes: 5 groups of 8 digits and 4 blanks
  const Dump runTogether = dumpAll(bytes.data(), 40, 1, 0, 0);
  ASSERT_EQ(runTogether.lines.size(), 2u);
  EXPECT_EQ(runTogether.lines[0], hexOf({bytes.begin(), bytes.begin() + 25}));
}

// Every layout, every length

TEST(AaGpuHelpersHexdump, EveryAcceptedLayoutShowsEveryByteOnceAndStaysInsideTheBuffer) {
  const std::vector<unsigned char> bytes = countingBytes(67);
  for (uint32_t group = 1; group <= AAGPUHELPERS_HEXDUMP_MAX_GROUP_BYTES; ++group) {
    for (uint32_t blanks = 0; blanks <= AAGPUHELPERS_HEXDUMP_MAX_GROUP_BLANKS; ++blanks) {
      for (uint32_t withCharacters = 0; withCharacters <= 1; ++withCharacters) {
        SCOPED_TRACE(testing::Message() << "group " << group << ", blanks " << blanks << ", characters " << withCharacters);
        const void* probe = bytes.data();
        uint32_t probeLength = 1;
        GuardedLine probeLine;
        if (AaGpuHelpersHexdumpBuild(&probe, &probeLength, probeLine.bytes, group, blanks, withCharacters) !=
            EAaGpuHelpersRet_Ok) {
          continue;  // not one group fits: covered by the argument checks
        }
        for (uint32_t length = 1; length <= bytes.size(); length += 11) {
          const Dump dump = dumpAll(bytes.data(), length, group, blanks, withCharacters);
          EXPECT_TRUE(dump.withinBuffer);
          EXPECT_EQ(hexDigitsOf(dump), hexOf({bytes.begin(), bytes.begin() + length}));
        }
      }
    }
  }
}

TEST(AaGpuHelpersHexdump, NothingLeftGivesAnEmptyLineEvenWithoutAnAddress) {
  const void* none = nullptr;
  uint32_t remaining = 0;
  GuardedLine line;
  EXPECT_EQ(AaGpuHelpersHexdumpBuild(&none, &remaining, line.bytes, 4, 1, 1), EAaGpuHelpersRet_Ok);
  EXPECT_EQ(line.text(), "");
}

// Argument errors: logged, the line emptied and the remaining length zeroed, so that a loop over
// the length ends.

using AaGpuHelpersHexdumpArguments = OlmTest::FakeRuntimeTest;

TEST_F(AaGpuHelpersHexdumpArguments, NullPointersAndLayoutsOutOfRangeAreRejected) {
  const char data[] = "abcd";
  const void* cursor = data;
  const void* none = nullptr;
  struct Case {
    const void** data;
    bool withLength;
    bool withLine;
    uint32_t group, blanks;
  } const cases[] = {
      {nullptr, true, true, 4, 1},
      {&cursor, false, true, 4, 1},
      {&cursor, true, false, 4, 1},
      {&none, true, true, 4, 1},
      {&cursor, true, true, 0, 1},
      {&cursor, true, true, AAGPUHELPERS_HEXDUMP_MAX_GROUP_BYTES + 1, 1},
      {&cursor, true, true, 4, AAGPUHELPERS_HEXDUMP_MAX_GROUP_BLANKS + 1},
      {&cursor, true, true, 16, 0},  // 32 digits, the character frame and 16 characters: 52, one too many
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << "group " << c.group << ", blanks " << c.blanks);
    uint32_t remaining = 4;
    GuardedLine line;
    const size_t logged = runtime.sent().size();
    EXPECT_EQ(AaGpuHelpersHexdumpBuild(c.data, c.withLength ? &remaining : nullptr, c.withLine ? line.bytes : nullptr,
                                       c.group, c.blanks, 1),
              EAaGpuHelpersRet_InvalidParameter);
    EXPECT_EQ(remaining, c.withLength ? 0u : 4u);
    EXPECT_EQ(line.bytes[0], c.withLine ? '\0' : kCanary);
    EXPECT_EQ(cursor, data);
    ASSERT_EQ(runtime.sent().size(), logged + 1);
    const auto& header = *Olm::msgHeader(runtime.sent().back());
    const std::string text(reinterpret_cast<const char*>(&header + 1));
    EXPECT_NE(text.find("ERR/AaGpuHelpersHexdumpBuild(): "), std::string::npos) << text;
  }
}

// The line writer under both: what does not fit is dropped

TEST(LineWriter, DropsWhatDoesNotFitAndAlwaysTerminates) {
  char buffer[8];
  std::memset(buffer, kCanary, sizeof(buffer));
  Olm::LineWriter line(buffer, 6);
  line.text("ab").hex(0xBEEF, 6).decimal(7);
  EXPECT_STREQ(buffer, "ab00b");
  EXPECT_EQ(line.length(), 5u);
  EXPECT_EQ(buffer[6], kCanary);
}

}  // namespace
