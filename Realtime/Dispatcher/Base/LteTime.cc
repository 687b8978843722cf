#include "LteTime.h"

#include "OlmAssert.h"

OLM_ASSERT_SOURCE("Realtime/Dispatcher/LteTime")

namespace Olm {

namespace {

// BTUs per hyper frame are 75 x 2^22: dividing the shifted count by 75 is a 32-bit division,
// which the 32-bit target does without a 64-bit division routine.
constexpr unsigned kHyperFrameShift = 22;
constexpr uint64_t kHyperFrameFactor = 75;
static_assert(LteTime::BasicTimeUnitsPerHyperFrame == (kHyperFrameFactor << kHyperFrameShift),
              "a hyper frame is 75 x 2^22 BTUs");
static_assert(LteTime::MaxSamples == 0x4B00000000ull, "one cycle is 75 x 2^32 BTUs");
static_assert(LteTime::BasicTimeUnitsPerHyperFrame < (1ull << 32),
              "the remainder within a hyper frame fits 32 bits");
static_assert(sizeof(LteTime::SLteTime) == 8, "four 16-bit fields, the same on every target");

// The hardware frame counter: frame number in bits 0-9, hyper frame number in bits 10-19.
constexpr unsigned kCounterFieldBits = 10;
constexpr uint64_t kCounterFieldMask = (1u << kCounterFieldBits) - 1;

}  // namespace

LteTime::LteTime(uint16_t hyperFrame, uint16_t frame, uint8_t slot, uint16_t basicTimeUnit)
    : m_samples(((uint64_t{hyperFrame} * FramesPerHyperFrame + frame) * SlotsPerFrame + slot) *
                    BasicTimeUnitsPerSlot +
                basicTimeUnit) {
  OLM_ASSERT(m_samples < MaxSamples);
}

LteTime::LteTime(uint64_t samples) : m_samples(samples) { OLM_ASSERT(m_samples < MaxSamples); }

LteTime::LteTime(uint64_t samples, uint32_t fineOffset, EAaLteTimeRetVal status)
    : m_samples(samples), m_fineOffset(fineOffset), m_status(status) {
  OLM_ASSERT(m_samples < MaxSamples);
}

LteTime LteTime::unreadable(EAaLteTimeRetVal status) {
  LteTime time;
  time.m_status = status;
  return time;
}

void LteTime::vector(SLteTime& out) const {
  // A reading of the time source carries the counters themselves; they are exact even where the
  // sample count was rounded down to whole BTUs.
  if (m_rawFrameCounter != 0 && m_fineOffset != 0) {
    out.hyperFrame = static_cast<uint16_t>((m_rawFrameCounter >> kCounterFieldBits) & kCounterFieldMask);
    out.frame = static_cast<uint16_t>(m_rawFrameCounter & kCounterFieldMask);
    out.slot = static_cast<uint16_t>(m_fineOffset / FineUnitsPerSlot);
    out.basicTimeUnit = static_cast<uint16_t>((m_fineOffset % FineUnitsPerSlot) / FineUnitsPerBasicTimeUnit);
    return;
  }
  const uint32_t hyperFrame = static_cast<uint32_t>((m_samples >> kHyperFrameShift) / kHyperFrameFactor);
  const uint32_t inHyperFrame = static_cast<uint32_t>(m_samples - hyperFrame * BasicTimeUnitsPerHyperFrame);
  const uint32_t frame = inHyperFrame / BasicTimeUnitsPerFrame;
  const uint32_t inFrame = inHyperFrame - frame * BasicTimeUnitsPerFrame;
  const uint32_t slot = inFrame / BasicTimeUnitsPerSlot;
  out.hyperFrame = static_cast<uint16_t>(hyperFrame);
  out.frame = static_cast<uint16_t>(frame);
  out.slot = static_cast<uint16_t>(slot);
  out.basicTimeUnit = static_cast<uint16_t>(inFrame - slot * BasicTimeUnitsPerSlot);
}

LteTime LteTime::operator-(LteTime other) const {
  // An invalid operand makes the result the invalid marker, which the constructor refuses.
  if (m_samples >= MaxSamples || other.m_samples >= MaxSamples) return LteTime(MaxSamples);
  if (other.m_samples <= m_samples) return LteTime(m_samples - other.m_samples);
  return LteTime(m_samples + MaxSamples - other.m_samples);
}

}  // namespace Olm
