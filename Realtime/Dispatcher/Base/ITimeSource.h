// The node's radio time as the Dispatcher and the logs see it.
//
// Production: AifTimeSource reads the timing registers and the platform's radio clock.
// Tests: a fake that returns scripted LTE times and counts wait() calls, so the run loop can be
// stepped without sleeping and without hardware.
#pragma once

#include <cstdint>

#include "LteTime.h"

namespace Olm {

class ITimeSource {
 public:
  virtual ~ITimeSource() = default;
  // The current LTE time; a non-zero status says the radio clock could not be read.
  virtual LteTime getLTETime() = 0;
  // CDMA time into *time; the two numbers belong to the CDMA time service.
  virtual int getCdmaTime(unsigned long long* time, unsigned int a, unsigned int b) = 0;
  // A free-running high-resolution timestamp (the generic timer's virtual count).
  virtual unsigned long long getTS() = 0;
  // Sleeps the given microseconds; 0 returns at once.
  virtual void wait(unsigned int microseconds) = 0;
};

}  // namespace Olm
