// Names code addresses from an object file's symbol table, for the call-trace printers: it runs
// inside signal handlers, so it allocates nothing, takes no lock and uses no stdio. The file is
// mapped read-only for one lookup and every offset, size and index read from it is checked
// against the mapping, so a truncated or corrupt file gives no name rather than a stray read.
#pragma once

#include <cstddef>
#include <cstdint>

namespace Olm {

// Longest name kept, terminating zero included; longer names are cut, the start stays right.
constexpr size_t kElfSymbolNameSize = 128;

struct ElfSymbol {
  char name[kElfSymbolNameSize];
  // Where the function starts, as the file numbers addresses; without the Thumb bit of 32-bit ARM.
  uintptr_t start;
};

// Finds the function that holds fileAddress, an address as the object's own headers number them
// (the run-time address minus the object's load bias: the same for a position-independent object
// and, with a bias of 0, for a fixed-address program). image is the whole file, size bytes; only
// files of this process's class and byte order are read. The function is the code symbol
// (function, indirect function, or untyped label in a code section) with the greatest start at
// or below the address whose size covers it; a symbol without a size counts when no sized one
// lies between it and the address. Reads .symtab, or .dynsym when the file was stripped.
// False when the file is not such an object or no symbol fits.
bool findElfSymbol(const void* image, size_t size, uintptr_t fileAddress, ElfSymbol& found);

// findElfSymbol on the file at path, mapped read-only for the lookup.
bool findElfSymbolInFile(const char* path, uintptr_t fileAddress, ElfSymbol& found);

}  // namespace Olm
