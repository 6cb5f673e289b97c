#pragma once

// Dense motion between two frames for the motion-robust reconstruction.
//
// Motion is measured per pixel with OpenCV's DIS optical flow (coarse-to-
// fine patch alignment with variational refinement). It was chosen over
// one shift per frame because a moving camera sees zoom and parallax (near
// objects move against far ones), and over the Farneback flow because it
// is faster at the same sub-pixel accuracy on thermal frames. DIS works on
// 8-bit images: both frames are mapped through one linear stretch (the
// reference's 0.5 % to 99.5 % range), so equal values stay equal.

#include <vector>

#include <opencv2/core.hpp>
#include <opencv2/video/tracking.hpp>

namespace velmor {
namespace kro {
namespace detail {

class DenseMotion {
public:
    DenseMotion();
    DenseMotion(const DenseMotion& other);
    DenseMotion& operator=(const DenseMotion& other);

    // The stretch used by toByte: `frame`'s 0.5 % and 99.5 % values.
    void setStretchFrom(const cv::Mat_<float>& frame);
    // `frame` mapped to 8 bits through the current stretch.
    void toByte(const cv::Mat_<float>& frame, cv::Mat& byte) const;

    // flow(p) = (dx, dy) such that from(p) matches to(p + flow(p)), in pixels.
    void flow(const cv::Mat& fromByte, const cv::Mat& toByte, cv::Mat_<cv::Vec2f>& flow);

    // How far the flow departs from one shift: the larger, over x and y, of
    // the median absolute deviation from the median. Also returns the median
    // shift. `scratch` is reused between calls.
    static float spread(const cv::Mat_<cv::Vec2f>& flow, cv::Point2f& medianShift,
                        std::vector<float>& scratch);

private:
    cv::Ptr<cv::DISOpticalFlow> dis_;
    float low_ = 0.0f;
    float scale_ = 1.0f;
};

} // namespace detail
} // namespace kro
} // namespace velmor
