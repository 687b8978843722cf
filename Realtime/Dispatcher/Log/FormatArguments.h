// The arguments a printf format reads, each with its real C type.
//
// The Dispatcher's logs take a count of variadic arguments and a format, and some must get past
// those arguments without printing them (the message handle of logfMessage comes last) or keep
// them for later. Reading an argument as any type other than the one the caller passed is
// undefined (an int read as a pointer, say), so every argument is read as the type its conversion
// names: the format is walked conversion by conversion.
#pragma once

#include <cstdarg>
#include <cstdint>

namespace Olm {

// The C type a conversion reads, after the default argument promotions.
enum class FormatArgument {
  Int,         // %d %i %u %x %X %o %c, also with hh or h; a '*' width or precision
  Long,        // l
  LongLong,    // ll, q
  Size,        // z
  IntMax,      // j
  PtrDiff,     // t
  Double,      // %f %e %g %a and upper case
  LongDouble,  // L with a floating conversion
  Pointer,     // %s %p %n
};

// The conversions of a format, one argument at a time. "%%" reads nothing; an unknown conversion
// letter ends the walk (nothing after it can be trusted).
class FormatArguments {
 public:
  explicit FormatArguments(const char* format) : m_next(format) {}
  // The type of the next argument the format reads; false when it reads no more.
  bool next(FormatArgument& argument);
  // The conversion letter of the argument next() gave last ('s', 'p', 'x', ...; '*' for a width or
  // precision); '\0' before the first.
  char conversion() const { return m_lastConversion; }

  // After next(): true when the argument it gave is a conversion's own value, not a '*' width or
  // precision of it.
  bool atConversion() const { return !m_conversionPending && m_pendingStars == 0; }
  // The format text after the conversion parsed last (its letter is the character before); null
  // once an unknown conversion has ended the walk.
  const char* rest() const { return m_next; }

 private:
  const char* m_next;
  unsigned m_pendingStars = 0;  // '*' widths and precisions of the conversion being read
  FormatArgument m_pendingConversion = FormatArgument::Int;
  bool m_conversionPending = false;
  char m_pendingLetter = '\0';
  char m_lastConversion = '\0';
};

// Takes one argument of the given type off args.
void takeFormatArgument(FormatArgument argument, va_list* args);

// Takes count arguments off args, each as the type the format says. Arguments beyond the format's
// conversions (a caller that passed more than its format reads) are taken as machine words.
void skipFormatArguments(const char* format, unsigned count, va_list* args);

}  // namespace Olm
