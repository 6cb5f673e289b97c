#pragma once

// Image-quality figures against a known truth, as used by the demo and the
// quality benchmarks: PSNR and SSIM over the image minus a border, after
// aligning the image to the truth's sampling grid.

#include <opencv2/core.hpp>

namespace krotools {

// Peak signal-to-noise ratio in dB over the rectangle that leaves `border`
// pixels on every side; `peak` is the signal range (e.g. the truth's
// max - min). Identical images give +infinity.
double psnr(const cv::Mat_<float>& truth, const cv::Mat_<float>& image, double peak, int border);

// Mean structural similarity (Gaussian window of sigma 1.5, constants
// (0.01 peak)^2 and (0.03 peak)^2) over the same rectangle.
double ssim(const cv::Mat_<float>& truth, const cv::Mat_<float>& image, double peak, int border);

// Translation of `image` against `truth` in pixels (positive: the image's
// content lies right/below the truth's), found by windowed phase correlation
// over the inner rectangle. Reconstructions and interpolations place their
// pixels on grids that may differ from the truth's by a fraction of a pixel;
// this is a convention of each method, not an error, so figures are taken
// after removing it.
cv::Point2d estimateOffset(const cv::Mat_<float>& truth, const cv::Mat_<float>& image, int border);

// `image` moved by -offset (bicubic), so that its content sits on the truth's grid.
cv::Mat_<float> removeOffset(const cv::Mat_<float>& image, cv::Point2d offset);

struct Quality {
    double psnr = 0.0;
    double ssim = 0.0;
    cv::Point2d offset;  // removed before measuring
};

// PSNR and SSIM of `image` against `truth` (same size) after removing the
// offset found by estimateOffset, which must stay within `maxOffset` pixels
// per axis (larger estimates are taken as failures of the estimate and not
// applied). `peak` 0 means the truth's own range.
Quality measureQuality(const cv::Mat_<float>& truth, const cv::Mat_<float>& image, int border,
                       double peak = 0.0, double maxOffset = 2.0);

} // namespace krotools
