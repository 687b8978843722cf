#include "RadCommand.h"

#include <algorithm>
#include <cstdio>
#include <map>

#include "AaConfigRadMsg.h"
#include "OlmTagNames.h"
#include "Output.h"
#include "RadMessages.h"
#include "Session.h"

namespace Olmctl {

namespace {

constexpr uint32_t kMaxDomain = 0xFFFF;
constexpr uint32_t kMaxIndex = 0xFFFF;
constexpr uint32_t kMaxValue = 0xFFFFFFFF;
constexpr uint16_t kOlmDomain = 1;
constexpr int kIndexDigits = 4;
constexpr int kValueDigits = 8;
// "0x0000002a (42)" padded to the widest value, "0xffffffff (4294967295)".
constexpr int kValueColumnWidth = 23;

constexpr char kUsage[] =
    "Usage: olmctl rad get NID DOMAIN[:INDEX]\n"
    "       olmctl rad set NID DOMAIN:INDEX VALUE\n";

constexpr char kHelp[] =
    "Usage: olmctl rad get NID DOMAIN[:INDEX]\n"
    "       olmctl rad set NID DOMAIN:INDEX VALUE\n"
    "\n"
    "R&D parameters of any node, read and written through the R&D master (CPID 0x0606 of the\n"
    "master node), which keeps every node's parameters.\n"
    "\n"
    "  get  without INDEX, every parameter of the domain: index, value and default;\n"
    "       with INDEX, that one\n"
    "  set  writes VALUE (32 bits) into the parameter on the master and on the node, whose\n"
    "       observers of the parameter see the change at once\n"
    "\n"
    "NID, DOMAIN, INDEX and VALUE are decimal or 0x-hexadecimal. A parameter of domain 1, the\n"
    "runtime's own, may be named: 1:AaSysLogOutputMode, or AaSysLogOutputMode alone; other\n"
    "domains' parameters are known by number only.\n"
    "\n"
    "Examples:\n"
    "  olmctl rad get 0x1011 50\n"
    "  olmctl rad set 0x1011 50:0 500\n"
    "  olmctl rad get 0x1011 AaSysLogOutputMode --json\n";

struct Row {
  uint32_t index;
  uint32_t value;
  std::optional<uint32_t> defaultValue;
};

// The domain of a node as the master keeps it, in index order; empty when unknown there.
using Domain = std::vector<Row>;

struct GetRequest {
  uint16_t nid;
  ParameterSelector selector;
};

struct SetRequest {
  uint16_t nid;
  uint16_t domain;
  uint16_t index;
  uint32_t value;
};

const char* nameOf(uint16_t domain, uint32_t index) { return domain == kOlmDomain ? olmTagName(index) : nullptr; }

std::string decimal(uint32_t value) { return std::to_string(value); }

// Numbers start with a digit, names never do.
bool looksNumeric(const std::string& text) { return !text.empty() && text[0] >= '0' && text[0] <= '9'; }

std::string domainText(uint16_t nid, uint16_t domain) {
  return "domain " + decimal(domain) + " of node " + nidText(nid);
}

// ---- The R&D master as the tool asks it ---------------------------------------------------------

class RadMasterClient {
 public:
  RadMasterClient(Session& session, uint16_t masterNid)
      : m_session(session),
        m_master(sicad(masterNid, AACONFIG_RAD_MASTER_CPID)),
        m_whom("the R&D master on node " + nidText(masterNid)) {}
  const std::string& whom() const { return m_whom; }

  // Values and defaults of a node's domain.
  bool read(uint16_t nid, uint16_t domain, Domain& rows, std::string& error) {
    const uint32_t word = radDomainWord(nid, domain);
    std::optional<std::vector<RadParam>> values, defaults;
    if (!m_session.request(AACONFIG_RAD_GET_PARAMS_REQ_MSG, m_master, radGetRequest(word), error) ||
        !m_session.request(AACONFIG_RAD_GET_DEFAULT_PARAMS_REQ_MSG, m_master, radGetRequest(word), error)) {
      return false;
    }
    const auto wanted = [word](const WireClient::Message& message) {
      return radParamsAnswer(message, AACONFIG_RAD_GET_PARAMS_RESP_MSG, word) ||
             radParamsAnswer(message, AACONFIG_RAD_GET_DEFAULT_PARAMS_RESP_MSG, word);
    };
    while (!values || !defaults) {
      WireClient::Message answer;
      if (!m_session.await(wanted, m_whom, answer, error)) return false;
      if (auto params = radParamsAnswer(answer, AACONFIG_RAD_GET_PARAMS_RESP_MSG, word)) values = params;
      if (auto params = radParamsAnswer(answer, AACONFIG_RAD_GET_DEFAULT_PARAMS_RESP_MSG, word)) defaults = params;
    }
    rows = merged(*values, *defaults);
    return true;
  }

