#pragma once

#include <cstddef>
#include <exception>
#include <vector>

#include "DebugChannel.h"
#include "KroLibExport.h"
#include "PointF.h"
#include "SrFloatConvolution.h"

namespace velmor {
namespace kro {

namespace parallel {
class Team;
} // namespace parallel

// Solves for the super-resolved image of the float engine.
//
// Given nFrames registered low-resolution frames f_i (width x height), their
// residual sub-pixel shifts and their masks M_i, it minimises
//
//     sum_i || M_i (A_i u - f_i) ||^2  +  total variation of u
//
// over the image u on the padded fine grid (fullWidth x fullHeight, the
// "full" array of SrFloatConvolution), where A_i is the model of
// SrFloatConvolution with a Gaussian PSF shifted by frame i's shift. The
// total variation is handled by lagged diffusivity: an outer ("large") loop
// freezes TV weights L computed from the current estimate, an inner ("small")
// loop runs conjugate gradients on (sum_i A_i^T M_i A_i + L) u = sum_i A_i^T M_i f_i.
// The frames are normalised by the mean and standard deviation of the
// reference frame before the solve and the result is brought back to the
// reference's range.
//
// Sizes: width x height low-resolution frames, output (int)(width*factor) x
// (int)(height*factor); psfSize = (int)(3*factor) taps per PSF vector (6 for
// factor 2); fullWidth = (int)(width*factor) + psfSize - 1, fullHeight
// likewise. All buffers are allocated by the constructor; minimize()
// allocates nothing.
//
// Parameters (defaults): PSF sigma 0.683 fine pixels, TV weight 400 (larger
// means less smoothing), epsilon 0.1 (TV gradients are clamped to
// [epsilon, 1/epsilon]), relative residue 0.007 (CG stops when
// ||r||^2 / ||B||^2 < relRes^2), maxIter 8 (bound on the number of large
// iterations and on the total number of small iterations). The setters store
// without validation; the driver validates.
//
// Determinism: every reduction is a double per row, rows combined in row
// order, so the result does not depend on the number of OpenMP threads.
// One object serves one call at a time; copies are deep and independent.
//
// Traces (debug level 11, channel "SrFloat"): "start minimize", "start large
// iteration: <n>", "start small iteration: <k>", "abort small iteration:
// <k>", "end small iteration: <k>", "end large iteration: <n>", "start
// gradient", "gradient for frame: <i>", "cummulated iterations <total>",
// "end minimize".
class KROLIB_EXPORT SrFloatMinimization : public DebugChannel {
public:
    // width x height: low-resolution frame size; nFrames: the most frames a
    // call may pass; factor: super-resolution factor (2 in every engine).
    // Throws Exception when a size or nFrames is not positive or the factor
    // does not give a sparse grid that fits the fine grid (see
    // SrFloatConvolution; a factor of about 2 or more).
    SrFloatMinimization(int width, int height, int nFrames, float factor);
    SrFloatMinimization(const SrFloatMinimization&) = default;
    SrFloatMinimization& operator=(const SrFloatMinimization&) = default;
    ~SrFloatMinimization() override;

    // Runs the whole solve and returns the total number of small (CG)
    // iterations, at most maxIter.
    //  - frames[i] (i < nFrames): width*height floats each, normalised in
    //    place by the reference's mean and standard deviation (the caller's
    //    buffers are changed);
    //  - shifts[i]: residual sub-pixel shift of frame i against the
    //    reference, in low-resolution pixels (|shift * factor| <= 1; integer
    //    parts are removed by the caller);
    //  - masks[i]: width*height signed 8-bit weights, 1 = sample used,
    //    0 = dropped;
    //  - output: (int)(height*factor) rows of (int)(width*factor) floats.
    // Throws Exception when nFrames is not in [1, the constructor's nFrames],
    // refIndex not in [0, nFrames) or an array is null. The caller must make
    // sure that the reference frame is not constant and that some sample is
    // used (a zero standard deviation or an all-zero right-hand side gives
    // non-finite results; the driver checks both).
    int minimize(int nFrames, int refIndex, float** const frames, PointF* const shifts,
                 char** masks, float* output);

    // Store without validation; setWeightTV also caches -1/weightTV,
    // setEpsilon 1/epsilon, and setPsfSigma rebuilds the base PSF.
    void setPsfSigma(float sigma);
    void setWeightTV(float weight);
    void setEpsilon(float eps);
    void setRelRes(float residue);
    void setMaxIter(int iterations);

    float getPsfSigma() const { return psfSigma; }
    float getWeightTV() const { return weightTV; }
    float getEpsilon() const { return epsilon; }
    float getRelRes() const { return relRes; }
    int getMaxIter() const { return maxIter; }

