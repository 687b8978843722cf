// The registry as a flat, read-only FUSE file system "fusemnt" in the current directory.
#define FUSE_USE_VERSION 26

#include <fuse.h>
#include <fuse/fuse_lowlevel.h>
#include <poll.h>
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <mutex>
#include <cstdint>
#include <cstring>
#include <vector>

#include "AaFile.h"
#include "AaSysLog.h"
#include "RamFsGuard.h"

using AaFileInternal::findFile;
using AaFileInternal::lockRegistry;
using AaFileInternal::PinnedFile;
using AaFileInternal::RegistryLock;
using AaFileInternal::runCallback;

namespace {

constexpr uint32_t kAaFileFeature = 0x10007;
constexpr char kMountPoint[] = "fusemnt";
constexpr char kSetupFunction[] = "fuse* aafilefuse_setup()";
constexpr char kInitFunction[] = "int AaFileFUSE_Lite_init()";
constexpr mode_t kMountPointMode = 0550;
// fusermount mounts only on a directory its (non-root) user may write to; while mounted the
// directory shows the file system's own mode either way.
constexpr mode_t kUserMountPointMode = 0750;
constexpr mode_t kDirectoryMode = S_IFDIR | 0550;
constexpr mode_t kFileMode = S_IFREG | 0440;
constexpr int kServiceCpu = 0;

#define AAFILE_LOG(format, ...) \
  AaSysLogPrintE(EAaSysLogSeverityLevel_Error, kAaFileFeature, format, __VA_ARGS__)

struct Mount {
  fuse* fileSystem = nullptr;
  pthread_t thread{};
  int wakeFd = -1;  // ends the service loop, which blocks every asynchronous signal
  // Set once the service thread has taken the kernel's first request (or has ended without it).
  std::mutex servingLock;
  std::condition_variable servingChanged;
  bool serving = false;
};

Mount s_mount;

void markServing() {
  {
    std::lock_guard<std::mutex> lock(s_mount.servingLock);
    s_mount.serving = true;
  }
  s_mount.servingChanged.notify_all();
}

// The mount answers requests once init returns; and libfuse releases its file-system object only
// after a session that has seen the kernel's first request.
void waitUntilServing() {
  std::unique_lock<std::mutex> lock(s_mount.servingLock);
  s_mount.servingChanged.wait(lock, [] { return s_mount.serving; });
}

void* initOp(fuse_conn_info*) {
  markServing();
  return nullptr;
}

// The registered name of a path: the directory is flat, so "/name" names the file "name".
const char* fileName(const char* path) { return path[0] == '/' ? path + 1 : path; }

bool isRoot(const char* path) { return std::strcmp(path, "/") == 0; }

// Registered names the kernel would refuse as directory entries (and fail the whole listing
// with) are left out of it.
bool listable(const char* name) {
  return name[0] != '\0' && std::strchr(name, '/') == nullptr && std::strcmp(name, ".") != 0 &&
         std::strcmp(name, "..") != 0;
}

int getattrOp(const char* path, struct stat* status) {
  std::memset(status, 0, sizeof(*status));
  status->st_uid = getuid();
  status->st_gid = getgid();
  if (isRoot(path)) {
    status->st_mode = kDirectoryMode;
    status->st_nlink = 2;
    return 0;
  }
  RegistryLock registry = lockRegistry();
  const CRamFs* record = findFile(registry, fileName(path));
  if (record == nullptr) return -ENOENT;
  status->st_mode = kFileMode;
  status->st_nlink = 1;
  status->st_size = record->size;
  return 0;
}

int readdirOp(const char* path, void* buffer, fuse_fill_dir_t filler, off_t, fuse_file_info*) {
  if (!isRoot(path)) return -ENOENT;
  if (filler(buffer, ".", nullptr, 0) != 0 || filler(buffer, "..", nullptr, 0) != 0) return -ENOMEM;
  RegistryLock registry = lockRegistry();
  unsigned cursor;
  for (const CRamFs* record = g_RamFsFiles.begin(cursor); record != nullptr; record = g_RamFsFiles.next(cursor)) {
    if (listable(record->name) && filler(buffer, record->name, nullptr, 0) != 0) return -ENOMEM;
  }
  return 0;
}

// Runs the lock (open) or unlock (release) callback of the file, outside the registry's mutex: an
// owner's callback may wait for the owner's thread, which may be registering another file.
int runFileCallback(const char* path, TAaFileCallback CRamFs::*callback) {
  RegistryLock registry = lockRegistry();
  const CRamFs* record = findFile(registry, fileName(path));
  if (record == nullptr) return -ENOENT;
  PinnedFile pinned(registry, *record);
  registry.unlock();
  runCallback(pinned.record().*callback, pinned.record().arg);
  return 0;
}

int openOp(const char* path, fuse_file_info* info) {
  if ((info->flags & O_ACCMODE) != O_RDONLY) return -EROFS;
  return runFileCallback(path, &CRamFs::lock);
}

int releaseOp(const char* path, fuse_file_info*) { return runFileCallback(path, &CRamFs::unlock); }

// Copies under the registry's mutex: the buffer stays registered, and so valid, for the copy.
int readOp(const char* path, char* buffer, size_t size, off_t offset, fuse_file_info*) {
  RegistryLock registry = lockRegistry();
  const CRamFs* record = findFile(registry, fileName(path));
  if (record == nullptr) return -ENOENT;
  if (offset < 0 || static_cast<uint64_t>(offset) >= record->size) return 0;
  const size_t count = std::min<uint64_t>(size, record->size - static_cast<uint64_t>(offset));
  std::memcpy(buffer, static_cast<const char*>(record->data) + offset, count);
  return static_cast<int>(count);
}

fuse_operations makeOperations() {
  fuse_operations operations{};
  operations.init = initOp;
  operations.getattr = getattrOp;
  operations.readdir = readdirOp;
  operations.open = openOp;
  operations.read = readOp;
  operations.release = releaseOp;
  return operations;
}

const fuse_operations kOperations = makeOperations();

fuse_chan* channelOf(fuse* fileSystem) { return fuse_session_next_chan(fuse_get_session(fileSystem), nullptr); }

// Takes one request from the kernel and answers it; false once the file system is unmounted.
bool serveRequest(fuse_session* session, fuse_chan* channel, std::vector<char>& request) {
  fuse_chan* receivedOn = channel;
  const int length = fuse_chan_recv(&receivedOn, request.data(), request.size());
  if (length == -EINTR || length == -EAGAIN) return true;
  if (length <= 0) return false;
  fuse_session_process(session, request.data(), static_cast<size_t>(length), receivedOn);
  return true;
}

// fuse_loop's work with one more way out: the wake-up descriptor. The thread blocks every
// asynchronous signal, so none can interrupt its read of the device; terminating writes the
// wake-up instead. Requests already queued then are still answered (the releases of files and
// directories just closed among them), later ones no more.
void* serviceLoop(void* argument) {
  fuse* const fileSystem = static_cast<fuse*>(argument);
  fuse_session* const session = fuse_get_session(fileSystem);
  fuse_chan* const channel = channelOf(fileSystem);
  std::vector<char> request(fuse_chan_bufsize(channel));
  pollfd waits[2] = {{fuse_chan_fd(channel), POLLIN, 0}, {s_mount.wakeFd, POLLIN, 0}};
  for (;;) {
    if (poll(waits, 2, -1) < 0) {
      if (errno == EINTR) continue;
      break;
    }
    if (waits[1].revents != 0) {
      while (poll(waits, 1, 0) == 1 && (waits[0].revents & POLLIN) != 0 && serveRequest(session, channel, request)) {
      }
      break;
    }
    if (!serveRequest(session, channel, request)) break;
  }
  markServing();
  return nullptr;
}

void unmount(fuse* fileSystem) {
  fuse_unmount(kMountPoint, channelOf(fileSystem));
  fuse_destroy(fileSystem);
  rmdir(kMountPoint);
}

fuse* aafilefuse_setup() {
  // A stale mount of an earlier run of this node goes first.
  umount(kMountPoint);
  rmdir(kMountPoint);
  if (mkdir(kMountPoint, geteuid() == 0 ? kMountPointMode : kUserMountPointMode) != 0) {
    AAFILE_LOG("%s %u: ERROR: mkdir failed! errno: %m", kSetupFunction, __LINE__);
    return nullptr;
  }
  fuse_args arguments = FUSE_ARGS_INIT(0, nullptr);
  fuse_opt_add_arg(&arguments, "OLMLiteRamFs");  // the program name the option parser skips
  fuse_opt_add_arg(&arguments, "-odefault_permissions");
  fuse_opt_add_arg(&arguments, "-oallow_other");
  fuse_chan* const channel = fuse_mount(kMountPoint, &arguments);
  if (channel == nullptr) {
    AAFILE_LOG("%s %u: ERROR: fuse_mount failed!", kSetupFunction, __LINE__);
    fuse_opt_free_args(&arguments);
    rmdir(kMountPoint);
    return nullptr;
  }
  fuse* const fileSystem = fuse_new(channel, &arguments, &kOperations, sizeof(kOperations), nullptr);
  fuse_opt_free_args(&arguments);
  if (fileSystem == nullptr) {
    AAFILE_LOG("%s %u: ERROR: fuse_new failed!", kSetupFunction, __LINE__);
    fuse_unmount(kMountPoint, channel);
    rmdir(kMountPoint);
  }
  return fileSystem;
}

// Every signal but those a fault raises in the thread itself.
sigset_t asynchronousSignals() {
  sigset_t signals;
  sigfillset(&signals);
  for (int fault : {SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGABRT, SIGTRAP, SIGSYS}) sigdelset(&signals, fault);
  return signals;
}

int startServiceThread(fuse* fileSystem, pthread_t& thread) {
  pthread_attr_t attributes;
  int result = pthread_attr_init(&attributes);
  if (result != 0) {
    AAFILE_LOG("%s %u: ERROR: pthread_attr_init: %d", kInitFunction, __LINE__, result);
    return -1;
  }
  sched_param priority{};
  priority.sched_priority = 0;
  result = pthread_attr_setschedparam(&attributes, &priority);
  if (result != 0) {
    AAFILE_LOG("%s %u: ERROR: pthread_attr_setschedparam: %d", kInitFunction, __LINE__, result);
    pthread_attr_destroy(&attributes);
    return -1;
  }
  // The new thread starts with every asynchronous signal blocked.
  const sigset_t blocked = asynchronousSignals();
  sigset_t callerSignals;
  pthread_sigmask(SIG_BLOCK, &blocked, &callerSignals);
  result = pthread_create(&thread, &attributes, serviceLoop, fileSystem);
  pthread_sigmask(SIG_SETMASK, &callerSignals, nullptr);
  if (result != 0) {
    AAFILE_LOG("%s %u: ERROR: pthread_create: %d", kInitFunction, __LINE__, result);
    pthread_attr_destroy(&attributes);
    return -1;
  }
  result = pthread_attr_destroy(&attributes);
  if (result != 0) {
    AAFILE_LOG("%s %u: ERROR: pthread_attr_destroy: %d", kInitFunction, __LINE__, result);
    return 1;
  }
  cpu_set_t processors;
  CPU_ZERO(&processors);
  CPU_SET(kServiceCpu, &processors);
  result = pthread_setaffinity_np(thread, sizeof(processors), &processors);
  if (result != 0) {
    AAFILE_LOG("%s %u: ERROR: pthread_setaffinity_np: %d", kInitFunction, __LINE__, result);
    return 1;
  }
  return 0;
}

void stopServiceThread(fuse* fileSystem, pthread_t thread) {
  fuse_exit(fileSystem);
  const uint64_t wake = 1;
  if (write(s_mount.wakeFd, &wake, sizeof(wake)) != static_cast<ssize_t>(sizeof(wake))) {
    // An eventfd write fails only when its counter would overflow: the thread is woken already.
  }
  // The thread blocks SIGTERM: it stays pending there and goes with the thread, whatever the
  // process's disposition is meanwhile.
  pthread_kill(thread, SIGTERM);
  if (!pthread_equal(thread, pthread_self())) pthread_join(thread, nullptr);
}

}  // namespace

