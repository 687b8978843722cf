// Helpers for the host port's tests: forked node processes, rendezvous pipes and SysCom test
// messages. Header-only, used by the *_test.cc files only. Every test process runs in a namespace
// of its own (tests/support/TestNamespace.h), so node ids only need to be unique within it.
#pragma once

#include <signal.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <functional>
#include <thread>

#include <gtest/gtest.h>

#include "HostEnvironment.h"
#include "Rhyddal.h"
#include "Rendezvous.h"
#include "TestNamespace.h"

namespace rhyddal {
namespace testing {

constexpr uint32_t kNoCpu = 0xFFFFFFFFu;  // server init without pinning

// Whether a dead process's shared locks pass to the next locker (robust futex lists; not emulated).
inline bool deadLockOwnersAreDetected() {
  void* head = nullptr;
  size_t length = 0;
  return syscall(SYS_get_robust_list, 0, &head, &length) == 0;
}

#define SKIP_WITHOUT_DEAD_OWNER_DETECTION()                                                          \
  do {                                                                                               \
    if (!::rhyddal::testing::deadLockOwnersAreDetected())                                            \
      GTEST_SKIP() << "no robust futex lists here: a killed node looks alive";                       \
  } while (0)
constexpr int kChildTimeoutMs = 20000;

using OlmTest::Rendezvous;

// A forked child whose exit status is body's result (0: pass); killed if still running at scope end.
class ChildProcess {
 public:
  explicit ChildProcess(const std::function<int()>& body) : pid_(fork()) {
    if (pid_ == 0) _exit(body());
  }
  ~ChildProcess() {
    if (pid_ > 0 && !reaped_) {
      ::kill(pid_, SIGKILL);
      waitpid(pid_, nullptr, 0);
    }
  }
  // The child's exit code, 128 + signal when a signal ended it, -1 when it ran past timeoutMs.
  int wait(int timeoutMs = kChildTimeoutMs) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    int status = 0;
    while (waitpid(pid_, &status, WNOHANG) == 0) {
      if (std::chrono::steady_clock::now() > deadline) return -1;
      std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    reaped_ = true;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  }
  int kill() {
    ::kill(pid_, SIGKILL);
    return wait();
  }
  pid_t pid() const { return pid_; }

 private:
  pid_t pid_;
  bool reaped_ = false;
};

inline uint16_t testNid() { return OlmTest::nextTestNid(); }

// Serves nid in this process without pinning; a server init that succeeds must give a handle.
inline int becomeNode(uint16_t nid) {
  uint32_t handle = 0;
  const int rc = vak_em_server_init(nid, kNoCpu, 0, &handle);
  return rc == 0 && handle == 0 ? -1 : rc;
}

// A node process that serves nid and idles until killed.
class IdleNode {
 public:
  explicit IdleNode(uint16_t nid)
      : process_([this, nid] {
          up_.notify(becomeNode(nid) == 0 ? 1 : 2);
          pause();
          return 0;
        }) {}
  // True once the node serves; false when its start failed or took too long.
  bool up() { return up_.waitFor() == 1; }
  int kill() { return process_.kill(); }

