// A one-way wake-up between processes (a test and the children it forks): notify() in one,
// waitFor() in the other. A pipe, so a child that dies never leaves the other side waiting past
// its timeout. Header-only.
#pragma once

#include <poll.h>
#include <unistd.h>

#include <cstdint>

namespace OlmTest {

class Rendezvous {
 public:
  static constexpr int kDefaultTimeoutMs = 20000;

  Rendezvous() {
    if (pipe(fds_) != 0) fds_[0] = fds_[1] = -1;
  }
  ~Rendezvous() {
    close(fds_[0]);
    close(fds_[1]);
  }
  Rendezvous(const Rendezvous&) = delete;
  Rendezvous& operator=(const Rendezvous&) = delete;

  void notify(uint64_t value = 1) { (void)!write(fds_[1], &value, sizeof(value)); }
  // The value notified, or 0 when nothing came within timeoutMs.
  uint64_t waitFor(int timeoutMs = kDefaultTimeoutMs) {
    pollfd readable{fds_[0], POLLIN, 0};
    uint64_t value = 0;
    if (poll(&readable, 1, timeoutMs) == 1 && read(fds_[0], &value, sizeof(value)) == sizeof(value)) return value;
    return 0;
  }

 private:
  int fds_[2];
};

}  // namespace OlmTest
