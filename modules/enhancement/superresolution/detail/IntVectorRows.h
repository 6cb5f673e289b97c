#pragma once

// Row kernels of the fixed-point minimiser's vector updates and reductions
// on 16-bit block-exponent vectors. Every element is within [-16384, 16383]
// unless said otherwise, so a product of two is below 2^28 and a pair of
// products (one pmaddwd lane) below 2^29. Private to the library.

#include <cstdint>

namespace velmor {
namespace kro {
namespace detail {
namespace intvec {

// Largest |v[c]|, c < n (v within [-32767, 32767]).
int rowMaxAbs(const short* v, int n);

// Exact sum of a[c] * b[c], c < n.
std::int64_t rowDot(const short* a, const short* b, int n);

// z[c] = 16-bit saturation of round((c0 * a[c] + c1 * b[c]) / 2^shift)
// (half up; |c0|, |c1| <= 32767, 0 <= shift <= 30); z may be a or b.
// Returns max |z[c]| and adds the sum of z[c]^2 to *squares (when given).
int combineRow(const short* a, const short* b, int n, int c0, int c1, int shift, short* z,
               std::int64_t* squares);

// u[c] = 16-bit saturation of u[c] + round(c * v[c] / 2^shift)
// (|c| <= 32767, 0 <= shift <= 30; u within the whole 16-bit range).
void incrementRow(const short* v, int n, int c, int shift, short* u);

// h[c] = u[c] >> 1 (floor), for u within the whole 16-bit range, so that h
// is within [-16384, 16383]; returns max |h[c]|.
int halveRow(const short* u, int n, short* h);

} // namespace intvec
} // namespace detail
} // namespace kro
} // namespace velmor
