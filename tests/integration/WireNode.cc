#include "WireNode.h"

#include <sys/wait.h>
#include <unistd.h>

#include <chrono>

namespace OlmTest {

namespace {

constexpr auto kWait = std::chrono::seconds(15);

Olmctl::WireClient::Clock::time_point deadline() { return Olmctl::WireClient::Clock::now() + kWait; }

}  // namespace

bool WireNode::receive(uint16_t id, Message& message) {
  return m_client.receive([id](const Message& received) { return received.id == id; }, deadline(), message);
}

bool WireNode::receiveAny(Message& message) {
  return m_client.receive([](const Message&) { return true; }, deadline(), message);
}

pid_t startChild(const std::function<int()>& body) {
  const pid_t child = fork();
  if (child == 0) _exit(body());
  return child;
}

int exitStatusOfChild(const std::function<int()>& body) { return exitStatusOf(startChild(body)); }

int exitStatusOf(pid_t child) {
  if (child < 0) return -1;
  int status = 0;
  if (waitpid(child, &status, 0) != child || !WIFEXITED(status)) return -1;
  return WEXITSTATUS(status);
}

}  // namespace OlmTest
