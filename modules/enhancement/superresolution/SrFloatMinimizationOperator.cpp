#include "SrFloatMinimization.h"

#include <algorithm>
#include <cmath>

#include "detail/MinimizationRows.h"
#include "detail/Parallel.h"
#include "detail/SparseConvRows.h"

// The operator of the float minimiser: the total-variation weights of the
// current estimate, and (sum_i A_i^T M_i A_i + L) x in two fused passes over
// the rows (the model of every frame, then the TV stencil plus the
// back-projection of every frame), shared among the solve's team.

namespace velmor {
namespace kro {

namespace {

using namespace detail::minimization;

// 1/sqrt(2) for the diagonal TV differences.
const float kInvSqrt2 = static_cast<float>(1.0 / std::sqrt(2.0));

struct TvWeights {
    const float* Lr;
    const float* Ld;
    const float* Ldl;
    const float* Ldr;
};

// Centre weight at p (column c of W, row above present or not): minus the
// sum of the weights to all eight neighbours, terms outside the grid
// omitted, so that every row of the operator sums to zero. The weights of p
// itself are always present (stored as 0 where they would reach outside).
inline float centreWeight(const TvWeights& L, std::size_t p, int c, int W, bool up)
{
    const bool left = c > 0;
    const bool right = c + 1 < W;
    float sum = L.Lr[p] + L.Ld[p] + L.Ldl[p] + L.Ldr[p];
    if (left)
        sum += L.Lr[p - 1];
    if (up)
        sum += L.Ld[p - W];
    if (up && left)
        sum += L.Ldr[p - W - 1];
    if (up && right)
        sum += L.Ldl[p - W + 1];
    return -sum;
}

// One element of out = L x, with the neighbours outside the grid omitted.
inline float stencilElement(const TvWeights& L, const float* x, std::size_t p, int c, int W,
                            bool up, bool down)
{
    const bool left = c > 0;
    const bool right = c + 1 < W;
    float v = centreWeight(L, p, c, W, up) * x[p];
    if (right)
        v += L.Lr[p] * x[p + 1];
    if (left)
        v += L.Lr[p - 1] * x[p - 1];
    if (down)
        v += L.Ld[p] * x[p + W];
    if (up)
        v += L.Ld[p - W] * x[p - W];
    if (down && right)
        v += L.Ldr[p] * x[p + W + 1];
    if (up && left)
        v += L.Ldr[p - W - 1] * x[p - W - 1];
    if (down && left)
        v += L.Ldl[p] * x[p + W - 1];
    if (up && right)
        v += L.Ldl[p - W + 1] * x[p - W + 1];
    return v;
}

// Row r of out = L x: the first and last columns element by element, the
// interior as one branch-free loop (same terms, same order). The centre
// weight is formed from the eight neighbour weights that the row reads
// anyway, which saves storing and streaming a fifth weight array.
template <bool Up, bool Down>
void stencilRow(const TvWeights& L, const float* x, int r, int W, float* out)
{
    const std::size_t p0 = static_cast<std::size_t>(r) * W;
    out[0] = stencilElement(L, x, p0, 0, W, Up, Down);
    // out never overlaps x or the weights; with nine arrays the compiler
    // cannot prove it by itself and would not vectorise. Each element keeps
    // its own order of operations.
KROLIB_SIMD_LOOP
    for (int c = 1; c < W - 1; ++c) {
        const std::size_t p = p0 + c;
        float sum = L.Lr[p] + L.Ld[p] + L.Ldl[p] + L.Ldr[p];
        sum += L.Lr[p - 1];
        if constexpr (Up) {
            sum += L.Ld[p - W];
            sum += L.Ldr[p - W - 1];
            sum += L.Ldl[p - W + 1];
        }
        float v = -sum * x[p];
        v += L.Lr[p] * x[p + 1];
        v += L.Lr[p - 1] * x[p - 1];
        if constexpr (Down)
            v += L.Ld[p] * x[p + W];
        if constexpr (Up)
            v += L.Ld[p - W] * x[p - W];
        if constexpr (Down)
            v += L.Ldr[p] * x[p + W + 1];
        if constexpr (Up)
            v += L.Ldr[p - W - 1] * x[p - W - 1];
        if constexpr (Down)
            v += L.Ldl[p] * x[p + W - 1];
        if constexpr (Up)
            v += L.Ldl[p - W + 1] * x[p - W + 1];
        out[c] = v;
    }
    if (W > 1)
        out[W - 1] = stencilElement(L, x, p0 + W - 1, W - 1, W, Up, Down);
}

} // namespace

void SrFloatMinimization::computeL(const parallel::Team& team)
{
    const int W = fullWidth;
    const int H = fullHeight;
    const float eps = epsilon;
    const float invEps = invEpsilon;
    const float w = negInvWeightTV;
    const float halfW = 0.5f * negInvWeightTV;
    auto clampD = [eps, invEps](float d) { return std::min(std::max(d, eps), invEps); };

    // Weights to the right, lower, lower-right and lower-left neighbour; 0
    // where the neighbour lies outside the grid. The centre weight is formed
    // where it is used (centreWeight).
    team.forRows(0, H, [&](int begin, int end) {
    for (int y = begin; y < end; ++y) {
        const std::size_t p0 = static_cast<std::size_t>(y) * W;
        const float* u = U.data() + p0;
        float* lr = Lr.data() + p0;
        float* ld = Ld.data() + p0;
        float* ldl = Ldl.data() + p0;
        float* ldr = Ldr.data() + p0;
        for (int x = 0; x < W - 1; ++x)
            lr[x] = w / clampD(std::fabs(u[x + 1] - u[x]));
        lr[W - 1] = 0.0f;
        if (y == H - 1) {
            std::fill(ld, ld + W, 0.0f);
            std::fill(ldl, ldl + W, 0.0f);
            std::fill(ldr, ldr + W, 0.0f);
            continue;
        }
        const float* below = u + W;
        for (int x = 0; x < W; ++x)
            ld[x] = w / clampD(std::fabs(below[x] - u[x]));
        for (int x = 0; x < W - 1; ++x)
            ldr[x] = halfW / clampD(std::fabs(below[x + 1] - u[x]) * kInvSqrt2);
        ldr[W - 1] = 0.0f;
        ldl[0] = 0.0f;
        for (int x = 1; x < W; ++x)
            ldl[x] = halfW / clampD(std::fabs(below[x - 1] - u[x]) * kInvSqrt2);
    }
    });
}

float SrFloatMinimization::centreWeightAt(int x, int y) const
{
    const TvWeights L{Lr.data(), Ld.data(), Ldl.data(), Ldr.data()};
    return centreWeight(L, static_cast<std::size_t>(y) * fullWidth + x, x, fullWidth, y > 0);
}

void SrFloatMinimization::predictFrames(const parallel::Team& team, const float* x, int nFrames_, char** masks)
{
    // Each thread owns a band of low-resolution rows. Row i needs the
    // horizontally filtered full rows 2i .. 2i + psfSize - 1; a ring of
    // psfSize filtered rows per frame keeps the ones still needed, so each
    // full row is read once per band for all frames.
    const int t = team.index();
    float* work = threadWork.data() + threadWorkStride * t;
    float* phases = work;
    const std::size_t lowStride = roundUp16(width);
    float* ring = work + phaseRowFloats() + paddedRowFloats();
    int* ringRow = ringRows.data() + static_cast<std::size_t>(psfSize) * t;
    std::fill(ringRow, ringRow + psfSize, -1);
    auto ringSlot = [&](int f, int slot) {
        return ring + (static_cast<std::size_t>(f) * psfSize + slot) * lowStride;
    };
    const std::size_t frameSize = static_cast<std::size_t>(width) * height;

    team.forRows(0, height, [&](int begin, int end) {
    for (int i = begin; i < end; ++i) {
        for (int k = 0; k < psfSize; ++k) {
            const int r = 2 * i + k;
            const int slot = r % psfSize;
            if (ringRow[slot] == r)
                continue;
            detail::deinterleaveRow(x + static_cast<std::size_t>(r) * fullWidth, fullWidth, step,
                                    phases);
            for (int f = 0; f < nFrames_; ++f)
                detail::correlateSampledRow(phases, fullWidth, step, psfX[f].data(), psfSize,
                                            width, ringSlot(f, slot), kSkipZeroTaps);
            ringRow[slot] = r;
        }
        for (int f = 0; f < nFrames_; ++f) {
            const float* psf = psfY[f].data();
            float* low = lowBuffer.data() + f * frameSize + static_cast<std::size_t>(i) * width;
            detail::weightedRowSum([&](int k) { return ringSlot(f, (2 * i + k) % psfSize); },
                                   [psf](int k) { return psf[k]; }, psfSize, width, low,
                                   kSkipZeroTaps);
            // The transpose weights every sample by its mask as
            // (float)mask * sample; doing it here once saves redoing it for
            // every tap that reads the sample.
            const signed char* mask =
                reinterpret_cast<const signed char*>(masks[f]) + static_cast<std::size_t>(i) * width;
            for (int j = 0; j < width; ++j)
                low[j] = static_cast<float>(mask[j]) * low[j];
        }
    }
    });
}

void SrFloatMinimization::finishRows(const parallel::Team& team, const float* x, int nFrames_, char** masks,
                                     const float* const* sources, float* out, RowFinish finish)
{
    const int W = fullWidth;
    const int t = team.index();
    float* work = threadWork.data() + threadWorkStride * t;
    float* phases = work;
    // One low-resolution row with kRowPad zeros on each side.
    float* v = work + phaseRowFloats() + detail::kRowPad;
    std::fill(v - detail::kRowPad, v, 0.0f);
    std::fill(v + width, v + width + detail::kRowPad, 0.0f);
    const std::size_t frameSize = static_cast<std::size_t>(width) * height;
    const TvWeights L{Lr.data(), Ld.data(), Ldl.data(), Ldr.data()};

    team.forRows(0, fullHeight, [&](int begin, int end) {
    for (int r = begin; r < end; ++r) {
        const std::size_t p0 = static_cast<std::size_t>(r) * W;
        float* o = out + p0;
        // The row is accumulated in phase layout (see detail/SparseConvRows.h)
        // so that each frame's horizontal pass adds its totals in place.
        if (finish == RowFinish::BackProjection) {
            std::fill(phases, phases + W, 0.0f);
        } else {
            const bool up = r > 0;
            const bool down = r + 1 < fullHeight;
            if (up && down)
                stencilRow<true, true>(L, x, r, W, o);
            else if (up)
                stencilRow<true, false>(L, x, r, W, o);
            else if (down)
                stencilRow<false, true>(L, x, r, W, o);
            else
                stencilRow<false, false>(L, x, r, W, o);
            detail::deinterleaveRow(o, W, step, phases);
        }

        // Back-projection of every frame onto row r, added frame by frame:
        // the vertical pass gathers the taps that reach this row, the
        // horizontal pass spreads the result over the row.
        int count = 0;
        const int k0 = detail::firstVerticalTap(r, height, psfSize, &count);
        for (int f = 0; f < nFrames_; ++f) {
            const float* psf = psfY[f].data();
            const auto lowRow = [&](int tap) {
                return static_cast<std::size_t>((r - k0) / 2 - tap) * width;
            };
            if (sources) {
                const float* low = sources[f];
                const char* mask = masks[f];
                detail::maskedWeightedRowSum([&](int tap) { return low + lowRow(tap); },
                                             [&](int tap) { return mask + lowRow(tap); },
                                             [&](int tap) { return psf[k0 + 2 * tap]; },
                                             count, width, v);
            } else {
                // Predictions already carry their mask (predictFrames).
                const float* low = lowBuffer.data() + f * frameSize;
                detail::weightedRowSum([&](int tap) { return low + lowRow(tap); },
                                       [&](int tap) { return psf[k0 + 2 * tap]; }, count,
                                       width, v, kSkipZeroTaps);
            }
            detail::convolveUpsampledPaddedRow(v, width, step, psfX[f].data(), psfSize, W,
                                               phases, true, kSkipZeroTaps);
        }
        detail::interleaveRow(phases, W, step, o);

        switch (finish) {
        case RowFinish::None:
            break;
        case RowFinish::DotWithInput:
            rowSums[r] = rowDot(x + p0, o, W);
            break;
        case RowFinish::ResidualFromB:
            residualFromBRow(r, o);
            break;
        case RowFinish::BackProjection:
            std::copy(o, o + W, U.data() + p0);
            rowSums[r] = rowDot(o, o, W);
            break;
        }
    }
    });
}

void SrFloatMinimization::residualFromBRow(int r, float* o)
{
    const int W = fullWidth;
    const std::size_t p0 = static_cast<std::size_t>(r) * W;
    const float* b = B.data() + p0;
    float* s = S.data() + p0;
    for (int c = 0; c < W; ++c) {
        o[c] = b[c] - o[c];
        s[c] = o[c];
    }
    rowSums[r] = rowDot(o, o, W);
}

void SrFloatMinimization::applyOperator(const parallel::Team& team, const float* x, int nFrames_, char** masks,
                                        float* out, RowFinish finish)
{
    // The frames are interleaved row by row in the fused passes, so the
    // per-frame traces are sent up front.
    masterTrace(team, "start gradient");
    for (int f = 0; f < nFrames_; ++f)
        masterTraceValue(team, "gradient for frame: ", f);
    predictFrames(team, x, nFrames_, masks);
    finishRows(team, x, nFrames_, masks, nullptr, out, finish);
}

void SrFloatMinimization::gradient(float* const x, int nFrames_, char** masks, float* out)
{
    // The passes are shared among a team of our own.
    traceFailure = nullptr;
    lastThreads = parallel::parallelRegion(regionThreads(), [&](const parallel::Team& team) {
        applyOperator(team, x, nFrames_, masks, out, RowFinish::None);
    });
    if (traceFailure)
        std::rethrow_exception(traceFailure);
}

} // namespace kro
} // namespace velmor