 private:
  Rendezvous up_;
  ChildProcess process_;
};

inline uint32_t sicAddress(uint16_t nid, uint16_t cpid) { return (uint32_t{nid} << 16) | cpid; }

// A SysCom header (receiver at 4, sender at 8, total length at 14) and a payload pattern that
// depends on seed, so a message that arrives shuffled, cut or stale is recognised.
inline void writeTestMessage(void* buffer, uint32_t length, uint32_t receiver, uint32_t sender, uint32_t seed) {
  auto* bytes = static_cast<unsigned char*>(buffer);
  const uint16_t msgId = static_cast<uint16_t>(seed);
  const uint16_t totalLength = static_cast<uint16_t>(length);
  std::memset(bytes, 0, 16);
  std::memcpy(bytes, &msgId, 2);
  std::memcpy(bytes + 4, &receiver, 4);
  std::memcpy(bytes + 8, &sender, 4);
  std::memcpy(bytes + 14, &totalLength, 2);
  for (uint32_t i = 16; i < length; ++i) bytes[i] = static_cast<unsigned char>(seed * 31u + i * 7u);
}

// A field of a SysCom message at its byte offset, whatever the message's alignment.
template <typename T>
T fieldOf(const void* message, size_t offset) {
  T value;
  std::memcpy(&value, static_cast<const unsigned char*>(message) + offset, sizeof(value));
  return value;
}
inline uint32_t senderOf(const void* message) { return fieldOf<uint32_t>(message, 8); }
inline uint16_t totalLengthOf(const void* message) { return fieldOf<uint16_t>(message, 14); }

// As the statistics EU echoes: receiver and sender trade places.
inline void swapAddresses(void* message) {
  const uint32_t receiver = fieldOf<uint32_t>(message, 4), sender = fieldOf<uint32_t>(message, 8);
  std::memcpy(static_cast<unsigned char*>(message) + 4, &sender, sizeof(sender));
  std::memcpy(static_cast<unsigned char*>(message) + 8, &receiver, sizeof(receiver));
}

inline bool isTestMessage(const void* buffer, uint32_t length, uint32_t seed) {
  const bool headerMatches = totalLengthOf(buffer) == static_cast<uint16_t>(length) &&
                             fieldOf<uint16_t>(buffer, 0) == static_cast<uint16_t>(seed);
  if (!headerMatches) return false;
  const auto* bytes = static_cast<const unsigned char*>(buffer);
  for (uint32_t i = 16; i < length; ++i) {
    if (bytes[i] != static_cast<unsigned char>(seed * 31u + i * 7u)) return false;
  }
  return true;
}

constexpr uint64_t kNanosecondsPerMillisecond = 1000000;

inline void* newMessage(uint32_t length, uint32_t receiver, uint32_t sender, uint32_t seed) {
  void* message = vakem_alloc(length);
  if (message != nullptr) writeTestMessage(message, length, receiver, sender, seed);
  return message;
}

inline uint64_t nowNs(clockid_t clock = CLOCK_MONOTONIC) {
  timespec now{};
  clock_gettime(clock, &now);
  return static_cast<uint64_t>(now.tv_sec) * 1000000000u + static_cast<uint64_t>(now.tv_nsec);
}

inline void* receiveWithin(uint16_t nid, uint64_t timeoutMs) {
  const uint64_t deadline = nowNs() + timeoutMs * kNanosecondsPerMillisecond;
  for (;;) {
    if (void* message = vakem_receive(nid)) return message;
    const uint64_t now = nowNs();
    if (now >= deadline) return nullptr;
    vakem_wait_for_event(0, static_cast<uint32_t>(std::min<uint64_t>(deadline - now, 999999999)));
  }
}

// Scattered sizes over the whole range, the first two its ends.
inline uint32_t lengthOfMessage(uint32_t index) {
  if (index < 2) return index == 0 ? 16 : 65535;
  return 16 + (index * 7919u) % (65536 - 16);
}

using SendFunction = std::function<int(void* message, uint32_t receiver)>;

// In an echo node: sends count messages back to their senders, addresses swapped. 0, or 2 when
// one did not come, 3 when one could not be sent.
inline int echoMessages(uint16_t nid, uint32_t count, const SendFunction& send) {
  for (uint32_t i = 0; i < count; ++i) {
    void* message = receiveWithin(nid, 10000);
    if (message == nullptr) return 2;
    swapAddresses(message);
    if (send(message, fieldOf<uint32_t>(message, 4)) != 0) return 3;
  }
  return 0;
}

// In node self: sends count messages of lengthOfMessage sizes to echo, at most inFlight ahead of
// the echoes, and checks every echo in order, byte for byte. 0, or 12 to 14 for what went wrong.
inline int exchangeWithEcho(uint16_t self, uint16_t echo, uint32_t count, uint32_t inFlight, const SendFunction& send) {
  constexpr uint16_t kCpid = 0x0123;
  uint32_t sent = 0;
  for (uint32_t received = 0; received < count; ++received) {
    for (; sent < count && sent < received + inFlight; ++sent) {
      void* message = newMessage(lengthOfMessage(sent), sicAddress(echo, kCpid), sicAddress(self, kCpid), sent);
      if (send(message, sicAddress(echo, kCpid)) != 0) return 12;
    }
    void* echoed = receiveWithin(self, 10000);
    if (echoed == nullptr) return 13;
    const bool expected = isTestMessage(echoed, lengthOfMessage(received), received);
    vakem_free(echoed);
    if (!expected) return 14;
  }
  return 0;
}

}  // namespace testing
}  // namespace rhyddal
