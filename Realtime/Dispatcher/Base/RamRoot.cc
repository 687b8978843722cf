#include "RamRoot.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace Olm {

namespace {

bool isUsableRoot(const char* value) {
  const size_t length = std::strlen(value);
  return length > 1 && value[0] == '/' && value[length - 1] != '/';
}

std::string chooseRamRoot() {
  const char* value = std::getenv(kRamRootVariable);
  if (value == nullptr || *value == '\0') return kDefaultRamRoot;
  if (isUsableRoot(value)) return value;
  std::fprintf(stderr, "%s=%s is not an absolute path without a trailing '/'; using %s\n", kRamRootVariable, value,
               kDefaultRamRoot);
  return kDefaultRamRoot;
}

}  // namespace

const char* ramRoot() {
  static const std::string root = chooseRamRoot();
  return root.c_str();
}

}  // namespace Olm
