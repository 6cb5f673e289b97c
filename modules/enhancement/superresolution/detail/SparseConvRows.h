#pragma once

// Row kernels of the sparse PSF convolution (SrFloatConvolution) and of the
// fused imaging operator of SrFloatMinimization.
//
// The model of the camera fixes the float rounding of both operators: every
// output element is accumulated from +0 over the PSF taps in increasing tap
// order, exactly as plain loops with the tap outermost would do it. The
// kernels below keep that order element by element while turning the loops
// around (rows outermost, taps held in registers, contiguous inner loops), so
// they produce the same bits as the plain loops with far fewer passes over
// memory.
//
// Rows with a horizontal sampling step are handled in "phase" layout: a row of
// n samples is split into `step` phases, phase p holding samples
// p, p + step, p + 2*step, ... one after the other; phase p starts at
// phaseOffset(n, step, p). In that layout the strided accesses of the sparse
// grid become contiguous.

namespace velmor {
namespace kro {
namespace detail {

// Taps handled per kernel call; longer PSFs are processed in chunks that
// continue the same accumulation.
constexpr int kMaxKernelTaps = 8;

// Number of samples of phase p of a row of n samples.
inline int phaseLength(int n, int step, int p)
{
    return p < n ? (n - p + step - 1) / step : 0;
}

// Start of phase p in the phase layout of a row of n samples.
inline int phaseOffset(int n, int step, int p)
{
    int offset = 0;
    for (int q = 0; q < p; ++q)
        offset += phaseLength(n, step, q);
    return offset;
}

// row (n samples) -> phase layout.
void deinterleaveRow(const float* row, int n, int step, float* phases);

// phase layout -> row: row[c] = value (assign) or row[c] += value (add).
void interleaveRow(const float* phases, int n, int step, float* row);
void interleaveRowAdd(const float* phases, int n, int step, float* row);

// How a kernel combines its sum with the output.
enum class SumMode {
    Assign,    // out[j] = 0 + terms
    Continue,  // out[j] = out[j] + terms (continues an earlier chunk's sum)
    AddTotal   // out[j] = out[j] + (0 + terms): adds a separately rounded total
};

// Sum over t < count, in increasing t, of src[t][j] * weight[t], for j < n,
// combined with out[j] as `mode` says. count <= kMaxKernelTaps.
void weightedSumChunk(const float* const* src, const float* weight, int count, int n,
                      SumMode mode, float* out);

// Same with a per-sample weight: terms (float)mask[t][j] * src[t][j] * weight[t].
// The mask values are signed 8-bit. `mode` is Assign or Continue.
void maskedWeightedSumChunk(const float* const* src, const char* const* mask,
                            const float* weight, int count, int n, SumMode mode, float* out);

// out[j] = sum over t < count (increasing) of srcOf(t)[j] * weightOf(t), j < n,
// accumulated from +0; any count (0 gives zeros).
//
// With `skipZeroWeights`, taps whose weight is exactly 0 are left out. For
// finite samples that changes no bit: such a tap adds +-0 to a sum that
// started at +0 and so is never -0. (Only an infinite or NaN sample would
// notice, which is why the public operators keep every tap.)
template <class SrcOf, class WeightOf>
void weightedRowSum(SrcOf srcOf, WeightOf weightOf, int count, int n, float* out,
                    bool skipZeroWeights = false)
{
    const float* src[kMaxKernelTaps] = {};
    float weight[kMaxKernelTaps] = {};
    int t = 0;
    SumMode mode = SumMode::Assign;
    do {
        int chunk = 0;
        for (; t < count && chunk < kMaxKernelTaps; ++t) {
            const float w = weightOf(t);
            if (skipZeroWeights && w == 0.0f)
                continue;
            src[chunk] = srcOf(t);
            weight[chunk] = w;
            ++chunk;
        }
        if (chunk > 0 || mode == SumMode::Assign)
            weightedSumChunk(src, weight, chunk, n, mode, out);
        mode = SumMode::Continue;
    } while (t < count);
}

// Masked variant of weightedRowSum.
template <class SrcOf, class MaskOf, class WeightOf>
void maskedWeightedRowSum(SrcOf srcOf, MaskOf maskOf, WeightOf weightOf, int count, int n,
                          float* out)
{
    const float* src[kMaxKernelTaps];
    const char* mask[kMaxKernelTaps];
    float weight[kMaxKernelTaps];
    int t = 0;
    SumMode mode = SumMode::Assign;
    do {
        const int chunk = count - t < kMaxKernelTaps ? count - t : kMaxKernelTaps;
        for (int c = 0; c < chunk; ++c) {
            src[c] = srcOf(t + c);
            mask[c] = maskOf(t + c);
            weight[c] = weightOf(t + c);
        }
        maskedWeightedSumChunk(src, mask, weight, chunk, n, mode, out);
        mode = SumMode::Continue;
        t += chunk;
    } while (t < count);
}

// Horizontal pass of the model on one full row given in phase layout:
// out[j] = sum over l < taps of row[l + step*j] * psf[l], j < lowWidth.
// Requires (taps - 1) + step*(lowWidth - 1) < n. `skipZeroWeights` as in
// weightedRowSum.
void correlateSampledRow(const float* phases, int n, int step, const float* psf, int taps,
                         int lowWidth, float* out, bool skipZeroWeights = false);

// Horizontal pass of the transpose on one row: the row of n samples (in
// phase layout in phasesOut) gets, at column c, the sum over (l, j) with
// l + step*j = c, l < taps, j < lowWidth, in increasing l, of low[j] * psf[l];
// columns without such a pair get +0. With `addTotal` every sum is added to
// the value already in phasesOut instead of replacing it.
// Requires (taps - 1) + step*(lowWidth - 1) < n. `skipZeroWeights` as in
// weightedRowSum.
void convolveUpsampledRow(const float* low, int lowWidth, int step, const float* psf, int taps,
                          int n, float* phasesOut, bool addTotal = false,
                          bool skipZeroWeights = false);

// Zero samples that convolveUpsampledPaddedRow needs on each side of a row.
constexpr int kRowPad = kMaxKernelTaps;

// convolveUpsampledRow for a row whose samples low[-kRowPad .. -1] and
// low[lowWidth .. lowWidth + kRowPad - 1] are readable zeros: every column
// then runs through the vectorised kernel. The zero samples add +-0 to sums
// that are never -0, so for finite PSF weights the result is bit-identical.
void convolveUpsampledPaddedRow(const float* low, int lowWidth, int step, const float* psf,
                                int taps, int n, float* phasesOut, bool addTotal,
                                bool skipZeroWeights);

// The vertical taps of the transpose that reach full row r: taps k (in
// increasing order) with r - k even and 0 <= (r - k) / 2 < lowHeight.
// Returns the first such tap (or taps if none) and writes their number.
inline int firstVerticalTap(int r, int lowHeight, int taps, int* count)
{
    // k = r - 2*i: increasing k is decreasing i.
    int kFirst = r - 2 * (lowHeight - 1);
    if (kFirst < 0)
        kFirst = r % 2;
    int n = 0;
    if (kFirst < taps && kFirst <= r)
        n = ((taps - 1 < r ? taps - 1 : r) - kFirst) / 2 + 1;
    *count = n;
    return kFirst;
}

} // namespace detail
} // namespace kro
} // namespace velmor
