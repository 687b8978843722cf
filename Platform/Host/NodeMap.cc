#include "NodeMap.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <sstream>

namespace rhyddal {
namespace {

constexpr uint32_t kNidCount = 0x10000;
constexpr char kSecretKeyWord[] = "secret-key";
constexpr char kTcpScheme[] = "tcp://";
constexpr char kIpcScheme[] = "ipc://";
constexpr unsigned long kMaxPort = 65535;

struct NidRange {
  uint32_t first;
  uint32_t last;
  unsigned line;
  uint8_t host;
};

std::string lineError(unsigned line, const std::string& reason) { return "line " + std::to_string(line) + ": " + reason; }

std::string hex4(uint32_t value) {
  char text[8];
  std::snprintf(text, sizeof(text), "0x%04x", static_cast<unsigned>(value));
  return text;
}

bool isZ85Key(const std::string& key) {
  static const char kZ85[] = "0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ.-:+=^!/*?&<>()[]{}@%$#";
  return key.size() == NodeMap::kKeyLength && key.find_first_not_of(kZ85) == std::string::npos;
}

// Where a key may stand: the third word of a host line, the second of a secret-key line.
bool isKeyPosition(const std::vector<std::string>& wordsBefore) {
  return wordsBefore.size() == (!wordsBefore.empty() && wordsBefore[0] == kSecretKeyWord ? 1u : 2u);
}

// A word starting with '#' starts a comment, unless it is a key where a key may stand: '#' is one
// of the characters of Z85.
std::vector<std::string> wordsOf(const std::string& line) {
  std::istringstream stream(line);
  std::vector<std::string> words;
  for (std::string word; stream >> word;) {
    if (word[0] == '#' && !(isKeyPosition(words) && isZ85Key(word))) break;
    words.push_back(word);
  }
  return words;
}

bool parseNid(const std::string& text, uint32_t* nid) {
  if (text.empty() || text[0] == '-' || text[0] == '+') return false;
  char* end = nullptr;
  errno = 0;
  const unsigned long value = std::strtoul(text.c_str(), &end, 0);
  if (errno != 0 || *end != '\0' || value >= kNidCount) return false;
  *nid = static_cast<uint32_t>(value);
  return true;
}

// "<nid>" or "<nid>-<nid>", the second not below the first.
bool parseRange(const std::string& text, uint32_t* first, uint32_t* last) {
  const size_t dash = text.find('-');
  if (dash == std::string::npos) {
    if (!parseNid(text, first)) return false;
    *last = *first;
    return true;
  }
  return parseNid(text.substr(0, dash), first) && parseNid(text.substr(dash + 1), last) && *first <= *last;
}

bool startsWith(const std::string& text, const char* prefix) { return text.compare(0, std::strlen(prefix), prefix) == 0; }

bool isPort(const std::string& digits) {
  if (digits.empty() || digits.size() > 5 || digits.find_first_not_of("0123456789") != std::string::npos) return false;
  const unsigned long port = std::strtoul(digits.c_str(), nullptr, 10);
  return port >= 1 && port <= kMaxPort;
}

// An empty string when the endpoint is usable, else why not.
std::string endpointProblem(const std::string& endpoint) {
  if (endpoint.size() > NodeMap::kMaxEndpointLength) {
    return "endpoint longer than " + std::to_string(NodeMap::kMaxEndpointLength) + " characters";
  }
  if (startsWith(endpoint, kIpcScheme)) {
    return endpoint.size() > std::strlen(kIpcScheme) + 1 && endpoint[std::strlen(kIpcScheme)] == '/'
               ? std::string()
               : "ipc endpoint without an absolute path: \"" + endpoint + "\"";
  }
  if (!startsWith(endpoint, kTcpScheme)) return "endpoint is neither tcp:// nor ipc://: \"" + endpoint + "\"";
  const std::string address = endpoint.substr(std::strlen(kTcpScheme));
  const size_t colon = address.rfind(':');
  if (colon == std::string::npos || colon == 0 || !isPort(address.substr(colon + 1))) {
    return "tcp endpoint is not <address>:<port 1-65535>: \"" + endpoint + "\"";
  }
  if (address[0] == '*') return "tcp endpoint must name an address the other hosts can reach: \"" + endpoint + "\"";
  return std::string();
}

class Parser {
 public:
  Parser(std::vector<MappedHost>* hosts, std::string* secretKey, std::vector<std::string>* errors)
      : hosts_(hosts), secretKey_(secretKey), errors_(errors) {}

  void line(unsigned number, const std::string& text) {
    const std::vector<std::string> words = wordsOf(text);
    if (words.empty()) return;
    if (words[0] == kSecretKeyWord) {
      secretKeyLine(number, words);
    } else {
      hostLine(number, words);
    }
  }

