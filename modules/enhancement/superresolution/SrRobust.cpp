#include "SrRobust.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <sstream>

#include <opencv2/imgproc.hpp>

#include "detail/BoxSensorModel.h"
#include "detail/Parallel.h"
#include "detail/SrRobustWeights.h"
#include "detail/Throw.h"

namespace velmor {
namespace kro {

namespace {

constexpr int kMinSide = 8;
constexpr int kMaxWindow = 32;
constexpr int kMaxIterations = 50;
// A frame with at least this share of its samples rejected is worth a
// warning: on real driving footage even the farthest frame of a window of
// five keeps a fifth of its samples.
constexpr double kDisagreeingFrame = 0.95;

double millisecondsSince(std::chrono::steady_clock::time_point start)
{
    return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
}

} // namespace

std::string SrRobustOptions::validate() const
{
    std::ostringstream m;
    if (windowSize < 1 || windowSize > kMaxWindow)
        m << "window size " << windowSize << " out of range 1.." << kMaxWindow;
    else if (referenceIndex < 0 || referenceIndex >= windowSize)
        m << "reference index " << referenceIndex << " out of range 0.." << windowSize - 1;
    else if (baseIterations < 0 || baseIterations > kMaxIterations)
        m << "base iterations " << baseIterations << " out of range 0.." << kMaxIterations;
    else if (iterations < 0 || iterations > kMaxIterations)
        m << "iterations " << iterations << " out of range 0.." << kMaxIterations;
    else if (!(consistency > 0.0f && consistency <= 100.0f))
        m << "consistency " << consistency << " out of range (0, 100]";
    else if (!(maxFlowError > 0.0f && maxFlowError <= 10.0f))
        m << "flow error bound " << maxFlowError << " out of range (0, 10]";
    else if (!(edgeTolerance >= 0.0f && edgeTolerance <= 10.0f))
        m << "edge tolerance " << edgeTolerance << " out of range [0, 10]";
    else if (!(rigidSpread > 0.0f && rigidSpread <= 100.0f))
        m << "rigid spread " << rigidSpread << " out of range (0, 100]";
    else if (!(localWeight > 0.0f && localWeight <= 1.0f))
        m << "local weight " << localWeight << " out of range (0, 1]";
    else if (!(psfSigma >= 0.0f && psfSigma <= 10.0f))
        m << "PSF sigma " << psfSigma << " out of range [0, 10]";
    else if (threads < 0)
        m << "thread count " << threads << " is negative";
    return m.str();
}

struct SrRobust::State {
    SrRobustOptions options;
    int width = 0;
    int height = 0;
    std::vector<cv::Mat_<float>> ring; // frames in arrival order, slot (first + i) % size
    std::vector<long long> ringNonFinite;
    int first = 0;
    int count = 0;
    detail::SrRobustWeights weights;
    detail::FlowChain chain;
    // Work images, allocated once for the frame size.
    cv::Mat_<float> fine, alone, box, fineStep, fineScratch, coarseScratch, weightSum, normaliser;
    std::vector<cv::Mat_<float>> accumulators; // one per frame, summed in frame order
    std::vector<cv::Mat_<float>> residuals;
    std::vector<cv::Mat_<uchar>> ringFinite;   // 255 where the input sample was finite

    State(int w, int h, const SrRobustOptions& o) : options(o), width(w), height(h), weights(w, h), chain(w, h, o.windowSize)
    {
        ring.assign(o.windowSize, cv::Mat_<float>());
        for (auto& f : ring)
            f.create(h, w);
        ringNonFinite.assign(o.windowSize, 0);
        ringFinite.assign(o.windowSize, cv::Mat_<uchar>());
        for (auto& f : ringFinite)
            f.create(h, w);
        residuals.assign(o.windowSize, cv::Mat_<float>());
        for (auto& r : residuals)
            r.create(h, w);
        fine.create(2 * h, 2 * w);
        accumulators.assign(o.windowSize, cv::Mat_<float>());
        for (auto& a : accumulators)
            a.create(2 * h, 2 * w);
    }

