#include "SuperResolution.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <sstream>

#include "DebugSingleton.h"
#include "SrFloatOptions.h"
#include "SrResultCodes.h"
#include "detail/Throw.h"

// Frame handling, the reconstruction and the settings of the reference
// engine; the calibration is in SuperResolutionCalibration.cpp, the quality
// figures and the simple combination in SuperResolutionQuality.cpp.

namespace velmor {
namespace kro {

namespace {

// Level of the messages that say why a reconstruction is worse than usual or
// stopped: heard at lower verbosity than the step traces.
constexpr DEBUG_LEVEL kDebugLevelNotice = 2;
// The registration blurs with this radius before its flow step.
constexpr int kGaussRadius = 5;

int checkedWindow(int nFrames)
{
    if (nFrames < 1)
        KRO_THROW("invalid window of " << nFrames << " frames");
    return nFrames;
}

float checkedFactor(float factor)
{
    if (factor != SuperResolution::kFactor)
        KRO_THROW("invalid magnification " << factor << " (the reference engine works at 2 only)");
    return factor;
}

} // namespace

SuperResolution::SuperResolution(int width_, int height_, int nFrames, float factor_)
    : DebugChannel("SuperResolution"),
      badPixels(static_cast<unsigned int>(checkedWindow(nFrames))),
      registration(width_, height_, checkedFactor(factor_), kGaussRadius),
      minimization(width_, height_, nFrames, factor_),
      width(width_),
      height(height_),
      inputSize(width_ * height_),
      outputWidth(static_cast<int>(width_ * factor_)),
      outputHeight(static_cast<int>(height_ * factor_)),
      outputSize(outputWidth * outputHeight),
      spectrumSize(registration.getSpectrumSize()),
      windowSize(nFrames),
      factor(factor_),
      quality(3, 3, 0.0f)
{
    DebugSingleton::getInstance().registerChannel(this);
    frames.assign(windowSize, std::vector<float>(inputSize, 0.0f));
    spectra.assign(windowSize, std::vector<float>(2 * static_cast<std::size_t>(spectrumSize), 0.0f));
    spectrumFinite.assign(windowSize, 1);
    workFrames.assign(windowSize, std::vector<float>(inputSize, 0.0f));
    masks.assign(windowSize, std::vector<char>(inputSize, 0));
    result.assign(outputSize, 0.0f);
    shifts.assign(windowSize, PointF());
    completeShifts.assign(windowSize, PointF());
    frameViews.resize(windowSize);
    heldFrames.reserve(windowSize);
    framePointers.resize(windowSize);
    spectrumPointers.resize(windowSize);
    workFramePointers.resize(windowSize);
    maskPointers.resize(windowSize);
    radiance.create(height, width);
    refreshPointers();
}

void SuperResolution::refreshPointers()
{
    for (int i = 0; i < windowSize; ++i) {
        framePointers[i] = frames[i].data();
        spectrumPointers[i] = reinterpret_cast<float(*)[2]>(spectra[i].data());
        workFramePointers[i] = workFrames[i].data();
        maskPointers[i] = masks[i].data();
        frameViews[i] = cv::Mat_<float>(height, width, frames[i].data());
    }
}

void SuperResolution::log(const std::string& text)
{
    send(text, kDebugLevelNotice);
}

void SuperResolution::traceTime(const char* label, double seconds)
{
    if (isDebugActive(kDebugLevelTrace))
        send(StopWatch::formatMilliseconds(label, seconds), kDebugLevelTrace);
}

template <typename T>
int SuperResolution::loadFrame(const T* frame)
{
    if (framesLoaded == windowSize) {
        std::rotate(frames.begin(), frames.begin() + 1, frames.end());
        std::rotate(spectra.begin(), spectra.begin() + 1, spectra.end());
        std::rotate(spectrumFinite.begin(), spectrumFinite.begin() + 1, spectrumFinite.end());
    } else {
        ++framesLoaded;
    }
    const int slot = framesLoaded - 1;
    float* samples = frames[slot].data();
    for (int p = 0; p < inputSize; ++p)
        samples[p] = static_cast<float>(frame[p]);

    cv::Mat_<float> view(height, width, samples);
    const int code = badPixels.detectAndReplaceBadPixel(view);
    if (code < 0)
        log("BadPixelHandler discovered really bad pixel.");

    // The spectrum serves the registration; a frame whose samples overflow
    // the transform's sums is refused by computeSR, not here, so that the
    // window stays in step with the caller's frames.
    float(*spectrum)[2] = reinterpret_cast<float(*)[2]>(spectra[slot].data());
    registration.getFft().forward(samples, spectrum);
    const float* values = spectra[slot].data();
    bool finite = true;
    for (std::size_t k = 0; k < spectra[slot].size(); ++k)
        finite &= static_cast<bool>(std::isfinite(values[k]));
    spectrumFinite[slot] = finite ? 1 : 0;
    return code < 0 ? code : 0;
}

template <typename T>
int SuperResolution::addFrame(const T* frame)
{
    if (!frame)
        KRO_THROW("null frame");
    trace("start addFrame");
    const int code = loadFrame(frame);
    trace("end addFrame");
    return code;
}

template <typename T>
int SuperResolution::addFrame(const cv::Mat_<T>& frame)
{
    if (frame.rows != height || frame.cols != width)
        KRO_THROW("frame of " << frame.cols << "x" << frame.rows << " given to an engine built for " << width
                              << "x" << height);
    if (frame.isContinuous())
        return addFrame(frame.template ptr<T>(0));
    const cv::Mat_<T> packed = frame.clone();
    return addFrame(packed.template ptr<T>(0));
}

template <typename T>
void SuperResolution::saveFrame(T* out) const
{
    for (int p = 0; p < outputSize; ++p)
        out[p] = cv::saturate_cast<T>(result[p]);
}

template <typename T>
float SuperResolution::computeSR(T* out)
{
    if (!out)
        KRO_THROW("null output");
    bool aborted = false;
    const int code = reconstruct(aborted);
    stepWatch.start();
    trace("    calling saveFrame()");
    saveFrame(out);
    if (aborted) {
        trace("+++++++++++++++++++++++++++++");
        trace("abort computeSR");
        return static_cast<float>(code);
    }
    const float figure = qualityFigure();
    traceTime(" save+srfactor calc:   ", stepWatch.stop());
    trace("+++++++++++++++++++++++++++++");
    trace("end computeSR");
    return code != 0 ? static_cast<float>(code) : figure;
}

template <typename T>
float SuperResolution::computeSR(cv::Mat_<T>& out)
{
    out.create(outputHeight, outputWidth);
    return computeSR(out.template ptr<T>(0));
}

int SuperResolution::abortWith(int code, bool& aborted)
{
    simpleCombine();
    aborted = true;
    return code;
}

int SuperResolution::reconstruct(bool& aborted)
{
    trace("++++++++++ SuperResolution ++++++++++");
    trace("start computeSR");
    if (framesLoaded == 0)
        KRO_THROW("no frame added before the reconstruction");
    refreshPointers();
    lastRegistrationMs = 0.0;
    lastMinimizationMs = 0.0;
    quality.setTo(0.0f);

    for (int i = 0; i < framesLoaded; ++i) {
        if (!spectrumFinite[i]) {
            log("FFT resulted in infinite values. No processing possible");
            return abortWith(kNonFiniteSpectrum, aborted);
        }
    }
    // A constant reference has no structure to register against and no
    // spread to normalise the solve by (it would divide by zero); its
    // scene is exactly what the simple combination shows.
    const int refPos = std::max(0, framesLoaded - referenceIndex - 1);
    const auto reference = std::minmax_element(frames[refPos].begin(), frames[refPos].end());
    if (!(*reference.second > *reference.first)) {
        log("Reference frame is constant. Cannot compute SR.");
        return abortWith(kFlatReference, aborted);
    }

    stepWatch.start();
    if (isDebugActive(kDebugLevelTrace)) {
        std::ostringstream call;
        call << "    calling doRegistration(" << framesLoaded << ", " << refPos << ")";
        send(call.str(), kDebugLevelTrace);
    }
    const int registered = registration.doRegistration(framesLoaded, refPos, framePointers.data(),
                                                       spectrumPointers.data(), shifts.data(), maskPointers.data(),
                                                       workFramePointers.data());
    const double registrationSeconds = stepWatch.stop();
    lastRegistrationMs = registrationSeconds * 1000.0;
    traceTime(" registration:         ", registrationSeconds);
    registration.getCompleteShifts(completeShifts);
    completeShifts.resize(framesLoaded);
    if (registered < 0) {
        log("Too large image displacement. Cannot compute SR.");
        return abortWith(kTooLargeDisplacement, aborted);
    }
    computeQuality_();

    stepWatch.start();
    const int checkCode = displacementAndCoverage();
    traceTime(" large_displacement:   ", stepWatch.stop());

    stepWatch.start();
    trace("    calling minimize()");
    const int minimized = minimization.minimize(framesLoaded, refPos, workFramePointers.data(), shifts.data(),
                                                maskPointers.data(), result.data());
    const double minimizationSeconds = stepWatch.stop();
    lastMinimizationMs = minimizationSeconds * 1000.0;
    traceTime(" minimization:         ", minimizationSeconds);
    // The float minimiser reports no failure by value; should one ever do,
    // the caller still gets a frame.
    if (minimized < 0)
        return abortWith(minimized, aborted);

    cv::Mat_<float> resultView(outputHeight, outputWidth, result.data());
    heldFrames.assign(frameViews.begin(), frameViews.begin() + framesLoaded);
    badPixels.maskBadPixel(resultView, completeShifts);
    badPixels.replaceMaskedPixel(resultView, completeShifts, heldFrames);
    return checkCode;
}

int SuperResolution::displacementAndCoverage()
{
    // As SrFloat: a frame is too far off beyond a tenth of the height, x
    // either way but y downwards only (large negative y shifts are expected
    // from a camera tilting up and pass, deliberately); it is poorly covered
    // when half of its pixels or more are masked out. Computing goes on in
    // both cases: the shifts are known and within what the registration can
    // cut, and the caller gets the code with the reconstruction.
    const float limit = static_cast<float>(height / 10);
    bool tooFar = false;
    bool poorlyCovered = false;
    for (int i = 0; i < framesLoaded; ++i) {
        if (std::fabs(completeShifts[i].x) > limit || completeShifts[i].y > limit)
            tooFar = true;
        long long used = 0;
        const char* mask = masks[i].data();
        for (int p = 0; p < inputSize; ++p)
            used += mask[p];
        const long long masked = inputSize - used;
        const double ratio = static_cast<double>(masked) / inputSize;
        if (isDebugActive(kDebugLevelTrace)) {
            std::ostringstream line;
            line << "Num masked pixel " << masked << " ratio: " << ratio;
            send(line.str(), kDebugLevelTrace);
        }
        if (ratio >= 0.5) {
            log("Too many masked pixels!");
            poorlyCovered = true;
        }
    }
    if (tooFar)
        log("Large image displacement (not too large at all).");
    return tooFar ? kSrDisplacement : (poorlyCovered ? kSrCoverage : 0);
}

template <typename T>
bool SuperResolution::checkImageStructureQuality(const cv::Mat_<T>& image) const
{
    double minimum = 0.0, maximum = 0.0;
    cv::minMaxLoc(image, &minimum, &maximum);
    return maximum - minimum >= minStructureThreshold;
}

void SuperResolution::clearFrames()
{
    // The defect maps keep a ring of their own in step with the frames.
    framesLoaded = 0;
    badPixels.clearDefectMaps();
}

void SuperResolution::getMasks(std::vector<cv::Mat_<unsigned char>>& out) const
{
    if (out.size() < static_cast<std::size_t>(windowSize))
        out.resize(windowSize);
    for (int i = 0; i < windowSize; ++i) {
        out[i].create(height, width);
        std::memcpy(out[i].ptr<unsigned char>(0), masks[i].data(), static_cast<std::size_t>(inputSize));
    }
}

void SuperResolution::getCompleteShifts(std::vector<PointF>& out) const
{
    out = completeShifts;
}

std::vector<DebugChannel*> SuperResolution::getInternalDebugChannelObjects()
{
    std::vector<DebugChannel*> channels{this};
    for (DebugChannel* channel : minimization.getInternalDebugChannelObjects())
        channels.push_back(channel);
    return channels;
}

void SuperResolution::setDataIsNUC(bool isNUC) { badPixels.setDataIsNUC(isNUC); }

// The rules are the float engine's (one set for every front end); the
// reference engine throws their messages as library exceptions.
void SuperResolution::setPsfSigma(float sigma)
{
    if (const char* refused = srfloat_rules::psfSigma(sigma))
        KRO_THROW(refused);
    minimization.setPsfSigma(sigma);
}

void SuperResolution::setRegError(float error)
{
    if (const char* refused = srfloat_rules::regError(error))
        KRO_THROW(refused);
    registration.setRegError(error);
}

void SuperResolution::setRelativeResidue(float residue)
{
    if (const char* refused = srfloat_rules::relativeResidue(residue))
        KRO_THROW(refused);
    minimization.setRelRes(residue);
}

void SuperResolution::setWeightTV(float weight)
{
    if (const char* refused = srfloat_rules::weightTV(weight))
        KRO_THROW(refused);
    minimization.setWeightTV(weight);
}

void SuperResolution::setMaxCGIters(int iterations)
{
    if (const char* refused = srfloat_rules::maxCGIters(iterations))
        KRO_THROW(refused);
    minimization.setMaxIter(iterations);
}

void SuperResolution::setReferenceIndex(int index)
{
    if (const char* refused = srfloat_rules::referenceIndex(index, windowSize))
        KRO_THROW(refused);
    referenceIndex = index;
}

void SuperResolution::setMinStructureThreshold(float threshold) { minStructureThreshold = threshold; }

void SuperResolution::setThreads(int threads)
{
    if (const char* refused = srfloat_rules::threads(threads))
        KRO_THROW(refused);
    registration.setThreads(threads);
    registration.getFft().setThreads(threads);
    minimization.setThreads(threads);
    badPixels.setThreads(threads);
    threadCount = threads;
}

float SuperResolution::getPsfSigma() const { return minimization.getPsfSigma(); }
float SuperResolution::getRegError() const { return registration.getRegError(); }
float SuperResolution::getRelativeResidue() const { return minimization.getRelRes(); }
float SuperResolution::getWeightTV() const { return minimization.getWeightTV(); }
int SuperResolution::getMaxCGIters() const { return minimization.getMaxIter(); }

template int SuperResolution::addFrame<short>(const short*);
template int SuperResolution::addFrame<float>(const float*);
template int SuperResolution::addFrame<short>(const cv::Mat_<short>&);
template int SuperResolution::addFrame<float>(const cv::Mat_<float>&);
template float SuperResolution::computeSR<short>(short*);
template float SuperResolution::computeSR<float>(float*);
template float SuperResolution::computeSR<short>(cv::Mat_<short>&);
template float SuperResolution::computeSR<float>(cv::Mat_<float>&);
template bool SuperResolution::checkImageStructureQuality<short>(const cv::Mat_<short>&) const;
template bool SuperResolution::checkImageStructureQuality<float>(const cv::Mat_<float>&) const;

} // namespace kro
} // namespace velmor
