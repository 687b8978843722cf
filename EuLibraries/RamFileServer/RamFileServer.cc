#include "RamFileServer.h"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "AaSysCom.h"
#include "AaSysComMsgHeader.h"
#include "RamFileRead.h"

struct RamFileServer::Request {
  uint32_t nid = 0;
  uint32_t offset = 0;
  uint32_t largestChunk = 0;
  std::string name;
};

namespace {

constexpr int kLowPriority = 3;
constexpr uint32_t kRequestWords = RAMFILE_READ_REQ_HEADER_SIZE / sizeof(uint32_t);
constexpr uint32_t kMaxNid = 0xFFFF;
constexpr size_t kLineBytes = 256;

// A name that stays inside the node's mount: one path component, and not one of its links.
bool isPlainFileName(const std::string& name) {
  return !name.empty() && name != "." && name != ".." && name.find('/') == std::string::npos;
}

// The request's words, its name after them. False when it is malformed; asked keeps the words it
// held. Words are read in the message's own order: the Dispatcher brings a big-endian word payload
// to host order on the way in, but leaves a 2-byte aligned one as it came.
bool parseRequest(const void* msg, uint32_t words[kRequestWords], std::string& name) {
  const uint32_t size = AaSysComMsgGetPayloadSize(msg);
  // A header whose length cannot hold what it claims makes the payload size wrap.
  if (size > AaSysComMsgGetBulkMsgLength(msg)) return false;
  const auto* bytes = static_cast<const uint8_t*>(AaSysComMsgGetPayload(msg));
  const bool swapped = AaSysComIsHostAndMsgEndianSame(msg) == 0;
  const uint32_t held = std::min(size / uint32_t{sizeof(uint32_t)}, kRequestWords);
  for (uint32_t i = 0; i < held; ++i) {
    std::memcpy(&words[i], bytes + i * sizeof(uint32_t), sizeof(uint32_t));
    if (swapped) words[i] = __builtin_bswap32(words[i]);
  }
  if (held < kRequestWords) return false;
  const auto* text = reinterpret_cast<const char*>(bytes + RAMFILE_READ_REQ_HEADER_SIZE);
  const size_t room = std::min<size_t>(size - RAMFILE_READ_REQ_HEADER_SIZE, RAMFILE_READ_MAX_NAME_SIZE);
  const size_t length = strnlen(text, room);
  if (length == room) return false;  // no NUL where the name may be
  name.assign(text, length);
  return isPlainFileName(name);
}

// The address the request came to (the alias the tool asked, as a rule), so that the reply comes
// from where the tool waits for it.
TAaSysComSicad serverAddress(const void* request) {
  const TAaSysComSicad receiver = AaSysComMsgGetReceiver(request);
  if (AaSysComSicadGetNid(receiver) != AASYSCOM_NID_THIS_NODE) return receiver;
  return AaSysComSicadGet(AaSysComSicadGetCpid(receiver), AaSysComGetOwnNid());
}

std::string undelivered(int error) {
  switch (error) {
    case -ENOBUFS:
      return "the tool's queue is full";
    case -EHOSTUNREACH:
      return "the tool has gone";
    default:
      return std::strerror(-error);
  }
}

}  // namespace

RamFileServer::RamFileServer(Hooks hooks) : m_hooks(std::move(hooks)) {}

std::string RamFileServer::ramFilePath(const std::string& root, uint32_t nid, const std::string& name) {
  char directory[32];
  std::snprintf(directory, sizeof(directory), "/olm_lite/0x%04x/fusemnt/", nid);
  return root + directory + name;
}

void RamFileServer::start() {
  report("serving the RAM files under %s on node 0x%04x", m_hooks.ramRoot.c_str(), AaSysComGetOwnNid());
}

int RamFileServer::PrioritizeMessage(void*&) { return kLowPriority; }

void RamFileServer::ProcessMessage(void*& msg) {
  if (msg == nullptr) return;
  if (AaSysComMsgGetId(msg) == RAMFILE_READ_REQ_MSG) {
    serve(msg);
  } else {
    report("dropped message 0x%04x from 0x%08x: not a read request", AaSysComMsgGetId(msg), AaSysComMsgGetSender(msg));
  }
  AaSysComMsgDestroy(&msg);
}

void RamFileServer::serve(const void* msg) {
  uint32_t words[kRequestWords] = {};
  Request asked;
  const bool wellFormed = parseRequest(msg, words, asked.name) && words[0] <= kMaxNid;
  asked.nid = words[0];
  asked.offset = words[1];
  asked.largestChunk = words[2];
  if (!wellFormed) {
    reply(msg, asked, EINVAL, 0, {});
    return;
  }
  const uint32_t count = std::min(asked.largestChunk, uint32_t{RAMFILE_READ_MAX_CHUNK});
  uint32_t fileSize = 0;
  std::vector<uint8_t> bytes;
  const int status = m_hooks.readFile(ramFilePath(m_hooks.ramRoot, asked.nid, asked.name), asked.offset, count,
                                      fileSize, bytes);
  if (status != 0) {
    reply(msg, asked, status, 0, {});
    return;
  }
  if (bytes.size() > count) bytes.resize(count);
  reply(msg, asked, 0, fileSize, bytes);
}

// A tool that cannot take its reply at once loses it rather than hold the server up: it asks again
// after its timeout.
void RamFileServer::reply(const void* request, const Request& asked, int status, uint32_t fileSize,
                          const std::vector<uint8_t>& bytes) {
  const TAaSysComSicad tool = AaSysComMsgGetSender(request);
  if (tool == 0) {
    report("dropped a read request without a sender");
    return;
  }
  const auto length = static_cast<uint32_t>(bytes.size());
  const SRamFileReadReply header{static_cast<uint32_t>(status), asked.nid, fileSize, asked.offset, length};
  void* answer = AaSysComMsgCreate(RAMFILE_READ_REPLY_MSG,
                                   static_cast<TAaSysComMsgSize>(RAMFILE_READ_REPLY_HEADER_SIZE + length), tool);
  if (answer == nullptr) {
    report("cannot answer 0x%08x: no message buffer", tool);
    return;
  }
  auto* payload = static_cast<uint8_t*>(AaSysComMsgGetPayload(answer));
  std::memcpy(payload, &header, RAMFILE_READ_REPLY_HEADER_SIZE);
  if (length != 0) std::memcpy(payload + RAMFILE_READ_REPLY_HEADER_SIZE, bytes.data(), length);
  AaSysComMsgSetSender(answer, serverAddress(request));
  const int rc = m_hooks.transmit(answer);
  if (rc == 0) return;
  AaSysComMsgDestroy(&answer);
  report("dropped the reply to 0x%08x: %s", tool, undelivered(rc).c_str());
}

void RamFileServer::report(const char* format, ...) {
  if (!m_hooks.print) return;
  char text[kLineBytes];
  va_list args;
  va_start(args, format);
  std::vsnprintf(text, sizeof(text), format, args);
  va_end(args);
  m_hooks.print(std::string("RAM file server: ") + text);
}
