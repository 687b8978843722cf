// A real node process for integration tests: OLMLiteExe started with a command line and extra
// environment, its standard output and error merged into one pipe that the test reads.
//
// Each node gets a private working area: a fresh temporary directory that is both its OLM_RAM_ROOT
// (unless the environment given names one) and its start directory. The area goes with the object,
// after any RAM file mount a killed node left in it has been detached.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <string>
#include <vector>

namespace OlmTest {

class NodeProcess {
 public:
  // inChild runs in the child process just before the executable starts (e.g. to give it a
  // private mount namespace).
  NodeProcess(const std::vector<std::string>& args, const std::vector<std::string>& environment = {},
              const std::function<void()>& inChild = {});
  // Another program the same way, a tool running while the test watches it: command[0] is its path.
  struct Program {
    std::vector<std::string> command;
  };
  explicit NodeProcess(const Program& program, const std::vector<std::string>& environment = {},
                       const std::function<void()>& inChild = {});
  ~NodeProcess();  // kills the process if it still runs
  NodeProcess(const NodeProcess&) = delete;
  NodeProcess& operator=(const NodeProcess&) = delete;

  // Reads output until text has appeared (counting from the last call's match), or the time ran out.
  bool waitForOutput(const std::string& text, std::chrono::milliseconds timeout = std::chrono::seconds(10));
  // Occurrences of text in everything read so far.
  size_t countOutput(const std::string& text) const;
  // Reads output until text has appeared anywhere in it, whatever was matched before (lines of
  // several threads or sources come in any order), or the time ran out.
  bool waitUntilPrinted(const std::string& text, std::chrono::milliseconds timeout = std::chrono::seconds(10));
  const std::string& output() const { return m_output; }

  void kill(int signal);
  pid_t pid() const { return m_pid; }
  // The node's OLM_RAM_ROOT and start directory.
  const std::string& workingArea() const { return m_workingArea; }
  // Where the node mounts its RAM files: <area>/olm_lite/0x<nid>/fusemnt.
  std::string ramFileMount(unsigned nid) const;
  // The wait status, or -1 if the process did not end in time.
  int waitForExit(std::chrono::milliseconds timeout = std::chrono::seconds(10));
  bool running();

 private:
  bool readSome(std::chrono::milliseconds timeout);

  void start(const std::vector<std::string>& command, const std::vector<std::string>& environment,
             const std::function<void()>& inChild);

  pid_t m_pid = -1;
  std::string m_workingArea;
  int m_outputFd = -1;
  std::string m_output;
  size_t m_searchFrom = 0;
  bool m_exited = false;
  int m_status = 0;
};

// Removes a directory tree after detaching the RAM file mounts that nodes killed outright left in
// it (the kernel answers ENOTCONN there, and they keep the directories).
void removeDirectoryWithMounts(const std::string& directory);

// Paths of the built programs and libraries.
std::string executablePath();
std::string libraryPath(const std::string& name);
std::string pingEuPath();
// The node executable itself (executablePath() may be a wrapper that runs it under an emulator).
std::string nodeExecutableBinary();
// libOlmLiteRt.so of the build.
std::string runtimeLibraryPath();
// The node's history log RAM file: "<nid in hex>_HistoryLog.bin".
std::string historyLogFileName(unsigned nid);
// "0x%04x", as node ids are written on the command line and in the nodes' output.
std::string hex(unsigned value);
// Whether the host platform's queue table shows the node as live, as EU libraries that look for
// the running nodes read it at their start; waitUntilShownLive waits up to ten seconds for that.
// A node that has gone (killed, or stopped by a signal) is recognised by its locks passing to the
// next locker (robust futex lists), which user-mode emulation does not implement: there a node
// restarted under the same id is not reached again.
bool deadLockOwnersAreDetected();

bool shownLive(unsigned nid);
bool waitUntilShownLive(unsigned nid);

// A program run to its end: its exit status (-1 when it did not exit normally, or was killed
// after a minute) and what it wrote to standard output and to standard error.
struct ProgramRun {
  int status = -1;
  std::string out;
  std::string err;
};
// inChild runs in the child process just before the program starts.
ProgramRun runProgram(const std::vector<std::string>& command, const std::function<void()>& inChild = {});

}  // namespace OlmTest
