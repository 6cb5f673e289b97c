#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <vector>

#include <opencv2/core.hpp>

#include "DebugChannel.h"
#include "Fixpoint.h"
#include "KroLibExport.h"
#include "PointF.h"

namespace velmor {
namespace kro {

namespace parallel {
class Team;
} // namespace parallel

// Solves for the super-resolved image of the fixed-point engine: the
// integer twin of SrFloatMinimization, with the same model, the same sparse
// grid and PSF layout (SrIntConvolution) and the same solve:
//
//     minimise  sum_i || M_i (A_i u - f_i) ||^2  +  total variation of u
//
// by lagged diffusivity (large iterations freeze the TV weights L of the
// current estimate) and conjugate gradients on
// (sum_i A_i^T M_i A_i + L) u = sum_i A_i^T M_i f_i  (small iterations).
// Only the factor 2 is supported (the driver's only factor).
//
// Number formats. Every full-grid vector is 16-bit with a block exponent:
// element m stands for m * 2^e, where e is one int per vector and solve.
//  - Frames: converted to 16 bits with convertMatFloatToMatInt (range and
//    scale from the virtual getters below), then normalised by shifts:
//    n = (f - mean) * 2^s with mean the rounded mean of the reference frame
//    and s in [-2, 14] the largest shift that keeps the largest deviation of
//    any used sample within 2^14 (a right shift rounds half up); n is
//    clamped to [-16384, 16383] and masked. These "data units" are the
//    units of the estimate.
//  - U (the estimate): data units, exponent 0, saturated to 16 bits: the
//    frames use half of the range, the other half is headroom for the
//    overshoot of the reconstruction.
//  - B (right-hand side), R (residual), S (search direction), Q (operator
//    applied to S): 16-bit mantissas in [-16384, 16383] with a block exponent
//    each. The exponent of a new vector is chosen from an upper bound of its
//    elements (the largest element of each input, tracked per row, times the
//    gains of the step), so no element is ever clipped; the bound is at most
//    a few times the true largest element, so the vectors keep 12 to 14
//    significant bits.
//  - The operator's input is 16-bit in [-16384, 16383] (S itself, or U
//    halved), its PSF taps unsigned Q15; each convolution pass rounds once
//    (see SrIntConvolution), the frames are summed in a 32-bit row in
//    quarters of the input's unit, and the row is rounded once more into Q.
//  - TV weights Lr, Ld, Ldl, Ldr: unsigned 12-bit mantissas (<= 4095) with
//    one exponent, read from a table indexed by the quantised difference of
//    the two pixels (the lambda/epsilon table: 4096 entries for the straight
//    and for the diagonal neighbours, built once per solve from weightTV,
//    epsilon and the reference frame's spread in data units).
//  - Scalars (squared residues, step lengths alpha and beta, relRes,
//    epsilon): Fixpoint. Dot products and norms are exact 64-bit integer
//    sums (one slot per row, added in row order) turned into Fixpoint with
//    exponent width 7.
//  - Output: U brought back to the input's scale and rounded to 16 bits
//    (saturated), written as float.
// Rounding: every narrowing (each convolution pass, the operator's output
// row, each CG combination, the output) adds one half and shifts right
// once, so it rounds half up with one rounding per step; the only floor is
// the halving of U for the operator (at most half a unit of U). Fixpoint
// operations round as Fixpoint.h says.
// Why nothing overflows for any 16-bit input: the samples of every pass are
// at most 2^14 in magnitude and the taps of a PSF sum to 2^15, so a sum of
// products stays below 2^30; a pass's result is again at most 2^14 (the
// transposed vertical pass keeps one fraction bit because each parity of a
// PSF sums to one half). The TV term sums eight products of a weight below
// 2^12 and a difference below 2^15 (below 2^30). The accumulator of one
// output row holds at most nFrames (<= 64) terms below 2^15 plus the TV term
// shifted down, and the linear combinations of the CG steps use 16-bit
// coefficients on 16-bit elements (below 2^30). 64-bit sums of products
// hold at most 2^29 products below 2^28.
//
// Determinism: integer arithmetic only per element; reductions go through
// one 64-bit (or maximum) slot per row, combined in row order, so results
// are the same bytes for any thread count.
//
// Traces (debug level 11, channel "SrInt") as in the float minimiser:
// "start minimize", "start large iteration: <n>", "start small iteration:
// <k>", "abort small iteration: <k>", "end small iteration: <k>", "end large
// iteration: <n>", "cummulated iterations <total>", "end minimize".
class KROLIB_EXPORT SrIntMinimization : public DebugChannel {
public:
    // Negative results of minimize() (nothing is written to the output).
    // The reference frame has no spread (all its values equal): the
    // normalisation would divide by zero.
    static constexpr int kConstantReference = -11;
    // No frame has a sample with a nonzero mask: nothing to fit.
    static constexpr int kNoSampleUsed = -12;

