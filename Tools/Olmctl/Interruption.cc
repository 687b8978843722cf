#include "Interruption.h"

#include <fcntl.h>
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
// The handler passes each signal on through this pipe to the thread that acts on it.
int g_signalPipe[2] = {-1, -1};

sigset_t stopSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  return signals;
}

void passOn(int signal) {
  const auto number = static_cast<unsigned char>(signal);
  (void)!write(g_signalPipe[1], &number, 1);
}

// What the signal would have done had the tool not taken it: the default action ends the process
// with the signal's status.
[[noreturn]] void endBySignal(int signal) {
  struct sigaction defaultAction {};
  defaultAction.sa_handler = SIG_DFL;
  sigaction(signal, &defaultAction, nullptr);
  raise(signal);
  _exit(128 + signal);
}

// The one thread with the signals unblocked: the handler runs here, and nowhere else can it cut a
// system call short.
void actOnSignals() {
  const sigset_t signals = stopSignals();
  pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
  for (;;) {
    unsigned char signal = 0;
    if (read(g_signalPipe[0], &signal, 1) != 1) continue;
    std::lock_guard<std::mutex> lock(g_mutex);
    // Once a command has taken an interruption it is finishing: what follows changes nothing.
    if (g_interrupted.load()) continue;
    if (g_client == nullptr) endBySignal(signal);
    g_interrupted.store(true);
    g_client->send(kWakeUpMsgId, g_address, g_address, nullptr, 0);
  }
}

}  // namespace

// The handler only writes the signal's number to the pipe; the thread that reads it does the rest.
void takeInterruptions() {
  if (pipe2(g_signalPipe, O_CLOEXEC) != 0) return;
  struct sigaction action {};
  action.sa_handler = passOn;
  action.sa_flags = SA_RESTART;
  sigemptyset(&action.sa_mask);
  const sigset_t signals = stopSignals();
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);
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
