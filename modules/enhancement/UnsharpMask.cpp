#include "UnsharpMask.h"

#include <opencv2/imgproc.hpp>

#include "detail/Throw.h"

namespace velmor {
namespace kro {

int UnsharpMask::unsharp(cv::Mat& src, cv::Mat& dst, double amount, double sigma, double threshold)
{
    double fullScale = 0.0;
    switch (src.depth()) {
    case CV_8U: fullScale = 255.0; break;
    case CV_8S: fullScale = 127.0; break;
    case CV_32F: fullScale = 1.0; break;
    default: return -1;
    }

    cv::Mat blurred;
    if (src.depth() == CV_8S) {
        // OpenCV's Gaussian blur has no 8-bit signed path: blur in float and
        // round back.
        cv::Mat asFloat;
        src.convertTo(asFloat, CV_32F);
        cv::GaussianBlur(asFloat, asFloat, cv::Size(0, 0), sigma, sigma);
        asFloat.convertTo(blurred, src.type());
    } else {
        cv::GaussianBlur(src, blurred, cv::Size(0, 0), sigma, sigma);
    }
    cv::Mat diff;
    cv::subtract(src, blurred, diff);  // saturated in the element type of src

    if (src.channels() > 1) {
        dst = src + diff * amount;
        return 0;
    }

    // Binary mask of the pixels whose difference exceeds the threshold, as an
    // 8-bit image: the masked addition then accepts it for every depth
    // (cv::threshold would refuse 8-bit signed images).
    cv::Mat mask;
    cv::compare(diff, fullScale * threshold, mask, cv::CMP_GT);
    cv::Mat result = src.clone();
    cv::add(src, diff * amount, result, mask, src.type());
    dst = result;
    return 0;
}

int UnsharpMask::unsharp(cv::Mat& src, cv::Mat& dst, const UnsharpMaskOptions& options)
{
    const std::string problem = options.validate();
    if (!problem.empty())
        KRO_THROW(problem);
    return unsharp(src, dst, options.amount, options.sigma, options.threshold);
}

} // namespace kro
} // namespace velmor
