#include "RamFiles.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "Output.h"

namespace Olmctl {

namespace {

// Node ids below this one keep their RAM files in the directory they were started from.
constexpr uint16_t kFirstNidWithNodeDirectory = 0x1000;
constexpr size_t kReadChunk = 65536;

}  // namespace

std::string ramFilePath(const std::string& root, uint16_t nid, const std::string& name) {
  return root + "/olm_lite/" + nidText(nid) + "/fusemnt/" + name;
}

std::string historyLogFileName(uint16_t nid) {
  char name[32];
  std::snprintf(name, sizeof(name), "%x_HistoryLog.bin", nid);
  return name;
}

bool readRamFile(const std::string& path, std::vector<uint8_t>& bytes, std::string& error) {
  bytes.clear();
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  ssize_t got = fd < 0 ? -1 : 0;
  uint8_t buffer[kReadChunk];
  while (fd >= 0 && (got = read(fd, buffer, sizeof(buffer))) > 0) bytes.insert(bytes.end(), buffer, buffer + got);
  const int reason = errno;
  if (fd >= 0) close(fd);
  if (got == 0) return true;
  error = "cannot read " + path + ": " + std::strerror(reason);
  return false;
}

std::string missingRamFile(uint16_t nid, const std::string& error) {
  if (nid < kFirstNidWithNodeDirectory) {
    return error + " (node ids below " + nidText(kFirstNidWithNodeDirectory) +
           " keep their RAM files in the directory they were started from)";
  }
  return error + " (do the nodes run with OLM_RAM_ROOT set? give the tool the same root with --ram-root)";
}

}  // namespace Olmctl
