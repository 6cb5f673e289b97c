#include "detail/ShiftFrame.h"

#include <algorithm>
#include <cmath>
#include <cstring>

namespace velmor {
namespace kro {
namespace detail {

void shiftFrame(const float* frame, int width, int height, PointF& shift, float* out)
{
    const long long size = static_cast<long long>(width) * height;
    const long long ix = static_cast<long long>(std::floor(shift.x + 0.5f));
    const long long iy = static_cast<long long>(std::floor(shift.y + 0.5f));
    const long long k = static_cast<long long>(width) * iy + ix;

    // One contiguous copy plus one fill: the move is bandwidth-bound, and a
    // plain memcpy beats a parallel loop at every frame size we handle.
    const long long kept = std::max(0LL, size - std::llabs(k));
    if (k >= 0) {
        if (kept > 0)
            std::memcpy(out, frame + k, static_cast<std::size_t>(kept) * sizeof(float));
        std::fill(out + kept, out + size, 0.0f);
    } else {
        std::fill(out, out + (size - kept), 0.0f);
        if (kept > 0)
            std::memcpy(out + (size - kept), frame, static_cast<std::size_t>(kept) * sizeof(float));
    }
    shift.x -= static_cast<float>(ix);
    shift.y -= static_cast<float>(iy);
}

} // namespace detail
} // namespace kro
} // namespace velmor
