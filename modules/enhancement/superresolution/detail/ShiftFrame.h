#pragma once

#include <cmath>

#include "PointF.h"

namespace velmor {
namespace kro {
namespace detail {

// Cuts a frame to the integer part of its shift, as both float registrations
// do before the minimiser sees the frames.
//
// With ix = floor(shift.x + 0.5), iy = floor(shift.y + 0.5) and
// k = width * iy + ix, the frame moves by k positions in its row-major
// storage: out[p] = frame[p + k] where p + k lies inside the frame, 0
// elsewhere. A horizontal shift therefore runs on into the neighbouring row
// rather than being clipped per row; the masks of the registrations exclude
// those pixels, so the minimiser never uses them. Afterwards `shift` holds
// the sub-pixel remainder in [-0.5, 0.5).
//
// `frame` and `out` hold width * height floats and must not overlap.
void shiftFrame(const float* frame, int width, int height, PointF& shift, float* out);

// floor(v + 0.5), clamped to +-limit (chosen far outside the frame) so that
// a wild value cannot overflow the conversion. The float form rounds exactly
// as shiftFrame does (the sum in float).
template <class T>
int roundShift(T v, int limit)
{
    const T r = std::floor(v + static_cast<T>(0.5));
    if (!(r > -static_cast<T>(limit)))
        return -limit;
    if (!(r < static_cast<T>(limit)))
        return limit;
    return static_cast<int>(r);
}

} // namespace detail
} // namespace kro
} // namespace velmor
