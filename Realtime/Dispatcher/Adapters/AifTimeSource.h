// Olm::AifTimeSource: the node's radio time from the baseband's timing hardware.
//
// LTE time comes from the platform's radio clock (ddal_sfn_get_bcn) or, in simulation mode
// (--aif-mode 1), from the symbol counter in the timing register page; CDMA time from the CDMA
// counter pair in that page, or from the radio clock in simulation mode. The register page is
// mapped once and stays mapped for the life of the process.
#pragma once

#include <cstdint>

#include "ITimeSource.h"
#include "RhyddalPhysicalMemory.h"

namespace Olm {

class AifTimeSource : public ITimeSource {
 public:
  static constexpr uint32_t kRegisterPagePhysical = RHYDDAL_TIMING_PAGE_PHYSICAL;
  static constexpr uint32_t kRegisterPageSize = RHYDDAL_TIMING_PAGE_BYTES;
  static constexpr unsigned kCdmaLowWord = RHYDDAL_TIMING_WORD_CDMA_LOW;
  static constexpr unsigned kCdmaHighWord = RHYDDAL_TIMING_WORD_CDMA_HIGH;
  static constexpr unsigned kSymbolCounterWord = RHYDDAL_TIMING_WORD_LTE_SYMBOL;
  // The symbol counter runs over 4096 frames of 10 subframes of 14 symbols.
  static constexpr uint32_t kSymbolsPerFrame = RHYDDAL_LTE_SYMBOLS_PER_FRAME;
  static constexpr uint32_t kSymbolCounterRange = RHYDDAL_LTE_SYMBOL_RANGE;
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
  // Simulation mode reads the register page's symbol counter, so a host library is told to keep
  // the page current.
  void setSimMode(bool simMode);
  bool getSimMode() const { return m_simMode; }

  LteTime getLTETime_real();
  LteTime getLTETime_sim();
  int getCdmaTime_real(unsigned long long* time, unsigned int a, unsigned int b);
  int getCdmaTime_sim(unsigned long long* time, unsigned int a, unsigned int b);

 private:
  uint32_t readRegister(unsigned word) const;

  volatile uint32_t* m_atregs = nullptr;
  bool m_simMode = false;
};

}  // namespace Olm
