#include "SrFloatRegistration2.h"

#include <algorithm>
#include <mutex>
#include <cfloat>
#include <cmath>
#include <cstring>
#include <limits>
#include <sstream>

#include <opencv2/imgproc.hpp>
#include <opencv2/video/tracking.hpp>

#include "LogFacility.h"
#include "SrFloatConvolution.h"
#include "detail/Parallel.h"
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
// Rough count of elementary operations per pixel and frame of the dense
// steps, to decide whether a second thread pays for its wake-up.
constexpr std::size_t kDenseOpsPerPixel = 8;

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

// floor(v + 0.5), clamped to +-limit (chosen far outside the frame) so that
// a wild value cannot overflow the conversion. The float form rounds exactly
// as shiftFrame does (the sum in float).
template <class T>
int roundShift(T v, int limit)
{
    const T r = std::floor(v + static_cast<T>(0.5));
    if (!(r > -static_cast<T>(limit)))
        return -limit;
    if (!(r < static_cast<T>(limit)))
        return limit;
    return static_cast<int>(r);
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
    shift = PointI(roundShift(meanX, limit), roundShift(meanY, limit));
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

namespace {

// Guards the first failure of the per-frame mean filters, which run on
// several threads at once.
std::mutex failureMutex;

} // namespace

bool SrFloatRegistration2::setThreads(int threads)
{
    if (threads < 0)
        return false;
    threadCount = threads;
    return true;
}

int SrFloatRegistration2::threadsForFrames(int frames) const
{
    return parallel::threadsForWork(threadCount, static_cast<std::size_t>(size) *
                                                    static_cast<std::size_t>(frames) * kDenseOpsPerPixel);
}

void SrFloatRegistration2::initialize(char** masks, int refIndex)
{
    validateFrameIndex(refIndex, "reference index");
    if (masks == nullptr)
        KRO_THROW("null mask array passed to initialize");
    for (int i = 0; i < count; ++i)
        if (masks[i] == nullptr)
            KRO_THROW("null mask " << i << " passed to initialize");

    const int threads = threadsForFrames(1);
    lastThreads = parallel::parallelRegion(
        threads, [&](const parallel::Team& team) { initializeSteps(team, masks, refIndex); });
}

void SrFloatRegistration2::initializeSteps(const parallel::Team& team, char** masks, int refIndex)
{
    const float* ref = blurred[refIndex].ptr<float>();
    const int w = width;
    const int h = height;
    const int frames = count;

    // Gradients of the blurred reference: central differences inside, one-
    // sided differences on the first and last row and column (zero along an
    // axis of length 1).
    team.forRows(0, h, [&](int begin, int end) {
    for (int y = begin; y < end; ++y) {
        const float* r = ref + static_cast<std::size_t>(y) * w;
        float* gx = gradX.ptr<float>(y);
        float* gy = gradY.ptr<float>(y);
        if (w > 1) {
            gx[0] = r[1] - r[0];
            for (int x = 1; x < w - 1; ++x)
                gx[x] = (r[x + 1] - r[x - 1]) * 0.5f;
            gx[w - 1] = r[w - 1] - r[w - 2];
        } else {
            gx[0] = 0.0f;
        }
        if (h > 1) {
            const float* up = ref + static_cast<std::size_t>(y > 0 ? y - 1 : 0) * w;
            const float* down = ref + static_cast<std::size_t>(y < h - 1 ? y + 1 : h - 1) * w;
            const float factor = (y > 0 && y < h - 1) ? 0.5f : 1.0f;
            for (int x = 0; x < w; ++x)
                gy[x] = (down[x] - up[x]) * factor;
        } else {
            for (int x = 0; x < w; ++x)
                gy[x] = 0.0f;
        }

        // Whole-row sums of the gradient products; the dense step subtracts
        // the columns that fall outside its overlap.
        double sxx[4] = {0.0, 0.0, 0.0, 0.0};
        double sxy[4] = {0.0, 0.0, 0.0, 0.0};
        double syy[4] = {0.0, 0.0, 0.0, 0.0};
        int x = 0;
        for (; x + 3 < w; x += 4) {
            for (int k = 0; k < 4; ++k) {
                const double a = gx[x + k];
                const double b = gy[x + k];
                sxx[k] += a * a;
                sxy[k] += a * b;
                syy[k] += b * b;
            }
        }
        for (int k = 0; x < w; ++x, ++k) {
            const double a = gx[x];
            const double b = gy[x];
            sxx[k] += a * a;
            sxy[k] += a * b;
            syy[k] += b * b;
        }
        refRowSums[3 * static_cast<std::size_t>(y)] = (sxx[0] + sxx[1]) + (sxx[2] + sxx[3]);
        refRowSums[3 * static_cast<std::size_t>(y) + 1] = (sxy[0] + sxy[1]) + (sxy[2] + sxy[3]);
        refRowSums[3 * static_cast<std::size_t>(y) + 2] = (syy[0] + syy[1]) + (syy[2] + syy[3]);

        for (int f = 0; f < frames; ++f)
            std::memset(masks[f] + static_cast<std::size_t>(y) * w, f == refIndex ? 1 : 0,
                        static_cast<std::size_t>(w));
    }
    });
    if (team.isMaster())
        gradientRef = refIndex;
}

PointF SrFloatRegistration2::opticalFlow(unsigned refIndex, unsigned frame, PointI shift, char* mask)
{
    validateFrameIndex(refIndex, "reference index");
    validateFrameIndex(frame, "frame index");
    if (mask == nullptr)
        KRO_THROW("null mask passed to opticalFlow");
    if (gradientRef != static_cast<int>(refIndex))
        KRO_THROW("reference gradients not computed for frame " << refIndex
                  << "; call initialize first");
    if (regErrBlurRadius < 0)
        KRO_THROW("invalid registration error blur radius " << regErrBlurRadius);

    const int f = static_cast<int>(frame);
    flowFrames.assign(1, f);
    cornerShifts[f] = shift;
    flowMasks[f] = mask;
    runDenseSteps(static_cast<int>(refIndex), nullptr);
    return flowStates[f].result;
}

void SrFloatRegistration2::runDenseSteps(int refIndex, char** initMasks)
{
    stepFailure = nullptr;
    const int threads = threadsForFrames(static_cast<int>(flowFrames.size()) + (initMasks ? 1 : 0));
    lastThreads = parallel::parallelRegion(threads, [&](const parallel::Team& team) {
        if (initMasks != nullptr)
            initializeSteps(team, initMasks, refIndex);
        denseSums(team, refIndex);
        denseSolve(team);
        denseResiduals(team, refIndex);
        denseSmooth(team);
        if (!stepFailure)
            denseMasks(team);
    });
    if (stepFailure)
        std::rethrow_exception(stepFailure);
}

void SrFloatRegistration2::denseSums(const parallel::Team& team, int refIndex)
{
    const int w = width;
    const int h = height;
    const int frames = static_cast<int>(flowFrames.size());
    const float* ref = blurred[refIndex].ptr<float>();

    // Per frame and row of its overlap: the temporal difference It = F - R
    // between the blurred frame cut to the integer shift and the blurred
    // reference, the sums of gx*It and gy*It (four interleaved partial sums
    // each, combined in a fixed order), and the gradient products of the
    // reference over the whole row minus the columns outside the overlap.
    team.forRows(0, frames * h, [&](int begin, int end) {
    for (int t = begin; t < end; ++t) {
        const int k = t / h;
        const int y = t % h;
        const int frame = flowFrames[k];
        const PointI shift = cornerShifts[frame];
        const Overlap area = overlapFor(shift);
        if (area.empty() || y < area.y0 || y >= area.y1)
            continue;
        const int n = area.x1 - area.x0;
        const float* r = ref + static_cast<std::size_t>(y) * w + area.x0;
        const float* f = blurred[frame].ptr<float>(y + shift.y) + (area.x0 + shift.x);
        const float* gx = gradX.ptr<float>(y);
        const float* gy = gradY.ptr<float>(y);
        const float* ox = gx + area.x0;
        const float* oy = gy + area.x0;
        double xt[4] = {0.0, 0.0, 0.0, 0.0};
        double yt[4] = {0.0, 0.0, 0.0, 0.0};
        int x = 0;
        for (; x + 3 < n; x += 4) {
            for (int l = 0; l < 4; ++l) {
                const double it = f[x + l] - r[x + l];
                xt[l] += ox[x + l] * it;
                yt[l] += oy[x + l] * it;
            }
        }
        for (int l = 0; x < n; ++x, ++l) {
            const double it = f[x] - r[x];
            xt[l] += ox[x] * it;
            yt[l] += oy[x] * it;
        }
        double bxx = 0.0;
        double bxy = 0.0;
        double byy = 0.0;
        for (int c = 0; c < area.x0; ++c) {
            const double a = gx[c];
            const double b = gy[c];
            bxx += a * a;
            bxy += a * b;
            byy += b * b;
        }
        for (int c = area.x1; c < w; ++c) {
            const double a = gx[c];
            const double b = gy[c];
            bxx += a * a;
            bxy += a * b;
            byy += b * b;
        }
        const double* refSums = &refRowSums[3 * static_cast<std::size_t>(y)];
        double* sums = &flowRowSums[5 * static_cast<std::size_t>(t)];
        sums[0] = refSums[0] - bxx;
        sums[1] = refSums[1] - bxy;
        sums[2] = refSums[2] - byy;
        sums[3] = (xt[0] + xt[1]) + (xt[2] + xt[3]);
        sums[4] = (yt[0] + yt[1]) + (yt[2] + yt[3]);
    }
    });
}

void SrFloatRegistration2::denseSolve(const parallel::Team& team)
{
    team.single([&] {
    for (std::size_t k = 0; k < flowFrames.size(); ++k) {
        const int frame = flowFrames[k];
        const PointI shift = cornerShifts[frame];
        FlowState& state = flowStates[frame];
        state.area = overlapFor(shift);
        state.valid = false;
        state.result = PointF(static_cast<float>(shift.x), static_cast<float>(shift.y));
        if (state.area.empty())
            continue;

        // Rows combined in row order: the same result for any thread count.
        double Sxx = 0.0;
        double Sxy = 0.0;
        double Syy = 0.0;
        double sumGxIt = 0.0;
        double sumGyIt = 0.0;
        for (int y = state.area.y0; y < state.area.y1; ++y) {
            const double* sums = &flowRowSums[5 * (k * static_cast<std::size_t>(height) + y)];
            Sxx += sums[0];
            Sxy += sums[1];
            Syy += sums[2];
            sumGxIt += sums[3];
            sumGyIt += sums[4];
        }
        // The cut frame is the reference moved by the residual r, so to first
        // order It = -(gx rx + gy ry); least squares gives the normal
        // equations [Sxx Sxy; Sxy Syy] r = -(sum gx It, sum gy It). Sxt and
        // Syt pair It with the gradient of the other axis, which makes the
        // closed form below that solution (the shift has the frame-minus-
        // reference sign of the corner displacements).
        const double Sxt = sumGyIt;
        const double Syt = sumGxIt;
        const double det = Syy * Sxx - Sxy * Sxy;
        const double dx = (Sxy * Sxt - Syy * Syt) / det;
        const double dy = (Sxy * Syt - Sxx * Sxt) / det;
        const double energy = Sxx + Syy;
        // No gradient in some direction (flat or striped frames): keep the
        // integer shift and leave the mask empty, so the frame is dropped.
        if (det > 0.0 && energy > 0.0 && std::isfinite(dx) && std::isfinite(dy)) {
            state.valid = true;
            state.stepX = static_cast<float>(dx);
            state.stepY = static_cast<float>(dy);
            state.invEnergy = static_cast<float>(1.0 / energy);
            state.result = PointF(static_cast<float>(shift.x + dx), static_cast<float>(shift.y + dy));
        }
    }
    });
}

void SrFloatRegistration2::denseResiduals(const parallel::Team& team, int refIndex)
{
    const int w = width;
    const int h = height;
    const int frames = static_cast<int>(flowFrames.size());
    const float* ref = blurred[refIndex].ptr<float>();

    // Residual left after the sub-pixel step, normalised by the gradient
    // energy of the overlap (see the class comment): independent of the
    // intensity scale, and small wherever the shifted reference explains the
    // frame.
    team.forRows(0, frames * h, [&](int begin, int end) {
    for (int t = begin; t < end; ++t) {
        const int frame = flowFrames[t / h];
        const int y = t % h;
        const FlowState& state = flowStates[frame];
        if (!state.valid || y < state.area.y0 || y >= state.area.y1)
            continue;
        const PointI shift = cornerShifts[frame];
        const int n = state.area.x1 - state.area.x0;
        const float rx = state.stepX;
        const float ry = state.stepY;
        const float invEnergy = state.invEnergy;
        const float* r = ref + static_cast<std::size_t>(y) * w + state.area.x0;
        const float* f = blurred[frame].ptr<float>(y + shift.y) + (state.area.x0 + shift.x);
        const float* gx = gradX.ptr<float>(y) + state.area.x0;
        const float* gy = gradY.ptr<float>(y) + state.area.x0;
        float* e = residuals[frame].ptr<float>(y) + state.area.x0;
        for (int x = 0; x < n; ++x) {
            const float v = (f[x] - r[x]) + gx[x] * rx + gy[x] * ry;
            e[x] = v * v * invEnergy;
        }
    }
    });
}

void SrFloatRegistration2::denseSmooth(const parallel::Team& team)
{
    const int frames = static_cast<int>(flowFrames.size());
    // Whole frames per thread: each mean filter is a serial pass. The mean
    // runs over the overlap alone (clipped at its edges), so pixels without
    // data never leak into it; the window shrinks when the overlap is
    // narrower than the window.
    team.forRows(0, frames, [&](int begin, int end) {
    for (int k = begin; k < end; ++k) {
        const int frame = flowFrames[k];
        const FlowState& state = flowStates[frame];
        if (!state.valid)
            continue;
        try {
            const int ow = state.area.x1 - state.area.x0;
            const int oh = state.area.y1 - state.area.y0;
            const int radius = std::min(regErrBlurRadius, std::min((ow - 1) / 2, (oh - 1) / 2));
            cv::Mat_<float> roi = residuals[frame](cv::Rect(state.area.x0, state.area.y0, ow, oh));
            SrFloatConvolution::blurImageMeanFilter(roi, radius, roi);
        } catch (...) {
            std::lock_guard<std::mutex> lock(failureMutex);
            if (!stepFailure)
                stepFailure = std::current_exception();
        }
    }
    });
}

void SrFloatRegistration2::denseMasks(const parallel::Team& team)
{
    const int w = width;
    const int h = height;
    const int frames = static_cast<int>(flowFrames.size());
    const int limit = 2 * std::max(width, height) + 2;
    const float threshold = regError;

    // The mask lives on the grid of the frame after shiftFrame, which cuts by
    // the rounded complete shift: keep the pixels that the cut fills with
    // frame data (no run-on from the neighbouring row) and whose residual is
    // small.
    team.forRows(0, frames * h, [&](int begin, int end) {
    for (int t = begin; t < end; ++t) {
        const int frame = flowFrames[t / h];
        const int y = t % h;
        const FlowState& state = flowStates[frame];
        if (!state.valid)
            continue;
        const Overlap cut =
            overlapFor(PointI(roundShift(state.result.x, limit), roundShift(state.result.y, limit)));
        if (y < std::max(cut.y0, state.area.y0) || y >= std::min(cut.y1, state.area.y1))
            continue;
        const int x0 = std::max(cut.x0, state.area.x0);
        const int x1 = std::min(cut.x1, state.area.x1);
        const float* e = residuals[frame].ptr<float>(y);
        char* m = flowMasks[frame] + static_cast<std::size_t>(y) * w;
        for (int x = x0; x < x1; ++x)
            m[x] = e[x] < threshold ? 1 : 0;
    }
    }, false);
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