  // Overlaps are found once every line is read: sorted by first node id, each range is compared
  // with the one reaching furthest among those before it.
  std::vector<NidRange> checkedRanges() {
    std::sort(ranges_.begin(), ranges_.end(), [](const NidRange& a, const NidRange& b) { return a.first < b.first; });
    const NidRange* furthest = nullptr;
    for (const NidRange& range : ranges_) {
      if (furthest != nullptr && range.first <= furthest->last) {
        errors_->push_back(lineError(range.line, "node ids " + hex4(range.first) + "-" + hex4(range.last) +
                                                     " overlap those of line " + std::to_string(furthest->line)));
      }
      if (furthest == nullptr || range.last > furthest->last) furthest = &range;
    }
    return ranges_;
  }

 private:
  void secretKeyLine(unsigned number, const std::vector<std::string>& words) {
    if (words.size() != 2 || !isZ85Key(words[1])) {
      errors_->push_back(lineError(number, "secret-key wants one key of 40 Z85 characters"));
    } else if (!secretKey_->empty()) {
      errors_->push_back(lineError(number, "a second secret-key"));
    } else {
      *secretKey_ = words[1];
    }
  }

  void hostLine(unsigned number, const std::vector<std::string>& words) {
    if (words.size() < 2 || words.size() > 3) {
      errors_->push_back(lineError(number, "expected <node id or range> <endpoint> [<public key>]"));
      return;
    }
    NidRange range{0, 0, number, 0};
    if (!parseRange(words[0], &range.first, &range.last)) {
      errors_->push_back(lineError(number, "\"" + words[0] + "\" is not a node id (0-0xffff) or a range <first>-<last>"));
      return;
    }
    const std::string problem = endpointProblem(words[1]);
    if (!problem.empty()) {
      errors_->push_back(lineError(number, problem));
      return;
    }
    const std::string key = words.size() == 3 ? words[2] : std::string();
    if (!key.empty() && !isZ85Key(key)) {
      errors_->push_back(lineError(number, "the public key is not 40 Z85 characters"));
      return;
    }
    if (hostFor(number, words[1], key, &range.host)) ranges_.push_back(range);
  }

  bool hostFor(unsigned number, const std::string& endpoint, const std::string& key, uint8_t* host) {
    for (size_t i = 0; i < hosts_->size(); ++i) {
      if ((*hosts_)[i].endpoint != endpoint) continue;
      if ((*hosts_)[i].publicKey != key) {
        errors_->push_back(lineError(number, "another key than an earlier line gives " + endpoint));
        return false;
      }
      *host = static_cast<uint8_t>(i);
      return true;
    }
    if (hosts_->size() == NodeMap::kMaxHosts) {
      errors_->push_back(lineError(number, "more than " + std::to_string(NodeMap::kMaxHosts) + " hosts"));
      return false;
    }
    *host = static_cast<uint8_t>(hosts_->size());
    hosts_->push_back(MappedHost{endpoint, key});
    return true;
  }

  std::vector<MappedHost>* hosts_;
  std::string* secretKey_;
  std::vector<std::string>* errors_;
  std::vector<NidRange> ranges_;
};

}  // namespace

bool NodeMap::parse(const std::string& text, NodeMap* map, std::vector<std::string>* errors) {
  NodeMap parsed;
  const size_t errorsBefore = errors->size();
  Parser parser(&parsed.hosts_, &parsed.secretKey_, errors);
  std::istringstream lines(text);
  unsigned number = 0;
  for (std::string line; std::getline(lines, line);) parser.line(++number, line);
  const std::vector<NidRange> ranges = parser.checkedRanges();
  if (errors->size() != errorsBefore) return false;
  parsed.hostByNid_.assign(kNidCount, kNoHost);
  for (const NidRange& range : ranges) {
    std::fill(parsed.hostByNid_.begin() + range.first, parsed.hostByNid_.begin() + range.last + 1, range.host);
  }
  *map = std::move(parsed);
  return true;
}

bool NodeMap::load(const std::string& path, NodeMap* map, std::vector<std::string>* errors) {
  std::ifstream file(path);
  if (!file) {
    errors->push_back("cannot read " + path + ": " + std::strerror(errno));
    return false;
  }
  const std::string text((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
  return parse(text, map, errors);
}

bool NodeMap::hasKeys() const {
  return !secretKey_.empty() || std::any_of(hosts_.begin(), hosts_.end(), [](const MappedHost& host) {
           return !host.publicKey.empty();
         });
}

}  // namespace rhyddal
