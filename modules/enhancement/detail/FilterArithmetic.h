#pragma once

// Integer helpers shared by the bit-exact 16-bit filters (temporal, spatial
// and static-pattern) and their hardware models.
//
// The filters compute on offset-binary samples: the 16-bit pattern of a
// signed sample with its top bit flipped, u = s + 32768 in 0..65535.
// Where the reference arithmetic is 32-bit two's complement and may wrap,
// the wrapping is done through unsigned arithmetic so that it is defined
// behaviour; conversions back to int32_t and right shifts of negative values
// rely on GCC's (and every mainstream compiler's) modulo conversion and
// arithmetic shift.

#include <cstdint>

namespace velmor {
namespace kro {
namespace detail {

// s + 32768 for a signed 16-bit sample.
inline std::int32_t offsetBinary(std::int32_t sample) { return sample + 32768; }

inline std::int32_t wrapAdd(std::int32_t a, std::int32_t b)
{
    return static_cast<std::int32_t>(static_cast<std::uint32_t>(a) + static_cast<std::uint32_t>(b));
}

inline std::int32_t wrapSub(std::int32_t a, std::int32_t b)
{
    return static_cast<std::int32_t>(static_cast<std::uint32_t>(a) - static_cast<std::uint32_t>(b));
}

inline std::int32_t wrapMul(std::int32_t a, std::int32_t b)
{
    return static_cast<std::int32_t>(static_cast<std::uint32_t>(a) * static_cast<std::uint32_t>(b));
}

// Approximately (x + 5) / 9 by shifts and adds, as the hardware divides the
// sum of a 3x3 block; it can fall one short (div9(589820) == 65535). Valid
// for the block sums of 16-bit samples (0 .. 9 * 65535 + 5).
inline std::int32_t div9(std::int32_t x)
{
    const std::int32_t t = x + 5;
    const std::int32_t m = t - (t >> 3);
    return (m + (m >> 12) + (m >> 6)) >> 3;
}

// About 7x/64: the cheaper division by 9 of the pattern remover. The
// constant 25 is part of the bit-exact definition.
inline std::int32_t div9LessAccurate(std::int32_t x)
{
    return (x - ((x - 25) >> 3)) >> 3;
}

// floor(n / d) for 0 <= n <= 19 * d and 1 <= d <= 31, as a multiplication by
// the rounded-up reciprocal M = ceil(2^20 / d). With e = M * d - 2^20 < d,
// n * M / 2^20 exceeds n / d by n * e / (d * 2^20) < n / 2^20 <= 589 / 2^20,
// less than 1 / 31 <= 1 / d, so it never reaches the next integer above
// n / d. Vectorises where a division does not.
inline std::int32_t reciprocalOf(std::int32_t d) { return ((1 << 20) + d - 1) / d; }
inline std::int32_t divideByReciprocal(std::int32_t n, std::int32_t reciprocal)
{
    return (n * reciprocal) >> 20;
}

} // namespace detail
} // namespace kro
} // namespace velmor
