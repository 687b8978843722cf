#include "AaGpuSharedMem.h"

#include <fcntl.h>
#include <sys/ipc.h>
#include <sys/mman.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>

#include "SharedMemLog.h"

using Olm::errnoText;
using Olm::logSharedMemFailure;

namespace {

constexpr char kCreateSignature[] = "CreateShmObj(const char* const, const size_t)";
constexpr char kOpenSignature[] = "OpenAndMapShmObj(const char* const, const size_t)";
constexpr char kUnmapSignature[] = "UnmapShmObj(void*, const size_t)";
constexpr char kRemoveSignature[] = "RemoveShmObj(const char* const)";
constexpr char kCreateSysVSignature[] = "CreateSysVShmObj(const key_t, const size_t)";
constexpr char kOpenSysVSignature[] = "OpenAndMapSysVShmObj(const key_t, const size_t)";
constexpr char kDetachSysVSignature[] = "DetachSysVShmObj(void*)";
constexpr char kRemoveSysVSignature[] = "RemoveSysVShmObj(const key_t)";

// The umask applies to POSIX objects as to files.
constexpr mode_t kObjectMode = 0666;
constexpr int kSysVMode = 0666;

void* const kShmatFailed = reinterpret_cast<void*>(-1);

bool validName(const char* signature, const char* name) {
  if (name != nullptr && name[0] != '\0') return true;
  logSharedMemFailure(signature, "invalid name (null or empty)");
  return false;
}

bool validSize(const char* signature, size_t size) {
  if (size != 0) return true;
  logSharedMemFailure(signature, "invalid size 0");
  return false;
}

// The object's size, or -1 (logged) when fstat fails.
off_t objectSize(const char* signature, const char* name, int fd) {
  struct stat status {};
  if (fstat(fd, &status) == 0) return status.st_size;
  logSharedMemFailure(signature, "fstat(\"%s\") failed: %s", name, errnoText(errno));
  return -1;
}

// Maps size bytes of an object already known to be at least that large; closes fd either way
// (the mapping keeps the object open).
void* mapAndClose(const char* signature, const char* name, int fd, size_t size) {
  void* address = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  const int error = errno;
  close(fd);
  if (address != MAP_FAILED) return address;
  logSharedMemFailure(signature, "mmap(\"%s\", %zu) failed: %s", name, size, errnoText(error));
  return nullptr;
}

// Grows the object to size unless it is that large already; a larger object is never cut, since
// other processes may map all of it.
bool coverSize(const char* name, int fd, size_t size) {
  const off_t current = objectSize(kCreateSignature, name, fd);
  if (current < 0) return false;
  if (static_cast<uint64_t>(current) >= size) return true;
  if (ftruncate(fd, static_cast<off_t>(size)) == 0) return true;
  logSharedMemFailure(kCreateSignature, "ftruncate(\"%s\", %zu) failed: %s", name, size, errnoText(errno));
  return false;
}

// The segment's size, or 0 (logged) when shmctl fails.
size_t segmentSize(const char* signature, key_t key, int id) {
  struct shmid_ds status {};
  if (shmctl(id, IPC_STAT, &status) == 0) return status.shm_segsz;
  logSharedMemFailure(signature, "shmctl(0x%x, IPC_STAT) failed: %s", static_cast<unsigned>(key), errnoText(errno));
  return 0;
}

void* attach(const char* signature, key_t key, int id) {
  void* address = shmat(id, nullptr, 0);
  if (address != kShmatFailed) return address;
  logSharedMemFailure(signature, "shmat(0x%x) failed: %s", static_cast<unsigned>(key), errnoText(errno));
  return nullptr;
}

}  // namespace

