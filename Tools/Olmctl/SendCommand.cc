// olmctl send: one message of any id and payload to any address, and optionally the reply.
#include <optional>

#include "AaSysComMsgHeader.h"
#include "Commands.h"
#include "Output.h"
#include "SendMessages.h"
#include "Session.h"

namespace Olmctl {

namespace {

constexpr uint32_t kMaxSicad = 0xFFFFFFFF;
constexpr uint32_t kMaxMsgId = 0xFFFF;
constexpr int kMsgIdDigits = 4;

constexpr char kUsage[] = "Usage: olmctl send SICAD MSGID [PAYLOAD...] [--wait]\n";

constexpr char kHelp[] =
    "Usage: olmctl send SICAD MSGID [PAYLOAD...] [--wait]\n"
    "\n"
    "Sends one message from the tool's own address (its node id, CPID 0x0700) to SICAD, the\n"
    "receiver's node id in the high 16 bits and CPID in the low 16.\n"
    "\n"
    "  PAYLOAD  hexadecimal bytes, two digits each, in the order they go into the payload,\n"
    "           split into words as you like: \"0000000a ff\" and \"0000000aff\" are the same five\n"
    "           bytes. The message says it is in this host's byte order, so a 32-bit number\n"
    "           goes in as this host stores it (x86 and ARM: least significant byte first).\n"
    "  --wait   prints the first message that comes to the tool afterwards, its id, sender,\n"
    "           receiver and payload, or fails when none came within the timeout\n"
    "\n"
    "Examples:\n"
    "  olmctl send 0x10110610 0x7001 0a000000 --wait     (the statistics EU echoes anything)\n"
    "  olmctl send 0x10110700 0x0a01 01000000\n";

struct SendRequest {
  uint32_t receiver = 0;
  uint16_t id = 0;
  std::vector<uint8_t> payload;
  bool wait = false;
};

std::string messageJson(const WireClient::Message& message) {
  return JsonObject()
      .number("id", uint64_t{message.id})
      .number("receiver", uint64_t{message.receiver})
      .number("sender", uint64_t{message.sender})
      .string("payload", hexDigits(message.payload.data(), message.payload.size()))
      .text();
}

std::string describe(const char* what, const WireClient::Message& message) {
  return std::string(what) + " " + hex(message.id, kMsgIdDigits) + " to " + sicadText(message.receiver) + " from " +
         sicadText(message.sender) + ", " + std::to_string(message.payload.size()) + " bytes of payload\n";
}

std::string report(const WireClient::Message& sent, const WireClient::Message* reply, bool asJson) {
  if (asJson) {
    JsonObject object;
    object.raw("sent", messageJson(sent));
    if (reply != nullptr) object.raw("reply", messageJson(*reply));
    return object.text() + "\n";
  }
  std::string text = describe("sent message", sent);
  if (reply != nullptr) text += describe("reply", *reply) + payloadLines(reply->payload);
  return text;
}

bool parseSend(const Arguments& arguments, SendRequest& request, std::string& error) {
  const std::vector<std::string>& words = arguments.words;
  if (words.size() < 2) {
    error = "send needs SICAD and MSGID";
    return false;
  }
  const std::optional<uint32_t> receiver = parseNumber(words[0], kMaxSicad);
  const std::optional<uint32_t> id = parseNumber(words[1], kMaxMsgId);
  if (!receiver || !id) {
    error = !receiver ? badNumber("SICAD", words[0], kMaxSicad) : badNumber("MSGID", words[1], kMaxMsgId);
    return false;
  }
  request.receiver = *receiver;
  request.id = static_cast<uint16_t>(*id);
  request.wait = arguments.options.count("--wait") != 0;
  if (!parsePayload({words.begin() + 2, words.end()}, request.payload, error)) return false;
  if (request.payload.size() <= AASYSCOM_MAX_CREATE_PAYLOAD) return true;
  error = "a payload of " + std::to_string(request.payload.size()) + " bytes is longer than a message holds (" +
          std::to_string(AASYSCOM_MAX_CREATE_PAYLOAD) + ")";
  return false;
}

Outcome runSend(const CommonOptions& options, const Arguments& arguments) {
  SendRequest request;
  std::string error;
  if (!parseSend(arguments, request, error)) return misused(error);
  Session session(options);
  if (!session.open(error)) return failed(error);
  const WireClient::Message sent{request.id, request.receiver, session.address(), 0, request.payload};
  if (!session.send(request.id, request.receiver, request.payload.data(), static_cast<uint32_t>(request.payload.size()),
                    error)) {
    return failed(error);
  }
  if (!request.wait) {
    printOut(report(sent, nullptr, options.json));
    return succeeded();
  }
  WireClient::Message reply;
  const auto deadline = Session::Clock::now() + std::chrono::milliseconds(options.timeoutMs);
  if (!session.next([](const WireClient::Message&) { return true; }, deadline, reply)) {
    return failed("no reply came to the tool within " + std::to_string(options.timeoutMs) + " ms");
  }
  printOut(report(sent, &reply, options.json));
  return succeeded();
}

}  // namespace

const Command& sendCommand() {
  static const Command command{"send",
                               "  send SICAD MSGID [PAYLOAD...]   send a message; --wait prints the reply\n",
                               kUsage,
                               kHelp,
                               runSend,
                               {{"--wait", false}}};
  return command;
}

}  // namespace Olmctl
