#include "SystemLogCapture.h"

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace OlmTest {

namespace {

constexpr char kDevLog[] = "/dev/log";
constexpr char kProbeIdentity[] = "olm-capture-probe";
constexpr char kProbeText[] = "probe";
constexpr size_t kDatagramSize = 8192;
// "Mmm dd hh:mm:ss " after the priority.
constexpr size_t kTimestampLength = 16;
constexpr int kProbeRedirectFailed = 3;

bool makeEmptyFile(const std::string& path) {
  const int fd = open(path.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600);
  if (fd < 0) return false;
  close(fd);
  return true;
}

// Rebuilds /dev of this mount namespace as a tmpfs that holds the real /dev's entries (reached
// through a descriptor of the directory opened before it was covered) and /dev/log.
bool rebuildDevWithLog(const std::string& socketPath) {
  const int realDev = open("/dev", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (realDev < 0) return false;
  if (mount("olm-test-dev", "/dev", "tmpfs", MS_NOSUID, "mode=0755") != 0) {
    close(realDev);
    return false;
  }
  DIR* entries = fdopendir(realDev);
  if (entries == nullptr) return false;
  const std::string realPrefix = "/proc/self/fd/" + std::to_string(realDev) + "/";
  while (const dirent* entry = readdir(entries)) {
    const std::string name = entry->d_name;
    if (name == "." || name == ".." || name == "log") continue;
    const std::string from = realPrefix + name;
    const std::string to = "/dev/" + name;
    struct stat status;
    if (fstatat(realDev, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) continue;
    if (S_ISLNK(status.st_mode)) {
      char target[4096];
      const ssize_t length = readlinkat(realDev, name.c_str(), target, sizeof(target) - 1);
      if (length <= 0) continue;
      target[length] = '\0';
      if (symlink(target, to.c_str()) != 0) continue;
    } else if (S_ISDIR(status.st_mode)) {
      if (mkdir(to.c_str(), status.st_mode & 07777) != 0) continue;
      if (mount(from.c_str(), to.c_str(), nullptr, MS_BIND | MS_REC, nullptr) != 0) continue;
    } else if (makeEmptyFile(to)) {
      if (mount(from.c_str(), to.c_str(), nullptr, MS_BIND, nullptr) != 0) continue;
    }
  }
  closedir(entries);
  return symlink(socketPath.c_str(), kDevLog) == 0;
}

std::string findUnavailableReason() {
  if (geteuid() != 0) return "needs root to mount in a private mount namespace";
  SystemLogCapture capture;
  const pid_t pid = fork();
  if (pid == 0) {
    if (!capture.redirectThisProcess()) _exit(kProbeRedirectFailed);
    openlog(kProbeIdentity, 0, LOG_USER);
    syslog(LOG_INFO, kProbeText);
    _exit(0);
  }
  int status = -1;
  while (pid > 0 && waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  const std::vector<SystemLogRecord> records = capture.finish();
  if (!WIFEXITED(status) || WEXITSTATUS(status) == kProbeRedirectFailed) {
    return "no private mount namespace with its own /dev/log here (unshare or mount refused)";
  }
  if (textsOf(records, kProbeIdentity) != std::vector<std::string>{kProbeText}) {
    return "a redirected process's syslog(3) did not reach the test's socket";
  }
  return "";
}

}  // namespace

SystemLogCapture::SystemLogCapture(Receiving receiving) {
  char directory[] = "/tmp/olm-syslog-XXXXXX";
  if (mkdtemp(directory) == nullptr) return;
  m_directory = directory;
  m_socketPath = m_directory + "/log";
  m_socket = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, m_socketPath.c_str(), sizeof(address.sun_path) - 1);
  if (m_socket < 0 || bind(m_socket, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 ||
      pipe2(m_stopPipe, O_CLOEXEC) != 0) {
    return;
  }
  // Every process may send, whatever user it runs as.
  chmod(m_directory.c_str(), 0755);
  chmod(m_socketPath.c_str(), 0666);
  if (receiving == Receiving::OnThread) m_receiver = std::thread([this] { receive(m_stopPipe[0]); });
}

SystemLogCapture::~SystemLogCapture() {
  finish();
  if (m_socket >= 0) close(m_socket);
  for (int fd : m_stopPipe) {
    if (fd >= 0) close(fd);
  }
  if (!m_socketPath.empty()) unlink(m_socketPath.c_str());
  if (!m_directory.empty()) rmdir(m_directory.c_str());
}

std::string SystemLogCapture::unavailableReason() {
  static const std::string reason = findUnavailableReason();
  return reason;
}

bool SystemLogCapture::redirectThisProcess() const {
  if (m_socket < 0) return false;
  if (unshare(CLONE_NEWNS) != 0) return false;
  if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) return false;
  struct stat status;
  if (lstat(kDevLog, &status) == 0) return mount(m_socketPath.c_str(), kDevLog, nullptr, MS_BIND, nullptr) == 0;
  return rebuildDevWithLog(m_socketPath);
}

std::vector<SystemLogRecord> SystemLogCapture::finish() {
  if (m_receiver.joinable()) {
    const char stop = 1;
    while (write(m_stopPipe[1], &stop, 1) < 0 && errno == EINTR) {
    }
    m_receiver.join();
  }
  std::lock_guard<std::mutex> lock(m_mutex);
  return m_records;
}

void SystemLogCapture::receiveUntilClosed(int fd) {
  if (m_socket >= 0 && !m_receiver.joinable()) receive(fd);
}

void SystemLogCapture::receive(int stopFd) {
  char datagram[kDatagramSize];
  pollfd descriptors[2] = {{m_socket, POLLIN, 0}, {stopFd, POLLIN, 0}};
  for (;;) {
    if (poll(descriptors, 2, -1) < 0 && errno != EINTR) return;
    const bool stopping = (descriptors[1].revents & (POLLIN | POLLHUP)) != 0;
    // Once stopping, everything sent before has been queued: take it all, then end.
    for (ssize_t got; (got = recv(m_socket, datagram, sizeof(datagram), MSG_DONTWAIT)) >= 0;) {
      storeDatagram(datagram, static_cast<size_t>(got));
    }
    if (stopping) return;
  }
}

void SystemLogCapture::storeDatagram(const char* data, size_t length) {
  std::string text(data, length);
  // Some C libraries send the terminating zero too.
  while (!text.empty() && text.back() == '\0') text.pop_back();
  std::lock_guard<std::mutex> lock(m_mutex);
  m_records.push_back(parseSystemLogDatagram(text));
}

SystemLogRecord parseSystemLogDatagram(const std::string& datagram) {
  SystemLogRecord record;
  const size_t priorityEnd = datagram.find('>');
  if (datagram.empty() || datagram[0] != '<' || priorityEnd == std::string::npos) return record;
  const size_t identityStart = priorityEnd + 1 + kTimestampLength;
  const size_t identityEnd = datagram.find(": ", identityStart);
  if (identityEnd == std::string::npos) return record;
  record.priority = std::atoi(datagram.c_str() + 1);
  record.identity = datagram.substr(identityStart, identityEnd - identityStart);
  const size_t processId = record.identity.find('[');
  if (processId != std::string::npos) record.identity.erase(processId);
  record.text = datagram.substr(identityEnd + 2);
  return record;
}

std::vector<std::string> textsOf(const std::vector<SystemLogRecord>& records, const std::string& identity) {
  std::vector<std::string> texts;
  for (const SystemLogRecord& record : records) {
    if (record.identity == identity) texts.push_back(record.text);
  }
  return texts;
}

}  // namespace OlmTest
