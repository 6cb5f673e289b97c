#pragma once

#include <string>

#include <opencv2/core.hpp>

#include "DebugChannel.h"
#include "KroLibExport.h"

namespace velmor {
namespace kro {

// Debug level of compareMat's report: that of the engines' step traces,
// since engines compare intermediate images between their "start"/"end"
// traces; the comparison has no effect on results.
constexpr DEBUG_LEVEL kCompareMatDebugLevel = kDebugLevelTrace;

// Compares two matrices value by value (any depth, converted to double).
// They match when they have the same size and channel count and every pair
// of values differs by at most `tolerance`; two NaNs count as equal, a NaN
// and a number do not.
//
// When `channel` is not null, one line goes out on it at
// kCompareMatDebugLevel, naming the images by `nameA` and `nameB`:
//   "compareMat: A and B match (tolerance 0.5)", or on a mismatch its first
//   cause: the size, the channel count, or the first differing pixel in
//   row-major order with both values,
//   "compareMat: A and B differ at (x=2, y=1): A 7, B 9 (tolerance 1)".
KROLIB_EXPORT bool compareMat(DebugChannel* channel, const cv::Mat& a, const cv::Mat& b,
                              const std::string& nameA, const std::string& nameB,
                              float tolerance);

} // namespace kro
} // namespace velmor
