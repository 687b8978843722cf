#include "ElfSymbols.h"

#include <elf.h>
#include <fcntl.h>
#include <link.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>

namespace Olm {

namespace {

using FileHeader = ElfW(Ehdr);
using SectionHeader = ElfW(Shdr);
using SymbolEntry = ElfW(Sym);

constexpr unsigned char kNativeClass = sizeof(void*) == 8 ? ELFCLASS64 : ELFCLASS32;
constexpr unsigned char kNativeByteOrder = __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__ ? ELFDATA2LSB : ELFDATA2MSB;
// ARM and AArch64 mark where code, Thumb code and data begin with symbols named "$a", "$t", "$x",
// "$d"; they are no functions.
constexpr char kMappingSymbolMark = '$';
constexpr uintptr_t kThumbBit = 1;

// The file's bytes; every read is checked against their end. Records are copied out, as a
// corrupt offset may leave them unaligned.
class FileBytes {
 public:
  FileBytes(const void* bytes, size_t size) : m_bytes(static_cast<const unsigned char*>(bytes)), m_size(size) {}

  bool holds(uint64_t offset, uint64_t length) const { return offset <= m_size && length <= m_size - offset; }

  template <typename Record>
  bool read(uint64_t offset, Record& record) const {
    if (!holds(offset, sizeof(Record))) return false;
    std::memcpy(&record, m_bytes + offset, sizeof(Record));
    return true;
  }

  const unsigned char* at(uint64_t offset) const { return m_bytes + offset; }

 private:
  const unsigned char* m_bytes;
  size_t m_size;
};

// A string table, known to lie inside the file.
class StringTable {
 public:
  StringTable(const unsigned char* strings, uint64_t size) : m_strings(strings), m_size(size) {}

  char first(uint32_t offset) const { return offset < m_size ? static_cast<char>(m_strings[offset]) : '\0'; }

  // A name that runs into the table's end without its zero ends there.
  void copy(uint32_t offset, char (&name)[kElfSymbolNameSize]) const {
    size_t length = 0;
    for (uint64_t at = offset; at < m_size && m_strings[at] != '\0' && length + 1 < sizeof(name); ++at) {
      name[length++] = static_cast<char>(m_strings[at]);
    }
    name[length] = '\0';
  }

 private:
  const unsigned char* m_strings;
  uint64_t m_size;
};

class ElfImage {
 public:
  explicit ElfImage(const FileBytes& file) : m_file(file) {}

  // False unless the file is an object of this process's kind with a section table inside it.
  bool open() {
    if (!m_file.read(0, m_header)) return false;
    const unsigned char* ident = m_header.e_ident;
    if (std::memcmp(ident, ELFMAG, SELFMAG) != 0 || ident[EI_CLASS] != kNativeClass ||
        ident[EI_DATA] != kNativeByteOrder || m_header.e_shentsize != sizeof(SectionHeader)) {
      return false;
    }
    m_sectionCount = m_header.e_shnum;
    // With too many sections for the header's field, section 0 holds their number.
    SectionHeader first{};
    if (m_sectionCount == 0 && m_header.e_shoff != 0 && m_file.read(m_header.e_shoff, first)) {
      m_sectionCount = static_cast<uint64_t>(first.sh_size);
    }
    return m_sectionCount > 0 && m_file.holds(m_header.e_shoff, m_sectionCount * sizeof(SectionHeader));
  }

  bool section(uint64_t index, SectionHeader& section) const {
    return index < m_sectionCount && m_file.read(m_header.e_shoff + index * sizeof(SectionHeader), section);
  }

  bool isCode(uint16_t sectionIndex) const {
    SectionHeader section{};
    return this->section(sectionIndex, section) && (section.sh_flags & SHF_EXECINSTR) != 0;
  }

  // The full symbol table, or the dynamic one of a stripped file.
  bool symbolTable(SectionHeader& symbols) const {
    bool found = false;
    for (uint64_t index = 0; index < m_sectionCount; ++index) {
      SectionHeader candidate{};
      if (!section(index, candidate)) return false;
      if (candidate.sh_type == SHT_SYMTAB || (candidate.sh_type == SHT_DYNSYM && !found)) {
        symbols = candidate;
        found = true;
      }
      if (candidate.sh_type == SHT_SYMTAB) break;
    }
    return found && symbols.sh_entsize == sizeof(SymbolEntry) && m_file.holds(symbols.sh_offset, symbols.sh_size);
  }

