#pragma once

// Row kernels of the fixed-point minimiser's total-variation term: the
// stencil L x of one row and the table indices of the weights. Private to
// the library.

#include <cstddef>

namespace velmor {
namespace kro {
namespace detail {
namespace inttv {

// The four weight planes of the TV term at one row: to the right, lower,
// lower-left and lower-right neighbour (unsigned mantissas below 2^12).
struct WeightRows {
    const short* Lr;
    const short* Ld;
    const short* Ldl;
    const short* Ldr;
};

// acc[c] = round(sum over the eight neighbours n of w_n * (x[c] - x_n) /
// 2^shift) (half up; 0 <= shift <= 30) for c < n, on a plane of row stride
// W: the weight to a neighbour is that of the pixel the edge starts from
// (Lr[c-1] for the left neighbour, Ld[c-W] for the upper one, and so on).
// Weights towards neighbours outside the grid must be 0 and the planes
// readable one row and one element around the row (zero guards), so that
// every pixel runs the same expression. With x in [-16384, 16383] every
// difference is 16-bit and eight products of a weight below 2^12 stay below
// 2^30.
void tvRow(const WeightRows& L, const short* x, std::ptrdiff_t W, int n, int shift, int* acc);

// index[c] = min(|a[c] - b[c]| >> shift, last) for c < n: the table entry
// of a difference of two 16-bit values (0 <= shift <= 15, last < 65536).
void tableIndexRow(const short* a, const short* b, int n, int shift, int last, unsigned short* index);

} // namespace inttv
} // namespace detail
} // namespace kro
} // namespace velmor
