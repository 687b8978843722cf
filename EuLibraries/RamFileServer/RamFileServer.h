// The RAM file server of a host: the EU at CPID 0x0607 that answers read requests for the RAM
// files of the nodes of its own host (RamFileRead.h), so that a tool on another host reads them as
// a tool on this one reads them from the nodes' mounts.
//
// Each request is one chunk of one file, read in one open, read and close: opening a RAM file takes
// its owner's lock until it is closed, and the server holds no file between requests.
//
// The reads run off the Dispatcher's thread. A node's RAM files are served by that node's own
// process, so a read of a node that is stopped (in a debugger, by SIGSTOP) waits until the node
// goes on; the node that loads this server (the controller) must not wait with it. A finished read
// sends the server a wake-up message made beforehand, and the server answers on its own thread.
// At most kMaxReadsPerNode reads of one node's files, and kMaxReadsInFlight in all, may be
// unfinished; a request beyond them is answered EBUSY at once. So a tool that keeps asking for a
// stopped node's files (olmctl top) ties up two reads, not the server.
//
// What it needs from outside comes through Hooks, so that tests give their own.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "IAaSysDispatcherSicHandler.h"

class RamFileServer : public Olm::IAaSysDispatcherSicHandler {
 public:
  static constexpr uint32_t kMaxReadsPerNode = 2;
  static constexpr uint32_t kMaxReadsInFlight = 32;

  struct Hooks {
    // Up to count bytes of the file at path from offset on, in one open, read and close: 0 with the
    // file's size and the bytes (fewer at its end), else a positive errno. Called by runRead's read.
    std::function<int(const std::string& path, uint32_t offset, uint32_t count, uint32_t& fileSize,
                      std::vector<uint8_t>& bytes)>
        readFile;
    // Runs read off the Dispatcher's thread (production: on a thread of its own), or, where it
    // cannot, at once.
    std::function<void(std::function<void()> read)> runRead;
    // Sends a message the server made at once, never waiting: 0 when it is gone, else a negative
    // errno, and the message is still the caller's. Called from the Dispatcher's thread and from
    // reads.
    std::function<int(void* msg)> transmit;
    // Frees a message the server made and a read could not send (the platform's own free, which
    // any thread may call).
    std::function<void(void* msg)> release;
    // One line of output, without its line feed. Called from the Dispatcher's thread only.
    std::function<void(const std::string& line)> print;
    // Where the nodes keep their directories: "<root>/olm_lite/0x<nid>/fusemnt/<name>".
    std::string ramRoot;
  };

  explicit RamFileServer(Hooks hooks);
  // Reads still running must have finished: they answer through this object.
  ~RamFileServer() override;

  // Says where it serves from. Call once it is bound.
  void start();

  int PrioritizeMessage(void*& msg) override;
  void ProcessMessage(void*& msg) override;

  // The path of node nid's RAM file name under root.
  static std::string ramFilePath(const std::string& root, uint32_t nid, const std::string& name);

 private:
  struct Request;
  struct Answer;

  void serve(const void* msg);
  bool roomForARead(uint32_t nid) const;
  void startRead(Answer answer);
  void answerFinishedReads();
  void reply(const Answer& answer);
  void report(const char* format, ...) __attribute__((format(printf, 2, 3)));

  Hooks m_hooks;
  // Reads started and not yet answered, in all and by node id; the Dispatcher's thread only.
  uint32_t m_readsInFlight = 0;
  std::map<uint32_t, uint32_t> m_readsOfNode;
  std::mutex m_finishedLock;
  std::vector<Answer> m_finished;  // read, waiting for the Dispatcher's thread to answer them
};
