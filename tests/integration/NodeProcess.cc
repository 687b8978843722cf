#include "NodeProcess.h"

#include <sys/syscall.h>

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <thread>

#include "RhyddalHost.h"
#include "RhyddalPhysicalMemory.h"

extern char** environ;

namespace OlmTest {

namespace {

constexpr auto kShownLivePollPeriod = std::chrono::milliseconds(10);
constexpr auto kShownLiveTimeout = std::chrono::seconds(10);
constexpr auto kProgramRunLimit = std::chrono::minutes(1);
constexpr int kOutputPipeBytes = 1 << 20;  // Linux's default limit for unprivileged processes

// A node stopped by SIGINT or SIGTERM exits from the signal handler, so that the atexit handlers
// run (the host platform removes the node's mailbox in one, allocating). A thread-sanitized node
// would report that as unsafe in a signal handler and exit with the sanitizer's status instead.
void allowExitFromStopSignal() {
  const char* const options = std::getenv("TSAN_OPTIONS");
  const std::string allowed = std::string(options != nullptr ? options : "") + " report_signal_unsafe=0";
  setenv("TSAN_OPTIONS", allowed.c_str(), 1);
}

// In a child process: becomes the program of command[0]; exit status 127 when that fails.
[[noreturn]] void execCommand(const std::vector<std::string>& command) {
  std::vector<char*> argv;
  for (const std::string& arg : command) argv.push_back(const_cast<char*>(arg.c_str()));
  argv.push_back(nullptr);
  execv(argv[0], argv.data());
  _exit(127);
}

}  // namespace

NodeProcess::NodeProcess(const std::vector<std::string>& args, const std::vector<std::string>& environment,
                         const std::function<void()>& inChild) {
  std::vector<std::string> command{executablePath()};
  command.insert(command.end(), args.begin(), args.end());
  start(command, environment, inChild);
}

NodeProcess::NodeProcess(const Program& program, const std::vector<std::string>& environment,
                         const std::function<void()>& inChild) {
  start(program.command, environment, inChild);
}

void NodeProcess::start(const std::vector<std::string>& command, const std::vector<std::string>& environment,
                        const std::function<void()>& inChild) {
  char area[] = "/tmp/olm-node-XXXXXX";
  if (mkdtemp(area) != nullptr) m_workingArea = area;
  int fds[2];
  if (pipe2(fds, O_CLOEXEC) != 0) return;
  m_pid = fork();
  if (m_pid == 0) {
    dup2(fds[1], STDOUT_FILENO);
    dup2(fds[1], STDERR_FILENO);
    if (!m_workingArea.empty()) {
      setenv("OLM_RAM_ROOT", m_workingArea.c_str(), 1);
      if (chdir(m_workingArea.c_str()) != 0) _exit(126);
    }
    allowExitFromStopSignal();
    for (const std::string& variable : environment) putenv(strdup(variable.c_str()));
    if (inChild) inChild();
    execCommand(command);
  }
  close(fds[1]);
  m_outputFd = fds[0];
  fcntl(m_outputFd, F_SETFL, O_NONBLOCK);
  // The pipe is read only while the test waits for output; a node that prints steadily meanwhile
  // (a pinging EU, a log collector) must not block in write and fall behind its own queue.
  // Best effort: the system's limit for unprivileged pipes may be lower.
  fcntl(m_outputFd, F_SETPIPE_SZ, kOutputPipeBytes);
}

NodeProcess::~NodeProcess() {
  if (running()) {
    kill(SIGKILL);
    waitForExit();
  }
  if (m_outputFd >= 0) close(m_outputFd);
  if (!m_workingArea.empty()) removeDirectoryWithMounts(m_workingArea);
}

void removeDirectoryWithMounts(const std::string& directory) {
  std::ifstream mountInfo("/proc/self/mountinfo");
  std::string line;
  std::vector<std::string> mounts;
  while (std::getline(mountInfo, line)) {
    const size_t at = line.find(" " + directory + "/");
    if (at == std::string::npos) continue;
    mounts.push_back(line.substr(at + 1, line.find(' ', at + 1) - at - 1));
  }
  for (const std::string& mount : mounts) umount2(mount.c_str(), MNT_DETACH);
  std::error_code ignored;
  std::filesystem::remove_all(directory, ignored);
}

std::string NodeProcess::ramFileMount(unsigned nid) const {
  char node[32];
  std::snprintf(node, sizeof(node), "/olm_lite/0x%x/fusemnt", nid);
  return m_workingArea + node;
}

bool NodeProcess::readSome(std::chrono::milliseconds timeout) {
  pollfd descriptor{m_outputFd, POLLIN, 0};
  if (poll(&descriptor, 1, static_cast<int>(timeout.count())) <= 0) return false;
  char buffer[4096];
  const ssize_t n = read(m_outputFd, buffer, sizeof(buffer));
  if (n <= 0) return false;
  m_output.append(buffer, static_cast<size_t>(n));
  return true;
}

bool NodeProcess::waitForOutput(const std::string& text, std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  for (;;) {
    const size_t found = m_output.find(text, m_searchFrom);
    if (found != std::string::npos) {
      m_searchFrom = found + text.size();
      return true;
    }
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) return false;
    if (!readSome(std::min(left, std::chrono::milliseconds(100))) && !running()) {
      while (readSome(std::chrono::milliseconds(0))) {
      }
      return m_output.find(text, m_searchFrom) != std::string::npos;
    }
  }
}

