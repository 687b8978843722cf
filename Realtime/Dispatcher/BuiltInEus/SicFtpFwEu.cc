#include "SicFtpFwEu.h"

namespace Olm {

namespace {
constexpr int kLowPriority = 3;
}

int SicFtpFwEu::PrioritizeMessage(void*&) { return kLowPriority; }

// Leaving the pointer set hands the request back to the Dispatcher, which frees it.
void SicFtpFwEu::ProcessMessage(void*&) {}

}  // namespace Olm
