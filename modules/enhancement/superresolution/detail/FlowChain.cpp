#include "detail/FlowChain.h"

#include <opencv2/imgproc.hpp>

namespace velmor {
namespace kro {
namespace detail {

FlowChain::FlowChain(int width, int height, int slots)
    : toPrevious_(slots), fromPrevious_(slots), mapX_(height, width), mapY_(height, width)
{
    for (int i = 0; i < slots; ++i) {
        toPrevious_[i].create(height, width);
        fromPrevious_[i].create(height, width);
    }
}

void FlowChain::link(int slot, const cv::Mat_<float>& previous, const cv::Mat_<float>& frame)
{
    // One stretch for both frames of the pair, so that equal values stay
    // equal in 8 bits.
    motion_.setStretchFrom(frame);
    motion_.toByte(previous, previousByte_);
    motion_.toByte(frame, frameByte_);
    motion_.flow(frameByte_, previousByte_, toPrevious_[slot]);
    motion_.flow(previousByte_, frameByte_, fromPrevious_[slot]);
}

void FlowChain::compose(cv::Mat_<cv::Vec2f>& accumulated, const cv::Mat_<cv::Vec2f>& next)
{
    for (int r = 0; r < accumulated.rows; ++r)
        for (int c = 0; c < accumulated.cols; ++c) {
            mapX_(r, c) = static_cast<float>(c) + accumulated(r, c)[0];
            mapY_(r, c) = static_cast<float>(r) + accumulated(r, c)[1];
        }
    cv::remap(next, sampled_, mapX_, mapY_, cv::INTER_LINEAR, cv::BORDER_REPLICATE);
    accumulated += sampled_;
}

void FlowChain::toReference(const std::vector<int>& slots, int k, int ref, cv::Mat_<cv::Vec2f>& forward,
                            cv::Mat_<cv::Vec2f>& backward)
{
    if (k < ref) {
        // Older frame: forward along the arrivals, backward against them.
        fromPrevious_[slots[k + 1]].copyTo(forward);
        for (int i = k + 2; i <= ref; ++i)
            compose(forward, fromPrevious_[slots[i]]);
        toPrevious_[slots[ref]].copyTo(backward);
        for (int i = ref - 1; i > k; --i)
            compose(backward, toPrevious_[slots[i]]);
    } else {
        toPrevious_[slots[k]].copyTo(forward);
        for (int i = k - 1; i > ref; --i)
            compose(forward, toPrevious_[slots[i]]);
        fromPrevious_[slots[ref + 1]].copyTo(backward);
        for (int i = ref + 2; i <= k; ++i)
            compose(backward, fromPrevious_[slots[i]]);
    }
}

} // namespace detail
} // namespace kro
} // namespace velmor
