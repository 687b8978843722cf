// rhyddal-keygen: a CURVE key pair for one host of a node map (Platform/Host/README.md, Nodes on
// several hosts). Prints the public key, for the third word of the host's lines in every host's
// map, and the secret-key line for that host's own map.
#include <zmq.h>

#include <cstdio>
#include <cstring>

namespace {

constexpr int kOk = 0;
constexpr int kFailed = 1;
constexpr int kUsage = 2;
constexpr size_t kZ85KeyBytes = 41;  // 40 characters and the terminating zero

}  // namespace

int main(int argc, char** argv) {
  if (argc > 1) {
    const bool help = std::strcmp(argv[1], "--help") == 0 || std::strcmp(argv[1], "-h") == 0;
    std::fprintf(help ? stdout : stderr,
                 "Usage: rhyddal-keygen\n"
                 "Prints a new CURVE key pair: the public key goes after the endpoint on this host's lines\n"
                 "in the node map of every host, the secret-key line into this host's map only.\n");
    return help ? kOk : kUsage;
  }
  char publicKey[kZ85KeyBytes] = {};
  char secretKey[kZ85KeyBytes] = {};
  if (zmq_has("curve") == 0 || zmq_curve_keypair(publicKey, secretKey) != 0) {
    std::fprintf(stderr, "rhyddal-keygen: this libzmq cannot make CURVE keys: %s\n", zmq_strerror(zmq_errno()));
    return kFailed;
  }
  std::printf("# public key: after the endpoint on this host's lines, in the map of every host\n%s\n"
              "# this host's map only\nsecret-key %s\n",
              publicKey, secretKey);
  return kOk;
}
