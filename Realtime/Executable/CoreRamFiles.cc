// olm-core-ramfiles: the RAM files of a node, recovered from a core file of it.
//
// Usage: olm-core-ramfiles [--keep-core] <node executable> <core file> <output directory>
//
// The runtime's own extraction does the work (the debugger reads the node's file registry out of
// the core); it reports its failures to the system log only, which a development host may not
// have, so this command also says on standard error what went wrong, and lists what it wrote.
#include <dirent.h>
#include <sys/stat.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "AaFile.h"

namespace {

constexpr char kKeepCoreOption[] = "--keep-core";
constexpr int kUsageStatus = 2;
constexpr int kFailureStatus = 1;

int usage(const char* program) {
  std::fprintf(stderr, "usage: %s [%s] <node executable> <core file> <output directory>\n", program, kKeepCoreOption);
  return kUsageStatus;
}

bool isRegularFile(const std::string& path) {
  struct stat status;
  return stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode);
}

void listRecoveredFiles(const std::string& directory) {
  DIR* listing = opendir(directory.c_str());
  if (listing == nullptr) return;
  while (const dirent* entry = readdir(listing)) {
    const std::string path = directory + "/" + entry->d_name;
    if (isRegularFile(path)) std::printf("%s\n", path.c_str());
  }
  closedir(listing);
}

}  // namespace

int main(int argc, char** argv) {
  int first = 1;
  const bool keepCore = argc > 1 && std::strcmp(argv[1], kKeepCoreOption) == 0;
  if (keepCore) ++first;
  if (argc - first != 3) return usage(argv[0]);
  char* executable = argv[first];
  char* core = argv[first + 1];
  char* outputDirectory = argv[first + 2];
  for (const char* input : {executable, core}) {
    if (!isRegularFile(input)) {
      std::fprintf(stderr, "%s: %s: no such file\n", argv[0], input);
      return kFailureStatus;
    }
  }
  if (AaFile_parseCoreFile(0, executable, core, outputDirectory, keepCore ? 1 : 0) != 0) {
    std::fprintf(stderr, "%s: the RAM files could not be extracted from %s (details in the system log, identity of this command)\n",
                 argv[0], core);
    return kFailureStatus;
  }
  listRecoveredFiles(outputDirectory);
  return 0;
}
