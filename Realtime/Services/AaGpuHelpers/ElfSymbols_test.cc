#include "ElfSymbols.h"

#include <elf.h>
#include <link.h>

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

namespace {

using FileHeader = ElfW(Ehdr);
using SectionHeader = ElfW(Shdr);
using SymbolEntry = ElfW(Sym);

// The sections of the files built here, in this order; the names come last in the file, so that
// a read past a name's end leaves the buffer.
enum Section : uint16_t { kNull, kCode, kData, kSymbols, kNames, kSectionCount };

constexpr uint16_t kMachineWithoutThumb = EM_X86_64;

struct TestSymbol {
  std::string name;
  uintptr_t value;
  size_t size;
  unsigned char type = STT_FUNC;
  unsigned char binding = STB_GLOBAL;
  uint16_t section = kCode;
};

// An object file of this process's class and byte order holding only section headers, a symbol
// table and its names. Records are copied in and out: the buffer gives no alignment.
class TestElf {
 public:
  explicit TestElf(const std::vector<TestSymbol>& symbols, uint16_t machine = kMachineWithoutThumb) {
    std::string names(1, '\0');
    std::vector<SymbolEntry> entries(1);  // entry 0 is the undefined symbol
    for (const TestSymbol& symbol : symbols) {
      SymbolEntry entry{};
      entry.st_name = static_cast<uint32_t>(names.size());
      entry.st_value = symbol.value;
      entry.st_size = symbol.size;
      entry.st_info = static_cast<unsigned char>((symbol.binding << 4) | symbol.type);
      entry.st_shndx = symbol.section;
      entries.push_back(entry);
      names += symbol.name + '\0';
    }
    const size_t sectionsAt = sizeof(FileHeader);
    const size_t symbolsAt = sectionsAt + kSectionCount * sizeof(SectionHeader);
    const size_t namesAt = symbolsAt + entries.size() * sizeof(SymbolEntry);
    m_bytes.resize(namesAt + names.size());

    FileHeader header{};
    std::memcpy(header.e_ident, ELFMAG, SELFMAG);
    header.e_ident[EI_CLASS] = sizeof(void*) == 8 ? ELFCLASS64 : ELFCLASS32;
    header.e_ident[EI_DATA] = __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__ ? ELFDATA2LSB : ELFDATA2MSB;
    header.e_ident[EI_VERSION] = EV_CURRENT;
    header.e_type = ET_DYN;
    header.e_machine = machine;
    header.e_shoff = sectionsAt;
    header.e_shentsize = sizeof(SectionHeader);
    header.e_shnum = kSectionCount;
    put(0, header);

    setSection(kCode, contents(SHF_ALLOC | SHF_EXECINSTR));
    setSection(kData, contents(SHF_ALLOC | SHF_WRITE));
    SectionHeader table{};
    table.sh_type = SHT_SYMTAB;
    table.sh_offset = symbolsAt;
    table.sh_size = entries.size() * sizeof(SymbolEntry);
    table.sh_link = kNames;
    table.sh_entsize = sizeof(SymbolEntry);
    setSection(kSymbols, table);
    SectionHeader strings{};
    strings.sh_type = SHT_STRTAB;
    strings.sh_offset = namesAt;
    strings.sh_size = names.size();
    setSection(kNames, strings);
    for (size_t i = 0; i < entries.size(); ++i) put(symbolsAt + i * sizeof(SymbolEntry), entries[i]);
    std::memcpy(&m_bytes[namesAt], names.data(), names.size());
  }

  template <typename Record>
  Record get(size_t offset) const {
    Record record;
    std::memcpy(&record, &m_bytes[offset], sizeof(record));
    return record;
  }
  template <typename Record>
  void put(size_t offset, const Record& record) {
    std::memcpy(&m_bytes[offset], &record, sizeof(record));
  }

  FileHeader header() const { return get<FileHeader>(0); }
  SectionHeader section(uint16_t index) const {
    return get<SectionHeader>(sizeof(FileHeader) + index * sizeof(SectionHeader));
  }
  void setSection(uint16_t index, const SectionHeader& section) {
    put(sizeof(FileHeader) + index * sizeof(SectionHeader), section);
  }

  // Drops the last bytes of the file, and of the names with them.
  void dropNameBytes(size_t count) {
    m_bytes.resize(m_bytes.size() - count);
    SectionHeader names = section(kNames);
    names.sh_size -= count;
    setSection(kNames, names);
  }

