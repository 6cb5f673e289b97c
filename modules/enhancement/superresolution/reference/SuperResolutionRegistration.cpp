#include "SuperResolutionRegistration.h"

#include <cmath>

#include "detail/Throw.h"

namespace velmor {
namespace kro {

namespace {

float checkedFactor(float factor)
{
    if (!std::isfinite(factor) || factor <= 0.0f)
        KRO_THROW("invalid magnification " << factor);
    return factor;
}

} // namespace

SuperResolutionRegistration::SuperResolutionRegistration(int width_, int height_, float factor_, int gaussRadius_)
    : SrFloatRegistration1(width_, height_),
      factor(checkedFactor(factor_)),
      referenceInverse(static_cast<std::size_t>(getSpectrumSize()), 0.0f),
      currentInverse(static_cast<std::size_t>(getSpectrumSize()), 0.0f)
{
    setGaussRadius(gaussRadius_);
}

void SuperResolutionRegistration::checkArguments(int nFrames, int refIndex, float** const frames,
                                                 float (*const* spectra)[2], PointF* shifts,
                                                 char** masks) const
{
    if (nFrames < 1)
        KRO_THROW("invalid frame count " << nFrames);
    if (refIndex < 0 || refIndex >= nFrames)
        KRO_THROW("invalid reference index " << refIndex << " for " << nFrames << " frames");
    if (!frames || !spectra || !shifts || !masks)
        KRO_THROW("null frame, spectrum, shift or mask list");
    for (int i = 0; i < nFrames; ++i)
        if (!frames[i] || !spectra[i] || !masks[i])
            KRO_THROW("null frame, spectrum or mask " << i);
}

void SuperResolutionRegistration::registerFrames(int nFrames, int refIndex, float** const frames,
                                                 float (*const* spectra)[2], PointF* shifts, char** masks)
{
    checkArguments(nFrames, refIndex, frames, spectra, shifts, masks);
    computeInverseMagnitudes(spectra[refIndex], getSpectrumSize(), referenceInverse.data());
    // The float registration asks for the reference first and then for each
    // other frame once, so one buffer serves all the other frames. The
    // source captures one pointer only (no allocation per call).
    activeSpectra = spectra;
    activeReference = refIndex;
    const SpectrumSource spectrumOf = [this](int frame) {
        if (frame == activeReference)
            return SpectrumView{activeSpectra[frame], referenceInverse.data()};
        computeInverseMagnitudes(activeSpectra[frame], getSpectrumSize(), currentInverse.data());
        return SpectrumView{activeSpectra[frame], currentInverse.data()};
    };
    registerFramesWith(nFrames, refIndex, frames, spectrumOf, shifts, masks);
}

int SuperResolutionRegistration::doRegistration(int nFrames, int refIndex, float** const frames,
                                                float (*const* spectra)[2], PointF* shifts, char** masks,
                                                float** shifted)
{
    checkArguments(nFrames, refIndex, frames, spectra, shifts, masks);
    if (!shifted)
        KRO_THROW("null list of shifted frames");
    for (int i = 0; i < nFrames; ++i) {
        if (!shifted[i])
            KRO_THROW("null shifted frame " << i);
        if (shifted[i] == frames[i])
            KRO_THROW("shifted frame " << i << " is the frame itself");
    }
    registerFrames(nFrames, refIndex, frames, spectra, shifts, masks);
    if (!shiftsWithinBound(nFrames, shifts))
        return kTooLargeDisplacement;
    for (int i = 0; i < nFrames; ++i)
        shiftFrame(frames[i], shifts[i], shifted[i]);
    return 0;
}

} // namespace kro
} // namespace velmor
