#include "BridgeCurve.h"

#include <zmq.h>

#include <cstring>

#include "BridgeWire.h"
#include "ZmqFrames.h"

namespace rhyddal {
namespace {

// The endpoint libzmq sends its authentication requests to, fixed by the protocol.
constexpr char kZapEndpoint[] = "inproc://zeromq.zap.01";
constexpr char kZapVersion[] = "1.0";
constexpr char kCurveMechanism[] = "CURVE";
constexpr char kZapDomain[] = "rhyddal";
constexpr char kZapAllowed[] = "200";
constexpr char kZapRefused[] = "400";
constexpr size_t kCurveKeyBytes = 32;
// version, request id, domain, address, routing id, mechanism, one credential frame.
constexpr size_t kZapRequestFrames = 7;
constexpr size_t kZapAddressFrame = 3;
constexpr size_t kZapMechanismFrame = 5;
constexpr size_t kZapCredentialFrame = 6;

bool setKey(void* socket, int option, const std::string& z85) {
  return zmq_setsockopt(socket, option, z85.data(), z85.size()) == 0;
}

bool frameIs(zmq_msg_t& frame, const char* text) {
  return zmq_msg_size(&frame) == std::strlen(text) && std::memcmp(zmq_msg_data(&frame), text, std::strlen(text)) == 0;
}

std::string textOf(zmq_msg_t& frame) { return std::string(static_cast<const char*>(zmq_msg_data(&frame)), zmq_msg_size(&frame)); }

}  // namespace

std::string curveKeysProblem(const NodeMap& map, uint8_t ownHost) {
  if (!map.hasKeys()) return std::string();
  for (const MappedHost& host : map.hosts()) {
    if (host.publicKey.empty()) return "the map gives keys, but none for " + host.endpoint + ": with keys, every host has one";
  }
  if (map.secretKey().empty()) return "the map gives keys, but no secret-key line with this host's secret key";
  if (zmq_has("curve") == 0) return "the map gives keys, but this libzmq was built without CURVE";
  const std::string& own = map.hosts()[ownHost].endpoint;
  if (curvePublicKeyOf(map.secretKey()) != map.hosts()[ownHost].publicKey) {
    return "the secret-key is not the secret key of the public key the map gives this host, " + own;
  }
  return std::string();
}

std::string curvePublicKeyOf(const std::string& secretKey) {
  char publicKey[NodeMap::kKeyLength + 1] = {};
  if (secretKey.size() != NodeMap::kKeyLength || zmq_curve_public(publicKey, secretKey.c_str()) != 0) return std::string();
  return publicKey;
}

bool curveKeyOfAnotherHost(const NodeMap& map, uint8_t ownHost, const std::string& publicKey) {
  for (size_t host = 0; host < map.hosts().size(); ++host) {
    if (host != ownHost && !publicKey.empty() && map.hosts()[host].publicKey == publicKey) return true;
  }
  return false;
}

bool makeCurveServer(void* socket, const NodeMap& map) {
  const int on = 1;
  return zmq_setsockopt(socket, ZMQ_CURVE_SERVER, &on, sizeof(on)) == 0 &&
         setKey(socket, ZMQ_CURVE_SECRETKEY, map.secretKey()) &&
         zmq_setsockopt(socket, ZMQ_ZAP_DOMAIN, kZapDomain, std::strlen(kZapDomain)) == 0;
}

bool makeCurveClient(void* socket, const NodeMap& map, uint8_t ownHost) {
  return setKey(socket, ZMQ_CURVE_PUBLICKEY, map.hosts()[ownHost].publicKey) &&
         setKey(socket, ZMQ_CURVE_SECRETKEY, map.secretKey());
}

bool expectCurveServer(void* socket, const NodeMap& map, uint8_t host) {
  return setKey(socket, ZMQ_CURVE_SERVERKEY, map.hosts()[host].publicKey);
}

ZapHandler::~ZapHandler() {
  if (socket_ != nullptr) zmq_close(socket_);
}

bool ZapHandler::bind(void* context) {
  socket_ = zmq_socket(context, ZMQ_REP);
  return socket_ != nullptr && zmq_bind(socket_, kZapEndpoint) == 0;
}

void ZapHandler::answerWaiting(uint64_t nowNs) {
  while (answerOne(nowNs)) {
  }
}

// Every request gets its reply, or the socket could take no further request.
bool ZapHandler::answerOne(uint64_t nowNs) {
  zmq_msg_t frames[kZapRequestFrames];
  const size_t count = receiveFrames(socket_, frames, kZapRequestFrames);
  if (count == 0) return false;
  const size_t kept = count < kZapRequestFrames ? count : kZapRequestFrames;
  std::string publicKey;
  if (count == kZapRequestFrames && frameIs(frames[0], kZapVersion) && frameIs(frames[kZapMechanismFrame], kCurveMechanism) &&
      zmq_msg_size(&frames[kZapCredentialFrame]) == kCurveKeyBytes) {
    char z85[NodeMap::kKeyLength + 1] = {};
    zmq_z85_encode(z85, static_cast<const uint8_t*>(zmq_msg_data(&frames[kZapCredentialFrame])), kCurveKeyBytes);
    publicKey = z85;
  }
  const bool allowed = curveKeyOfAnotherHost(map_, ownHost_, publicKey);
  if (!allowed) {
    const std::string address = kept > kZapAddressFrame ? textOf(frames[kZapAddressFrame]) : std::string("?");
    refused_.report(nowNs, "bridge refused a connection from %s: its key %s is not the public key of another host of the map",
                    address.c_str(), publicKey.empty() ? "(none)" : publicKey.c_str());
  }
  const char* status = allowed ? kZapAllowed : kZapRefused;
  const Frame reply[] = {{kZapVersion, std::strlen(kZapVersion)},
                         {kept > 1 ? zmq_msg_data(&frames[1]) : nullptr, kept > 1 ? zmq_msg_size(&frames[1]) : 0},
                         {status, std::strlen(status)},
                         {"", 0},
                         {publicKey.data(), allowed ? publicKey.size() : 0},
                         {"", 0}};
  sendFrames(socket_, reply, sizeof(reply) / sizeof(reply[0]), 0);
  closeFrames(frames, kept);
  return true;
}

}  // namespace rhyddal
