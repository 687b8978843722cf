#include "BaseAssembly.h"

#include <dlfcn.h>

#include <cstdio>
#include <cstdlib>

#include "OlmAssert.h"

OLM_ASSERT_SOURCE("Realtime/Dispatcher/BaseAssembly")

namespace Olm {

void BaseAssembly::loadSO(char* path, int flags) {
  std::fprintf(stderr, "Loading %s\n", path);
  void* handle = dlopen(path, flags | RTLD_NOW);
  if (handle == nullptr) {
    std::fprintf(stderr, "dlopen error: %s\n", dlerror());
    std::exit(0);
  }
  auto entryPoint = reinterpret_cast<TOlmEuMain>(dlsym(handle, "EuMain"));
  if (entryPoint == nullptr) std::fprintf(stderr, "Shared Eu Library %s missing entry point\n", path);
  OLM_ASSERT(m_numEntries < sizeof(m_loadEntries)/sizeof(m_loadEntries[0]));
  m_loadEntries[m_numEntries++] = LoadEntry{path, handle, entryPoint};
}

void BaseAssembly::initSO(IAaSysDispatcher* dispatcher) {
  for (uint32_t i = 0; i < m_numEntries; ++i) {
    const LoadEntry& entry = m_loadEntries[i];
    std::fprintf(stderr, "Initializing %s\n", entry.path);
    if (entry.entryPoint == nullptr) {
      std::fprintf(stderr, "Shared Eu Library %s invalid entry point, not executing\n", entry.path);
      continue;
    }
    entry.entryPoint(dispatcher);
  }
}

}  // namespace Olm
