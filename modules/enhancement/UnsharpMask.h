#pragma once

#include <opencv2/core.hpp>

#include "FilterOptions.h"
#include "KroLibExport.h"

namespace velmor {
namespace kro {

// Sharpening by unsharp masking: adds `amount` times the difference between
// an image and its Gaussian blur (sigma `sigma`, reflect-101 border).
//
// The difference is taken in the element type of the image, so for 8-bit
// unsigned images its negative part is 0. Multi-channel images are sharpened
// everywhere. Single-channel images are sharpened only where the difference
// exceeds `threshold` times the full scale of the type (255 for 8-bit
// unsigned, 127 for 8-bit signed, 1.0 for float): only pixels brighter than
// their surroundings gain contrast, darker ones are left as they are.
class KROLIB_EXPORT UnsharpMask {
public:
    UnsharpMask() = default;
    ~UnsharpMask() = default;
    UnsharpMask& operator=(const UnsharpMask&) = default;

    // Returns 0, or -1 without touching `dst` when the depth of `src` is not
    // CV_8U, CV_8S or CV_32F. Errors of OpenCV (an empty image, sigma <= 0)
    // propagate as cv::Exception.
    static int unsharp(cv::Mat& src, cv::Mat& dst, double amount, double sigma, double threshold);
    // The same with checked settings: throws velmor::kro::Exception with
    // options.validate()'s text for a refused value.
    static int unsharp(cv::Mat& src, cv::Mat& dst, const UnsharpMaskOptions& options);
};

} // namespace kro
} // namespace velmor
