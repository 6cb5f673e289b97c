#pragma once

// Display images of kroenhance demo: 8-bit views of thermal frames by a
// percentile stretch, and the labelled side-by-side comparison.

#include <string>
#include <vector>

#include <opencv2/core.hpp>

namespace kroenhance {

// The sample values at two percentiles (0..100) of `image`, by rank
// (nearest rank, no interpolation). `high` is raised above `low` when the
// image is (nearly) flat, so the range can always be divided by.
struct DisplayRange {
    double low = 0.0;
    double high = 1.0;
};
DisplayRange percentileRange(const cv::Mat_<float>& image, double lowPercent, double highPercent);

// Linear map of [range.low, range.high] to [0, 255], rounded and saturated.
cv::Mat_<unsigned char> toDisplay(const cv::Mat_<float>& image, const DisplayRange& range);

// The `size` rectangle of `image` whose gradients are strongest: where the
// difference between the methods shows best.
cv::Rect detailRegion(const cv::Mat_<float>& image, cv::Size size);

struct ComparisonPanel {
    std::string title;    // first label line, e.g. "SR corners"
    std::string caption;  // second label line, e.g. "PSNR 33.1 dB  SSIM 0.912"
    cv::Mat_<float> image;
};

// The panels side by side (all of one size), each under its two label lines,
// all shown through the same `range`; below them a second row with the
// `detail` rectangle of every panel enlarged `zoom` times by pixel
// replication (none when `detail` is empty). The detail rectangle is outlined
// on the first panel.
cv::Mat_<unsigned char> comparisonImage(const std::vector<ComparisonPanel>& panels, const DisplayRange& range,
                                        const cv::Rect& detail, int zoom);

} // namespace kroenhance
