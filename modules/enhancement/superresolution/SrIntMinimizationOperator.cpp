#include "SrIntMinimization.h"

#include <algorithm>
#include <cstdlib>

#include "detail/IntConvRows.h"
#include "detail/IntTvRows.h"
#include "detail/IntVectorRows.h"
#include "detail/Parallel.h"
#include "detail/SrIntSolveState.h"

// The operator of the fixed-point minimiser: the total-variation weights of
// the current estimate (through the lambda/epsilon tables), and
// (sum_i A_i^T M_i A_i + L) x in two fused passes over the rows (the model
// of every frame, then the TV stencil plus the transpose of every frame),
// shared among the solve's team.

namespace velmor {
namespace kro {

using namespace detail::intconv;
using namespace detail::intvec;
using detail::intsolve::kTableSize;

namespace {

// Entry `index[c]` of `table` into out[c], c < n.
void gatherRow(const short* table, const unsigned short* index, int n, short* out)
{
    for (int c = 0; c < n; ++c)
        out[c] = table[index[c]];
}

} // namespace

void SrIntMinimization::computeL(const parallel::Team& team, const Solve& solve)
{
    const int W = fullWidth;
    const int H = fullHeight;
    const int t = solve.tableShift;
    const short* straight = straightTable.data();
    const short* diagonal = diagonalTable.data();
    const short* u0 = plane(U);
    short* lr0 = plane(Lr);
    short* ld0 = plane(Ld);
    short* ldl0 = plane(Ldl);
    short* ldr0 = plane(Ldr);
    // The thread's accumulator row serves as the row of table indices.
    unsigned short* index = reinterpret_cast<unsigned short*>(accWork.data() + accStride * team.index());
    auto weights = [&](const short* a, const short* b, int n, const short* table, short* out) {
        detail::inttv::tableIndexRow(a, b, n, t, kTableSize - 1, index);
        gatherRow(table, index, n, out);
    };
    // Weights to the right, lower, lower-left and lower-right neighbour; 0
    // where that neighbour lies outside the grid.
    team.forRows(0, H, [&](int begin, int end) {
        for (int y = begin; y < end; ++y) {
            const std::size_t p0 = static_cast<std::size_t>(y) * W;
            const short* u = u0 + p0;
            short* lr = lr0 + p0;
            short* ld = ld0 + p0;
            short* ldl = ldl0 + p0;
            short* ldr = ldr0 + p0;
            weights(u + 1, u, W - 1, straight, lr);
            lr[W - 1] = 0;
            if (y == H - 1) {
                std::fill(ld, ld + W, short(0));
                std::fill(ldl, ldl + W, short(0));
                std::fill(ldr, ldr + W, short(0));
                continue;
            }
            const short* below = u + W;
            weights(below, u, W, straight, ld);
            weights(below + 1, u, W - 1, diagonal, ldr);
            ldr[W - 1] = 0;
            ldl[0] = 0;
            weights(below, u + 1, W - 1, diagonal, ldl + 1);
        }
    });
}

std::int64_t SrIntMinimization::transposeBound(int nFrames_, std::int64_t sampleMax, bool forward) const
{
    // Every tap is non-negative, so the largest result of each pass is the
    // largest input times the taps' sum (of one parity for the transpose),
    // rounded as the pass rounds.
    auto pass = [](std::int64_t value, std::int64_t taps, int shift) {
        return (value * taps + (std::int64_t(1) << (shift - 1))) >> shift;
    };
    constexpr int kSpreadShift = kTapBits - kSpreadFractionBits;
    constexpr int kAccShift = kTapBits + kSpreadFractionBits - kAccFractionBits;
    std::int64_t total = 0;
    for (int f = 0; f < nFrames_; ++f) {
        std::int64_t sumX = 0, sumY = 0, parityX[2] = {0, 0}, parityY[2] = {0, 0};
        for (int k = 0; k < kTaps; ++k) {
            sumX += psfX[f][k];
            sumY += psfY[f][k];
            parityX[k % 2] += psfX[f][k];
            parityY[k % 2] += psfY[f][k];
        }
        std::int64_t p = sampleMax;
        if (forward)
            p = pass(pass(p, sumX, kTapBits), sumY, kTapBits);
        const std::int64_t v = pass(p, std::max(parityY[0], parityY[1]), kSpreadShift);
        total += pass(v, std::max(parityX[0], parityX[1]), kAccShift);
    }
    return total;
}

void SrIntMinimization::predictFrames(const parallel::Team& team, const short* x, int nFrames_)
{
    // Each thread owns a band of low-resolution rows. Row i needs the
    // horizontally filtered full rows 2i .. 2i+5; a ring of psfSize filtered
    // rows per frame keeps the ones still needed, so each full row is
    // filtered once per band for all frames.
    const int t = team.index();
    short* ring = ringWork.data() + ringStride * t;
    int* ringRow = ringRows.data() + static_cast<std::size_t>(psfSize) * t;
    std::fill(ringRow, ringRow + psfSize, -1);
    const std::size_t ringRowStride = ringStride / (static_cast<std::size_t>(nFrames) * psfSize);
    auto slotRow = [&](int f, int slot) {
        return ring + (static_cast<std::size_t>(f) * psfSize + slot) * ringRowStride;
    };
    const std::size_t lowSize = static_cast<std::size_t>(width) * height;

    team.forRows(0, height, [&](int begin, int end) {
        for (int i = begin; i < end; ++i) {
            for (int k = 0; k < psfSize; ++k) {
                const int r = 2 * i + k;
                const int slot = r % psfSize;
                if (ringRow[slot] == r)
                    continue;
                const short* row = x + static_cast<std::size_t>(r) * fullWidth;
                for (int f = 0; f < nFrames_; ++f)
                    correlatePairs(row, psfX[f].data(), width, slotRow(f, slot));
                ringRow[slot] = r;
            }
            for (int f = 0; f < nFrames_; ++f) {
                // Taps of weight 0 (one or two of every PSF) add exactly 0
                // and are left out.
                const short* rows[kTaps];
                short taps[kTaps];
                int count = 0;
                for (int k = 0; k < kTaps; ++k)
                    if (psfY[f][k] != 0) {
                        rows[count] = slotRow(f, (2 * i + k) % psfSize);
                        taps[count++] = psfY[f][k];
                    }
                const std::size_t offset = static_cast<std::size_t>(i) * width;
                sumRows(rows, taps, count, kTapBits, width, maskWords.data() + f * lowSize + offset,
                        predictions.data() + f * lowPlaneSize + lowOffset + offset);
            }
        }
    });
}

void SrIntMinimization::finishRows(const parallel::Team& team, const short* x, int nFrames_,
                                   const short* sources, short* out, int tvShift, int outShift,
                                   RowFinish finish)
{
    const int W = fullWidth;
    const int t = team.index();
    int* acc = accWork.data() + accStride * t;
    // The spread row's guards are zeros that are never written.
    short* v = spreadWork.data() + spreadStride * t + kSpreadGuard;
    const short* lowBase = sources ? sources : predictions.data();
    const detail::inttv::WeightRows planes{plane(Lr), plane(Ld), plane(Ldl), plane(Ldr)};

    team.forRows(0, fullHeight, [&](int begin, int end) {
        for (int r = begin; r < end; ++r) {
            const std::size_t p0 = static_cast<std::size_t>(r) * W;
            if (finish == RowFinish::BackProjection) {
                std::fill(acc, acc + W, 0);
            } else {
                const detail::inttv::WeightRows L{planes.Lr + p0, planes.Ld + p0, planes.Ldl + p0,
                                                  planes.Ldr + p0};
                detail::inttv::tvRow(L, x + p0, W, W, tvShift, acc);
            }
            // Full row r = 2n + q gathers taps q, q+2, q+4 from sample rows
            // n, n-1, n-2 (zero rows outside the frame).
            const int n = r / 2;
            const int q = r % 2;
            for (int f = 0; f < nFrames_; ++f) {
                const short* samples = lowBase + f * lowPlaneSize + lowOffset;
                const short* rows[3];
                short taps[3];
                int count = 0;
                for (int m = 0; m < 3; ++m)
                    if (psfY[f][q + 2 * m] != 0) {
                        rows[count] = samples + static_cast<std::ptrdiff_t>(n - m) * width;
                        taps[count++] = psfY[f][q + 2 * m];
                    }
                sumRows(rows, taps, count, kTapBits - kSpreadFractionBits, width, nullptr, v);
                spreadPairsAdd(v, psfX[f].data(), W, acc);
            }
            short* o = out + p0;
            narrowRow(acc, W, outShift, o);
            maxSlotsA[r] = rowMaxAbs(o, W);
            if (finish == RowFinish::DotWithInput)
                sumSlotsA[r] = rowDot(x + p0, o, W);
            else if (finish == RowFinish::BackProjection)
                sumSlotsA[r] = rowDot(o, o, W);
        }
    });
}

SrIntMinimization::Scale SrIntMinimization::applyOperator(const parallel::Team& team, const Solve& solve,
                                                          const short* x, int xMax, int nFrames_,
                                                          const short* sources, short* out, RowFinish finish)
{
    // The frames are interleaved row by row in the fused passes, so the
    // per-frame traces are sent up front.
    masterTrace(team, "start gradient");
    for (int f = 0; f < nFrames_; ++f)
        masterTraceValue(team, "gradient for frame: ", f);
    if (!sources)
        predictFrames(team, x, nFrames_);

    // The output's exponent (relative to the input's) from a bound of its
    // elements: the transposes of all frames plus the TV term.
    std::int64_t bound = transposeBound(nFrames_, xMax, sources == nullptr);
    if (finish != RowFinish::BackProjection) {
        const std::int64_t tv = static_cast<std::int64_t>(solve.weightSumMax) * 2 * xMax;
        bound += solve.tvShift > 0 ? (tv + (std::int64_t(1) << (solve.tvShift - 1))) >> solve.tvShift : tv;
    }
    int outShift = 0;
    while (((bound + (outShift > 0 ? std::int64_t(1) << (outShift - 1) : 0)) >> outShift) > kSampleLimit - 1)
        ++outShift;

    finishRows(team, x, nFrames_, sources, out, solve.tvShift, outShift, finish);
    Scale scale;
    scale.exponent = outShift - kAccFractionBits;
    scale.maxAbs = *std::max_element(maxSlotsA.begin(), maxSlotsA.begin() + fullHeight);
    return scale;
}

} // namespace kro
} // namespace velmor