    const cv::Mat_<float>& frame(int i) const { return ring[(first + i) % ring.size()]; }
    int referencePosition() const { return options.windowSize - 1 - options.referenceIndex; }
    void merge(const cv::Mat_<float>& reference, int threads);
};

SrRobust::SrRobust(int width, int height, const SrRobustOptions& options)
{
    if (width < kMinSide || height < kMinSide)
        KRO_THROW("frame size " << width << "x" << height << " too small (at least " << kMinSide << "x"
                                << kMinSide << ")");
    const std::string problem = options.validate();
    if (!problem.empty())
        KRO_THROW(problem);
    state_ = std::make_unique<State>(width, height, options);
}

SrRobust::~SrRobust() = default;
SrRobust::SrRobust(const SrRobust& other) : state_(std::make_unique<State>(*other.state_)) {}
SrRobust& SrRobust::operator=(const SrRobust& other)
{
    if (this != &other)
        state_ = std::make_unique<State>(*other.state_);
    return *this;
}

const SrRobustOptions& SrRobust::getOptions() const { return state_->options; }
cv::Size SrRobust::getInputSize() const { return {state_->width, state_->height}; }
cv::Size SrRobust::getOutputSize() const { return {2 * state_->width, 2 * state_->height}; }
int SrRobust::getFrameCount() const { return state_->count; }

void SrRobust::clearFrames()
{
    state_->first = 0;
    state_->count = 0;
}

void SrRobust::addFrame(const cv::Mat& frame)
{
    State& s = *state_;
    if (frame.rows != s.height || frame.cols != s.width)
        KRO_THROW("frame of " << frame.cols << "x" << frame.rows << " given, the engine works on " << s.width
                              << "x" << s.height);
    if (frame.channels() != 1)
        KRO_THROW("frame with " << frame.channels() << " channels given, one expected");
    const int size = static_cast<int>(s.ring.size());
    int slot;
    if (s.count < size) {
        slot = (s.first + s.count) % size;
        ++s.count;
    } else {
        slot = s.first;
        s.first = (s.first + 1) % size;
    }
    frame.convertTo(s.ring[slot], CV_32F);
    s.ringNonFinite[slot] = detail::replaceNonFinite(s.ring[slot], s.ringFinite[slot]);
    if (size > 1 && s.count > 1)
        s.chain.link(slot, s.ring[(slot + size - 1) % size], s.ring[slot]);
}

void SrRobust::State::merge(const cv::Mat_<float>& reference, int threads)
{
    const int n = options.windowSize;
    const int ref = referencePosition();
    // The sample weights do not change between steps: their spread onto the
    // output grid (the step's normaliser) is formed once.
    weightSum.create(fine.size());
    weightSum.setTo(0.0f);
    for (int k = 0; k < n; ++k) {
        if (k == ref)
            detail::scatterOnGrid(weights.weight(k), weightSum, 1);
        else
            detail::scatterToBox(weights.weight(k), weights.positionX(k), weights.positionY(k), weightSum);
    }
    detail::boxImageAdjoint(weightSum, normaliser, threads);
    detail::blurFine(normaliser, normaliser, options.psfSigma);
    cv::max(normaliser, 1e-3f, normaliser);

    for (int it = 0; it < options.iterations; ++it) {
        detail::blurFine(fine, fineScratch, options.psfSigma);
        detail::boxImage(fineScratch, box, threads);
        // Residuals of every frame against the current image, spread back
        // per frame in parallel, then summed in frame order.
        parallel::parallelFor(std::min(threads, n), 0, n, [&](int begin, int end) {
            for (int k = begin; k < end; ++k) {
                cv::Mat_<float>& acc = accumulators[k];
                acc.setTo(0.0f);
                cv::Mat_<float>& residual = residuals[k];
                if (k == ref) {
                    // The reference's samples sit on the grid with weight 1.
                    detail::sampleOnGrid(box, residual, 1);
                    cv::subtract(reference, residual, residual);
                    detail::scatterOnGrid(residual, acc, 1);
                    continue;
                }
                detail::sampleBox(box, weights.positionX(k), weights.positionY(k), residual, 1);
                cv::subtract(weights.samples(k), residual, residual);
                cv::multiply(residual, weights.weight(k), residual);
                detail::scatterToBox(residual, weights.positionX(k), weights.positionY(k), acc);
            }
        });
        for (int k = 1; k < n; ++k)
            accumulators[0] += accumulators[k];
        detail::boxImageAdjoint(accumulators[0], fineStep, threads);
        detail::blurFine(fineStep, fineStep, options.psfSigma);
        cv::divide(fineStep, normaliser, fineStep);
        fine += fineStep;
        detail::backProjectReference(reference, options.psfSigma, fine, coarseScratch, fineScratch, threads);
    }
}

void SrRobust::computeSR(cv::Mat_<float>& out, SrRobustReport* report)
{
    State& s = *state_;
    const int n = s.options.windowSize;
    if (s.count < n)
        KRO_THROW("the window holds " << s.count << " of " << n << " frames");
    const int threads = parallel::resolveThreads(s.options.threads);
    const int ref = s.referencePosition();
    const cv::Mat_<float>& reference = s.frame(ref);

    SrRobustReport local;
    SrRobustReport& rep = report ? *report : local;
    rep = SrRobustReport();
    for (int k = 0; k < n; ++k)
        rep.nonFiniteSamples += s.ringNonFinite[(s.first + k) % s.ring.size()];

    auto start = std::chrono::steady_clock::now();
    detail::referenceOnly(reference, s.options.baseIterations, s.options.psfSigma, s.fine, s.coarseScratch, s.fineScratch,
                          threads);
    std::vector<const cv::Mat_<float>*> window(n);
    std::vector<const cv::Mat_<uchar>*> finite(n);
    std::vector<int> slots(n);
    for (int k = 0; k < n; ++k) {
        slots[k] = (s.first + k) % n;
        window[k] = &s.ring[slots[k]];
        finite[k] = &s.ringFinite[slots[k]];
    }
    s.weights.compute(window, finite, ref, s.chain, slots, s.fine, s.options, threads, rep);
    rep.motionMs = millisecondsSince(start);

    start = std::chrono::steady_clock::now();
    if (n > 1 && s.options.iterations > 0 && rep.rejectedFraction < 1.0) {
        s.fine.copyTo(s.alone);
        s.merge(reference, threads);
        // The merge moves the image only as far as other frames support it:
        // where none agrees the result is exactly the reference-only image,
        // not that image with more back-projection steps.
        cv::subtract(s.fine, s.alone, s.fineStep);
        cv::multiply(s.fineStep, s.weights.support(), s.fineStep);
        cv::add(s.alone, s.fineStep, s.fine);
    }
    rep.mergeMs = millisecondsSince(start);

    if (rep.nonFiniteSamples > 0)
        rep.warnings.push_back(std::to_string(rep.nonFiniteSamples) +
                               " non-finite samples replaced by the frame median");
    if (n > 1 && rep.rejectedFraction >= 0.999) {
        rep.warnings.push_back("no frame agrees with the reference: reference-only result");
    } else {
        for (int k = 0; k < n; ++k)
            if (rep.frames[k].rejectedFraction >= kDisagreeingFrame)
                rep.warnings.push_back("window frame " + std::to_string(k) +
                                       " disagrees with the reference almost everywhere (a scene change?)");
    }
    s.fine.copyTo(out);
}

} // namespace kro
} // namespace velmor
