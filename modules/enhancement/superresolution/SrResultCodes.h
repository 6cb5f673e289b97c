#pragma once

// Named result codes of super-resolution, in one place: the values computeSR
// returns instead of a quality figure, and the codes of the C interface
// (SuperResolution_addImage and the other calls). Public so that callers of
// the C++ engines and the command-line tool compare against names, and
// report the C interface's code for a frame exactly as it would.

namespace velmor {
namespace kro {

enum SrResultCode : int {
    kSrOk = 0,
    kSrDefectsLeft = -2,       // a frame has defects the bad-pixel repair could not mend (still used)
    kSrCoverage = -3,          // half or more of a frame's pixels are masked out (computeSR fills the output)
    kSrLittleStructure = -4,   // a frame has too little structure (still used)
    kSrWindowNotFull = -5,     // fewer frames than the window holds (C interface)
    kSrDisplacement = -6,      // a frame is displaced too far (computeSR fills the output)
    kSrNoTracking = -9,        // the registration found nothing to track (output untouched)
    kSrLibraryError = -999,    // an exception was caught or the handle is invalid (C interface)
    kSrOtherFailure = -1000    // a negative value of computeSR that is none of the above
};

// The C interface's return code for one added frame, from what the engine
// reported for it:
//   structureOk  checkImageStructureQuality of the frame (false gives -4: the
//                frame is still used),
//   addResult    addFrame's value (-2: defects left unrepaired),
//   value        computeSR's value (a quality, or a negative code), 0 when no
//                reconstruction ran.
// Later rules override earlier ones: -2 from either call, then -3, then -9.
// Other negative values of computeSR (-6, the minimiser's) map to no code of
// their own, so they leave 0 or -4 standing. Exceptions are not covered here:
// the C interface turns them into kSrLibraryError.
inline int cInterfaceCode(bool structureOk, int addResult, float value)
{
    int code = structureOk ? kSrOk : kSrLittleStructure;
    if (value == static_cast<float>(kSrDefectsLeft) || addResult == kSrDefectsLeft)
        code = kSrDefectsLeft;
    if (value == static_cast<float>(kSrCoverage))
        code = kSrCoverage;
    if (value == static_cast<float>(kSrNoTracking))
        code = kSrNoTracking;
    return code;
}

// The code that computeSR's value stands for: kSrOk for a quality figure
// (>= 0), the value itself when it is a whole negative number (the codes
// above, or the minimiser's own), kSrOtherFailure for any other value.
inline int srResultOf(float value)
{
    if (value >= 0.0f)
        return kSrOk;
    if (value > -1e6f && static_cast<float>(static_cast<int>(value)) == value)
        return static_cast<int>(value);
    return kSrOtherFailure;
}

} // namespace kro
} // namespace velmor
