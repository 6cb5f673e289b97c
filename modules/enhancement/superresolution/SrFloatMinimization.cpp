#include "SrFloatMinimization.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <string>

#include "detail/GaussianPsf.h"
#include "detail/MinimizationRows.h"
#include "detail/MasterTrace.h"
#include "detail/Parallel.h"
#include "detail/SparseConvRows.h"
#include "detail/Throw.h"

namespace velmor {
namespace kro {

namespace {

using namespace detail::minimization;

// Below this many full-grid elements a solve runs on the calling thread: the
// whole solve of a 160x120 frame set takes about as long as a handful of
// thread wake-ups on a loaded machine.
constexpr int kMinParallelFullSize = 150000;




// Validated arguments for the convolution member, checked before anything is
// derived from them.
float checkedFactor(float factor)
{
    if (!std::isfinite(factor) || factor < 1.0f || factor > 64.0f)
        KRO_THROW("invalid super-resolution factor " << factor);
    return factor;
}

int fineSize(int lowSize, float factor)
{
    if (lowSize < 1 || lowSize > (1 << 20))
        KRO_THROW("invalid frame size " << lowSize);
    return static_cast<int>(lowSize * checkedFactor(factor));
}

int psfSizeFor(float factor)
{
    return static_cast<int>(checkedFactor(factor) * 3.0);
}

} // namespace

SrFloatMinimization::SrFloatMinimization(int width_, int height_, int nFrames_, float factor_)
    : DebugChannel("SrFloat"), width(width_), height(height_), psfSize(psfSizeFor(factor_)),
      fullWidth(0), fullHeight(0), fullSize(0), nFrames(nFrames_), factor(factor_),
      psfSigma(0.0f), weightTV(0.0f), relRes(0.007f), maxIter(8),
      convolution(fineSize(width_, factor_), fineSize(height_, factor_), psfSize, psfSize,
                  factor_),
      step(convolution.getStep()), negInvWeightTV(0.0f), epsilon(0.0f), invEpsilon(0.0f),
      rr(0.0f), invNormB2(0.0f), refMean(0.0), mean(0.0f), sigma(1.0f), totalIterations(0),
      threadCapacity(1), threadWorkStride(0)
{
    if (nFrames < 1)
        KRO_THROW("invalid number of frames " << nFrames);
    // A non-integer factor may truncate the fine grid so that it no longer
    // holds width x height samples; the frames would then not match the model.
    if (convolution.getLowWidth() != width || convolution.getLowHeight() != height)
        KRO_THROW("factor " << factor << " does not map " << width << "x" << height
                            << " frames onto a whole fine grid");

    fullWidth = static_cast<int>(width * factor + psfSize - 1.0);
    fullHeight = static_cast<int>(height * factor + psfSize - 1.0);
    fullSize = fullWidth * fullHeight;

    basePsf.assign(psfSize, 0.0f);
    psfX.assign(nFrames, std::vector<float>(psfSize, 0.0f));
    psfY.assign(nFrames, std::vector<float>(psfSize, 0.0f));
    lowBuffer.assign(static_cast<std::size_t>(nFrames) * width * height, 0.0f);
    for (std::vector<float>* array : {&B, &U, &Lr, &Ld, &Ldl, &Ldr, &R, &S, &Q})
        array->assign(fullSize, 0.0f);
    rowSums.assign(std::max(fullHeight, height), 0.0);
    residualRowSums.assign(fullHeight, 0.0);

    // Per thread: one full row in phase layout, one low-resolution row, and
    // a ring of psfSize horizontally filtered rows per frame.
    threadCapacity = parallel::threadCapacity(threadCount);
    threadWorkStride = phaseRowFloats() + paddedRowFloats() +
                       static_cast<std::size_t>(nFrames) * psfSize * roundUp16(width);
    threadWork.assign(threadWorkStride * threadCapacity, 0.0f);
    ringRows.assign(static_cast<std::size_t>(psfSize) * threadCapacity, -1);

    setPsfSigma(0.683f);
    setWeightTV(400.0f);
    setEpsilon(0.1f);
}

SrFloatMinimization::~SrFloatMinimization() = default;

bool SrFloatMinimization::setThreads(int threads)
{
    if (threads < 0)
        return false;
    threadCount = threads;
    // The per-thread work rows grow here, never during a solve.
    const int capacity = parallel::threadCapacity(threads);
    if (capacity > threadCapacity) {
        threadWork.assign(threadWorkStride * static_cast<std::size_t>(capacity), 0.0f);
        ringRows.assign(static_cast<std::size_t>(psfSize) * capacity, -1);
        threadCapacity = capacity;
    }
    return true;
}

void SrFloatMinimization::setPsfSigma(float sigma_)
{
    psfSigma = sigma_;
    detail::buildBasePsf(psfSigma, factor, psfSize, basePsf.data());
}

void SrFloatMinimization::setWeightTV(float weight)
{
    weightTV = weight;
    negInvWeightTV = -1.0f / weightTV;
}

void SrFloatMinimization::setEpsilon(float eps)
{
    epsilon = eps;
    invEpsilon = 1.0f / epsilon;
}

void SrFloatMinimization::setRelRes(float residue) { relRes = residue; }

void SrFloatMinimization::setMaxIter(int iterations) { maxIter = iterations; }

void SrFloatMinimization::generatePsfs(int nFrames_, PointF* const shifts)
{
    // Shifts in fine pixels (valid for |shift * factor| <= 1).
    for (int i = 0; i < nFrames_; ++i) {
        detail::shiftPsf(basePsf.data(), psfSize, shifts[i].x * factor, psfX[i].data());
        detail::shiftPsf(basePsf.data(), psfSize, shifts[i].y * factor, psfY[i].data());
    }
}

int SrFloatMinimization::conjugateGradients(const parallel::Team& team, int nFrames_, char** masks, int maxSmall)
{
    // With no step allowed the large iteration can only report 0 and leaves
    // U untouched, so the weights and the first residual are not computed.
    if (maxSmall <= 0)
        return 0;

    computeL(team);
    report(team, SolvePoint::CgStart);
    if (stepReports) {
        applyOperator(team, U.data(), nFrames_, masks, R.data(), RowFinish::None);
        report(team, SolvePoint::CgGradient);
        team.forRows(0, fullHeight, [&](int begin, int end) {
            for (int r = begin; r < end; ++r)
                residualFromBRow(r, R.data() + static_cast<std::size_t>(r) * fullWidth);
        });
    } else {
        applyOperator(team, U.data(), nFrames_, masks, R.data(), RowFinish::ResidualFromB);
    }
    // Every thread forms the same sum (same terms, same order) after the
    // operator's closing barrier; the member is written once for iteration().
    const float rrStart = static_cast<float>(parallel::sumInOrder(rowSums.data(), fullHeight));
    if (team.isMaster())
        rr = rrStart;
    report(team, SolvePoint::CgResidual, rrStart);

    if (relRes * relRes > invNormB2 * rrStart)
        return 0;
    for (int k = 0; k < maxSmall; ++k) {
        masterTraceValue(team, "start small iteration: ", k);
        if (iteration(team, k, nFrames_, masks)) {
            masterTraceValue(team, "abort small iteration: ", k);
            return k + 1;
        }
        masterTraceValue(team, "end small iteration: ", k);
    }
    return maxSmall;
}

bool SrFloatMinimization::iteration(const parallel::Team& team, int /*k*/, int nFrames_, char** masks)
{
    // Shared scalars are formed by every thread from the row sums after a
    // barrier (identical values, no extra synchronisation); the two sums of a
    // step go to different buffers so that one pass never overwrites row sums
    // that a slower thread is still adding up. rr is read by all threads here
    // and rewritten by the master only after the last barrier of the step.
    report(team, SolvePoint::IterationStart);
    applyOperator(team, S.data(), nFrames_, masks, Q.data(), RowFinish::DotWithInput);
    const float alpha = static_cast<float>(rr / parallel::sumInOrder(rowSums.data(), fullHeight));
    if (stepReports)
        return reportedUpdates(team, alpha);

    const int W = fullWidth;
    team.forRows(0, fullHeight, [&](int begin, int end) {
        for (int r = begin; r < end; ++r) {
            const std::size_t p0 = static_cast<std::size_t>(r) * W;
            float* res = R.data() + p0;
            const float* q = Q.data() + p0;
            for (int c = 0; c < W; ++c)
                res[c] = res[c] - alpha * q[c];
            residualRowSums[r] = rowDot(res, res, W);
        }
    });

    const double rrNew = parallel::sumInOrder(residualRowSums.data(), fullHeight);
    const bool converged = relRes * relRes > invNormB2 * rrNew;
    const float beta = static_cast<float>(rrNew / rr);

    // U = U + alpha * S is done here, in the same pass as the new search
    // direction; nothing in between reads U.
    team.forRows(0, fullHeight, [&](int begin, int end) {
        for (int r = begin; r < end; ++r) {
            const std::size_t p0 = static_cast<std::size_t>(r) * W;
            float* u = U.data() + p0;
            float* s = S.data() + p0;
            const float* res = R.data() + p0;
            if (converged) {
                for (int c = 0; c < W; ++c)
                    u[c] = u[c] + alpha * s[c];
            } else {
                for (int c = 0; c < W; ++c) {
                    u[c] = u[c] + alpha * s[c];
                    s[c] = s[c] * beta + res[c];
                }
            }
        }
    });
    // On convergence S and rr stay as they are.
    if (!converged && team.isMaster())
        rr = static_cast<float>(rrNew);
    return converged;
}

bool SrFloatMinimization::reportedUpdates(const parallel::Team& team, float alpha)
{
    // The passes of iteration() taken apart, each element getting the same
    // operations; rr is read by every thread before the last barrier and
    // rewritten by the master after it, as there.
    const int W = fullWidth;
    report(team, SolvePoint::Alpha, alpha);
    team.forRows(0, fullHeight, [&](int begin, int end) {
        for (std::size_t p = static_cast<std::size_t>(begin) * W; p < static_cast<std::size_t>(end) * W; ++p)
            U[p] = U[p] + alpha * S[p];
    });
    report(team, SolvePoint::UUpdated);
    team.forRows(0, fullHeight, [&](int begin, int end) {
        for (int r = begin; r < end; ++r) {
            const std::size_t p0 = static_cast<std::size_t>(r) * W;
            float* res = R.data() + p0;
            const float* q = Q.data() + p0;
            for (int c = 0; c < W; ++c)
                res[c] = res[c] - alpha * q[c];
            residualRowSums[r] = rowDot(res, res, W);
        }
    });
    const double rrNew = parallel::sumInOrder(residualRowSums.data(), fullHeight);
    report(team, SolvePoint::RUpdated, rrNew);
    if (relRes * relRes > invNormB2 * rrNew)
        return true;
    const float beta = static_cast<float>(rrNew / rr);
    report(team, SolvePoint::Beta, beta);
    team.forRows(0, fullHeight, [&](int begin, int end) {
        for (std::size_t p = static_cast<std::size_t>(begin) * W; p < static_cast<std::size_t>(end) * W; ++p)
            S[p] = S[p] * beta + R[p];
    });
    if (team.isMaster())
        rr = static_cast<float>(rrNew);
    report(team, SolvePoint::SUpdated, static_cast<float>(rrNew));
    return false;
}

void SrFloatMinimization::report(const parallel::Team& team, SolvePoint point, double value)
{
    if (!stepReports)
        return;
    team.barrier();
    detail::sendFromMaster(team, traceFailure, [&] { reportStep(point, value); });
    team.barrier();
}

void SrFloatMinimization::reportStep(SolvePoint /*point*/, double /*value*/) {}

const float* SrFloatMinimization::fullArray(FullArray which) const
{
    switch (which) {
    case FullArray::B: return B.data();
    case FullArray::U: return U.data();
    case FullArray::R: return R.data();
    case FullArray::S: return S.data();
    case FullArray::Q: return Q.data();
    case FullArray::Lr: return Lr.data();
    case FullArray::Ld: return Ld.data();
    case FullArray::Ldl: return Ldl.data();
    case FullArray::Ldr: return Ldr.data();
    }
    return nullptr;
}

void SrFloatMinimization::normalizeFrames(const parallel::Team& team, int nFrames_, int refIndex,
                                          float** const frames)
{
    const float* ref = frames[refIndex];
    const double count = static_cast<double>(width) * height;
    team.forRows(0, height, [&](int begin, int end) {
        for (int y = begin; y < end; ++y)
            rowSums[y] = rowSum(ref + static_cast<std::size_t>(y) * width, width);
    });
    team.single([&] { refMean = parallel::sumInOrder(rowSums.data(), height) / count; });

    const double m = refMean;
    team.forRows(0, height, [&](int begin, int end) {
        for (int y = begin; y < end; ++y)
            rowSums[y] = rowSquaredDeviation(ref + static_cast<std::size_t>(y) * width, width, m);
    });
    team.single([&] {
        sigma = std::sqrt(static_cast<float>(parallel::sumInOrder(rowSums.data(), height) / count));
        mean = static_cast<float>(refMean);
    });
    report(team, SolvePoint::Statistics);

    const float mu = mean;
    const float sd = sigma;
    team.forRows(0, nFrames_ * height, [&](int begin, int end) {
        for (int row = begin; row < end; ++row) {
            float* p = frames[row / height] + static_cast<std::size_t>(row % height) * width;
            for (int x = 0; x < width; ++x)
                p[x] = (p[x] - mu) / sd;
        }
    });
}

void SrFloatMinimization::masterTrace(const parallel::Team& team, const char* text)
{
    detail::masterTrace(team, *this, traceFailure, text);
}

void SrFloatMinimization::masterTraceValue(const parallel::Team& team, const char* text, int value)
{
    detail::masterTraceValue(team, *this, traceFailure, text, value);
}

std::size_t SrFloatMinimization::phaseRowFloats() const
{
    return roundUp16(fullWidth);
}

std::size_t SrFloatMinimization::paddedRowFloats() const
{
    return roundUp16(static_cast<std::size_t>(width) + 2 * detail::kRowPad);
}

int SrFloatMinimization::regionThreads() const
{
    if (fullSize < kMinParallelFullSize)
        return 1;
    return std::max(1, std::min(parallel::resolveThreads(threadCount), threadCapacity));
}

int SrFloatMinimization::minimize(int nFrames_, int refIndex, float** const frames,
                                  PointF* const shifts, char** masks, float* output)
{
    if (nFrames_ < 1 || nFrames_ > nFrames)
        KRO_THROW("invalid number of frames " << nFrames_ << " (object built for " << nFrames
                                              << ")");
    if (refIndex < 0 || refIndex >= nFrames_)
        KRO_THROW("invalid reference index " << refIndex << " for " << nFrames_ << " frames");
    if (!frames || !shifts || !masks || !output)
        KRO_THROW("null array passed to minimize");
    for (int i = 0; i < nFrames_; ++i)
        if (!frames[i] || !masks[i])
            KRO_THROW("null frame or mask " << i << " passed to minimize");

    trace("start minimize");
    traceFailure = nullptr;
    generatePsfs(nFrames_, shifts);
    stepReports = wantsStepReports();
    solveFrames = nFrames_;
    solveFramePointers = frames;
    solveOutputPointer = output;

    const int outWidth = static_cast<int>(width * factor);
    const int outHeight = static_cast<int>(height * factor);
    const int o = (psfSize - 1) / 2;
    const int nThreads = regionThreads();

    // One parallel region for the whole solve: the steps share their loops
    // among the team, so the threads are woken once per call.
    lastThreads = parallel::parallelRegion(nThreads, [&](const parallel::Team& team) {
        normalizeFrames(team, nFrames_, refIndex, frames);
        report(team, SolvePoint::Normalized);

        // B = sum of the back-projected frames, U = B, and 1/||B||^2.
        finishRows(team, nullptr, nFrames_, masks, frames, B.data(), RowFinish::BackProjection);
        team.single([&] { invNormB2 = static_cast<float>(1.0 / parallel::sumInOrder(rowSums.data(), fullHeight)); });
        report(team, SolvePoint::BackProjected);

        // maxIter bounds both the large iterations and the total of small ones.
        int total = 0;
        if (maxIter > 0) {
            int large = 0;
            int k = 0;
            do {
                masterTraceValue(team, "start large iteration: ", large);
                k = conjugateGradients(team, nFrames_, masks, maxIter - total);
                total += k;
                masterTraceValue(team, "end large iteration: ", large);
            } while (k != 0 && ++large < maxIter);
        }
        team.single([&] { totalIterations = total; });
        masterTraceValue(team, "cummulated iterations ", total);
        report(team, SolvePoint::Solved);

        const float mu = mean;
        const float sd = sigma;
        team.forRows(0, outHeight, [&](int begin, int end) {
            for (int y = begin; y < end; ++y) {
                const float* u = U.data() + static_cast<std::size_t>(y + o) * fullWidth + o;
                float* dst = output + static_cast<std::size_t>(y) * outWidth;
                for (int x = 0; x < outWidth; ++x)
                    dst[x] = u[x] * sd + mu;
            }
        });
        report(team, SolvePoint::Output);
    });

    if (traceFailure)
        std::rethrow_exception(traceFailure);
    trace("end minimize");
    return totalIterations;
}

} // namespace kro
} // namespace velmor
