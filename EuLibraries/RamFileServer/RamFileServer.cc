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

// A request and what answers it.
struct RamFileServer::Answer {
  Request asked;
  TAaSysComSicad tool = 0;  // the request's sender
  TAaSysComSicad from = 0;  // where the tool asked
  int status = 0;
  uint32_t fileSize = 0;
  std::vector<uint8_t> bytes;
};

namespace {

constexpr int kLowPriority = 3;
// The server's own wake-up, from and to its own address: reads have finished.
constexpr TAaSysComMsgId kReadsFinishedMsgId = 0x097E;
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

TAaSysComSicad ownAddress() { return AaSysComSicadGet(RAMFILE_SERVER_CPID, AaSysComGetOwnNid()); }

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

RamFileServer::~RamFileServer() = default;

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
  const TAaSysComMsgId id = AaSysComMsgGetId(msg);
  if (id == RAMFILE_READ_REQ_MSG) {
    serve(msg);
  } else if (id == kReadsFinishedMsgId && AaSysComMsgGetSender(msg) == ownAddress()) {
    answerFinishedReads();
  } else {
    report("dropped message 0x%04x from 0x%08x: not a read request", id, AaSysComMsgGetSender(msg));
  }
  AaSysComMsgDestroy(&msg);
}

void RamFileServer::serve(const void* msg) {
  uint32_t words[kRequestWords] = {};
  Answer answer;
  const bool wellFormed = parseRequest(msg, words, answer.asked.name) && words[0] <= kMaxNid;
  answer.asked.nid = words[0];
  answer.asked.offset = words[1];
  answer.asked.largestChunk = words[2];
  answer.tool = AaSysComMsgGetSender(msg);
  answer.from = serverAddress(msg);
  if (answer.tool == 0) {
    report("dropped a read request without a sender");
    return;
  }
  if (wellFormed && roomForARead(answer.asked.nid)) {
    startRead(std::move(answer));
    return;
  }
  answer.status = wellFormed ? EBUSY : EINVAL;
  reply(answer);
}

// Looked up, not indexed: only nodes with reads under way have an entry.
bool RamFileServer::roomForARead(uint32_t nid) const {
  const auto reads = m_readsOfNode.find(nid);
  return m_readsInFlight < kMaxReadsInFlight && (reads == m_readsOfNode.end() || reads->second < kMaxReadsPerNode);
}

// The wake-up is made here, on the Dispatcher's thread, as all the server's messages are: the read
// only sends it, through the platform, which any thread may call.
void RamFileServer::startRead(Answer answer) {
  void* wakeUp = AaSysComMsgCreate(kReadsFinishedMsgId, 0, ownAddress());
  if (wakeUp == nullptr) {
    report("cannot answer 0x%08x: no message buffer", answer.tool);
    return;
  }
  AaSysComMsgSetSender(wakeUp, ownAddress());
  ++m_readsInFlight;
  ++m_readsOfNode[answer.asked.nid];
  const std::string path = ramFilePath(m_hooks.ramRoot, answer.asked.nid, answer.asked.name);
  m_hooks.runRead([this, path, answer = std::move(answer), wakeUp]() mutable {
    const uint32_t count = std::min(answer.asked.largestChunk, uint32_t{RAMFILE_READ_MAX_CHUNK});
    answer.status = m_hooks.readFile(path, answer.asked.offset, count, answer.fileSize, answer.bytes);
    if (answer.status != 0) answer.bytes.clear();
    if (answer.bytes.size() > count) answer.bytes.resize(count);
    {
      std::lock_guard<std::mutex> lock(m_finishedLock);
      m_finished.push_back(std::move(answer));
    }
    if (m_hooks.transmit(wakeUp) != 0) m_hooks.release(wakeUp);
  });
}

// Every read finished so far, whichever wake-up came: one that was lost (the own queue full) is
// made good by the next.
void RamFileServer::answerFinishedReads() {
  std::vector<Answer> finished;
  {
    std::lock_guard<std::mutex> lock(m_finishedLock);
    finished.swap(m_finished);
  }
  for (const Answer& answer : finished) {
    --m_readsInFlight;
    if (--m_readsOfNode[answer.asked.nid] == 0) m_readsOfNode.erase(answer.asked.nid);
    reply(answer);
  }
}

// A tool that cannot take its reply at once loses it rather than hold the server up: it asks again
// after its timeout. A reply with a status carries no bytes.
void RamFileServer::reply(const Answer& answer) {
  const auto length = static_cast<uint32_t>(answer.status == 0 ? answer.bytes.size() : 0);
  const uint32_t fileSize = answer.status == 0 ? answer.fileSize : 0;
  const SRamFileReadReply header{static_cast<uint32_t>(answer.status), answer.asked.nid, fileSize,
                                 answer.asked.offset, length};
  void* message = AaSysComMsgCreate(RAMFILE_READ_REPLY_MSG,
                                    static_cast<TAaSysComMsgSize>(RAMFILE_READ_REPLY_HEADER_SIZE + length), answer.tool);
  if (message == nullptr) {
    report("cannot answer 0x%08x: no message buffer", answer.tool);
    return;
  }
  auto* payload = static_cast<uint8_t*>(AaSysComMsgGetPayload(message));
  std::memcpy(payload, &header, RAMFILE_READ_REPLY_HEADER_SIZE);
  if (length != 0) std::memcpy(payload + RAMFILE_READ_REPLY_HEADER_SIZE, answer.bytes.data(), length);
  AaSysComMsgSetSender(message, answer.from);
  const int rc = m_hooks.transmit(message);
  if (rc == 0) return;
  AaSysComMsgDestroy(&message);
  report("dropped the reply to 0x%08x: %s", answer.tool, undelivered(rc).c_str());
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
