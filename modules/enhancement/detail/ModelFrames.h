#pragma once

// Frame checks shared by the hardware models, whose frames are plain
// row-major int32 arrays of a size fixed at construction.

#include <cstddef>
#include <cstdint>

namespace velmor {
namespace kro {
namespace detail {

// True for a frame size the models accept: at least 1 x 1, with the pixel
// count within int.
inline bool validModelFrameSize(int cols, int rows)
{
    return cols >= 1 && rows >= 1 && static_cast<long long>(cols) * rows <= 2147483647LL;
}

// True when two frames of `count` pixels share memory.
inline bool framesOverlap(const int* a, const int* b, std::size_t count)
{
    const std::uintptr_t beginA = reinterpret_cast<std::uintptr_t>(a);
    const std::uintptr_t beginB = reinterpret_cast<std::uintptr_t>(b);
    const std::uintptr_t bytes = count * sizeof(int);
    return beginA < beginB + bytes && beginB < beginA + bytes;
}

} // namespace detail
} // namespace kro
} // namespace velmor
