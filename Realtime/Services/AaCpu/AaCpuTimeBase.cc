#include "AaCpuTimeBase.h"

#include <time.h>

// Each source of the time base is a namespace with the same three reads, in a file of its own that
// holds only that processor's code. On ARM both sources are always compiled, so a build that takes
// its counters from the clock (for user-mode emulation, which refuses the 32-bit coprocessor
// reads) still proves that the register reads build.
#if defined(__arm__) || defined(__aarch64__)
#include "Arm/AaCpuTimeBaseArm.inc"
#endif
#include "Clock/AaCpuTimeBaseClock.inc"
#if defined(__x86_64__) || defined(__i386__)
#include "X86/AaCpuTimeBaseX86.inc"
#endif

#if (defined(__arm__) || defined(__aarch64__)) && !defined(OLM_COUNTERS_FROM_CLOCK)
namespace TimeBaseSource = GenericTimer;
#elif defined(__x86_64__) || defined(__i386__)
namespace TimeBaseSource = TimeStampCounter;
#else
namespace TimeBaseSource = MonotonicClock;
#endif

uint64_t AaCpuTimeBasePhysicalCountGet(void) { return TimeBaseSource::physicalCount(); }

uint64_t AaCpuTimeBaseVirtualCountGet(void) { return TimeBaseSource::virtualCount(); }

uint32_t AaCpuTimeBaseFrequencyGet(void) { return TimeBaseSource::frequency(); }
