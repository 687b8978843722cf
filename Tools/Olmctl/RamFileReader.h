// Where the tool reads a node's RAM files: from the node's mount when the node runs on this host,
// else through the RAM file server of the node's host, at the node id ending in D of the node's
// group (EuLibraries/RamFileServer/RamFileRead.h), in chunks.
#pragma once

#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "RamFileRead.h"
#include "Session.h"

namespace Olmctl {

class IRamFileReader {
 public:
  virtual ~IRamFileReader() = default;
  // The whole file name of node nid, as it was at one moment; false with the line an operator
  // reads in error.
  virtual bool read(uint16_t nid, const std::string& name, std::vector<uint8_t>& bytes, std::string& error) = 0;
};

// The node's mount under the nodes' RAM root on this host.
class LocalRamFileReader : public IRamFileReader {
 public:
  explicit LocalRamFileReader(std::string root) : m_root(std::move(root)) {}
  bool read(uint16_t nid, const std::string& name, std::vector<uint8_t>& bytes, std::string& error) override;

 private:
  std::string m_root;
};

// A reply of a RAM file server as the tool reads it: the status, and with status 0 the file's size
// and the chunk.
struct ServerChunk {
  uint32_t status = 0;
  uint32_t fileSize = 0;
  std::vector<uint8_t> bytes;
};
// Whether message is a reply for node nid's chunk at offset, whoever sent it.
bool isServerReplyFor(const WireClient::Message& message, uint16_t nid, uint32_t offset);
// Nothing when the reply at offset is malformed: its chunk length is not what it holds, or the
// chunk runs past the file's size. A chunk past the end of a file that shrank is empty, and its
// size says so.
std::optional<ServerChunk> parseServerChunk(const WireClient::Message& message, uint32_t offset);

// Through the server, over the tool's session: each chunk is awaited up to timeoutMs. A server that
// did not answer is not asked again by this reader. A file whose size changes between its chunks is
// read again from its start, a few times at most.
class ServerRamFileReader : public IRamFileReader {
 public:
  ServerRamFileReader(Session& session, uint32_t timeoutMs) : m_session(session), m_timeoutMs(timeoutMs) {}
  bool read(uint16_t nid, const std::string& name, std::vector<uint8_t>& bytes, std::string& error) override;

 private:
  enum class Pass { kDone, kChanged, kFailed };

  Pass readOnce(uint16_t nid, const std::string& name, std::vector<uint8_t>& bytes, std::string& error);
  bool exchange(uint16_t nid, const std::string& name, uint32_t offset, ServerChunk& chunk, std::string& error);
  bool await(uint16_t nid, const std::string& name, uint32_t offset, WireClient::Message& reply, std::string& error);

  Session& m_session;
  uint32_t m_timeoutMs;
  std::set<uint16_t> m_silentServers;
};

// The node ids that run on this host, read once. When the host's list cannot be read every node
// counts as here, and its mount tells. (The hidden setting OLMCTL_TEST_RAM_FILES_THROUGH_SERVER=1
// counts none as here, so that tests on one host take the way through the server.)
class HostNodes {
 public:
  HostNodes();
  bool has(uint16_t nid) const;

 private:
  bool m_known = false;
  std::set<uint16_t> m_nids;
};

// For each node the reader of where it runs, as the host's nodes were when it was made.
class NodeRamFileReader : public IRamFileReader {
 public:
  NodeRamFileReader(Session& session, uint32_t serverTimeoutMs)
      : m_local(session.options().ramRoot), m_server(session, serverTimeoutMs) {}
  bool read(uint16_t nid, const std::string& name, std::vector<uint8_t>& bytes, std::string& error) override {
    return m_here.has(nid) ? m_local.read(nid, name, bytes, error) : m_server.read(nid, name, bytes, error);
  }

 private:
  HostNodes m_here;
  LocalRamFileReader m_local;
  ServerRamFileReader m_server;
};

// The node id at which node nid's RAM file server answers.
constexpr uint16_t ramFileServerOf(uint16_t nid) {
  return static_cast<uint16_t>((nid & RAMFILE_SERVER_GROUP_MASK) | RAMFILE_SERVER_DIGIT);
}

}  // namespace Olmctl
