// An EU library whose EU dereferences a null pointer on its first message, a timer's a
// millisecond after start-up: the node's error handler reports it and the node ends by SIGSEGV.
#include <cstdio>

#include "AaSysCom.h"
#include "AaSysTime.h"
#include "IAaSysDispatcher.h"

extern "C" int olmCrashTestEuDereferenceNull();

namespace {

constexpr TAaSysComCpid kCrashCpid = 0x0700;
constexpr TAaSysComMsgId kCrashMsgId = 0x0A10;
constexpr uint32_t kCrashDelayUs = 1000;

int* volatile s_nowhere = nullptr;

}  // namespace

// The fault is the point: a sanitized build must not report it first.
extern "C" __attribute__((noinline, no_sanitize("null"))) int olmCrashTestEuDereferenceNull() { return *s_nowhere + 1; }

namespace {

class CrashTestEu : public Olm::IAaSysDispatcherSicHandler {
 public:
  int PrioritizeMessage(void*&) override { return 3; }
  void ProcessMessage(void*&) override {
    std::puts("CrashTestEu: dereferencing null");
    std::fflush(stdout);
    std::printf("%d\n", olmCrashTestEuDereferenceNull());
  }
};

}  // namespace

extern "C" void EuMain(Olm::IAaSysDispatcher* dispatcher) {
  static CrashTestEu eu;
  dispatcher->AaSysDispatcherCpidBind(eu, kCrashCpid);
  const TAaSysComSicad own = AaSysComSicadGet(kCrashCpid, AaSysComGetOwnNid());
  void* message = AaSysComMsgCreate(kCrashMsgId, 0, own);
  AaSysComMsgSetSender(message, own);
  TAaSysTimerId timer = 0;
  AaSysTimermCreate(&timer, kCrashDelayUs, 0, message);
}
