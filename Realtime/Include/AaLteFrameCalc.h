/* LTE frame arithmetic: adding, subtracting, comparing and converting radio-frame timings.
 *
 * Time base: 1 slot = 15360 basic time units (BTU, 1/30.72 us), 1 frame = 20 slots = 307200 BTUs
 * (10 ms); a subframe is two slots. A timing is (frame, slot, BTU) with slot 0..19 and BTU
 * 0..15359; the frame number has one of two widths, chosen per call by the frame-width flag sfn:
 *   sfn non-zero: 8-bit system frame numbers, 0..255 (modulus M = 256, mask 255);
 *   sfn zero:     12-bit frame numbers, 0..4095 (modulus M = 4096, mask 4095).
 * Frame results are reduced with the mask unless a function says otherwise.
 *
 * All arithmetic is 32-bit and wraps as two's complement; where a rule compares or divides signed,
 * the fields are read as int32_t. Inputs outside the ranges are not refused: each function
 * documents what it makes of them, and the add and the subtract families deliberately differ:
 *   - the add family truncates: a field that leaves its range (an unsigned compare, so a negative
 *     field counts as out of range) becomes x % n with carry x / n, both truncating towards zero,
 *     so a negative total leaves a negative field (e.g. slot -1 stays -1, that is 0xFFFFFFFF);
 *   - the subtract family borrows: a field that read unsigned is n or more becomes the floor
 *     remainder of a negative value, with the floor quotient as (negative) carry; the same formula
 *     is applied to a too large positive field, which then keeps the total but ends between n - 1
 *     and 2n - 2 (a slot of 25 stays 25).
 *
 * Functions returning EAaLteFrameCalcRetVal return 2 when a pointer is null and then write
 * nothing; predicates return 1 (true) or 0 (false), and 0 when a pointer is null. The output
 * record may be one of the input records. Pure functions: no state, no locks, no logging, no
 * allocation; safe from any thread and on every slot. */
#ifndef OLM_AALTEFRAMECALC_H
#define OLM_AALTEFRAMECALC_H

#include <stdint.h>

#include "OlmApi.h"

OLM_API_BEGIN

