#include "detail/SrRobustWeights.h"

#include <algorithm>
#include <cmath>

#include <opencv2/imgproc.hpp>

#include "detail/BoxSensorModel.h"

namespace velmor {
namespace kro {
namespace detail {

namespace {

// Offsets between a frame and the reference that vary more slowly than this
// (Gaussian sigma, input pixels) are taken for drift or shading, not scene.
constexpr double kOffsetSigma = 8.0;
// Differences beyond this many robust deviations do not shape the offset.
constexpr float kOffsetClip = 3.0f;
// The consistency test looks at differences low-passed with this sigma:
// aliasing (which a sub-pixel shifted frame legitimately adds) is mostly
// above it, misalignment and moving objects mostly below.
constexpr double kCompareSigma = 1.0;
// 1.4826 * median absolute value is the deviation of normal noise.
constexpr float kMadToSigma = 1.4826f;
// Support (see support()) below which an output pixel counts as the
// reference's alone in the report.
constexpr float kFallbackSupport = 0.1f;

float medianOfScratch(std::vector<float>& scratch)
{
    const auto mid = scratch.begin() + static_cast<std::ptrdiff_t>(scratch.size() / 2);
    std::nth_element(scratch.begin(), mid, scratch.end());
    return *mid;
}

// Robust statistics of an image from every kStride-th sample of every
// kStride-th row: the same estimate within a percent or so at a ninth of
// the cost (a median of a full frame costs milliseconds).
constexpr int kStride = 3;

void subsample(const cv::Mat_<float>& m, float centre, std::vector<float>& scratch)
{
    scratch.clear();
    for (int r = kStride / 2; r < m.rows; r += kStride)
        for (int c = kStride / 2; c < m.cols; c += kStride)
            scratch.push_back(m(r, c) - centre);
    if (scratch.empty())
        scratch.push_back(m(0, 0) - centre);
}

float medianOf(const cv::Mat_<float>& m, std::vector<float>& scratch)
{
    subsample(m, 0.0f, scratch);
    return medianOfScratch(scratch);
}

float medianAbsAround(const cv::Mat_<float>& m, float centre, std::vector<float>& scratch)
{
    subsample(m, centre, scratch);
    for (float& v : scratch)
        v = std::fabs(v);
    return medianOfScratch(scratch);
}

float medianAbs(const cv::Mat_<float>& m, std::vector<float>& scratch)
{
    return medianAbsAround(m, 0.0f, scratch);
}

// A Gaussian of kOffsetSigma, formed on a grid four times coarser (the
// offset varies slowly by definition): a tenth of the full-size cost.
void smoothOffset(cv::Mat_<float>& offset)
{
    if (offset.rows < 32 || offset.cols < 32) {
        cv::GaussianBlur(offset, offset, cv::Size(), kOffsetSigma, kOffsetSigma, cv::BORDER_REFLECT);
        return;
    }
    cv::Mat small;
    cv::resize(offset, small, cv::Size(), 0.25, 0.25, cv::INTER_AREA);
    cv::GaussianBlur(small, small, cv::Size(), kOffsetSigma / 4, kOffsetSigma / 4, cv::BORDER_REFLECT);
    cv::resize(small, offset, offset.size(), 0, 0, cv::INTER_LINEAR);
}

} // namespace

float SrRobustWeights::referenceDeviation(const cv::Mat_<float>& reference)
{
    cv::blur(reference, pred_, cv::Size(3, 3), cv::Point(-1, -1), cv::BORDER_REFLECT);
    cv::subtract(reference, pred_, pred_);
    return kMadToSigma * medianAbs(pred_, scratch_);
}

long long replaceNonFinite(cv::Mat_<float>& frame, cv::Mat_<uchar>& finite)
{
    finite.create(frame.size());
    std::vector<float> values;
    long long bad = 0;
    for (int r = 0; r < frame.rows; ++r)
        for (int c = 0; c < frame.cols; ++c) {
            const bool ok = std::isfinite(frame(r, c));
            finite(r, c) = ok ? 255 : 0;
            bad += ok ? 0 : 1;
        }
    if (bad == 0)
        return 0;
    for (int r = 0; r < frame.rows; ++r)
        for (int c = 0; c < frame.cols; ++c)
            if (finite(r, c))
                values.push_back(frame(r, c));
    float median = 0.0f;
    if (!values.empty()) {
        const auto mid = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
        std::nth_element(values.begin(), mid, values.end());
        median = *mid;
    }
    frame.setTo(median, finite == 0);
    return bad;
}

SrRobustWeights::SrRobustWeights(int width, int height) : width_(width), height_(height)
{
    gridX_.create(height, width);
    gridY_.create(height, width);
    for (int r = 0; r < height; ++r)
        for (int c = 0; c < width; ++c) {
            gridX_(r, c) = static_cast<float>(c);
            gridY_(r, c) = static_cast<float>(r);
        }
    ones_ = cv::Mat_<float>::ones(height, width);
}

void SrRobustWeights::align(Frame& f, const cv::Mat_<float>& frame, int threads)
{
    f.spread = DenseMotion::spread(f.forward, f.shift, scratch_);

    std::vector<cv::Mat> parts;
    cv::split(f.forward, parts);
    cv::add(gridX_, parts[0], f.posX);
    cv::add(gridY_, parts[1], f.posY);

    // What the reference-only image predicts at this frame's sample
    // positions; the slowly varying part of the difference is an offset.
    sampleBox(box_, f.posX, f.posY, pred_, threads);
    cv::subtract(frame, pred_, f.lowDiff);
    // Moving objects give large differences that must not leak into the
    // offset around them: the difference is clipped to a few of its own
    // robust deviations (around its median) before it is smoothed.
    const float median = medianOf(f.lowDiff, scratch_);
    const float clip = kOffsetClip * kMadToSigma * medianAbsAround(f.lowDiff, median, scratch_);
    cv::Mat_<float> offset;
    cv::min(f.lowDiff, median + clip, offset);
    cv::max(offset, median - clip, offset);
    smoothOffset(offset);
    cv::subtract(frame, offset, f.samples);
    f.lowDiff -= offset;
    cv::GaussianBlur(f.lowDiff, f.lowDiff, cv::Size(), kCompareSigma, kCompareSigma, cv::BORDER_REFLECT);
    f.noise = kMadToSigma * medianAbs(f.lowDiff, scratch_);

    cv::Mat_<float> smooth, gx, gy;
    cv::GaussianBlur(f.samples, smooth, cv::Size(), kCompareSigma, kCompareSigma, cv::BORDER_REFLECT);
    cv::Sobel(smooth, gx, CV_32F, 1, 0, 3, 0.125);
    cv::Sobel(smooth, gy, CV_32F, 0, 1, 3, 0.125);
    cv::magnitude(gx, gy, f.gradient);
}

void SrRobustWeights::weigh(Frame& f, const cv::Mat_<uchar>& finite, float noise,
                            const SrRobustOptions& options)
{
    // Motion that is one shift is measured from the whole frame, so edges
    // may differ by aliasing without being misaligned; local motion is not
    // trusted that far.
    const float rigid = std::max(0.0f, 1.0f - f.spread / options.rigidSpread);
    const float perGradient = options.edgeTolerance * rigid;
    const float base = options.consistency * noise;
    // Samples of a frame whose motion is local weigh less against the
    // reference than those of a rigidly moving one: dense flow is less sure
    // of them, and sub-pixel errors smear detail instead of adding it.
    const float trust = 1.0f - (1.0f - options.localWeight) * (1.0f - rigid);

    // The backward flow at each sample's position must lead back to it.
    cv::Mat backAtSample;
    cv::remap(f.backward, backAtSample, f.posX, f.posY, cv::INTER_LINEAR, cv::BORDER_REPLICATE);
    f.weight.create(height_, width_);
    const float maxErr2 = options.maxFlowError * options.maxFlowError;
    // A sample whose footprint still lies on the reference is inside: half
    // a pixel beyond the outer centres (flow at the border is rarely exact).
    const float right = static_cast<float>(width_) - 0.5f;
    const float bottom = static_cast<float>(height_) - 0.5f;
    for (int r = 0; r < height_; ++r) {
        const cv::Vec2f* fw = f.forward[r];
        const cv::Vec2f* bw = backAtSample.ptr<cv::Vec2f>(r);
        for (int c = 0; c < width_; ++c) {
            const float tol = base + perGradient * f.gradient(r, c);
            float w = tol > 0.0f ? std::min(1.0f, std::max(0.0f, 2.0f - std::fabs(f.lowDiff(r, c)) / tol)) : 0.0f;
            const float ex = fw[c][0] + bw[c][0];
            const float ey = fw[c][1] + bw[c][1];
            const float x = f.posX(r, c);
            const float y = f.posY(r, c);
            if (ex * ex + ey * ey > maxErr2 || x < -0.5f || y < -0.5f || x > right || y > bottom ||
                !finite(r, c))
                w = 0.0f;
            f.weight(r, c) = w;
        }
    }
    // A sample next to a rejected one is doubtful too (edges of moving objects).
    cv::erode(f.weight, f.weight, cv::Mat(), cv::Point(-1, -1), 1, cv::BORDER_REPLICATE);
    f.rejected = 1.0 - cv::mean(f.weight)[0];
    f.weight *= trust;
}

double SrRobustWeights::fallbackFraction(int ref, int threads)
{
    fineSum_.create(2 * height_, 2 * width_);
    fineSum_.setTo(0.0f);
    for (int k = 0; k < static_cast<int>(frames_.size()); ++k)
        if (k != ref)
            scatterToBox(frames_[k].weight, frames_[k].posX, frames_[k].posY, fineSum_);
    boxImageAdjoint(fineSum_, support_, threads);
    blurFine(support_, support_, sigma_);
    // One frame fully accepted spreads a weight of 1/4 onto each output pixel.
    support_ *= 4.0f;
    cv::min(support_, 1.0f, support_);
    return static_cast<double>(cv::countNonZero(support_ < kFallbackSupport)) /
           static_cast<double>(support_.total());
}

void SrRobustWeights::compute(const std::vector<const cv::Mat_<float>*>& window,
                              const std::vector<const cv::Mat_<uchar>*>& finite, int ref, FlowChain& chain,
                              const std::vector<int>& slots, const cv::Mat_<float>& referenceOnly,
                              const SrRobustOptions& options, int threads, SrRobustReport& report)
{
    const int n = static_cast<int>(window.size());
    frames_.resize(n);
    sigma_ = options.psfSigma;
    blurFine(referenceOnly, fineSum_, options.psfSigma);
    boxImage(fineSum_, box_, threads);

    // The noise deviation is that of the most consistent frame, so that a
    // frame that disagrees everywhere (a scene cut) does not raise the
    // threshold; it is capped by the reference's own fine-scale deviation,
    // so that a window in which every frame disagrees cannot raise it
    // either. A floor of 1/5000 of the reference's range keeps noise-free
    // input from demanding exact equality.
    double low = 0.0, high = 0.0;
    cv::minMaxLoc(*window[ref], &low, &high);
    const float floor = std::max(1e-6f, static_cast<float>(2e-4 * (high - low)));
    float noise = referenceDeviation(*window[ref]);
    for (int k = 0; k < n; ++k) {
        if (k == ref)
            continue;
        chain.toReference(slots, k, ref, frames_[k].forward, frames_[k].backward);
        align(frames_[k], *window[k], threads);
        noise = std::min(noise, frames_[k].noise);
    }
    noise = std::max(noise, floor);

    report.frames.assign(n, SrRobustFrame());
    double rejected = 0.0;
    for (int k = 0; k < n; ++k) {
        Frame& f = frames_[k];
        SrRobustFrame& out = report.frames[k];
        if (k == ref) {
            gridX_.copyTo(f.posX);
            gridY_.copyTo(f.posY);
            ones_.copyTo(f.weight);
            out.reference = true;
            continue;
        }
        weigh(f, *finite[k], noise, options);
        out.shiftX = f.shift.x;
        out.shiftY = f.shift.y;
        out.flowSpread = f.spread;
        out.rejectedFraction = f.rejected;
        rejected += out.rejectedFraction;
    }
    report.noise = noise;
    report.rejectedFraction = n > 1 ? rejected / (n - 1) : 1.0;
    if (n > 1) {
        report.fallbackFraction = fallbackFraction(ref, threads);
    } else {
        support_ = cv::Mat_<float>::zeros(2 * height_, 2 * width_);
        report.fallbackFraction = 1.0;
    }
}

} // namespace detail
} // namespace kro
} // namespace velmor
