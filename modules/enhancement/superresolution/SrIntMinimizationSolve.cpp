#include "SrIntMinimization.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>

#include "detail/IntCombination.h"
#include "detail/IntConvRows.h"
#include "detail/IntVectorRows.h"
#include "detail/Parallel.h"
#include "detail/SrIntSolveState.h"
#include "detail/Throw.h"

// The solve of the fixed-point minimiser around its operator: the TV weight
// tables, the back-projection, the large and small (CG) iterations with
// Fixpoint scalars and block-exponent vectors, and the output.

namespace velmor {
namespace kro {

using namespace detail::intconv;
using namespace detail::intsolve;
using namespace detail::intvec;

namespace {

int maxAbsOf(const std::vector<int>& slots, int count)
{
    return *std::max_element(slots.begin(), slots.begin() + count);
}

} // namespace

void SrIntMinimization::prepareWeights(Solve& solve)
{
    // The largest weight, 1 / (weightTV * epsilon), with a 12-bit mantissa.
    const Fixpoint largest = Fixpoint::div(invEpsilon, Fixpoint(static_cast<int>(weightTV)));
    const Fixpoint weight = convToXBitMantissa(largest, kWeightBits);
    solve.weightMantissa = weight.getMantissa();
    solve.weightExponent = weight.getExponent();
    // A TV sum (weight mantissas times input mantissas) is added to the
    // operator's accumulator in quarters of the input unit. setEpsilon and
    // setWeightTV keep the largest weight below 2^10, so this is a right
    // shift.
    solve.tvShift = -solve.weightExponent - kAccFractionBits;
    if (solve.tvShift < 0 || solve.weightMantissa < 1 || solve.weightMantissa >= (1 << kWeightBits))
        KRO_THROW("TV weight " << largest.toFloat() << " outside the operator's range");
    // Four straight weights of at most the largest, four diagonal ones of at
    // most half of it (rounded).
    solve.weightSumMax = 4 * solve.weightMantissa + 4 * ((solve.weightMantissa + 1) / 2);
}

void SrIntMinimization::layoutTables(Solve& solve) const
{
    // The diagonal weights vary up to a difference of sqrt(2)/epsilon
    // standard deviations; the last entry must lie beyond it.
    const double top = std::sqrt(2.0) * solve.sigma / epsilon.toFloat();
    int shift = 0;
    while (std::ldexp(static_cast<double>(kTableSize - 1), shift) < top)
        ++shift;
    solve.tableShift = shift;
}

void SrIntMinimization::fillWeightTables(const Solve& solve)
{
    // Entry k covers the differences k*2^t .. (k+1)*2^t - 1 and holds the
    // weight of their middle: the straight weight
    //     w(d) = W * a / clamp(d, a, b),   a = epsilon * sigma, b = sigma / epsilon,
    // and the diagonal one W * a / (2 clamp(d / sqrt(2), a, b)), where W is
    // the largest weight's mantissa. Built once per solve in double (the same
    // values whatever the thread count).
    const double eps = epsilon.toFloat();
    const double a = eps * solve.sigma;
    const double b = solve.sigma / eps;
    const double scale = solve.weightMantissa * a;
    const double width = std::ldexp(1.0, solve.tableShift);
    auto clampD = [a, b](double d) { return std::min(std::max(d, a), b); };
    for (int k = 0; k < kTableSize; ++k) {
        const double d = k * width + (width - 1.0) / 2.0;
        straightTable[k] = static_cast<short>(std::lround(scale / clampD(d)));
        diagonalTable[k] = static_cast<short>(std::lround(scale / (2.0 * clampD(d / std::sqrt(2.0)))));
    }
}

void SrIntMinimization::backProject(const parallel::Team& team, Solve& solve, int nFrames_)
{
    const Scale b = applyOperator(team, solve, nullptr, kSampleLimit, nFrames_, frames16.data(), plane(B),
                                  RowFinish::BackProjection);
    solve.b = b;
    const Fixpoint normB2 = fromSum(parallel::sumInOrder(sumSlotsA.data(), fullHeight), 2 * b.exponent);
    solve.threshold = Fixpoint::mul(Fixpoint::mul(relRes, relRes), normB2);

    // The first estimate is the back-projection itself, in data units.
    const short* bPlane = plane(B);
    short* uPlane = plane(U);
    // B's exponent is at most 5 (its bound is below 64 frames of 2^15 in
    // quarters), so 2^e is a 16-bit coefficient.
    const int e = b.exponent;
    const int coefficient = e >= 0 ? 1 << std::min(e, 14) : 1;
    const int shift = e >= 0 ? 0 : std::min(-e, 30);
    team.forRows(0, fullHeight, [&](int begin, int end) {
        for (int r = begin; r < end; ++r) {
            const std::size_t p0 = static_cast<std::size_t>(r) * fullWidth;
            combineRow(bPlane + p0, bPlane + p0, fullWidth, coefficient, 0, shift, uPlane + p0, nullptr);
        }
    });
}

int SrIntMinimization::conjugateGradients(const parallel::Team& team, Solve& solve, int nFrames_, int maxSmall)
{
    // With no step allowed the large iteration can only report 0 and leaves
    // U untouched, so the weights and the first residual are not computed.
    if (maxSmall <= 0)
        return 0;
    computeL(team, solve);

    // R = B - G U with G applied to U / 2 (exponent 1): the operator takes
    // inputs within [-16384, 16383] and U uses the whole 16-bit range.
    const int W = fullWidth;
    const short* uPlane = plane(U);
    short* sPlane = plane(S);
    team.forRows(0, fullHeight, [&](int begin, int end) {
        for (int r = begin; r < end; ++r) {
            const short* u = uPlane + static_cast<std::size_t>(r) * W;
            short* s = sPlane + static_cast<std::size_t>(r) * W;
            maxSlotsC[r] = halveRow(u, W, s);
        }
    });
    const int halfMax = maxAbsOf(maxSlotsC, fullHeight);
    const Scale gu = applyOperator(team, solve, sPlane, halfMax, nFrames_, nullptr, plane(Q), RowFinish::Plain);
    const Combination plan =
        planCombination(Fixpoint(1), solve.b.exponent, solve.b.maxAbs, Fixpoint(-1), 1 + gu.exponent, gu.maxAbs);
    const short* bPlane = plane(B);
    const short* qPlane = plane(Q);
    short* rPlane = plane(R);
    team.forRows(0, fullHeight, [&](int begin, int end) {
        for (int r = begin; r < end; ++r) {
            const std::size_t p0 = static_cast<std::size_t>(r) * W;
            std::int64_t squares = 0;
            maxSlotsB[r] = combineRow(bPlane + p0, qPlane + p0, W, plan.c0, plan.c1, plan.shift, rPlane + p0,
                                      &squares);
            std::copy(rPlane + p0, rPlane + p0 + W, sPlane + p0);
            sumSlotsB[r] = squares;
        }
    });
    solve.r.exponent = plan.exponent;
    solve.r.maxAbs = maxAbsOf(maxSlotsB, fullHeight);
    solve.s = solve.r;
    solve.rr = fromSum(parallel::sumInOrder(sumSlotsB.data(), fullHeight), 2 * solve.r.exponent);

    if (Fixpoint::lt(solve.rr, solve.threshold))
        return 0;
    for (int k = 0; k < maxSmall; ++k) {
        masterTraceValue(team, "start small iteration: ", k);
        if (iteration(team, solve, nFrames_)) {
            masterTraceValue(team, "abort small iteration: ", k);
            return k + 1;
        }
        masterTraceValue(team, "end small iteration: ", k);
    }
    return maxSmall;
}

bool SrIntMinimization::iteration(const parallel::Team& team, Solve& solve, int nFrames_)
{
    const int W = fullWidth;
    short* sPlane = plane(S);
    const Scale gs = applyOperator(team, solve, sPlane, solve.s.maxAbs, nFrames_, nullptr, plane(Q),
                                   RowFinish::DotWithInput);
    solve.q.exponent = solve.s.exponent + gs.exponent;
    solve.q.maxAbs = gs.maxAbs;
    const Fixpoint sq = fromSum(parallel::sumInOrder(sumSlotsA.data(), fullHeight),
                                solve.s.exponent + solve.q.exponent);
    // Rounding can leave no positive curvature along a vanishing search
    // direction; the step would then be meaningless, so the large iteration
    // ends here.
    if (!Fixpoint::lt(Fixpoint(0), sq))
        return true;
    const Fixpoint alpha = Fixpoint::div(solve.rr, sq);

    // R = R - alpha Q with the new squared residue.
    const Combination rPlan = planCombination(Fixpoint(1), solve.r.exponent, solve.r.maxAbs, Fixpoint::neg(alpha),
                                              solve.q.exponent, solve.q.maxAbs);
    short* rPlane = plane(R);
    const short* qPlane = plane(Q);
    team.forRows(0, fullHeight, [&](int begin, int end) {
        for (int r = begin; r < end; ++r) {
            const std::size_t p0 = static_cast<std::size_t>(r) * W;
            std::int64_t squares = 0;
            maxSlotsB[r] = combineRow(rPlane + p0, qPlane + p0, W, rPlan.c0, rPlan.c1, rPlan.shift, rPlane + p0,
                                      &squares);
            sumSlotsB[r] = squares;
        }
    });
    const Fixpoint rrNew = fromSum(parallel::sumInOrder(sumSlotsB.data(), fullHeight), 2 * rPlan.exponent);
    const Scale newR{rPlan.exponent, maxAbsOf(maxSlotsB, fullHeight)};
    const bool converged = Fixpoint::lt(rrNew, solve.threshold);

    // U = U + alpha S, in the same pass as the new search direction
    // S = beta S + R; on convergence S and rr stay as they are.
    const Increment step = planIncrement(alpha, solve.s.exponent, 0);
    const Fixpoint beta = Fixpoint::div(rrNew, solve.rr);
    const Combination sPlan = planCombination(beta, solve.s.exponent, solve.s.maxAbs, Fixpoint(1), newR.exponent,
                                              newR.maxAbs);
    short* uPlane = plane(U);
    team.forRows(0, fullHeight, [&](int begin, int end) {
        for (int r = begin; r < end; ++r) {
            const std::size_t p0 = static_cast<std::size_t>(r) * W;
            incrementRow(sPlane + p0, W, step.c, step.shift, uPlane + p0);
            if (!converged)
                maxSlotsC[r] = combineRow(sPlane + p0, rPlane + p0, W, sPlan.c0, sPlan.c1, sPlan.shift, sPlane + p0,
                                          nullptr);
        }
    });
    solve.r = newR;
    if (!converged) {
        solve.s.exponent = sPlan.exponent;
        solve.s.maxAbs = maxAbsOf(maxSlotsC, fullHeight);
        solve.rr = rrNew;
    }
    return converged;
}

void SrIntMinimization::writeOutput(const parallel::Team& team, const Solve& solve, cv::Mat_<float>& output)
{
    // U in data units back to the input's scale: undo the shift, add the
    // mean, round to 16 bits (saturated); o = (psfSize - 1) / 2 is the
    // offset of the output on the full grid.
    const int o = (psfSize - 1) / 2;
    const int shift = solve.shift;
    // |up| <= 4 as the shift is at least -2 (an override of shiftToFactor
    // is held to that), so u * up stays far within 32 bits.
    const int up = shift < 0 ? std::min(std::max(shiftToFactor(static_cast<signed char>(-shift)), -4), 4) : 1;
    const float inverseScale = 1.0f / getInputScale();
    const int mean = solve.mean;
    const short* uPlane = plane(U);
    team.forRows(0, 2 * height, [&](int begin, int end) {
        for (int y = begin; y < end; ++y) {
            const short* u = uPlane + static_cast<std::size_t>(y + o) * fullWidth + o;
            float* dst = output[y];
            for (int x = 0; x < 2 * width; ++x) {
                const int v = (shift > 0 ? roundShift(u[x], shift) : u[x] * up) + mean;
                dst[x] = static_cast<float>(std::min(std::max(v, -32768), 32767)) * inverseScale;
            }
        }
    });
}

} // namespace kro
} // namespace velmor
