#pragma once

// Row primitives of the float minimiser shared by its operator passes and
// its conjugate-gradient driver: reproducible double sums of a row, and the
// padding of work rows. Private to the library.

#include <cstddef>

namespace velmor {
namespace kro {
namespace detail {
namespace minimization {

// The PSFs have taps of weight exactly 0 (the two outer taps of the base PSF,
// one of which the shift fills), a third of all taps for unshifted or
// whole-pixel-shifted frames. The operator's passes skip them; for finite
// values this changes no bit (see detail::weightedRowSum).
constexpr bool kSkipZeroTaps = true;

inline std::size_t roundUp16(std::size_t n)
{
    return (n + 15) / 16 * 16;
}

// Double sums of one row in 32 fixed lanes (element j to lane j % 32),
// combined by a fixed pairwise tree: the same value whatever thread computes
// the row, and enough independent sums to keep the vector units busy. Float
// products are exact in double.
template <class Term>
double laneSum(int n, Term term)
{
    constexpr int kLanes = 32;
    double lane[kLanes] = {};
    int j = 0;
    for (; j + kLanes <= n; j += kLanes)
        for (int k = 0; k < kLanes; ++k)
            lane[k] += term(j + k);
    // The tail as one more block padded with zeros (adding +0 leaves a
    // lane unchanged), which keeps the lanes in registers.
    double tail[kLanes] = {};
    for (int k = 0; j + k < n; ++k)
        tail[k] = term(j + k);
    for (int k = 0; k < kLanes; ++k)
        lane[k] += tail[k];
    for (int width = kLanes / 2; width > 0; width /= 2)
        for (int k = 0; k < width; ++k)
            lane[k] += lane[k + width];
    return lane[0];
}

inline double rowSum(const float* a, int n)
{
    return laneSum(n, [a](int j) { return static_cast<double>(a[j]); });
}

inline double rowDot(const float* a, const float* b, int n)
{
    return laneSum(n, [a, b](int j) { return static_cast<double>(a[j]) * static_cast<double>(b[j]); });
}

inline double rowSquaredDeviation(const float* a, int n, double mean)
{
    return laneSum(n, [a, mean](int j) {
        const double d = static_cast<double>(a[j]) - mean;
        return d * d;
    });
}

} // namespace minimization
} // namespace detail
} // namespace kro
} // namespace velmor
