#include "HostEnvironment.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>

namespace rhyddal {

uint64_t environmentNumber(const char* name, uint64_t fallback, uint64_t minimum, uint64_t maximum) {
  const char* text = std::getenv(name);
  if (text == nullptr || *text == '\0') return fallback;
  char* end = nullptr;
  errno = 0;
  const unsigned long long value = std::strtoull(text, &end, 0);
  if (errno != 0 || end == text || *end != '\0' || *text == '-') {
    std::fprintf(stderr, "rhyddal: ignoring %s=\"%s\" (not a number), using %llu\n", name, text,
                 static_cast<unsigned long long>(fallback));
    return fallback;
  }
  if (value < minimum) return minimum;
  if (value > maximum) return maximum;
  return value;
}

std::string userObjectPrefix() {
  return "rhyddal-" + std::to_string(static_cast<unsigned long>(getuid())) + "-";
}

std::string mailboxObjectName(uint16_t nid) {
  char digits[8];
  std::snprintf(digits, sizeof(digits), "%04x", static_cast<unsigned>(nid));
  return "/" + userObjectPrefix() + "node-" + digits;
}

std::string shmFilePath(const std::string& objectName) { return kShmDirectory + objectName; }

std::string nodeStartLockPath() {
  return std::string(kShmDirectory) + "/" + userObjectPrefix() + "nodes.lock";
}

std::string defaultPhysicalMemoryPath() {
  return std::string(kShmDirectory) + "/" + userObjectPrefix() + "physmem";
}

}  // namespace rhyddal
