#pragma once

// Row sums of the gradient-based flow step, shared by the passes of the
// phase-correlation registration that build the reference's tensor and
// solve the flow. Private to the library.

#include <algorithm>

namespace velmor {
namespace kro {
namespace detail {

// Double sums over [begin, end) of float products, in kLanes interleaved
// partial sums that are added in a fixed order at the end: the same bits
// for any thread count, without the latency of one long dependency chain.
constexpr int kLanes = 4;

inline double laneTotal(const double* lanes)
{
    return (lanes[0] + lanes[1]) + (lanes[2] + lanes[3]);
}

// sum of a * a, a * b and b * b.
inline void tensorSums(const float* a, const float* b, int begin, int end, double& aa, double& ab, double& bb)
{
    double saa[kLanes] = {}, sab[kLanes] = {}, sbb[kLanes] = {};
    int x = begin;
    for (; x + kLanes <= end; x += kLanes) {
        for (int k = 0; k < kLanes; ++k) {
            saa[k] += a[x + k] * a[x + k];
            sab[k] += a[x + k] * b[x + k];
            sbb[k] += b[x + k] * b[x + k];
        }
    }
    for (int k = 0; x < end; ++x, ++k) {
        saa[k] += a[x] * a[x];
        sab[k] += a[x] * b[x];
        sbb[k] += b[x] * b[x];
    }
    aa += laneTotal(saa);
    ab += laneTotal(sab);
    bb += laneTotal(sbb);
}

// sum of gx * d and gy * d with d = current[x + offset] - reference[x].
inline void flowSums(const float* gx, const float* gy, const float* current, int offset, const float* reference,
              int begin, int end, double& bx, double& by)
{
    double sx[kLanes] = {}, sy[kLanes] = {};
    int x = begin;
    for (; x + kLanes <= end; x += kLanes) {
        for (int k = 0; k < kLanes; ++k) {
            const float d = current[x + k + offset] - reference[x + k];
            sx[k] += gx[x + k] * d;
            sy[k] += gy[x + k] * d;
        }
    }
    for (int k = 0; x < end; ++x, ++k) {
        const float d = current[x + offset] - reference[x];
        sx[k] += gx[x] * d;
        sy[k] += gy[x] * d;
    }
    bx = laneTotal(sx);
    by = laneTotal(sy);
}

} // namespace detail
} // namespace kro
} // namespace velmor
