// The RAM file server as an EU library, for the controller node of each host (olm-controller):
//
//   OLMLiteExe --nid 0x10F0 --masternid 0x10F0 ... --load-local libSysLogCollector.so
//     --load-local libRamFileServer.so
//
// Tools reach it at the node id ending in D of a node's group, whose alias the log collector of the
// same node takes; it reads the files under the RAM root the node itself uses (OLM_RAM_ROOT).
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include "AaSysCom.h"
#include "IAaSysDispatcher.h"
#include "RamFileRead.h"
#include "RamFileServer.h"
#include "Rhyddal.h"

namespace {

constexpr char kDefaultRamRoot[] = "/ram";
constexpr char kRamRootVariable[] = "OLM_RAM_ROOT";

// The root as the runtime takes it: an absolute path without a trailing '/', else the default (the
// runtime has said so on standard error already).
std::string ramRootInForce() {
  const char* value = std::getenv(kRamRootVariable);
  const size_t length = value == nullptr ? 0 : std::strlen(value);
  if (length > 1 && value[0] == '/' && value[length - 1] != '/') return value;
  return kDefaultRamRoot;
}

// Straight to the platform, which says at once whether the tool took the message; the runtime's
// own send drops a refused message without telling.
int sendNow(void* msg) { return vakem_send(msg, AaSysComMsgGetReceiver(msg)); }

// One write per line, so that lines of the node's other libraries never cut into it.
void printLine(const std::string& line) {
  const std::string whole = line + "\n";
  if (write(STDOUT_FILENO, whole.data(), whole.size()) < 0) return;
}

// The file is held open only for this one read. A link or anything but a regular file (a FIFO
// would block the node) is not read: the name came from whoever sent the request.
int readChunk(const std::string& path, uint32_t offset, uint32_t count, uint32_t& fileSize,
              std::vector<uint8_t>& bytes) {
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
  if (fd < 0) return errno;
  struct stat status {};
  int error = fstat(fd, &status) != 0 ? errno : !S_ISREG(status.st_mode) ? EINVAL : 0;
  if (error == 0 && static_cast<uint64_t>(status.st_size) > UINT32_MAX) error = EFBIG;
  if (error == 0) {
    fileSize = static_cast<uint32_t>(status.st_size);
    bytes.resize(offset < fileSize ? std::min(count, fileSize - offset) : 0);
  }
  size_t got = 0;
  while (error == 0 && got < bytes.size()) {
    const ssize_t n = pread(fd, bytes.data() + got, bytes.size() - got, static_cast<off_t>(offset) + static_cast<off_t>(got));
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) error = errno;
    if (n <= 0) break;
    got += static_cast<size_t>(n);
  }
  close(fd);
  bytes.resize(got);
  return error;
}

// Every signal but those a fault raises in the thread itself.
sigset_t asynchronousSignals() {
  sigset_t signals;
  sigfillset(&signals);
  for (int fault : {SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGABRT, SIGTRAP, SIGSYS}) sigdelset(&signals, fault);
  return signals;
}

// A thread for each read, so that one that never ends (its node is stopped) holds up no other; the
// server bounds how many there are. The thread takes no asynchronous signal: the node's handlers
// expect them on its Dispatcher's thread. Without a thread, the read runs at once.
void runOnAThreadOfItsOwn(std::function<void()> read) {
  const sigset_t blocked = asynchronousSignals();
  sigset_t callerSignals;
  pthread_sigmask(SIG_BLOCK, &blocked, &callerSignals);
  bool started = true;
  try {
    std::thread(read).detach();
  } catch (const std::system_error&) {
    started = false;
  }
  pthread_sigmask(SIG_SETMASK, &callerSignals, nullptr);
  if (!started) read();
}

RamFileServer::Hooks productionHooks() {
  RamFileServer::Hooks hooks;
  hooks.readFile = readChunk;
  hooks.runRead = runOnAThreadOfItsOwn;
  hooks.transmit = sendNow;
  hooks.release = vakem_free;
  hooks.print = printLine;
  hooks.ramRoot = ramRootInForce();
  return hooks;
}

}  // namespace

extern "C" void EuMain(Olm::IAaSysDispatcher* dispatcher) {
  // Never destroyed: a read that has not finished when the process exits still answers through it.
  static RamFileServer& server = *new RamFileServer(productionHooks());
  dispatcher->AaSysDispatcherCpidBind(server, RAMFILE_SERVER_CPID);
  server.start();
}
