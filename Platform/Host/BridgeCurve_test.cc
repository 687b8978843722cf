#include "BridgeCurve.h"

#include <gtest/gtest.h>
#include <zmq.h>

#include <string>
#include <vector>

namespace rhyddal {
namespace {

struct KeyPair {
  std::string publicKey, secretKey;
};

KeyPair newKeyPair() {
  char publicKey[NodeMap::kKeyLength + 1] = {}, secretKey[NodeMap::kKeyLength + 1] = {};
  EXPECT_EQ(zmq_curve_keypair(publicKey, secretKey), 0);
  return KeyPair{publicKey, secretKey};
}

NodeMap parsed(const std::string& text) {
  NodeMap map;
  std::vector<std::string> errors;
  EXPECT_TRUE(NodeMap::parse(text, &map, &errors)) << (errors.empty() ? "" : errors[0]);
  return map;
}

// Two hosts, A (host 0, 0x1000-0x1fff) and B; the keys given, the secret key line when not empty.
std::string mapText(const std::string& keyA, const std::string& keyB, const std::string& secret) {
  return "0x1000-0x1fff tcp://127.0.0.1:5601 " + keyA + "\n0x2000-0x2fff tcp://127.0.0.1:5602 " + keyB + "\n" +
         (secret.empty() ? "" : "secret-key " + secret + "\n");
}

constexpr uint8_t kHostA = 0;

TEST(BridgeCurve, KeysMustBeCompleteAndTheSecretKeyThisHostsOwn) {
  const KeyPair a = newKeyPair(), b = newKeyPair();
  EXPECT_EQ(curveKeysProblem(parsed(mapText("", "", "")), kHostA), "");
  EXPECT_EQ(curveKeysProblem(parsed(mapText(a.publicKey, b.publicKey, a.secretKey)), kHostA), "");
  EXPECT_NE(curveKeysProblem(parsed(mapText(a.publicKey, "", a.secretKey)), kHostA).find("none for tcp://127.0.0.1:5602"),
            std::string::npos);
  EXPECT_NE(curveKeysProblem(parsed(mapText(a.publicKey, b.publicKey, "")), kHostA).find("no secret-key line"),
            std::string::npos);
  EXPECT_NE(curveKeysProblem(parsed(mapText(a.publicKey, b.publicKey, b.secretKey)), kHostA).find("is not the secret key"),
            std::string::npos);
  EXPECT_EQ(curvePublicKeyOf(a.secretKey), a.publicKey);
  EXPECT_EQ(curvePublicKeyOf("too short"), "");
}

TEST(BridgeCurve, OnlyTheKeyOfAnotherHostMayConnect) {
  const KeyPair a = newKeyPair(), b = newKeyPair();
  const NodeMap map = parsed(mapText(a.publicKey, b.publicKey, a.secretKey));
  EXPECT_TRUE(curveKeyOfAnotherHost(map, kHostA, b.publicKey));
  EXPECT_FALSE(curveKeyOfAnotherHost(map, kHostA, a.publicKey)) << "this host's own key, held by someone else";
  EXPECT_FALSE(curveKeyOfAnotherHost(map, kHostA, newKeyPair().publicKey));
  EXPECT_FALSE(curveKeyOfAnotherHost(map, kHostA, ""));
}

}  // namespace
}  // namespace rhyddal