    // width x height: low-resolution frame size (1 .. 8192 each); nFrames:
    // the most frames a call may pass (1 .. 64); factor: must be 2. Throws
    // Exception otherwise.
    SrIntMinimization(int width, int height, int nFrames, int factor);
    SrIntMinimization(const SrIntMinimization&) = default;
    SrIntMinimization& operator=(const SrIntMinimization&) = default;
    ~SrIntMinimization() override;

    // Builds the PSFs of frames 0 .. nFrames-1 from their residual
    // sub-pixel shifts (low-resolution pixels, |shift| <= 0.5): the float
    // engine's PSFs, quantised to Q15. Until the first call every frame has
    // the unshifted PSF; setPsfSigma rebuilds them from the last shifts.
    // A shift beyond half a pixel is taken as +-0.5 and a NaN as 0 (a failed
    // registration, which the driver reports itself). Throws Exception for
    // nFrames outside [0, capacity].
    void generatePsfs(int nFrames, const PointF* shifts);

    // Runs the whole solve with the PSFs of the last generatePsfs().
    //  - frames[i] (i < nFrames): height x width, 16-bit integer values held
    //    as float (they are not changed);
    //  - masks[i]: height x width, nonzero = sample used;
    //  - output: (height*2) x (width*2), created by the caller; every pixel is
    //    written with the reconstruction in the frames' scale, rounded to a
    //    16-bit value.
    // Returns the total number of small (CG) iterations (at most maxIter), or
    // kConstantReference / kNoSampleUsed (output untouched). Throws Exception
    // for sizes or indices that do not fit, and convertMatFloatToMatInt's
    // exception for a value outside the input range.
    int minimize(int nFrames, int refIndex, const std::vector<cv::Mat_<float>>& frames,
                 const std::vector<cv::Mat_<signed char>>& masks, cv::Mat_<float>& output);

    // Small iterations of the last solve, summed over its large iterations
    // (0 after a solve that returned a negative code).
    short getCumIters() const { return cumIters; }

    // Bound on the number of large iterations and on the total of small
    // ones (default 8; 0 returns the back-projection).
    void setMaxIter(short iterations);
    short getMaxIter() const { return maxIter; }
    // PSF standard deviation in fine pixels (default 0.683; > 0).
    void setPsfSigma(float sigma);
    float getPsfSigma() const { return psfSigma; }
    // CG stops when |R|^2 < relRes^2 |B|^2 (default 0.007).
    void setRelRes(float residue);
    float getRelRes() const { return relResValue; }
    // TV weight (default 400, larger smooths less), kept as a 16-bit
    // integer: 1 .. 600, otherwise throws "invalid value given for
    // setWeightTV (allowed: 1-600)" (the value is truncated when stored).
    void setWeightTV(float weight);
    float getWeightTV() const { return static_cast<float>(weightTV); }
    // TV gradients are clamped to [epsilon, 1/epsilon] reference standard
    // deviations (default 0.1). Accepted: 0.001 .. 1, which keeps the
    // largest TV weight below 2^10 (the operator's 32-bit budget); otherwise
    // throws Exception.
    void setEpsilon(float eps);
    float getEpsilon() const { return epsilonValue; }

