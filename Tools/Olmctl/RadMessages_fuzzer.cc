// The R&D master's answers as the tool reads them, of any length, byte order and count: the first
// two bytes are the header's flags, the next two select the id, the rest is the payload, whose
// first word is taken as the domain word asked for, so that the decoding goes past the match.
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "AaConfigRadMsg.h"
#include "RadMessages.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  constexpr size_t kPrefix = 4;
  if (size < kPrefix) return 0;
  constexpr uint16_t kIds[] = {AACONFIG_RAD_GET_PARAMS_RESP_MSG, AACONFIG_RAD_GET_DEFAULT_PARAMS_RESP_MSG,
                               AACONFIG_RAD_SET_PARAMS_RESP_MSG};
  Olmctl::WireClient::Message message;
  std::memcpy(&message.flags, data, sizeof(message.flags));
  message.id = kIds[data[2] % (sizeof(kIds) / sizeof(kIds[0]))];
  message.payload.assign(data + kPrefix, data + size);
  const std::vector<uint32_t> words = message.words();
  const uint32_t domainWord = words.empty() ? 0 : words[0];
  Olmctl::radParamsAnswer(message, message.id, domainWord);
  Olmctl::radSetAnswer(message, domainWord);
  return 0;
}
