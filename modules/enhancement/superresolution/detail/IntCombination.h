#pragma once

// Scalar side of the fixed-point minimiser's vector updates: how a
// combination of Fixpoint coefficients and 16-bit block-exponent vectors is
// computed with 16-bit integer coefficients and one rounding shift, and the
// Fixpoint of a 64-bit sum. Private to the library.

#include <cstdint>

#include "Fixpoint.h"

namespace velmor {
namespace kro {
namespace detail {
namespace intsolve {

// z = a0 * v0 + a1 * v1, where v_k has elements m * 2^e_k with |m| <= max_k,
// is computed per element as
//     z_m = round((c0 * m0 + c1 * m1) / 2^shift)   (half up),
// standing for z_m * 2^exponent, with |z_m| <= maxAbs <= 16383. The
// coefficients c0, c1 are the Fixpoint mantissas brought to a common
// exponent at which the larger has 15 bits (|c_k| <= 32767), so that the
// sum stays below 2^30 for |m_k| <= 16384; the shift is the smallest that
// keeps the bound |c0| max0 + |c1| max1 within 16383. An all-zero result
// has exponent 0.
struct Combination {
    int c0 = 0;
    int c1 = 0;
    int shift = 0;
    int exponent = 0;
    int maxAbs = 0;
};
Combination planCombination(const Fixpoint& a0, int e0, int max0, const Fixpoint& a1, int e1, int max1);

// a * v for v with elements m * 2^e, in units of 2^target, computed per
// element as round(c * m / 2^shift) (|c| <= 32767, 0 <= shift <= 30). A
// coefficient too large for the target saturates (every step would leave
// the 16-bit range anyway); one too small gives c = 0.
struct Increment {
    int c = 0;
    int shift = 0;
};
Increment planIncrement(const Fixpoint& a, int e, int target);

// sum * 2^exponent as a Fixpoint of exponent width 7, the width of every
// Fixpoint the minimiser builds from an integer sum (exponents beyond the
// signed 8-bit range are clamped, values beyond the width's range follow
// Fixpoint's saturation).
Fixpoint fromSum(std::int64_t sum, int exponent);

} // namespace intsolve
} // namespace detail
} // namespace kro
} // namespace velmor
