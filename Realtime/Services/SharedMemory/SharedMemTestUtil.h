// Helpers of the shared-memory tests: object names private to the test process, and code run in a
// forked child whose exit status the test checks.
#pragma once

#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <string>

namespace OlmTest {

// "/olm-test-<pid>-<tag>-<n>": no other test process, and no other call here, gets the same name.
inline std::string privateShmName(const char* tag) {
  static std::atomic<unsigned> next{0};
  return "/olm-test-" + std::to_string(getpid()) + "-" + tag + "-" + std::to_string(next++);
}

// Forks; the child runs body and exits with what it returns (without running the parent's exit
// handlers). Returns the child's pid.
template <typename Body>
pid_t startChild(Body body) {
  const pid_t pid = fork();
  if (pid == 0) _exit(body());
  return pid;
}

// The child's exit status; -1 when it did not exit normally.
inline int waitForChild(pid_t pid) {
  int status = 0;
  while (waitpid(pid, &status, 0) < 0) {
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

template <typename Body>
int runInChild(Body body) {
  return waitForChild(startChild(body));
}

}  // namespace OlmTest
