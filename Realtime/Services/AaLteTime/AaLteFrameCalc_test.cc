#include "AaLteFrameCalc.h"

#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <iterator>
#include <limits>
#include <random>
#include <string>

namespace {

// A model of the rules in exact 64-bit integers: floor division where a rule floors, C++'s
// truncating division where a rule truncates, and an explicit reduction to 32 bits wherever a rule
// computes a 32-bit field. Valid timings are also checked against plain total-BTU arithmetic.

using i64 = int64_t;
constexpr i64 kTwoTo32 = i64{1} << 32;
constexpr i64 kSlotBtus = 15360;
constexpr i64 kSlots = 20;
constexpr i64 kFrameBtus = 307200;
constexpr uint32_t kEightBit = 1;  // any non-zero frame-width flag
constexpr uint32_t kTwelveBit = 0;

i64 floorDiv(i64 x, i64 n) { return x / n - ((x % n != 0 && x < 0) ? 1 : 0); }
i64 floorMod(i64 x, i64 n) { return x - n * floorDiv(x, n); }
i64 wrap32(i64 x) {
  const i64 low = floorMod(x, kTwoTo32);
  return low >= kTwoTo32 / 2 ? low - kTwoTo32 : low;
}
i64 signedField(uint32_t field) { return wrap32(field); }
uint32_t toField(i64 x) { return static_cast<uint32_t>(floorMod(x, kTwoTo32)); }
i64 modulusOf(uint32_t sfn) { return sfn != 0 ? 256 : 4096; }

using Fields = std::array<uint32_t, 3>;
Fields fields(const SAaLteTiming& t) { return {t.frame, t.slot, t.btu}; }
std::string text(const SAaLteTiming& t) {
  return "(" + std::to_string(t.frame) + ", " + std::to_string(t.slot) + ", " + std::to_string(t.btu) + ")";
}

// Set when the borrow formula meets x = INT32_MAX, where its x + 1 has no 32-bit value; there only
// the absence of overflow (the sanitizer build) is checked.
bool modelLeft32Bits = false;

enum class Reduction { Floor, Borrow, Truncate };
struct Split {
  i64 field, carry;
};
Split reduce(Reduction kind, i64 x, i64 n) {
  if (x >= 0 && x < n) return {x, 0};
  if (kind == Reduction::Truncate) return {x % n, x / n};
  if (kind == Reduction::Floor || x < 0) return {floorMod(x, n), floorDiv(x, n)};
  // Borrowing a value that is too large: the negative-value formula keeps the total.
  if (x == std::numeric_limits<int32_t>::max()) modelLeft32Bits = true;
  const i64 carry = floorDiv(x + 1, n) - 1;
  return {x - n * carry, carry};
}

struct ModelTiming {
  i64 frame, slot, btu;  // frame not yet reduced
  SAaLteTiming masked(uint32_t sfn) const {
    return {toField(floorMod(frame, modulusOf(sfn))), toField(slot), toField(btu)};
  }
};

ModelTiming carrySlot(const SAaLteTiming& t, i64 slot, i64 btu, Reduction kind) {
  const Split s = reduce(kind, wrap32(slot), kSlots);
  return {wrap32(signedField(t.frame) + s.carry), s.field, btu};
}
ModelTiming carryBtu(const SAaLteTiming& t, i64 btu, i64 extraSlots, Reduction kind) {
  const Split b = reduce(kind, wrap32(btu), kSlotBtus);
  return carrySlot(t, signedField(t.slot) + extraSlots + b.carry, b.field, kind);
}

i64 offsetModel(const SAaLteTiming& o) {
  const i64 btus = signedField(o.btu) + 1024 * signedField(o.slot) + kFrameBtus * signedField(o.frame);
  return wrap32(floorDiv(btus + 512, 1024) * 1024);  // nearest multiple of 1024, halves up
}

i64 distModel(const SAaLteTiming& a, const SAaLteTiming& b, uint32_t sfn) {
  const i64 m = modulusOf(sfn);
  const i64 frames = floorMod(signedField(b.frame) - signedField(a.frame), m);
  i64 d = wrap32(signedField(b.btu) - signedField(a.btu) + kSlotBtus * (signedField(b.slot) - signedField(a.slot)) +
                 frames * kFrameBtus);
  if (d < 0) d += m * kFrameBtus;
  return d;
}

SAaLteTiming timingAddModel(const SAaLteTiming& a, const SAaLteTiming& b, uint32_t sfn) {
  i64 btu = (i64{a.btu} + b.btu) % kTwoTo32;
  const i64 slotCarry = btu >= kSlotBtus ? 1 : 0;
  btu %= kSlotBtus;
  i64 slot = wrap32(signedField(a.slot) + signedField(b.slot) + slotCarry);
  const i64 frameCarry = (slot < 0 || slot >= kSlots) ? 1 : 0;
  slot %= kSlots;
  return {toField(floorMod(i64{a.frame} + b.frame + frameCarry, modulusOf(sfn))), toField(slot), toField(btu)};
}

SAaLteTiming timingSubtractModel(const SAaLteTiming& a, const SAaLteTiming& b, uint32_t sfn) {
  i64 btu = wrap32(signedField(a.btu) - signedField(b.btu));
  const i64 slotBorrow = toField(btu) >= kSlotBtus ? 1 : 0;
  btu += slotBorrow * kSlotBtus;
  i64 slot = wrap32(signedField(a.slot) - signedField(b.slot) - slotBorrow);
  const i64 frameBorrow = toField(slot) >= kSlots ? 1 : 0;
  slot += frameBorrow * kSlots;
  i64 frame = wrap32(signedField(a.frame) - signedField(b.frame) - frameBorrow);
  if (frame < 0 || frame >= modulusOf(sfn)) frame += modulusOf(sfn);
  return {toField(frame), toField(slot), toField(btu)};
}

i64 totalOf(const SAaLteTiming& t) { return i64{t.frame} * kFrameBtus + i64{t.slot} * kSlotBtus + t.btu; }
SAaLteTiming fromTotal(i64 total, i64 modulus) {
  const i64 x = floorMod(total, modulus * kFrameBtus);
  return {toField(x / kFrameBtus), toField(x % kFrameBtus / kSlotBtus), toField(x % kSlotBtus)};
}

class Draw {
 public:
  // Mostly valid values, then values just outside the range, moderate negatives, any 32 bits and
  // the ends of the 32-bit range (where the sanitizer build would see an overflow).
  uint32_t field(uint32_t count) {
    static constexpr uint32_t kEnds[] = {0x7FFFFFFE, 0x7FFFFFFF, 0x80000000, 0x80000001, 0xFFFFFFFF};
    switch (next(7)) {
      case 0:
        return next(count) - 2;
      case 1:
        return count - 2 + next(4);
      case 2:
        return toField(i64{next(2000000)} - 1000000);
      case 3:
        return rng_();
      case 4:
        return kEnds[next(5)];
      default:
        return next(count);
    }
  }
  SAaLteTiming anyTiming() { return {field(4096), field(20), field(15360)}; }
  SAaLteTiming validTiming(uint32_t sfn) {
    return {next(static_cast<uint32_t>(modulusOf(sfn))), next(20), next(15360)};
  }
  int32_t anyCount() { return static_cast<int32_t>(field(next(2) ? 20 : 15360)); }
  uint32_t sfn() { return next(2) ? kTwelveBit : rng_() | 1; }
  uint32_t next(uint32_t count) { return std::uniform_int_distribution<uint32_t>(0, count - 1)(rng_); }