  bool stringTable(const SectionHeader& symbols, const unsigned char*& strings, uint64_t& size) const {
    SectionHeader names{};
    if (!section(symbols.sh_link, names) || names.sh_type != SHT_STRTAB ||
        !m_file.holds(names.sh_offset, names.sh_size)) {
      return false;
    }
    strings = m_file.at(names.sh_offset);
    size = names.sh_size;
    return true;
  }

  bool isArm() const { return m_header.e_machine == EM_ARM; }

 private:
  const FileBytes& m_file;
  FileHeader m_header{};
  uint64_t m_sectionCount = 0;
};

// Both classes pack a symbol's type and binding into st_info alike.
unsigned symbolType(unsigned char info) { return ELF64_ST_TYPE(info); }
unsigned symbolBinding(unsigned char info) { return ELF64_ST_BIND(info); }

struct Match {
  bool found = false;
  uintptr_t start = 0;
  uint32_t nameOffset = 0;
  bool global = false;

  // Of aliases at one address the global name is the one the code calls.
  bool isBeatenBy(uintptr_t otherStart, bool otherGlobal) const {
    return !found || otherStart > start || (otherStart == start && otherGlobal && !global);
  }
};

// Picks among the code symbols at or below the address.
class SymbolChoice {
 public:
  explicit SymbolChoice(uintptr_t address) : m_address(address) {}

  void consider(const SymbolEntry& symbol, uintptr_t start) {
    const bool global = symbolBinding(symbol.st_info) == STB_GLOBAL;
    const Match candidate{true, start, symbol.st_name, global};
    if (symbol.st_size == 0) {
      if (m_unsized.isBeatenBy(start, global)) m_unsized = candidate;
      return;
    }
    if (!m_sizedBelow || start > m_highestSizedStart) m_highestSizedStart = start;
    m_sizedBelow = true;
    if (m_address - start < symbol.st_size && m_covering.isBeatenBy(start, global)) m_covering = candidate;
  }

  // A symbol without size holds the address only when no sized function ends between them.
  Match best() const {
    if (m_covering.found) return m_covering;
    if (m_unsized.found && (!m_sizedBelow || m_unsized.start > m_highestSizedStart)) return m_unsized;
    return Match{};
  }

 private:
  uintptr_t m_address;
  Match m_covering;
  Match m_unsized;
  bool m_sizedBelow = false;
  uintptr_t m_highestSizedStart = 0;
};

bool isCodeType(unsigned char info) {
  const unsigned type = symbolType(info);
  return type == STT_FUNC || type == STT_GNU_IFUNC || type == STT_NOTYPE;
}

}  // namespace

bool findElfSymbol(const void* image, size_t size, uintptr_t fileAddress, ElfSymbol& found) {
  const FileBytes file(image, size);
  ElfImage elf(file);
  SectionHeader symbols{};
  const unsigned char* strings = nullptr;
  uint64_t stringsSize = 0;
  if (!elf.open() || !elf.symbolTable(symbols) || !elf.stringTable(symbols, strings, stringsSize)) return false;
  const StringTable names(strings, stringsSize);

  SymbolChoice choice(fileAddress);
  const uint64_t count = symbols.sh_size / sizeof(SymbolEntry);
  for (uint64_t index = 0; index < count; ++index) {
    SymbolEntry symbol{};
    file.read(symbols.sh_offset + index * sizeof(SymbolEntry), symbol);
    uintptr_t start = static_cast<uintptr_t>(symbol.st_value);
    if (elf.isArm()) start &= ~kThumbBit;
    const char firstCharacter = names.first(symbol.st_name);
    if (start > fileAddress || !isCodeType(symbol.st_info) || firstCharacter == '\0' ||
        firstCharacter == kMappingSymbolMark || !elf.isCode(symbol.st_shndx)) {
      continue;
    }
    choice.consider(symbol, start);
  }
  const Match best = choice.best();
  if (!best.found) return false;
  names.copy(best.nameOffset, found.name);
  found.start = best.start;
  return true;
}

bool findElfSymbolInFile(const char* path, uintptr_t fileAddress, ElfSymbol& found) {
  const int fd = open(path, O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  struct stat status;
  void* image = MAP_FAILED;
  size_t size = 0;
  if (fstat(fd, &status) == 0 && S_ISREG(status.st_mode) && status.st_size > 0 &&
      static_cast<uint64_t>(status.st_size) <= SIZE_MAX) {
    size = static_cast<size_t>(status.st_size);
    image = mmap(nullptr, size, PROT_READ, MAP_PRIVATE, fd, 0);
  }
  close(fd);
  if (image == MAP_FAILED) return false;
  const bool result = findElfSymbol(image, size, fileAddress, found);
  munmap(image, size);
  return result;
}

}  // namespace Olm
