#include "ClusterPatternRemover.h"

#include <cmath>
#include <opencv2/imgproc.hpp>

#include "detail/Throw.h"

namespace velmor {
namespace kro {

ClusterPatternRemover::ClusterPatternRemover(unsigned width, unsigned height, float stdDevLimit,
                                             float /*alphaDamping*/, float meanLimit)
    : mClusterWidth(width),
      mClusterHeight(height),
      mStdDevLimit(stdDevLimit),
      mAlphaDamping(stdDevLimit),
      mMeanLimit(meanLimit)
{
}

bool ClusterPatternRemover::setAlphaDamping(float alpha)
{
    if (!filter_rules::alphaDamping(alpha).empty())
        return false;
    mAlphaDamping = alpha;
    return true;
}

void ClusterPatternRemover::setMeanLimit(float meanLimit) { mMeanLimit = meanLimit; }
void ClusterPatternRemover::setStdDevLimit(float stdDevLimit) { mStdDevLimit = stdDevLimit; }
void ClusterPatternRemover::setClusterWidth(unsigned width) { mClusterWidth = width; }
void ClusterPatternRemover::setClusterHeight(unsigned height) { mClusterHeight = height; }

void ClusterPatternRemover::setClusterSize(unsigned width, unsigned height)
{
    if (width != mClusterWidth || height != mClusterHeight)
        mDamping = cv::Mat_<float>();
    mClusterWidth = width;
    mClusterHeight = height;
}

void ClusterPatternRemover::getDamping(cv::Mat& out, bool copy) const
{
    out = copy ? mDamping.clone() : mDamping;
}

// A neighbour that differs by more than the limit stops the scan. A NaN
// difference does not, so a NaN pixel passes and its damping becomes NaN.
bool ClusterPatternRemover::checkMeanLimit(const cv::Mat_<float>& frame, int r, int c)
{
    const float centre = frame(r, c);
    for (int y = r - 1; y <= r + 1; ++y) {
        if (y < 0 || y >= frame.rows)
            continue;
        for (int x = c - 1; x <= c + 1; ++x) {
            if (x < 0 || x >= frame.cols)
                continue;
            if (std::fabs(centre - frame(y, x)) > mMeanLimit)
                return false;
        }
    }
    return true;
}

void ClusterPatternRemover::calculateDamping(const cv::Mat_<float>& frame,
                                             const cv::Mat_<float>& stdDev, FILTERMODE mode)
{
    cv::Mat_<float> smoothed;
    if (mode == MEDIAN) {
        cv::medianBlur(frame, smoothed, 3);
    } else if (mode == GAUSSIAN) {
        cv::GaussianBlur(frame, smoothed, cv::Size(3, 3), 0.0, 0.0);
    } else {
        // Callers rely on this error's location (line 75 of this file): keep it in place.
        KRO_THROW("unsupported mode");
    }
    if (mDamping.rows != frame.rows || mDamping.cols != frame.cols)
        mDamping = cv::Mat_<float>::ones(frame.rows, frame.cols);

    const float alpha = mAlphaDamping;
    for (int r = 0; r < stdDev.rows; ++r) {
        for (int c = 0; c < stdDev.cols; ++c) {
            const float value = frame(r, c);
            if (mStdDevLimit > std::fabs(stdDev(r, c)) && checkMeanLimit(frame, r, c) &&
                value != 0.0f)
                mDamping(r, c) = (smoothed(r, c) / value) * alpha + (1.0f - alpha) * mDamping(r, c);
        }
    }
}

void ClusterPatternRemover::updateDamping(const cv::Mat_<float>& frame,
                                          const cv::Mat_<float>& stdDev, FILTERMODE mode)
{
    if (frame.empty())
        KRO_THROW("empty input frame");
    if (stdDev.size() != frame.size())
        KRO_THROW("standard deviation image of " << stdDev.cols << "x" << stdDev.rows
                                                 << " does not match the frame of " << frame.cols
                                                 << "x" << frame.rows);
    calculateDamping(frame, stdDev, mode);
}

void ClusterPatternRemover::applyDamping(const cv::Mat_<float>& src, cv::Mat_<float>& dst) const
{
    if (src.empty())
        KRO_THROW("empty input frame");
    if (mDamping.empty()) {
        src.copyTo(dst);
        return;
    }
    if (src.size() != mDamping.size())
        KRO_THROW("frame of " << src.cols << "x" << src.rows << " does not match the damping map of "
                              << mDamping.cols << "x" << mDamping.rows);
    cv::multiply(src, mDamping, dst);
}

ClusterPatternRemover::ClusterPatternRemover(const ClusterPatternRemoverOptions& options)
    : ClusterPatternRemover(options.clusterWidth, options.clusterHeight, options.stdDevLimit, options.alphaDamping,
                            options.meanLimit)
{
    const std::string problem = options.validate();
    if (!problem.empty())
        KRO_THROW(problem);
    setAlphaDamping(options.alphaDamping);
}

ClusterPatternRemoverOptions ClusterPatternRemover::getOptions() const
{
    ClusterPatternRemoverOptions o;
    o.clusterWidth = mClusterWidth;
    o.clusterHeight = mClusterHeight;
    o.stdDevLimit = mStdDevLimit;
    o.alphaDamping = mAlphaDamping;
    o.meanLimit = mMeanLimit;
    return o;
}

} // namespace kro
} // namespace velmor
