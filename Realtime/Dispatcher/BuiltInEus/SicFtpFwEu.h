// Olm::SicFtpFwEu: the built-in file-transfer forwarder EU, bound to CPIDs 0x614 and 0x23B.
// Until the RAM file mount exists it has nothing to forward to, and drops what it receives.
#pragma once

#include <cstdint>

#include "IAaSysDispatcherSicHandler.h"

namespace Olm {

class SicFtpFwEu : public IAaSysDispatcherSicHandler {
 public:
  int PrioritizeMessage(void*& msg) override;
  void ProcessMessage(void*& msg) override;

 private:
  [[maybe_unused]] uint32_t m_unused = 0;
};

}  // namespace Olm
