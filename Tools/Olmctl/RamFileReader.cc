#include "RamFileReader.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "Interruption.h"
#include "NodeSource.h"
#include "Output.h"
#include "RamFiles.h"

namespace Olmctl {

namespace {

constexpr int kMostPasses = 5;
constexpr char kThroughServerVariable[] = "OLMCTL_TEST_RAM_FILES_THROUGH_SERVER";
constexpr uint32_t kReplyWords = RAMFILE_READ_REPLY_HEADER_SIZE / sizeof(uint32_t);

enum ReplyWord : uint32_t { kStatus, kNid, kFileSize, kOffset, kChunkLength };

std::string serverText(uint16_t nid) { return "the RAM file server at " + nidText(ramFileServerOf(nid)); }

std::string ofNode(const std::string& name, uint16_t nid) { return name + " of node " + nidText(nid); }

std::string startServerHint() { return "start olm-controller --agent on its host"; }

std::vector<uint8_t> requestPayload(uint16_t nid, uint32_t offset, const std::string& name) {
  const uint32_t words[] = {nid, offset, RAMFILE_READ_MAX_CHUNK};
  std::vector<uint8_t> payload(RAMFILE_READ_REQ_HEADER_SIZE);
  std::memcpy(payload.data(), words, sizeof(words));
  payload.insert(payload.end(), name.begin(), name.end());
  payload.push_back('\0');
  return payload;
}

std::string statusText(uint16_t nid, const std::string& name, uint32_t status) {
  if (status == ENOENT) {
    return serverText(nid) + " has no " + ofNode(name, nid) +
           ": is the node running on its host, under the controller's OLM_RAM_ROOT?";
  }
  if (status == EBUSY) {
    return serverText(nid) + " is still waiting for node " + nidText(nid) +
           " to answer earlier reads of its files: is it stopped?";
  }
  return serverText(nid) + " cannot read " + ofNode(name, nid) + ": " + std::strerror(static_cast<int>(status));
}

}  // namespace

bool isServerReplyFor(const WireClient::Message& message, uint16_t nid, uint32_t offset) {
  if (message.id != RAMFILE_READ_REPLY_MSG) return false;
  const std::vector<uint32_t> words = message.words();
  return words.size() >= kReplyWords && words[kNid] == nid && words[kOffset] == offset;
}

std::optional<ServerChunk> parseServerChunk(const WireClient::Message& message, uint32_t offset) {
  const std::vector<uint32_t> words = message.words();
  if (words.size() < kReplyWords) return std::nullopt;
  const uint32_t length = words[kChunkLength];
  const size_t held = message.payload.size() - RAMFILE_READ_REPLY_HEADER_SIZE;
  if (length != held || (length != 0 && uint64_t{offset} + length > words[kFileSize])) return std::nullopt;
  ServerChunk chunk;
  chunk.status = words[kStatus];
  if (chunk.status != 0) return chunk;
  chunk.fileSize = words[kFileSize];
  chunk.bytes.assign(message.payload.begin() + RAMFILE_READ_REPLY_HEADER_SIZE, message.payload.end());
  return chunk;
}

bool LocalRamFileReader::read(uint16_t nid, const std::string& name, std::vector<uint8_t>& bytes, std::string& error) {
  if (readRamFile(ramFilePath(m_root, nid, name), bytes, error)) return true;
  error = missingRamFile(nid, error);
  return false;
}

bool ServerRamFileReader::read(uint16_t nid, const std::string& name, std::vector<uint8_t>& bytes, std::string& error) {
  for (int pass = 0; pass < kMostPasses; ++pass) {
    const Pass result = readOnce(nid, name, bytes, error);
    if (result == Pass::kDone) return true;
    if (result == Pass::kFailed) return false;
  }
  error = ofNode(name, nid) + " changed while it was read, " + std::to_string(kMostPasses) + " times";
  return false;
}

// From the start to the end the first chunk announced; kChanged when a later chunk announces
// another size, or the file ends early.
ServerRamFileReader::Pass ServerRamFileReader::readOnce(uint16_t nid, const std::string& name,
                                                        std::vector<uint8_t>& bytes, std::string& error) {
  bytes.clear();
  ServerChunk first;
  if (!exchange(nid, name, 0, first, error)) return Pass::kFailed;
  const uint32_t size = first.fileSize;
  bytes = std::move(first.bytes);
  while (bytes.size() < size) {
    ServerChunk next;
    if (!exchange(nid, name, static_cast<uint32_t>(bytes.size()), next, error)) return Pass::kFailed;
    if (next.fileSize != size || next.bytes.empty()) return Pass::kChanged;
    bytes.insert(bytes.end(), next.bytes.begin(), next.bytes.end());
  }
  return Pass::kDone;
}

bool ServerRamFileReader::exchange(uint16_t nid, const std::string& name, uint32_t offset, ServerChunk& chunk,
                                   std::string& error) {
  const uint16_t server = ramFileServerOf(nid);
  if (m_silentServers.count(server) != 0) {
    error = serverText(nid) + " did not answer before: " + startServerHint();
    return false;
  }
  const std::vector<uint8_t> payload = requestPayload(nid, offset, name);
  const int sent = m_session.client().send(RAMFILE_READ_REQ_MSG, sicad(server, RAMFILE_SERVER_CPID), m_session.address(),
                                           payload.data(), static_cast<uint32_t>(payload.size()));
  if (sent == -EHOSTUNREACH) {
    error = "node " + nidText(nid) + " is not on this host, and nothing runs at " + nidText(server) +
            " to serve its RAM files: " + startServerHint();
    return false;
  }
  if (sent != 0) {
    error = sendFailure(server, sent);
    return false;
  }
  WireClient::Message reply;
  if (!await(nid, name, offset, reply, error)) return false;
  const std::optional<ServerChunk> parsed = parseServerChunk(reply, offset);
  if (!parsed) {
    error = serverText(nid) + " sent a malformed reply for " + ofNode(name, nid);
    return false;
  }
  if (parsed->status != 0) {
    error = statusText(nid, name, parsed->status);
    return false;
  }
  chunk = *parsed;
  return true;
}

// The reply to this request: from the server asked, for this node and offset. One to an earlier
// request that was given up on is dropped.
bool ServerRamFileReader::await(uint16_t nid, const std::string& name, uint32_t offset, WireClient::Message& reply,
                                std::string& error) {
  const uint32_t server = sicad(ramFileServerOf(nid), RAMFILE_SERVER_CPID);
  const auto wanted = [&](const WireClient::Message& candidate) {
    return candidate.sender == server && isServerReplyFor(candidate, nid, offset);
  };
  if (m_session.next(wanted, Session::Clock::now() + std::chrono::milliseconds(m_timeoutMs), reply)) return true;
  if (interrupted()) {
    error = "interrupted while reading " + ofNode(name, nid);
    return false;
  }
  m_silentServers.insert(ramFileServerOf(nid));
  error = "no RAM file server answered for node " + nidText(nid) + " at " + nidText(ramFileServerOf(nid)) +
          " within " + std::to_string(m_timeoutMs) + " ms: " + startServerHint();
  return false;
}

HostNodes::HostNodes() {
  const char* throughServer = std::getenv(kThroughServerVariable);
  if (throughServer != nullptr && std::strcmp(throughServer, "1") == 0) {
    m_known = true;
    return;
  }
  HostNodeSource host;
  std::vector<ListedNode> nodes;
  std::string ignored;
  m_known = host.list(nodes, ignored);
  for (const ListedNode& node : nodes) m_nids.insert(node.nid);
}

bool HostNodes::has(uint16_t nid) const { return !m_known || m_nids.count(nid) != 0; }

}  // namespace Olmctl
