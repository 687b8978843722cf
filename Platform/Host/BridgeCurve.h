// Encrypted, authenticated links between bridges (ZeroMQ's CURVE), used when the map gives keys.
//
// Every host has a key pair: its public key is the third word of its lines in every host's map, its
// secret key the map's secret-key line on that host alone. A bridge's bound socket is a CURVE
// server with this host's secret key; its connecting socket is a CURVE client that knows each peer
// by the public key the map gives it, so it talks to no one else. Who may connect is decided by
// the ZAP handler (ZeroMQ's authentication protocol, over an in-process socket of the bridge's
// context): only a public key of another host of the map, which then travels with every message
// from that connection as its "User-Id", and the bridge delivers a message only when that key is
// the one of the host its routing id names.
#pragma once

#include <string>

#include "NodeMap.h"
#include "RateLimitedReport.h"

namespace rhyddal {

// Empty when the map has no keys, or when its keys are complete: a key on every host, this host's
// secret key, whose public key is the one the map gives this host, and a libzmq built with CURVE.
// Else what is wrong, as a sentence for stderr.
std::string curveKeysProblem(const NodeMap& map, uint8_t ownHost);

// The Z85 public key of a Z85 secret key; empty when the secret key is not one.
std::string curvePublicKeyOf(const std::string& secretKey);

// Whether a peer presenting publicKey (Z85) may connect: it is the key of a host of the map other
// than ownHost.
bool curveKeyOfAnotherHost(const NodeMap& map, uint8_t ownHost, const std::string& publicKey);

// The bound socket: a CURVE server with this host's secret key. Call before binding.
bool makeCurveServer(void* socket, const NodeMap& map);
// The connecting socket: a CURVE client with this host's key pair. Call before connecting.
bool makeCurveClient(void* socket, const NodeMap& map, uint8_t ownHost);
// Before connecting the client to host: the public key its server must prove it holds.
bool expectCurveServer(void* socket, const NodeMap& map, uint8_t host);

// Answers ZeroMQ's authentication requests for the bridge's context. Bind before any CURVE server
// socket of the context binds: without a handler libzmq lets every client in.
class ZapHandler {
 public:
  ZapHandler(const NodeMap& map, uint8_t ownHost) : map_(map), ownHost_(ownHost) {}
  ~ZapHandler();
  ZapHandler(const ZapHandler&) = delete;
  ZapHandler& operator=(const ZapHandler&) = delete;

  bool bind(void* context);
  // For zmq_poll.
  void* socket() const { return socket_; }
  // Answers the requests waiting, without blocking; a refusal is one line on stderr (rate-limited).
  void answerWaiting(uint64_t nowNs);

 private:
  bool answerOne(uint64_t nowNs);

  const NodeMap& map_;
  const uint8_t ownHost_;
  void* socket_ = nullptr;
  RateLimitedReport refused_;
};

}  // namespace rhyddal
