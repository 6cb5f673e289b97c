#include "SrFloatFft2d.h"

#include <algorithm>
#include <climits>
#include <cmath>
#include <complex>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "detail/Parallel.h"
#include "detail/FftwPlans.h"
#include "detail/Throw.h"

namespace velmor {
namespace kro {

namespace detail {

// Work arrays of one SrFloatFft2d, all aligned as the plans expect.
struct SrFloatFft2dBuffers {
    // Aligned stand-in for a caller's image that lacks the alignment
    // (forward input, backward output); scratch of repairGaussBlur.
    FftwBuffer<float> image;
    // Backward: the spectrum being transformed (the row pass consumes it).
    // Forward: aligned stand-in for a caller's unaligned spectrum.
    FftwBuffer<fftwf_complex> spectrum;
};

} // namespace detail

namespace {

// Threads for one transform: about width * height * log2(width * height)
// butterflies. The blocks are the same for any count, so this choice never
// changes a result.
int transformThreads(int threads, int width, int height)
{
    const double pixels = static_cast<double>(width) * height;
    const double work = pixels * std::log2(pixels + 1.0);
    return parallel::threadsForWork(threads, static_cast<std::size_t>(work));
}

void copyRows(const float* from, float* to, int width, int firstRow, int endRow)
{
    const std::size_t begin = static_cast<std::size_t>(firstRow) * width;
    const std::size_t count = static_cast<std::size_t>(endRow - firstRow) * width;
    std::memcpy(to + begin, from + begin, count * sizeof(float));
}

// Columns [firstColumn, firstColumn + count) of every row of a spectrum.
void copyColumns(const fftwf_complex* from, fftwf_complex* to, int spectrumWidth, int height,
                 int firstColumn, int count)
{
    for (int y = 0; y < height; ++y) {
        const std::size_t at = static_cast<std::size_t>(y) * spectrumWidth + firstColumn;
        std::memcpy(to + at, from + at, static_cast<std::size_t>(count) * sizeof(fftwf_complex));
    }
}

// Undoes forward's packing of one spectrum row before the inverse row
// transform.
void unpackRow(fftwf_complex* row, int last, bool oddWidth)
{
    row[0][1] = 0.0f;
    if (last <= 0)
        return;
    if (oddWidth) {
        // Mirror of forward: the real part goes to packed position width - 1,
        // the imaginary slot of the last frequency; its real slot, which
        // forward dropped, is 0.
        row[last][1] = row[last][0];
        row[last][0] = 0.0f;
    } else {
        row[last][1] = 0.0f;
    }
}

std::unique_ptr<detail::SrFloatFft2dBuffers> makeBuffers(int width, int height)
{
    const std::size_t pixels = static_cast<std::size_t>(width) * height;
    const std::size_t bins = static_cast<std::size_t>(width / 2 + 1) * height;
    auto buffers = std::make_unique<detail::SrFloatFft2dBuffers>();
    buffers->image = detail::allocateFloats(pixels);
    buffers->spectrum = detail::allocateComplex(bins);
    return buffers;
}

// Closed-form approximation of the error function,
//   E(x) = sign(x) sqrt(1 - exp(-x^2 (4/pi + a x^2) / (1 + a x^2))),
// in single precision apart from the square root and the exponential.
float approximateErf(float x)
{
    if (x == 0.0f)
        return 0.0f;
    // Far out (and at the infinities that sigma 0 produces) E is +-1 in
    // float; x * x would overflow into inf / inf below.
    if (std::fabs(x) > 1e6f)
        return x < 0.0f ? -1.0f : 1.0f;
    constexpr float a = 0.1400123f;
    constexpr float fourOverPi = 1.2732395f;
    const float x2 = x * x;
    const float exponent = x2 * (fourOverPi + a * x2) / (1.0f + a * x2);
    const float e = static_cast<float>(std::sqrt(1.0 - std::exp(-static_cast<double>(exponent))));
    return x < 0.0f ? -e : e;
}

// Unnormalised DFT (sign -1) of the length-n circular kernel that holds
// weights[|d|] * scale at every offset d in [-radius, radius], wrapped
// modulo n (weights landing on the same position add up). Computed in double
// from the symmetric pairs (j, n - j), so the imaginary parts of a symmetric
// kernel cancel exactly.
std::vector<std::complex<double>> kernelDft(int n, int radius, const float* weights, double scale,
                                            int frequencies)
{
    std::vector<double> taps(static_cast<std::size_t>(n), 0.0);
    taps[0] += weights[0] * scale;
    for (long long k = 1; k <= radius; ++k) {
        const int plus = static_cast<int>(k % n);
        const int minus = (n - plus) % n;
        taps[static_cast<std::size_t>(plus)] += weights[k] * scale;
        taps[static_cast<std::size_t>(minus)] += weights[k] * scale;
    }
    const int lastPair = std::min((n - 1) / 2, radius);
    const double twoPi = 2.0 * std::acos(-1.0);
    std::vector<std::complex<double>> result(static_cast<std::size_t>(frequencies));
    for (int f = 0; f < frequencies; ++f) {
        double re = taps[0];
        double im = 0.0;
        for (int j = 1; j <= lastPair; ++j) {
            // Reduce j * f modulo n exactly before taking the angle.
            const long long m = static_cast<long long>(j) * f % n;
            const double angle = twoPi * static_cast<double>(m) / n;
            const double a = taps[static_cast<std::size_t>(j)];
            const double b = taps[static_cast<std::size_t>(n - j)];
            re += (a + b) * std::cos(angle);
            im -= (a - b) * std::sin(angle);
        }
        if (n % 2 == 0)  // the middle position pairs with itself
            re += taps[static_cast<std::size_t>(n / 2)] * (f % 2 == 0 ? 1.0 : -1.0);
        result[static_cast<std::size_t>(f)] = {re, im};
    }
    return result;
}

} // namespace

SrFloatFft2d::SrFloatFft2d(int width_, int height_) : width(width_), height(height_)
{
    // The spectrum and the image are indexed with int throughout the engine.
    const long long bins = (static_cast<long long>(width) / 2 + 1) * height;
    const long long pixels = static_cast<long long>(width) * height;
    if (width < 1 || height < 1 || 2 * bins > INT_MAX || pixels > INT_MAX)
        KRO_THROW("invalid FFT size " << width << "x" << height);
    plans = std::make_shared<const detail::FftwPlans2d>(width, height);
    buffers = makeBuffers(width, height);
}

SrFloatFft2d::SrFloatFft2d(const SrFloatFft2d& other)
    : width(other.width),
      height(other.height),
      threadCount(other.threadCount),
      plans(other.plans),
      buffers(makeBuffers(other.width, other.height))
{
}

SrFloatFft2d& SrFloatFft2d::operator=(const SrFloatFft2d& other)
{
    if (this != &other) {
        auto fresh = makeBuffers(other.width, other.height);
        width = other.width;
        height = other.height;
        threadCount = other.threadCount;
        plans = other.plans;
        buffers = std::move(fresh);
    }
    return *this;
}

SrFloatFft2d::~SrFloatFft2d() = default;

void SrFloatFft2d::forward(float* image, float (*spectrum)[2])
{
    if (!image || !spectrum)
        KRO_THROW("null image or spectrum");
    const int spectrumWidth = width / 2 + 1;
    const int last = width / 2;
    const bool oddWidth = width % 2 != 0;
    // Arrays without the plans' alignment are staged block by block through
    // the aligned work buffers (results are the same either way).
    const bool stageImage = !detail::hasFftwAlignment(image);
    const bool stageSpectrum = !detail::hasFftwAlignment(spectrum);
    float* source = stageImage ? buffers->image.get() : image;
    fftwf_complex* target = stageSpectrum ? buffers->spectrum.get() : spectrum;
    const detail::FftwPlans2d& p = *plans;
    const int threads = transformThreads(threadCount, width, height);

    lastThreads = parallel::parallelRegion(threads, [&](const parallel::Team& team) {
        team.forRows(0, p.rowBlocks(), [&](int firstBlock, int endBlock) {
            for (int block = firstBlock; block < endBlock; ++block) {
                const int first = p.firstRow(block);
                const int end = first + p.rowsIn(block);
                if (stageImage)
                    copyRows(image, source, width, first, end);
                p.forwardRows(block, source, target);
                for (int y = first; y < end; ++y) {
                    fftwf_complex* row = target + static_cast<std::size_t>(y) * spectrumWidth;
                    row[0][1] = 0.0f;
                    if (last > 0) {
                        // Last bin = (packed value at width - 1, 0): the real part
                        // of the last frequency for even widths, its imaginary
                        // part for odd ones (see the header).
                        if (oddWidth)
                            row[last][0] = row[last][1];
                        row[last][1] = 0.0f;
                    }
                }
            }
        });
        team.forRows(0, p.columnBlocks(), [&](int firstBlock, int endBlock) {
            for (int block = firstBlock; block < endBlock; ++block) {
                p.forwardColumns(block, target);
                if (stageSpectrum)
                    copyColumns(target, spectrum, spectrumWidth, height, p.firstColumn(block),
                                p.columnsIn(block));
            }
        });
    });
}

void SrFloatFft2d::backward(float (*spectrum)[2], float* image)
{
    if (!image || !spectrum)
        KRO_THROW("null image or spectrum");
    const int spectrumWidth = width / 2 + 1;
    const int last = width / 2;
    const bool oddWidth = width % 2 != 0;
    const bool stageImage = !detail::hasFftwAlignment(image);
    // The transform runs in place in the work spectrum, which also keeps the
    // caller's spectrum unchanged.
    fftwf_complex* work = buffers->spectrum.get();
    float* target = stageImage ? buffers->image.get() : image;
    const detail::FftwPlans2d& p = *plans;
    const int threads = transformThreads(threadCount, width, height);

    lastThreads = parallel::parallelRegion(threads, [&](const parallel::Team& team) {
        team.forRows(0, p.columnBlocks(), [&](int firstBlock, int endBlock) {
            for (int block = firstBlock; block < endBlock; ++block) {
                copyColumns(spectrum, work, spectrumWidth, height, p.firstColumn(block), p.columnsIn(block));
                p.backwardColumns(block, work);
            }
        });
        team.forRows(0, p.rowBlocks(), [&](int firstBlock, int endBlock) {
            for (int block = firstBlock; block < endBlock; ++block) {
                const int first = p.firstRow(block);
                const int end = first + p.rowsIn(block);
                for (int y = first; y < end; ++y)
                    unpackRow(work + static_cast<std::size_t>(y) * spectrumWidth, last, oddWidth);
                p.backwardRows(block, work, target);
                if (stageImage)
                    copyRows(target, image, width, first, end);
            }
        });
    });
}

void SrFloatFft2d::gaussFft(int radius, float sigma, float (*spectrum)[2], float* kernel)
{
    if (radius < 0)
        KRO_THROW("invalid Gaussian radius " << radius);
    if (!(sigma >= 0.0f) || !std::isfinite(sigma))
        KRO_THROW("invalid Gaussian sigma " << sigma);
    if (!spectrum || !kernel)
        KRO_THROW("null spectrum or kernel");

    // sigma 0 is the limit of no blur: (k +- 0.5) / 0 = +-inf, so the
    // kernel becomes {1, 0, 0, ...}.
    const float scale = std::sqrt(2.0f) * sigma;
    // 64-bit counters: radius may be INT_MAX.
    for (long long k = 0; k <= radius; ++k) {
        const float fk = static_cast<float>(k);
        kernel[k] = 0.5f * (approximateErf((fk + 0.5f) / scale) -
                            approximateErf((fk - 0.5f) / scale));
    }
    float tail = 0.0f;
    for (long long k = 1; k <= radius; ++k)
        tail += kernel[k];
    const float total = kernel[0] + 2.0f * tail;
    if (!(total > 0.0f) || !std::isfinite(total))
        KRO_THROW("invalid Gaussian sigma " << sigma << ": the kernel weights vanish");
    // Division rather than multiplication by 1/total keeps radius 0 at
    // exactly 1.
    for (long long k = 0; k <= radius; ++k)
        kernel[k] /= total;

    const int spectrumWidth = width / 2 + 1;
    const int last = width / 2;
    // The row kernel carries the 1 / (width * height) of the inverse
    // transform, so backward(forward(x) * spectrum) needs no further scaling.
    const double inverseScale = 1.0 / (static_cast<double>(width) * height);
    std::vector<std::complex<double>> rows =
        kernelDft(width, radius, kernel, inverseScale, spectrumWidth);
    const std::vector<std::complex<double>> columns =
        kernelDft(height, radius, kernel, 1.0, height);
    // Pack the row transform as forward does.
    rows[0] = {rows[0].real(), 0.0};
    if (last > 0) {
        std::complex<double>& lastBin = rows[static_cast<std::size_t>(last)];
        lastBin = {width % 2 != 0 ? lastBin.imag() : lastBin.real(), 0.0};
    }
    for (int y = 0; y < height; ++y) {
        for (int x = 0; x < spectrumWidth; ++x) {
            const std::complex<double> value =
                columns[static_cast<std::size_t>(y)] * rows[static_cast<std::size_t>(x)];
            float* bin = spectrum[static_cast<std::size_t>(y) * spectrumWidth + x];
            bin[0] = static_cast<float>(value.real());
            bin[1] = static_cast<float>(value.imag());
        }
    }
}

void SrFloatFft2d::repairGaussBlur(const float* image, float* blurred, int radius, float* kernel)
{
    if (radius < 0)
        KRO_THROW("invalid Gaussian radius " << radius);
    if (!image || !blurred || !kernel)
        KRO_THROW("null image, blurred image or kernel");
    if (radius == 0)
        return;
    if (!(kernel[0] > 0.0f))
        KRO_THROW("invalid Gaussian kernel: centre weight " << kernel[0]);

    // Taps beyond the image are never used, so a radius above the image size
    // behaves as the image size.
    const int r = std::min(radius, std::max(width, height));
    const long long twoR = 2LL * r;
    const int w = width;
    const int h = height;
    const float* g = kernel;
    // Horizontally blurred rows; the vertical pass reads only these, so the
    // band can be written afterwards without feeding back.
    float* smooth = buffers->image.get();

    // Renormalised 1-D blur at position i of n values spaced by `stride`:
    // the taps are limited to [0, n) and divided by the sum of the weights
    // used. The 2-D renormalised blur is the product of the two because the
    // part of the kernel inside the image is a rectangle, so its weight sum
    // factorises.
    auto blur1d = [r, g](const float* line, int i, int n, int stride) {
        const int lo = std::max(-r, -i);
        const int hi = std::min(r, n - 1 - i);
        double sum = 0.0;
        double weight = 0.0;
        for (int d = lo; d <= hi; ++d) {
            const double gd = g[std::abs(d)];
            sum += gd * line[static_cast<std::ptrdiff_t>(i + d) * stride];
            weight += gd;
        }
        return static_cast<float>(sum / weight);
    };
    // Columns of the left and right bands: [0, leftEnd) and [rightBegin, w).
    const int leftEnd = std::min(r, w);
    const int rightBegin = std::max(w - r, leftEnd);
    // Work: the band's pixels, each a horizontal and a vertical dot product.
    const std::size_t band = static_cast<std::size_t>(twoR) * (static_cast<std::size_t>(w) + h);
    const int threads =
        parallel::threadsForWork(threadCount, band * static_cast<std::size_t>(twoR + 1) * 2);

    lastThreads = parallel::parallelRegion(threads, [&](const parallel::Team& team) {
        // Horizontal pass: whole rows within 2r of the top or bottom (the
        // vertical taps of the top and bottom bands), the band columns of
        // every other row.
        team.forRows(0, h, [&](int begin, int end) {
            for (int y = begin; y < end; ++y) {
                const float* in = image + static_cast<std::size_t>(y) * w;
                float* out = smooth + static_cast<std::size_t>(y) * w;
                const bool whole = y < twoR || y >= h - twoR;
                for (int x = 0; x < (whole ? w : leftEnd); ++x)
                    out[x] = blur1d(in, x, w, 1);
                for (int x = whole ? w : rightBegin; x < w; ++x)
                    out[x] = blur1d(in, x, w, 1);
            }
        });
        // Vertical pass over the band.
        team.forRows(0, h, [&](int begin, int end) {
            for (int y = begin; y < end; ++y) {
                float* out = blurred + static_cast<std::size_t>(y) * w;
                const bool whole = y < r || y >= h - r;
                for (int x = 0; x < (whole ? w : leftEnd); ++x)
                    out[x] = blur1d(smooth + x, y, h, w);
                for (int x = whole ? w : rightBegin; x < w; ++x)
                    out[x] = blur1d(smooth + x, y, h, w);
            }
        });
    });
}

bool SrFloatFft2d::setThreads(int threads)
{
    if (threads < 0)
        return false;
    threadCount = threads;
    return true;
}

} // namespace kro
} // namespace velmor
