// The R&D slave's EU, bound to AACONFIG_RAD_SLAVE_CPID by AaConfigRadSlave.
#pragma once

#include "IAaSysDispatcherSicHandler.h"

namespace Olm {

class AaConfigEu : public IAaSysDispatcherSicHandler {
 public:
  ~AaConfigEu() override = default;
  // Nothing of the slave is urgent: every message goes to the low queue.
  int PrioritizeMessage(void*& msg) override;
  // Handles the master's and the requesters' messages (AaConfigRadMsg.h) and destroys each one.
  void ProcessMessage(void*& msg) override;
};

// The one slave EU of the process.
AaConfigEu& AaConfigEuInstance();

}  // namespace Olm
