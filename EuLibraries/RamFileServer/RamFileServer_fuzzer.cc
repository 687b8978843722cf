// libFuzzer target: the RAM file server fed arbitrary messages, as tools of either byte order and
// anybody else might send them, over files whose sizes and errors the input also decides, with
// tools that take their replies or refuse them.
//
// An input is a list of messages: a byte choosing the id (a read request, a reply, or an id of
// nobody's), a byte giving the SysCom APF, a byte choosing the sender (0: none), a byte saying
// whether the next reply is refused, a length byte and that many payload bytes; then, when the
// server reads a file, two bytes of its size and a byte of its error (mostly none). Every message
// goes through the server's real handling. Nothing may be read or written outside a message, the
// server must leave no message in its reference, every reply must hold exactly the chunk it
// announces and never more than a chunk may be, and at the end nothing may be left that nobody
// frees.
#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <vector>

#include "AaSysCom.h"
#include "FakeRuntime.h"
#include "FuzzInput.h"
#include "RamFileRead.h"
#include "RamFileServer.h"

namespace {

constexpr uint32_t kIds[] = {RAMFILE_READ_REQ_MSG, RAMFILE_READ_REQ_MSG, RAMFILE_READ_REPLY_MSG, 0x3A01};
constexpr uint32_t kApfCount = 4;
constexpr uint32_t kSenderCount = 4;
constexpr uint32_t kServerAddress = 0x101D0000u | RAMFILE_SERVER_CPID;
constexpr uint32_t kToolBase = 0x1FF00700;
constexpr uint8_t kOneReplyInRefused = 4;
constexpr uint8_t kOneReadInFails = 8;
constexpr uint8_t kFileSizeScale = 4;  // sizes up to 256 KiB: several chunks

// The reply's header and chunk agree, and the chunk is no larger than a message may carry.
void checkReply(const void* msg) {
  if (AaSysComMsgGetId(msg) != RAMFILE_READ_REPLY_MSG) std::abort();
  const uint32_t size = AaSysComMsgGetPayloadSize(msg);
  if (size < RAMFILE_READ_REPLY_HEADER_SIZE) std::abort();
  SRamFileReadReply header{};
  std::memcpy(&header, AaSysComMsgGetPayload(msg), sizeof(header));
  if (header.chunkLength != size - RAMFILE_READ_REPLY_HEADER_SIZE || header.chunkLength > RAMFILE_READ_MAX_CHUNK) std::abort();
  if (header.status != 0 && header.chunkLength != 0) std::abort();
}

constexpr uint32_t kOwnAddress = (uint32_t{OlmTest::kOwnNid} << 16) | RAMFILE_SERVER_CPID;

// The server's wake-ups to itself, delivered after each message as the Dispatcher would.
std::vector<void*> g_wakeUps;

void deliverWakeUps(RamFileServer& server) {
  std::vector<void*> wakeUps;
  wakeUps.swap(g_wakeUps);
  for (void* wakeUp : wakeUps) {
    server.ProcessMessage(wakeUp);
    if (wakeUp != nullptr) std::abort();
  }
}

void deliverOne(OlmTest::FuzzInput& input, RamFileServer& server, bool& refuse) {
  const uint32_t id = kIds[input.byte() % (sizeof(kIds) / sizeof(kIds[0]))];
  const uint32_t apf = input.byte() % kApfCount;
  const uint8_t senderChoice = input.byte() % kSenderCount;
  refuse = input.byte() % kOneReplyInRefused == 0;
  const uint8_t payloadSize = input.byte();
  void* msg = AaSysComMsgCreate(static_cast<TAaSysComMsgId>(id), payloadSize, kServerAddress);
  input.bytes(static_cast<uint8_t*>(AaSysComMsgGetPayload(msg)), payloadSize);
  AaSysComMsgSetApf(msg, apf);
  AaSysComMsgSetSender(msg, senderChoice == 0 ? 0 : kToolBase + (uint32_t{senderChoice} << 16));
  server.ProcessMessage(msg);
  if (msg != nullptr) std::abort();
  deliverWakeUps(server);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  OlmTest::FuzzInput input(data, size);
  OlmTest::FakeRuntime runtime;
  bool refuse = false;
  {
    RamFileServer::Hooks hooks;
    hooks.readFile = [&](const std::string&, uint32_t offset, uint32_t count, uint32_t& fileSize,
                         std::vector<uint8_t>& bytes) {
      fileSize = uint32_t{input.word()} * kFileSizeScale;
      if (input.byte() % kOneReadInFails == 0) return EACCES;
      // More than was asked for, now and then: the server keeps to what it announced.
      const uint32_t extra = input.byte() % 2;
      bytes.assign(offset < fileSize ? std::min(count, fileSize - offset) + extra : extra, 0x5A);
      return 0;
    };
    hooks.runRead = [](std::function<void()> read) { read(); };
    hooks.release = [](void* msg) { AaSysComMsgDestroy(&msg); };
    hooks.transmit = [&](void* msg) {
      if (AaSysComMsgGetReceiver(msg) == kOwnAddress) {
        g_wakeUps.push_back(msg);
        return 0;
      }
      checkReply(msg);
      if (refuse) return -ENOBUFS;
      runtime.sendMessage(msg);
      return 0;
    };
    hooks.print = [](const std::string&) {};
    hooks.ramRoot = "/ram";
    RamFileServer server(hooks);
    while (!input.atEnd()) deliverOne(input, server, refuse);
  }
  if (runtime.doubleFrees() != 0 || runtime.leakedBuffers() != 0) std::abort();
  return 0;
}
