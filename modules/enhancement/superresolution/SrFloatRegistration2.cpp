#include "SrFloatRegistration2.h"

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <cstring>
#include <limits>
#include <sstream>

#include <opencv2/imgproc.hpp>
#include <opencv2/video/tracking.hpp>

#include "LogFacility.h"
#include "SrFloatConvolution.h"
#include "detail/ShiftFrame.h"
#include "detail/Throw.h"

namespace velmor {
namespace kro {

namespace {

// Corner search and tracking parameters.
constexpr int kMaxCorners = 100;
constexpr double kCornerQuality = 0.1;
constexpr double kCornerMinDistance = 2.0;
constexpr int kCornerBlockSize = 3;
constexpr double kHarrisK = 0.04;
constexpr int kPyramidMaxLevel = 3;
constexpr int kTrackIterations = 30;
constexpr double kTrackEpsilon = 0.01;
constexpr double kTrackMinEigenvalue = 1e-4;
// Displacements closer than this to the median (in both axes) are inliers.
constexpr float kInlierDistance = 2.0f;

// A pyramid level is a view into a buffer with a border of winSize pixels
// that the tracker reads; a copy keeps that border.
cv::Mat cloneWithBorder(const cv::Mat& m)
{
    if (m.empty())
        return cv::Mat();
    cv::Size whole;
    cv::Point offset;
    m.locateROI(whole, offset);
    cv::Mat parent = m;
    parent.adjustROI(offset.y, whole.height - m.rows - offset.y, offset.x,
                     whole.width - m.cols - offset.x);
    return parent.clone()(cv::Rect(offset, m.size()));
}

std::vector<std::vector<cv::Mat>> clonePyramids(const std::vector<std::vector<cv::Mat>>& in)
{
    std::vector<std::vector<cv::Mat>> out(in.size());
    for (std::size_t i = 0; i < in.size(); ++i) {
        out[i].reserve(in[i].size());
        for (const cv::Mat& level : in[i])
            out[i].push_back(cloneWithBorder(level));
    }
    return out;
}

std::vector<cv::Mat> cloneMats(const std::vector<cv::Mat>& in)
{
    std::vector<cv::Mat> out;
    out.reserve(in.size());
    for (const cv::Mat& m : in)
        out.push_back(m.clone());
    return out;
}

} // namespace

SrFloatRegistration2::SrFloatRegistration2(int width_, int height_, int nFrames_)
    : width(width_), height(height_), size(0), nFrames(nFrames_), count(0), regError(0.0001f),
      blurRadius(5), regErrBlurRadius(3), winSize(21), rangeMax(-FLT_MAX), rangeMin(FLT_MAX),
      scale(1.0f), offset(0.0f), gradientRef(-1)
{
    if (width < 1 || height < 1)
        KRO_THROW("invalid frame size " << width << "x" << height);
    if (static_cast<long long>(width) * height > std::numeric_limits<int>::max())
        KRO_THROW("frame size " << width << "x" << height << " too large");
    if (nFrames < 1)
        KRO_THROW("invalid number of frames " << nFrames);
    size = width * height;

    blurred.resize(nFrames);
    for (cv::Mat& b : blurred)
        b.create(height, width, CV_32F);
    gradX.create(height, width);
    gradY.create(height, width);
    residuals.resize(nFrames);
    for (cv::Mat_<float>& r : residuals)
        r.create(height, width);
    flowStates.resize(nFrames);

    // Building every pyramid once here allocates its level buffers; later
    // builds of the same size reuse them.
    image8u = cv::Mat::zeros(height, width, CV_8U);
    pyramids.resize(nFrames);
    for (int i = 0; i < nFrames; ++i)
        buildPyramid(i);

    corners.reserve(kMaxCorners);
    trackedPoints.reserve(kMaxCorners);
    trackStatus.reserve(kMaxCorners);
    trackError.reserve(kMaxCorners);
    displacementX.reserve(kMaxCorners);
    displacementY.reserve(kMaxCorners);
    medianWork.reserve(kMaxCorners);
    shifts.reserve(nFrames);
    cornerShifts.assign(nFrames, PointI());
    flowFrames.reserve(nFrames);
    flowMasks.assign(nFrames, nullptr);
    refRowSums.assign(static_cast<std::size_t>(height) * 3, 0.0);
    flowRowSums.assign(static_cast<std::size_t>(height) * 5 * nFrames, 0.0);
}

SrFloatRegistration2::SrFloatRegistration2(const SrFloatRegistration2& other)
    : width(other.width), height(other.height), size(other.size), nFrames(other.nFrames),
      count(other.count), regError(other.regError), blurRadius(other.blurRadius),
      regErrBlurRadius(other.regErrBlurRadius), winSize(other.winSize),
      blurred(cloneMats(other.blurred)), pyramids(clonePyramids(other.pyramids)),
      corners(other.corners), gradX(other.gradX.clone()), gradY(other.gradY.clone()),
      residuals(other.residuals.size()),
      rangeMax(other.rangeMax), rangeMin(other.rangeMin), scale(other.scale),
      offset(other.offset), shifts(other.shifts), image8u(other.image8u.clone()),
      trackedPoints(other.trackedPoints), trackStatus(other.trackStatus),
      trackError(other.trackError), displacementX(other.displacementX),
      displacementY(other.displacementY), medianWork(other.medianWork),
      cornerShifts(other.cornerShifts), flowFrames(other.flowFrames),
      flowMasks(other.flowMasks), refRowSums(other.refRowSums),
      flowRowSums(other.flowRowSums), gradientRef(other.gradientRef),
      flowStates(other.flowStates), threadCount(other.threadCount)
{
    for (std::size_t i = 0; i < residuals.size(); ++i)
        residuals[i] = other.residuals[i].clone();
    // Vectors copy their contents but not their spare capacity; keep the
    // promise that a registration allocates nothing.
    corners.reserve(kMaxCorners);
    trackedPoints.reserve(kMaxCorners);
    trackStatus.reserve(kMaxCorners);
    trackError.reserve(kMaxCorners);
    displacementX.reserve(kMaxCorners);
    displacementY.reserve(kMaxCorners);
    medianWork.reserve(kMaxCorners);
    shifts.reserve(nFrames);
    flowFrames.reserve(nFrames);
}

SrFloatRegistration2& SrFloatRegistration2::operator=(const SrFloatRegistration2& other)
{
    if (this != &other) {
        // Copy first, then take the copy over: a failing copy leaves this
        // object as it was.
        SrFloatRegistration2 copy(other);
        *this = std::move(copy);
    }
    return *this;
}

SrFloatRegistration2::~SrFloatRegistration2() = default;

void SrFloatRegistration2::buildPyramid(int index)
{
    cv::buildOpticalFlowPyramid(image8u, pyramids[index], cv::Size(winSize, winSize),
                                kPyramidMaxLevel, true, cv::BORDER_REFLECT_101,
                                cv::BORDER_CONSTANT, true);
}

void SrFloatRegistration2::prepareFrame(float* frame)
{
    if (frame == nullptr)
        KRO_THROW("null frame passed to prepareFrame");
    // Checked before the ring moves, so a refused frame changes nothing.
    if (blurRadius < 0)
        KRO_THROW("invalid blur radius " << blurRadius);

    // Same ring discipline as the caller's frames: once full, the oldest
    // entry moves to the last place and is overwritten, so index i keeps
    // meaning the caller's frame i.
    if (count == nFrames) {
        std::rotate(blurred.begin(), blurred.begin() + 1, blurred.end());
        std::rotate(pyramids.begin(), pyramids.begin() + 1, pyramids.end());
    } else {
        ++count;
    }
    gradientRef = -1;
    const int index = count - 1;

    const cv::Mat input(height, width, CV_32F, frame);
    const double sigma = std::sqrt(3.0 * blurRadius * blurRadius / 25.0);
    cv::GaussianBlur(input, blurred[index], cv::Size(2 * blurRadius + 1, 2 * blurRadius + 1),
                     sigma, sigma, cv::BORDER_REFLECT_101);

    double minValue = 0.0;
    double maxValue = 0.0;
    cv::minMaxIdx(blurred[index], &minValue, &maxValue);
    // The 8-bit range only widens, so a series shares one mapping. The 10 %
    // margin is taken from the frame's own range and each end moves outwards
    // only (the first frame sets [min - m, max + m]). A non-finite frame does
    // not touch the range; its registration then fails visibly (empty mask).
    bool widened = false;
    if (std::isfinite(minValue) && std::isfinite(maxValue) &&
        (minValue < rangeMin || maxValue > rangeMax)) {
        const double margin = (maxValue - minValue) * 0.1;
        rangeMin = std::min(rangeMin, static_cast<float>(minValue - margin));
        rangeMax = std::max(rangeMax, static_cast<float>(maxValue + margin));
        offset = -rangeMin;
        // A flat first frame gives an empty range: map everything to 0 until
        // a frame with structure widens it.
        scale = rangeMax > rangeMin ? 255.0f / (rangeMax - rangeMin) : 0.0f;
        widened = true;
    }

    // The tracker compares 8-bit images directly, so when the mapping
    // changes the frames already held are converted again with it: no pair
    // of pyramids ever differs by a change of mapping.
    const int first = widened ? 0 : index;
    for (int i = first; i <= index; ++i) {
        blurred[i].convertTo(image8u, CV_8U, scale, static_cast<double>(offset) * scale);
        buildPyramid(i);
    }
}

void SrFloatRegistration2::clearFrames()
{
    count = 0;
    gradientRef = -1;
}

void SrFloatRegistration2::extractCornersRefImage(cv::Mat_<float>& ref)
{
    if (ref.empty())
        KRO_THROW("empty reference image passed to extractCornersRefImage");
    cv::goodFeaturesToTrack(ref, corners, kMaxCorners, kCornerQuality, kCornerMinDistance,
                            cv::noArray(), kCornerBlockSize, false, kHarrisK);

    LogFacility& log = LogFacility::getInstance();
    if (log.getLogLevel() >= LOG_DEBUG) {
        std::ostringstream line;
        if (log.getSourcePosition())
            line << detail::moduleSourcePath(__FILE__) << ", " << __LINE__ << " : ";
        line << "Num corners: " << corners.size();
        log.logMessage(LOG_DEBUG, line.str());
    }
}

void SrFloatRegistration2::validateFrameIndex(long long index, const char* what) const
{
    if (index < 0 || index >= count)
        KRO_THROW("invalid " << what << " " << index << " (" << count << " frames prepared)");
}

int SrFloatRegistration2::registerWithCorners(unsigned refIndex, unsigned frame, PointI& shift)
{
    validateFrameIndex(refIndex, "reference index");
    validateFrameIndex(frame, "frame index");
    shift = PointI(0, 0);
    if (corners.empty())
        return -9;

    cv::calcOpticalFlowPyrLK(
        pyramids[refIndex], pyramids[frame], corners, trackedPoints, trackStatus, trackError,
        cv::Size(winSize, winSize), kPyramidMaxLevel,
        cv::TermCriteria(cv::TermCriteria::COUNT | cv::TermCriteria::EPS, kTrackIterations,
                         kTrackEpsilon),
        0, kTrackMinEigenvalue);

    // A corner at p in the reference is found at p + d in the frame when the
    // frame is the reference moved by d: the displacement is the frame
    // position minus the reference position.
    displacementX.clear();
    displacementY.clear();
    for (std::size_t k = 0; k < corners.size(); ++k) {
        if (trackStatus[k] == 0)
            continue;
        displacementX.push_back(trackedPoints[k].x - corners[k].x);
        displacementY.push_back(trackedPoints[k].y - corners[k].y);
    }
    const std::size_t n = displacementX.size();
    if (n == 0)
        return -9;

    // Median per axis: the element at n/2 after a partial sort (the upper
    // middle for even n, no averaging).
    medianWork.assign(displacementX.begin(), displacementX.end());
    std::nth_element(medianWork.begin(), medianWork.begin() + n / 2, medianWork.end());
    const float medianX = medianWork[n / 2];
    medianWork.assign(displacementY.begin(), displacementY.end());
    std::nth_element(medianWork.begin(), medianWork.begin() + n / 2, medianWork.end());
    const float medianY = medianWork[n / 2];

    double sumX = 0.0;
    double sumY = 0.0;
    int inliers = 0;
    for (std::size_t k = 0; k < n; ++k) {
        if (std::fabs(displacementX[k] - medianX) < kInlierDistance &&
            std::fabs(displacementY[k] - medianY) < kInlierDistance) {
            sumX += displacementX[k];
            sumY += displacementY[k];
            ++inliers;
        }
    }
    // The medians of the two axes may come from different corners; when the
    // displacements are so scattered that none lies near both, the medians
    // themselves are the best estimate.
    const double meanX = inliers > 0 ? sumX / inliers : medianX;
    const double meanY = inliers > 0 ? sumY / inliers : medianY;
    const int limit = 2 * std::max(width, height) + 2;
    shift = PointI(detail::roundShift(meanX, limit), detail::roundShift(meanY, limit));
    return 0;
}

SrFloatRegistration2::Overlap SrFloatRegistration2::overlapFor(PointI shift) const
{
    // Reference pixel x sees frame pixel x + shift.x; keep the x for which
    // that lies inside the frame (likewise for rows).
    Overlap o;
    o.x0 = static_cast<int>(std::max<long long>(0, -static_cast<long long>(shift.x)));
    o.x1 = static_cast<int>(std::min<long long>(width, static_cast<long long>(width) - shift.x));
    o.y0 = static_cast<int>(std::max<long long>(0, -static_cast<long long>(shift.y)));
    o.y1 = static_cast<int>(std::min<long long>(height, static_cast<long long>(height) - shift.y));
    return o;
}

int SrFloatRegistration2::registerFrames(int nFrames_, int refIndex, float** const frames,
                                         PointF* shifts_, char** masks)
{
    (void)frames;  // registration works on the prepared copies
    if (nFrames_ != count)
        KRO_THROW("frame count " << nFrames_ << " does not match the " << count
                                 << " prepared frames");
    validateFrameIndex(refIndex, "reference index");
    if (shifts_ == nullptr || masks == nullptr)
        KRO_THROW("null shift or mask array passed to registerFrames");
    for (int i = 0; i < nFrames_; ++i)
        if (masks[i] == nullptr)
            KRO_THROW("null mask " << i << " passed to registerFrames");
    if (regErrBlurRadius < 0)
        KRO_THROW("invalid registration error blur radius " << regErrBlurRadius);

    cv::Mat_<float> ref = blurred[refIndex];
    extractCornersRefImage(ref);

    // All corner tracking first (it runs on the image library's own
    // threads), then initialize and the dense steps of every frame in one
    // parallel region.
    flowFrames.clear();
    for (int i = 0; i < nFrames_; ++i) {
        cornerShifts[i] = PointI(0, 0);
        if (i == refIndex)
            continue;
        const int rc = registerWithCorners(static_cast<unsigned>(refIndex), static_cast<unsigned>(i),
                                           cornerShifts[i]);
        if (rc != 0)
            return rc;
        flowFrames.push_back(i);
        flowMasks[i] = masks[i];
    }
    runDenseSteps(refIndex, masks);

    for (int i = 0; i < nFrames_; ++i)
        shifts_[i] = i == refIndex ? PointF(0.0f, 0.0f) : flowStates[i].result;
    return 0;
}

int SrFloatRegistration2::doRegistration(int nFrames_, int refIndex, float** const frames,
                                         PointF* shifts_, char** masks, float** shifted)
{
    if (frames == nullptr || shifted == nullptr)
        KRO_THROW("null frame array passed to doRegistration");
    if (nFrames_ < 1 || nFrames_ > nFrames)
        KRO_THROW("invalid number of frames " << nFrames_ << " (capacity " << nFrames << ")");
    for (int i = 0; i < nFrames_; ++i) {
        if (frames[i] == nullptr || shifted[i] == nullptr)
            KRO_THROW("null frame " << i << " passed to doRegistration");
        if (frames[i] == shifted[i])
            KRO_THROW("work frame " << i << " is the input frame itself");
    }

    const int rc = registerFrames(nFrames_, refIndex, frames, shifts_, masks);
    if (rc != 0)
        return rc;

    shifts.assign(shifts_, shifts_ + nFrames_);
    // Half the height bounds both axes. Every shift is checked before any
    // frame is cut, so a failure leaves the work frames untouched.
    const float bound = static_cast<float>(height / 2);
    for (int i = 0; i < nFrames_; ++i) {
        const PointF s = shifts_[i];
        if (!(s.x > -bound && s.x < bound && s.y > -bound && s.y < bound))
            KRO_THROW("Too large displacement");
    }
    for (int i = 0; i < nFrames_; ++i)
        detail::shiftFrame(frames[i], width, height, shifts_[i], shifted[i]);
    return 0;
}

void SrFloatRegistration2::getCompleteShifts(std::vector<PointF>& out) const
{
    out = shifts;
}

} // namespace kro
} // namespace velmor
