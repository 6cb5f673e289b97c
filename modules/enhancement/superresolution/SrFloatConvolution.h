#pragma once

#include <vector>

#include <opencv2/core.hpp>

#include "DebugChannel.h"
#include "KroLibExport.h"
#include "OwnedMat.h"

namespace velmor {
namespace kro {

// The imaging operator of the float super-resolution engine and its
// transpose.
//
// The high-resolution estimate lives on a padded fine grid, the "full" array
// of fullWidth x fullHeight floats (fullWidth = fineWidth + psfWidth - 1,
// fullHeight = fineHeight + psfHeight - 1). A low-resolution frame of
// lowWidth x lowHeight samples (lowWidth = (int)(fineWidth / factor),
// lowHeight = (int)(fineHeight / factor)) is that image blurred by a
// separable PSF and sampled once per low-resolution pixel: sample (i, j) sits
// on the full array at row 2*i and column step*j (step = (int)factor) relative
// to the PSF origin.
//
// The vertical step is always 2 while the horizontal step follows the factor.
// This is intended: the fixed-point engine shares this layout, and with the
// factor 2 of every engine both steps are 2.
//
//   validCorrToSparse:  sparse[i][j] = sum_{k,l} psfY[k] psfX[l] full[2i+k][step*j+l]
//   fullConvFromSparse: full[2i+k][step*j+l] += psfY[k] psfX[l] mask[i][j] sparse[i][j]
//
// With an all-ones mask the two are exact transposes. All arrays are
// row-major without padding: sparse arrays lowHeight x lowWidth floats, masks
// lowHeight x lowWidth signed 8-bit weights (0 drops a sample, 1 keeps it),
// PSF vectors psfWidth (horizontal) and psfHeight (vertical) floats, tap 0
// first, applied as given (not normalised). The caller owns every array.
//
// Rounding: every output element is accumulated in float over the taps in
// increasing order, vertical pass before horizontal in fullConvFromSparse and
// horizontal before vertical in validCorrToSparse; this fixes the result bit
// for bit, whatever the number of OpenMP threads.
//
// Thread-safety: the object owns one scratch buffer (allocated once, in the
// constructor), so one object runs one convolution at a time; different
// objects are independent. Copies are deep.
//
// Traces (debug level 11, channel "SrFloat"): "start/end
// SrFloat_Convolution.fullConvFromSparse" and "start/end
// SrFloat_Convolution.validCorrToSparse".
class KROLIB_EXPORT SrFloatConvolution : public DebugChannel {
public:
    // fineWidth x fineHeight: the unpadded fine grid (low-resolution size
    // times factor); psfWidth, psfHeight: taps of the horizontal and vertical
    // PSF. Throws Exception when a size is not positive, the factor is below 1
    // or not finite, the low-resolution grid would be empty, or the sparse grid
    // with the PSF would reach outside the full array (the vertical step 2
    // needs lowHeight <= (fineHeight + 1) / 2, i.e. a factor of about 2 or
    // more).
    SrFloatConvolution(int fineWidth, int fineHeight, int psfWidth, int psfHeight, float factor);
    // Copies are deep (the scratch is an OwnedMat): the compiler's copy and
    // move are the right ones.

    // Transpose of the model: writes the whole full array (fullHeight x
    // fullWidth) with the full convolution of the masked, zero-upsampled
    // sparse image with the separable PSF. Throws Exception on a null pointer.
    void fullConvFromSparse(float* const sparse, float* const psfX, float* const psfY,
                            char* mask, float* full);

    // The model: writes the whole sparse array (lowHeight x lowWidth) with the
    // "valid" correlation of the full array with the PSF, sampled on the sparse
    // grid. No mask is applied. Throws Exception on a null pointer.
    void validCorrToSparse(float* const full, float* const psfX, float* const psfY,
                           float* sparse);

    // Separable mean over a (2*radius + 1)^2 window, clipped at the borders
    // where it becomes the mean of the samples inside the image. dst is
    // (re)created with src's size if needed; dst may be src. Throws Exception
    // when src is empty, radius is negative or 2*radius + 1 exceeds the width
    // or the height. Thread-safe; each calling thread keeps a scratch image of
    // the largest size it has filtered.
    static void blurImageMeanFilter(cv::Mat_<float>& src, int radius, cv::Mat_<float>& dst);

    int getFineWidth() const { return fineWidth; }
    int getFineHeight() const { return fineHeight; }
    int getPsfWidth() const { return psfWidth; }
    int getPsfHeight() const { return psfHeight; }
    int getFullWidth() const { return fullWidth; }
    int getFullHeight() const { return fullHeight; }
    float getFactor() const { return factor; }
    int getLowWidth() const { return lowWidth; }
    int getLowHeight() const { return lowHeight; }
    // Horizontal sampling step on the fine grid; the vertical step is 2.
    int getStep() const { return step; }

    // Threads of one call: 0 (the default) takes OpenMP's default for a new
    // parallel region, n > 0 at most n; small grids run on the calling
    // thread. A negative count is refused (false, nothing changed).
    bool setThreads(int threads);
    int getThreads() const { return threadCount; }
    // Threads the last call ran on.
    int getLastThreadCount() const { return lastThreads; }

private:
    int fineWidth;
    int fineHeight;
    int psfWidth;
    int psfHeight;
    int fullWidth;
    int fullHeight;
    float factor;
    // fullHeight x fineWidth floats, the intermediate of the two separable
    // passes; only the first lowWidth columns of a row are used.
    OwnedMat<cv::Mat> scratch;

    int lowWidth;
    int lowHeight;
    int step;

    int threadCount = 0;
    int lastThreads = 1;
    // One row of fullWidth floats per thread for the phase layout of a row.
    int threadCapacity;
    std::vector<float> rowWork;
};

} // namespace kro
} // namespace velmor
