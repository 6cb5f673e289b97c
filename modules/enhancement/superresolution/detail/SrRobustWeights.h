#pragma once

// Alignment and consistency weights of the motion-robust reconstruction:
// for every frame of the window, where its samples lie on the reference's
// grid, the samples themselves (with a slowly varying offset against the
// reference removed) and how much each sample is trusted (0..1).

#include <vector>

#include <opencv2/core.hpp>

#include "SrRobust.h"
#include "detail/FlowChain.h"

namespace velmor {
namespace kro {
namespace detail {

// Replaces NaN and infinite samples by the median of the finite ones (0
// when none is finite); `finite` gets 255 where the sample was finite, 0
// where it was replaced. Returns the number replaced.
long long replaceNonFinite(cv::Mat_<float>& frame, cv::Mat_<uchar>& finite);

class SrRobustWeights {
public:
    SrRobustWeights(int width, int height);

    // Aligns every frame of `window` to frame `ref` with the flows of
    // `chain` (window frame k is in chain slot slots[k]) and weighs its
    // samples against `referenceOnly` (the reference enlarged alone, twice
    // the size). Fills the report's frames, rejectedFraction,
    // fallbackFraction and noise.
    void compute(const std::vector<const cv::Mat_<float>*>& window,
                 const std::vector<const cv::Mat_<uchar>*>& finite, int ref, FlowChain& chain,
                 const std::vector<int>& slots, const cv::Mat_<float>& referenceOnly,
                 const SrRobustOptions& options, int threads, SrRobustReport& report);

    // Frame k's sample positions on the reference grid (input pixels).
    const cv::Mat_<float>& positionX(int k) const { return frames_[k].posX; }
    const cv::Mat_<float>& positionY(int k) const { return frames_[k].posY; }
    const cv::Mat_<float>& weight(int k) const { return frames_[k].weight; }
    // Frame k with its offset against the reference removed.
    const cv::Mat_<float>& samples(int k) const { return frames_[k].samples; }
    // Per output pixel, how far frames other than the reference support it:
    // 0 (none) to 1 (at least one frame's full weight), twice the size.
    const cv::Mat_<float>& support() const { return support_; }

private:
    struct Frame {
        cv::Mat_<float> posX, posY, weight, samples, lowDiff, gradient;
        cv::Mat_<cv::Vec2f> forward, backward;
        float spread = 0.0f;
        float noise = 0.0f;
        double rejected = 0.0; // share of the weight the consistency tests took away
        cv::Point2f shift;
    };

    void align(Frame& f, const cv::Mat_<float>& frame, int threads);
    void weigh(Frame& f, const cv::Mat_<uchar>& finite, float noise, const SrRobustOptions& options);
    double fallbackFraction(int ref, int threads);
    float referenceDeviation(const cv::Mat_<float>& reference);

    int width_;
    int height_;
    float sigma_ = 0.0f;
    cv::Mat_<float> gridX_, gridY_, ones_, box_, pred_, fineSum_, support_;
    std::vector<Frame> frames_;
    std::vector<float> scratch_;
};

} // namespace detail
} // namespace kro
} // namespace velmor