    // Threads of a solve: 0 (the default) takes OpenMP's default for a new
    // parallel region, n > 0 at most n; small grids run on the calling
    // thread. A negative count is refused (false, nothing changed). Results
    // never depend on it.
    bool setThreads(int threads);
    int getThreads() const { return threadCount; }
    // Threads the last solve (or gradient) ran on.
    int getLastThreadCount() const { return lastThreads; }

    int getWidth() const { return width; }
    int getHeight() const { return height; }
    int getFrameCapacity() const { return nFrames; }
    float getFactor() const { return factor; }
    int getPsfSize() const { return psfSize; }
    int getFullWidth() const { return fullWidth; }
    int getFullHeight() const { return fullHeight; }
    // The unshifted PSF (psfSize taps, sum 1) built by setPsfSigma.
    const std::vector<float>& getBasePsf() const { return basePsf; }

protected:
    // Points of a solve at which a derived class may look at the solver's
    // state through reportStep (the reference engine's minimiser traces its
    // vectors there). They are reached only when wantsStepReports() is true
    // at the start of minimize(); the solve then stops at each point (the
    // team waits while the master thread reports) and runs its element-wise
    // updates as separate passes (U, then R, then S) instead of fused ones.
    // Every element gets the same operations either way, so the result is
    // the same to the bit.
    enum class SolvePoint {
        Statistics,      // mean and sigma of the reference known, frames not yet normalised
        Normalized,      // frames normalised, PSFs generated
        BackProjected,   // B, U = B and 1/||B||^2 ready
        CgStart,         // a large iteration: TV weights of U computed
        CgGradient,      // R = G U (before R = B - R)
        CgResidual,      // R = B - G U and S = R; value: |R|^2
        IterationStart,  // a CG step: S and the TV weights before Q = G S
        Alpha,           // Q = G S; value: alpha; U not yet updated
        UUpdated,        // U = U + alpha S; R not yet updated
        RUpdated,        // R = R - alpha Q; value: the new |R|^2
        Beta,            // not converged; value: beta; S not yet updated
        SUpdated,        // S = S beta + R; value: |R|^2 kept for the next step
        Solved,          // the large loop is over; U final, still normalised
        Output           // the output image written
    };
    // The arrays of the full grid that reportStep may read.
    enum class FullArray { B, U, R, S, Q, Lr, Ld, Ldl, Ldr };

    // Whether the next minimize() reports its steps; asked once per solve.
    virtual bool wantsStepReports() const { return false; }
    // Called on the master thread at `point` while the other threads wait;
    // `value` as listed above (0 where none is listed). An exception ends
    // the solve after its parallel region.
    virtual void reportStep(SolvePoint point, double value);

    // Read access for reportStep (valid during a solve).
    const float* fullArray(FullArray which) const;
    float centreWeightAt(int x, int y) const;
    const std::vector<float>& psfXOf(int frame) const { return psfX[frame]; }
    const std::vector<float>& psfYOf(int frame) const { return psfY[frame]; }
    float solveMean() const { return mean; }
    float solveSigma() const { return sigma; }
    float solveInvNormB2() const { return invNormB2; }
    int solveFrameCount() const { return solveFrames; }
    float* solveFrame(int i) const { return solveFramePointers[i]; }
    const float* solveOutput() const { return solveOutputPointer; }
    int getFullSize() const { return fullSize; }
    SrFloatConvolution& getConvolution() { return convolution; }

private:
    // Reaches the private steps from the unit tests.
    friend class SrFloatMinimizationPeer;

    // What the operator does with each finished row of its output.
    enum class RowFinish {
        None,           // out = G x
        DotWithInput,   // out = G x, rowSums[r] = <x, out> over row r
        ResidualFromB,  // R = B - G x, S = R, rowSums[r] = |R|^2 over row r
        BackProjection  // out = sum_i A_i^T M_i frames_i (no TV term), U = out, rowSums = |out|^2
    };

    // psfX[i], psfY[i] for frames i < nFrames from basePsf and the shifts.
    void generatePsfs(int nFrames, PointF* const shifts);
    // TV weights Lr, Ld, Ldl, Ldr from the current estimate U.
    void computeL(const parallel::Team& team);
    // centreWeightAt(x, y): the centre weight Lc at (x, y) of the full grid,
    // minus the sum of the eight neighbour weights. It is not stored: the
    // operator forms it from the neighbour weights it reads anyway (same
    // terms, same order).
    // out = (sum_i A_i^T M_i A_i + L) x on the full grid, with the weights of
    // the last computeL() and the PSFs of the last generatePsfs(), on a team
    // of its own.
    void gradient(float* const x, int nFrames, char** masks, float* out);
    // One large iteration: CG on the frozen L from the current U, at most
    // maxSmall steps; returns the number of steps taken (0 when the first
    // residual already meets the residue).
    int conjugateGradients(const parallel::Team& team, int nFrames, char** masks, int maxSmall);
    // One CG step; true when converged.
    bool iteration(const parallel::Team& team, int k, int nFrames, char** masks);

