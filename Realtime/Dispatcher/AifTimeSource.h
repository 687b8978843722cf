// Olm::AifTimeSource: the node's radio time from the baseband's timing hardware.
//
// LTE time comes from the platform's radio clock (ddal_sfn_get_bcn) or, in simulation mode
// (--aif-mode 1), from the symbol counter in the timing register page; CDMA time from the CDMA
// counter pair in that page, or from the radio clock in simulation mode. The register page is
// mapped once and stays mapped for the life of the process.
#pragma once

#include <cstdint>

#include "ITimeSource.h"

namespace Olm {

class AifTimeSource : public ITimeSource {
 public:
  static constexpr uint32_t kRegisterPagePhysical = 0x1F48000;
  static constexpr uint32_t kRegisterPageSize = 4096;
  static constexpr unsigned kCdmaLowWord = 17;
  static constexpr unsigned kCdmaHighWord = 18;
  static constexpr unsigned kSymbolCounterWord = 34;
  // The symbol counter runs over 4096 frames of 10 subframes of 14 symbols.
  static constexpr uint32_t kSymbolsPerFrame = 140;
  static constexpr uint32_t kSymbolCounterRange = 4096 * 10 * 14;
  // A symbol counts as 2195 BTUs although a frame holds 307200 / 140 = 2194.29 per symbol, so the
  // last symbols of a frame run up to 100 BTUs past its end. The rounding is deliberate.
  static constexpr uint32_t kBasicTimeUnitsPerSymbol = 2195;
  static constexpr uint32_t kStatusClockUnreadable = 3;

  // Maps the register page (assertion "m_atregs != 0").
  AifTimeSource();
  // A time source over a register page the caller provides (tests).
  explicit AifTimeSource(volatile uint32_t* registers) : m_atregs(registers) {}

  LteTime getLTETime() override;
  int getCdmaTime(unsigned long long* time, unsigned int a, unsigned int b) override;
  unsigned long long getTS() override;
  void wait(unsigned int microseconds) override;

  void startAif() {}
  void setSimMode(bool simMode) { m_simMode = simMode; }
  bool getSimMode() const { return m_simMode; }

  LteTime getLTETime_real();
  LteTime getLTETime_sim();
  int getCdmaTime_real(unsigned long long* time, unsigned int a, unsigned int b);
  int getCdmaTime_sim(unsigned long long* time, unsigned int a, unsigned int b);

 private:
  volatile uint32_t* m_atregs = nullptr;
  bool m_simMode = false;
};

}  // namespace Olm
