#include "AaLteFrameCalc.h"

// All sums are formed in uint32_t, where wrapping is defined, and read as int32_t only where a rule
// compares or divides signed; the conversion is modular with GCC and Clang. So every result is the
// 32-bit two's-complement one, with no signed overflow on any input.

namespace {

constexpr int32_t kBtusPerSlot = 15360;
constexpr int32_t kSlotsPerFrame = 20;
constexpr uint32_t kBtusPerFrame = 307200;

constexpr uint32_t kSfnModulus = 256;     // 8-bit system frame numbers
constexpr uint32_t kFrameModulus = 4096;  // 12-bit frame numbers
constexpr uint32_t kSfnMask = kSfnModulus - 1;
constexpr uint32_t kFrameMask = kFrameModulus - 1;

// An offset's middle field counts units of 1024 BTUs; totals are rounded to whole units.
constexpr uint32_t kOffsetUnitBtus = 1024;
constexpr uint32_t kOffsetUnitsPerFrame = kBtusPerFrame / kOffsetUnitBtus;
constexpr uint32_t kOffsetHalfUnit = kOffsetUnitBtus / 2;

constexpr int32_t kMicrosecondsPerMillisecond = 1000;
constexpr int32_t kMicrosecondsPerFrame = 10000;
constexpr int32_t kMicrosecondsPerSlot = 500;
constexpr uint32_t kMicrosecondsPerSlotU = kMicrosecondsPerSlot;
constexpr uint32_t kHalfSlotBtus = kBtusPerSlot / 2;

constexpr EAaLteFrameCalcRetVal kOk = EAaLteFrameCalcRetVal_Ok;
constexpr EAaLteFrameCalcRetVal kNullPointer = EAaLteFrameCalcRetVal_InvalidParameter;

int32_t asSigned(uint32_t value) { return static_cast<int32_t>(value); }
uint32_t asUnsigned(int32_t value) { return static_cast<uint32_t>(value); }

uint32_t frameModulus(uint32_t sfn) { return sfn != 0 ? kSfnModulus : kFrameModulus; }
uint32_t frameMask(uint32_t sfn) { return frameModulus(sfn) - 1; }

template <typename... Pointers>
bool anyNull(const Pointers*... pointers) {
  return ((pointers == nullptr) || ...);
}

// ---- The three ways of bringing a field x of range 0..n-1 back into range ----

struct Carried {
  int32_t field;
  int32_t carry;  // in units of the next larger field
};

// Floor quotient and remainder of a negative x. -x - 1 is written ~x and x + 1 wraps, so that
// neither overflows at the ends of the range. Applied to a large positive x (borrow-normalise
// does), it keeps the total but leaves the field between n - 1 and 2n - 2 (at INT32_MAX, where x + 1
// wraps, neither holds).
Carried fromBelow(int32_t x, int32_t n) { return {(n - 1) - (~x % n), asSigned(asUnsigned(x) + 1) / n - 1}; }

bool outOfRange(int32_t x, int32_t n) { return asUnsigned(x) >= asUnsigned(n); }

// Floor division: the field always ends in range.
Carried floorNormalize(int32_t x, int32_t n) {
  if (x < 0) return fromBelow(x, n);
  if (x >= n) return {x % n, x / n};
  return {x, 0};
}

// The subtract family: whatever is out of range is taken as a value that went below 0.
Carried borrowNormalize(int32_t x, int32_t n) { return outOfRange(x, n) ? fromBelow(x, n) : Carried{x, 0}; }

// The add family: truncating division, so a negative total leaves a negative field.
Carried truncatingNormalize(int32_t x, int32_t n) { return outOfRange(x, n) ? Carried{x % n, x / n} : Carried{x, 0}; }

using Normalizer = Carried (*)(int32_t, int32_t);

// slot reduced into frames; the frame gets the carry but is not masked (the callers differ).
SAaLteTiming carrySlot(uint32_t frame, uint32_t slot, uint32_t btu, Normalizer normalize) {
  const Carried reduced = normalize(asSigned(slot), kSlotsPerFrame);
  return {frame + asUnsigned(reduced.carry), asUnsigned(reduced.field), btu};
}

// btu reduced into slots, then timing.slot + extraSlots + carry reduced into frames.
SAaLteTiming carryBtu(const SAaLteTiming& timing, uint32_t btu, uint32_t extraSlots, Normalizer normalize) {
  const Carried reduced = normalize(asSigned(btu), kBtusPerSlot);
  return carrySlot(timing.frame, timing.slot + extraSlots + asUnsigned(reduced.carry), asUnsigned(reduced.field),
                   normalize);
}

SAaLteTiming masked(SAaLteTiming timing, uint32_t sfn) {
  timing.frame &= frameMask(sfn);
  return timing;
}

// ---- Field-wise arithmetic with single carries ----

SAaLteTiming timingAdd(const SAaLteTiming& a, const SAaLteTiming& b, uint32_t sfn) {
  uint32_t btu = a.btu + b.btu;
  uint32_t slotCarry = 0;
  if (btu >= asUnsigned(kBtusPerSlot)) {
    btu %= asUnsigned(kBtusPerSlot);
    slotCarry = 1;
  }
  int32_t slot = asSigned(a.slot + b.slot + slotCarry);
  uint32_t frameCarry = 0;
  if (outOfRange(slot, kSlotsPerFrame)) {
    slot %= kSlotsPerFrame;
    frameCarry = 1;
  }
  return {(a.frame + b.frame + frameCarry) & frameMask(sfn), asUnsigned(slot), btu};
}

SAaLteTiming timingSubtract(const SAaLteTiming& a, const SAaLteTiming& b, uint32_t sfn) {
  uint32_t btu = a.btu - b.btu;
  uint32_t slotBorrow = 0;
  if (btu >= asUnsigned(kBtusPerSlot)) {
    btu += asUnsigned(kBtusPerSlot);
    slotBorrow = 1;
  }
  uint32_t slot = a.slot - b.slot - slotBorrow;
  uint32_t frameBorrow = 0;
  if (slot >= asUnsigned(kSlotsPerFrame)) {
    slot += asUnsigned(kSlotsPerFrame);
    frameBorrow = 1;
  }
  uint32_t frame = a.frame - b.frame - frameBorrow;
  if (frame > frameMask(sfn)) frame += frameModulus(sfn);
  return {frame, slot, btu};
}

// A wall-clock duration as a timing, every field truncated towards zero.
SAaLteTiming durationTiming(int32_t duration, uint32_t unit) {
  const int32_t us = unit != EAaLteFrameCalcTimeUnit_Milliseconds
                         ? duration
                         : asSigned(asUnsigned(duration) * asUnsigned(kMicrosecondsPerMillisecond));
  const int32_t slotRemainderUs = us % kMicrosecondsPerSlot;
  return {asUnsigned(us / kMicrosecondsPerFrame), asUnsigned((us % kMicrosecondsPerFrame) / kMicrosecondsPerSlot),
          asUnsigned(slotRemainderUs * kBtusPerSlot / kMicrosecondsPerSlot)};
}

// ---- Totals and distances ----

uint32_t slotsSinceFrameZero(const SAaLteTiming& timing) {
  return timing.slot + asUnsigned(kSlotsPerFrame) * timing.frame;
}

uint32_t btusIntoFrame(const SAaLteTiming& timing) { return timing.btu + asUnsigned(kBtusPerSlot) * timing.slot; }

uint32_t distBtus(const SAaLteTiming& from, const SAaLteTiming& to, uint32_t sfn) {
  const uint32_t frames = (to.frame + frameModulus(sfn) - from.frame) & frameMask(sfn);
  uint32_t distance = btusIntoFrame(to) - btusIntoFrame(from) + frames * kBtusPerFrame;
  if (asSigned(distance) < 0) distance += frameModulus(sfn) * kBtusPerFrame;
  return distance;
}

bool isFirst(const SAaLteTiming& a, const SAaLteTiming& b, const SAaLteTiming& ref, uint32_t sfn) {
  return distBtus(ref, a, sfn) < distBtus(ref, b, sfn);
}

// ---- Transmission offset ----

uint32_t offsetBtus(const SAaLteTiming& offset) {
  return asUnsigned(
      AaLteFrameCalcTotalOffsetBtusGet(asSigned(offset.frame), asSigned(offset.slot), asSigned(offset.btu)));
}

// timing plus the offset, with its frame not yet reduced.
SAaLteTiming addOffset(const SAaLteTiming& timing, const SAaLteTiming& offset) {
  return carryBtu(timing, offsetBtus(offset) + timing.btu, 0, truncatingNormalize);
}

// The computed 8-bit system frame number in the 256-frame block of refFrame.
uint32_t splicedFrame(uint32_t frame, uint32_t refFrame) { return (refFrame & ~kSfnMask) | (frame & kSfnMask); }

// The first frame at or after refFrame, within 256 frames, with the computed system frame number.
uint32_t committedFrame(uint32_t frame, uint32_t refFrame) {
  const uint32_t candidate = splicedFrame(frame, refFrame);
  const uint32_t behind = (refFrame - candidate + kFrameModulus + kSfnMask) & kFrameMask;
  return behind > kSfnMask ? (candidate + kSfnModulus) & kFrameMask : candidate;
}

constexpr uint32_t kCommittingSfnMode = 1;

SAaLteTiming invConverted(const SAaLteTiming& timing, const SAaLteTiming& offset, uint32_t refFrame, uint32_t sfnMode,
                          bool commit) {
  SAaLteTiming converted = addOffset(timing, offset);
  if (sfnMode == 0) {
    converted.frame &= kFrameMask;
  } else if (commit && sfnMode == kCommittingSfnMode) {
    converted.frame = committedFrame(converted.frame, refFrame);
  } else {
    converted.frame = splicedFrame(converted.frame, refFrame);
  }
  return converted;
}

// The null checks and the store of every function with a result code: all inputs are read before
// the output is written, so the output may be one of the inputs.
template <typename Output, typename Compute, typename... Inputs>
EAaLteFrameCalcRetVal produce(Output* result, Compute compute, const Inputs*... inputs) {
  if (anyNull(inputs..., result)) return kNullPointer;
  *result = compute(*inputs...);
  return kOk;
}

}  // namespace

