// Hosts of their own on this machine, for nodes on several hosts: each a network namespace and a
// mount namespace with a /dev/shm of its own, held by a keeper process that the host's processes
// join. Hosts are joined by virtual Ethernet links the test makes; all of it goes away with the
// keepers. Needs root; whyHostsCannotBeMade says what is missing.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

namespace OlmTest {

// One way between two processes of a test, made before the fork: values sent by one, waited for by
// the other.
class Signal {
 public:
  Signal();
  ~Signal();
  Signal(const Signal&) = delete;
  Signal& operator=(const Signal&) = delete;

  void send(uint64_t value = 1);
  // The next value sent, or 0 when none came within timeout.
  uint64_t wait(std::chrono::milliseconds timeout = std::chrono::seconds(30));

 private:
  int m_fds[2] = {-1, -1};
};

class TestHost {
 public:
  TestHost();
  ~TestHost();  // ends the keeper, and with it the host's namespaces
  TestHost(const TestHost&) = delete;
  TestHost& operator=(const TestHost&) = delete;

  bool ok() const { return m_keeper > 0; }
  pid_t keeper() const { return m_keeper; }
  // In a child process only (single-threaded): joins the host's network and mount namespaces,
  // keeping the working directory.
  bool enter() const;
  // Runs a command inside the host; its exit status, -1 when it did not run.
  int run(const std::vector<std::string>& command) const;

 private:
  pid_t m_keeper = -1;
};

// Empty when hosts can be made here; else why not (not root, no namespaces, no ip command).
std::string whyHostsCannotBeMade();

// Hosts on one Ethernet segment: the switch is a host of its own holding a bridge device, and
// plugIn gives host a virtual Ethernet link (kLinkName on its side, with address, IPv4, prefix 24)
// whose far end, port, is attached to the switch's bridge.
constexpr char kLinkName[] = "olm0";
bool makeSwitch(const TestHost& switchHost);
bool plugIn(const TestHost& switchHost, const TestHost& host, const std::string& address, const std::string& port);

}  // namespace OlmTest
