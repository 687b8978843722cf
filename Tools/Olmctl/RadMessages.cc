#include "RadMessages.h"

#include <algorithm>

#include "AaConfigRadMsg.h"

namespace Olmctl {

namespace {

constexpr size_t kWordBytes = sizeof(uint32_t);
constexpr size_t kParamsHeaderWords = AACONFIG_RAD_PARAMS_RESP_HEADER_SIZE / kWordBytes;
constexpr size_t kParamWords = AACONFIG_RAD_PARAM_SIZE / kWordBytes;
constexpr size_t kStatusWords = sizeof(SAaConfigRadDomainStatus) / kWordBytes;

}  // namespace

std::vector<uint32_t> radGetRequest(uint32_t domainWord) { return {domainWord}; }

std::vector<uint32_t> radSetRequest(uint32_t domainWord, uint32_t index, uint32_t value) {
  return {domainWord, EAaConfigRadSetMode_Values, 1, index, AACONFIG_RAD_VALUE_SIZE, value};
}

std::optional<std::vector<RadParam>> radParamsAnswer(const WireClient::Message& message, uint16_t responseId,
                                                     uint32_t domainWord) {
  if (message.id != responseId) return std::nullopt;
  const std::vector<uint32_t> words = message.words();
  if (words.size() < kParamsHeaderWords || words[0] != domainWord) return std::nullopt;
  const size_t fitting = std::min<size_t>(words[1], (words.size() - kParamsHeaderWords) / kParamWords);
  std::vector<RadParam> params;
  for (size_t i = 0; i < fitting; ++i) {
    const uint32_t* param = &words[kParamsHeaderWords + i * kParamWords];
    params.push_back(RadParam{param[0], param[2]});
  }
  return params;
}

std::optional<uint32_t> radSetAnswer(const WireClient::Message& message, uint32_t domainWord) {
  if (message.id != AACONFIG_RAD_SET_PARAMS_RESP_MSG) return std::nullopt;
  const std::vector<uint32_t> words = message.words();
  if (words.size() < kStatusWords || words[0] != domainWord) return std::nullopt;
  return words[1];
}

}  // namespace Olmctl
