#pragma once

#include <vector>

#include "DebugChannel.h"
#include "KroLibExport.h"

namespace velmor {
namespace kro {

// The imaging operator of the fixed-point super-resolution engine and its
// transpose, in integers: the twin of SrFloatConvolution for the factor 2,
// with the same sparse-grid layout (low-resolution sample (i, j) at fine row
// 2i and column 2j of the padded "full" grid, PSF origin at the top left;
// fullWidth = 2*lowWidth + 5, fullHeight = 2*lowHeight + 5 for the six taps).
//
// Number formats (see detail/IntConvRows.h for the bounds):
//  - full and sparse samples: 16-bit integers in [-16384, 16383];
//  - PSF taps: unsigned Q15 (value * 2^15, 0 .. 16384), from quantizePsf;
//  - the transpose's output: 32-bit integers in units of 1/4 of a sample
//    (two fraction bits), because each parity of a PSF sums to one half and
//    the result would otherwise lose a bit per pass.
// Each pass rounds once (half up): validCorrToSparse rounds after the
// horizontal and after the vertical pass, fullConvFromSparse after the
// vertical pass (one fraction bit kept) and after the horizontal one. The
// pair is the exact transpose of each other up to these roundings.
//
// The minimiser runs the same row kernels in fused passes of its own; this
// class applies them to whole images (and is what the tests check). One
// object serves one call at a time (its scratch rows are shared by its
// calls); copies are deep.
class KROLIB_EXPORT SrIntConvolution : public DebugChannel {
public:
    static constexpr int kPsfSize = 6;

    // lowWidth x lowHeight: the low-resolution frame size (1 .. 8192 each).
    SrIntConvolution(int lowWidth, int lowHeight);

    // taps[k] = the float tap psf[k] (0 .. 0.5) as unsigned Q15: converted
    // to unsigned Q16 with convertMatFloatToMatInt (which stores a tap of
    // exactly 0.5 as -32768, read back here as 32768) and rounded to Q15.
    // A tap outside [0, 0.5] throws that function's exception.
    static void quantizePsf(const float* psf, short* taps);

    // sparse[i][j] = sum over k, l < 6 of psfY[k] * psfX[l] * full[2i + k][2j + l]
    // (rows of lowWidth samples); full holds fullHeight rows of fullWidth.
    void validCorrToSparse(const short* full, const short* psfX, const short* psfY, short* sparse);

    // full[2i + k][2j + l] = sum of psfY[k] * psfX[l] * sample (i, j) over the
    // samples whose mask is nonzero, in quarters; writes the whole full array.
    void fullConvFromSparse(const short* sparse, const short* psfX, const short* psfY,
                            const signed char* mask, int* full);

    int getLowWidth() const { return lowWidth; }
    int getLowHeight() const { return lowHeight; }
    int getFullWidth() const { return fullWidth; }
    int getFullHeight() const { return fullHeight; }

private:
    int lowWidth;
    int lowHeight;
    int fullWidth;
    int fullHeight;
    // Horizontally filtered full rows (validCorrToSparse).
    std::vector<short> filtered;
    // The masked samples with two zero rows above and three below, so that
    // every full row finds its three source rows (fullConvFromSparse).
    std::vector<short> paddedSamples;
    // One vertically spread row with zero guards.
    std::vector<short> spreadRow;
};

} // namespace kro
} // namespace velmor
