#include "SrIntRegistration.h"

#include <algorithm>
#include <cfloat>
#include <climits>
#include <cmath>
#include <cstring>
#include <sstream>

#include <opencv2/imgproc.hpp>
#include <opencv2/video/tracking.hpp>

#include "detail/Parallel.h"
#include "detail/SrIntRegistrationRows.h"
#include "detail/ShiftFrame.h"
#include "detail/Throw.h"

// Frames, corners, accumulation and moving of the integer registration; the
// Lucas-Kanade step is in SrIntRegistrationFlow.cpp.

namespace velmor {
namespace kro {

namespace {

constexpr int kMaxCorners = 100;
// Fewer held corners than this: extract a new set.
constexpr std::size_t kMinHeldCorners = 15;
constexpr double kCornerQuality = 0.05;
constexpr double kCornerMinDistance = 2.0;
constexpr int kCornerBlockSize = 3;
constexpr int kPyramidMaxLevel = 3;
constexpr int kTrackIterations = 30;
constexpr double kTrackEpsilon = 0.01;
constexpr double kTrackMinEigenvalue = 1e-4;
constexpr std::size_t kMinTrackedCorners = 4;
constexpr int kMinInliers = 2;
constexpr float kInlierDistance = 2.0f;
// Share of the frame range added on both sides of a new grey-value mapping.
constexpr float kMappingMargin = 0.1f;
// Rough operations per pixel of the cheap per-pixel loops.
constexpr std::size_t kOpsPerPixel = 8;

cv::Mat_<float> gaussianKernel(int radius)
{
    const float sigma = std::sqrt(3.0f * static_cast<float>(radius) * static_cast<float>(radius) / 25.0f);
    return cv::getGaussianKernel(2 * radius + 1, sigma, CV_32F);
}

// Rounded shifts stay far outside any frame but within 16 bits.
short roundToShort(float v)
{
    return static_cast<short>(detail::roundShift(v, 32767));
}

} // namespace

SrIntRegistration::SrIntRegistration(int width_, int height_, unsigned int windowSize_)
    : DebugChannel("SrInt"), width(width_), height(height_),
      // A count beyond int is a negative size converted on the way in: the
      // same refusing object as 0, so that the caller can report it.
      windowSize(windowSize_ > static_cast<unsigned int>(INT_MAX) ? 0 : static_cast<int>(windowSize_)),
      lo(FLT_MAX), hi(-FLT_MAX), minWorkPerThread(parallel::kMinWorkPerThread)
{
    if (width < 1 || height < 1)
        KRO_THROW("invalid frame size " << width << "x" << height);
    setRegError(regError);
    gaussKernel = gaussianKernel(blurRadius);

    preparedFrames.resize(windowSize);
    regMasks.resize(windowSize);
    for (int i = 0; i < windowSize; ++i) {
        preparedFrames[i].create(height, width);
        regMasks[i].create(height, width);
        regMasks[i] = 0;
    }
    pairShifts.assign(windowSize, cv::Point_<Fixpoint>());
    pairKnown.assign(windowSize, 0);
    diffX.create(height, width);
    diffY.create(height, width);
    mapped.create(height, width);
    errorImage.create(height, width);
    boxColumns.create(height, width);
    rowSums.assign(3 * static_cast<std::size_t>(height), 0);

    corners.reserve(kMaxCorners);
    trackedPoints.reserve(kMaxCorners);
    trackStatus.reserve(kMaxCorners);
    trackError.reserve(kMaxCorners);
    flows.reserve(kMaxCorners);
    medianWork.reserve(kMaxCorners);
}

SrIntRegistration::~SrIntRegistration() = default;

void SrIntRegistration::setRegError(float error)
{
    regError = error;
    // The mask threshold is the mantissa of this value: four bits are given
    // up so that it stays far below the 16-bit ceiling of the error image.
    regErrorFix = Fixpoint(error);
    regErrorFix.setMantissa(static_cast<short>(regErrorFix.getMantissa() / 16));
    regErrorFix.setExponent(static_cast<signed char>(regErrorFix.getExponent() + 4));
}

void SrIntRegistration::setBlurRadius(int radius)
{
    if (radius < 0)
        KRO_THROW("invalid blur radius " << radius);
    blurRadius = radius;
    gaussKernel = gaussianKernel(radius);
}

int SrIntRegistration::threadsFor(std::size_t work)
{
    return parallel::threadsForWork(threadCount, work, minWorkPerThread);
}

void SrIntRegistration::mapTo8Bit(const cv::Mat_<short>& frame, cv::Mat_<unsigned char>& out)
{
    const float off = offset;
    const float sc = scale;
    forRows(height, static_cast<std::size_t>(width) * kOpsPerPixel, [&](int begin, int end) {
        for (int y = begin; y < end; ++y) {
            const short* in = frame[y];
            unsigned char* o = out[y];
            // Rounded into 16 bits first, then into 8 bits, both saturating.
            KROLIB_SIMD_LOOP
            for (int x = 0; x < width; ++x)
                o[x] = cv::saturate_cast<unsigned char>(
                    cv::saturate_cast<short>((static_cast<float>(in[x]) + off) * sc));
        }
    });
}

void SrIntRegistration::sepFilter2D(const cv::Mat_<unsigned char>& in, cv::Mat_<unsigned char>& out)
{
    cv::sepFilter2D(in, out, CV_8U, gaussKernel, gaussKernel, cv::Point(-1, -1), 0.0, cv::BORDER_REFLECT_101);
}

void SrIntRegistration::buildPyramid(int pyramid, int frame)
{
    trace("start buildOpticalFlowPyramid");
    cv::buildOpticalFlowPyramid(preparedFrames[frame], pyramids.levels[pyramid], cv::Size(winSize, winSize),
                                kPyramidMaxLevel, true, cv::BORDER_REFLECT_101, cv::BORDER_CONSTANT, true);
    pyramids.frame[pyramid] = frame;
    trace("end buildOpticalFlowPyramid");
}

void SrIntRegistration::ensurePyramid(int pyramid, int frame)
{
    if (pyramids.frame[pyramid] != frame)
        buildPyramid(pyramid, frame);
}

int SrIntRegistration::prepareFrame(const cv::Mat_<short>& frame)
{
    trace("start prepareFrame");
    if (windowSize < 1)
        KRO_THROW("no frame can be prepared in a window of size 0");
    if (frame.rows != height || frame.cols != width)
        KRO_THROW("invalid frame size " << frame.cols << "x" << frame.rows << " (expected " << width << "x"
                                        << height << ")");
    lastThreads = 1;

    // Everything that refers to a prepared frame by index moves with the
    // window: once it is full the oldest entry goes to the end and is reused.
    if (count >= windowSize) {
        std::rotate(preparedFrames.begin(), preparedFrames.begin() + 1, preparedFrames.end());
        std::rotate(pairShifts.begin(), pairShifts.begin() + 1, pairShifts.end());
        std::rotate(pairKnown.begin(), pairKnown.begin() + 1, pairKnown.end());
        std::rotate(regMasks.begin(), regMasks.begin() + 1, regMasks.end());
        for (int& f : pyramids.frame)
            f = f > 0 ? f - 1 : -1;
        cornerFrame = cornerFrame > 0 ? cornerFrame - 1 : -1;
    } else {
        ++count;
    }
    const int newest = count - 1;
    pairKnown[newest] = 0;

    double minValue = 0.0;
    double maxValue = 0.0;
    cv::minMaxIdx(frame, &minValue, &maxValue);
    int result = 0;
    if (lo > static_cast<float>(minValue) || static_cast<float>(maxValue) > hi) {
        if (count > 1)
            result = kMappingWidened;
        const float d = static_cast<float>(maxValue - minValue) * kMappingMargin;
        lo = static_cast<float>(minValue) - d;
        hi = static_cast<float>(maxValue) + d;
        offset = -lo;
        // A flat frame leaves an empty range: everything maps to 0 until a
        // frame with structure widens it.
        scale = hi > lo ? 255.0f / (hi - lo) : 0.0f;
    }

    mapTo8Bit(frame, mapped);
    trace("start GaussianBlur");
    sepFilter2D(mapped, preparedFrames[newest]);
    trace("end GaussianBlur");

    // The newest pyramid becomes the previous one.
    std::swap(pyramids.levels[0], pyramids.levels[1]);
    pyramids.frame[0] = pyramids.frame[1];
    buildPyramid(1, newest);
    trace("end prepareFrame");
    return result;
}

void SrIntRegistration::clearFrames()
{
    count = 0;
    lo = FLT_MAX;
    hi = -FLT_MAX;
    offset = 0.0f;
    scale = 0.0f;
    pyramids.frame[0] = pyramids.frame[1] = -1;
    corners.clear();
    cornerFrame = -1;
    std::fill(pairKnown.begin(), pairKnown.end(), 0);
}

void SrIntRegistration::extractCorners()
{
    trace("start extractCorners");
    cv::goodFeaturesToTrack(pyramids.levels[0][0], corners, kMaxCorners, kCornerQuality, kCornerMinDistance,
                            cv::noArray(), kCornerBlockSize, false);
    trace("end extractCorners");
}

void SrIntRegistration::trackCorners()
{
    cv::calcOpticalFlowPyrLK(
        pyramids.levels[0], pyramids.levels[1], corners, trackedPoints, trackStatus, trackError,
        cv::Size(winSize, winSize), kPyramidMaxLevel,
        cv::TermCriteria(cv::TermCriteria::COUNT | cv::TermCriteria::EPS, kTrackIterations, kTrackEpsilon), 0,
        kTrackMinEigenvalue);
}

cv::Point_<short> SrIntRegistration::registerWithCorners(unsigned int prev, unsigned int next)
{
    trace("start registerWithCorners");
    ensurePyramid(0, static_cast<int>(prev));
    ensurePyramid(1, static_cast<int>(next));
    // Held corners lie in the frame that was newest at the last call; in
    // steady state that is `prev`, otherwise a new set is needed.
    if (cornerFrame != static_cast<int>(prev))
        corners.clear();
    if (corners.size() < kMinHeldCorners)
        extractCorners();
    cornerFrame = static_cast<int>(prev);

    flows.clear();
    if (!corners.empty()) {
        trackCorners();
        for (std::size_t k = 0; k < corners.size(); ++k)
            if (trackStatus[k] != 0)
                flows.emplace_back(trackedPoints[k].x - corners[k].x, trackedPoints[k].y - corners[k].y);
    }
    if (flows.size() < kMinTrackedCorners)
        KRO_THROW("Not enough stable correspondences");

    corners.clear();
    for (std::size_t k = 0; k < trackedPoints.size(); ++k)
        if (trackStatus[k] != 0)
            corners.push_back(trackedPoints[k]);
    cornerFrame = static_cast<int>(next);

    const cv::Point_<short> shift = getMeanFlow(flows);
    trace("end registerWithCorners");
    return shift;
}

cv::Point_<short> SrIntRegistration::getMeanFlow(const std::vector<cv::Point_<float>>& flowList)
{
    trace("start getMeanFlow");
    const std::size_t n = flowList.size();
    float median[2] = {0.0f, 0.0f};
    if (n > 0) {
        // The element at n/2 after a partial ordering: the upper median for
        // even n, no averaging.
        for (int axis = 0; axis < 2; ++axis) {
            medianWork.clear();
            for (const cv::Point_<float>& f : flowList)
                medianWork.push_back(axis == 0 ? f.x : f.y);
            std::nth_element(medianWork.begin(), medianWork.begin() + n / 2, medianWork.end());
            median[axis] = medianWork[n / 2];
        }
    }
    double sumX = 0.0;
    double sumY = 0.0;
    int inliers = 0;
    for (const cv::Point_<float>& f : flowList) {
        if (std::fabs(f.x - median[0]) < kInlierDistance && std::fabs(f.y - median[1]) < kInlierDistance) {
            sumX += f.x;
            sumY += f.y;
            ++inliers;
        }
    }
    if (inliers < kMinInliers)
        KRO_THROW("Not enough inlier");
    const cv::Point_<short> mean(roundToShort(static_cast<float>(sumX / inliers)),
                                 roundToShort(static_cast<float>(sumY / inliers)));
    trace("end getMeanFlow");
    return mean;
}

void SrIntRegistration::registerPair(unsigned int prev, cv::Point_<Fixpoint>& subPixel,
                                     cv::Point_<short>& rounded)
{
    const cv::Point_<short> intShift = registerWithCorners(prev, prev + 1);
    // The earlier frame is the reference of the gradient step.
    prepareGradientsRefImage(0);
    cv::Point_<Fixpoint> pair;
    rounded = opticalFlow(0, 1, intShift, subPixel, pair, regMasks[prev]);
    // opticalFlow gives the newer frame's shift against the earlier one; the
    // earlier frame's shift towards the newer is its negation.
    pairShifts[prev] = cv::Point_<Fixpoint>(Fixpoint::neg(pair.x), Fixpoint::neg(pair.y));
    subPixel = cv::Point_<Fixpoint>(Fixpoint::neg(subPixel.x), Fixpoint::neg(subPixel.y));
    rounded = cv::Point_<short>(static_cast<short>(-rounded.x), static_cast<short>(-rounded.y));
    pairKnown[prev] = 1;
}

void SrIntRegistration::checkRegistrationInput(const std::vector<cv::Mat_<short>>& frames) const
{
    if (frames.size() < static_cast<std::size_t>(count))
        KRO_THROW("frame list of " << frames.size() << " entries for " << count << " prepared frames");
    for (int i = 0; i < count; ++i)
        if (frames[i].rows != height || frames[i].cols != width)
            KRO_THROW("invalid size " << frames[i].cols << "x" << frames[i].rows << " of frame " << i
                                      << " (expected " << width << "x" << height << ")");
}

void SrIntRegistration::accumulateShifts(int newest, std::vector<cv::Point_<Fixpoint>>& subPixelShifts,
                                         std::vector<cv::Point_<Fixpoint>>& totalShifts,
                                         std::vector<cv::Point_<short>>& roundedShifts)
{
    // Frame i is frame i + 1 moved by pairShifts[i], so its shift against
    // the newest frame is the sum of the pairwise shifts from i up. The
    // frame just before the newest keeps the total it was given: its shift
    // is complete in its rounded and sub-pixel parts already.
    const int j = newest - 1;
    if (j < 0)
        return;
    float x = pairShifts[j].x.toFloat();
    float y = pairShifts[j].y.toFloat();
    for (int i = j - 1; i >= 0; --i) {
        x += pairShifts[i].x.toFloat();
        y += pairShifts[i].y.toFloat();
        totalShifts[i] = cv::Point_<Fixpoint>(Fixpoint(x), Fixpoint(y));
        const cv::Point_<short> r(roundToShort(x), roundToShort(y));
        roundedShifts[i] = r;
        subPixelShifts[i] = cv::Point_<Fixpoint>(Fixpoint(x - static_cast<float>(r.x)),
                                                 Fixpoint(y - static_cast<float>(r.y)));
    }
}

void SrIntRegistration::moveImage(const cv::Mat& in, cv::Point_<short> shift, cv::Mat& out)
{
    // out(x, y) = in(x + shift.x, y + shift.y), zero where that lies outside.
    const std::size_t elem = in.elemSize();
    const int sx = shift.x;
    const int sy = shift.y;
    const int x0 = std::clamp(-sx, 0, width);
    const int x1 = std::clamp(width - sx, x0, width);
    forRows(height, static_cast<std::size_t>(width), [&](int begin, int end) {
        for (int y = begin; y < end; ++y) {
            unsigned char* o = out.ptr<unsigned char>(y);
            const int source = y + sy;
            if (source < 0 || source >= height || x1 <= x0) {
                std::memset(o, 0, elem * width);
                continue;
            }
            const unsigned char* s = in.ptr<unsigned char>(source);
            std::memset(o, 0, elem * x0);
            std::memcpy(o + elem * x0, s + elem * (x0 + sx), elem * (x1 - x0));
            std::memset(o + elem * x1, 0, elem * (width - x1));
        }
    });
}

int SrIntRegistration::doRegistrationVideo(const std::vector<cv::Mat_<short>>& frames,
                                           std::vector<cv::Point_<Fixpoint>>& subPixelShifts,
                                           std::vector<cv::Point_<Fixpoint>>& totalShifts,
                                           std::vector<cv::Point_<short>>& roundedShifts,
                                           std::vector<cv::Mat_<signed char>>& masks,
                                           std::vector<cv::Mat_<short>>& movedFrames)
{
    trace("start doRegistrationVideo");
    lastThreads = 1;
    if (count < 1) {
        trace("end doRegistrationVideo");
        return kNoFrames;
    }
    checkRegistrationInput(frames);
    const std::size_t slots = static_cast<std::size_t>(windowSize);
    if (subPixelShifts.size() < slots)
        subPixelShifts.resize(slots);
    if (totalShifts.size() < slots)
        totalShifts.resize(slots);
    if (roundedShifts.size() < slots)
        roundedShifts.resize(slots);
    if (masks.size() < slots)
        masks.resize(slots);
    if (movedFrames.size() < slots)
        movedFrames.resize(slots);
    for (int i = 0; i < count; ++i) {
        masks[i].create(height, width);
        movedFrames[i].create(height, width);
    }

    const int k = count - 1;
    pairShifts[k] = cv::Point_<Fixpoint>();
    pairKnown[k] = 0;
    subPixelShifts[k] = cv::Point_<Fixpoint>();
    totalShifts[k] = cv::Point_<Fixpoint>();
    roundedShifts[k] = cv::Point_<short>(0, 0);

    if (count > 1) {
        // Pairs that no earlier call registered first, then the newest pair,
        // so that the tracker's corners end in the newest frame.
        const int j = k - 1;
        for (int i = 0; i < j; ++i)
            if (!pairKnown[i])
                registerPair(static_cast<unsigned int>(i), subPixelShifts[i], roundedShifts[i]);
        registerPair(static_cast<unsigned int>(j), subPixelShifts[j], roundedShifts[j]);
        accumulateShifts(k, subPixelShifts, totalShifts, roundedShifts);
    }

    if (isDebugActive(kDebugLevelTrace)) {
        for (int i = 0; i < count; ++i) {
            std::ostringstream line;
            line << "Video registration: Accumulated shift " << i << " " << totalShifts[i].x.toFloat() << " "
                 << totalShifts[i].y.toFloat();
            send(line.str(), kDebugLevelTrace);
        }
    }

    masks[k] = 1;
    frames[k].copyTo(movedFrames[k]);
    for (int i = k - 1; i >= 0; --i) {
        cv::Mat moved = movedFrames[i];
        moveImage(frames[i], roundedShifts[i], moved);
        cv::Mat mask = masks[i];
        moveImage(regMasks[i], roundedShifts[i], mask);
    }
    trace("end doRegistrationVideo");
    return 0;
}

} // namespace kro
} // namespace velmor
