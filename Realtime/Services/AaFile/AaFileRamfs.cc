#include <fcntl.h>
#include <sys/file.h>

#include <cstddef>
#include <cstdio>
#include <cstring>

#include "AaFile.h"
#include "RamFsGuard.h"

using AaFileInternal::findFile;
using AaFileInternal::lockRegistry;
using AaFileInternal::PinnedFile;
using AaFileInternal::RegistryLock;
using AaFileInternal::runCallback;

// The extraction script of AaFile_parseCoreFile reads records at these offsets.
static_assert(offsetof(CRamFs, name) == 0, "record layout read by the extraction script");
static_assert(offsetof(CRamFs, data) == 256, "record layout read by the extraction script");
static_assert(offsetof(CRamFs, size) == (sizeof(void*) == 4 ? 260 : 264), "record layout read by the extraction script");

TRamFsSet g_RamFsFiles;

namespace {

constexpr size_t kMaxNameLength = sizeof(CRamFs::name) - 1;
constexpr int kInsertDuplicate = -17;
constexpr int kInsertNoSpace = -28;
// Dump targets are named after the file, cut to this many characters.
constexpr size_t kDumpNameSize = 100;
constexpr unsigned kTtiTrim = 4;

constexpr char kSetSignature[] =
    "EAaFileRet AaFileRamfsSetExt(const char*, void*, size_t, EAaFileCallbackAction (*)(void*), "
    "EAaFileCallbackAction (*)(void*), void*)";
constexpr char kRemoveSignature[] = "EAaFileRet AaFileRamfsRemove(const char*)";

bool sameName(const CRamFs& a, const CRamFs& b) { return std::strcmp(a.name, b.name) == 0; }

// Every file a dump has tried, process-wide; nothing reads it back.
unsigned s_dumpCount = 0;

// One file: the owner's lock, an exclusive flock, the bytes, and the unlock. The flock is released
// after fclose, on the closed descriptor: a long-standing order that is kept.
bool dumpFile(const CRamFs& record, unsigned trim) {
  char target[kDumpNameSize];
  std::snprintf(target, sizeof(target), "%.*s", static_cast<int>(sizeof(target) - 1), record.name);
  FILE* file = fopen64(target, "w+b");
  if (file == nullptr) return false;
  runCallback(record.lock, record.arg);
  const int fd = fileno(file);
  flock(fd, LOCK_EX);
  if (record.size > trim) std::fwrite(record.data, 1, record.size - trim, file);
  std::fclose(file);
  flock(fd, LOCK_UN);
  runCallback(record.unlock, record.arg);
  return true;
}

}  // namespace

CRamFs::CRamFs(const char* fileName, void* fileData, unsigned fileSize, TAaFileCallback lockCallback,
               TAaFileCallback unlockCallback, void* callbackArg)
    : name{}, data(fileData), size(fileSize), lock(lockCallback), unlock(unlockCallback), arg(callbackArg), reserved(0) {
  if (fileName != nullptr) std::strncpy(name, fileName, kMaxNameLength);
}

TRamFsSet::~TRamFsSet() {
  // The file-system thread may still serve a request while the process exits.
  RegistryLock lock = lockRegistry();
  for (CRamFs*& slot : m_slots) {
    if (slot == nullptr) continue;
    AaFileInternal::waitUntilUnpinned(lock, *slot);
    delete slot;
    slot = nullptr;
  }
}

// Deliberately the last free slot, not the first: listings show the newest file first.
int TRamFsSet::insert(CRamFs& record) {
  CRamFs** freeSlot = nullptr;
  for (CRamFs*& slot : m_slots) {
    if (slot == nullptr) {
      freeSlot = &slot;
    } else if (sameName(*slot, record)) {
      return kInsertDuplicate;
    }
  }
  if (freeSlot == nullptr) return kInsertNoSpace;
  *freeSlot = &record;
  return 0;
}

CRamFs* TRamFsSet::erase(const CRamFs& key) {
  for (CRamFs*& slot : m_slots) {
    if (slot != nullptr && sameName(*slot, key)) {
      CRamFs* const record = slot;
      slot = nullptr;
      return record;
    }
  }
  return nullptr;
}

