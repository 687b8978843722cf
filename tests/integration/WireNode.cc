#include "WireNode.h"

#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>

#include "AaSysComMsgHeader.h"
#include "Rhyddal.h"

namespace OlmTest {

namespace {

constexpr uint32_t kNoCpu = 0xFFFFFFFFu;
constexpr auto kWait = std::chrono::seconds(15);

}  // namespace

std::vector<uint32_t> WireNode::Message::words() const {
  std::vector<uint32_t> words(payload.size() / sizeof(uint32_t));
  std::memcpy(words.data(), payload.data(), words.size() * sizeof(uint32_t));
  return words;
}

WireNode::WireNode(uint16_t nid) : m_nid(nid) {
  uint32_t handle = 0;
  m_ok = vak_em_server_init(nid, kNoCpu, 0, &handle) == 0;
}

void* WireNode::newMessage(uint16_t id, uint32_t receiver, uint32_t sender, uint32_t size) {
  auto* header = static_cast<SAaSysComMsgHeader*>(vakem_alloc(sizeof(SAaSysComMsgHeader) + size));
  if (header == nullptr) return nullptr;
  std::memset(header, 0, sizeof(*header));
  header->msgId = id;
  header->receiver = receiver;
  header->sender = sender;
  header->flags = AASYSCOM_APF_HOST_WORDS << AASYSCOM_APF_SHIFT;
  header->totalLength = static_cast<uint16_t>(sizeof(*header) + size);
  return header;
}

bool WireNode::send(uint16_t id, uint32_t receiver, uint32_t sender, const void* payload, uint32_t size) {
  auto* header = static_cast<SAaSysComMsgHeader*>(newMessage(id, receiver, sender, size));
  if (header == nullptr) return false;
  if (size != 0) std::memcpy(header + 1, payload, size);
  if (vakem_send(header, receiver) == 0) return true;
  vakem_free(header);
  return false;
}

bool WireNode::send(uint16_t id, uint32_t receiver, uint32_t sender, const std::vector<uint32_t>& words) {
  return send(id, receiver, sender, words.data(), static_cast<uint32_t>(words.size() * sizeof(uint32_t)));
}

bool WireNode::receive(uint16_t id, Message& message) {
  return receiveWhere([id](uint16_t received) { return received == id; }, message);
}

bool WireNode::receiveAny(Message& message) {
  return receiveWhere([](uint16_t) { return true; }, message);
}

bool WireNode::receiveWhere(const std::function<bool(uint16_t)>& wantedId, Message& message) {
  const auto deadline = std::chrono::steady_clock::now() + kWait;
  for (; std::chrono::steady_clock::now() < deadline; vakem_wait_for_event(1, 0)) {
    while (void* received = vakem_receive(m_nid)) {
      const auto* header = static_cast<const SAaSysComMsgHeader*>(received);
      const bool wanted = wantedId(header->msgId);
      if (wanted) {
        const auto* bytes = reinterpret_cast<const uint8_t*>(header + 1);
        const size_t size = header->totalLength > sizeof(*header) ? header->totalLength - sizeof(*header) : 0;
        message = Message{header->msgId, header->receiver, header->sender, {bytes, bytes + size}};
      }
      vakem_free(received);
      if (wanted) return true;
    }
  }
  return false;
}

pid_t startChild(const std::function<int()>& body) {
  const pid_t child = fork();
  if (child == 0) _exit(body());
  return child;
}

int exitStatusOfChild(const std::function<int()>& body) { return exitStatusOf(startChild(body)); }

int exitStatusOf(pid_t child) {
  if (child < 0) return -1;
  int status = 0;
  if (waitpid(child, &status, 0) != child || !WIFEXITED(status)) return -1;
  return WEXITSTATUS(status);
}

}  // namespace OlmTest
