#pragma once

// The per-pixel step and the per-frame feedback adaptation of the recursive
// temporal noise filter, shared by the filter TemporalNoiseReduction and the
// hardware model TnrCmod.
//
// A pixel keeps an accumulator, its filtered value as an offset-binary sample
// with two fractional bits (u * 4, 18 bits). A new sample u is pulled toward
// it by feedback(idx) / 32768 with feedback(idx) = (alpha * w[idx]) >> 11,
// w the weight table and idx = (|accu - 4u| * gain) >> 6; a difference
// above kResetDifference resets the pixel to the sample. The 32-bit products
// wrap as the hardware registers do (with gain 0 they can).

#include <algorithm>
#include <array>
#include <cstdint>

#include "detail/FilterArithmetic.h"

namespace velmor {
namespace kro {
namespace detail {

constexpr int kWeightTableSize = 1024;
constexpr std::int32_t kResetDifference = 131071;  // |accu - 4u| above this resets the pixel
constexpr std::int32_t kMotionIndex = 50;          // indices above this count as motion
constexpr std::int32_t kFeedbackBand = 205;        // drift of the feedback around its base
constexpr std::int32_t kFeedbackMax = 2047;

// The first accumulator of a pixel: its low 16 bits in offset binary, times 4
// (the value times 4 masked to 18 bits, top bit flipped).
inline std::int32_t seedAccumulator(std::int32_t value) { return (wrapMul(value, 4) & 0x3FFFF) ^ 131072; }

// Control gain and base feedback (Q11) in hardware units.
inline std::int32_t controlGainHw(std::int32_t gain, bool hwUnits) { return hwUnits ? gain : wrapMul(gain, 16) / 10; }
inline std::int32_t feedbackHw(std::int32_t factor, bool hwUnits)
{
    return hwUnits ? factor : wrapMul(factor, 2048) / 100;
}

// (alpha * w) >> 11 for every table index, for one frame; slot 1024 stands
// for every index outside the table (weight 0), negative ones included.
using FeedbackTable = std::array<std::int32_t, kWeightTableSize + 1>;
inline void fillFeedbackTable(FeedbackTable& feedback, std::int32_t alpha,
                              const std::array<std::int32_t, kWeightTableSize>& weights)
{
    for (int i = 0; i < kWeightTableSize; ++i)
        feedback[i] = wrapMul(alpha, weights[i]) >> 11;
    feedback[kWeightTableSize] = 0;
}

struct TemporalStep {
    std::int32_t accu;   // the new accumulator
    std::int32_t index;  // the weight-table index (may lie outside the table)
    bool reset;          // the pixel jumped: accu is 4u, the output is the sample
};

// One pixel: accumulator `accu`, new sample `u4` = 4u, control gain in
// hardware units, the frame's feedback table.
inline TemporalStep temporalStep(std::int32_t accu, std::int32_t u4, std::int32_t cgain,
                                 const std::int32_t* feedback)
{
    const std::int32_t diff = accu - u4;
    const std::int32_t ad = diff < 0 ? -diff : diff;
    const std::int32_t index = wrapMul(ad, cgain) >> 6;
    const std::uint32_t slot = std::min(static_cast<std::uint32_t>(index), static_cast<std::uint32_t>(kWeightTableSize));
    const bool reset = ad > kResetDifference;
    const std::int32_t next = u4 + (wrapMul(feedback[slot], diff) >> 15);
    return {reset ? u4 : next, index, reset};
}

// The frame's contribution to the motion sum.
inline std::int64_t motionOf(std::int32_t index) { return index > kMotionIndex ? index : 0; }

// The filtered sample of an accumulator, offset binary (rounded quarter steps).
inline std::int32_t accumulatorSample(std::int32_t accu) { return (accu + 2) >> 2; }

// The feedback state that carries from frame to frame.
struct FeedbackState {
    std::int32_t& alpha;        // adaptive feedback, Q11
    std::int32_t& motionLevel;  // smoothed motion statistic
    bool& still;                // strict stillness test of the last frame
    bool& quiet;                // loose stillness test of the last frame
};

// After a frame of `pixels` pixels with motion sum `motionSum`: smooths the
// motion level, tests stillness against the global threshold and moves the
// feedback for the next frame: slowly up on still scenes (+1 above the base,
// +4 back toward it), quickly down on motion (-20, -102), within +-205 of
// alpha0 and 0..2047; fixed at alpha0 with threshold 100. The steps are part
// of the bit-exact behaviour.
inline void adaptFeedback(const FeedbackState& s, std::int64_t motionSum, std::int32_t pixels,
                          std::int32_t threshold, std::int32_t alpha0)
{
    s.motionLevel = static_cast<std::int32_t>(((motionSum >> 2) + 3LL * s.motionLevel) >> 2);
    const std::int32_t limit = wrapMul(pixels, threshold) >> 12;
    s.quiet = (s.motionLevel >> 4) < limit;
    s.still = s.motionLevel < limit;
    if (threshold == 100)
        s.alpha = alpha0;
    else if (s.quiet && s.still)
        s.alpha = wrapAdd(s.alpha, s.alpha >= alpha0 ? 1 : 4);
    else if (s.quiet)
        s.alpha = wrapAdd(s.alpha, s.alpha >= alpha0 ? -20 : 4);
    else
        s.alpha = wrapAdd(s.alpha, -102);
    const std::int32_t low = std::max(wrapAdd(alpha0, -kFeedbackBand), 0);
    const std::int32_t high = std::min(wrapAdd(alpha0, kFeedbackBand), kFeedbackMax);
    s.alpha = std::min(std::max(s.alpha, low), high);
}

} // namespace detail
} // namespace kro
} // namespace velmor
