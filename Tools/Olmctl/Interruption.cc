#include "Interruption.h"

#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <mutex>
#include <thread>

namespace Olmctl {

namespace {

// An id no node sends: the tool sends it only to itself.
constexpr uint16_t kWakeUpMsgId = 0x7FFE;

std::mutex g_mutex;
WireClient* g_client = nullptr;  // guarded by g_mutex, as is g_address
uint32_t g_address = 0;
std::atomic<bool> g_interrupted{false};

sigset_t stopSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  return signals;
}

// What the signal would have done had the tool not taken it: the default action ends the process
// with the signal's status. Unblocked only here, so the pending signal is taken as it is raised.
[[noreturn]] void endBySignal(int signal) {
  struct sigaction defaultAction {};
  defaultAction.sa_handler = SIG_DFL;
  sigaction(signal, &defaultAction, nullptr);
  raise(signal);
  sigset_t only;
  sigemptyset(&only);
  sigaddset(&only, signal);
  pthread_sigmask(SIG_UNBLOCK, &only, nullptr);
  _exit(128 + signal);
}

// The signals stay blocked in every thread and are taken here synchronously: no handler runs, so
// nothing is cut short and nothing waits for a handler to be delivered (a sanitizer's runtime
// defers handlers until the thread's next call it watches).
void actOnSignals() {
  const sigset_t signals = stopSignals();
  for (;;) {
    int signal = 0;
    if (sigwait(&signals, &signal) != 0) continue;
    std::lock_guard<std::mutex> lock(g_mutex);
    // Once a command has taken an interruption it is finishing: what follows changes nothing.
    if (g_interrupted.load()) continue;
    if (g_client == nullptr) endBySignal(signal);
    g_interrupted.store(true);
    g_client->send(kWakeUpMsgId, g_address, g_address, nullptr, 0);
  }
}

}  // namespace

void takeInterruptions() {
  const sigset_t signals = stopSignals();
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  std::thread(actOnSignals).detach();
}

InterruptionScope::InterruptionScope(WireClient& client, uint32_t address) {
  std::lock_guard<std::mutex> lock(g_mutex);
  g_client = &client;
  g_address = address;
}

InterruptionScope::~InterruptionScope() {
  std::lock_guard<std::mutex> lock(g_mutex);
  g_client = nullptr;
}

bool interrupted() { return g_interrupted.load(); }

bool isWakeUp(const WireClient::Message& message, uint32_t address) {
  return message.id == kWakeUpMsgId && message.sender == address && message.receiver == address;
}

}  // namespace Olmctl