    // The steps below run inside minimize's one parallel region: every
    // thread of the team calls them and they share the work through the
    // team's loops. Shared scalars are written by the master inside
    // `single` blocks.

    // The operator in two fused passes: predictFrames (the model for every
    // frame, weighted by its mask, into lowBuffer) and finishRows (TV term
    // plus back-projection, row by row, with `finish` applied to each
    // finished row).
    void applyOperator(const parallel::Team& team, const float* x, int nFrames, char** masks, float* out,
                       RowFinish finish);
    void predictFrames(const parallel::Team& team, const float* x, int nFrames, char** masks);
    // `sources`: the low-resolution images to back-project (the frames for
    // BackProjection; null for lowBuffer's predictions).
    void finishRows(const parallel::Team& team, const float* x, int nFrames, char** masks,
                    const float* const* sources, float* out, RowFinish finish);
    void normalizeFrames(const parallel::Team& team, int nFrames, int refIndex, float** const frames);
    // The step of iteration() after alpha when the steps are reported:
    // U, R and S updated in separate passes, with a report after each.
    bool reportedUpdates(const parallel::Team& team, float alpha);
    // R = B - R, S = R and |R|^2 of row r into rowSums.
    void residualFromBRow(int r, float* o);
    // reportStep on the master, between barriers, when the solve reports.
    void report(const parallel::Team& team, SolvePoint point, double value = 0.0);
    // Trace from the team's master thread; a failing debug device is
    // remembered and rethrown after the parallel region.
    void masterTrace(const parallel::Team& team, const char* text);
    void masterTraceValue(const parallel::Team& team, const char* text, int value);
    int regionThreads() const;
    // Layout of a thread's work floats: a full row in phase layout, a padded
    // low-resolution row, then the ring of filtered rows.
    std::size_t phaseRowFloats() const;
    std::size_t paddedRowFloats() const;

    int width;
    int height;
    int psfSize;
    int fullWidth;
    int fullHeight;
    int fullSize;
    int nFrames;
    float factor;

    float psfSigma;
    float weightTV;
    float relRes;
    int maxIter;

    std::vector<float> basePsf;
    std::vector<std::vector<float>> psfX;
    std::vector<std::vector<float>> psfY;

    // Kept for its geometry (the layout of the sparse grid on the full
    // array); the operator below runs fused row passes that give the same
    // bits as its validCorrToSparse and fullConvFromSparse.
    SrFloatConvolution convolution;
    int step;

    // nFrames predicted low-resolution frames (width*height floats each),
    // already multiplied by their masks.
    std::vector<float> lowBuffer;

    // Full-grid arrays (fullSize floats each). There is no per-frame
    // back-projection buffer and no centre-weight array: the fused row
    // passes add each frame's back-projection straight into the output row
    // and form the centre weight where they use it.
    std::vector<float> B;  // right-hand side: back-projection of the frames
    std::vector<float> U;  // the estimate
    std::vector<float> Lr, Ld, Ldl, Ldr;  // TV weights: right, down, down-left, down-right
    std::vector<float> R;  // CG residual
    std::vector<float> S;  // CG search direction
    std::vector<float> Q;  // operator applied to S

    float negInvWeightTV;
    float epsilon;
    float invEpsilon;
    float rr;
    float invNormB2;

    // Shared scalars of the parallel solve, written by one thread between
    // barriers.
    double refMean;
    float mean;
    float sigma;
    int totalIterations;

    // One double per full-grid row for the ordered reductions; the residual
    // norm of a CG step has its own buffer (see iteration()).
    std::vector<double> rowSums;
    std::vector<double> residualRowSums;
    // Per-thread work rows of the fused passes, and the row held by each slot
    // of a thread's ring of horizontally filtered rows.
    int threadCount = 0;
    int lastThreads = 1;
    int threadCapacity;
    std::size_t threadWorkStride;
    std::vector<float> threadWork;
    std::vector<int> ringRows;
    std::exception_ptr traceFailure;
    // The solve in progress, for reportStep.
    bool stepReports = false;
    int solveFrames = 0;
    float** solveFramePointers = nullptr;
    const float* solveOutputPointer = nullptr;
};

} // namespace kro
} // namespace velmor
