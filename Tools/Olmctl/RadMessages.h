// The R&D master's client messages as the tool builds and reads them: requests name the node in
// the high half of the domain word, the domain in the low half, and answers carry that word back.
#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "WireClient.h"

namespace Olmctl {

struct RadParam {
  uint32_t index;
  uint32_t value;
};

constexpr uint32_t radDomainWord(uint16_t nid, uint16_t domain) { return (uint32_t{nid} << 16) | domain; }

// AACONFIG_RAD_GET_PARAMS_REQ_MSG and AACONFIG_RAD_GET_DEFAULT_PARAMS_REQ_MSG.
std::vector<uint32_t> radGetRequest(uint32_t domainWord);
// AACONFIG_RAD_SET_PARAMS_REQ_MSG writing one value (mode 1).
std::vector<uint32_t> radSetRequest(uint32_t domainWord, uint32_t index, uint32_t value);

// The parameters of a get answer (responseId AACONFIG_RAD_GET_PARAMS_RESP_MSG or
// AACONFIG_RAD_GET_DEFAULT_PARAMS_RESP_MSG) for domainWord, as many as the payload holds of its
// count; nothing for any other message.
std::optional<std::vector<RadParam>> radParamsAnswer(const WireClient::Message& message, uint16_t responseId,
                                                     uint32_t domainWord);
// The status of a set answer (AACONFIG_RAD_SET_PARAMS_RESP_MSG) for domainWord; nothing for any
// other message.
std::optional<uint32_t> radSetAnswer(const WireClient::Message& message, uint32_t domainWord);

}  // namespace Olmctl