bool NodeProcess::waitUntilPrinted(const std::string& text, std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (m_output.find(text) == std::string::npos) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0 || (!readSome(std::min(left, std::chrono::milliseconds(100))) && !running())) {
      return m_output.find(text) != std::string::npos;
    }
  }
  return true;
}

size_t NodeProcess::countOutput(const std::string& text) const {
  size_t count = 0;
  for (size_t at = m_output.find(text); at != std::string::npos; at = m_output.find(text, at + text.size())) ++count;
  return count;
}

void NodeProcess::kill(int signal) {
  if (m_pid > 0 && !m_exited) ::kill(m_pid, signal);
}

bool NodeProcess::running() {
  if (m_pid <= 0 || m_exited) return false;
  if (waitpid(m_pid, &m_status, WNOHANG) == m_pid) m_exited = true;
  return !m_exited;
}

int NodeProcess::waitForExit(std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (running()) {
    if (std::chrono::steady_clock::now() > deadline) return -1;
    readSome(std::chrono::milliseconds(20));
  }
  while (readSome(std::chrono::milliseconds(0))) {
  }
  return m_pid > 0 ? m_status : -1;
}

std::string executablePath() { return OLM_TEST_EXECUTABLE; }

std::string libraryPath(const std::string& name) { return std::string(OLM_TEST_LIBRARY_DIR) + "/lib" + name + ".so"; }

std::string pingEuPath() { return OLM_TEST_PING_EU; }

std::string nodeExecutableBinary() { return OLM_TEST_EXECUTABLE_BINARY; }

std::string runtimeLibraryPath() { return OLM_TEST_RUNTIME_LIBRARY; }

std::string historyLogFileName(unsigned nid) {
  char name[32];
  std::snprintf(name, sizeof(name), "%x_HistoryLog.bin", nid);
  return name;
}

std::string hex(unsigned value) {
  char text[16];
  std::snprintf(text, sizeof(text), "0x%04x", value);
  return text;
}

bool shownLive(unsigned nid) {
  const char* file = rhyddal_host_physical_memory_path();
  const int fd = file != nullptr ? open(file, O_RDONLY) : -1;
  if (fd < 0) return false;
  void* table = mmap(nullptr, RHYDDAL_QUEUE_TABLE_BYTES, PROT_READ, MAP_SHARED, fd, RHYDDAL_QUEUE_TABLE_PHYSICAL);
  close(fd);
  if (table == MAP_FAILED) return false;
  const auto* words = static_cast<const volatile uint32_t*>(table);
  const uint32_t index = nid & (RHYDDAL_QUEUE_COUNT - 1);
  const bool live = words[index * RHYDDAL_QUEUE_RECORD_WORDS + RHYDDAL_QUEUE_WORD_NID] == nid;
  munmap(table, RHYDDAL_QUEUE_TABLE_BYTES);
  return live;
}

bool waitUntilShownLive(unsigned nid) {
  const auto deadline = std::chrono::steady_clock::now() + kShownLiveTimeout;
  while (!shownLive(nid)) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(kShownLivePollPeriod);
  }
  return true;
}

namespace {

// Reads both pipes until they are closed; false when that takes longer than the limit.
bool drain(int outFd, int errFd, std::string& out, std::string& err) {
  const auto deadline = std::chrono::steady_clock::now() + kProgramRunLimit;
  pollfd pipes[2] = {{outFd, POLLIN, 0}, {errFd, POLLIN, 0}};
  std::string* texts[2] = {&out, &err};
  while (pipes[0].fd >= 0 || pipes[1].fd >= 0) {
    const auto left = deadline - std::chrono::steady_clock::now();
    const int leftMs = static_cast<int>(std::chrono::duration_cast<std::chrono::milliseconds>(left).count());
    if (leftMs <= 0 || poll(pipes, 2, leftMs) <= 0) return false;
    for (int i = 0; i < 2; ++i) {
      if (pipes[i].fd < 0 || pipes[i].revents == 0) continue;
      char buffer[4096];
      const ssize_t n = read(pipes[i].fd, buffer, sizeof(buffer));
      if (n > 0) {
        texts[i]->append(buffer, static_cast<size_t>(n));
      } else {
        pipes[i].fd = -1;
      }
    }
  }
  return true;
}

}  // namespace

ProgramRun runProgram(const std::vector<std::string>& command, const std::function<void()>& inChild) {
  ProgramRun run;
  int outPipe[2], errPipe[2];
  if (pipe2(outPipe, O_CLOEXEC) != 0) return run;
  if (pipe2(errPipe, O_CLOEXEC) != 0) {
    close(outPipe[0]);
    close(outPipe[1]);
    return run;
  }
  const pid_t child = fork();
  if (child == 0) {
    dup2(outPipe[1], STDOUT_FILENO);
    dup2(errPipe[1], STDERR_FILENO);
    if (inChild) inChild();
    execCommand(command);
  }
  close(outPipe[1]);
  close(errPipe[1]);
  if (child > 0 && !drain(outPipe[0], errPipe[0], run.out, run.err)) ::kill(child, SIGKILL);
  close(outPipe[0]);
  close(errPipe[0]);
  int status = 0;
  if (child > 0 && waitpid(child, &status, 0) == child && WIFEXITED(status)) run.status = WEXITSTATUS(status);
  return run;
}

bool deadLockOwnersAreDetected() {
  void* head = nullptr;
  size_t length = 0;
  return syscall(SYS_get_robust_list, 0, &head, &length) == 0;
}

}  // namespace OlmTest
