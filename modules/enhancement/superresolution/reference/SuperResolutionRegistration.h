#pragma once

#include <vector>

#include "KroLibExport.h"
#include "PointF.h"
#include "SrFloatRegistration1.h"
#include "SuperResolutionFft2d.h"

namespace velmor {
namespace kro {

// The reference engine's registration: the float engine's phase correlation
// and optical-flow step (SrFloatRegistration1: the same shifts, masks, sign
// convention and cut to the integer shift, to the bit), except that it holds
// no spectra of its own: the caller passes one precomputed spectrum per
// frame with every call (layout of SuperResolutionFft2d, made with getFft()
// or any transform of the frame size), so that a driver which transforms
// its frames anyway, to check them, does not transform them twice.
//
// A shift that reaches half the frame height is returned as a code instead
// of being thrown (see doRegistration), so that the driver can still give
// an output.
//
// Sizes and threads as SrFloatRegistration1 (even width, both sides at least
// 12; results independent of the thread count). Every buffer is allocated
// by the constructor. Copies are deep.
class KROLIB_EXPORT SuperResolutionRegistration : private SrFloatRegistration1 {
public:
    // The value doRegistration returns for a shift of half the height or
    // more; the work frames are then left as they were.
    static constexpr int kTooLargeDisplacement = -6;

    // factor: the driver's magnification (kept for its callers; the
    // registration works on the frames' grid). gaussRadius: radius of the
    // Gaussian blur before the flow step (the driver passes 5; sigma
    // radius * sqrt(3) / 5). Throws Exception for frame sizes the float
    // registration refuses, a factor that is not finite and positive, or a
    // radius that setGaussRadius refuses.
    SuperResolutionRegistration(int width, int height, float factor, int gaussRadius);

    // Registers nFrames frames against frame refIndex and cuts each to its
    // integer shift:
    //  - frames[i]: the frames (width x height floats, only read);
    //  - spectra[i]: frame i's spectrum ((width / 2 + 1) x height complex
    //    values, real then imaginary, only read);
    //  - shifts[i]: receives the sub-pixel remainder of frame i's shift, in
    //    [-0.5, 0.5); the complete shifts are kept for getCompleteShifts;
    //  - masks[i]: receives frame i's validity mask (1 used, 0 dropped);
    //  - shifted[i]: receives frame i cut to its integer shift (must not be
    //    frames[i]).
    // Returns 0, or kTooLargeDisplacement when a complete shift reaches half
    // the height on either axis (then `shifts` holds the complete shifts and
    // `shifted` is untouched). Throws Exception for nFrames < 1, refIndex
    // outside [0, nFrames), or a null pointer.
    int doRegistration(int nFrames, int refIndex, float** const frames, float (*const* spectra)[2],
                       PointF* shifts, char** masks, float** shifted);

    // The registration alone: writes the complete shifts (no cut) and the
    // masks. Same arguments and refusals as doRegistration.
    void registerFrames(int nFrames, int refIndex, float** const frames, float (*const* spectra)[2],
                        PointF* shifts, char** masks);

    // The transform of the frame size that the registration blurs with.
    SuperResolutionFft2d& getFft() { return getFftObject(); }

    float getFactor() const { return factor; }

    using SrFloatRegistration1::getCompleteShifts;
    using SrFloatRegistration1::getGaussRadius;
    using SrFloatRegistration1::getHeight;
    using SrFloatRegistration1::getRegErrBlurRadius;
    using SrFloatRegistration1::getRegError;
    using SrFloatRegistration1::getThreads;
    using SrFloatRegistration1::getWidth;
    using SrFloatRegistration1::setGaussRadius;
    using SrFloatRegistration1::setRegErrBlurRadius;
    using SrFloatRegistration1::setRegError;
    using SrFloatRegistration1::setThreads;
    // Complex values per spectrum: (width / 2 + 1) * height.
    using SrFloatRegistration1::getSpectrumSize;

private:
    void checkArguments(int nFrames, int refIndex, float** const frames, float (*const* spectra)[2],
                        PointF* shifts, char** masks) const;

    float factor;
    // 1 / |value| of the reference's spectrum and of the frame being
    // registered (the float registration keeps them per held frame).
    std::vector<float> referenceInverse;
    std::vector<float> currentInverse;
    // The spectra of the registration in progress.
    float (*const* activeSpectra)[2] = nullptr;
    int activeReference = 0;
};

} // namespace kro
} // namespace velmor
