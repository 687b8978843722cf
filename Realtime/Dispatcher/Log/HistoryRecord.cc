#include "HistoryRecord.h"

namespace Olm {
namespace history {

namespace {

// Read-only data of the library that holds the history log: formats and texts are stored as their
// distance from here.
const char kTextAnchor[] = "history log text anchor";

constexpr unsigned wordsFor(size_t bytes) {
  return static_cast<unsigned>((bytes + sizeof(uint32_t) - 1) / sizeof(uint32_t));
}

StoredKind storedKind(FormatArgument argument, char conversion) {
  switch (argument) {
    case FormatArgument::Int: return StoredKind::Int;
    case FormatArgument::Long: return StoredKind::Long;
    case FormatArgument::LongLong: return StoredKind::LongLong;
    case FormatArgument::Size: return StoredKind::Size;
    case FormatArgument::IntMax: return StoredKind::IntMax;
    case FormatArgument::PtrDiff: return StoredKind::PtrDiff;
    case FormatArgument::Double: return StoredKind::Double;
    case FormatArgument::LongDouble: return StoredKind::LongDouble;
    case FormatArgument::Pointer: break;
  }
  if (conversion == 's') return StoredKind::Text;
  return conversion == 'n' ? StoredKind::Written : StoredKind::Address;
}

}  // namespace

unsigned wordsOf(StoredKind kind) {
  switch (kind) {
    case StoredKind::Int: return wordsFor(sizeof(int));
    case StoredKind::Long: return wordsFor(sizeof(long));
    case StoredKind::LongLong: return wordsFor(sizeof(long long));
    case StoredKind::Size: return wordsFor(sizeof(size_t));
    case StoredKind::IntMax: return wordsFor(sizeof(intmax_t));
    case StoredKind::PtrDiff: return wordsFor(sizeof(ptrdiff_t));
    case StoredKind::Double: return wordsFor(sizeof(double));
    case StoredKind::LongDouble: return wordsFor(sizeof(long double));
    case StoredKind::Text:
    case StoredKind::Address:
    case StoredKind::Written: return kPointerWords;
  }
  return 0;
}

void buildArgumentLayout(const char* format, ArgumentLayout& layout) {
  layout = ArgumentLayout();
  layout.format = format;
  FormatArguments walk(format);
  FormatArgument argument;
  unsigned words = 0;
  while (layout.count < kMaxLineArguments && walk.next(argument)) {
    const unsigned i = layout.count;
    const bool star = !walk.atConversion();
    const size_t end = star ? 0 : static_cast<size_t>(walk.rest() - format);
    if (end > UINT16_MAX) break;  // no literal is that long; such a conversion is not stored
    layout.kinds[i] = star ? StoredKind::Int : storedKind(argument, walk.rest()[-1]);
    layout.ends[i] = static_cast<uint16_t>(end);
    words += wordsOf(layout.kinds[i]);
    layout.wordsBefore[i + 1] = static_cast<uint8_t>(words);
    ++layout.count;
  }
}

void storeArguments(const ArgumentLayout& layout, unsigned count, va_list* args, uint32_t* words) {
  for (unsigned i = 0; i < count; ++i) {
    uint32_t* at = words + layout.wordsBefore[i];
    switch (layout.kinds[i]) {
      case StoredKind::Int: storeValue(at, va_arg(*args, int)); break;
      case StoredKind::Long: storeValue(at, va_arg(*args, long)); break;
      case StoredKind::LongLong: storeValue(at, va_arg(*args, long long)); break;
      case StoredKind::Size: storeValue(at, va_arg(*args, size_t)); break;
      case StoredKind::IntMax: storeValue(at, va_arg(*args, intmax_t)); break;
      case StoredKind::PtrDiff: storeValue(at, va_arg(*args, ptrdiff_t)); break;
      case StoredKind::Double: storeValue(at, va_arg(*args, double)); break;
      case StoredKind::LongDouble: storeValue(at, va_arg(*args, long double)); break;
      case StoredKind::Text: storeValue(at, textOffset(va_arg(*args, const char*))); break;
      case StoredKind::Address:
      case StoredKind::Written: storeValue(at, reinterpret_cast<uintptr_t>(va_arg(*args, void*))); break;
    }
  }
}

uintptr_t textOffset(const void* text) {
  return reinterpret_cast<uintptr_t>(text) - reinterpret_cast<uintptr_t>(kTextAnchor);
}

const char* textAt(uintptr_t offset) {
  return reinterpret_cast<const char*>(reinterpret_cast<uintptr_t>(kTextAnchor) + offset);
}

const char* textAnchor() { return kTextAnchor; }

}  // namespace history
}  // namespace Olm
