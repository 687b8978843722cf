#include "TestNamespace.h"

#include <dirent.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <cstring>

namespace OlmTest {

namespace {

constexpr char kNamespaceVariable[] = "RHYDDAL_NAMESPACE";
constexpr char kShmDirectory[] = "/dev/shm/";
constexpr uint16_t kFirstTestNid = 0x2000;

pid_t namespaceCreator = 0;
std::atomic<uint16_t> nextNid{kFirstTestNid};

void removeAtExit() {
  if (getpid() == namespaceCreator) removeNamespaceObjects();
}

}  // namespace

void enterPrivateNamespace() {
  const char* inherited = std::getenv(kNamespaceVariable);
  if (inherited != nullptr && inherited[0] != '\0') return;
  const std::string name = "t" + std::to_string(static_cast<long>(getpid()));
  setenv(kNamespaceVariable, name.c_str(), 1);
  namespaceCreator = getpid();
  // A namespace of the same name can only be a leftover of a dead process that had this pid.
  removeNamespaceObjects();
  std::atexit(removeAtExit);
}

std::string testNamespace() {
  const char* name = std::getenv(kNamespaceVariable);
  return name == nullptr ? std::string() : std::string(name);
}

std::string namespaceObjectPrefix() {
  return "rhyddal-" + std::to_string(static_cast<unsigned long>(getuid())) + "-" + testNamespace() + "-";
}

unsigned removeNamespaceObjects() {
  if (testNamespace().empty()) return 0;
  const std::string prefix = namespaceObjectPrefix();
  unsigned removed = 0;
  DIR* directory = opendir(kShmDirectory);
  if (directory == nullptr) return 0;
  while (const dirent* entry = readdir(directory)) {
    if (std::strncmp(entry->d_name, prefix.c_str(), prefix.size()) != 0) continue;
    if (unlink((std::string(kShmDirectory) + entry->d_name).c_str()) == 0) ++removed;
  }
  closedir(directory);
  return removed;
}

uint16_t nextTestNid() { return nextNid.fetch_add(1); }

}  // namespace OlmTest
