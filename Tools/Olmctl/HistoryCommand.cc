// olmctl history: a running node's history log as text.
//
// The records hold the runtime's formats as distances within libOlmLiteRt, so only a program that
// loads that library can turn them into text: olm-history, installed beside this tool. The tool
// runs it rather than load the runtime itself, and stays a program without the runtime.
#include <fcntl.h>
#include <limits.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "Commands.h"
#include "Output.h"
#include "RamFileReader.h"
#include "RamFiles.h"

extern char** environ;

namespace Olmctl {

namespace {

constexpr char kConverterName[] = "olm-history";
constexpr char kConverterVariable[] = "OLM_HISTORY_TOOL";
constexpr size_t kReadChunk = 65536;
// The status of a child whose program could not be started, where the spawn cannot say so itself
// (under user-mode emulation).
constexpr int kCouldNotStart = 127;

constexpr char kUsage[] = "Usage: olmctl history NID\n";

constexpr char kHelp[] =
    "Usage: olmctl history NID\n"
    "\n"
    "The history log of a node as text: its RAM file <nid>_HistoryLog.bin, copied at once (from\n"
    "under the nodes' RAM root for a node on this host, else through the RAM file server of its\n"
    "host, which olm-controller runs) and converted by olm-history, which resolves the runtime's\n"
    "formats in the runtime installed with it.\n"
    "The olm-history beside olmctl is used unless OLM_HISTORY_TOOL names another (the one of\n"
    "the installation the node runs, when that is another).\n"
    "\n"
    "Examples:\n"
    "  olmctl history 0x1011 | less\n"
    "  olmctl history 0x1011 --ram-root /tmp/ram\n"
    "  olmctl history 0x1011 --json        (the lines as an array of strings)\n";

// Each line of text as a JSON string, without its line feed.
std::vector<std::string> jsonLines(const std::string& text) {
  std::vector<std::string> lines;
  for (size_t at = 0; at < text.size();) {
    const size_t end = std::min(text.find('\n', at), text.size());
    lines.push_back(jsonString(text.substr(at, end - at)));
    at = end + 1;
  }
  return lines;
}

// The olm-history beside this program, or the one OLM_HISTORY_TOOL names.
std::string converterPath() {
  if (const char* chosen = std::getenv(kConverterVariable); chosen != nullptr && *chosen != '\0') return chosen;
  char self[PATH_MAX];
  const ssize_t length = readlink("/proc/self/exe", self, sizeof(self) - 1);
  if (length <= 0) return kConverterName;
  const std::string program(self, static_cast<size_t>(length));
  return program.substr(0, program.rfind('/') + 1) + kConverterName;
}

// A private copy of the node's file: the node keeps writing its own, and holding a RAM file open
// holds its owner's lock.
bool copyToTemporaryFile(const std::vector<uint8_t>& bytes, std::string& path, std::string& error) {
  const char* directory = std::getenv("TMPDIR");
  std::string pattern = std::string(directory != nullptr && *directory != '\0' ? directory : "/tmp") +
                        "/olmctl-history-XXXXXX";
  const int fd = mkstemp(pattern.data());
  size_t written = 0;
  while (fd >= 0 && written < bytes.size()) {
    const ssize_t n = write(fd, bytes.data() + written, bytes.size() - written);
    if (n <= 0) break;
    written += static_cast<size_t>(n);
  }
  const int reason = errno;
  if (fd >= 0) close(fd);
  if (fd >= 0 && written == bytes.size()) {
    path = pattern;
    return true;
  }
  if (fd >= 0) unlink(pattern.c_str());
  error = "cannot copy the history log to " + pattern + ": " + std::strerror(reason);
  return false;
}

// Reads both descriptors (-1: none) to their ends, neither held up by the other filling its pipe.
void drain(int outFd, int errFd, std::string& out, std::string& err) {
  pollfd pipes[2] = {{outFd, POLLIN, 0}, {errFd, POLLIN, 0}};
  std::string* texts[2] = {&out, &err};
  while (pipes[0].fd >= 0 || pipes[1].fd >= 0) {
    if (poll(pipes, 2, -1) < 0) return;
    for (int i = 0; i < 2; ++i) {
      if (pipes[i].fd < 0 || pipes[i].revents == 0) continue;
      char buffer[kReadChunk];
      const ssize_t n = read(pipes[i].fd, buffer, sizeof(buffer));
      if (n > 0) {
        texts[i]->append(buffer, static_cast<size_t>(n));
      } else {
        pipes[i].fd = -1;
      }
    }
  }
}

// The converter's exit status, with its standard error in err and, when captureOut, its standard
// output in out (else it writes to ours); -1 with error when it could not be started.
int runConverter(const std::string& converter, const std::string& file, bool captureOut, std::string& out,
                 std::string& err, std::string& error) {
  int outPipe[2] = {-1, -1}, errPipe[2] = {-1, -1};
  if ((captureOut && pipe2(outPipe, O_CLOEXEC) != 0) || pipe2(errPipe, O_CLOEXEC) != 0) {
    error = std::string("cannot run ") + converter + ": " + std::strerror(errno);
    return -1;
  }
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  if (captureOut) posix_spawn_file_actions_adddup2(&actions, outPipe[1], STDOUT_FILENO);
  posix_spawn_file_actions_adddup2(&actions, errPipe[1], STDERR_FILENO);
  // The tool blocks Ctrl-C in its threads (Interruption.h); the converter takes it as any program.
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  sigset_t none;
  sigemptyset(&none);
  posix_spawnattr_setsigmask(&attributes, &none);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK);
  char* const argv[] = {const_cast<char*>(converter.c_str()), const_cast<char*>(file.c_str()), nullptr};
  std::fflush(stdout);
  pid_t child = -1;
  const int spawned = posix_spawn(&child, converter.c_str(), &actions, &attributes, argv, environ);
  posix_spawn_file_actions_destroy(&actions);
  posix_spawnattr_destroy(&attributes);
  for (const int fd : {outPipe[1], errPipe[1]}) {
    if (fd >= 0) close(fd);
  }
  if (spawned == 0) drain(outPipe[0], errPipe[0], out, err);
  for (const int fd : {outPipe[0], errPipe[0]}) {
    if (fd >= 0) close(fd);
  }
  int status = 0;
  if (spawned != 0 || waitpid(child, &status, 0) != child) {
    error = "cannot run " + converter + ": " + std::strerror(spawned != 0 ? spawned : errno) +
            " (OLM_HISTORY_TOOL names the olm-history to use)";
    return -1;
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// Converts file to text on standard output, or as JSON lines; false with error.
bool convert(uint16_t nid, const std::string& file, bool asJson, std::string& error) {
  const std::string converter = converterPath();
  std::string out, err;
  const int status = runConverter(converter, file, asJson, out, err, error);
  if (status < 0) return false;
  if (status == kCouldNotStart && err.empty()) {
    error = "cannot run " + converter + " (OLM_HISTORY_TOOL names the olm-history to use)";
    return false;
  }
  if (status != 0) {
    const std::string reason = err.substr(0, err.find('\n'));
    error = converter + " could not convert the history log" + (reason.empty() ? "" : ": " + reason);
    return false;
  }
  if (asJson) printOut(JsonObject().number("node", uint64_t{nid}).raw("lines", jsonArray(jsonLines(out))).text() + "\n");
  return true;
}

// Straight from the mount for a node on this host; else through the RAM file server of its host,
// with a node id of the tool's own for the exchange.
bool readHistoryLog(const CommonOptions& options, uint16_t nid, std::vector<uint8_t>& bytes, std::string& error) {
  const std::string name = historyLogFileName(nid);
  if (HostNodes().has(nid)) return LocalRamFileReader(options.ramRoot).read(nid, name, bytes, error);
  Session session(options);
  return session.open(error) && ServerRamFileReader(session, options.timeoutMs).read(nid, name, bytes, error);
}

Outcome runHistory(const CommonOptions& options, const Arguments& arguments) {
  uint16_t nid = 0;
  std::string error;
  if (!parseOnlyNid("history", arguments, nid, error)) return misused(error);
  std::vector<uint8_t> bytes;
  if (!readHistoryLog(options, nid, bytes, error)) return failed(error);
  std::string copy;
  if (!copyToTemporaryFile(bytes, copy, error)) return failed(error);
  const bool converted = convert(nid, copy, options.json, error);
  unlink(copy.c_str());
  return converted ? succeeded() : failed(error);
}

}  // namespace

const Command& historyCommand() {
  static const Command command{"history", "  history NID                     a node's history log as text\n",
                               kUsage, kHelp, runHistory};
  return command;
}

}  // namespace Olmctl
