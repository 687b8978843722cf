// RAM files out of a core file: the debugger walks g_RamFsFiles in the core and dumps every
// registered buffer into a file named after it.
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdio>

#include "AaFile.h"

namespace {

constexpr char kFunction[] = "int AaFile_parseCoreFile(int, char*, char*, char*, int)";
constexpr char kDebuggerCommand[] = "/usr/bin/gdb --interpreter=mi --quiet %s %s >/dev/null";
constexpr size_t kCommandSize = 1000;
constexpr mode_t kOutputDirectoryMode = 0755;

// The script reads slots and data pointers as words of the dumped process; $ramfsset points at
// such words, so that "$ramfsset + $i" steps one slot whatever debug information the debugger
// has for the registry (without the cast it would step a whole registry, or refuse to step at
// all). The addresses are printed in full on 64-bit processes.
#if UINTPTR_MAX > 0xFFFFFFFFu
#define AAFILE_WORD "unsigned long"
#define AAFILE_ADDRESS "0x%%lx"
#else
#define AAFILE_WORD "unsigned int"
#define AAFILE_ADDRESS "0x%%x"
#endif

constexpr char kScriptFormat[] =
    "set variable $ramfsset=(" AAFILE_WORD " *)&g_RamFsFiles\n"
    "set variable $i = 0\n"
    "while $i < %u\n"
    "   set variable $ramfs = *(" AAFILE_WORD " *)($ramfsset + $i)\n"
    "   if $ramfs != 0\n"
    "      set variable $fn = $ramfs + %u\n"
    "      set variable $data = *(" AAFILE_WORD " *)($ramfs + %u)\n"
    "      set variable $sz = *(unsigned int *)($ramfs + %u)\n"
    "      eval \"dump binary memory %s/%%s " AAFILE_ADDRESS " " AAFILE_ADDRESS "\", $fn, $data, $data+$sz\n"
    "      end\n"
    "   set variable $i = $i + 1\n"
    "   end\n"
    "quit\n";

static_assert(sizeof(void*) == sizeof(unsigned long), "the script reads pointers as unsigned long");

// Deletes the core unless the caller keeps it; false when it cannot.
bool disposeOfCore(const char* coreFilename, int keepCore) {
  if (keepCore != 0 || coreFilename == nullptr) return true;
  if (unlink(coreFilename) == 0) return true;
  syslog(LOG_ERR, "%s %u: ERROR: unlink failed for file: %s! errno: %m\n", kFunction, __LINE__, coreFilename);
  return false;
}

bool makeOutputDirectory(const char* directory) {
  if (mkdir(directory, kOutputDirectoryMode) == 0) return true;
  if (errno == EEXIST) {
    syslog(LOG_WARNING, "%s %u: WARNING: mkdir failed (errno: %m) for %s! Continuing and overwriting files...",
           kFunction, __LINE__, directory);
    return true;
  }
  syslog(LOG_ERR, "%s %u: ERROR: mkdir failed! errno: %m", kFunction, __LINE__);
  return false;
}

bool runDebugger(const char* exeFilename, const char* coreFilename, const char* outputDirectory) {
  char command[kCommandSize];
  const int length = std::snprintf(command, sizeof(command), kDebuggerCommand, exeFilename, coreFilename);
  if (length < 0 || static_cast<size_t>(length) >= sizeof(command)) {
    syslog(LOG_ERR, "%s %u: ERROR: snprintf for gdb cmd failed (rc: %d, errno: %m) for exe: %s, core: %s!\n",
           kFunction, __LINE__, length, exeFilename, coreFilename);
    return false;
  }
  FILE* const debugger = popen(command, "w");
  if (debugger == nullptr) {
    syslog(LOG_ERR, "%s %u: ERROR: popen failed! errno: %m\n", kFunction, __LINE__);
    return false;
  }
  const int written = std::fprintf(debugger, kScriptFormat, TRamFsSet::kSlotCount,
                                   static_cast<unsigned>(offsetof(CRamFs, name)),
                                   static_cast<unsigned>(offsetof(CRamFs, data)),
                                   static_cast<unsigned>(offsetof(CRamFs, size)), outputDirectory);
  if (written < 0) {
    syslog(LOG_ERR, "%s %u: ERROR: fprintf failed! errno: %m\n", kFunction, __LINE__);
    pclose(debugger);
    return false;
  }
  if (pclose(debugger) == -1) {
    syslog(LOG_ERR, "%s %u: ERROR: pclose failed! errno: %m\n", kFunction, __LINE__);
    return false;
  }
  return true;
}

}  // namespace

extern "C" int AaFile_parseCoreFile(int, char* exeFilename, char* coreFilename, char* fileOutputDir, int keepCore) {
  bool extracted = false;
  if (exeFilename == nullptr || coreFilename == nullptr || fileOutputDir == nullptr) {
    syslog(LOG_ERR, "%s %u: ERROR: exeFilename: %p, coreFilename: %p, or fileOutputDir: %p is NULL!\n", kFunction,
           __LINE__, static_cast<void*>(exeFilename), static_cast<void*>(coreFilename),
           static_cast<void*>(fileOutputDir));
  } else {
    extracted = makeOutputDirectory(fileOutputDir) && runDebugger(exeFilename, coreFilename, fileOutputDir);
  }
  const bool disposed = disposeOfCore(coreFilename, keepCore);
  return extracted && disposed ? 0 : -1;
}
