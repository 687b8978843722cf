// How the threads that register, remove and dump files and the file-system thread share
// g_RamFsFiles and its records.
//
// One mutex guards the slots. A record whose callbacks or buffer are used outside the mutex (an
// owner's callback may block, a dump writes a file) is pinned first; removal takes the record out
// of its slot and then waits until nobody holds a pin on it, so a removed record, its buffer and
// its callback argument are never touched once AaFileRamfsRemove has returned. Reads copy the
// buffer under the mutex, so they need no pin.
#pragma once

#include <mutex>

#include "AaFile.h"

namespace AaFileInternal {

using RegistryLock = std::unique_lock<std::mutex>;

// Holds the registry's mutex while it lives.
RegistryLock lockRegistry();

// The record named name (cut as a registered name is), or null; call with the lock held.
CRamFs* findFile(const RegistryLock& lock, const char* name);

// Keeps a record alive and registered-or-being-removed while the registry's mutex is released.
// Created with the lock held; released (at the latest when destroyed) without it.
class PinnedFile {
 public:
  PinnedFile(const RegistryLock& lock, const CRamFs& record);
  ~PinnedFile() { release(); }
  void release();
  PinnedFile(const PinnedFile&) = delete;
  PinnedFile& operator=(const PinnedFile&) = delete;
  const CRamFs& record() const { return m_record; }

 private:
  const CRamFs& m_record;
  bool m_held;
};

// Waits, with the lock held, until nobody pins record.
void waitUntilUnpinned(RegistryLock& lock, const CRamFs& record);

// Calls the callback with its argument unless it is null; its result is not used.
inline void runCallback(TAaFileCallback callback, void* arg) {
  if (callback != nullptr) static_cast<void>(callback(arg));
}

}  // namespace AaFileInternal
