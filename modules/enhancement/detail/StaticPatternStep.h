#pragma once

// The learning rules of the static pattern remover, shared by the filter
// StaticPatternRemover and the hardware model SprCmod.
//
// Two accumulators: a per-pixel frame pattern F (correction F >> 5) and a
// per-column line pattern L (correction L >> 10). Around a pixel with
// offset-binary centre u, S3/S9 are the sums of the eight non-centre samples
// of its 3x3 block and of its 1x9 run in the row, R3/R9 their spreads
// max(|min - S/8|, |max - S/8|). Where the scene is flat enough both
// patterns learn the centre's deviation from its surroundings; afterwards
// each is bounded by its limit and leaks one step toward zero. The shifts,
// the leak steps and the asymmetries below are part of the bit-exact
// definition.

#include <algorithm>
#include <cstdint>
#include <cstdlib>

#include "detail/FilterArithmetic.h"

namespace velmor {
namespace kro {
namespace detail {

constexpr int kFrameShift = 5;       // frame correction F >> 5
constexpr int kLineShift = 10;       // line correction L >> 10
constexpr int kFrameLimitShift = 8;  // frame limit in units of 256
constexpr int kLineLimitShift = 13;  // line limit in units of 8192

// Correction of an accumulator: value >> shift, plus one for negative values
// (about a rounding toward zero; exact multiples of 2^shift below zero come
// out one above the quotient, as the hardware computes it).
inline std::int32_t correction(std::int32_t value, int shift) { return (value >> shift) + (value < 0); }

// Bounds an accumulator to the limit in units of 2^shift: from
// (-limit - 1) * 2^shift + 2^shift - 1 to limit * 2^shift.
inline std::int32_t bound(std::int32_t value, std::int32_t limit, int shift)
{
    const std::int32_t unit = 1 << shift;
    const std::int32_t coarse = value >> shift;
    const std::int32_t upper = limit * unit;
    const std::int32_t lower = (-limit - 1) * unit + unit - 1;
    return coarse >= limit ? upper : (coarse <= -limit - 1 ? lower : value);
}

// Leak of the frame pattern: one step toward zero.
inline std::int32_t leakFrame(std::int32_t value) { return value + (value > 0 ? -1 : (value < 0 ? 1 : 0)); }

// Leak of the line pattern: four steps toward zero, values 1..3 stay
// (intended asymmetry).
inline std::int32_t leakLine(std::int32_t value) { return value + (value > 3 ? -4 : (value < 0 ? 4 : 0)); }

// The error estimate of the frame pattern from the block (e3) and the run
// (e9): their mean when the spreads differ by less than a quarter of the
// threshold, else the estimate of the flatter neighbourhood.
inline std::int32_t frameError(std::int32_t e3, std::int32_t e9, std::int32_t r3, std::int32_t r9,
                               std::int32_t threshold)
{
    return std::abs(r9 - r3) < (threshold >> 2) ? (e3 + e9) >> 1 : (r3 > r9 ? e9 : e3);
}

// The next frame-pattern value: learnt when R3 or R9 is below the threshold,
// then bounded and leaked.
inline std::int32_t nextFramePattern(std::int32_t value, std::int32_t fc, std::int32_t centre, bool learn,
                                     std::int32_t error, std::int32_t frameLimit)
{
    if (learn)
        value += 8 * centre - fc - error;
    return leakFrame(bound(value, frameLimit, kFrameLimitShift));
}

// The next line-pattern value of a column: learnt when R3 is below 0.7 of
// the threshold or R9 below the threshold, from the block when it is clearly
// flatter than the run (R3 < R9 - R9/16 - R9/4, about 0.69 R9), else from the
// run; then bounded and leaked.
inline std::int32_t nextLinePattern(std::int32_t value, std::int32_t lc, std::int32_t centre, std::int32_t s3,
                                    std::int32_t r3, std::int32_t s9, std::int32_t r9, std::int32_t threshold,
                                    std::int32_t threshold07, std::int32_t lineLimit)
{
    if (r3 < threshold07 || r9 < threshold) {
        const bool blockFlatter = r3 < r9 - (r9 >> 4) - (r9 >> 2);
        value += 8 * centre - lc - (blockFlatter ? s3 : s9);
    }
    return leakLine(bound(value, lineLimit, kLineLimitShift));
}

} // namespace detail
} // namespace kro
} // namespace velmor
