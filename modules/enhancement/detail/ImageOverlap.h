#pragma once

#include <cstdint>

#include <opencv2/core.hpp>

namespace velmor {
namespace kro {
namespace detail {

// True when the pixel memory of the two images overlaps (same buffer, or
// views of one buffer whose rows interleave).
inline bool imagesOverlap(const cv::Mat& a, const cv::Mat& b)
{
    if (a.empty() || b.empty())
        return false;
    const auto begin = [](const cv::Mat& m) { return reinterpret_cast<std::uintptr_t>(m.data); };
    const auto end = [](const cv::Mat& m) {
        return reinterpret_cast<std::uintptr_t>(m.ptr(m.rows - 1) + m.cols * m.elemSize());
    };
    return begin(a) < end(b) && begin(b) < end(a);
}

} // namespace detail
} // namespace kro
} // namespace velmor