    // Threads of a solve: 0 (the default) takes OpenMP's default, n > 0 at
    // most n; small grids run on the calling thread. A negative count is
    // refused (false, nothing changed). Results never depend on it.
    bool setThreads(int threads);
    int getThreads() const { return threadCount; }
    // Threads the last solve ran on.
    int getLastThreadCount() const { return lastThreads; }

    int getWidth() const { return width; }
    int getHeight() const { return height; }
    int getFrameCapacity() const { return nFrames; }
    int getFullWidth() const { return fullWidth; }
    int getFullHeight() const { return fullHeight; }

protected:
    // 2^shift as a 32-bit pattern, by doubling 1 while a counter of 8
    // unsigned bits counts the shift down: 0 gives 1, 1 .. 30 give 2^shift,
    // 31 the pattern 0x80000000, 32 and more (and every negative shift,
    // counted as 256 + shift) give 0. The normalisation and the output scale
    // by it.
    virtual int shiftToFactor(signed char shift);
    // The value with its mantissa renormalised to `bits` significant bits
    // (1 .. 31), the exponent moved to keep the value: a non-negative
    // mantissa below 2^(bits-1) is doubled while the exponent is above its
    // minimum (so 0 walks down to the minimum); one above 2^bits - 1 is
    // halved while the exponent is below its maximum, and throws "int32
    // above possible range of fixpoint" if that is not enough; a negative
    // mantissa of -64 .. -1 is kept, and below -64 the exponent is walked up
    // to its maximum and "int32 below possible range of fixpoint" is thrown
    // (the limit -64 does not follow `bits`; the result is used for positive
    // values only). The exponent range is that of the value's exponent
    // width; the result has a default exponent width.
    Fixpoint convToXBitMantissa(const Fixpoint& value, unsigned char bits);

    // Range and scale with which minimize() converts its float frames to 16
    // bits (convertMatFloatToMatInt): -32768, 32767 and 1. The output is
    // divided by the scale again.
    virtual float getMinInputValue() const { return -32768.0f; }
    virtual float getMaxInputValue() const { return 32767.0f; }
    virtual float getInputScale() const { return 1.0f; }

private:
    // Reaches the private steps from the unit tests and benchmarks.
    friend class SrIntMinimizationPeer;

    // A 16-bit vector's block exponent and the bound of its mantissas.
    struct Scale {
        int exponent = 0;
        int maxAbs = 0;
    };
    // Per-solve values that every thread of the team holds an identical copy
    // of (each forms them from the same shared row slots), defined in
    // detail/SrIntSolveState.h.
    struct Solve;

    // What the operator does with each finished row of its output.
    enum class RowFinish {
        Plain,          // out = G x
        DotWithInput,   // out = G x, <x, out> per row into sumSlotsA
        BackProjection  // out = sum_i A_i^T M_i frames_i (no TV term), |out|^2 per row
    };

