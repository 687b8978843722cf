#include "FormatArguments.h"

#include <cstddef>
#include <cstring>

namespace Olm {

namespace {

constexpr const char kFlags[] = "-+ #0'";

struct LengthModifier {
  bool isLong = false;
  bool isLongLong = false;
  bool isSize = false;
  bool isIntMax = false;
  bool isPtrDiff = false;
  bool isLongDouble = false;
};

const char* readLengthModifier(const char* at, LengthModifier& length) {
  for (;; ++at) {
    switch (*at) {
      case 'h': break;  // promoted to int anyway
      case 'l': length.isLongLong = length.isLong; length.isLong = !length.isLongLong; break;
      case 'q': length.isLongLong = true; break;
      case 'z': length.isSize = true; break;
      case 'j': length.isIntMax = true; break;
      case 't': length.isPtrDiff = true; break;
      case 'L': length.isLongDouble = true; break;
      default: return at;
    }
  }
}

FormatArgument integerArgument(const LengthModifier& length) {
  if (length.isLongLong) return FormatArgument::LongLong;
  if (length.isLong) return FormatArgument::Long;
  if (length.isSize) return FormatArgument::Size;
  if (length.isIntMax) return FormatArgument::IntMax;
  if (length.isPtrDiff) return FormatArgument::PtrDiff;
  return FormatArgument::Int;
}

// The argument a conversion letter reads; false for a letter that is no conversion.
bool conversionArgument(char letter, const LengthModifier& length, FormatArgument& argument) {
  if (letter == '\0') return false;  // strchr would find the terminator
  if (std::strchr("diuxXoc", letter) != nullptr) {
    argument = letter == 'c' ? FormatArgument::Int : integerArgument(length);
    return true;
  }
  if (std::strchr("feEgGaAF", letter) != nullptr) {
    argument = length.isLongDouble ? FormatArgument::LongDouble : FormatArgument::Double;
    return true;
  }
  if (std::strchr("spn", letter) != nullptr) {
    argument = FormatArgument::Pointer;
    return true;
  }
  return false;
}

// Skips digits and counts a '*' (an int argument of its own) in a width or precision.
const char* readWidth(const char* at, unsigned& stars) {
  if (*at == '*') {
    ++stars;
    return at + 1;
  }
  while (*at >= '0' && *at <= '9') ++at;
  return at;
}

void takeArgument(FormatArgument argument, va_list* args) {
  switch (argument) {
    case FormatArgument::Int: (void)va_arg(*args, int); break;
    case FormatArgument::Long: (void)va_arg(*args, long); break;
    case FormatArgument::LongLong: (void)va_arg(*args, long long); break;
    case FormatArgument::Size: (void)va_arg(*args, size_t); break;
    case FormatArgument::IntMax: (void)va_arg(*args, intmax_t); break;
    case FormatArgument::PtrDiff: (void)va_arg(*args, ptrdiff_t); break;
    case FormatArgument::Double: (void)va_arg(*args, double); break;
    case FormatArgument::LongDouble: (void)va_arg(*args, long double); break;
    case FormatArgument::Pointer: (void)va_arg(*args, void*); break;
  }
}

}  // namespace

bool FormatArguments::next(FormatArgument& argument) {
  if (m_pendingStars > 0) {
    --m_pendingStars;
    argument = FormatArgument::Int;
    m_lastConversion = '*';
    return true;
  }
  if (m_conversionPending) {
    m_conversionPending = false;
    argument = m_pendingConversion;
    m_lastConversion = m_pendingLetter;
    return true;
  }
  while (m_next != nullptr && *m_next != '\0') {
    if (*m_next++ != '%') continue;
    if (*m_next == '%') {
      ++m_next;
      continue;
    }
    while (*m_next != '\0' && std::strchr(kFlags, *m_next) != nullptr) ++m_next;
    m_next = readWidth(m_next, m_pendingStars);
    if (*m_next == '.') m_next = readWidth(m_next + 1, m_pendingStars);
    LengthModifier length;
    m_next = readLengthModifier(m_next, length);
    if (!conversionArgument(*m_next, length, m_pendingConversion)) {
      m_next = nullptr;
      m_pendingStars = 0;
      return false;
    }
    m_pendingLetter = *m_next++;
    m_conversionPending = true;
    return next(argument);
  }
  return false;
}

void takeFormatArgument(FormatArgument argument, va_list* args) { takeArgument(argument, args); }

void skipFormatArguments(const char* format, unsigned count, va_list* args) {
  FormatArguments arguments(format);
  for (unsigned i = 0; i < count; ++i) {
    FormatArgument argument = FormatArgument::Pointer;
    if (!arguments.next(argument)) argument = FormatArgument::Pointer;
    takeArgument(argument, args);
  }
}

}  // namespace Olm