 private:
  std::mt19937 rng_{0x5EED};
};

constexpr int kRounds = 20000;

// ---- Frame numbers ----

TEST(AaLteFrameCalcFrames, WrapAtTheWidthOfTheFlag) {
  EXPECT_EQ(AaLteFrameCalcFrameNextGet(255, kEightBit), 0u);
  EXPECT_EQ(AaLteFrameCalcFrameNextGet(255, kTwelveBit), 256u);
  EXPECT_EQ(AaLteFrameCalcFrameNextGet(4095, kTwelveBit), 0u);
  EXPECT_EQ(AaLteFrameCalcFrameNextGet(255, 0x100), 0u);  // every non-zero flag means 8 bits
  EXPECT_EQ(AaLteFrameCalcFramePrevGet(0, kEightBit), 255u);
  EXPECT_EQ(AaLteFrameCalcFramePrevGet(0, kTwelveBit), 4095u);
  EXPECT_EQ(AaLteFrameCalcFrameDistGet(250, 5, kEightBit), 11u);
  EXPECT_EQ(AaLteFrameCalcFrameDistGet(5, 250, kEightBit), 245u);
  EXPECT_EQ(AaLteFrameCalcFrameDistGet(250, 5, kTwelveBit), 3851u);

  EXPECT_EQ(AaLteFrameCalcFrameCheck(-1, kTwelveBit), 0u);
  EXPECT_EQ(AaLteFrameCalcFrameCheck(std::numeric_limits<int32_t>::min(), kEightBit), 0u);
  EXPECT_EQ(AaLteFrameCalcFrameCheck(255, kEightBit), 1u);
  EXPECT_EQ(AaLteFrameCalcFrameCheck(256, kEightBit), 0u);
  EXPECT_EQ(AaLteFrameCalcFrameCheck(4095, kTwelveBit), 1u);
  EXPECT_EQ(AaLteFrameCalcFrameCheck(4096, kTwelveBit), 0u);
}

// Every frame against windows and distances stated as sets of frames, across the wrap both ways.
TEST(AaLteFrameCalcFrames, WindowClosenessAndOrderMatchTheFramesTheyDescribe) {
  for (uint32_t sfn : {kEightBit, kTwelveBit}) {
    const i64 m = modulusOf(sfn);
    for (i64 start : {i64{0}, i64{3}, m - 2}) {
      for (i64 span : {i64{0}, i64{1}, i64{5}, m / 2 - 1}) {
        const i64 lead = span / 2 + 1;
        const auto s = uint32_t(start);
        const uint32_t ref = toField(floorMod(start - span, m));
        for (i64 frame = 0; frame < m; ++frame) {
          const i64 sinceStart = floorMod(frame - start, m);
          const uint32_t inWindow = sinceStart <= span || sinceStart >= m - lead;
          const uint32_t close = sinceStart <= span || sinceStart >= m - span;
          const uint32_t startFirst = floorMod(start - ref, m) < floorMod(frame - ref, m);
          const auto f = uint32_t(frame);
          SCOPED_TRACE("sfn " + std::to_string(sfn) + " start " + std::to_string(start) + " span " +
                       std::to_string(span) + " frame " + std::to_string(frame));
          EXPECT_EQ(AaLteFrameCalcFrameInsideWindowCheck(f, s, int32_t(span), int32_t(lead), sfn), inWindow);
          EXPECT_EQ(AaLteFrameCalcFrameCloseEnoughCheck(f, s, int32_t(span), sfn), close);
          EXPECT_EQ(AaLteFrameCalcFrameCloseEnoughCheck(s, f, int32_t(span), sfn), close);
          EXPECT_EQ(AaLteFrameCalcFrameIsFirstCheck(s, f, ref, sfn), startFirst);
        }
      }
    }
  }
  // A negative window or distance holds no frame, not even the start.
  EXPECT_EQ(AaLteFrameCalcFrameInsideWindowCheck(7, 7, -2, 1, kTwelveBit), 0u);
  EXPECT_EQ(AaLteFrameCalcFrameCloseEnoughCheck(7, 7, -1, kEightBit), 0u);
}

// ---- Totals and unit conversions ----

TEST(AaLteFrameCalcTotals, CountFromFrameZeroAndWrapAt32Bits) {
  uint32_t total = 0;
  const SAaLteTiming last{4095, 19, 15359}, far{14000, 0, 5};
  ASSERT_EQ(AaLteFrameCalcTotalBTUsGet(&last, &total), EAaLteFrameCalcRetVal_Ok);
  EXPECT_EQ(total, 4096u * 307200u - 1);
  ASSERT_EQ(AaLteFrameCalcTotalSlotsGet(&last, &total), EAaLteFrameCalcRetVal_Ok);
  EXPECT_EQ(total, 4096u * 20u - 1);
  ASSERT_EQ(AaLteFrameCalcTotalBTUsGet(&far, &total), EAaLteFrameCalcRetVal_Ok);
  EXPECT_EQ(total, toField(14000 * kFrameBtus + 5));
}

TEST(AaLteFrameCalcTotals, OffsetRoundsToTheNearest1024BtusHalvesUp) {
  EXPECT_EQ(AaLteFrameCalcTotalOffsetBtusGet(0, 0, 511), 0);
  EXPECT_EQ(AaLteFrameCalcTotalOffsetBtusGet(0, 0, 512), 1024);
  EXPECT_EQ(AaLteFrameCalcTotalOffsetBtusGet(1, 2, 0), 307200 + 2048);
  EXPECT_EQ(AaLteFrameCalcTotalOffsetBtusGet(0, -1, -512), -1024);
  EXPECT_EQ(AaLteFrameCalcTotalOffsetBtusGet(0, -1, -513), -2048);
  Draw draw;
  for (int i = 0; i < kRounds; ++i) {
    const SAaLteTiming o = draw.anyTiming();
    ASSERT_EQ(AaLteFrameCalcTotalOffsetBtusGet(int32_t(o.frame), int32_t(o.slot), int32_t(o.btu)), offsetModel(o))
        << text(o);
  }
}

TEST(AaLteFrameCalcTotals, TimingConvertGivesMicrosecondsRoundedToNearest) {
  EXPECT_EQ(AaLteFrameCalcTimingConvert(1, 0), 500);
  EXPECT_EQ(AaLteFrameCalcTimingConvert(0, 15), 0);
  EXPECT_EQ(AaLteFrameCalcTimingConvert(0, 16), 1);
  EXPECT_EQ(AaLteFrameCalcTimingConvert(3, 7000), 1728);
  EXPECT_EQ(AaLteFrameCalcTimingConvert(-1, 0), -499);  // the signed division truncates
}

// ---- Stepping a timing by a signed count ----

using StepFunction = EAaLteFrameCalcRetVal (*)(const SAaLteTiming*, int32_t, uint32_t, SAaLteTiming*);

struct Step {
  const char* name;
  StepFunction function;
  i64 btusPerCount;  // negative for the subtract functions
  ModelTiming (*model)(const SAaLteTiming& t, i64 count);
};

const Step kSteps[] = {
    {"FrameAdd", AaLteFrameCalcFrameAdd, kFrameBtus,
     [](const SAaLteTiming& t, i64 n) { return ModelTiming{t.frame + n, t.slot, t.btu}; }},
    {"FrameSubtract", AaLteFrameCalcFrameSubtract, -kFrameBtus,
     [](const SAaLteTiming& t, i64 n) { return ModelTiming{t.frame - n, t.slot, t.btu}; }},
    {"SlotAdd", AaLteFrameCalcSlotAdd, kSlotBtus,
     [](const SAaLteTiming& t, i64 n) { return carrySlot(t, signedField(t.slot) + n, t.btu, Reduction::Truncate); }},
    {"SlotSubtract", AaLteFrameCalcSlotSubtract, -kSlotBtus,
     [](const SAaLteTiming& t, i64 n) { return carrySlot(t, signedField(t.slot) - n, t.btu, Reduction::Borrow); }},
    {"BtuAdd", AaLteFrameCalcBtuAdd, 1,
     [](const SAaLteTiming& t, i64 n) { return carryBtu(t, signedField(t.btu) + n, 0, Reduction::Truncate); }},
    {"BtuSubtract", AaLteFrameCalcBtuSubtract, -1,
     [](const SAaLteTiming& t, i64 n) { return carryBtu(t, signedField(t.btu) - n, 0, Reduction::Borrow); }},
};

class AaLteFrameCalcStep : public ::testing::TestWithParam<Step> {};

// A valid timing moves by the count modulo the frame width; any fields follow the reduction rules.
TEST_P(AaLteFrameCalcStep, MatchesTotalsOnValidTimingsAndTheRulesOnAnyFields) {
  const Step& step = GetParam();
  Draw draw;
  for (int i = 0; i < kRounds; ++i) {
    const uint32_t sfn = draw.sfn();
    const SAaLteTiming valid = draw.validTiming(sfn), any = draw.anyTiming();
    const auto count = int32_t(draw.next(i % 2 ? 50 : 0x7FFF0000));
    const int32_t anyCount = draw.anyCount();
    SCOPED_TRACE(text(valid) + " by " + std::to_string(count) + ", " + text(any) + " by " + std::to_string(anyCount));
    SAaLteTiming result{};
    ASSERT_EQ(step.function(&valid, count, sfn, &result), EAaLteFrameCalcRetVal_Ok);
    ASSERT_EQ(fields(result), fields(fromTotal(totalOf(valid) + step.btusPerCount * count, modulusOf(sfn))));
    modelLeft32Bits = false;
    const SAaLteTiming expected = step.model(any, anyCount).masked(sfn);
    result = any;  // in place: the output may be the input
    ASSERT_EQ(step.function(&result, anyCount, sfn, &result), EAaLteFrameCalcRetVal_Ok);
    if (!modelLeft32Bits) { ASSERT_EQ(fields(result), fields(expected)); }
  }
}

INSTANTIATE_TEST_SUITE_P(Functions, AaLteFrameCalcStep, ::testing::ValuesIn(kSteps),
                         [](const ::testing::TestParamInfo<Step>& info) { return std::string(info.param.name); });

TEST(AaLteFrameCalcBtuSlotAdd, FollowsTheTruncatingRulesOnAnyFields) {
  Draw draw;
  for (int i = 0; i < kRounds; ++i) {
    const uint32_t sfn = draw.sfn();
    const SAaLteTiming t = draw.anyTiming();
    const int32_t btus = draw.anyCount(), slots = draw.anyCount();
    SAaLteTiming result{};
    ASSERT_EQ(AaLteFrameCalcBtuSlotAdd(&t, btus, slots, sfn, &result), EAaLteFrameCalcRetVal_Ok);
    ASSERT_EQ(fields(result), fields(carryBtu(t, signedField(t.btu) + btus, slots, Reduction::Truncate).masked(sfn)))
        << text(t) << " + " << btus << " BTUs " << slots << " slots";
  }
}

// ---- Cases the arithmetic must get right, and its deliberate quirks ----

using PairFunction = EAaLteFrameCalcRetVal (*)(const SAaLteTiming*, const SAaLteTiming*, uint32_t, SAaLteTiming*);
using InvConvertFunction = EAaLteFrameCalcRetVal (*)(const SAaLteTiming*, const SAaLteTiming*, uint32_t, uint32_t,
                                                     SAaLteTiming*);
constexpr uint32_t kMinus1 = 0xFFFFFFFF;
constexpr uint32_t kMinus904 = 0xFFFFFC78;
constexpr uint32_t kMicroseconds = EAaLteFrameCalcTimeUnit_Microseconds;
constexpr uint32_t kMilliseconds = EAaLteFrameCalcTimeUnit_Milliseconds;

TEST(AaLteFrameCalcCases, SteppingByACount) {
  // The wall-clock functions take a unit where the others take the frame-width flag.
  const struct {
    const char* what;
    StepFunction function;
    SAaLteTiming t;
    int32_t count;
    uint32_t flag;
    Fields expected;
  } cases[] = {
      {"slot borrow from frame 0", AaLteFrameCalcSlotSubtract, {0, 0, 7}, 1, kEightBit, {255, 19, 7}},
      {"slot borrow from frame 0", AaLteFrameCalcSlotSubtract, {0, 0, 7}, 1, kTwelveBit, {4095, 19, 7}},
      {"-1 slot truncates: the slot stays negative", AaLteFrameCalcSlotAdd, {5, 0, 0}, -1, kTwelveBit, {5, kMinus1, 0}},
      {"borrowing a negative count keeps a too large slot", AaLteFrameCalcSlotSubtract, {3, 0, 0}, -25, 0, {3, 25, 0}},
      {"15361 BTUs back from zero", AaLteFrameCalcBtuSubtract, {0, 0, 0}, 15361, kEightBit, {255, 18, 15359}},
      {"15361 BTUs back from zero", AaLteFrameCalcBtuSubtract, {0, 0, 0}, 15361, kTwelveBit, {4095, 18, 15359}},
      {"a BTU forward from the last of a frame", AaLteFrameCalcBtuAdd, {4095, 19, 15359}, 1, kTwelveBit, {0, 0, 0}},
      {"25 ms are 2 frames and 10 slots", AaLteFrameCalcTimeAdd, {1, 0, 0}, 25, kMilliseconds, {3, 10, 0}},
      {"1 us is 30 BTUs", AaLteFrameCalcTimeAdd, {1, 2, 3}, 1, kMicroseconds, {1, 2, 33}},
      {"wall-clock time wraps frames at 4096 only", AaLteFrameCalcTimeAdd, {255, 0, 0}, 10000, 1, {256, 0, 0}},
      {"wall-clock time back across frame 0", AaLteFrameCalcTimeSubtract, {0, 0, 0}, 1, kMilliseconds, {4095, 18, 0}},
      {"50 s back: 4096 added once", AaLteFrameCalcTimeSubtract, {0, 0, 0}, 50000, kMilliseconds, {kMinus904, 0, 0}},
  };
  for (const auto& c : cases) {
    SAaLteTiming result{};
    EXPECT_EQ(c.function(&c.t, c.count, c.flag, &result), EAaLteFrameCalcRetVal_Ok) << c.what;
    EXPECT_EQ(fields(result), c.expected) << c.what << " " << c.flag;
  }
  SAaLteTiming t{9, 0, 0};
  ASSERT_EQ(AaLteFrameCalcBtuSlotAdd(&t, -15361, 0, kTwelveBit, &t), EAaLteFrameCalcRetVal_Ok);
  EXPECT_EQ(fields(t), (Fields{9, kMinus1, kMinus1}));  // both fields truncated towards zero
  t = {0, 0, kMinus1};
  ASSERT_EQ(AaLteFrameCalcNormalize(kTwelveBit, &t), EAaLteFrameCalcRetVal_Ok);
  EXPECT_EQ(fields(t), (Fields{4095, 19, 15359}));  // floored, borrowing from every field
}

TEST(AaLteFrameCalcCases, TwoTimings) {
  const struct {
    const char* what;
    PairFunction function;
    SAaLteTiming a, b;
    uint32_t sfn;
    Fields expected;
  } cases[] = {
      {"add with carries", AaLteFrameCalcTimingAdd, {0, 19, 15359}, {0, 0, 1}, kEightBit, {1, 0, 0}},
      {"add carries once only", AaLteFrameCalcTimingAdd, {255, 19, 0}, {0, 30, 40000}, kEightBit, {0, 10, 9280}},
      {"subtract below frame 0", AaLteFrameCalcTimingSubtract, {0, 0, 0}, {0, 0, 1}, kEightBit, {255, 19, 15359}},
      {"subtract adds M once", AaLteFrameCalcTimingSubtract, {300, 0, 0}, {1, 0, 0}, kEightBit, {299 + 256, 0, 0}},
      {"distance across the 8-bit wrap", AaLteFrameCalcDistGet, {1, 0, 0}, {0, 0, 0}, kEightBit, {255, 0, 0}},
      {"offset of 45 units borrows 3 slots", AaLteFrameCalcConvert, {0, 1, 0}, {0, 45, 0}, kEightBit, {255, 18, 0}},
  };
  for (const auto& c : cases) {
    SAaLteTiming result{};
    EXPECT_EQ(c.function(&c.a, &c.b, c.sfn, &result), EAaLteFrameCalcRetVal_Ok) << c.what;
    EXPECT_EQ(fields(result), c.expected) << c.what;
  }
}

TEST(AaLteFrameCalcCases, SystemFrameNumberSplicedIntoTheReference) {
  const struct {
    const char* what;
    InvConvertFunction function;
    uint32_t computedFrame, refFrame, mode, expectedFrame;
  } cases[] = {
      {"committed to the next block", AaLteFrameCalcCommitInvConvert, 10, 300, 1, 522},
      {"committed to the reference's block", AaLteFrameCalcCommitInvConvert, 50, 300, 1, 306},
      {"the reference itself", AaLteFrameCalcCommitInvConvert, 44, 300, 1, 300},
      {"committed across frame 4095", AaLteFrameCalcCommitInvConvert, 1, 4000, 1, 1},
      {"other modes splice without committing", AaLteFrameCalcCommitInvConvert, 10, 300, 2, 266},
      {"mode 0 takes 12 bits", AaLteFrameCalcCommitInvConvert, 4097, 300, 0, 1},
      {"the splice keeps every high bit", AaLteFrameCalcInvConvert, 0x10A, 0x12345, 1, 0x1230A},
      {"mode 0 takes 12 bits", AaLteFrameCalcInvConvert, 4097, 300, 0, 1},
  };
  const SAaLteTiming noOffset{};
  for (const auto& c : cases) {
    const SAaLteTiming t{c.computedFrame, 4, 5};
    SAaLteTiming result{};
    EXPECT_EQ(c.function(&t, &noOffset, c.refFrame, c.mode, &result), EAaLteFrameCalcRetVal_Ok) << c.what;
    EXPECT_EQ(fields(result), (Fields{c.expectedFrame, 4, 5})) << c.what;
  }
}

// ---- Two timings ----

// Valid timings add, subtract and compare as totals; any fields follow the field rules.
TEST(AaLteFrameCalcTwoTimings, MatchTotalsOnValidTimingsAndTheRulesOnAnyFields) {
  Draw draw;
  for (int i = 0; i < kRounds; ++i) {
    const uint32_t sfn = draw.sfn();
    const i64 m = modulusOf(sfn);
    const SAaLteTiming a = draw.validTiming(sfn), b = draw.validTiming(sfn);
    const SAaLteTiming ref = i % 4 ? draw.validTiming(sfn) : a;
    const SAaLteTiming x = draw.anyTiming(), y = draw.anyTiming(), anyRef = draw.anyTiming();
    SCOPED_TRACE(text(a) + " " + text(b) + " ref " + text(ref) + ", " + text(x) + " " + text(y) + " ref " +
                 text(anyRef) + " sfn " + std::to_string(sfn));
    SAaLteTiming result{};
    ASSERT_EQ(AaLteFrameCalcTimingAdd(&a, &b, sfn, &result), EAaLteFrameCalcRetVal_Ok);
    ASSERT_EQ(fields(result), fields(fromTotal(totalOf(a) + totalOf(b), m)));
    ASSERT_EQ(AaLteFrameCalcTimingSubtract(&a, &b, sfn, &result), EAaLteFrameCalcRetVal_Ok);
    ASSERT_EQ(fields(result), fields(fromTotal(totalOf(a) - totalOf(b), m)));

    const i64 forward = floorMod(totalOf(b) - totalOf(a), m * kFrameBtus);
    uint32_t distance = 0;
    ASSERT_EQ(AaLteFrameCalcDistBtusGet(&a, &b, sfn, &distance), EAaLteFrameCalcRetVal_Ok);
    ASSERT_EQ(distance, forward);
    ASSERT_EQ(AaLteFrameCalcDistGet(&a, &b, sfn, &result), EAaLteFrameCalcRetVal_Ok);
    ASSERT_EQ(fields(result), fields(fromTotal(forward, m)));

    const i64 toA = floorMod(totalOf(a) - totalOf(ref), m * kFrameBtus);
    const i64 toB = floorMod(totalOf(b) - totalOf(ref), m * kFrameBtus);
    ASSERT_EQ(AaLteFrameCalcIsFirstCheck(&a, &b, &ref, sfn), toA < toB ? 1u : 0u);
    const i64 apart = toA > toB ? toA - toB : toB - toA;
    for (i64 maxBtus : {apart - 1, apart}) {
      ASSERT_EQ(AaLteFrameCalcCloseEnoughCheck(&a, &b, &ref, int32_t(maxBtus), sfn), maxBtus >= apart ? 1u : 0u);
      ASSERT_EQ(AaLteFrameCalcCloseEnoughCheck(&b, &a, &ref, int32_t(maxBtus), sfn), maxBtus >= apart ? 1u : 0u);
    }

    ASSERT_EQ(AaLteFrameCalcTimingAdd(&x, &y, sfn, &result), EAaLteFrameCalcRetVal_Ok);
    ASSERT_EQ(fields(result), fields(timingAddModel(x, y, sfn)));
    ASSERT_EQ(AaLteFrameCalcTimingSubtract(&x, &y, sfn, &result), EAaLteFrameCalcRetVal_Ok);
    ASSERT_EQ(fields(result), fields(timingSubtractModel(x, y, sfn)));
    ASSERT_EQ(AaLteFrameCalcDistBtusGet(&x, &y, sfn, &distance), EAaLteFrameCalcRetVal_Ok);
    ASSERT_EQ(distance, toField(distModel(x, y, sfn)));
    const bool xFirst = toField(distModel(anyRef, x, sfn)) < toField(distModel(anyRef, y, sfn));
    ASSERT_EQ(AaLteFrameCalcIsFirstCheck(&x, &y, &anyRef, sfn), xFirst ? 1u : 0u);
    const i64 anyApart = xFirst ? distModel(x, y, sfn) : distModel(y, x, sfn);
    const auto maxBtus = int32_t(draw.field(2 * 307200));
    ASSERT_EQ(AaLteFrameCalcCloseEnoughCheck(&x, &y, &anyRef, maxBtus, sfn), anyApart <= maxBtus ? 1u : 0u);
  }
}

TEST(AaLteFrameCalcTwoTimings, DistanceEnds) {
  uint32_t distance = 1;
  const SAaLteTiming zero{0, 0, 0}, one{1, 0, 0};
  ASSERT_EQ(AaLteFrameCalcDistBtusGet(&one, &one, kEightBit, &distance), EAaLteFrameCalcRetVal_Ok);
  EXPECT_EQ(distance, 0u);
  ASSERT_EQ(AaLteFrameCalcDistBtusGet(&one, &zero, kEightBit, &distance), EAaLteFrameCalcRetVal_Ok);
  EXPECT_EQ(distance, 78336000u);
  ASSERT_EQ(AaLteFrameCalcDistBtusGet(&one, &zero, kTwelveBit, &distance), EAaLteFrameCalcRetVal_Ok);
  EXPECT_EQ(distance, 4095u * 307200u);
  // Equal timings: neither comes first, and they are close at any distance of 0 or more.
  EXPECT_EQ(AaLteFrameCalcIsFirstCheck(&one, &one, &zero, kEightBit), 0u);
  EXPECT_EQ(AaLteFrameCalcCloseEnoughCheck(&one, &one, &zero, 0, kEightBit), 1u);
  EXPECT_EQ(AaLteFrameCalcCloseEnoughCheck(&one, &one, &zero, -1, kEightBit), 0u);
}

// ---- Wall-clock durations, normalising and the transmission offset ----

TEST(AaLteFrameCalcConversions, WallClockDurationsMoveValidTimingsByTruncatedBtus) {
  Draw draw;
  for (int i = 0; i < kRounds; ++i) {
    const SAaLteTiming t = draw.validTiming(kTwelveBit);
    const uint32_t unit = i % 2;  // microseconds or milliseconds
    const i64 duration = draw.next(unit ? 0x7FFFFFFF : 2147483);
    const i64 us = unit ? duration : duration * 1000;
    const i64 btus = floorDiv(us * 3072, 100);  // us * 30.72, truncated
    SCOPED_TRACE(text(t) + " and " + std::to_string(us) + " us");
    SAaLteTiming result{};
    ASSERT_EQ(AaLteFrameCalcTimeAdd(&t, int32_t(duration), unit, &result), EAaLteFrameCalcRetVal_Ok);
    ASSERT_EQ(fields(result), fields(fromTotal(totalOf(t) + btus, 4096)));
    if (us >= 4096 * 10000) continue;  // beyond one cycle back the frame is corrected only once
    ASSERT_EQ(AaLteFrameCalcTimeSubtract(&t, int32_t(duration), unit, &result), EAaLteFrameCalcRetVal_Ok);
    ASSERT_EQ(fields(result), fields(fromTotal(totalOf(t) - btus, 4096)));
  }
}

TEST(AaLteFrameCalcConversions, NormalizeFloorsEveryFieldAndKeepsTheTotal) {
  Draw draw;
  for (int i = 0; i < kRounds; ++i) {
    const uint32_t sfn = draw.sfn();
    const SAaLteTiming before = draw.anyTiming();
    SAaLteTiming t = before;
    ASSERT_EQ(AaLteFrameCalcNormalize(sfn, &t), EAaLteFrameCalcRetVal_Ok);
    ASSERT_EQ(fields(t), fields(carryBtu(before, signedField(before.btu), 0, Reduction::Floor).masked(sfn)))
        << text(before);
    const i64 slot = signedField(before.slot);
    if (slot <= -(1 << 30) || slot >= (1 << 30)) continue;  // slot + carry would wrap at 32 bits
    const i64 total = signedField(before.frame) * kFrameBtus + slot * kSlotBtus + signedField(before.btu);
    ASSERT_EQ(fields(t), fields(fromTotal(total, modulusOf(sfn)))) << text(before);
  }
}

// Valid timings move by the rounded offset; any fields follow the field rules.
TEST(AaLteFrameCalcConversions, OffsetConversionsMatchTotalsOnValidTimingsAndTheRulesOnAnyFields) {
  Draw draw;
  for (int i = 0; i < kRounds; ++i) {
    const uint32_t sfn = draw.sfn();
    const SAaLteTiming t = draw.validTiming(sfn);
    const SAaLteTiming offset{draw.next(5000), draw.next(1000), draw.next(100000)};
    const uint32_t refFrame = draw.next(4096);
    const SAaLteTiming anyT = draw.anyTiming(), anyOffset = draw.anyTiming();
    SCOPED_TRACE(text(t) + " offset " + text(offset) + " ref " + std::to_string(refFrame) + ", " + text(anyT) +
                 " offset " + text(anyOffset));
    SAaLteTiming result{};
    ASSERT_EQ(AaLteFrameCalcConvert(&t, &offset, sfn, &result), EAaLteFrameCalcRetVal_Ok);
    ASSERT_EQ(fields(result), fields(fromTotal(totalOf(t) - offsetModel(offset), modulusOf(sfn))));

    const SAaLteTiming back = fromTotal(totalOf(t) + offsetModel(offset), 4096);
    ASSERT_EQ(AaLteFrameCalcInvConvert(&t, &offset, refFrame, 0, &result), EAaLteFrameCalcRetVal_Ok);
    ASSERT_EQ(fields(result), fields(back));
    const uint32_t sfnNumber = back.frame % 256;
    ASSERT_EQ(AaLteFrameCalcInvConvert(&t, &offset, refFrame, 1, &result), EAaLteFrameCalcRetVal_Ok);
    ASSERT_EQ(fields(result), (Fields{refFrame / 256 * 256 + sfnNumber, back.slot, back.btu}));
    uint32_t committed = refFrame;
    while (committed % 256 != sfnNumber) committed = (committed + 1) % 4096;
    ASSERT_EQ(AaLteFrameCalcCommitInvConvert(&t, &offset, refFrame, 1, &result), EAaLteFrameCalcRetVal_Ok);
    ASSERT_EQ(fields(result), (Fields{committed, back.slot, back.btu}));

    modelLeft32Bits = false;
    const i64 offsetBtus = offsetModel(anyOffset);
    const SAaLteTiming air = carryBtu(anyT, signedField(anyT.btu) - offsetBtus, 0, Reduction::Borrow).masked(sfn);
    ASSERT_EQ(AaLteFrameCalcConvert(&anyT, &anyOffset, sfn, &result), EAaLteFrameCalcRetVal_Ok);
    if (!modelLeft32Bits) { ASSERT_EQ(fields(result), fields(air)); }
    ASSERT_EQ(AaLteFrameCalcInvConvert(&anyT, &anyOffset, 0, 0, &result), EAaLteFrameCalcRetVal_Ok);
    ASSERT_EQ(fields(result),
              fields(carryBtu(anyT, signedField(anyT.btu) + offsetBtus, 0, Reduction::Truncate).masked(kTwelveBit)));

    // No model for these at any fields; the sanitizer build checks they never overflow.
    const auto n = int32_t(anyOffset.frame);
    AaLteFrameCalcTimeAdd(&anyT, n, anyOffset.slot, &result);
    AaLteFrameCalcTimeSubtract(&anyT, n, anyOffset.slot, &result);
    AaLteFrameCalcCommitInvConvert(&anyT, &anyOffset, anyOffset.btu, 1, &result);
    AaLteFrameCalcTimingConvert(n, int32_t(anyT.btu));
    AaLteFrameCalcFrameInsideWindowCheck(anyT.frame, anyOffset.frame, n, int32_t(anyT.slot), sfn);
    AaLteFrameCalcFrameCloseEnoughCheck(anyT.frame, anyOffset.frame, n, sfn);
    AaLteFrameCalcFrameCheck(n, sfn);
  }
}

// ---- Null pointers ----

TEST(AaLteFrameCalcNullPointers, ReturnTwoAndWriteNothing) {
  using Call = EAaLteFrameCalcRetVal (*)(const SAaLteTiming* a, const SAaLteTiming* b, SAaLteTiming* out);
  // One-input functions ignore b; those with a 32-bit output write it to out->frame here.
  const Call oneInput[] = {
      [](auto a, auto, auto o) { return AaLteFrameCalcTotalBTUsGet(a, o ? &o->frame : nullptr); },
      [](auto a, auto, auto o) { return AaLteFrameCalcTotalSlotsGet(a, o ? &o->frame : nullptr); },
      [](auto a, auto, auto o) { return AaLteFrameCalcFrameAdd(a, 1, 0, o); },
      [](auto a, auto, auto o) { return AaLteFrameCalcFrameSubtract(a, 1, 0, o); },
      [](auto a, auto, auto o) { return AaLteFrameCalcSlotAdd(a, 1, 0, o); },
      [](auto a, auto, auto o) { return AaLteFrameCalcSlotSubtract(a, 1, 0, o); },
      [](auto a, auto, auto o) { return AaLteFrameCalcBtuAdd(a, 1, 0, o); },
      [](auto a, auto, auto o) { return AaLteFrameCalcBtuSubtract(a, 1, 0, o); },
      [](auto a, auto, auto o) { return AaLteFrameCalcBtuSlotAdd(a, 1, 1, 0, o); },
      [](auto a, auto, auto o) { return AaLteFrameCalcTimeAdd(a, 1, 0, o); },
      [](auto a, auto, auto o) { return AaLteFrameCalcTimeSubtract(a, 1, 0, o); },
  };
  const Call twoInputs[] = {
      [](auto a, auto b, auto o) { return AaLteFrameCalcTimingAdd(a, b, 0, o); },
      [](auto a, auto b, auto o) { return AaLteFrameCalcTimingSubtract(a, b, 0, o); },
      [](auto a, auto b, auto o) { return AaLteFrameCalcDistBtusGet(a, b, 0, o ? &o->frame : nullptr); },
      [](auto a, auto b, auto o) { return AaLteFrameCalcDistGet(a, b, 0, o); },
      [](auto a, auto b, auto o) { return AaLteFrameCalcConvert(a, b, 0, o); },
      [](auto a, auto b, auto o) { return AaLteFrameCalcInvConvert(a, b, 0, 1, o); },
      [](auto a, auto b, auto o) { return AaLteFrameCalcCommitInvConvert(a, b, 0, 1, o); },
  };
  const SAaLteTiming input{1, 2, 3}, untouched{0xAAAA, 0xBBBB, 0xCCCC};
  auto expectRefused = [&](Call call, bool secondInputRequired, size_t index) {
    SCOPED_TRACE(index);
    SAaLteTiming out = untouched;
    EXPECT_EQ(call(nullptr, &input, &out), EAaLteFrameCalcRetVal_InvalidParameter);
    EXPECT_EQ(call(&input, &input, nullptr), EAaLteFrameCalcRetVal_InvalidParameter);
    if (secondInputRequired) { EXPECT_EQ(call(&input, nullptr, &out), EAaLteFrameCalcRetVal_InvalidParameter); }
    EXPECT_EQ(fields(out), fields(untouched));
  };
  for (size_t i = 0; i < std::size(oneInput); ++i) expectRefused(oneInput[i], false, i);
  for (size_t i = 0; i < std::size(twoInputs); ++i) expectRefused(twoInputs[i], true, std::size(oneInput) + i);
  EXPECT_EQ(AaLteFrameCalcNormalize(0, nullptr), EAaLteFrameCalcRetVal_InvalidParameter);

  // The predicates say no, though the timings would be close and in order.
  const SAaLteTiming early{1, 0, 0}, late{1, 0, 1};
  ASSERT_EQ(AaLteFrameCalcIsFirstCheck(&early, &late, &early, 0), 1u);
  ASSERT_EQ(AaLteFrameCalcCloseEnoughCheck(&early, &late, &early, 1, 0), 1u);
  const SAaLteTiming* const triples[][3] = {
      {nullptr, &late, &early}, {&early, nullptr, &early}, {&early, &late, nullptr}};
  for (const auto& p : triples) {
    EXPECT_EQ(AaLteFrameCalcIsFirstCheck(p[0], p[1], p[2], 0), 0u);
    EXPECT_EQ(AaLteFrameCalcCloseEnoughCheck(p[0], p[1], p[2], 1, 0), 0u);
  }
}

}  // namespace
