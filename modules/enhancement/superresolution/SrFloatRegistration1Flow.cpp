#include "SrFloatRegistration1.h"

#include <algorithm>
#include <cmath>
#include <cstring>

#include "SrFloatConvolution.h"
#include "detail/FlowRowSums.h"
#include "detail/FlowStep.h"
#include "detail/Parallel.h"

// The correlation peak and the optical-flow step of the phase-correlation
// registration: from the integer shift of the peak to the complete shift of
// a frame and its mask, on the team of the frame's parallel region.

namespace velmor {
namespace kro {

namespace {

// The flow step is solved only when det = A C - B^2 of the gradient tensor is
// above this fraction of (A + C)^2, i.e. its smaller eigenvalue above about
// this fraction of the larger: otherwise the gradients are (nearly) all
// parallel or zero (the aperture problem), the sub-pixel shift is not
// determined and the frame is left unregistered (integer shift, mask all 0)
// instead of getting a made-up or non-finite shift.
constexpr double kMinRelativeDeterminant = 1e-6;


// Positions p in [0, n) whose partner p + shift also lies in [0, n):
// [begin, end), empty when |shift| >= n.
void overlapRange(int shift, int n, int& begin, int& end)
{
    begin = std::min(n, std::max(0, -shift));
    end = std::max(begin, std::min(n, n - shift));
}

// The part [flowBegin, flowEnd) of the overlap [begin, end) along an axis
// of n pixels where neither blurred image is limited by its border (the
// first and last `radius` pixels), or the whole overlap for a zero shift.
void flowRange(int shift, int n, int radius, int begin, int end, int& flowBegin, int& flowEnd)
{
    if (shift == 0) {
        flowBegin = begin;
        flowEnd = end;
        return;
    }
    flowBegin = std::max(begin, std::max(radius, radius - shift));
    flowEnd = std::max(flowBegin, std::min(end, std::min(n - radius, n - radius - shift)));
}

// The same for a shift rounded half up, as shiftFrame rounds it (the same
// float expression, so both agree on every value).
void roundedOverlapRange(float shift, int n, int& begin, int& end)
{
    const float rounded = std::floor(shift + 0.5f);
    if (!(rounded > static_cast<float>(-n) && rounded < static_cast<float>(n))) {
        begin = end = 0;
        return;
    }
    overlapRange(static_cast<int>(rounded), n, begin, end);
}

} // namespace

PointI SrFloatRegistration1::unwrapPeak(int index, int width, int height)
{
    int row = index / width;
    int column = index % width;
    if (row > height / 2)
        row -= height;
    if (column > width / 2)
        column -= width;
    return PointI(column, row);
}

PointI SrFloatRegistration1::phaseCorrelation(const parallel::Team& team)
{
    // Row maxima, then the rows in order: the first strictly greatest value
    // wins, as in one scan from index 0, whatever the number of threads.
    team.forRows(0, height, [&](int begin, int end) {
        for (int y = begin; y < end; ++y) {
            const float* row = correlation[y];
            float best = row[0];
            int at = 0;
            for (int x = 1; x < width; ++x) {
                if (row[x] > best) {
                    best = row[x];
                    at = x;
                }
            }
            rowPeakValue[static_cast<std::size_t>(y)] = best;
            rowPeakIndex[static_cast<std::size_t>(y)] = y * width + at;
        }
    });
    float best = rowPeakValue[0];
    int index = rowPeakIndex[0];
    for (int y = 1; y < height; ++y) {
        if (rowPeakValue[static_cast<std::size_t>(y)] > best) {
            best = rowPeakValue[static_cast<std::size_t>(y)];
            index = rowPeakIndex[static_cast<std::size_t>(y)];
        }
    }
    return unwrapPeak(index, width, height);
}

// The sums of the flow step over the flow region [fx0, fx1) x [fy0, fy1):
// per row on the team, then the rows combined in row order by every thread
// (the tensor as the whole image's minus the excluded rows and columns).
void SrFloatRegistration1::flowRegionSums(const parallel::Team& team, PointI shift, int fx0, int fx1, int fy0,
                                          int fy1, double* out)
{
    const int w = width;
    const int h = height;
    // Per flow row: b = (sum gx d, sum gy d) with d = current(x + D) -
    // reference(x), and the tensor of the columns outside the flow region.
    team.forRows(0, h, [&](int begin, int end) {
        for (int y = begin; y < end; ++y) {
            double* sums = &rowFlow[5 * static_cast<std::size_t>(y)];
            if (y < fy0 || y >= fy1) {
                std::fill(sums, sums + 5, 0.0);
                continue;
            }
            const float* gx = gradX[y];
            const float* gy = gradY[y];
            double bx, by;
            detail::flowSums(gx, gy, blurredCurrent[y + shift.y], shift.x, blurredReference[y], fx0, fx1, bx, by);
            double xx = 0.0, xy = 0.0, yy = 0.0;
            detail::tensorSums(gx, gy, 0, fx0, xx, xy, yy);
            detail::tensorSums(gx, gy, fx1, w, xx, xy, yy);
            sums[0] = bx;
            sums[1] = by;
            sums[2] = xx;
            sums[3] = xy;
            sums[4] = yy;
        }
    });
    double a = tensorXX, b = tensorXY, c = tensorYY;
    double bx = 0.0, by = 0.0;
    for (int y = 0; y < h; ++y) {
        const std::size_t row = static_cast<std::size_t>(y);
        if (y < fy0 || y >= fy1) {
            a -= rowTensor[3 * row];
            b -= rowTensor[3 * row + 1];
            c -= rowTensor[3 * row + 2];
        } else {
            bx += rowFlow[5 * row];
            by += rowFlow[5 * row + 1];
            a -= rowFlow[5 * row + 2];
            b -= rowFlow[5 * row + 3];
            c -= rowFlow[5 * row + 4];
        }
    }
    out[0] = a;
    out[1] = b;
    out[2] = c;
    out[3] = bx;
    out[4] = by;
}

// The residual of the solved step over the overlap, normalised by the
// gradient energy (so that it does not depend on the intensity scale of the
// frames), then its mean over the overlap (the window clipped at the
// overlap's border, the radius limited to what the overlap holds).
void SrFloatRegistration1::flowError(const parallel::Team& team, PointI shift, double dx, double dy, double energy,
                                     const cv::Rect& overlap)
{
    const float uf = static_cast<float>(dx);
    const float vf = static_cast<float>(dy);
    const float invEnergy = static_cast<float>(1.0 / energy);
    const int x0 = overlap.x, x1 = overlap.x + overlap.width;
    team.forRows(overlap.y, overlap.y + overlap.height, [&](int begin, int end) {
        for (int y = begin; y < end; ++y) {
            const float* reference = blurredReference[y];
            const float* current = blurredCurrent[y + shift.y];
            const float* gx = gradX[y];
            const float* gy = gradY[y];
            float* e = errorImage[y];
            for (int x = x0; x < x1; ++x) {
                const float r = gx[x] * uf + gy[x] * vf + (current[x + shift.x] - reference[x]);
                e[x] = r * r * invEnergy;
            }
        }
    });
    team.single([&] {
        try {
            cv::Mat_<float> source = errorImage(overlap);
            cv::Mat_<float> target = blurredError(overlap);
            const int radius =
                std::min(regErrBlurRadius, std::min((overlap.width - 1) / 2, (overlap.height - 1) / 2));
            SrFloatConvolution::blurImageMeanFilter(source, radius, target);
        } catch (...) {
            regionFailure = std::current_exception();
        }
    });
}

// The mask: 1 where the averaged error is below regError inside `cells`,
// 0 everywhere else.
void SrFloatRegistration1::flowMask(const parallel::Team& team, const cv::Rect& cells, char* mask)
{
    const int w = width;
    const int cx0 = cells.x, cx1 = cells.x + cells.width;
    team.forRows(0, height, [&](int begin, int end) {
        for (int y = begin; y < end; ++y) {
            char* m = mask + static_cast<std::size_t>(y) * w;
            if (y < cells.y || y >= cells.y + cells.height || cx0 == cx1) {
                std::memset(m, 0, static_cast<std::size_t>(w));
                continue;
            }
            const float* e = blurredError[y];
            std::memset(m, 0, static_cast<std::size_t>(cx0));
            for (int x = cx0; x < cx1; ++x)
                m[x] = e[x] < regError ? 1 : 0;
            std::memset(m + cx1, 0, static_cast<std::size_t>(w - cx1));
        }
    });
}

PointF SrFloatRegistration1::opticalFlow(const parallel::Team& team, PointI shift, char* mask)
{
    const int w = width;
    const int h = height;
    // Overlap: reference pixel (x, y) meets the current frame's (x + dx, y + dy).
    int x0, x1, y0, y1;
    overlapRange(shift.x, w, x0, x1);
    overlapRange(shift.y, h, y0, y1);
    // The flow is solved on the part of the overlap where the two blurred
    // images are alike: near a frame's border its blur is limited to the
    // frame's own pixels, which moves it towards the inside; where only one
    // of the two is so limited (a non-zero shift along that axis), the
    // difference shows a false motion that would bias the step by up to a
    // tenth of a pixel on smooth shading. With a zero shift along an axis
    // both are limited alike and the whole extent is used.
    int fx0, fx1, fy0, fy1;
    flowRange(shift.x, w, gaussRadius, x0, x1, fx0, fx1);
    flowRange(shift.y, h, gaussRadius, y0, y1, fy0, fy1);

    // The remainder (u, v) has the sign of the integer shift D; the complete
    // shift is D + (u, v).
    double regionSums[5];
    flowRegionSums(team, shift, fx0, fx1, fy0, fy1, regionSums);
    detail::FlowSums sums;
    sums.xx = regionSums[0];
    sums.xy = regionSums[1];
    sums.yy = regionSums[2];
    sums.gxIt = regionSums[3];
    sums.gyIt = regionSums[4];
    const detail::FlowStep step = detail::solveFlowStep(sums, kMinRelativeDeterminant);
    PointF result(static_cast<float>(shift.x), static_cast<float>(shift.y));
    cv::Rect cells;
    if (step.solved) {
        result = PointF(static_cast<float>(shift.x + step.dx), static_cast<float>(shift.y + step.dy));
        flowError(team, shift, step.dx, step.dy, step.energy, cv::Rect(x0, y0, x1 - x0, y1 - y0));
        // Mask cells: the pixels of the work frame that the cut fills
        // (rounded complete shift, as shiftFrame rounds it) and for which the
        // error was measured. Their coordinates are those of the reference
        // grid, which is also the work frame's.
        int rx0, rx1, ry0, ry1;
        roundedOverlapRange(result.x, w, rx0, rx1);
        roundedOverlapRange(result.y, h, ry0, ry1);
        const int cx0 = std::max(x0, rx0);
        const int cx1 = regionFailure ? cx0 : std::max(cx0, std::min(x1, rx1));
        const int cy0 = std::max(y0, ry0);
        const int cy1 = std::max(cy0, std::min(y1, ry1));
        cells = cv::Rect(cx0, cy0, cx1 - cx0, cy1 - cy0);
    }
    flowMask(team, cells, mask);
    return result;
}

} // namespace kro
} // namespace velmor
