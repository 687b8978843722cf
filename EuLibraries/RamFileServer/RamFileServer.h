// The RAM file server of a host: the EU at CPID 0x0607 that answers read requests for the RAM
// files of the nodes of its own host (RamFileRead.h), so that a tool on another host reads them as
// a tool on this one reads them from the nodes' mounts.
//
// Each request is one chunk of one file, read in one open, read and close: opening a RAM file takes
// its owner's lock until it is closed, and the server holds no file between requests.
//
// What it needs from outside comes through Hooks, so that tests give their own.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "IAaSysDispatcherSicHandler.h"

class RamFileServer : public Olm::IAaSysDispatcherSicHandler {
 public:
  struct Hooks {
    // Up to count bytes of the file at path from offset on, in one open, read and close: 0 with the
    // file's size and the bytes (fewer at its end), else a positive errno.
    std::function<int(const std::string& path, uint32_t offset, uint32_t count, uint32_t& fileSize,
                      std::vector<uint8_t>& bytes)>
        readFile;
    // Sends a message the server made at once, never waiting: 0 when it is gone, else a negative
    // errno, and the message is still the caller's.
    std::function<int(void* msg)> transmit;
    // One line of output, without its line feed.
    std::function<void(const std::string& line)> print;
    // Where the nodes keep their directories: "<root>/olm_lite/0x<nid>/fusemnt/<name>".
    std::string ramRoot;
  };

  explicit RamFileServer(Hooks hooks);

  // Says where it serves from. Call once it is bound.
  void start();

  int PrioritizeMessage(void*& msg) override;
  void ProcessMessage(void*& msg) override;

  // The path of node nid's RAM file name under root.
  static std::string ramFilePath(const std::string& root, uint32_t nid, const std::string& name);

 private:
  struct Request;

  void serve(const void* msg);
  void reply(const void* request, const Request& asked, int status, uint32_t fileSize,
             const std::vector<uint8_t>& bytes);
  void report(const char* format, ...) __attribute__((format(printf, 2, 3)));

  Hooks m_hooks;
};
