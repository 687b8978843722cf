#include "RamFsGuard.h"

#include <algorithm>
#include <condition_variable>
#include <vector>

namespace AaFileInternal {

namespace {

std::mutex s_registryMutex;

// Neither is ever destroyed: pins may still be released while the process exits. A record pinned
// twice (a dump and a reader at once) appears twice.
std::vector<const CRamFs*>& pins() {
  static std::vector<const CRamFs*>* const pinned = new std::vector<const CRamFs*>;
  return *pinned;
}

std::condition_variable& pinReleased() {
  static std::condition_variable* const released = new std::condition_variable;
  return *released;
}

}  // namespace

RegistryLock lockRegistry() { return RegistryLock(s_registryMutex); }

CRamFs* findFile(const RegistryLock&, const char* name) {
  const CRamFs key(name, nullptr, 0, nullptr, nullptr, nullptr);
  return g_RamFsFiles.find(key);
}

PinnedFile::PinnedFile(const RegistryLock&, const CRamFs& record) : m_record(record), m_held(true) {
  pins().push_back(&record);
}

void PinnedFile::release() {
  if (!m_held) return;
  m_held = false;
  {
    RegistryLock lock = lockRegistry();
    std::vector<const CRamFs*>& pinned = pins();
    pinned.erase(std::find(pinned.begin(), pinned.end(), &m_record));
  }
  pinReleased().notify_all();
}

void waitUntilUnpinned(RegistryLock& lock, const CRamFs& record) {
  const std::vector<const CRamFs*>& pinned = pins();
  pinReleased().wait(lock, [&] { return std::find(pinned.begin(), pinned.end(), &record) == pinned.end(); });
}

}  // namespace AaFileInternal
