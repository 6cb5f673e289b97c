#pragma once

namespace velmor {
namespace kro {
namespace detail {

// The C interface's return code for one added frame, from what the engine
// reported for it:
//   structureOk  checkImageStructureQuality of the frame (false gives -4: the
//                frame is still used),
//   addResult    addFrame's value (-2: defects left unrepaired),
//   quality      computeSR's value, 0 when no reconstruction ran.
// Later rules override earlier ones: -2 from either call, then -3, then -9.
// Other negative values of computeSR (-6, the minimiser's) map to no code of
// their own, so they leave 0 or -4 standing. Exceptions are not covered here:
// the C interface turns them into -999.
// Shared by SuperResolution_addImage and the command-line tool, which reports
// the same codes for the frames it reconstructs.
inline int cInterfaceCode(bool structureOk, int addResult, float quality)
{
    int code = structureOk ? 0 : -4;
    if (quality == -2.0f || addResult == -2)
        code = -2;
    if (quality == -3.0f)
        code = -3;
    if (quality == -9.0f)
        code = -9;
    return code;
}

} // namespace detail
} // namespace kro
} // namespace velmor