extern "C" {

uint32_t AaLteFrameCalcFrameCheck(int32_t frame, uint32_t sfn) {
  return frame >= 0 && asUnsigned(frame) <= frameMask(sfn) ? 1 : 0;
}

uint32_t AaLteFrameCalcFrameDistGet(uint32_t frameA, uint32_t frameB, uint32_t sfn) {
  return (frameB + frameModulus(sfn) - frameA) & frameMask(sfn);
}

uint32_t AaLteFrameCalcFrameNextGet(uint32_t frame, uint32_t sfn) { return (frame + 1) & frameMask(sfn); }

uint32_t AaLteFrameCalcFramePrevGet(uint32_t frame, uint32_t sfn) { return (frame - 1) & frameMask(sfn); }

uint32_t AaLteFrameCalcFrameInsideWindowCheck(uint32_t frame, uint32_t start, int32_t length, int32_t lead,
                                              uint32_t sfn) {
  const uint32_t mask = frameMask(sfn);
  const uint32_t shifted = (((frame + frameModulus(sfn) - start) & mask) + asUnsigned(lead)) & mask;
  return asSigned(shifted) <= asSigned(asUnsigned(length) + asUnsigned(lead)) ? 1 : 0;
}

uint32_t AaLteFrameCalcFrameCloseEnoughCheck(uint32_t frameA, uint32_t frameB, int32_t maxDist, uint32_t sfn) {
  const uint32_t mask = frameMask(sfn);
  const uint32_t shifted = (((frameModulus(sfn) + frameA - frameB) & mask) + asUnsigned(maxDist)) & mask;
  return asSigned(shifted) <= asSigned(2 * asUnsigned(maxDist)) ? 1 : 0;
}

uint32_t AaLteFrameCalcFrameIsFirstCheck(uint32_t frameA, uint32_t frameB, uint32_t refFrame, uint32_t sfn) {
  return AaLteFrameCalcFrameDistGet(refFrame, frameB, sfn) > AaLteFrameCalcFrameDistGet(refFrame, frameA, sfn) ? 1 : 0;
}

EAaLteFrameCalcRetVal AaLteFrameCalcTotalBTUsGet(const SAaLteTiming* timing, uint32_t* totalBtus) {
  return produce(
      totalBtus, [](const SAaLteTiming& t) { return t.btu + asUnsigned(kBtusPerSlot) * slotsSinceFrameZero(t); },
      timing);
}

EAaLteFrameCalcRetVal AaLteFrameCalcTotalSlotsGet(const SAaLteTiming* timing, uint32_t* totalSlots) {
  return produce(totalSlots, slotsSinceFrameZero, timing);
}

int32_t AaLteFrameCalcTotalOffsetBtusGet(int32_t frames, int32_t units, int32_t btus) {
  const uint32_t allUnits = asUnsigned(units) + kOffsetUnitsPerFrame * asUnsigned(frames);
  return asSigned((asUnsigned(btus) + kOffsetHalfUnit + allUnits * kOffsetUnitBtus) & ~(kOffsetUnitBtus - 1));
}

int32_t AaLteFrameCalcTimingConvert(int32_t slots, int32_t btus) {
  const uint32_t btuSum = asUnsigned(btus) + asUnsigned(kBtusPerSlot) * asUnsigned(slots);
  return asSigned(btuSum * kMicrosecondsPerSlotU + kHalfSlotBtus) / kBtusPerSlot;
}

EAaLteFrameCalcRetVal AaLteFrameCalcFrameAdd(const SAaLteTiming* timing, int32_t frames, uint32_t sfn,
                                             SAaLteTiming* result) {
  return produce(
      result,
      [&](SAaLteTiming t) {
        return masked({t.frame + asUnsigned(frames), t.slot, t.btu}, sfn);
      },
      timing);
}

EAaLteFrameCalcRetVal AaLteFrameCalcFrameSubtract(const SAaLteTiming* timing, int32_t frames, uint32_t sfn,
                                                  SAaLteTiming* result) {
  return produce(
      result,
      [&](SAaLteTiming t) {
        return masked({t.frame - asUnsigned(frames), t.slot, t.btu}, sfn);
      },
      timing);
}

EAaLteFrameCalcRetVal AaLteFrameCalcSlotAdd(const SAaLteTiming* timing, int32_t slots, uint32_t sfn,
                                            SAaLteTiming* result) {
  const auto add = [&](const SAaLteTiming& t) {
    return masked(carrySlot(t.frame, t.slot + asUnsigned(slots), t.btu, truncatingNormalize), sfn);
  };
  return produce(result, add, timing);
}

EAaLteFrameCalcRetVal AaLteFrameCalcSlotSubtract(const SAaLteTiming* timing, int32_t slots, uint32_t sfn,
                                                 SAaLteTiming* result) {
  const auto subtract = [&](const SAaLteTiming& t) {
    return masked(carrySlot(t.frame, t.slot - asUnsigned(slots), t.btu, borrowNormalize), sfn);
  };
  return produce(result, subtract, timing);
}

EAaLteFrameCalcRetVal AaLteFrameCalcBtuAdd(const SAaLteTiming* timing, int32_t btus, uint32_t sfn,
                                           SAaLteTiming* result) {
  return AaLteFrameCalcBtuSlotAdd(timing, btus, 0, sfn, result);
}

EAaLteFrameCalcRetVal AaLteFrameCalcBtuSubtract(const SAaLteTiming* timing, int32_t btus, uint32_t sfn,
                                                SAaLteTiming* result) {
  const auto subtract = [&](const SAaLteTiming& t) {
    return masked(carryBtu(t, t.btu - asUnsigned(btus), 0, borrowNormalize), sfn);
  };
  return produce(result, subtract, timing);
}

EAaLteFrameCalcRetVal AaLteFrameCalcBtuSlotAdd(const SAaLteTiming* timing, int32_t btus, int32_t slots, uint32_t sfn,
                                               SAaLteTiming* result) {
  const auto add = [&](const SAaLteTiming& t) {
    return masked(carryBtu(t, t.btu + asUnsigned(btus), asUnsigned(slots), truncatingNormalize), sfn);
  };
  return produce(result, add, timing);
}

EAaLteFrameCalcRetVal AaLteFrameCalcTimingAdd(const SAaLteTiming* a, const SAaLteTiming* b, uint32_t sfn,
                                              SAaLteTiming* result) {
  return produce(
      result, [&](const SAaLteTiming& x, const SAaLteTiming& y) { return timingAdd(x, y, sfn); }, a, b);
}

EAaLteFrameCalcRetVal AaLteFrameCalcTimingSubtract(const SAaLteTiming* a, const SAaLteTiming* b, uint32_t sfn,
                                                   SAaLteTiming* result) {
  return produce(
      result, [&](const SAaLteTiming& x, const SAaLteTiming& y) { return timingSubtract(x, y, sfn); }, a, b);
}

// The wall-clock functions always wrap frames at 4096, whatever the caller's frame numbering: they
// have no frame-width argument.
EAaLteFrameCalcRetVal AaLteFrameCalcTimeAdd(const SAaLteTiming* timing, int32_t duration, uint32_t unit,
                                            SAaLteTiming* result) {
  const auto add = [&](const SAaLteTiming& t) { return timingAdd(t, durationTiming(duration, unit), 0); };
  return produce(result, add, timing);
}

EAaLteFrameCalcRetVal AaLteFrameCalcTimeSubtract(const SAaLteTiming* timing, int32_t duration, uint32_t unit,
                                                 SAaLteTiming* result) {
  const auto subtract = [&](const SAaLteTiming& t) { return timingSubtract(t, durationTiming(duration, unit), 0); };
  return produce(result, subtract, timing);
}

EAaLteFrameCalcRetVal AaLteFrameCalcNormalize(uint32_t sfn, SAaLteTiming* timing) {
  const auto normalize = [&](const SAaLteTiming& t) { return masked(carryBtu(t, t.btu, 0, floorNormalize), sfn); };
  return produce(timing, normalize, static_cast<const SAaLteTiming*>(timing));
}

EAaLteFrameCalcRetVal AaLteFrameCalcDistBtusGet(const SAaLteTiming* a, const SAaLteTiming* b, uint32_t sfn,
                                                uint32_t* btus) {
  return produce(
      btus, [&](const SAaLteTiming& x, const SAaLteTiming& y) { return distBtus(x, y, sfn); }, a, b);
}

EAaLteFrameCalcRetVal AaLteFrameCalcDistGet(const SAaLteTiming* a, const SAaLteTiming* b, uint32_t sfn,
                                            SAaLteTiming* distance) {
  const auto split = [&](const SAaLteTiming& x, const SAaLteTiming& y) {
    const uint32_t btus = distBtus(x, y, sfn);
    const uint32_t btusIntoLastFrame = btus % kBtusPerFrame;
    return SAaLteTiming{btus / kBtusPerFrame, btusIntoLastFrame / asUnsigned(kBtusPerSlot),
                        btusIntoLastFrame % asUnsigned(kBtusPerSlot)};
  };
  return produce(distance, split, a, b);
}

uint32_t AaLteFrameCalcIsFirstCheck(const SAaLteTiming* a, const SAaLteTiming* b, const SAaLteTiming* ref,
                                    uint32_t sfn) {
  if (anyNull(a, b, ref)) return 0;
  return isFirst(*a, *b, *ref, sfn) ? 1 : 0;
}

uint32_t AaLteFrameCalcCloseEnoughCheck(const SAaLteTiming* a, const SAaLteTiming* b, const SAaLteTiming* ref,
                                        int32_t maxBtus, uint32_t sfn) {
  if (anyNull(a, b, ref)) return 0;
  const bool aFirst = isFirst(*a, *b, *ref, sfn);
  const SAaLteTiming& earlier = aFirst ? *a : *b;
  const SAaLteTiming& later = aFirst ? *b : *a;
  return asSigned(distBtus(earlier, later, sfn)) <= maxBtus ? 1 : 0;
}

EAaLteFrameCalcRetVal AaLteFrameCalcConvert(const SAaLteTiming* timing, const SAaLteTiming* offset, uint32_t sfn,
                                            SAaLteTiming* result) {
  const auto convert = [&](const SAaLteTiming& t, const SAaLteTiming& o) {
    return masked(carryBtu(t, t.btu - offsetBtus(o), 0, borrowNormalize), sfn);
  };
  return produce(result, convert, timing, offset);
}

EAaLteFrameCalcRetVal AaLteFrameCalcInvConvert(const SAaLteTiming* timing, const SAaLteTiming* offset,
                                               uint32_t refFrame, uint32_t sfnMode, SAaLteTiming* result) {
  const auto convert = [&](const SAaLteTiming& t, const SAaLteTiming& o) {
    return invConverted(t, o, refFrame, sfnMode, false);
  };
  return produce(result, convert, timing, offset);
}

EAaLteFrameCalcRetVal AaLteFrameCalcCommitInvConvert(const SAaLteTiming* timing, const SAaLteTiming* offset,
                                                     uint32_t refFrame, uint32_t sfnMode, SAaLteTiming* result) {
  const auto convert = [&](const SAaLteTiming& t, const SAaLteTiming& o) {
    return invConverted(t, o, refFrame, sfnMode, true);
  };
  return produce(result, convert, timing, offset);
}

}  // extern "C"
