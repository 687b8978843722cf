// Reading the file system the way a developer's tools do, for tests of mounts and dumped files.
#pragma once

#include <dirent.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

namespace OlmTest {

// The whole file ("" when it cannot be read).
inline std::string fileContents(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
}

// The names readdir gives, in its order, or one "<opendir: reason>" entry.
inline std::vector<std::string> listing(const std::string& directory) {
  std::vector<std::string> names;
  DIR* dir = opendir(directory.c_str());
  if (dir == nullptr) return {"<opendir: " + std::string(std::strerror(errno)) + ">"};
  while (const dirent* entry = readdir(dir)) names.push_back(entry->d_name);
  closedir(dir);
  return names;
}

// Whether a mount lies at path (absolute, as mounted) in this process's mount namespace.
inline bool isMountPoint(const std::string& path) {
  std::ifstream mountInfo("/proc/self/mountinfo");
  std::string line;
  while (std::getline(mountInfo, line)) {
    if (line.find(" " + path + " ") != std::string::npos) return true;
  }
  return false;
}

// The machine an ELF file (program or core) is for, e_machine of its header; 0 when unreadable.
// Under user-mode emulation a core that gcore writes of a process is the emulator's, for the host.
inline unsigned elfMachine(const std::string& path) {
  constexpr size_t kMachineOffset = 18;
  std::string header(kMachineOffset + 2, '\0');
  std::ifstream file(path, std::ios::binary);
  if (!file.read(&header[0], static_cast<std::streamsize>(header.size())) || header.compare(0, 4, "\x7f" "ELF") != 0) {
    return 0;
  }
  return static_cast<unsigned char>(header[kMachineOffset]) |
         static_cast<unsigned>(static_cast<unsigned char>(header[kMachineOffset + 1])) << 8;
}

}  // namespace OlmTest
