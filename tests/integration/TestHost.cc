#include "TestHost.h"

#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>

namespace OlmTest {

namespace {

constexpr char kIpCommand[] = "/usr/sbin/ip";
constexpr char kSwitchName[] = "olmsw";
constexpr char kReady = 'r';

bool makePrivateNamespaces() {
  return unshare(CLONE_NEWNET | CLONE_NEWNS) == 0 && mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
         mount("tmpfs", "/dev/shm", "tmpfs", 0, "mode=1777") == 0;
}

bool joinNamespace(pid_t keeper, const char* kind, int type) {
  const std::string path = "/proc/" + std::to_string(keeper) + "/ns/" + kind;
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  const bool joined = setns(fd, type) == 0;
  close(fd);
  return joined;
}

int waitForStatus(pid_t child) {
  int status = 0;
  while (waitpid(child, &status, 0) < 0) {
    if (errno != EINTR) return -1;
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace

Signal::Signal() {
  if (pipe2(m_fds, O_CLOEXEC) != 0) m_fds[0] = m_fds[1] = -1;
}

Signal::~Signal() {
  close(m_fds[0]);
  close(m_fds[1]);
}

void Signal::send(uint64_t value) { (void)!write(m_fds[1], &value, sizeof(value)); }

uint64_t Signal::wait(std::chrono::milliseconds timeout) {
  pollfd readable{m_fds[0], POLLIN, 0};
  uint64_t value = 0;
  if (poll(&readable, 1, static_cast<int>(timeout.count())) == 1 && read(m_fds[0], &value, sizeof(value)) == sizeof(value)) {
    return value;
  }
  return 0;
}

// The keeper makes the namespaces and then only waits; it dies with the test if the test dies.
TestHost::TestHost() {
  int ready[2];
  if (pipe2(ready, O_CLOEXEC) != 0) return;
  const pid_t keeper = fork();
  if (keeper == 0) {
    close(ready[0]);
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (!makePrivateNamespaces()) _exit(1);
    (void)!write(ready[1], &kReady, 1);
    for (;;) pause();
  }
  close(ready[1]);
  char answer = 0;
  const bool up = keeper > 0 && read(ready[0], &answer, 1) == 1 && answer == kReady;
  close(ready[0]);
  if (!up) {
    if (keeper > 0) waitForStatus(keeper);
    return;
  }
  m_keeper = keeper;
  if (run({kIpCommand, "link", "set", "lo", "up"}) != 0) {
    kill(m_keeper, SIGKILL);
    waitForStatus(m_keeper);
    m_keeper = -1;
  }
}

TestHost::~TestHost() {
  if (m_keeper <= 0) return;
  kill(m_keeper, SIGKILL);
  waitForStatus(m_keeper);
}

// Joining a mount namespace moves the working directory to its root; the same path is taken
// again inside (the host shares every file system but /dev/shm).
bool TestHost::enter() const {
  char directory[PATH_MAX];
  if (getcwd(directory, sizeof(directory)) == nullptr) return false;
  return joinNamespace(m_keeper, "net", CLONE_NEWNET) && joinNamespace(m_keeper, "mnt", CLONE_NEWNS) &&
         chdir(directory) == 0;
}

int TestHost::run(const std::vector<std::string>& command) const {
  const pid_t child = fork();
  if (child == 0) {
    if (!enter()) _exit(126);
    std::vector<char*> argv;
    for (const std::string& word : command) argv.push_back(const_cast<char*>(word.c_str()));
    argv.push_back(nullptr);
    execv(argv[0], argv.data());
    _exit(127);
  }
  return child > 0 ? waitForStatus(child) : -1;
}

// A host is made, and a second child joins it, as the tests' processes will. Joining a mount
// namespace takes a single-threaded process: a forked child of a process whose runtime keeps a
// thread of its own in every child (the thread sanitizer's) cannot.
std::string whyHostsCannotBeMade() {
  if (geteuid() != 0) return "making network namespaces needs root";
  if (access(kIpCommand, X_OK) != 0) return std::string(kIpCommand) + " is missing (Debian package iproute2)";
  const pid_t maker = fork();
  if (maker == 0) _exit(makePrivateNamespaces() ? 0 : errno);
  const int status = waitForStatus(maker);
  if (status != 0) return std::string("network and mount namespaces cannot be made here: ") + std::strerror(status);
  const TestHost probe;
  if (!probe.ok()) {
    return "a forked child of this process cannot join a host's mount namespace, which takes a single-threaded "
           "process (the thread sanitizer keeps a thread of its own in every child)";
  }
  return "";
}

bool makeSwitch(const TestHost& switchHost) {
  return switchHost.run({kIpCommand, "link", "add", kSwitchName, "type", "bridge"}) == 0 &&
         switchHost.run({kIpCommand, "link", "set", kSwitchName, "up"}) == 0;
}

// The link is made inside the host with its far end put straight into the switch, so no interface
// ever shows in the machine's own namespace and concurrent tests cannot clash over names.
bool plugIn(const TestHost& switchHost, const TestHost& host, const std::string& address, const std::string& port) {
  const std::string switchKeeper = std::to_string(switchHost.keeper());
  return host.run({kIpCommand, "link", "add", kLinkName, "type", "veth", "peer", "name", port, "netns", switchKeeper}) == 0 &&
         host.run({kIpCommand, "address", "add", address + "/24", "dev", kLinkName}) == 0 &&
         host.run({kIpCommand, "link", "set", kLinkName, "up"}) == 0 &&
         switchHost.run({kIpCommand, "link", "set", "dev", port, "master", kSwitchName}) == 0 &&
         switchHost.run({kIpCommand, "link", "set", "dev", port, "up"}) == 0;
}

}  // namespace OlmTest