    void rebuildPsfs();
    // The float frames to 16 bits (convertMatFloatToMatInt) into `converted`,
    // in row bands shared by the team; false when the conversion threw (the
    // exception is kept in conversionErrors).
    bool convertFrames(const parallel::Team& team, int nFrames, const std::vector<cv::Mat_<float>>& frames);
    // Converted frames -> frames16 and maskWords, with mean, shift and
    // spread in `solve`; 0, or kConstantReference / kNoSampleUsed.
    int normalizeFrames(const parallel::Team& team, Solve& solve, int nFrames, int refIndex,
                        const std::vector<cv::Mat_<signed char>>& masks);
    // The TV weight format of the current parameters (before a solve's
    // region: it may throw), the table layout for the reference's spread
    // (every thread), and the tables themselves (one thread).
    void prepareWeights(Solve& solve);
    void layoutTables(Solve& solve) const;
    void fillWeightTables(const Solve& solve);
    // B, its norm and the residue threshold; U = B.
    void backProject(const parallel::Team& team, Solve& solve, int nFrames);
    void computeL(const parallel::Team& team, const Solve& solve);
    // out = G x for an input of exponent e (mantissas within xMax); returns
    // out's exponent relative to e and the largest |out| mantissa.
    Scale applyOperator(const parallel::Team& team, const Solve& solve, const short* x, int xMax,
                        int nFrames, const short* sources, short* out, RowFinish finish);
    void predictFrames(const parallel::Team& team, const short* x, int nFrames);
    void finishRows(const parallel::Team& team, const short* x, int nFrames, const short* sources,
                    short* out, int tvShift, int outShift, RowFinish finish);
    // Bound on |sum over frames of A_i^T M_i y_i| in quarters for
    // |y_i| <= sampleMax; with `forward`, y_i = A_i x with |x| <= sampleMax.
    std::int64_t transposeBound(int nFrames, std::int64_t sampleMax, bool forward) const;
    int conjugateGradients(const parallel::Team& team, Solve& solve, int nFrames, int maxSmall);
    bool iteration(const parallel::Team& team, Solve& solve, int nFrames);
    void writeOutput(const parallel::Team& team, const Solve& solve, cv::Mat_<float>& output);
    void masterTrace(const parallel::Team& team, const char* text);
    void masterTraceValue(const parallel::Team& team, const char* text, int value);
    int regionThreads() const;
    void allocateThreadWork(int capacity);

    short* plane(std::vector<short>& v) { return v.data() + planeOffset; }
    const short* plane(const std::vector<short>& v) const { return v.data() + planeOffset; }

    int width;
    int height;
    int nFrames;
    int factor;
    int psfSize;
    int fullWidth;
    int fullHeight;
    int fullSize;
    // Full-grid planes have a zero guard row above and below (plus a few
    // elements), so the TV stencil needs no border cases.
    std::size_t planeOffset;
    std::size_t planeSize;
    // Low-resolution planes (frames, predictions) have two zero rows above
    // and three below: the rows the transpose reads outside the frame.
    std::size_t lowOffset;
    std::size_t lowPlaneSize;

    short maxIter;
    float psfSigma;
    short weightTV;
    // The solve uses the Fixpoint forms; the getters report the values as
    // they were set.
    float relResValue;
    Fixpoint relRes;
    float epsilonValue;
    Fixpoint epsilon;
    Fixpoint invEpsilon;
    short cumIters;

    std::vector<float> basePsf;
    std::vector<PointF> shifts;
    std::vector<std::array<short, 6>> psfX;  // Q15
    std::vector<std::array<short, 6>> psfY;

    std::vector<cv::Mat_<short>> converted;  // the frames as received, in 16 bits
    std::vector<short> frames16;     // nFrames low planes: masked normalised frames
    std::vector<short> maskWords;    // nFrames low planes of 0 / -1 (no guard rows)
    std::vector<short> predictions;  // nFrames low planes: M_i A_i x

    std::vector<short> U, B, R, S, Q;  // full-grid planes
    std::vector<short> Lr, Ld, Ldl, Ldr;  // TV weight planes
    std::vector<short> straightTable;
    std::vector<short> diagonalTable;

    // Row slots of the reductions, one array per kind so that consecutive
    // passes never write slots another thread may still be adding up.
    std::vector<std::int64_t> sumSlotsA, sumSlotsB;
    std::vector<int> maxSlotsA, maxSlotsB, maxSlotsC;

    int threadCount = 0;
    int lastThreads = 1;
    int threadCapacity = 1;
    std::size_t ringStride = 0;
    std::vector<short> ringWork;   // per thread: nFrames * 6 filtered rows
    std::vector<int> ringRows;     // per thread: the full row in each ring slot
    std::size_t spreadStride = 0;
    std::vector<short> spreadWork;  // per thread: one spread row with guards
    std::size_t accStride = 0;
    std::vector<int> accWork;       // per thread: one 32-bit output row
    std::vector<std::exception_ptr> conversionErrors;  // per thread

    int totalIterations = 0;
    std::exception_ptr traceFailure;
};

} // namespace kro
} // namespace velmor