extern "C" int AaFileFUSE_Lite_init(void) {
  if (s_mount.fileSystem != nullptr) return 0;
  fuse* const fileSystem = aafilefuse_setup();
  if (fileSystem == nullptr) {
    AAFILE_LOG("%s %u: ERROR: aafilefuse_setup failed!", kInitFunction, __LINE__);
    return -1;
  }
  s_mount.wakeFd = eventfd(0, EFD_CLOEXEC);
  s_mount.serving = false;
  pthread_t thread;
  const int started = s_mount.wakeFd < 0 ? -1 : startServiceThread(fileSystem, thread);
  if (started > 0) stopServiceThread(fileSystem, thread);  // running, but not as it must
  if (started != 0) {
    unmount(fileSystem);
    if (s_mount.wakeFd >= 0) close(s_mount.wakeFd);
    s_mount.wakeFd = -1;
    return -1;
  }
  waitUntilServing();
  s_mount.fileSystem = fileSystem;
  s_mount.thread = thread;
  return 0;
}

// The thread ends before the mount goes: it never touches a closed device descriptor, and nothing
// it uses is freed under it.
extern "C" void AaFileFUSE_Lite_terminate(void) {
  fuse* const fileSystem = s_mount.fileSystem;
  if (fileSystem == nullptr) return;
  s_mount.fileSystem = nullptr;
  stopServiceThread(fileSystem, s_mount.thread);
  unmount(fileSystem);
  close(s_mount.wakeFd);
  s_mount.wakeFd = -1;
}
