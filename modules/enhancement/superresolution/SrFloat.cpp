#include "SrFloat.h"

#include <algorithm>
#include <cmath>
#include <cstring>

#include "DebugSingleton.h"
#include "detail/Throw.h"

namespace velmor {
namespace kro {

namespace {

// The coverage cap of the quality figure: frames beyond magnification^2 + 1
// add nothing. It is fixed by the first reconstruction in the process and
// shared by every engine after it, whatever their magnification; kept so for
// compatibility with the figures existing callers compare against.
int processWideMaxCount(float magnification)
{
    static const int maxCount = static_cast<int>(magnification * magnification + 1.0);
    return maxCount;
}

} // namespace

template <typename Registration>
SrFloat<Registration>::SrFloat(int width_, int height_, int windowSize_, float magnification_)
    : DebugChannel("SrFloat"),
      registration(width_, height_, windowSize_ > 0 ? windowSize_ : 1),
      minimization(width_, height_, windowSize_ > 0 ? windowSize_ : 1, magnification_),
      badPixels(static_cast<unsigned int>(windowSize_ > 0 ? windowSize_ : 1)),
      width(width_),
      height(height_),
      inputSize(width_ * height_),
      outputWidth(static_cast<int>(width_ * magnification_)),
      outputHeight(static_cast<int>(height_ * magnification_)),
      outputSize(outputWidth * outputHeight),
      spectrumSize((width_ / 2 + 1) * height_),
      windowSize(windowSize_),
      magnification(magnification_)
{
    if (const char* refused = srfloat_rules::windowSize(windowSize_))
        throw refused;
    DebugSingleton::getInstance().registerChannel(this);
    frames.assign(windowSize, std::vector<float>(inputSize, 0.0f));
    workFrames.assign(windowSize, std::vector<float>(inputSize, 0.0f));
    masks.assign(windowSize, std::vector<char>(inputSize, 0));
    result.assign(outputSize, 0.0f);
    shifts.assign(windowSize, PointF());
    completeShifts.assign(windowSize, PointF());
    frameViews.resize(windowSize);
    heldFrames.reserve(windowSize);
    framePointers.resize(windowSize);
    workFramePointers.resize(windowSize);
    maskPointers.resize(windowSize);
    refreshPointers();
}

template <typename Registration>
void SrFloat<Registration>::refreshPointers()
{
    for (int i = 0; i < windowSize; ++i) {
        framePointers[i] = frames[i].data();
        workFramePointers[i] = workFrames[i].data();
        maskPointers[i] = masks[i].data();
        frameViews[i] = cv::Mat_<float>(height, width, frames[i].data());
    }
}

template <typename Registration>
int SrFloat<Registration>::loadFrame(const float* frame)
{
    if (framesLoaded == windowSize)
        std::rotate(frames.begin(), frames.begin() + 1, frames.end());
    else
        ++framesLoaded;
    std::vector<float>& slot = frames[framesLoaded - 1];
    std::memcpy(slot.data(), frame, static_cast<std::size_t>(inputSize) * sizeof(float));

    cv::Mat_<float> view(height, width, slot.data());
    const int code = badPixels.detectAndReplaceBadPixel(view);
    registration.prepareFrame(slot.data());
    return code < 0 ? code : 0;
}

template <typename Registration>
int SrFloat<Registration>::addFrame(const float* frame)
{
    trace("start addFrame");
    const int code = loadFrame(frame);
    trace("end addFrame");
    return code;
}

template <typename Registration>
int SrFloat<Registration>::addFrame(const cv::Mat_<float>& frame)
{
    if (frame.rows != height || frame.cols != width)
        KRO_THROW("frame of " << frame.cols << "x" << frame.rows << " given to an engine built for "
                              << width << "x" << height);
    if (frame.isContinuous())
        return addFrame(frame.ptr<float>(0));
    const cv::Mat_<float> packed = frame.clone();
    return addFrame(packed.ptr<float>(0));
}

template <typename Registration>
float SrFloat<Registration>::computeSR(cv::Mat_<float>& out)
{
    out.create(outputHeight, outputWidth);
    return computeSR(out.ptr<float>(0));
}

template <typename Registration>
float SrFloat<Registration>::computeSR(float* out)
{
    trace("start computeSR");
    if (framesLoaded == 0)
        KRO_THROW("no frame added before the reconstruction");
    const int maxCount = processWideMaxCount(magnification);
    refreshPointers();
    lastRegistrationMs = 0.0;
    lastMinimizationMs = 0.0;

    const int refPos = std::max(0, framesLoaded - referenceIndex - 1);
    stepWatch.start();
    const int registered = registration.doRegistration(framesLoaded, refPos, framePointers.data(),
                                                       shifts.data(), maskPointers.data(),
                                                       workFramePointers.data());
    lastRegistrationMs = stepWatch.stop() * 1000.0;
    if (registered < 0)
        return static_cast<float>(registered);
    registration.getCompleteShifts(completeShifts);
    completeShifts.resize(framesLoaded);

    // Displacement and coverage. Only a positive y shift counts as too far:
    // a camera tilting up is expected to produce large negative y shifts in
    // the intended use, so the asymmetry is kept deliberately.
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
        if (static_cast<double>(inputSize - used) / inputSize >= 0.5)
            poorlyCovered = true;
    }
    const int checkCode = tooFar ? -6 : (poorlyCovered ? -3 : 0);