  // The master's status for a set of one parameter.
  bool set(const SetRequest& request, uint32_t& status, std::string& error) {
    const uint32_t word = radDomainWord(request.nid, request.domain);
    WireClient::Message answer;
    if (!m_session.request(AACONFIG_RAD_SET_PARAMS_REQ_MSG, m_master, radSetRequest(word, request.index, request.value),
                           error) ||
        !m_session.await([word](const WireClient::Message& message) { return radSetAnswer(message, word).has_value(); },
                         m_whom, answer, error)) {
      return false;
    }
    status = *radSetAnswer(answer, word);
    return true;
  }

  // Why the master answered a node's domain with nothing: it knows the node but not the domain, or
  // not the node (every node with a runtime has domain 1).
  std::string unknownDomain(uint16_t nid, uint16_t domain) {
    Domain olm;
    std::string ignored;
    const bool nodeKnown = domain != kOlmDomain && read(nid, kOlmDomain, olm, ignored) && !olm.empty();
    return nodeKnown ? "node " + nidText(nid) + " has no R&D domain " + decimal(domain) + " at " + m_whom
                     : "node " + nidText(nid) + " is not known to " + m_whom;
  }

 private:
  static Domain merged(const std::vector<RadParam>& values, const std::vector<RadParam>& defaults) {
    std::map<uint32_t, Row> byIndex;
    for (const RadParam& param : values) byIndex[param.index] = Row{param.index, param.value, std::nullopt};
    for (const RadParam& param : defaults) {
      const auto at = byIndex.find(param.index);
      if (at != byIndex.end()) at->second.defaultValue = param.value;
    }
    Domain rows;
    for (const auto& entry : byIndex) rows.push_back(entry.second);
    return rows;
  }

