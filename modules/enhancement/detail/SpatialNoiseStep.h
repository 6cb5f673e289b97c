#pragma once

// The per-pixel step of the edge-preserving 3x3 smoothing, shared by the
// filter SpatialNoiseRemover and the hardware model SnrCmod.
//
// On the nine offset-binary samples u of a block (centre u[4]):
//   mean = div9(sum u),  sad = sum |u - mean|,
//   k    = min(sad / gain + 13, 32), 32 with gain 0,
//   out  = mean + (((u[4] - mean) * k + 16) >> 5)      (0..65535)
// The constants 5, 13, 16 and 32 are part of the bit-exact definition.

#include <algorithm>
#include <cstdint>
#include <cstdlib>

#include "detail/FilterArithmetic.h"

namespace velmor {
namespace kro {
namespace detail {

constexpr std::int32_t kSmoothingMinK = 13;   // 13/32 of the deviation kept in flat areas
constexpr std::int32_t kSmoothingFullK = 32;  // all of it

inline std::int32_t blockMean(const std::int32_t* nine)
{
    std::int32_t sum = 0;
    for (int i = 0; i < 9; ++i)
        sum += nine[i];
    return div9(sum);
}

// Sum of the nine absolute deviations from `mean`.
inline std::int32_t blockAbsoluteDeviation(const std::int32_t* nine, std::int32_t mean)
{
    std::int32_t sad = 0;
    for (int i = 0; i < 9; ++i)
        sad += std::abs(nine[i] - mean);
    return sad;
}

// Share of the deviation kept, in 1/32. `gain` in 0..31.
inline std::int32_t smoothingK(std::int32_t sad, std::int32_t gain)
{
    return gain == 0 ? kSmoothingFullK : std::min(sad / gain + kSmoothingMinK, kSmoothingFullK);
}

// The smoothed offset-binary sample; between mean and centre, so 0..65535.
inline std::int32_t smoothedSample(std::int32_t mean, std::int32_t centre, std::int32_t k)
{
    return mean + (((centre - mean) * k + 16) >> 5);
}

} // namespace detail
} // namespace kro
} // namespace velmor
