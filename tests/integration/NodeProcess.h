// A real node process for integration tests: OLMLiteExe started with a command line and extra
// environment, its standard output and error merged into one pipe that the test reads.
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
  ~NodeProcess();  // kills the process if it still runs
  NodeProcess(const NodeProcess&) = delete;
  NodeProcess& operator=(const NodeProcess&) = delete;

  // Reads output until text has appeared (counting from the last call's match), or the time ran out.
  bool waitForOutput(const std::string& text, std::chrono::milliseconds timeout = std::chrono::seconds(10));
  // Occurrences of text in everything read so far.
  size_t countOutput(const std::string& text) const;
  const std::string& output() const { return m_output; }

  void kill(int signal);
  // The wait status, or -1 if the process did not end in time.
  int waitForExit(std::chrono::milliseconds timeout = std::chrono::seconds(10));
  bool running();

 private:
  bool readSome(std::chrono::milliseconds timeout);

  pid_t m_pid = -1;
  int m_outputFd = -1;
  std::string m_output;
  size_t m_searchFrom = 0;
  bool m_exited = false;
  int m_status = 0;
};

// Paths of the built programs and libraries.
std::string executablePath();
std::string libraryPath(const std::string& name);
std::string pingEuPath();
// "0x%04x", as node ids are written on the command line and in the nodes' output.
std::string hex(unsigned value);

}  // namespace OlmTest
