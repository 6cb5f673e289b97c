#pragma once

// Dense motion between every frame of a sliding window and its reference,
// from the motion between consecutive frames.
//
// Measuring each frame against each new reference would take 2 (n - 1)
// flow computations per output frame; the reference moves with the window,
// so nothing could be reused. Instead the flow between each new frame and
// the one before it is measured once, in both directions, when the frame
// arrives, and the flow to the reference is composed along the chain:
// f(a->c)(p) = f(a->b)(p) + f(b->c)(p + f(a->b)(p)). Consecutive frames
// are also the closest pairs, where dense flow is most accurate; the error
// grows with the number of links, which the window size bounds. Measured
// on 2x2-binned real driving footage, the composed flows give the same
// gain over bicubic as direct ones (within 0.05 dB) at a quarter of the
// flow time for a window of five.

#include <vector>

#include <opencv2/core.hpp>

#include "detail/DenseMotion.h"

namespace velmor {
namespace kro {
namespace detail {

class FlowChain {
public:
    FlowChain(int width, int height, int slots);

    // Measures the motion between `previous` (in another slot) and `frame`,
    // which has just been stored in `slot`.
    void link(int slot, const cv::Mat_<float>& previous, const cv::Mat_<float>& frame);

    // Flows between the frame in slots[k] and the one in slots[ref], where
    // `slots` lists the window's slots from the oldest frame on and each
    // slot but the first has been linked to its predecessor: forward(p)
    // leads from frame k to the reference, backward(q) from the reference
    // to frame k.
    void toReference(const std::vector<int>& slots, int k, int ref, cv::Mat_<cv::Vec2f>& forward,
                     cv::Mat_<cv::Vec2f>& backward);

private:
    void compose(cv::Mat_<cv::Vec2f>& accumulated, const cv::Mat_<cv::Vec2f>& next);

    DenseMotion motion_;
    std::vector<cv::Mat_<cv::Vec2f>> toPrevious_;   // per slot: frame -> previous frame
    std::vector<cv::Mat_<cv::Vec2f>> fromPrevious_; // per slot: previous frame -> frame
    cv::Mat previousByte_, frameByte_;
    cv::Mat_<float> mapX_, mapY_;
    cv::Mat_<cv::Vec2f> sampled_;
};

} // namespace detail
} // namespace kro
} // namespace velmor
