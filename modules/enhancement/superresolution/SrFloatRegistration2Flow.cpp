#include "SrFloatRegistration2.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <mutex>

#include "SrFloatConvolution.h"
#include "detail/FlowStep.h"
#include "detail/Parallel.h"
#include "detail/ShiftFrame.h"
#include "detail/Throw.h"

// The dense optical-flow step of the corner registration: the reference's
// gradients, then for every frame the flow sums over its overlap, the
// solve, the residual image, its mean filter and the mask, all on one team
// of the parallel layer.

namespace velmor {
namespace kro {

namespace {

// Rough count of elementary operations per pixel and frame of the dense
// steps, to decide whether a second thread pays for its wake-up.
constexpr std::size_t kDenseOpsPerPixel = 8;

} // namespace

namespace {

// Guards the first failure of the per-frame mean filters, which run on
// several threads at once.
std::mutex failureMutex;

} // namespace

bool SrFloatRegistration2::setThreads(int threads)
{
    if (threads < 0)
        return false;
    threadCount = threads;
    return true;
}

int SrFloatRegistration2::threadsForFrames(int frames) const
{
    return parallel::threadsForWork(threadCount, static_cast<std::size_t>(size) *
                                                    static_cast<std::size_t>(frames) * kDenseOpsPerPixel);
}

void SrFloatRegistration2::initialize(char** masks, int refIndex)
{
    validateFrameIndex(refIndex, "reference index");
    if (masks == nullptr)
        KRO_THROW("null mask array passed to initialize");
    for (int i = 0; i < count; ++i)
        if (masks[i] == nullptr)
            KRO_THROW("null mask " << i << " passed to initialize");

    const int threads = threadsForFrames(1);
    lastThreads = parallel::parallelRegion(
        threads, [&](const parallel::Team& team) { initializeSteps(team, masks, refIndex); });
}

void SrFloatRegistration2::initializeSteps(const parallel::Team& team, char** masks, int refIndex)
{
    const float* ref = blurred[refIndex].ptr<float>();
    const int w = width;
    const int h = height;
    const int frames = count;

    // Gradients of the blurred reference: central differences inside, one-
    // sided differences on the first and last row and column (zero along an
    // axis of length 1).
    team.forRows(0, h, [&](int begin, int end) {
    for (int y = begin; y < end; ++y) {
        const float* r = ref + static_cast<std::size_t>(y) * w;
        float* gx = gradX.ptr<float>(y);
        float* gy = gradY.ptr<float>(y);
        if (w > 1) {
            gx[0] = r[1] - r[0];
            for (int x = 1; x < w - 1; ++x)
                gx[x] = (r[x + 1] - r[x - 1]) * 0.5f;
            gx[w - 1] = r[w - 1] - r[w - 2];
        } else {
            gx[0] = 0.0f;
        }
        if (h > 1) {
            const float* up = ref + static_cast<std::size_t>(y > 0 ? y - 1 : 0) * w;
            const float* down = ref + static_cast<std::size_t>(y < h - 1 ? y + 1 : h - 1) * w;
            const float factor = (y > 0 && y < h - 1) ? 0.5f : 1.0f;
            for (int x = 0; x < w; ++x)
                gy[x] = (down[x] - up[x]) * factor;
        } else {
            for (int x = 0; x < w; ++x)
                gy[x] = 0.0f;
        }

        // Whole-row sums of the gradient products; the dense step subtracts
        // the columns that fall outside its overlap.
        double sxx[4] = {0.0, 0.0, 0.0, 0.0};
        double sxy[4] = {0.0, 0.0, 0.0, 0.0};
        double syy[4] = {0.0, 0.0, 0.0, 0.0};
        int x = 0;
        for (; x + 3 < w; x += 4) {
            for (int k = 0; k < 4; ++k) {
                const double a = gx[x + k];
                const double b = gy[x + k];
                sxx[k] += a * a;
                sxy[k] += a * b;
                syy[k] += b * b;
            }
        }
        for (int k = 0; x < w; ++x, ++k) {
            const double a = gx[x];
            const double b = gy[x];
            sxx[k] += a * a;
            sxy[k] += a * b;
            syy[k] += b * b;
        }
        refRowSums[3 * static_cast<std::size_t>(y)] = (sxx[0] + sxx[1]) + (sxx[2] + sxx[3]);
        refRowSums[3 * static_cast<std::size_t>(y) + 1] = (sxy[0] + sxy[1]) + (sxy[2] + sxy[3]);
        refRowSums[3 * static_cast<std::size_t>(y) + 2] = (syy[0] + syy[1]) + (syy[2] + syy[3]);

        for (int f = 0; f < frames; ++f)
            std::memset(masks[f] + static_cast<std::size_t>(y) * w, f == refIndex ? 1 : 0,
                        static_cast<std::size_t>(w));
    }
    });
    if (team.isMaster())
        gradientRef = refIndex;
}

PointF SrFloatRegistration2::opticalFlow(unsigned refIndex, unsigned frame, PointI shift, char* mask)
{
    validateFrameIndex(refIndex, "reference index");
    validateFrameIndex(frame, "frame index");
    if (mask == nullptr)
        KRO_THROW("null mask passed to opticalFlow");
    if (gradientRef != static_cast<int>(refIndex))
        KRO_THROW("reference gradients not computed for frame " << refIndex
                  << "; call initialize first");
    if (regErrBlurRadius < 0)
        KRO_THROW("invalid registration error blur radius " << regErrBlurRadius);

    const int f = static_cast<int>(frame);
    flowFrames.assign(1, f);
    cornerShifts[f] = shift;
    flowMasks[f] = mask;
    runDenseSteps(static_cast<int>(refIndex), nullptr);
    return flowStates[f].result;
}

void SrFloatRegistration2::runDenseSteps(int refIndex, char** initMasks)
{
    stepFailure = nullptr;
    const int threads = threadsForFrames(static_cast<int>(flowFrames.size()) + (initMasks ? 1 : 0));
    lastThreads = parallel::parallelRegion(threads, [&](const parallel::Team& team) {
        if (initMasks != nullptr)
            initializeSteps(team, initMasks, refIndex);
        denseSums(team, refIndex);
        denseSolve(team);
        denseResiduals(team, refIndex);
        denseSmooth(team);
        if (!stepFailure)
            denseMasks(team);
    });
    if (stepFailure)
        std::rethrow_exception(stepFailure);
}

void SrFloatRegistration2::denseSums(const parallel::Team& team, int refIndex)
{
    const int w = width;
    const int h = height;
    const int frames = static_cast<int>(flowFrames.size());
    const float* ref = blurred[refIndex].ptr<float>();

    // Per frame and row of its overlap: the temporal difference It = F - R
    // between the blurred frame cut to the integer shift and the blurred
    // reference, the sums of gx*It and gy*It (four interleaved partial sums
    // each, combined in a fixed order), and the gradient products of the
    // reference over the whole row minus the columns outside the overlap.
    team.forRows(0, frames * h, [&](int begin, int end) {
    for (int t = begin; t < end; ++t) {
        const int k = t / h;
        const int y = t % h;
        const int frame = flowFrames[k];
        const PointI shift = cornerShifts[frame];
        const Overlap area = overlapFor(shift);
        if (area.empty() || y < area.y0 || y >= area.y1)
            continue;
        const int n = area.x1 - area.x0;
        const float* r = ref + static_cast<std::size_t>(y) * w + area.x0;
        const float* f = blurred[frame].ptr<float>(y + shift.y) + (area.x0 + shift.x);
        const float* gx = gradX.ptr<float>(y);
        const float* gy = gradY.ptr<float>(y);
        const float* ox = gx + area.x0;
        const float* oy = gy + area.x0;
        double xt[4] = {0.0, 0.0, 0.0, 0.0};
        double yt[4] = {0.0, 0.0, 0.0, 0.0};
        int x = 0;
        for (; x + 3 < n; x += 4) {
            for (int l = 0; l < 4; ++l) {
                const double it = f[x + l] - r[x + l];
                xt[l] += ox[x + l] * it;
                yt[l] += oy[x + l] * it;
            }
        }
        for (int l = 0; x < n; ++x, ++l) {
            const double it = f[x] - r[x];
            xt[l] += ox[x] * it;
            yt[l] += oy[x] * it;
        }
        double bxx = 0.0;
        double bxy = 0.0;
        double byy = 0.0;
        for (int c = 0; c < area.x0; ++c) {
            const double a = gx[c];
            const double b = gy[c];
            bxx += a * a;
            bxy += a * b;
            byy += b * b;
        }
        for (int c = area.x1; c < w; ++c) {
            const double a = gx[c];
            const double b = gy[c];
            bxx += a * a;
            bxy += a * b;
            byy += b * b;
        }
        const double* refSums = &refRowSums[3 * static_cast<std::size_t>(y)];
        double* sums = &flowRowSums[5 * static_cast<std::size_t>(t)];
        sums[0] = refSums[0] - bxx;
        sums[1] = refSums[1] - bxy;
        sums[2] = refSums[2] - byy;
        sums[3] = (xt[0] + xt[1]) + (xt[2] + xt[3]);
        sums[4] = (yt[0] + yt[1]) + (yt[2] + yt[3]);
    }
    });
}

void SrFloatRegistration2::denseSolve(const parallel::Team& team)
{
    team.single([&] {
    for (std::size_t k = 0; k < flowFrames.size(); ++k) {
        const int frame = flowFrames[k];
        const PointI shift = cornerShifts[frame];
        FlowState& state = flowStates[frame];
        state.area = overlapFor(shift);
        state.valid = false;
        state.result = PointF(static_cast<float>(shift.x), static_cast<float>(shift.y));
        if (state.area.empty())
            continue;

        // Rows combined in row order: the same result for any thread count.
        double Sxx = 0.0;
        double Sxy = 0.0;
        double Syy = 0.0;
        double sumGxIt = 0.0;
        double sumGyIt = 0.0;
        for (int y = state.area.y0; y < state.area.y1; ++y) {
            const double* sums = &flowRowSums[5 * (k * static_cast<std::size_t>(height) + y)];
            Sxx += sums[0];
            Sxy += sums[1];
            Syy += sums[2];
            sumGxIt += sums[3];
            sumGyIt += sums[4];
        }
        // The corners have already been tracked, so any positive determinant
        // will do. No gradient in some direction (flat or striped frames):
        // keep the integer shift and leave the mask empty, so the frame is
        // dropped.
        detail::FlowSums sums;
        sums.xx = Sxx;
        sums.xy = Sxy;
        sums.yy = Syy;
        sums.gxIt = sumGxIt;
        sums.gyIt = sumGyIt;
        const detail::FlowStep step = detail::solveFlowStep(sums, 0.0);
        if (step.solved) {
            state.valid = true;
            state.stepX = static_cast<float>(step.dx);
            state.stepY = static_cast<float>(step.dy);
            state.invEnergy = static_cast<float>(1.0 / step.energy);
            state.result = PointF(static_cast<float>(shift.x + step.dx), static_cast<float>(shift.y + step.dy));
        }
    }
    });
}

void SrFloatRegistration2::denseResiduals(const parallel::Team& team, int refIndex)
{
    const int w = width;
    const int h = height;
    const int frames = static_cast<int>(flowFrames.size());
    const float* ref = blurred[refIndex].ptr<float>();

    // Residual left after the sub-pixel step, normalised by the gradient
    // energy of the overlap (see the class comment): independent of the
    // intensity scale, and small wherever the shifted reference explains the
    // frame.
    team.forRows(0, frames * h, [&](int begin, int end) {
    for (int t = begin; t < end; ++t) {
        const int frame = flowFrames[t / h];
        const int y = t % h;
        const FlowState& state = flowStates[frame];
        if (!state.valid || y < state.area.y0 || y >= state.area.y1)
            continue;
        const PointI shift = cornerShifts[frame];
        const int n = state.area.x1 - state.area.x0;
        const float rx = state.stepX;
        const float ry = state.stepY;
        const float invEnergy = state.invEnergy;
        const float* r = ref + static_cast<std::size_t>(y) * w + state.area.x0;
        const float* f = blurred[frame].ptr<float>(y + shift.y) + (state.area.x0 + shift.x);
        const float* gx = gradX.ptr<float>(y) + state.area.x0;
        const float* gy = gradY.ptr<float>(y) + state.area.x0;
        float* e = residuals[frame].ptr<float>(y) + state.area.x0;
        for (int x = 0; x < n; ++x) {
            const float v = (f[x] - r[x]) + gx[x] * rx + gy[x] * ry;
            e[x] = v * v * invEnergy;
        }
    }
    });
}

void SrFloatRegistration2::denseSmooth(const parallel::Team& team)
{
    const int frames = static_cast<int>(flowFrames.size());
    // Whole frames per thread: each mean filter is a serial pass. The mean
    // runs over the overlap alone (clipped at its edges), so pixels without
    // data never leak into it; the window shrinks when the overlap is
    // narrower than the window.
    team.forRows(0, frames, [&](int begin, int end) {
    for (int k = begin; k < end; ++k) {
        const int frame = flowFrames[k];
        const FlowState& state = flowStates[frame];
        if (!state.valid)
            continue;
        try {
            const int ow = state.area.x1 - state.area.x0;
            const int oh = state.area.y1 - state.area.y0;
            const int radius = std::min(regErrBlurRadius, std::min((ow - 1) / 2, (oh - 1) / 2));
            cv::Mat_<float> roi = residuals[frame](cv::Rect(state.area.x0, state.area.y0, ow, oh));
            SrFloatConvolution::blurImageMeanFilter(roi, radius, roi);
        } catch (...) {
            std::lock_guard<std::mutex> lock(failureMutex);
            if (!stepFailure)
                stepFailure = std::current_exception();
        }
    }
    });
}

void SrFloatRegistration2::denseMasks(const parallel::Team& team)
{
    const int w = width;
    const int h = height;
    const int frames = static_cast<int>(flowFrames.size());
    const int limit = 2 * std::max(width, height) + 2;
    const float threshold = regError;

    // The mask lives on the grid of the frame after shiftFrame, which cuts by
    // the rounded complete shift: keep the pixels that the cut fills with
    // frame data (no run-on from the neighbouring row) and whose residual is
    // small.
    team.forRows(0, frames * h, [&](int begin, int end) {
    for (int t = begin; t < end; ++t) {
        const int frame = flowFrames[t / h];
        const int y = t % h;
        const FlowState& state = flowStates[frame];
        if (!state.valid)
            continue;
        const Overlap cut =
            overlapFor(PointI(detail::roundShift(state.result.x, limit), detail::roundShift(state.result.y, limit)));
        if (y < std::max(cut.y0, state.area.y0) || y >= std::min(cut.y1, state.area.y1))
            continue;
        const int x0 = std::max(cut.x0, state.area.x0);
        const int x1 = std::min(cut.x1, state.area.x1);
        const float* e = residuals[frame].ptr<float>(y);
        char* m = flowMasks[frame] + static_cast<std::size_t>(y) * w;
        for (int x = x0; x < x1; ++x)
            m[x] = e[x] < threshold ? 1 : 0;
    }
    }, false);
}

} // namespace kro
} // namespace velmor