CRamFs* TRamFsSet::find(const CRamFs& key) const {
  for (CRamFs* slot : m_slots) {
    if (slot != nullptr && sameName(*slot, key)) return slot;
  }
  return nullptr;
}

CRamFs* TRamFsSet::begin(unsigned& cursor) const {
  for (cursor = 0; cursor < kSlotCount; ++cursor) {
    if (m_slots[cursor] != nullptr) return m_slots[cursor];
  }
  return nullptr;
}

CRamFs* TRamFsSet::next(unsigned& cursor) const {
  while (cursor < kSlotCount && ++cursor < kSlotCount) {
    if (m_slots[cursor] != nullptr) return m_slots[cursor];
  }
  return nullptr;
}

extern "C" EAaFileRet AaFileRamfsSetExt(const char* fileName, void* blockData, size_t size, TAaFileCallback lock,
                                        TAaFileCallback unlock, void* arg) {
  if (fileName == nullptr || blockData == nullptr) {
    std::fprintf(stdout, "%s: ERROR: fileName: %p or blockData: %p is NULL\n", kSetSignature,
                 static_cast<const void*>(fileName), blockData);
    return EAaFileRet_NullArgument;
  }
  CRamFs* const record = new CRamFs(fileName, blockData, static_cast<unsigned>(size), lock, unlock, arg);
  int result;
  {
    RegistryLock registry = lockRegistry();
    result = g_RamFsFiles.insert(*record);
  }
  if (result != 0) {
    std::fprintf(stdout, "%s: ERROR: RamFs set errno: %d for %s\n", kSetSignature, result, fileName);
    delete record;
    return result == kInsertDuplicate ? EAaFileRet_AlreadyRegistered : EAaFileRet_RegistryFull;
  }
  std::fprintf(stdout, "RamFs set %s\n", fileName);
  return EAaFileRet_Ok;
}

extern "C" EAaFileRet AaFileRamfsRemove(const char* fileName) {
  if (fileName == nullptr) {
    std::fprintf(stdout, "%s: ERROR: fileName is NULL\n", kRemoveSignature);
    return EAaFileRet_NullArgument;
  }
  CRamFs* record;
  {
    RegistryLock registry = lockRegistry();
    const CRamFs key(fileName, nullptr, 0, nullptr, nullptr, nullptr);
    record = g_RamFsFiles.erase(key);
    if (record != nullptr) AaFileInternal::waitUntilUnpinned(registry, *record);
  }
  if (record == nullptr) {
    std::fprintf(stdout, "%s: ERROR: RamFs cannot remove %s\n", kRemoveSignature, fileName);
    return EAaFileRet_NoSuchFile;
  }
  std::fprintf(stdout, "RamFs removed %s\n", fileName);
  delete record;
  return EAaFileRet_Ok;
}

extern "C" unsigned stubAaFileRamfsDump(const char* prefix, const char* /*suffix*/, bool /*flag*/, unsigned trim) {
  if (prefix == nullptr) return 0;
  const size_t prefixLength = std::strlen(prefix);
  unsigned written = 0;
  RegistryLock registry = lockRegistry();
  unsigned cursor;
  for (const CRamFs* record = g_RamFsFiles.begin(cursor); record != nullptr; record = g_RamFsFiles.next(cursor)) {
    if (std::strncmp(record->name, prefix, prefixLength) != 0) continue;
    ++s_dumpCount;
    PinnedFile pinned(registry, *record);
    registry.unlock();
    if (dumpFile(pinned.record(), trim)) {
      ++written;
      std::fprintf(stdout, "RamFs dumped %s", pinned.record().name);
    }
    pinned.release();
    registry.lock();
  }
  return written;
}

extern "C" unsigned stubAaFileRamfsDumpHb(void) {
  return stubAaFileRamfsDump("mac_", ".bin", false, 0) + stubAaFileRamfsDump("dl_", ".bin", false, 0) +
         stubAaFileRamfsDump("ul_", ".bin", false, 0);
}

extern "C" unsigned stubAaFileRamfsDumpTti(void) { return stubAaFileRamfsDump("tti", ".dat", true, kTtiTrim); }
