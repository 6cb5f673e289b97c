#pragma once

#include <string>

#include <opencv2/core.hpp>

#include "KroLibExport.h"

namespace velmor {
namespace kro {

// Compares two matrices value by value (any depth, converted to double).
// They match when they have the same size and channel count and every pair
// of values differs by at most `tolerance`; two NaNs count as equal, a NaN
// and a number do not. When they do not match and `difference` is given, it
// receives a one-line description of the first mismatch (size, channels, or
// the first differing pixel in row-major order with both values).
KROLIB_EXPORT bool compareMat(const cv::Mat& expected, const cv::Mat& actual,
                              double tolerance = 0.0, std::string* difference = nullptr);

} // namespace kro
} // namespace velmor
