#include "SuperResolution.h"

#include <algorithm>
#include <cmath>

#include "detail/Parallel.h"
#include "detail/Throw.h"

// What the reference engine says about a reconstruction (the phase
// coverage map and the quality figure) and its fallback output.

namespace velmor {
namespace kro {

namespace {

// Elementary operations per output pixel and frame of the simple
// combination, for threadsForWork.
constexpr std::size_t kWorkPerCombinedSample = 2;

} // namespace

void SuperResolution::computeQuality_()
{
    quality.setTo(0.0f);
    if (framesLoaded == 0)
        return;
    for (int i = 0; i < framesLoaded; ++i) {
        // Residual shifts lie in [-0.5, 0.5), so u and v lie in [0, 2) and
        // the bilinear weights fall on the 3 x 3 map. A shift of exactly
        // +0.5 (or one the registration could not give, clamped to
        // [-0.5, 0.5]) puts its weight on the last row or column: the cell
        // index is kept at 1 with a fraction of 1 rather than at 2 with a
        // fraction of 0, which would address a fourth row or column with
        // weight 0. A non-finite shift covers no phase and adds nothing.
        const float sx = shifts[i].x;
        const float sy = shifts[i].y;
        if (!std::isfinite(sx) || !std::isfinite(sy))
            continue;
        const float u = 2.0f * std::min(std::max(sx, -0.5f), 0.5f) + 1.0f;
        const float v = 2.0f * std::min(std::max(sy, -0.5f), 0.5f) + 1.0f;
        const int fx = std::min(static_cast<int>(std::floor(u)), 1);
        const int fy = std::min(static_cast<int>(std::floor(v)), 1);
        const float ax = u - static_cast<float>(fx);
        const float ay = v - static_cast<float>(fy);
        quality(fy, fx) += (1.0f - ax) * (1.0f - ay);
        quality(fy, fx + 1) += ax * (1.0f - ay);
        quality(fy + 1, fx) += (1.0f - ax) * ay;
        quality(fy + 1, fx + 1) += ax * ay;
    }
    quality /= static_cast<float>(framesLoaded);
}

void SuperResolution::getQuality(cv::Mat_<float>& q) const
{
    quality.copyTo(q);
}

void SuperResolution::simpleCombine()
{
    if (framesLoaded == 0)
        KRO_THROW("no frame held to combine");
    const int count = framesLoaded;
    const int threads = parallel::threadsForWork(
        threadCount, static_cast<std::size_t>(outputSize) * count * kWorkPerCombinedSample);
    parallel::parallelFor(threads, 0, outputHeight, [&](int begin, int end) {
        for (int row = begin; row < end; ++row) {
            float* out = result.data() + static_cast<std::size_t>(row) * outputWidth;
            const std::size_t source = static_cast<std::size_t>(row / 2) * width;
            for (int col = 0; col < outputWidth; ++col) {
                double sum = 0.0;
                for (int i = 0; i < count; ++i)
                    sum += frames[i][source + col / 2];
                out[col] = static_cast<float>(sum / count);
            }
        }
    });
}

void SuperResolution::getResult(cv::Mat_<float>& out) const
{
    cv::Mat_<float>(outputHeight, outputWidth, const_cast<float*>(result.data())).copyTo(out);
}

float SuperResolution::qualityFigure() const
{
    // As SrFloat: how many frames cover each input position, capped at
    // factor^2 + 1 (5); an uncovered position counts -1.
    const int maxCount = static_cast<int>(factor * factor + 1.0);
    long long sum = 0;
    for (int p = 0; p < inputSize; ++p) {
        int covered = 0;
        for (int i = 0; i < framesLoaded; ++i)
            covered += masks[i][p] != 0;
        sum += std::min(covered, maxCount) - 1;
    }
    return static_cast<float>(static_cast<double>(sum) / (inputSize * 4.0) + 1.0);
}

} // namespace kro
} // namespace velmor