    stepWatch.start();
    const int minimized = minimization.minimize(framesLoaded, refPos, workFramePointers.data(),
                                                shifts.data(), maskPointers.data(), result.data());
    lastMinimizationMs = stepWatch.stop() * 1000.0;
    if (minimized < 0)
        return static_cast<float>(minimized);

    cv::Mat_<float> resultView(outputHeight, outputWidth, result.data());
    heldFrames.assign(frameViews.begin(), frameViews.begin() + framesLoaded);
    badPixels.maskBadPixel(resultView, completeShifts);
    badPixels.replaceMaskedPixel(resultView, completeShifts, heldFrames);
    std::memcpy(out, result.data(), static_cast<std::size_t>(outputSize) * sizeof(float));

    // Quality: how many frames cover each input position, capped at maxCount;
    // an uncovered position counts -1.
    long long sum = 0;
    for (int p = 0; p < inputSize; ++p) {
        int covered = 0;
        for (int i = 0; i < framesLoaded; ++i)
            covered += masks[i][p] != 0;
        sum += std::min(covered, maxCount) - 1;
    }
    const float quality = static_cast<float>(static_cast<double>(sum) / (inputSize * 4.0) + 1.0);

    trace("end computeSR");
    return checkCode != 0 ? static_cast<float>(checkCode) : quality;
}

template <typename Registration>
bool SrFloat<Registration>::checkImageStructureQuality(const cv::Mat_<float>& image) const
{
    double minimum = 0.0, maximum = 0.0;
    cv::minMaxLoc(image, &minimum, &maximum);
    return maximum - minimum >= minStructureThreshold;
}

template <typename Registration>
void SrFloat<Registration>::clearFrames()
{
    // The registration and the defect maps keep rings of their own in step
    // with the frames; they are emptied together.
    framesLoaded = 0;
    registration.clearFrames();
    badPixels.clearDefectMaps();
}

template <typename Registration>
void SrFloat<Registration>::getMasks(std::vector<cv::Mat_<unsigned char>>& out) const
{
    if (out.size() < static_cast<std::size_t>(windowSize))
        out.resize(windowSize);
    for (int i = 0; i < windowSize; ++i) {
        out[i].create(height, width);
        std::memcpy(out[i].ptr<unsigned char>(0), masks[i].data(), static_cast<std::size_t>(inputSize));
    }
}

template <typename Registration>
void SrFloat<Registration>::getCompleteShifts(std::vector<PointF>& out) const
{
    registration.getCompleteShifts(out);
}

template <typename Registration>
int SrFloat<Registration>::getMaxCGIters() const { return minimization.getMaxIter(); }

template <typename Registration>
float SrFloat<Registration>::getPsfSigma() const { return minimization.getPsfSigma(); }

template <typename Registration>
float SrFloat<Registration>::getRegError() const { return registration.getRegError(); }

template <typename Registration>
float SrFloat<Registration>::getRelativeResidue() const { return minimization.getRelRes(); }

template <typename Registration>
float SrFloat<Registration>::getWeightTV() const { return minimization.getWeightTV(); }

template <typename Registration>
SrFloat<Registration>::SrFloat(int width_, int height_, const SrFloatOptions& options, float magnification_)
    : SrFloat(width_, height_, options.windowSize, magnification_)
{
    if (const char* refused = options.validate())
        throw refused;
    setReferenceIndex(options.referenceIndex);
    setWeightTV(options.weightTV);
    setRegError(options.regError);
    setRelativeResidue(options.relativeResidue);
    setMaxCGIters(options.maxCGIters);
    setPsfSigma(options.effectivePsfSigma());
    setMinStructureThreshold(options.minStructureThreshold);
    setThreads(options.threads);
}

template <typename Registration>
SrFloatOptions SrFloat<Registration>::getOptions() const
{
    SrFloatOptions o;
    o.windowSize = windowSize;
    o.referenceIndex = referenceIndex;
    o.weightTV = getWeightTV();
    o.regError = getRegError();
    o.relativeResidue = getRelativeResidue();
    o.maxCGIters = minimization.getMaxIter();
    o.psfSigma = minimization.getPsfSigma();
    o.minStructureThreshold = minStructureThreshold;
    o.threads = threadCount;
    return o;
}

template <typename Registration>
void SrFloat<Registration>::setMaxCGIters(int iterations)
{
    if (const char* refused = srfloat_rules::maxCGIters(iterations))
        throw refused;
    minimization.setMaxIter(iterations);
}

template <typename Registration>
void SrFloat<Registration>::setPsfSigma(float sigma)
{
    if (const char* refused = srfloat_rules::psfSigma(sigma))
        throw refused;
    minimization.setPsfSigma(sigma);
}

template <typename Registration>
void SrFloat<Registration>::setReferenceIndex(int index)
{
    if (const char* refused = srfloat_rules::referenceIndex(index, windowSize))
        throw refused;
    referenceIndex = index;
}

template <typename Registration>
void SrFloat<Registration>::setRegError(float error)
{
    if (const char* refused = srfloat_rules::regError(error))
        throw refused;
    registration.setRegError(error);
}

template <typename Registration>
void SrFloat<Registration>::setRelativeResidue(float residue)
{
    if (const char* refused = srfloat_rules::relativeResidue(residue))
        throw refused;
    minimization.setRelRes(residue);
}

template <typename Registration>
void SrFloat<Registration>::setWeightTV(float weight)
{
    if (const char* refused = srfloat_rules::weightTV(weight))
        throw refused;
    minimization.setWeightTV(weight);
}

template <typename Registration>
void SrFloat<Registration>::setMinStructureThreshold(float threshold)
{
    minStructureThreshold = threshold;
}

template <typename Registration>
void SrFloat<Registration>::setDataIsNUC(bool isNUC)
{
    badPixels.setDataIsNUC(isNUC);
}

template <typename Registration>
void SrFloat<Registration>::setThreads(int threads)
{
    if (const char* refused = srfloat_rules::threads(threads))
        throw refused;
    registration.setThreads(threads);
    minimization.setThreads(threads);
    badPixels.setThreads(threads);
    threadCount = threads;
}

template class SrFloat<SrFloatRegistration1>;
template class SrFloat<SrFloatRegistration2>;

} // namespace kro
} // namespace velmor
