// olm-history: a node's history log as text after the node has gone.
//
//   olm-history <history log file> [<text file>]     (the text goes to standard output without one)
//
// The file is a copy of a node's "<nid>_HistoryLog.bin" RAM file or the file extracted from its
// core. Its records hold the runtime's formats and texts as distances within libOlmLiteRt, which
// this program loads too: run the olm-history installed with the node's runtime.
#include <cstdio>
#include <cstring>

#include "HistoryLogDump.h"

namespace {

constexpr const char kUsage[] = "Usage: olm-history <history log file> [<text file>]\n";
constexpr const char kStandardOutput[] = "/dev/stdout";

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2 || argc > 3 || std::strcmp(argv[1], "--help") == 0) {
    std::fputs(kUsage, argc == 2 ? stdout : stderr);
    return argc == 2 ? 0 : 2;
  }
  const char* output = argc == 3 ? argv[2] : kStandardOutput;
  std::fflush(stdout);
  if (Olm::outputHistoryLogOffline(argv[1], output) != 0) {
    std::fprintf(stderr, "olm-history: cannot read %s or write %s\n", argv[1], output);
    return 1;
  }
  return 0;
}
