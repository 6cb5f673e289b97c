#include "SuperResolutionConvolution.h"

#include <algorithm>

#include "detail/Parallel.h"
#include "detail/Throw.h"

namespace velmor {
namespace kro {

namespace {

// Elementary operations per sample and window tap, for threadsForWork.
constexpr std::size_t kWorkPerTap = 2;

} // namespace

SuperResolutionConvolution::SuperResolutionConvolution(int fineWidth_, int fineHeight_, int psfWidth_,
                                                       int psfHeight_, float factor_)
    : SrFloatConvolution(fineWidth_, fineHeight_, psfWidth_, psfHeight_, factor_),
      rowSums(static_cast<std::size_t>(fineWidth_) * fineHeight_, 0.0)
{
    setDebugChannelName("SuperResolution");
}

void SuperResolutionConvolution::sameConvOnes(float* const in, int n, float* out)
{
    if (!in || !out)
        KRO_THROW("null image passed to sameConvOnes");
    if (n < 1)
        KRO_THROW("invalid box size " << n << " (1 or more needed)");
    const int w = getFineWidth();
    const int h = getFineHeight();
    // Window [i - before, i + after] around sample i.
    const int after = n / 2;
    const int before = n - 1 - after;
    const std::size_t reach = static_cast<std::size_t>(std::min(n, std::max(w, h)));
    const int threads = parallel::threadsForWork(getThreads(), static_cast<std::size_t>(w) * h * reach * kWorkPerTap);

    // Both passes finish before anything is written to `out`, which may be
    // `in`: the horizontal one reads only `in`, the vertical one only the
    // row sums.
    parallel::parallelFor(threads, 0, h, [&](int begin, int end) {
        for (int y = begin; y < end; ++y) {
            const float* row = in + static_cast<std::size_t>(y) * w;
            double* sums = rowSums.data() + static_cast<std::size_t>(y) * w;
            for (int x = 0; x < w; ++x) {
                const int x0 = std::max(0, x - before);
                const int x1 = std::min(w - 1, x + after);
                double sum = 0.0;
                for (int k = x0; k <= x1; ++k)
                    sum += row[k];
                sums[x] = sum;
            }
        }
    });
    parallel::parallelFor(threads, 0, h, [&](int begin, int end) {
        for (int y = begin; y < end; ++y) {
            const int y0 = std::max(0, y - before);
            const int y1 = std::min(h - 1, y + after);
            float* dst = out + static_cast<std::size_t>(y) * w;
            for (int x = 0; x < w; ++x) {
                double sum = 0.0;
                for (int k = y0; k <= y1; ++k)
                    sum += rowSums[static_cast<std::size_t>(k) * w + x];
                dst[x] = static_cast<float>(sum);
            }
        }
    });
}

std::vector<DebugChannel*> SuperResolutionConvolution::getInternalDebugChannelObjects()
{
    return {this};
}

} // namespace kro
} // namespace velmor