#ifdef __cplusplus
extern "C" {
#endif

/* Result codes; the values are those of EAaLteTimeRetVal. */
typedef enum EAaLteFrameCalcRetVal {
  EAaLteFrameCalcRetVal_Ok = 0,
  EAaLteFrameCalcRetVal_InvalidParameter = 2 /* a required pointer was null; nothing written */
} EAaLteFrameCalcRetVal;

/* The unit argument of AaLteFrameCalcTimeAdd and AaLteFrameCalcTimeSubtract: any non-zero value
 * means microseconds. */
typedef enum EAaLteFrameCalcTimeUnit {
  EAaLteFrameCalcTimeUnit_Milliseconds = 0,
  EAaLteFrameCalcTimeUnit_Microseconds = 1
} EAaLteFrameCalcTimeUnit;

/* A radio-frame timing. The same shape carries an offset for the convert functions, read as
 * (whole frames, units of 1024 BTUs, BTUs). */
typedef struct SAaLteTiming {
  uint32_t frame; /* 0..255 or 0..4095 by the frame-width flag */
  uint32_t slot;  /* 0..19 */
  uint32_t btu;   /* 0..15359 */
} SAaLteTiming;

/* ---- Frame numbers ---- */

/* 1 when 0 <= frame <= mask, else 0 (a negative frame is 0). */
uint32_t AaLteFrameCalcFrameCheck(int32_t frame, uint32_t sfn);

/* Frames forward from frameA to frameB: (frameB + M - frameA) & mask, 0..mask. */
uint32_t AaLteFrameCalcFrameDistGet(uint32_t frameA, uint32_t frameB, uint32_t sfn);

/* (frame + 1) & mask: the frame after 255 is 0 with sfn set, 256 without. */
uint32_t AaLteFrameCalcFrameNextGet(uint32_t frame, uint32_t sfn);

/* (frame - 1) & mask: the frame before 0 is 255 with sfn set, 4095 without. */
uint32_t AaLteFrameCalcFramePrevGet(uint32_t frame, uint32_t sfn);

/* 1 when frame lies in the window [start - lead, start + length] modulo M, else 0. Exactly:
 * ((((frame + M - start) & mask) + lead) & mask) <= length + lead, compared signed, so a negative
 * length + lead gives 0. length and lead in frames, meant 0 <= length + lead < M. */
uint32_t AaLteFrameCalcFrameInsideWindowCheck(uint32_t frame, uint32_t start, int32_t length, int32_t lead,
                                              uint32_t sfn);

/* 1 when frameA and frameB are at most maxDist frames apart in either direction modulo M, else 0.
 * Exactly: ((((M + frameA - frameB) & mask) + maxDist) & mask) <= 2 * maxDist, compared signed;
 * a negative maxDist gives 0. Meant for 0 <= maxDist < M / 2. */
uint32_t AaLteFrameCalcFrameCloseEnoughCheck(uint32_t frameA, uint32_t frameB, int32_t maxDist, uint32_t sfn);

/* 1 when frameA comes strictly before frameB counting forward from refFrame:
 * ((frameB + M - refFrame) & mask) > ((frameA + M - refFrame) & mask). Equal frames give 0. */
uint32_t AaLteFrameCalcFrameIsFirstCheck(uint32_t frameA, uint32_t frameB, uint32_t refFrame, uint32_t sfn);

/* ---- Totals and unit conversions ---- */

/* *totalBtus = timing.btu + 15360 * (timing.slot + 20 * timing.frame), wrapping at 2^32; the frame is
 * not reduced. Returns 0, or 2 when timing or totalBtus is null. */
EAaLteFrameCalcRetVal AaLteFrameCalcTotalBTUsGet(const SAaLteTiming* timing, uint32_t* totalBtus);

/* *totalSlots = timing.slot + 20 * timing.frame, wrapping at 2^32; the BTU is ignored. Returns 0, or 2
 * when timing or totalSlots is null. */
EAaLteFrameCalcRetVal AaLteFrameCalcTotalSlotsGet(const SAaLteTiming* timing, uint32_t* totalSlots);

/* The BTUs of an offset of frames, units of 1024 BTUs and btus, rounded to the nearest multiple
 * of 1024 BTUs, halves up: (btus + 512 + (units + 300 * frames) * 1024) with the low 10 bits
 * cleared. Negative parts round the same way (towards +infinity at halves). No frame width. */
int32_t AaLteFrameCalcTotalOffsetBtusGet(int32_t frames, int32_t units, int32_t btus);

/* Microseconds of slots and btus, rounded to the nearest, halves up:
 * ((btus + 15360 * slots) * 500 + 7680) / 15360, the division signed and truncating (so a
 * negative timing rounds towards 0 instead). 1 slot is 500 us; 15 BTUs are 0 us, 16 BTUs 1 us. */
int32_t AaLteFrameCalcTimingConvert(int32_t slots, int32_t btus);

/* ---- Adding and subtracting ----
 * Each reads timing and writes result (which may be the same record); the counts are signed.
 * Each returns 0, or 2 when a pointer is null. */

/* result = timing with frame (timing.frame + frames) & mask; slot and BTU copied unchecked. */
EAaLteFrameCalcRetVal AaLteFrameCalcFrameAdd(const SAaLteTiming* timing, int32_t frames, uint32_t sfn,
                                             SAaLteTiming* result);
/* result = timing with frame (timing.frame - frames) & mask; slot and BTU copied unchecked. */
EAaLteFrameCalcRetVal AaLteFrameCalcFrameSubtract(const SAaLteTiming* timing, int32_t frames, uint32_t sfn,
                                                  SAaLteTiming* result);

/* slot = timing.slot + slots, truncated into frames (add family); frame = (timing.frame + carry)
 * & mask; BTU copied. Adding -1 slot to (5, 0, x) gives (5, -1, x): the slot stays negative. */
EAaLteFrameCalcRetVal AaLteFrameCalcSlotAdd(const SAaLteTiming* timing, int32_t slots, uint32_t sfn,
                                            SAaLteTiming* result);
/* slot = timing.slot - slots, borrowed from frames (subtract family); frame = (timing.frame +
 * carry) & mask; BTU copied. 1 slot before (0, 0, x) is (mask, 19, x). */
EAaLteFrameCalcRetVal AaLteFrameCalcSlotSubtract(const SAaLteTiming* timing, int32_t slots, uint32_t sfn,
                                                 SAaLteTiming* result);

/* btu = timing.btu + btus, truncated into slots; slot = timing.slot + carry, truncated into
 * frames; frame = (timing.frame + carry) & mask (add family). */
EAaLteFrameCalcRetVal AaLteFrameCalcBtuAdd(const SAaLteTiming* timing, int32_t btus, uint32_t sfn,
                                           SAaLteTiming* result);
/* btu = timing.btu - btus, borrowed from slots; slot = timing.slot + carry, borrowed from frames;
 * frame = (timing.frame + carry) & mask (subtract family). 15361 BTUs before (0, 0, 0) is
 * (mask, 18, 15359). */
EAaLteFrameCalcRetVal AaLteFrameCalcBtuSubtract(const SAaLteTiming* timing, int32_t btus, uint32_t sfn,
                                                SAaLteTiming* result);

/* btu = timing.btu + btus, truncated into slots; slot = timing.slot + slots + carry, truncated
 * into frames; frame = (timing.frame + carry) & mask (add family). */
EAaLteFrameCalcRetVal AaLteFrameCalcBtuSlotAdd(const SAaLteTiming* timing, int32_t btus, int32_t slots, uint32_t sfn,
                                               SAaLteTiming* result);

/* Field-wise a + b with at most one carry per field, for timings in range:
 *   btu = a.btu + b.btu unsigned; at 15360 or more it becomes btu % 15360 (unsigned) and carries 1;
 *   slot = a.slot + b.slot + carry signed; below 0 or above 19 it becomes slot % 20 (truncating,
 *   so a negative slot stays negative) and carries 1, never more, whatever the sign;
 *   frame = (a.frame + b.frame + carry) & mask.
 * (0, 19, 15359) + (0, 0, 1) = (1, 0, 0). */
EAaLteFrameCalcRetVal AaLteFrameCalcTimingAdd(const SAaLteTiming* a, const SAaLteTiming* b, uint32_t sfn,
                                              SAaLteTiming* result);

/* Field-wise a - b with at most one borrow per field, for timings in range:
 *   btu = a.btu - b.btu; when that read unsigned is 15360 or more, 15360 is added once and 1 borrowed;
 *   slot = a.slot - b.slot - borrow; when that read unsigned is 20 or more, 20 is added once and 1
 *   borrowed;
 *   frame = a.frame - b.frame - borrow signed; outside 0..mask it gets M added once and is NOT
 *   masked (a frame above mask in a stays above it).
 * A field still out of range after its one correction is left so. */
EAaLteFrameCalcRetVal AaLteFrameCalcTimingSubtract(const SAaLteTiming* a, const SAaLteTiming* b, uint32_t sfn,
                                                   SAaLteTiming* result);

/* timing plus a wall-clock duration: duration microseconds when unit is non-zero
 * (EAaLteFrameCalcTimeUnit_Microseconds), milliseconds when it is 0 (multiplied by 1000 in 32 bits).
 * The duration becomes (us / 10000 frames, (us % 10000) / 500 slots, ((us % 500) * 15360) / 500
 * BTUs), truncating, so 1 us is 30 BTUs, and is added with AaLteFrameCalcTimingAdd. Frames always
 * wrap at 4096: there is no frame-width flag. Meant for durations of 0 or more: a negative one gives
 * negative fields that the add rules do not turn into an earlier time; subtract instead. */
EAaLteFrameCalcRetVal AaLteFrameCalcTimeAdd(const SAaLteTiming* timing, int32_t duration, uint32_t unit,
                                            SAaLteTiming* result);
/* timing minus a wall-clock duration: as AaLteFrameCalcTimeAdd, with AaLteFrameCalcTimingSubtract.
 * Frames always wrap at 4096. Meant for durations of 0 or more. */
EAaLteFrameCalcRetVal AaLteFrameCalcTimeSubtract(const SAaLteTiming* timing, int32_t duration, uint32_t unit,
                                                 SAaLteTiming* result);

/* Brings every field of *timing into range in place: BTU into slots, then slot into frames, each
 * with floor division (a negative field borrows: BTU -1 is BTU 15359 of the slot before), then
 * frame &= mask. The fields are read as int32_t. Note the flag comes first. Returns 0, or 2 when
 * timing is null. */
EAaLteFrameCalcRetVal AaLteFrameCalcNormalize(uint32_t sfn, SAaLteTiming* timing);

/* ---- Distances and ordering ---- */

/* BTUs forward from a to b, 0 .. M * 307200 - 1 for timings in range:
 * d = (b.btu + 15360 * b.slot) - (a.btu + 15360 * a.slot) + ((b.frame + M - a.frame) & mask) * 307200
 * in 32 bits, plus M * 307200 once when d is negative read signed. Returns 0, or 2 when a pointer
 * is null. From (1, 0, 0) to (0, 0, 0) with sfn set is 255 * 307200 = 78336000. */
EAaLteFrameCalcRetVal AaLteFrameCalcDistBtusGet(const SAaLteTiming* a, const SAaLteTiming* b, uint32_t sfn,
                                                uint32_t* btus);

/* The same distance d (unsigned) as a timing: frame = d / 307200 (not masked), slot =
 * (d % 307200) / 15360, btu = d % 15360. Returns 0, or 2 when a pointer is null. */
EAaLteFrameCalcRetVal AaLteFrameCalcDistGet(const SAaLteTiming* a, const SAaLteTiming* b, uint32_t sfn,
                                            SAaLteTiming* distance);

/* 1 when the BTU distance (AaLteFrameCalcDistBtusGet) from ref to a is strictly less than the one
 * from ref to b, compared unsigned: a comes first after ref. Equal timings give 0; so does a null
 * pointer. */
uint32_t AaLteFrameCalcIsFirstCheck(const SAaLteTiming* a, const SAaLteTiming* b, const SAaLteTiming* ref,
                                    uint32_t sfn);

/* 1 when the forward BTU distance from the earlier to the later of a and b, ordered by
 * AaLteFrameCalcIsFirstCheck(a, b, ref, sfn), is at most maxBtus (signed compare; a negative maxBtus
 * gives 0), else 0; 0 when a pointer is null. */
uint32_t AaLteFrameCalcCloseEnoughCheck(const SAaLteTiming* a, const SAaLteTiming* b, const SAaLteTiming* ref,
                                        int32_t maxBtus, uint32_t sfn);

/* ---- Transmission offset ---- */

/* From offset timing to air timing: timing minus AaLteFrameCalcTotalOffsetBtusGet(offset->frame,
 * offset->slot, offset->btu) BTUs: btu borrowed from slots (the borrow may be many slots), slot
 * borrowed from frames, frame = (timing.frame + carry) & mask (subtract family). Returns 0, or 2
 * when a pointer is null. */
EAaLteFrameCalcRetVal AaLteFrameCalcConvert(const SAaLteTiming* timing, const SAaLteTiming* offset, uint32_t sfn,
                                            SAaLteTiming* result);

/* From air timing back to offset timing: timing plus the rounded offset total, btu truncated into
 * slots, slot truncated into frames (add family), f = timing.frame + carry. With sfnMode 0 the
 * frame is f & 4095. With sfnMode non-zero f is an 8-bit system frame number spliced into
 * refFrame: frame = (refFrame & ~255) | (f & 255), not masked further. Returns 0, or 2 when a
 * pointer is null. */
EAaLteFrameCalcRetVal AaLteFrameCalcInvConvert(const SAaLteTiming* timing, const SAaLteTiming* offset,
                                               uint32_t refFrame, uint32_t sfnMode, SAaLteTiming* result);

/* As AaLteFrameCalcInvConvert, but with sfnMode exactly 1 the frame is committed to the first frame
 * at or after refFrame (less than 256 frames on, modulo 4096) whose low 8 bits are the computed
 * system frame number: the candidate (refFrame & ~255) | (f & 255) when
 * ((refFrame - candidate + 4351) & 4095) <= 255, else (candidate + 256) & 4095. With refFrame 300,
 * system frame number 10 gives 522 and 50 gives 306. Other non-zero modes splice without the
 * commitment. Returns 0, or 2 when a pointer is null. */
EAaLteFrameCalcRetVal AaLteFrameCalcCommitInvConvert(const SAaLteTiming* timing, const SAaLteTiming* offset,
                                                     uint32_t refFrame, uint32_t sfnMode, SAaLteTiming* result);

#ifdef __cplusplus
}

static_assert(sizeof(SAaLteTiming) == 12, "SAaLteTiming is three 32-bit words");
#endif

OLM_API_END

#endif /* OLM_AALTEFRAMECALC_H */
