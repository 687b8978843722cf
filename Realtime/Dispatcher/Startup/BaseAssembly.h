// Olm::BaseAssembly: loading of EU libraries, independent of the message transport.
#pragma once

#include <cstdint>

#include "IAaSysDispatcher.h"

namespace Olm {

class BaseAssembly {
 public:
  static constexpr unsigned kMaxLibraries = 16;

  struct LoadEntry {
    char* path;  // the command-line string itself, not a copy
    void* handle;
    TOlmEuMain entryPoint;  // null when the library has no "EuMain"
  };

  // Opens the library with flags | RTLD_NOW. A library that cannot be opened ends the process with
  // status 0 (deliberately not an error status); a seventeenth library aborts.
  void loadSO(char* path, int flags);
  // Runs the entry points in load order.
  void initSO(IAaSysDispatcher* dispatcher);

  uint32_t getNumEntries() const { return m_numEntries; }
  const LoadEntry& getEntry(unsigned index) const { return m_loadEntries[index]; }

 protected:
  uint32_t m_numEntries = 0;
  LoadEntry m_loadEntries[kMaxLibraries] = {};
};

}  // namespace Olm
