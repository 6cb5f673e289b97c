#pragma once

// Definitions of the SrInt driver's members. Included by SrInt.cpp, which
// instantiates the engine, and by the unit tests, which instantiate the
// driver with scripted registration and minimisation doubles to reach its
// checks and codes deterministically.

#include "SrInt.h"

#include <algorithm>
#include <climits>
#include <cmath>
#include <string>

#include "DebugSingleton.h"
#include "detail/Throw.h"

namespace velmor {
namespace kro {

namespace srint_detail {

// Timing labels are padded to this width so that the lines of one
// reconstruction line up in a log.
constexpr std::size_t kTimingLabelWidth = 23;

inline int atLeastOne(int windowSize)
{
    return windowSize > 0 ? windowSize : 1;
}

} // namespace srint_detail

template <typename Registration, typename Minimization>
SrInt<Registration, Minimization>::SrInt(int width_, int height_, int windowSize_, float factor_)
    : DebugChannel("SrInt"),
      registration(width_, height_, static_cast<unsigned int>(srint_detail::atLeastOne(windowSize_))),
      minimization(width_, height_, srint_detail::atLeastOne(windowSize_), static_cast<int>(factor_)),
      badPixels(static_cast<unsigned int>(srint_detail::atLeastOne(windowSize_))),
      width(width_),
      height(height_),
      inputSize(width_ * height_),
      outputWidth(static_cast<int>(width_ * factor_)),
      outputHeight(static_cast<int>(height_ * factor_)),
      outputSize(outputWidth * outputHeight),
      windowSize(windowSize_),
      factor(factor_)
{
    if (const char* refused = srint_rules::windowSize(windowSize_))
        throw refused;
    DebugSingleton::getInstance().registerChannel(this);
    frames.resize(windowSize);
    registeredFrames.resize(windowSize);
    masks.resize(windowSize);
    floatFrames.resize(windowSize);
    for (int i = 0; i < windowSize; ++i) {
        frames[i].create(height, width);
        frames[i] = 0;
        registeredFrames[i].create(height, width);
        registeredFrames[i] = 0;
        masks[i].create(height, width);
        masks[i] = 0;
        floatFrames[i].create(height, width);
    }
    totalShifts.assign(windowSize, PointF());
    subPixelShifts.assign(windowSize, PointF());
    roundedShifts.assign(windowSize, cv::Point_<short>(0, 0));
    fixSubPixelShifts.assign(windowSize, cv::Point_<Fixpoint>());
    fixTotalShifts.assign(windowSize, cv::Point_<Fixpoint>());
    usedMasks.reserve(windowSize);
    usedFrames.reserve(windowSize);
    floatResult.create(outputHeight, outputWidth);
}

template <typename Registration, typename Minimization>
SrInt<Registration, Minimization>::SrInt(int width_, int height_, const SrIntOptions& options, float factor_)
    : SrInt(width_, height_, options.windowSize, factor_)
{
    if (const char* refused = options.validate())
        throw refused;
    setReferenceIndex(options.referenceIndex);
    setWeightTV(options.weightTV);
    setRegError(options.regError);
    setRelativeResidue(options.relativeResidue);
    setMaxCGIters(options.maxCGIters);
    setPsfSigma(options.psfSigma);
    setMinStructureThreshold(options.minStructureThreshold);
    setSkipMinimization(options.skipMinimization);
    setThreads(options.threads);
}

template <typename Registration, typename Minimization>
SrIntOptions SrInt<Registration, Minimization>::getOptions() const
{
    SrIntOptions o;
    o.windowSize = windowSize;
    o.referenceIndex = referenceIndex;
    o.weightTV = getWeightTV();
    o.regError = getRegError();
    o.relativeResidue = getRelativeResidue();
    o.maxCGIters = getMaxCGIters();
    o.psfSigma = getPsfSigma();
    o.minStructureThreshold = minStructureThreshold;
    o.skipMinimization = skipMinimization;
    o.threads = threadCount;
    return o;
}

template <typename Registration, typename Minimization>
int SrInt<Registration, Minimization>::addFrame(const cv::Mat_<short>& frame)
{
    if (frame.rows != height || frame.cols != width)
        KRO_THROW("frame of " << frame.cols << "x" << frame.rows << " given to an engine built for " << width
                              << "x" << height);
    trace("start addFrame");
    // The window rotates its buffers (no copy, no allocation); the newest
    // slot receives a deep copy of the frame.
    if (frameCount >= windowSize)
        std::rotate(frames.begin(), frames.begin() + 1, frames.end());
    else
        ++frameCount;
    frame.copyTo(frames[frameCount - 1]);
    int result = 0;
    if (registration.prepareFrame(frame) == -8) {
        frameCount = 0;
        registration.clearFrames();
        result = -8;
    }
    trace("end addFrame");
    return result;
}

template <typename Registration, typename Minimization>
void SrInt<Registration, Minimization>::sendTiming(const char* label, double seconds)
{
    if (!isDebugActive(kDebugLevelTrace))
        return;
    std::string padded(label);
    if (padded.size() < srint_detail::kTimingLabelWidth)
        padded.resize(srint_detail::kTimingLabelWidth, ' ');
    send(StopWatch::formatMilliseconds(padded, seconds), kDebugLevelTrace);
}

// The plausibility checks of the registration: -6 when a frame moved
// further than a tenth of the frame height, -3 when a frame has half or more
// of its pixels masked out, 0 otherwise.
template <typename Registration, typename Minimization>
int SrInt<Registration, Minimization>::checkRegistration()
{
    // Only a positive y shift counts as too far; the asymmetry is intended
    // (a camera tilting up produces large negative y shifts in use).
    const float limit = static_cast<float>(height / 10);
    bool tooFar = false;
    bool poorlyCovered = false;
    for (int i = 0; i < frameCount; ++i) {
        if (std::fabs(totalShifts[i].x) > limit || totalShifts[i].y > limit)
            tooFar = true;
        const float n = static_cast<float>(masks[i].total());
        const float used = static_cast<float>(cv::sum(masks[i])[0]);
        if ((n - used) / n >= 0.5f)
            poorlyCovered = true;
    }
    return tooFar ? -6 : (poorlyCovered ? -3 : 0);
}

template <typename Registration, typename Minimization>
int SrInt<Registration, Minimization>::computeSr(cv::Mat_<short>& result)
{
    if (frameCount == 0)
        KRO_THROW("no frame added before the reconstruction");
    trace("start computeSr");
    lastRegistrationMs = 0.0;
    lastMinimizationMs = 0.0;
    stepWatch.start();
    const int refFrame = std::max(0, frameCount - referenceIndex - 1);

    std::fill(fixSubPixelShifts.begin(), fixSubPixelShifts.end(), cv::Point_<Fixpoint>());
    std::fill(fixTotalShifts.begin(), fixTotalShifts.end(), cv::Point_<Fixpoint>());
    const int registered = registration.doRegistrationVideo(frames, fixSubPixelShifts, fixTotalShifts,
                                                            roundedShifts, masks, registeredFrames);
    if (registered < 0) {
        lastRegistrationMs = stepWatch.stop() * 1000.0;
        return -998;
    }
    for (int i = 0; i < windowSize; ++i) {
        subPixelShifts[i] = PointF(fixSubPixelShifts[i].x.toFloat(), fixSubPixelShifts[i].y.toFloat());
        totalShifts[i] = PointF(fixTotalShifts[i].x.toFloat(), fixTotalShifts[i].y.toFloat());
    }
    lastRegistrationMs = stepWatch.stop() * 1000.0;
    sendTiming(" registration:", lastRegistrationMs / 1000.0);

    stepWatch.start();
    const int status = checkRegistration();
    sendTiming(" large_displacement:", stepWatch.stop());

    usedMasks.assign(masks.begin(), masks.begin() + frameCount);
    usedFrames.clear();
    for (int i = 0; i < frameCount; ++i) {
        registeredFrames[i].convertTo(floatFrames[i], CV_32F);
        usedFrames.push_back(floatFrames[i]);
    }
    // With the minimisation skipped the output is zero (a defined image
    // rather than whatever the buffer held).
    floatResult.setTo(0.0f);
    stepWatch.start();
    minimization.generatePsfs(frameCount, subPixelShifts.data());
    int iterations = 0;
    if (!skipMinimization)
        iterations = minimization.minimize(frameCount, refFrame, usedFrames, usedMasks, floatResult);
    lastMinimizationMs = stepWatch.stop() * 1000.0;
    sendTiming(" minimization:", lastMinimizationMs / 1000.0);
    if (iterations < 0)
        return iterations;

    stepWatch.start();
    // Rounds to nearest and saturates to the 16-bit range.
    floatResult.convertTo(result, CV_16S);
    sendTiming(" save+srfactor calc:", stepWatch.stop());
    trace("end computeSr");
    return status;
}

template <typename Registration, typename Minimization>
bool SrInt<Registration, Minimization>::checkImageStructureQuality(const cv::Mat_<short>& frame) const
{
    double minimum = 0.0, maximum = 0.0;
    cv::minMaxLoc(frame, &minimum, &maximum);
    return maximum - minimum >= static_cast<double>(minStructureThreshold);
}

template <typename Registration, typename Minimization>
void SrInt<Registration, Minimization>::clearFrames()
{
    frameCount = 0;
    registration.clearFrames();
}

template <typename Registration, typename Minimization>
void SrInt<Registration, Minimization>::getMasks(std::vector<cv::Mat_<unsigned char>>& out) const
{
    out.resize(masks.size());
    for (std::size_t i = 0; i < masks.size(); ++i)
        masks[i].convertTo(out[i], CV_8U);
}

template <typename Registration, typename Minimization>
short SrInt<Registration, Minimization>::getCumIters() const { return minimization.getCumIters(); }

template <typename Registration, typename Minimization>
int SrInt<Registration, Minimization>::getMaxCGIters() const { return minimization.getMaxIter(); }

template <typename Registration, typename Minimization>
float SrInt<Registration, Minimization>::getPsfSigma() const { return minimization.getPsfSigma(); }

template <typename Registration, typename Minimization>
float SrInt<Registration, Minimization>::getRegError() const { return registration.getRegError(); }

template <typename Registration, typename Minimization>
float SrInt<Registration, Minimization>::getRelativeResidue() const { return minimization.getRelRes(); }

template <typename Registration, typename Minimization>
float SrInt<Registration, Minimization>::getWeightTV() const { return minimization.getWeightTV(); }

template <typename Registration, typename Minimization>
void SrInt<Registration, Minimization>::setMaxCGIters(int iterations)
{
    if (const char* refused = srint_rules::maxCGIters(iterations))
        throw refused;
    // The minimiser counts in 16 bits; a larger bound means "no bound" in
    // practice, so it is clamped rather than wrapped to a negative count.
    minimization.setMaxIter(static_cast<short>(std::min(iterations, static_cast<int>(SHRT_MAX))));
}

template <typename Registration, typename Minimization>
void SrInt<Registration, Minimization>::setMinStructureThreshold(float threshold)
{
    minStructureThreshold = threshold;
}

template <typename Registration, typename Minimization>
void SrInt<Registration, Minimization>::setPsfSigma(float sigma)
{
    if (const char* refused = srint_rules::psfSigma(sigma))
        throw refused;
    minimization.setPsfSigma(sigma);
}

template <typename Registration, typename Minimization>
void SrInt<Registration, Minimization>::setReferenceIndex(int index)
{
    if (const char* refused = srint_rules::referenceIndex(index, windowSize))
        throw refused;
    referenceIndex = index;
}

template <typename Registration, typename Minimization>
void SrInt<Registration, Minimization>::setRegError(float error)
{
    if (const char* refused = srint_rules::regError(error))
        throw refused;
    registration.setRegError(error);
}

template <typename Registration, typename Minimization>
void SrInt<Registration, Minimization>::setRelativeResidue(float residue)
{
    if (const char* refused = srint_rules::relativeResidue(residue))
        throw refused;
    minimization.setRelRes(residue);
}

template <typename Registration, typename Minimization>
void SrInt<Registration, Minimization>::setSkipMinimization(bool skip)
{
    skipMinimization = skip;
}

template <typename Registration, typename Minimization>
void SrInt<Registration, Minimization>::setWeightTV(float weight)
{
    if (const char* refused = srint_rules::weightTV(weight))
        throw refused;
    minimization.setWeightTV(weight);
}

template <typename Registration, typename Minimization>
void SrInt<Registration, Minimization>::setThreads(int threads)
{
    if (const char* refused = srint_rules::threads(threads))
        throw refused;
    registration.setThreads(threads);
    minimization.setThreads(threads);
    threadCount = threads;
}


} // namespace kro
} // namespace velmor
