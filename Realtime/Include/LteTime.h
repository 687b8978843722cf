// LTE radio time: a position within the 1024-hyper-frame cycle, in basic time units (BTU) of the
// 30.72 MHz LTE reference clock. A small value type: the time source produces it, the Dispatcher
// keeps the latest reading as "now", the timer queue counts down in it and the logs stamp with it.
#pragma once

#include <cstdint>

#include "AaLteTime.h"
#include "OlmApi.h"

OLM_API_BEGIN

namespace Olm {

class LteTime {
 public:
  // The LTE frame structure at 30.72 MHz.
  static constexpr uint64_t BasicTimeUnitsPerSlot = 15360;
  static constexpr uint64_t SlotsPerFrame = 20;
  static constexpr uint64_t BasicTimeUnitsPerFrame = BasicTimeUnitsPerSlot * SlotsPerFrame;  // 307200
  static constexpr uint64_t FramesPerHyperFrame = 1024;
  static constexpr uint64_t BasicTimeUnitsPerHyperFrame = BasicTimeUnitsPerFrame * FramesPerHyperFrame;
  static constexpr uint64_t HyperFramesPerCycle = 1024;
  static constexpr uint64_t BasicTimeUnitsPerSecond = 30720000;
  static constexpr uint32_t FineUnitsPerBasicTimeUnit = 40;  // the hardware counts at 40 x 30.72 MHz
  static constexpr uint32_t FineUnitsPerSlot = FineUnitsPerBasicTimeUnit * BasicTimeUnitsPerSlot;
  // One whole cycle (10485.76 s) and, as a value, the invalid-time marker.
  static constexpr uint64_t MaxSamples = BasicTimeUnitsPerHyperFrame * HyperFramesPerCycle;

  // The broken-down form.
  struct SLteTime {
    uint16_t hyperFrame;
    uint16_t frame;
    uint16_t slot;
    uint16_t basicTimeUnit;
  };

  // Zero time, status 0.
  LteTime() = default;
  // ((hyperFrame x 1024 + frame) x 20 + slot) x 15360 + basicTimeUnit; the parts are not checked
  // one by one (frame 1024 lands in the next hyper frame), only the result is.
  LteTime(uint16_t hyperFrame, uint16_t frame, uint8_t slot, uint16_t basicTimeUnit);
  explicit LteTime(uint64_t samples);
  // A reading of the time source: the raw frame counter is set alongside with setRawFrameCounter.
  LteTime(uint64_t samples, uint32_t fineOffset, EAaLteTimeRetVal status);

  // A reading that failed: every field zero, the given non-zero status.
  static LteTime unreadable(EAaLteTimeRetVal status);

  // Splits the time into hyper frame, frame, slot and BTU: from the hardware counters when the
  // reading carries them, otherwise from the sample count.
  void vector(SLteTime& out) const;

  // a - b modulo one cycle: a past time yields nearly a whole cycle, never a negative value.
  // Subtracting with an invalid operand aborts ("m_samples < MaxSamples"): test validity first.
  LteTime operator-(LteTime other) const;

  uint64_t getSamples() const { return m_samples; }
  uint64_t getRawFrameCounter() const { return m_rawFrameCounter; }
  void setRawFrameCounter(uint64_t counter) { m_rawFrameCounter = counter; }
  uint32_t getFineOffset() const { return m_fineOffset; }
  EAaLteTimeRetVal getStatus() const { return m_status; }
  void setStatus(EAaLteTimeRetVal status) { m_status = status; }
  // A reading with status 0 and a sample count below MaxSamples.
  bool isValid() const { return m_status == EAaLteTimeRetVal_Ok && m_samples != MaxSamples; }

 private:
  uint64_t m_samples = 0;
  uint64_t m_rawFrameCounter = 0;
  uint32_t m_fineOffset = 0;
  EAaLteTimeRetVal m_status = EAaLteTimeRetVal_Ok;
};

}  // namespace Olm

OLM_API_END
