// The system log of child processes, received by the test itself: CI machines run no syslog daemon,
// and a developer's daemon must not decide what a test sees.
//
// The capture binds a datagram socket of its own in a fresh directory under /tmp and collects what
// arrives, on a thread of its own or in receiveUntilClosed. A child process (after fork, before or
// instead of exec) calls redirectThisProcess: it moves into a private mount namespace in which /dev/log is that socket,
// so the C library's syslog(3) in the child, and in every program it executes, sends there:
//   - where the machine has /dev/log, the socket is bind-mounted over it;
//   - where it has none, the child's /dev becomes a tmpfs holding bind mounts of every entry of
//     the real /dev (devices, /dev/shm, /dev/pts...) and /dev/log, a link to the socket.
// The mounts exist only in the child's namespace: neither the machine nor the test process sees
// them. Needs root (CAP_SYS_ADMIN); unavailableReason says when it cannot work.
#pragma once

#include <sys/types.h>

#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace OlmTest {

// One message of syslog(3): "<priority>Mmm dd hh:mm:ss identity: text".
struct SystemLogRecord {
  int priority = -1;  // facility | level
  std::string identity;
  std::string text;
};

class SystemLogCapture {
 public:
  enum class Receiving {
    OnThread,  // from construction on
    ByCaller   // in receiveUntilClosed: the process stays single-threaded, so that a child forked
               // from it may start threads (user-mode emulators fail at that after a fork from a
               // multi-threaded process)
  };

  explicit SystemLogCapture(Receiving receiving = Receiving::OnThread);
  ~SystemLogCapture();
  SystemLogCapture(const SystemLogCapture&) = delete;
  SystemLogCapture& operator=(const SystemLogCapture&) = delete;

  // "" when capturing works on this machine, else why not; found out once, by a child process
  // that redirects itself and logs.
  static std::string unavailableReason();

  // In a child process: its system log (and its programs') goes to this capture from now on.
  // False when that failed; the child should then end without logging.
  bool redirectThisProcess() const;

  // Receives until every write end of fd is closed (a pipe whose write end only the logging child
  // holds ends with the child). Receiving::ByCaller only.
  void receiveUntilClosed(int fd);

  // Stops receiving and returns every record, in arrival order. Call once the processes that log
  // have ended: all they sent has arrived by then.
  std::vector<SystemLogRecord> finish();

 private:
  // Receives until stopFd is readable or hangs up.
  void receive(int stopFd);
  void storeDatagram(const char* data, size_t length);

  std::string m_directory;
  std::string m_socketPath;
  int m_socket = -1;
  int m_stopPipe[2] = {-1, -1};
  std::thread m_receiver;
  std::mutex m_mutex;
  std::vector<SystemLogRecord> m_records;
};

// Parses one datagram as syslog(3) writes it; priority -1 when it is not of that form.
SystemLogRecord parseSystemLogDatagram(const std::string& datagram);

// The texts of the records of identity, in order.
std::vector<std::string> textsOf(const std::vector<SystemLogRecord>& records, const std::string& identity);

}  // namespace OlmTest
