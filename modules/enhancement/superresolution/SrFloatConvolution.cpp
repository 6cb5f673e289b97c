#include "SrFloatConvolution.h"

#include <cmath>
#include <cstddef>
#include <limits>

#include "detail/Parallel.h"
#include "detail/SparseConvRows.h"
#include "detail/Throw.h"

namespace velmor {
namespace kro {

namespace {

// Floats per thread in rowWork: one row of the full array in phase layout,
// rounded up to a whole number of cache lines.
std::size_t rowWorkStride(int fullWidth)
{
    return (static_cast<std::size_t>(fullWidth) + 15) / 16 * 16;
}

} // namespace

SrFloatConvolution::SrFloatConvolution(int fineWidth_, int fineHeight_, int psfWidth_,
                                       int psfHeight_, float factor_)
    : DebugChannel("SrFloat"), fineWidth(fineWidth_), fineHeight(fineHeight_),
      psfWidth(psfWidth_), psfHeight(psfHeight_), fullWidth(0), fullHeight(0), factor(factor_),
      lowWidth(0), lowHeight(0), step(0), threadCapacity(1)
{
    if (fineWidth < 1 || fineHeight < 1)
        KRO_THROW("invalid fine grid size " << fineWidth << "x" << fineHeight);
    if (psfWidth < 1 || psfHeight < 1)
        KRO_THROW("invalid psf size " << psfWidth << "x" << psfHeight);
    if (!std::isfinite(factor) || factor < 1.0f)
        KRO_THROW("invalid super-resolution factor " << factor);

    const long long full = (static_cast<long long>(fineWidth) + psfWidth - 1) *
                           (static_cast<long long>(fineHeight) + psfHeight - 1);
    if (full > std::numeric_limits<int>::max() / 2)
        KRO_THROW("fine grid too large: " << fineWidth << "x" << fineHeight << " with psf "
                                          << psfWidth << "x" << psfHeight);
    fullWidth = fineWidth + psfWidth - 1;
    fullHeight = fineHeight + psfHeight - 1;

    lowWidth = static_cast<int>(fineWidth / factor);
    lowHeight = static_cast<int>(fineHeight / factor);
    if (lowWidth < 1 || lowHeight < 1)
        KRO_THROW("fine grid " << fineWidth << "x" << fineHeight
                               << " holds no low-resolution sample at factor " << factor);
    step = static_cast<int>(factor);

    // The last sample with its last taps must stay inside the full array.
    if (step * (lowWidth - 1) + psfWidth > fullWidth ||
        2 * (lowHeight - 1) + psfHeight > fullHeight)
        KRO_THROW("sparse grid " << lowWidth << "x" << lowHeight << " (steps " << step
                                 << ", 2) does not fit the fine grid " << fineWidth << "x"
                                 << fineHeight << " at factor " << factor);

    scratch.create(fullHeight, fineWidth, CV_32F);

    threadCapacity = parallel::threadCapacity(threadCount);
    rowWork.assign(rowWorkStride(fullWidth) * threadCapacity, 0.0f);
}

bool SrFloatConvolution::setThreads(int threads)
{
    if (threads < 0)
        return false;
    threadCount = threads;
    // The per-thread rows grow here, never during a call.
    const int capacity = parallel::threadCapacity(threads);
    if (capacity > threadCapacity) {
        rowWork.assign(rowWorkStride(fullWidth) * capacity, 0.0f);
        threadCapacity = capacity;
    }
    return true;
}

void SrFloatConvolution::fullConvFromSparse(float* const sparse, float* const psfX,
                                            float* const psfY, char* mask, float* full)
{
    trace("start SrFloat_Convolution.fullConvFromSparse");
    if (!sparse || !psfX || !psfY || !mask || !full)
        KRO_THROW("null array passed to fullConvFromSparse");

    const std::size_t work = static_cast<std::size_t>(fullWidth) * fullHeight *
                             static_cast<std::size_t>(psfWidth + psfHeight) / 2;
    const int nThreads = std::min(parallel::threadsForWork(threadCount, work), threadCapacity);
    const std::size_t workStride = rowWorkStride(fullWidth);
    float* const scratchData = scratch.ptr<float>();

    // Each thread owns whole rows r of the scratch and of the full array:
    // the vertical pass is gathered over the taps that reach row r (in
    // increasing tap order), then the horizontal pass writes the row.
    lastThreads = parallel::parallelRegion(nThreads, [&](const parallel::Team& team) {
        float* phases = rowWork.data() + workStride * static_cast<std::size_t>(team.index());
        team.forRows(0, fullHeight, [&](int begin, int end) {
            for (int r = begin; r < end; ++r) {
                float* v = scratchData + static_cast<std::size_t>(r) * fineWidth;
                int count = 0;
                const int k0 = detail::firstVerticalTap(r, lowHeight, psfHeight, &count);
                const auto lowRow = [&](int t) {
                    return static_cast<std::size_t>((r - k0) / 2 - t) * lowWidth;
                };
                detail::maskedWeightedRowSum([&](int t) { return sparse + lowRow(t); },
                                             [&](int t) { return mask + lowRow(t); },
                                             [&](int t) { return psfY[k0 + 2 * t]; }, count,
                                             lowWidth, v);
                detail::convolveUpsampledRow(v, lowWidth, step, psfX, psfWidth, fullWidth, phases);
                detail::interleaveRow(phases, fullWidth, step,
                                      full + static_cast<std::size_t>(r) * fullWidth);
            }
        });
    });
    trace("end SrFloat_Convolution.fullConvFromSparse");
}

void SrFloatConvolution::validCorrToSparse(float* const full, float* const psfX,
                                           float* const psfY, float* sparse)
{
    trace("start SrFloat_Convolution.validCorrToSparse");
    if (!full || !psfX || !psfY || !sparse)
        KRO_THROW("null array passed to validCorrToSparse");

    // Rows below the last sample's last tap never reach the output.
    const int rowsUsed = 2 * (lowHeight - 1) + psfHeight;
    const std::size_t work = static_cast<std::size_t>(lowWidth) *
                             (static_cast<std::size_t>(rowsUsed) * psfWidth +
                              static_cast<std::size_t>(lowHeight) * psfHeight);
    const int nThreads = std::min(parallel::threadsForWork(threadCount, work), threadCapacity);
    const std::size_t workStride = rowWorkStride(fullWidth);
    float* const scratchData = scratch.ptr<float>();

    lastThreads = parallel::parallelRegion(nThreads, [&](const parallel::Team& team) {
        float* phases = rowWork.data() + workStride * static_cast<std::size_t>(team.index());
        team.forRows(0, rowsUsed, [&](int begin, int end) {
            for (int r = begin; r < end; ++r) {
                detail::deinterleaveRow(full + static_cast<std::size_t>(r) * fullWidth, fullWidth, step,
                                        phases);
                detail::correlateSampledRow(phases, fullWidth, step, psfX, psfWidth, lowWidth,
                                            scratchData + static_cast<std::size_t>(r) * fineWidth);
            }
        });
        // (forRows ends with a barrier: the vertical pass reads rows of other threads)
        team.forRows(0, lowHeight, [&](int begin, int end) {
            for (int i = begin; i < end; ++i) {
                detail::weightedRowSum(
                    [&](int k) { return scratchData + static_cast<std::size_t>(2 * i + k) * fineWidth; },
                    [&](int k) { return psfY[k]; }, psfHeight, lowWidth,
                    sparse + static_cast<std::size_t>(i) * lowWidth);
            }
        });
    });
    trace("end SrFloat_Convolution.validCorrToSparse");
}

namespace {

// One running-sum mean along a line of n samples, read at in[x * inStride]
// and written to out[x * outStride]: the window [x - r, x + r] clipped to the
// line; the borders divide by the true sample count, the interior multiplies
// by the reciprocal of the full window. Lines are processed `lanes` at a time
// (adjacent in memory), each lane with its own running sum.
void meanLines(const float* in, std::ptrdiff_t inStride, float* out, std::ptrdiff_t outStride,
               int n, int r, int lanes, float* sum)
{
    const float inv = 1.0f / static_cast<float>(2 * r + 1);
    for (int c = 0; c < lanes; ++c)
        sum[c] = 0.0f;
    for (int x = 0; x < r; ++x) {
        const float* src = in + x * inStride;
        for (int c = 0; c < lanes; ++c)
            sum[c] += src[c];
    }
    for (int x = 0; x < r; ++x) {
        const float* add = in + (x + r) * inStride;
        float* dst = out + x * outStride;
        const float count = static_cast<float>(r + 1 + x);
        for (int c = 0; c < lanes; ++c) {
            sum[c] += add[c];
            dst[c] = sum[c] / count;
        }
    }
    for (int x = r; x < n - r; ++x) {
        const float* add = in + (x + r) * inStride;
        const float* sub = in + (x - r) * inStride;
        float* dst = out + x * outStride;
        for (int c = 0; c < lanes; ++c) {
            sum[c] += add[c];
            dst[c] = sum[c] * inv;
            sum[c] -= sub[c];
        }
    }
    int count = 2 * r;
    for (int x = n - r; x < n; ++x, --count) {
        const float* sub = in + (x - r) * inStride;
        float* dst = out + x * outStride;
        const float divisor = static_cast<float>(count);
        for (int c = 0; c < lanes; ++c) {
            dst[c] = sum[c] / divisor;
            sum[c] -= sub[c];
        }
    }
}

} // namespace

void SrFloatConvolution::blurImageMeanFilter(cv::Mat_<float>& src, int radius,
                                             cv::Mat_<float>& dst)
{
    if (src.empty())
        KRO_THROW("empty image passed to blurImageMeanFilter");
    if (radius < 0)
        KRO_THROW("invalid mean filter radius " << radius);
    const int rows = src.rows;
    const int cols = src.cols;
    if (2 * static_cast<long long>(radius) + 1 > cols ||
        2 * static_cast<long long>(radius) + 1 > rows)
        KRO_THROW("image " << cols << "x" << rows << " too small for mean filter radius "
                           << radius);

    // A static helper has no object to hold buffers, and the registrations
    // call it once per frame from their parallel loops: each thread keeps its
    // own scratch, which only grows, so steady-state calls allocate nothing.
    thread_local std::vector<float> scratch;
    thread_local std::vector<float> sums;
    const std::size_t pixels = static_cast<std::size_t>(rows) * static_cast<std::size_t>(cols);
    if (scratch.size() < pixels)
        scratch.resize(pixels);
    if (sums.size() < static_cast<std::size_t>(cols))
        sums.resize(static_cast<std::size_t>(cols));
    cv::Mat_<float> horizontal(rows, cols, scratch.data());

    float sum = 0.0f;
    for (int y = 0; y < rows; ++y)
        meanLines(src.ptr<float>(y), 1, horizontal.ptr<float>(y), 1, cols, radius, 1, &sum);

    if (dst.rows != rows || dst.cols != cols)
        dst.create(rows, cols);
    // Vertical pass: all columns at once, each with its own running sum, so
    // that the inner loop runs along contiguous rows.
    meanLines(horizontal.ptr<float>(0), static_cast<std::ptrdiff_t>(horizontal.step1()),
              dst.ptr<float>(0), static_cast<std::ptrdiff_t>(dst.step1()), rows, radius, cols,
              sums.data());
}

} // namespace kro
} // namespace velmor
