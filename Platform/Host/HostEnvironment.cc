#include "HostEnvironment.h"

#include <dirent.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace rhyddal {
namespace {

constexpr char kNamespaceVariable[] = "RHYDDAL_NAMESPACE";

std::atomic<bool> badNamespaceReported{false};

const char* namespaceWord() {
  const char* word = std::getenv(kNamespaceVariable);
  return word == nullptr ? "" : word;
}

bool isWord(const char* text) {
  size_t length = 0;
  for (; text[length] != '\0'; ++length) {
    const char c = text[length];
    const bool allowed = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_';
    if (!allowed || length == kMaxNamespaceLength) return false;
  }
  return true;
}

}  // namespace

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

bool namespaceUsable() {
  const char* word = namespaceWord();
  if (isWord(word)) return true;
  if (!badNamespaceReported.exchange(true)) {
    std::fprintf(stderr,
                 "rhyddal: refusing %s=\"%s\": only letters, digits and '_', at most %u of them; no node can run\n",
                 kNamespaceVariable, word, static_cast<unsigned>(kMaxNamespaceLength));
  }
  return false;
}

std::string objectPrefix() {
  std::string prefix = "rhyddal-" + std::to_string(static_cast<unsigned long>(getuid())) + "-";
  const char* word = namespaceWord();
  if (word[0] != '\0') prefix += std::string(word) + "-";
  return prefix;
}

namespace {

constexpr size_t kNidDigits = 4;

std::string nidObjectName(const char* kind, uint16_t nid) {
  char digits[8];
  std::snprintf(digits, sizeof(digits), "%04x", static_cast<unsigned>(nid));
  return "/" + objectPrefix() + kind + digits;
}

}  // namespace

std::string mailboxObjectName(uint16_t nid) { return nidObjectName(kMailboxObjectKind, nid); }

std::string aliasObjectName(uint16_t nid) { return nidObjectName(kAliasObjectKind, nid); }

std::vector<uint16_t> nidsOfObjects(const char* kind) {
  std::vector<uint16_t> nids;
  const std::string prefix = objectPrefix() + kind;
  DIR* directory = opendir(kShmDirectory);
  if (directory == nullptr) return nids;
  while (const dirent* entry = readdir(directory)) {
    const char* name = entry->d_name;
    if (std::strncmp(name, prefix.c_str(), prefix.size()) != 0) continue;
    const char* digits = name + prefix.size();
    char* end = nullptr;
    const unsigned long nid = std::strtoul(digits, &end, 16);
    if (end == digits + kNidDigits && *end == '\0' && nid <= 0xFFFF) nids.push_back(static_cast<uint16_t>(nid));
  }
  closedir(directory);
  return nids;
}

std::string bridgeMailboxObjectName() { return "/" + objectPrefix() + "bridge"; }

std::string standingAliasObjectName() { return "/" + objectPrefix() + "standing-alias"; }

std::string bridgeLockPath() { return std::string(kShmDirectory) + "/" + objectPrefix() + "bridge.lock"; }

std::string remoteNodesObjectName() { return "/" + objectPrefix() + "remote-nodes"; }

std::string shmFilePath(const std::string& objectName) { return kShmDirectory + objectName; }

std::string nodeStartLockPath() { return std::string(kShmDirectory) + "/" + objectPrefix() + "nodes.lock"; }

std::string defaultPhysicalMemoryPath() { return std::string(kShmDirectory) + "/" + objectPrefix() + "physmem"; }

// Outside a namespace the system's own name is used unchanged, so that tools that know only the
// fixed name find the object.
int systemObjectName(const char* systemName, std::string* name) {
  if (systemName == nullptr || !namespaceUsable()) return -EINVAL;
  const char* bare = systemName[0] == '/' ? systemName + 1 : systemName;
  if (bare[0] == '\0' || std::strchr(bare, '/') != nullptr) return -EINVAL;
  if (namespaceWord()[0] == '\0') {
    *name = systemName;
  } else {
    *name = "/" + objectPrefix() + bare;
  }
  return 0;
}

}  // namespace rhyddal