extern "C" {

void* CreateShmObj(const char* const name, const size_t size) {
  if (!validName(kCreateSignature, name) || !validSize(kCreateSignature, size)) return nullptr;
  const int fd = shm_open(name, O_RDWR | O_CREAT | O_CLOEXEC, kObjectMode);
  if (fd < 0) {
    logSharedMemFailure(kCreateSignature, "shm_open(\"%s\") failed: %s", name, errnoText(errno));
    return nullptr;
  }
  if (!coverSize(name, fd, size)) {
    close(fd);
    return nullptr;
  }
  return mapAndClose(kCreateSignature, name, fd, size);
}

void* OpenAndMapShmObj(const char* const name, const size_t size) {
  if (!validName(kOpenSignature, name) || !validSize(kOpenSignature, size)) return nullptr;
  const int fd = shm_open(name, O_RDWR | O_CLOEXEC, 0);
  if (fd < 0) {
    logSharedMemFailure(kOpenSignature, "shm_open(\"%s\") failed: %s", name, errnoText(errno));
    return nullptr;
  }
  const off_t current = objectSize(kOpenSignature, name, fd);
  if (current >= 0 && static_cast<uint64_t>(current) < size) {
    logSharedMemFailure(kOpenSignature, "object \"%s\" has %lld bytes, %zu asked for", name,
                        static_cast<long long>(current), size);
  }
  if (current < 0 || static_cast<uint64_t>(current) < size) {
    close(fd);
    return nullptr;
  }
  return mapAndClose(kOpenSignature, name, fd, size);
}

EAaGpuSharedMemRet UnmapShmObj(void* address, const size_t size) {
  if (address == nullptr || size == 0) {
    logSharedMemFailure(kUnmapSignature, "invalid address %p or size %zu", address, size);
    return EAaGpuSharedMemRet_InvalidParameter;
  }
  if (munmap(address, size) == 0) return EAaGpuSharedMemRet_Ok;
  logSharedMemFailure(kUnmapSignature, "munmap(%p, %zu) failed: %s", address, size, errnoText(errno));
  return EAaGpuSharedMemRet_SystemError;
}

EAaGpuSharedMemRet RemoveShmObj(const char* const name) {
  if (!validName(kRemoveSignature, name)) return EAaGpuSharedMemRet_InvalidParameter;
  if (shm_unlink(name) == 0) return EAaGpuSharedMemRet_Ok;
  logSharedMemFailure(kRemoveSignature, "shm_unlink(\"%s\") failed: %s", name, errnoText(errno));
  return EAaGpuSharedMemRet_SystemError;
}

void* CreateSysVShmObj(const key_t key, const size_t size) {
  if (!validSize(kCreateSysVSignature, size)) return nullptr;
  // shmget refuses (EINVAL) an existing segment smaller than size.
  const int id = shmget(key, size, IPC_CREAT | kSysVMode);
  if (id < 0) {
    logSharedMemFailure(kCreateSysVSignature, "shmget(0x%x, %zu) failed: %s", static_cast<unsigned>(key), size,
                        errnoText(errno));
    return nullptr;
  }
  return attach(kCreateSysVSignature, key, id);
}

void* OpenAndMapSysVShmObj(const key_t key, const size_t size) {
  if (!validSize(kOpenSysVSignature, size)) return nullptr;
  const int id = shmget(key, 0, 0);
  if (id < 0) {
    logSharedMemFailure(kOpenSysVSignature, "shmget(0x%x) failed: %s", static_cast<unsigned>(key), errnoText(errno));
    return nullptr;
  }
  const size_t current = segmentSize(kOpenSysVSignature, key, id);
  if (current == 0) return nullptr;
  if (current < size) {
    logSharedMemFailure(kOpenSysVSignature, "segment 0x%x has %zu bytes, %zu asked for", static_cast<unsigned>(key),
                        current, size);
    return nullptr;
  }
  return attach(kOpenSysVSignature, key, id);
}

EAaGpuSharedMemRet DetachSysVShmObj(void* address) {
  if (address == nullptr) {
    logSharedMemFailure(kDetachSysVSignature, "invalid address (null)");
    return EAaGpuSharedMemRet_InvalidParameter;
  }
  if (shmdt(address) == 0) return EAaGpuSharedMemRet_Ok;
  logSharedMemFailure(kDetachSysVSignature, "shmdt(%p) failed: %s", address, errnoText(errno));
  return EAaGpuSharedMemRet_SystemError;
}

EAaGpuSharedMemRet RemoveSysVShmObj(const key_t key) {
  const int id = shmget(key, 0, 0);
  if (id >= 0 && shmctl(id, IPC_RMID, nullptr) == 0) return EAaGpuSharedMemRet_Ok;
  logSharedMemFailure(kRemoveSysVSignature, "removing segment 0x%x failed: %s", static_cast<unsigned>(key),
                      errnoText(errno));
  return EAaGpuSharedMemRet_SystemError;
}

}  // extern "C"
