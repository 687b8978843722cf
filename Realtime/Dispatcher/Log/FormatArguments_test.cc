#include "FormatArguments.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

using Olm::FormatArgument;

std::vector<FormatArgument> argumentsOf(const char* format) {
  std::vector<FormatArgument> kinds;
  Olm::FormatArguments arguments(format);
  FormatArgument kind;
  while (arguments.next(kind)) kinds.push_back(kind);
  return kinds;
}

TEST(FormatArguments, EachConversionReadsItsOwnTypeAndStarsReadInts) {
  using A = FormatArgument;
  EXPECT_EQ(argumentsOf("(%04x)->%s(%p) %c %hhu %-5d"), (std::vector<A>{A::Int, A::Pointer, A::Pointer, A::Int, A::Int, A::Int}));
  EXPECT_EQ(argumentsOf("%lu %llx %zu %jd %td %qd"),
            (std::vector<A>{A::Long, A::LongLong, A::Size, A::IntMax, A::PtrDiff, A::LongLong}));
  EXPECT_EQ(argumentsOf("%.2f %Lg %*d %-*.*s"),
            (std::vector<A>{A::Double, A::LongDouble, A::Int, A::Int, A::Int, A::Int, A::Pointer}));
  EXPECT_EQ(argumentsOf("100%% done, %n"), (std::vector<A>{A::Pointer}));
  // Nothing after a conversion the walker does not know can be trusted.
  EXPECT_EQ(argumentsOf("%d %k %d"), (std::vector<A>{A::Int}));
  EXPECT_TRUE(argumentsOf("").empty());
  EXPECT_TRUE(argumentsOf("trailing %").empty());
}

// Mixed widths (a 64-bit integer and a double beside 32-bit ints) must leave the list exactly at
// the argument after them, on every word size.
void* lastAfterSkipping(unsigned count, const char* format, ...) {
  va_list args;
  va_start(args, format);
  Olm::skipFormatArguments(format, count, &args);
  void* last = va_arg(args, void*);
  va_end(args);
  return last;
}

TEST(FormatArguments, SkippingLandsOnTheArgumentAfterTheFormatsOwn) {
  int marker = 0;
  EXPECT_EQ(lastAfterSkipping(5, "%d %lld %f %s %hx", 1, 1LL << 40, 2.5, "text", 7, &marker), &marker);
  EXPECT_EQ(lastAfterSkipping(3, "%*.*f", 4, 2, 3.25, &marker), &marker);
  EXPECT_EQ(lastAfterSkipping(0, "no arguments", &marker), &marker);
}

}  // namespace