  // The lookup reads exactly these bytes, so a read beyond them is the address sanitizer's to see.
  bool find(uintptr_t address, Olm::ElfSymbol& found, size_t size) const {
    return Olm::findElfSymbol(m_bytes.data(), size, address, found);
  }
  bool find(uintptr_t address, Olm::ElfSymbol& found) const { return find(address, found, m_bytes.size()); }

  // The name found for address, or "" when none is.
  std::string nameAt(uintptr_t address) const {
    Olm::ElfSymbol found;
    return find(address, found) ? found.name : "";
  }

  size_t size() const { return m_bytes.size(); }

 private:
  static SectionHeader contents(decltype(SectionHeader::sh_flags) flags) {
    SectionHeader section{};
    section.sh_type = SHT_PROGBITS;
    section.sh_flags = flags;
    return section;
  }

  std::vector<unsigned char> m_bytes;
};

// Choosing the symbol

TEST(ElfSymbols, AnAddressIsNamedByTheSizedFunctionThatHoldsIt) {
  const TestElf elf({{"first", 0x1000, 0x40}, {"second", 0x1040, 0x20}, {"inner", 0x1050, 0x8}});
  Olm::ElfSymbol found;
  ASSERT_TRUE(elf.find(0x1047, found));
  EXPECT_STREQ(found.name, "second");
  EXPECT_EQ(found.start, 0x1040u);
  EXPECT_EQ(elf.nameAt(0x1000), "first");
  EXPECT_EQ(elf.nameAt(0x103f), "first");
  EXPECT_EQ(elf.nameAt(0x1054), "inner") << "of nested functions the innermost";
  EXPECT_EQ(elf.nameAt(0x1058), "second");
  EXPECT_EQ(elf.nameAt(0x0fff), "");
  EXPECT_EQ(elf.nameAt(0x1060), "") << "past the last function's end";
}

TEST(ElfSymbols, OfAliasesTheGlobalNameIsChosen) {
  const TestElf elf({{"localAlias", 0x2000, 0x10, STT_FUNC, STB_LOCAL},
                     {"exported", 0x2000, 0x10},
                     {"weakAlias", 0x2000, 0x10, STT_FUNC, STB_WEAK}});
  EXPECT_EQ(elf.nameAt(0x2004), "exported");
}

TEST(ElfSymbols, ASymbolWithoutSizeHoldsWhatFollowsItUpToTheNextSizedFunction) {
  const TestElf elf({{"sized", 0x1000, 0x10}, {"label", 0x1020, 0}, {"later", 0x1100, 0x10}});
  EXPECT_EQ(elf.nameAt(0x1020), "label");
  EXPECT_EQ(elf.nameAt(0x10ff), "label");
  EXPECT_EQ(elf.nameAt(0x1018), "") << "after sized's end, before the label";
  EXPECT_EQ(elf.nameAt(0x1110), "") << "a sized function between the label and the address";
}

TEST(ElfSymbols, OnlyNamedCodeSymbolsCount) {
  const TestElf elf({{"function", 0x1000, 0x100},
                     {"$t", 0x1010, 0, STT_NOTYPE, STB_LOCAL},
                     {"$d", 0x1020, 0, STT_NOTYPE, STB_LOCAL},
                     {"", 0x1030, 0x10},
                     {"object", 0x1040, 0x10, STT_OBJECT},
                     {"dataLabel", 0x1050, 0x10, STT_NOTYPE, STB_GLOBAL, kData},
                     {"undefined", 0x1060, 0x10, STT_FUNC, STB_GLOBAL, kNull},
                     {"absolute", 0x1070, 0x10, STT_FUNC, STB_GLOBAL, SHN_ABS},
                     {"resolver", 0x1080, 0x10, STT_GNU_IFUNC},
                     {"assemblyLabel", 0x1090, 0x10, STT_NOTYPE}});
  for (uintptr_t address = 0x1010; address < 0x1080; address += 0x10) {
    EXPECT_EQ(elf.nameAt(address + 4), "function") << std::hex << address;
  }
  EXPECT_EQ(elf.nameAt(0x1084), "resolver");
  EXPECT_EQ(elf.nameAt(0x1094), "assemblyLabel");
}

TEST(ElfSymbols, AThumbFunctionStartsWithoutItsThumbBit) {
  const TestElf elf({{"thumbFunction", 0x1001, 0x20}}, EM_ARM);
  Olm::ElfSymbol found;
  ASSERT_TRUE(elf.find(0x1000, found));
  EXPECT_EQ(found.start, 0x1000u);
  const TestElf elsewhere({{"oddStart", 0x1001, 0x20}});
  EXPECT_EQ(elsewhere.nameAt(0x1000), "") << "only ARM code carries the bit";
}

TEST(ElfSymbols, ALongNameIsCutToTheBuffer) {
  const std::string longName(2 * Olm::kElfSymbolNameSize, 'n');
  const TestElf elf({{longName, 0x1000, 0x10}});
  EXPECT_EQ(elf.nameAt(0x1000), longName.substr(0, Olm::kElfSymbolNameSize - 1));
}

// Truncated and corrupt files

TEST(ElfSymbols, AFileCutShortAnywhereGivesNoSymbol) {
  const TestElf elf({{"function", 0x1000, 0x10}, {"another", 0x1010, 0x10}});
  Olm::ElfSymbol found;
  ASSERT_TRUE(elf.find(0x1000, found));
  for (size_t size = 0; size < elf.size(); ++size) EXPECT_FALSE(elf.find(0x1000, found, size)) << size;
}

TEST(ElfSymbols, ANameRunningIntoTheEndOfItsTableEndsThere) {
  TestElf elf({{"function", 0x1000, 0x10}});
  elf.dropNameBytes(1);
  EXPECT_EQ(elf.nameAt(0x1000), "function");
  elf.dropNameBytes(3);
  EXPECT_EQ(elf.nameAt(0x1000), "funct");
}

TEST(ElfSymbols, TablesThatLieAboutTheirPlaceOrSizeAreRefused) {
  const TestElf intact({{"function", 0x1000, 0x10}});
  const auto corrupted = [&](auto change) {
    TestElf elf = intact;
    change(elf);
    return elf.nameAt(0x1000);
  };
  const auto changeSection = [](uint16_t index, auto change) {
    return [=](TestElf& elf) {
      SectionHeader section = elf.section(index);
      change(section);
      elf.setSection(index, section);
    };
  };
  const auto changeHeader = [](auto change) {
    return [=](TestElf& elf) {
      FileHeader header = elf.header();
      change(header);
      elf.put(0, header);
    };
  };
  ASSERT_EQ(corrupted([](TestElf&) {}), "function");
  EXPECT_EQ(corrupted(changeSection(kNames, [](SectionHeader& s) { s.sh_size += 1; })), "");
  EXPECT_EQ(corrupted(changeSection(kNames, [](SectionHeader& s) { s.sh_offset = ~ElfW(Off){0}; })), "");
  EXPECT_EQ(corrupted(changeSection(kNames, [](SectionHeader& s) { s.sh_type = SHT_PROGBITS; })), "");
  EXPECT_EQ(corrupted(changeSection(kSymbols, [](SectionHeader& s) { s.sh_link = kSectionCount; })), "");
  EXPECT_EQ(corrupted(changeSection(kSymbols, [](SectionHeader& s) { s.sh_size = ~decltype(s.sh_size){0}; })), "");
  EXPECT_EQ(corrupted(changeSection(kSymbols, [](SectionHeader& s) { s.sh_entsize = 1; })), "");
  EXPECT_EQ(corrupted(changeHeader([](FileHeader& h) { h.e_shnum = 0xffff; })), "");
  EXPECT_EQ(corrupted(changeHeader([](FileHeader& h) { h.e_shoff = ~ElfW(Off){0} - 8; })), "");
  EXPECT_EQ(corrupted(changeHeader([](FileHeader& h) { h.e_shentsize = 1; })), "");
  EXPECT_EQ(corrupted(changeHeader([](FileHeader& h) { h.e_ident[EI_CLASS] = sizeof(void*) == 8 ? ELFCLASS32 : ELFCLASS64; })), "");
  EXPECT_EQ(corrupted(changeHeader([](FileHeader& h) { h.e_ident[EI_MAG1] = 'X'; })), "");
}

TEST(ElfSymbols, ASymbolNamedOutsideItsTableIsPassedOver) {
  TestElf elf({{"outer", 0x1000, 0x100}, {"inner", 0x1010, 0x10}});
  const size_t innerAt = elf.section(kSymbols).sh_offset + 2 * sizeof(SymbolEntry);
  SymbolEntry inner = elf.get<SymbolEntry>(innerAt);
  inner.st_name = static_cast<uint32_t>(elf.section(kNames).sh_size);
  elf.put(innerAt, inner);
  EXPECT_EQ(elf.nameAt(0x1010), "outer");
}

TEST(ElfSymbols, WhatIsNoRegularFileGivesNoSymbol) {
  Olm::ElfSymbol found;
  EXPECT_FALSE(Olm::findElfSymbolInFile("/nonexistent/object.so", 0x1000, found));
  EXPECT_FALSE(Olm::findElfSymbolInFile("/", 0x1000, found));
}

}  // namespace
