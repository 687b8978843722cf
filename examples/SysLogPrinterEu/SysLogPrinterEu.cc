// An example EU library that collects the system log of a node group: bound to CPID 0x0601, it
// prints the text of every system log message (id 0x0976) it receives to standard output.
//
// Nodes send their log lines to CPID 0x0601 on the node of their group whose last hexadecimal
// digit is D, so for nodes 0x1011 and 0x1012 run it as node 0x101D:
//
//   OLMLiteExe --nid 0x101D --wait 1000 --load-local libSysLogPrinterEu.so
#include <cstdio>
#include <cstring>

#include "AaSysCom.h"
#include "IAaSysDispatcher.h"

namespace {

constexpr TAaSysComCpid kSysLogReceiverCpid = 0x0601;
constexpr TAaSysComMsgId kSysLogMsgId = 0x0976;

class SysLogPrinterEu : public Olm::IAaSysDispatcherSicHandler {
 public:
  int PrioritizeMessage(void*&) override { return 3; }

  void ProcessMessage(void*& msg) override {
    if (AaSysComMsgGetId(msg) != kSysLogMsgId) return;
    const auto* text = static_cast<const char*>(AaSysComMsgGetPayload(msg));
    // The line carries its own line feed and zero byte; print at most the payload in any case.
    const size_t length = strnlen(text, AaSysComMsgGetPayloadSize(msg));
    std::fwrite(text, 1, length, stdout);
    if (length == 0 || text[length - 1] != '\n') std::fputc('\n', stdout);
    std::fflush(stdout);
  }
};

}  // namespace

extern "C" void EuMain(Olm::IAaSysDispatcher* dispatcher) {
  static SysLogPrinterEu eu;
  dispatcher->AaSysDispatcherCpidBind(eu, kSysLogReceiverCpid);
}
