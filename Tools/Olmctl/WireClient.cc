#include "WireClient.h"

#include <endian.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "AaSysComMsgHeader.h"
#include "Rhyddal.h"

namespace Olmctl {

namespace {

constexpr uint32_t kNoCpu = 0xFFFFFFFFu;
constexpr uint16_t kHostWordsFlags = AASYSCOM_APF_HOST_WORDS << AASYSCOM_APF_SHIFT;

bool littleEndianWords(uint16_t flags) {
  const uint32_t apf = (flags & AASYSCOM_APF_MASK) >> AASYSCOM_APF_SHIFT;
  return (apf & AASYSCOM_APF_LITTLE_ENDIAN_BIT) != 0;
}

// Splits what is left until the deadline into the platform's seconds and nanoseconds.
void waitUntil(WireClient::Clock::time_point deadline) {
  const auto left = std::max(deadline - WireClient::Clock::now(), WireClient::Clock::duration::zero());
  const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(left);
  const auto nanoseconds = std::chrono::duration_cast<std::chrono::nanoseconds>(left - seconds);
  vakem_wait_for_event(static_cast<uint32_t>(seconds.count()), static_cast<uint32_t>(nanoseconds.count()));
}

// The received buffer as a message; a total length below the header's own gives no payload.
WireClient::Message copyOf(const void* received) {
  const auto* header = static_cast<const SAaSysComMsgHeader*>(received);
  const auto* bytes = reinterpret_cast<const uint8_t*>(header + 1);
  const size_t size = header->totalLength > sizeof(*header) ? header->totalLength - sizeof(*header) : 0;
  return WireClient::Message{header->msgId, header->receiver, header->sender, header->flags, {bytes, bytes + size}};
}

}  // namespace

std::vector<uint32_t> WireClient::Message::words() const {
  std::vector<uint32_t> words(payload.size() / sizeof(uint32_t));
  if (words.empty()) return words;
  std::memcpy(words.data(), payload.data(), words.size() * sizeof(uint32_t));
  const bool little = littleEndianWords(flags);
  for (uint32_t& word : words) word = little ? le32toh(word) : be32toh(word);
  return words;
}

WireClient::WireClient(uint16_t nid) { claim(nid); }

WireClient::WireClient(uint16_t first, uint16_t last) {
  for (uint32_t nid = first; nid <= last; ++nid) {
    if (claim(static_cast<uint16_t>(nid))) return;
  }
}

bool WireClient::claim(uint16_t nid) {
  uint32_t handle = 0;
  m_nid = nid;
  m_error = vak_em_server_init(nid, kNoCpu, 0, &handle);
  return m_error == 0;
}

void* WireClient::newMessage(uint16_t id, uint32_t receiver, uint32_t sender, uint32_t size) {
  if (size > AASYSCOM_MAX_CREATE_PAYLOAD) return nullptr;
  auto* header = static_cast<SAaSysComMsgHeader*>(vakem_alloc(sizeof(SAaSysComMsgHeader) + size));
  if (header == nullptr) return nullptr;
  std::memset(header, 0, sizeof(*header));
  header->msgId = id;
  header->receiver = receiver;
  header->sender = sender;
  header->flags = kHostWordsFlags;
  header->totalLength = static_cast<uint16_t>(sizeof(*header) + size);
  return header;
}

int WireClient::send(uint16_t id, uint32_t receiver, uint32_t sender, const void* payload, uint32_t size) {
  if (size > AASYSCOM_MAX_CREATE_PAYLOAD) return -EMSGSIZE;
  auto* header = static_cast<SAaSysComMsgHeader*>(newMessage(id, receiver, sender, size));
  if (header == nullptr) return -ENOBUFS;
  if (size != 0) std::memcpy(header + 1, payload, size);
  const int result = vakem_send(header, receiver);
  if (result != 0) vakem_free(header);
  return result;
}

int WireClient::send(uint16_t id, uint32_t receiver, uint32_t sender, const std::vector<uint32_t>& words) {
  return send(id, receiver, sender, words.data(), static_cast<uint32_t>(words.size() * sizeof(uint32_t)));
}

bool WireClient::receive(const Wanted& wanted, Clock::time_point deadline, Message& message) {
  for (;;) {
    while (void* received = vakem_receive(m_nid)) {
      Message candidate = copyOf(received);
      vakem_free(received);
      if (wanted(candidate)) {
        message = std::move(candidate);
        return true;
      }
    }
    if (Clock::now() >= deadline) return false;
    waitUntil(deadline);
  }
}

}  // namespace Olmctl
