#include "SpatialNoiseRemover.h"

#include <algorithm>
#include <cstdlib>

#include "detail/FilterArithmetic.h"
#include "detail/ImageOverlap.h"
#include "detail/Parallel.h"
#include "detail/SpatialNoiseStep.h"
#include "detail/Throw.h"

namespace velmor {
namespace kro {

namespace {

// Below this many pixels a second thread costs more than it saves.
constexpr long long kMinPixelsForThreads = 1 << 14;

// One output pixel from its 3x3 block (rows up/mid/down, columns l, c, r),
// with k = min(sad, 19 * gain) / gain + 13 by the reciprocal of the gain.
// Written for the compiler to vectorise over c.
inline short smoothPixel(const short* up, const short* mid, const short* down, int l, int c, int r,
                         std::int32_t sadCap, std::int32_t reciprocal)
{
    const std::int32_t u0 = up[l] + 32768, u1 = up[c] + 32768, u2 = up[r] + 32768;
    const std::int32_t u3 = mid[l] + 32768, u4 = mid[c] + 32768, u5 = mid[r] + 32768;
    const std::int32_t u6 = down[l] + 32768, u7 = down[c] + 32768, u8 = down[r] + 32768;
    const std::int32_t mean = detail::div9(u0 + u1 + u2 + u3 + u4 + u5 + u6 + u7 + u8);
    const std::int32_t sad = std::abs(u0 - mean) + std::abs(u1 - mean) + std::abs(u2 - mean) +
                             std::abs(u3 - mean) + std::abs(u4 - mean) + std::abs(u5 - mean) +
                             std::abs(u6 - mean) + std::abs(u7 - mean) + std::abs(u8 - mean);
    const std::int32_t k = detail::divideByReciprocal(std::min(sad, sadCap), reciprocal) + detail::kSmoothingMinK;
    return static_cast<short>(detail::smoothedSample(mean, u4, k) - 32768);
}

} // namespace

SpatialNoiseRemover::SpatialNoiseRemover(int gain)
    : mGain(filter_rules::spatialGain(gain).empty() ? gain : 0)
{
}

SpatialNoiseRemover::SpatialNoiseRemover(const SpatialNoiseRemoverOptions& options) : mGain(options.gain)
{
    const std::string problem = options.validate();
    if (!problem.empty())
        KRO_THROW(problem);
    mThreads = options.threads;
}

SpatialNoiseRemoverOptions SpatialNoiseRemover::getOptions() const
{
    SpatialNoiseRemoverOptions o;
    o.gain = mGain;
    o.threads = mThreads;
    return o;
}

bool SpatialNoiseRemover::setGain(int gain)
{
    if (!filter_rules::spatialGain(gain).empty())
        return false;
    mGain = gain;
    return true;
}

int SpatialNoiseRemover::div9(int x) const { return detail::div9(x); }

int SpatialNoiseRemover::approxK(int sad) const
{
    return detail::smoothingK(sad, mGain);
}

void SpatialNoiseRemover::process(const cv::Mat_<short>& src, cv::Mat_<short>& dst)
{
    if (src.empty())
        KRO_THROW("empty input frame");
    dst.create(src.rows, src.cols);
    if (detail::imagesOverlap(src, dst))
        KRO_THROW("source and destination frames share memory");
    // With gain 0, k is 32 and mean + ((d * 32 + 16) >> 5) is the centre
    // itself: the output is the input, bit for bit.
    if (mGain == 0) {
        src.copyTo(dst);
        return;
    }

    const int rows = src.rows;
    const int cols = src.cols;
    const std::int32_t sadCap = 19 * mGain;
    const std::int32_t reciprocal = detail::reciprocalOf(mGain);

    // The border columns take the plain path through div9/approxK with
    // clamped indices; the interior runs the vectorised kernel.
    const auto borderPixel = [&](const short* up, const short* mid, const short* down, int c) {
        const int l = std::max(c - 1, 0);
        const int r = std::min(c + 1, cols - 1);
        const short* block[3] = {up, mid, down};
        std::int32_t nine[9];
        for (int i = 0; i < 3; ++i) {
            nine[3 * i] = block[i][l] + 32768;
            nine[3 * i + 1] = block[i][c] + 32768;
            nine[3 * i + 2] = block[i][r] + 32768;
        }
        const int mean = detail::blockMean(nine);
        const int k = approxK(detail::blockAbsoluteDeviation(nine, mean));
        return static_cast<short>(detail::smoothedSample(mean, nine[4], k) - 32768);
    };

    const int threads = static_cast<long long>(rows) * cols >= kMinPixelsForThreads
                            ? parallel::resolveThreads(mThreads)
                            : 1;
    mLastThreads = parallel::parallelFor(threads, 0, rows, [&](int begin, int end) {
        for (int y = begin; y < end; ++y) {
            const short* up = src[std::max(y - 1, 0)];
            const short* mid = src[y];
            const short* down = src[std::min(y + 1, rows - 1)];
            short* out = dst[y];
            out[0] = borderPixel(up, mid, down, 0);
            for (int c = 1; c < cols - 1; ++c)
                out[c] = smoothPixel(up, mid, down, c - 1, c, c + 1, sadCap, reciprocal);
            if (cols > 1)
                out[cols - 1] = borderPixel(up, mid, down, cols - 1);
        }
    });
}

bool SpatialNoiseRemover::setThreads(int threads)
{
    if (!filter_rules::threads(threads).empty())
        return false;
    mThreads = threads;
    return true;
}

} // namespace kro
} // namespace velmor
