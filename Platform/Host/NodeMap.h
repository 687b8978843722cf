// Which node ids live on which host: the map named by RHYDDAL_NODE_MAP, shared by every host of a
// system. A host is known by the endpoint its bridge binds and the others connect to.
//
// Text format, one entry per line, a word starting with '#' starts a comment (but for a key, Z85
// having '#' among its characters):
//   <nid> | <nid>-<nid>   <endpoint>   [<public key>]
//   secret-key <key>
// Node ids are numbers in C notation (0x1011, 4113), ranges inclusive and never overlapping. An
// endpoint is tcp://<address>:<port> or ipc://<absolute path>; lines with the same endpoint are one
// host. Keys are 40 characters of Z85 (a CURVE key); secret-key is this host's own. Parsing is
// strict: every line that is not understood is reported with its number, and a map with any such
// line is not used at all.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace rhyddal {

struct MappedHost {
  std::string endpoint;
  std::string publicKey;  // empty: plain links
};

class NodeMap {
 public:
  static constexpr uint8_t kNoHost = 0xFF;
  static constexpr size_t kMaxHosts = kNoHost;
  // Beyond what a ZeroMQ routing id (255 bytes) holds there would be no way to name the host.
  static constexpr size_t kMaxEndpointLength = 200;
  static constexpr size_t kKeyLength = 40;

  // The map in text; false with one entry per bad line in *errors ("line 3: ...").
  static bool parse(const std::string& text, NodeMap* map, std::vector<std::string>* errors);
  // The map in a file; a file that cannot be read is one error.
  static bool load(const std::string& path, NodeMap* map, std::vector<std::string>* errors);

  // Index into hosts() of the host nid lives on, kNoHost for a node id on no line.
  uint8_t hostOf(uint16_t nid) const { return hostByNid_.empty() ? kNoHost : hostByNid_[nid]; }
  const std::vector<MappedHost>& hosts() const { return hosts_; }
  const std::string& secretKey() const { return secretKey_; }
  bool hasKeys() const;

 private:
  std::vector<MappedHost> hosts_;
  std::vector<uint8_t> hostByNid_;  // 65536 entries once parsed
  std::string secretKey_;
};

}  // namespace rhyddal
