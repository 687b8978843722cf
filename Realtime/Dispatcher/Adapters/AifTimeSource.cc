#include "AifTimeSource.h"

#include <unistd.h>

#include "AaCpuTimeBase.h"
#include "OlmAssert.h"
#include "PhysicalMemory.h"
#include "Rhyddal.h"
#include "RhyddalHost.h"

OLM_ASSERT_SOURCE("Realtime/Dispatcher/AifTimeSource")

// Present only in the host replacement of the platform library.
extern "C" RHYDDAL_HOST_OPTIONAL void rhyddal_host_timing_page_in_use(void);

namespace Olm {

namespace {
constexpr uint64_t kFrameCounterMask = 0xFFFFF;  // frame number bits 0-9, hyper frame bits 10-19
constexpr uint32_t kCdmaSubChipBits = 12;
constexpr uint32_t kCdmaSubChipMask = 0xFFF;

// Apart from getLTETime_real so that each function returns one object, which the compiler then
// builds in the caller's place. With two return objects it built a local and copied it with one
// wide load over the narrower stores just made: a store-forwarding stall that cost more than
// the clock read itself.
LteTime timeOfReading(unsigned long long counter, uint32_t fine) {
  const uint64_t samples =
      (counter & kFrameCounterMask) * LteTime::BasicTimeUnitsPerFrame + fine / LteTime::FineUnitsPerBasicTimeUnit;
  LteTime time(samples, fine, EAaLteTimeRetVal_Ok);
  time.setRawFrameCounter(counter);
  return time;
}

}  // namespace

AifTimeSource::AifTimeSource() {
  m_atregs = static_cast<volatile uint32_t*>(
      mem_map_addr(reinterpret_cast<void*>(static_cast<uintptr_t>(kRegisterPagePhysical)), kRegisterPageSize));
  OLM_ASSERT(m_atregs != 0);
}

void AifTimeSource::setSimMode(bool simMode) {
  m_simMode = simMode;
  if (simMode && rhyddal_host_timing_page_in_use != nullptr) rhyddal_host_timing_page_in_use();
}

LteTime AifTimeSource::getLTETime() { return m_simMode ? getLTETime_sim() : getLTETime_real(); }

int AifTimeSource::getCdmaTime(unsigned long long* time, unsigned int a, unsigned int b) {
  return m_simMode ? getCdmaTime_sim(time, a, b) : getCdmaTime_real(time, a, b);
}

unsigned long long AifTimeSource::getTS() { return AaCpuTimeBaseVirtualCountGet(); }

void AifTimeSource::wait(unsigned int microseconds) {
  if (microseconds != 0) usleep(microseconds);
}

LteTime AifTimeSource::getLTETime_real() {
  unsigned long long counter = 0;
  uint32_t fine = 0;
  if (ddal_sfn_get_bcn(&counter, &fine, 0) != 0) {
    return LteTime::unreadable(static_cast<EAaLteTimeRetVal>(kStatusClockUnreadable));
  }
  return timeOfReading(counter, fine);
}

uint32_t AifTimeSource::readRegister(unsigned word) const {
  return __atomic_load_n(const_cast<const uint32_t*>(&m_atregs[word]), __ATOMIC_ACQUIRE);
}

LteTime AifTimeSource::getLTETime_sim() {
  const uint32_t symbol = m_atregs[kSymbolCounterWord];
  OLM_ASSERT_TEXT(symbol < kSymbolCounterRange, "symbol < (4096*10*14)");
  const uint64_t samples = static_cast<uint64_t>(symbol / kSymbolsPerFrame) * LteTime::BasicTimeUnitsPerFrame +
                           static_cast<uint64_t>(symbol % kSymbolsPerFrame) * kBasicTimeUnitsPerSymbol;
  return LteTime(samples);
}

int AifTimeSource::getCdmaTime_real(unsigned long long* time, unsigned int a, unsigned int b) {
  // The high word is re-read until it did not change around the low word: a consistent pair. The
  // three reads must happen in this order: the board's device memory keeps them in order anyway,
  // but the page a host emulates is ordinary memory, where a processor may reorder plain loads, so
  // each is an acquire load (on x86 a plain load all the same).
  uint32_t high, low;
  do {
    high = readRegister(kCdmaHighWord);
    low = readRegister(kCdmaLowWord);
  } while (readRegister(kCdmaHighWord) != high);
  const uint32_t sub = ((a << 10) | b) & kCdmaSubChipMask;
  const uint32_t count = sub < low ? high + 1 : high;
  const uint32_t lowPart = (count << kCdmaSubChipBits) | sub;
  const uint32_t highPart = (count >> 20) & 0xFF;
  *time = (static_cast<unsigned long long>(highPart) << 32) | lowPart;
  return static_cast<int>(count);
}

int AifTimeSource::getCdmaTime_sim(unsigned long long* time, unsigned int, unsigned int) {
  return ddal_sfn_get_bcn(time, nullptr, 0);
}

}  // namespace Olm
