#include <cstdio>

#include "AaLteTime.h"
#include "AaSysCom.h"
#include "IAaSysDispatcher.h"

namespace {
class ExternalEu : public Olm::IAaSysDispatcherSicHandler {
  int PrioritizeMessage(void*&) override { return 3; }
  void ProcessMessage(void*&) override {}
};
}  // namespace

extern "C" void EuMain(Olm::IAaSysDispatcher* dispatcher) {
  static ExternalEu eu;
  dispatcher->AaSysDispatcherCpidBind(eu, 0x0777);
  TAaLteBtsFrameNr frame = 0;
  std::printf("ExternalEu bound on node 0x%04x, LTE time status %d\n", AaSysComGetOwnNid(),
              static_cast<int>(AaLteTimeGet(nullptr, &frame, nullptr, nullptr, nullptr)));
  std::fflush(stdout);
}