  Session& m_session;
  uint32_t m_master;
  std::string m_whom;
};

// ---- Output -------------------------------------------------------------------------------------

std::string valueText(std::optional<uint32_t> value) {
  char text[32];
  const std::string both = value ? hex(*value, kValueDigits) + " (" + decimal(*value) + ")" : "";
  std::snprintf(text, sizeof(text), "%-*s", kValueColumnWidth, both.c_str());
  return text;
}

std::string withoutTrailingSpaces(std::string line) {
  line.erase(line.find_last_not_of(' ') + 1);
  return line + "\n";
}

std::string table(uint16_t domain, const Domain& rows) {
  const char* const nameHeading = domain == kOlmDomain ? "NAME" : "";
  char heading[128];
  std::snprintf(heading, sizeof(heading), "%-*s  %-*s  %-*s  %s", kIndexDigits + 2, "INDEX", kValueColumnWidth, "VALUE",
                kValueColumnWidth, "DEFAULT", nameHeading);
  std::string text = withoutTrailingSpaces(heading);
  for (const Row& row : rows) {
    const char* name = nameOf(domain, row.index);
    text += withoutTrailingSpaces(hex(row.index, kIndexDigits) + "  " + valueText(row.value) + "  " +
                                  valueText(row.defaultValue) + "  " + (name != nullptr ? name : ""));
  }
  return text;
}

std::string jsonParam(uint16_t domain, uint32_t index) {
  const char* name = nameOf(domain, index);
  return "\"index\":" + decimal(index) + (name != nullptr ? ",\"name\":" + jsonString(name) : "");
}

std::string json(uint16_t nid, uint16_t domain, const Domain& rows) {
  std::string text = "{\"node\":" + decimal(nid) + ",\"domain\":" + decimal(domain) + ",\"parameters\":[";
  for (size_t i = 0; i < rows.size(); ++i) {
    text += std::string(i == 0 ? "" : ",") + "{" + jsonParam(domain, rows[i].index) +
            ",\"value\":" + decimal(rows[i].value) +
            (rows[i].defaultValue ? ",\"default\":" + decimal(*rows[i].defaultValue) : "") + "}";
  }
  return text + "]}\n";
}

std::string setReport(const SetRequest& request, bool asJson) {
  if (asJson) {
    return "{\"node\":" + decimal(request.nid) + ",\"domain\":" + decimal(request.domain) + "," +
           jsonParam(request.domain, request.index) + ",\"value\":" + decimal(request.value) + "}\n";
  }
  const char* name = nameOf(request.domain, request.index);
  return domainText(request.nid, request.domain) + ", parameter " + hex(request.index, kIndexDigits) +
         (name != nullptr ? std::string(" (") + name + ")" : "") + ", set to " + hex(request.value, kValueDigits) +
         " (" + decimal(request.value) + ")\n";
}

// ---- The subcommands ----------------------------------------------------------------------------

std::string noParameter(uint16_t nid, uint16_t domain, uint32_t index) {
  return domainText(nid, domain) + " has no parameter " + hex(index, kIndexDigits);
}

bool hasIndex(const Domain& rows, uint32_t index) {
  return std::any_of(rows.begin(), rows.end(), [index](const Row& row) { return row.index == index; });
}

Outcome runGet(const CommonOptions& options, const GetRequest& request) {
  Session session(options);
  std::string error;
  if (!session.open(error)) return failed(error);
  RadMasterClient master(session, options.masterNid);
  const uint16_t domain = request.selector.domain;
  Domain rows;
  if (!master.read(request.nid, domain, rows, error)) return failed(error);
  if (rows.empty()) return failed(master.unknownDomain(request.nid, domain));
  if (const std::optional<uint16_t> index = request.selector.index) {
    if (!hasIndex(rows, *index)) return failed(noParameter(request.nid, domain, *index));
    rows.erase(std::remove_if(rows.begin(), rows.end(), [&](const Row& row) { return row.index != *index; }),
               rows.end());
  }
  printOut(options.json ? json(request.nid, domain, rows) : table(domain, rows));
  return succeeded();
}

// The master refuses a set as a whole, without saying why; what it keeps of the domain tells.
std::string whyRefused(RadMasterClient& master, const SetRequest& request) {
  Domain rows;
  std::string ignored;
  if (!master.read(request.nid, request.domain, rows, ignored)) return "";
  if (rows.empty()) return master.unknownDomain(request.nid, request.domain);
  return hasIndex(rows, request.index) ? "" : noParameter(request.nid, request.domain, request.index);
}

Outcome runSet(const CommonOptions& options, const SetRequest& request) {
  Session session(options);
  std::string error;
  if (!session.open(error)) return failed(error);
  RadMasterClient master(session, options.masterNid);
  uint32_t status = AACONFIG_RAD_SET_STATUS_FAILED;
  if (!master.set(request, status, error)) return failed(error);
  if (status != AACONFIG_RAD_STATUS_OK) {
    const std::string reason = whyRefused(master, request);
    return failed(master.whom() + " refused the set" + (reason.empty() ? "" : ": " + reason));
  }
  printOut(setReport(request, options.json));
  return succeeded();
}

// ---- The command line ---------------------------------------------------------------------------

Outcome runRad(const CommonOptions& options, const Arguments& commandArguments) {
  const std::vector<std::string>& arguments = commandArguments.words;
  const std::string subcommand = arguments.empty() ? "" : arguments[0];
  std::string error;
  if (subcommand == "get" && arguments.size() == 3) {
    GetRequest request{};
    if (!parseNid(arguments[1], request.nid, error) || !parseParameterSelector(arguments[2], request.selector, error)) {
      return misused(error);
    }
    return runGet(options, request);
  }
  if (subcommand == "set" && arguments.size() == 4) {
    SetRequest request{};
    ParameterSelector selector;
    if (!parseNid(arguments[1], request.nid, error) || !parseParameterSelector(arguments[2], selector, error)) {
      return misused(error);
    }
    if (!selector.index) return misused("set needs DOMAIN:INDEX, a single parameter");
    const std::optional<uint32_t> value = parseNumber(arguments[3], kMaxValue);
    if (!value) return misused(badNumber("VALUE", arguments[3], kMaxValue));
    request.domain = selector.domain;
    request.index = *selector.index;
    request.value = *value;
    return runSet(options, request);
  }
  if (subcommand == "get" || subcommand == "set") return misused("wrong number of arguments for rad " + subcommand);
  return misused(subcommand.empty() ? "rad needs get or set" : "unknown rad command '" + subcommand + "'");
}

}  // namespace

bool parseParameterSelector(const std::string& text, ParameterSelector& selector, std::string& error) {
  const size_t colon = text.find(':');
  const std::string domainPart = text.substr(0, colon);
  if (colon == std::string::npos && !looksNumeric(text)) {
    const std::optional<uint16_t> index = olmTagIndex(text);
    if (!index) error = "'" + text + "' is neither a domain number nor the name of a parameter of domain 1";
    selector = ParameterSelector{kOlmDomain, index};
    return index.has_value();
  }
  const std::optional<uint32_t> domain = parseNumber(domainPart, kMaxDomain);
  if (!domain) {
    error = badNumber("DOMAIN", domainPart, kMaxDomain);
    return false;
  }
  selector = ParameterSelector{static_cast<uint16_t>(*domain), std::nullopt};
  if (colon == std::string::npos) return true;
  const std::string indexPart = text.substr(colon + 1);
  if (looksNumeric(indexPart)) {
    const std::optional<uint32_t> index = parseNumber(indexPart, kMaxIndex);
    if (!index) {
      error = badNumber("INDEX", indexPart, kMaxIndex);
      return false;
    }
    selector.index = static_cast<uint16_t>(*index);
    return true;
  }
  const std::optional<uint16_t> namedIndex = olmTagIndex(indexPart);
  if (namedIndex && *domain == kOlmDomain) {
    selector.index = namedIndex;
    return true;
  }
  error = "'" + indexPart + "' is neither an index nor the name of a parameter of domain " + decimal(*domain) +
          (*domain == kOlmDomain ? "" : " (names are known for domain 1 only)");
  return false;
}

const Command& radCommand() {
  static const Command command{
      "rad",
      "  rad get NID DOMAIN[:INDEX]      read R&D parameters of a node through the R&D master\n"
      "  rad set NID DOMAIN:INDEX VALUE  change an R&D parameter of a node through the R&D master\n",
      kUsage, kHelp, runRad};
  return command;
}

}  // namespace Olmctl
