#include "BtsTimeSync.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>

#include "HostEnvironment.h"

namespace rhyddal {
namespace {

// Every user's nodes read the host-wide object (as the queue history, regardless of umask).
constexpr mode_t kObjectMode = 0666;
constexpr int kUsageError = 2;
constexpr int kObjectError = 1;

// The file in /dev/shm behind the object's host name; empty when the namespace is unusable.
std::string objectPath() {
  std::string name;
  if (systemObjectName(RHYDDAL_BTS_TIME_SYNC_NAME, &name) != 0) return std::string();
  const size_t bare = name.find_first_not_of('/');
  return std::string(kShmDirectory) + "/" + name.substr(bare);
}

SRhyddalBtsTimeSync defaultContents() {
  SRhyddalBtsTimeSync contents{};
  contents.cdmaSyncMode = RHYDDAL_CDMA_SYNC_MODE_SYNCHRONOUS;
  contents.cdmaAsyncOffset = RHYDDAL_CDMA_ASYNC_OFFSET_DEFAULT;
  return contents;
}

// A complete object under a name of this process's own; returns 0 or a negated errno.
int prepareObject(const std::string& path) {
  const int fd = open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, kObjectMode);
  if (fd < 0) return -errno;
  const SRhyddalBtsTimeSync contents = defaultContents();
  const bool written = fchmod(fd, kObjectMode) == 0 &&
                       write(fd, &contents, sizeof(contents)) == static_cast<ssize_t>(sizeof(contents));
  const int error = errno;
  close(fd);
  return written ? 0 : -error;
}

void storeWord(uint32_t* word, uint32_t value) { __atomic_store_n(word, value, __ATOMIC_RELEASE); }
uint32_t loadWord(const uint32_t* word) { return __atomic_load_n(word, __ATOMIC_ACQUIRE); }

const char* modeName(uint32_t mode) {
  switch (mode) {
    case RHYDDAL_CDMA_SYNC_MODE_SYNCHRONOUS: return "synchronous";
    case RHYDDAL_CDMA_SYNC_MODE_ASYNCHRONOUS: return "asynchronous";
    default: return "unknown";
  }
}

bool parseWord(const char* text, uint32_t* value) {
  if (text == nullptr || text[0] == '\0' || text[0] == '-') return false;
  char* end = nullptr;
  errno = 0;
  const unsigned long long parsed = std::strtoull(text, &end, 0);
  if (errno != 0 || *end != '\0' || parsed > UINT32_MAX) return false;
  *value = static_cast<uint32_t>(parsed);
  return true;
}

bool parseMode(const char* text, uint32_t* mode) {
  if (text != nullptr && std::strcmp(text, "synchronous") == 0) {
    *mode = RHYDDAL_CDMA_SYNC_MODE_SYNCHRONOUS;
    return true;
  }
  if (text != nullptr && std::strcmp(text, "asynchronous") == 0) {
    *mode = RHYDDAL_CDMA_SYNC_MODE_ASYNCHRONOUS;
    return true;
  }
  return parseWord(text, mode);
}

SRhyddalBtsTimeSync* reportMapFailure(const std::string& path, const char* reason) {
  std::fprintf(stderr, "rhyddal: cannot map the BTS time synchronisation object %s: %s\n", path.c_str(), reason);
  return nullptr;
}

struct ToolRequest {
  bool setMode = false;
  bool setOffset = false;
  uint32_t mode = 0;
  uint32_t offset = 0;
};

bool parseArguments(int argc, char** argv, ToolRequest* request) {
  for (int i = 1; i < argc; i += 2) {
    const char* value = i + 1 < argc ? argv[i + 1] : nullptr;
    if (std::strcmp(argv[i], "--mode") == 0) {
      request->setMode = parseMode(value, &request->mode);
      if (!request->setMode) return false;
    } else if (std::strcmp(argv[i], "--offset") == 0) {
      request->setOffset = parseWord(value, &request->offset);
      if (!request->setOffset) return false;
    } else {
      return false;
    }
  }
  return true;
}

}  // namespace

int ensureBtsTimeSyncObject() {
  const std::string path = objectPath();
  if (path.empty()) return -EINVAL;
  if (access(path.c_str(), F_OK) == 0) return 0;
  const std::string preparing = path + ".new-" + std::to_string(getpid());
  int rc = prepareObject(preparing);
  // link, unlike rename, never replaces an object another process put in place meanwhile.
  if (rc == 0 && link(preparing.c_str(), path.c_str()) != 0 && errno != EEXIST) rc = -errno;
  unlink(preparing.c_str());
  return rc;
}

SRhyddalBtsTimeSync* mapBtsTimeSyncObject() {
  const int rc = ensureBtsTimeSyncObject();
  const std::string path = objectPath();
  if (rc != 0) return reportMapFailure(path, std::strerror(-rc));
  const int fd = open(path.c_str(), O_RDWR | O_CLOEXEC);
  if (fd < 0) return reportMapFailure(path, std::strerror(errno));
  struct stat status {};
  const bool large = fstat(fd, &status) == 0 && static_cast<size_t>(status.st_size) >= sizeof(SRhyddalBtsTimeSync);
  void* mapping = large ? mmap(nullptr, sizeof(SRhyddalBtsTimeSync), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0)
                        : MAP_FAILED;
  const int error = errno;
  close(fd);
  if (!large) return reportMapFailure(path, "smaller than 224 bytes");
  if (mapping == MAP_FAILED) return reportMapFailure(path, std::strerror(error));
  return static_cast<SRhyddalBtsTimeSync*>(mapping);
}

int cdmaSyncTool(int argc, char** argv, std::FILE* out, std::FILE* err) {
  ToolRequest request;
  if (!parseArguments(argc, argv, &request)) {
    std::fprintf(err, "usage: %s [--mode synchronous|asynchronous|<n>] [--offset <n>]\n",
                 argc > 0 ? argv[0] : "rhyddal-cdma-sync");
    return kUsageError;
  }
  SRhyddalBtsTimeSync* object = mapBtsTimeSyncObject();
  if (object == nullptr) return kObjectError;
  if (request.setMode) storeWord(&object->cdmaSyncMode, request.mode);
  if (request.setOffset) storeWord(&object->cdmaAsyncOffset, request.offset);
  const uint32_t mode = loadWord(&object->cdmaSyncMode);
  std::fprintf(out, "sync mode %u (%s), async offset %u\n", mode, modeName(mode), loadWord(&object->cdmaAsyncOffset));
  munmap(object, sizeof(SRhyddalBtsTimeSync));
  return 0;
}

}  // namespace rhyddal
