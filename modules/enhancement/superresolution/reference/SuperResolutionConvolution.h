#pragma once

#include <vector>

#include "DebugChannel.h"
#include "KroLibExport.h"
#include "SrFloatConvolution.h"

namespace velmor {
namespace kro {

// The reference engine's imaging operator: the float engine's sparse PSF
// convolution (fullConvFromSparse, validCorrToSparse and blurImageMeanFilter,
// same layout and the same bits; see SrFloatConvolution) plus a box sum on
// the fine grid.
//
// Its debug channel is named "SuperResolution", like the rest of the
// reference engine; the step traces are the float engine's.
class KROLIB_EXPORT SuperResolutionConvolution : public SrFloatConvolution {
public:
    // As SrFloatConvolution (same arguments, same refusals).
    SuperResolutionConvolution(int fineWidth, int fineHeight, int psfWidth, int psfHeight, float factor);

    // "Same" convolution of an image of the unpadded fine grid (fineHeight
    // rows of fineWidth floats, row-major) with an n x n kernel of ones:
    //
    //     out[y][x] = sum of in[y + dy][x + dx], dy, dx in [-(n - 1 - n/2), n/2],
    //
    // samples outside the grid counting as 0 (integer division n/2: an odd
    // n gives the centred window, an even n reaches one sample further right
    // and down than left and up). The output has the input's size. Every
    // output sample is summed in double over the window's rows of row sums,
    // in increasing order, and stored as float; a non-finite input sample
    // affects only the windows that hold it. `in` and `out` may be the same
    // array. Use: the number of samples (or the total weight) of a mask or
    // of a coverage map around each fine pixel. Throws Exception for n < 1
    // or a null pointer. The passes share their rows among the object's
    // threads (setThreads) with the same result for any count; one object
    // runs one call at a time (it owns the row buffer).
    void sameConvOnes(float* const in, int n, float* out);

    // The debug channels this object owns: itself.
    std::vector<DebugChannel*> getInternalDebugChannelObjects();

private:
    // fineHeight x fineWidth row sums of the horizontal pass, in double.
    std::vector<double> rowSums;
};

} // namespace kro
} // namespace velmor
