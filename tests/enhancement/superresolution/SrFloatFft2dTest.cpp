#include <gtest/gtest.h>

#include <omp.h>

#include <algorithm>
#include <cmath>
#include <complex>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include <opencv2/core.hpp>

#include "Exception.h"
#include "SrFloatFft2d.h"
#include "TestImages.h"

namespace velmor {
namespace kro {
namespace {

using Complex = std::complex<double>;

const double kTwoPi = 2.0 * std::acos(-1.0);

struct Size2 {
    int width;
    int height;
};

// Sizes with odd and even widths and heights, single rows and columns, and
// sizes that span several row blocks and column blocks of the transform.
const Size2 kSizes[] = {{1, 1}, {1, 6}, {1, 7}, {6, 1}, {7, 1}, {2, 3},  {5, 7},
                        {8, 6}, {9, 9}, {3, 2}, {16, 17}, {37, 35}, {64, 48}, {50, 33}};

std::string sizeName(const Size2& s)
{
    return std::to_string(s.width) + "x" + std::to_string(s.height);
}

std::string caseName(int width, int height, int radius)
{
    return sizeName({width, height}) + " radius " + std::to_string(radius);
}

// exp(sign * 2 pi i * m / n) with m reduced modulo n first.
Complex twiddle(long long m, int n, int sign)
{
    const double angle = kTwoPi * static_cast<double>(m % n) / n;
    return {std::cos(angle), sign * std::sin(angle)};
}

cv::Mat_<float> randomFloats(int height, int width, std::uint64_t seed)
{
    return krotest::randomImage(height, width, CV_32F, -1.0, 1.0, seed);
}

float (*bins(cv::Mat& spectrum))[2] { return reinterpret_cast<float(*)[2]>(spectrum.ptr<float>()); }

cv::Mat newSpectrum(const SrFloatFft2d& fft)
{
    return cv::Mat(fft.getHeight(), fft.getWidth() / 2 + 1, CV_32FC2, cv::Scalar::all(0));
}

// The transform as documented, computed plainly in double: real DFT of each
// row packed with bin 0 = (Re, 0) and last bin = (packed value at width - 1,
// 0), that is (Re, 0) for even widths and (Im, 0) for odd widths; then the
// complex DFT (sign -1) of each column.
std::vector<Complex> referenceForward(const cv::Mat_<float>& image)
{
    const int w = image.cols, h = image.rows, last = w / 2, nc = w / 2 + 1;
    std::vector<Complex> rows(static_cast<std::size_t>(h) * nc);
    for (int y = 0; y < h; ++y) {
        for (int k = 0; k < nc; ++k) {
            Complex sum = 0.0;
            for (int j = 0; j < w; ++j)
                sum += double(image(y, j)) * twiddle(static_cast<long long>(j) * k, w, -1);
            if (k == 0)
                sum = {sum.real(), 0.0};
            else if (k == last)
                sum = {w % 2 == 0 ? sum.real() : sum.imag(), 0.0};
            rows[static_cast<std::size_t>(y) * nc + k] = sum;
        }
    }
    std::vector<Complex> out(rows.size());
    for (int k = 0; k < nc; ++k)
        for (int y = 0; y < h; ++y) {
            Complex sum = 0.0;
            for (int v = 0; v < h; ++v)
                sum += rows[std::size_t(v) * nc + k] *
                       twiddle(static_cast<long long>(v) * y, h, -1);
            out[static_cast<std::size_t>(y) * nc + k] = sum;
        }
    return out;
}

// The documented inverse in double: complex DFT (sign +1) of each column;
// column 0 and, for even widths, the last column keep their real parts; for
// odd widths >= 3 the last column's real part is the imaginary part of the
// last row frequency; then the real synthesis of each row,
// x_j = B_0 + 2 sum Re(B_k e^{+i...}) (+ B_{w/2} (-1)^j for even widths).
cv::Mat_<double> referenceBackward(const cv::Mat& spectrum, int w)
{
    const int h = spectrum.rows, nc = spectrum.cols, last = w / 2;
    std::vector<Complex> rows(static_cast<std::size_t>(h) * nc);
    for (int k = 0; k < nc; ++k)
        for (int v = 0; v < h; ++v) {
            Complex sum = 0.0;
            for (int y = 0; y < h; ++y) {
                const cv::Vec2f s = spectrum.at<cv::Vec2f>(y, k);
                sum += Complex(s[0], s[1]) * twiddle(static_cast<long long>(y) * v, h, +1);
            }
            if (k == 0 || (k == last && w % 2 == 0))
                sum = {sum.real(), 0.0};
            else if (k == last)
                sum = {0.0, sum.real()};
            rows[static_cast<std::size_t>(v) * nc + k] = sum;
        }
    cv::Mat_<double> image(h, w);
    for (int v = 0; v < h; ++v)
        for (int j = 0; j < w; ++j) {
            double x = 0.0;
            for (int k = 0; k < nc; ++k) {
                const double factor = (k == 0 || (k == last && w % 2 == 0)) ? 1.0 : 2.0;
                x += factor * (rows[static_cast<std::size_t>(v) * nc + k] *
                               twiddle(static_cast<long long>(j) * k, w, +1)).real();
            }
            image(v, j) = x;
        }
    return image;
}

double l2Norm(const cv::Mat& m) { return cv::norm(m, cv::NORM_L2); }

// Float transforms carry an error of a few ulp times log2(n) of the signal's
// energy; a wrong sign, packing or scale errs by the order of the signal.
double fftTolerance(double norm, int w, int h)
{
    return 2e-7 * (4.0 + std::log2(double(w) * h)) * norm;
}

TEST(SrFloatFft2d, ForwardMatchesDirectDftWithRowPackingAndSign)
{
    std::uint64_t seed = 1;
    for (const Size2& s : kSizes) {
        SCOPED_TRACE(sizeName(s));
        SrFloatFft2d fft(s.width, s.height);
        cv::Mat_<float> image = randomFloats(s.height, s.width, seed++);
        const cv::Mat_<float> original = image.clone();
        cv::Mat spectrum = newSpectrum(fft);
        fft.forward(image.ptr<float>(), bins(spectrum));
        EXPECT_IMAGES_EQUAL(original, image);  // input only read

        const std::vector<Complex> expected = referenceForward(image);
        const double tolerance = fftTolerance(l2Norm(image), s.width, s.height);
        double worst = 0.0;
        for (int y = 0; y < spectrum.rows; ++y)
            for (int x = 0; x < spectrum.cols; ++x) {
                const cv::Vec2f got = spectrum.at<cv::Vec2f>(y, x);
                const Complex want = expected[static_cast<std::size_t>(y) * spectrum.cols + x];
                worst = std::max(worst, std::abs(Complex(got[0], got[1]) - want));
            }
        EXPECT_LE(worst, tolerance);
    }
}

TEST(SrFloatFft2d, ForwardOfConstantImageIsOnlyTheScaledDcTerm)
{
    for (const Size2& s : {Size2{8, 6}, Size2{9, 9}, Size2{1, 5}, Size2{160, 120}}) {
        SCOPED_TRACE(sizeName(s));
        SrFloatFft2d fft(s.width, s.height);
        cv::Mat_<float> image(s.height, s.width, 3.0f);
        cv::Mat spectrum = newSpectrum(fft);
        fft.forward(image.ptr<float>(), bins(spectrum));
        const double dc = 3.0 * s.width * s.height;
        EXPECT_NEAR(dc, spectrum.at<cv::Vec2f>(0, 0)[0], 1e-6 * dc);
        EXPECT_EQ(0.0f, spectrum.at<cv::Vec2f>(0, 0)[1]);
        spectrum.at<cv::Vec2f>(0, 0) = cv::Vec2f(0.0f, 0.0f);
        EXPECT_LE(cv::norm(spectrum, cv::NORM_INF), 1e-6 * dc);
    }
}

TEST(SrFloatFft2d, BackwardMatchesDirectInverseOfAnySpectrum)
{
    // Spectra that no real image has: the imaginary parts that the inverse
    // must ignore (row frequency 0, and the last one) are not zero.
    std::uint64_t seed = 100;
    for (const Size2& s : kSizes) {
        SCOPED_TRACE(sizeName(s));
        SrFloatFft2d fft(s.width, s.height);
        cv::Mat spectrum =
            krotest::randomImage(s.height, s.width / 2 + 1, CV_32FC2, -1.0, 1.0, seed++);
        const cv::Mat original = spectrum.clone();
        cv::Mat_<float> image(s.height, s.width);
        fft.backward(bins(spectrum), image.ptr<float>());
        EXPECT_IMAGES_EQUAL(original, spectrum);  // input only read

        const cv::Mat_<double> expected = referenceBackward(spectrum, s.width);
        cv::Mat_<double> got;
        image.convertTo(got, CV_64F);
        EXPECT_LE(cv::norm(got, expected, cv::NORM_INF),
                  fftTolerance(l2Norm(spectrum) * 2.0, s.width, s.height));
    }
}

TEST(SrFloatFft2d, BackwardOfForwardScalesByPixelCount)
{
    // Even widths and width 1: the transform pair is invertible. (For odd
    // widths >= 3 forward drops the real part of the last row frequency.)
    std::uint64_t seed = 200;
    for (const Size2& s : {Size2{1, 1}, Size2{1, 7}, Size2{2, 3}, Size2{8, 6}, Size2{6, 9},
                           Size2{64, 48}, Size2{30, 33}, Size2{160, 120}, Size2{320, 240}}) {
        SCOPED_TRACE(sizeName(s));
        SrFloatFft2d fft(s.width, s.height);
        const cv::Mat_<float> image = krotest::texturedScene(s.height, s.width, seed++);
        cv::Mat spectrum = newSpectrum(fft);
        cv::Mat_<float> input = image.clone(), back(s.height, s.width);
        fft.forward(input.ptr<float>(), bins(spectrum));
        fft.backward(bins(spectrum), back.ptr<float>());
        const double n = double(s.width) * s.height;
        cv::Mat_<float> expected = image * n;
        EXPECT_LE(cv::norm(back, expected, cv::NORM_INF),
                  2e-6 * std::log2(n + 2.0) * cv::norm(expected, cv::NORM_INF));
    }
}

TEST(SrFloatFft2d, OddWidthDropsOnlyTheRealPartOfTheLastRowFrequency)
{
    // For width 7 the round trip returns n * (x - c), where c is the part of
    // each row along cos(2 pi 3 j / 7), the real part of frequency 3.
    const int w = 7, h = 5;
    SrFloatFft2d fft(w, h);
    cv::Mat_<float> image = randomFloats(h, w, 300);
    cv::Mat spectrum = newSpectrum(fft);
    cv::Mat_<float> back(h, w);
    fft.forward(image.ptr<float>(), bins(spectrum));
    fft.backward(bins(spectrum), back.ptr<float>());
    for (int y = 0; y < h; ++y) {
        double re = 0.0;
        for (int j = 0; j < w; ++j)
            re += image(y, j) * std::cos(kTwoPi * 3 * j / w);
        for (int j = 0; j < w; ++j) {
            const double cosinePart = 2.0 * re * std::cos(kTwoPi * 3 * j / w) / w;
            EXPECT_NEAR(w * h * (image(y, j) - cosinePart), back(y, j), 1e-4)
                << "y=" << y << " j=" << j;
        }
    }
}

TEST(SrFloatFft2d, ResultsDoNotDependOnThreadsOrAlignment)
{
    // 641x515 is large enough to be shared among threads and has short last
    // row and column blocks.
    const int savedThreads = omp_get_max_threads();
    for (const Size2& s : {Size2{160, 120}, Size2{641, 515}}) {
        SCOPED_TRACE(sizeName(s));
        const cv::Mat_<float> image = krotest::texturedScene(s.height, s.width, 7);
        const std::size_t pixels = std::size_t(s.width) * s.height;
        const std::size_t floats = std::size_t(s.width / 2 + 1) * s.height * 2;
        SrFloatFft2d fft(s.width, s.height);
        const int radius = 40;
        std::vector<float> kernel(radius + 1);
        cv::Mat gauss = newSpectrum(fft);
        fft.gaussFft(radius, 12.0f, bins(gauss), kernel.data());

        // Each run: forward, backward and a border repair on arrays that
        // start `offset` floats into their storage (offset 0 is 64-byte
        // aligned, as cv::Mat data are).
        struct Result {
            std::vector<float> spectrum, image, repaired;
        };
        auto run = [&](int threads, std::size_t offset) {
            omp_set_num_threads(threads);
            cv::Mat_<float> in(1, int(pixels + 16)), out(1, int(pixels + 16));
            cv::Mat_<float> spec(1, int(floats + 16));
            float* image0 = in.ptr<float>() + offset;
            float* spectrum0 = spec.ptr<float>() + 2 * offset;
            float* out0 = out.ptr<float>() + offset;
            std::memcpy(image0, image.ptr<float>(), pixels * sizeof(float));
            Result r;
            fft.forward(image0, reinterpret_cast<float(*)[2]>(spectrum0));
            r.spectrum.assign(spectrum0, spectrum0 + floats);
            fft.backward(reinterpret_cast<float(*)[2]>(spectrum0), out0);
            r.image.assign(out0, out0 + pixels);
            fft.repairGaussBlur(image0, out0, radius, kernel.data());
            r.repaired.assign(out0, out0 + pixels);
            return r;
        };
        const Result first = run(1, 0);
        for (int threads : {1, 2, 3}) {
            for (std::size_t offset : {0, 1, 3}) {
                SCOPED_TRACE(std::to_string(threads) + " threads, offset " +
                             std::to_string(offset));
                const Result r = run(threads, offset);
                EXPECT_TRUE(first.spectrum == r.spectrum);
                EXPECT_TRUE(first.image == r.image);
                EXPECT_TRUE(first.repaired == r.repaired);
            }
        }
    }
    omp_set_num_threads(savedThreads);
}

TEST(SrFloatFft2d, CopiesAndSeparateObjectsRunInParallel)
{
    const int w = 160, h = 120;
    const cv::Mat_<float> image = krotest::texturedScene(h, w, 11);
    SrFloatFft2d original(w, h);
    cv::Mat expected = newSpectrum(original);
    cv::Mat_<float> input = image.clone();
    original.forward(input.ptr<float>(), bins(expected));

    SrFloatFft2d assigned(8, 6);
    assigned = original;
    const SrFloatFft2d copies[] = {original, assigned};
    std::vector<int> failures(4, 0);
    std::vector<std::thread> workers;
    for (int t = 0; t < 4; ++t) {
        workers.emplace_back([&, t] {
            // Two threads share nothing but the plans of copies; two more
            // make objects of their own sizes at the same time (planning).
            SrFloatFft2d fft = t < 2 ? copies[t] : SrFloatFft2d(w, h);
            SrFloatFft2d other(30 + t, 20 + t);
            cv::Mat spectrum = newSpectrum(fft);
            cv::Mat_<float> in = image.clone();
            for (int i = 0; i < 20; ++i) {
                fft.forward(in.ptr<float>(), bins(spectrum));
                if (cv::norm(spectrum, expected, cv::NORM_INF) != 0.0)
                    ++failures[t];
            }
        });
    }
    for (std::thread& worker : workers)
        worker.join();
    EXPECT_EQ(std::vector<int>(4, 0), failures);
}

// ---- Gaussian transfer function and border repair ----

// E(x) of the pixel-integrated Gaussian, in double.
double approximateErf(double x)
{
    const double a = 0.1400123, x2 = x * x;
    const double e = std::sqrt(1.0 - std::exp(-x2 * (1.2732395 + a * x2) / (1.0 + a * x2)));
    return x < 0 ? -e : e;
}

std::vector<double> referenceKernel(int radius, double sigma)
{
    std::vector<double> g(static_cast<std::size_t>(radius) + 1);
    const double s = std::sqrt(2.0) * sigma;
    double total = 0.0;
    for (int k = 0; k <= radius; ++k) {
        g[k] = 0.5 * (approximateErf((k + 0.5) / s) - approximateErf((k - 0.5) / s));
        total += k == 0 ? g[k] : 2.0 * g[k];
    }
    for (double& v : g)
        v /= total;
    return g;
}

TEST(SrFloatFft2d, GaussKernelIsTheNormalisedPixelIntegratedGaussian)
{
    SrFloatFft2d fft(16, 12);
    cv::Mat spectrum = newSpectrum(fft);
    const std::vector<std::pair<int, float>> cases = {
        {5, std::sqrt(3.0f)}, {3, 0.6f}, {8, 2.5f}, {2, 40.0f}};
    for (const auto& [radius, sigma] : cases) {
        SCOPED_TRACE("radius " + std::to_string(radius) + " sigma " + std::to_string(sigma));
        std::vector<float> kernel(static_cast<std::size_t>(radius) + 1, -1.0f);
        fft.gaussFft(radius, sigma, bins(spectrum), kernel.data());
        const std::vector<double> expected = referenceKernel(radius, sigma);
        double total = kernel[0];
        for (int k = 0; k <= radius; ++k) {
            EXPECT_NEAR(expected[k], kernel[k], 2e-6) << "k=" << k;
            if (k > 0)
                total += 2.0 * kernel[k];
            // The approximation stays close to the exact integral of the
            // Gaussian over the pixel (before normalisation, which for these
            // radii changes little where the tails are small).
            if (radius >= 3 * sigma) {
                const double exact = 0.5 * (std::erf((k + 0.5) / (std::sqrt(2.0) * sigma)) -
                                            std::erf((k - 0.5) / (std::sqrt(2.0) * sigma)));
                EXPECT_NEAR(exact, kernel[k], 2e-3) << "k=" << k;
            }
        }
        EXPECT_NEAR(1.0, total, 1e-6);
    }
}

TEST(SrFloatFft2d, GaussSpectrumIsTheDftOfTheWrappedSeparableKernel)
{
    // Direct 2-D DFT in double of the kernel image g(|dx|) g(|dy|) / (w h),
    // wrapped around (weights on the same pixel add), then the documented
    // packing: for odd widths the last column holds the imaginary part of
    // the last row frequency, zero for a symmetric kernel.
    struct Case {
        int width, height, radius;
        float sigma;
    };
    for (const Case& c : {Case{8, 6, 2, 0.8f}, Case{9, 9, 3, 1.2f},
                          Case{32, 24, 5, std::sqrt(3.0f)}, Case{12, 10, 7, 2.0f},
                          Case{1, 5, 1, 0.7f}, Case{6, 1, 4, 1.5f}}) {
        SCOPED_TRACE(caseName(c.width, c.height, c.radius));
        SrFloatFft2d fft(c.width, c.height);
        cv::Mat spectrum = newSpectrum(fft);
        std::vector<float> kernel(static_cast<std::size_t>(c.radius) + 1);
        fft.gaussFft(c.radius, c.sigma, bins(spectrum), kernel.data());

        const double n = double(c.width) * c.height;
        cv::Mat_<double> taps(c.height, c.width, 0.0);
        for (int dy = -c.radius; dy <= c.radius; ++dy)
            for (int dx = -c.radius; dx <= c.radius; ++dx) {
                const int y = ((dy % c.height) + c.height) % c.height;
                const int x = ((dx % c.width) + c.width) % c.width;
                taps(y, x) += double(kernel[std::abs(dy)]) * kernel[std::abs(dx)] / n;
            }
        const int last = c.width / 2;
        for (int v = 0; v < c.height; ++v)
            for (int f = 0; f <= last; ++f) {
                Complex want = 0.0;
                for (int y = 0; y < c.height; ++y)
                    for (int x = 0; x < c.width; ++x)
                        want += taps(y, x) * twiddle(static_cast<long long>(y) * v, c.height, -1) *
                                twiddle(static_cast<long long>(x) * f, c.width, -1);
                if (c.width % 2 != 0 && f == last && last > 0)
                    want = 0.0;
                const cv::Vec2f got = spectrum.at<cv::Vec2f>(v, f);
                EXPECT_NEAR(want.real(), got[0], 1e-7 / n + 1e-6 * std::abs(want))
                    << "v=" << v << " f=" << f;
                EXPECT_NEAR(want.imag(), got[1], 1e-7 / n) << "v=" << v << " f=" << f;
            }
    }
}

TEST(SrFloatFft2d, GaussOfRadiusZeroOrSigmaZeroIsIdentity)
{
    SrFloatFft2d fft(10, 7);
    const cv::Mat flat(7, 6, CV_32FC2, cv::Scalar(1.0 / 70.0, 0.0));
    for (const auto& [radius, sigma] :
         std::vector<std::pair<int, float>>{{0, 1.5f}, {0, 0.0f}, {3, 0.0f}, {2, 1e-30f}}) {
        SCOPED_TRACE("radius " + std::to_string(radius) + " sigma " + std::to_string(sigma));
        cv::Mat spectrum = newSpectrum(fft);
        std::vector<float> kernel(static_cast<std::size_t>(radius) + 1, -1.0f);
        fft.gaussFft(radius, sigma, bins(spectrum), kernel.data());
        std::vector<float> identity(kernel.size(), 0.0f);
        identity[0] = 1.0f;
        EXPECT_EQ(identity, kernel);
        EXPECT_IMAGES_EQUAL(flat, spectrum, 1e-9);
    }
}

// Gaussian blur with the kernel g(|dx|) g(|dy|) limited to the pixels inside
// the image and divided by the sum of the weights used, in double, pixel by
// pixel (no separation).
cv::Mat_<double> renormalisedBlur(const cv::Mat_<float>& image, const std::vector<float>& g)
{
    const int r = int(g.size()) - 1;
    cv::Mat_<double> out(image.size());
    for (int y = 0; y < image.rows; ++y)
        for (int x = 0; x < image.cols; ++x) {
            double sum = 0.0, weight = 0.0;
            for (int dy = -r; dy <= r; ++dy)
                for (int dx = -r; dx <= r; ++dx) {
                    if (y + dy < 0 || y + dy >= image.rows || x + dx < 0 || x + dx >= image.cols)
                        continue;
                    const double wgt = double(g[std::abs(dy)]) * g[std::abs(dx)];
                    sum += wgt * image(y + dy, x + dx);
                    weight += wgt;
                }
            out(y, x) = sum / weight;
        }
    return out;
}

TEST(SrFloatFft2d, SpectralBlurIsCircularAndRepairMakesItTheRenormalisedBlur)
{
    struct Case {
        int width, height, radius;
        float sigma;
    };
    for (const Case& c : {Case{40, 30, 5, std::sqrt(3.0f)}, Case{64, 48, 3, 1.0f},
                          Case{20, 11, 5, 2.0f}, Case{10, 9, 5, 1.7f}, Case{6, 4, 8, 2.0f},
                          Case{160, 120, 5, std::sqrt(3.0f)}}) {
        SCOPED_TRACE(caseName(c.width, c.height, c.radius));
        SrFloatFft2d fft(c.width, c.height);
        cv::Mat_<float> image = krotest::texturedScene(c.height, c.width, 21);
        cv::Mat spectrum = newSpectrum(fft), gauss = newSpectrum(fft);
        std::vector<float> kernel(static_cast<std::size_t>(c.radius) + 1);
        fft.gaussFft(c.radius, c.sigma, bins(gauss), kernel.data());
        fft.forward(image.ptr<float>(), bins(spectrum));
        cv::mulSpectrums(spectrum, gauss, spectrum, 0);
        cv::Mat_<float> blurred(c.height, c.width);
        fft.backward(bins(spectrum), blurred.ptr<float>());

        // Before the repair: the circular blur, in double.
        const int r = c.radius;
        cv::Mat_<double> circular(c.height, c.width, 0.0);
        for (int y = 0; y < c.height; ++y)
            for (int x = 0; x < c.width; ++x)
                for (int dy = -r; dy <= r; ++dy)
                    for (int dx = -r; dx <= r; ++dx)
                        circular(y, x) += double(kernel[std::abs(dy)]) * kernel[std::abs(dx)] *
                                          image(((y + dy) % c.height + c.height) % c.height,
                                                ((x + dx) % c.width + c.width) % c.width);
        cv::Mat_<double> got;
        blurred.convertTo(got, CV_64F);
        const double tolerance = 1e-6 * (4.0 + std::log2(double(c.width) * c.height)) *
                                 cv::norm(image, cv::NORM_INF);
        EXPECT_LE(cv::norm(got, circular, cv::NORM_INF), tolerance);

        // After it: the renormalised blur everywhere (the interior already
        // was, the band is recomputed).
        fft.repairGaussBlur(image.ptr<float>(), blurred.ptr<float>(), c.radius, kernel.data());
        blurred.convertTo(got, CV_64F);
        EXPECT_LE(cv::norm(got, renormalisedBlur(image, kernel), cv::NORM_INF), tolerance);
    }
}

TEST(SrFloatFft2d, RepairWritesExactlyTheBorderBand)
{
    struct Case {
        int width, height, radius;
    };
    for (const Case& c :
         {Case{33, 27, 3}, Case{12, 9, 4}, Case{1, 20, 2}, Case{25, 1, 3}, Case{7, 6, 9}}) {
        SCOPED_TRACE(caseName(c.width, c.height, c.radius));
        SrFloatFft2d fft(c.width, c.height);
        cv::Mat spectrum = newSpectrum(fft);
        std::vector<float> kernel(static_cast<std::size_t>(c.radius) + 1);
        fft.gaussFft(c.radius, 1.3f, bins(spectrum), kernel.data());
        const cv::Mat_<float> image = randomFloats(c.height, c.width, 31) * 100.0f;
        const float sentinel = -12345.0f;
        cv::Mat_<float> blurred(c.height, c.width, sentinel);
        fft.repairGaussBlur(image.ptr<float>(), blurred.ptr<float>(), c.radius, kernel.data());

        const cv::Mat_<double> expected = renormalisedBlur(image, kernel);
        for (int y = 0; y < c.height; ++y)
            for (int x = 0; x < c.width; ++x) {
                const bool band = y < c.radius || y >= c.height - c.radius || x < c.radius ||
                                  x >= c.width - c.radius;
                if (band)
                    EXPECT_NEAR(expected(y, x), blurred(y, x), 1e-4) << "x=" << x << " y=" << y;
                else
                    EXPECT_EQ(sentinel, blurred(y, x)) << "x=" << x << " y=" << y;
            }
    }
    // Radius 0: nothing to repair.
    SrFloatFft2d fft(5, 4);
    cv::Mat_<float> image(4, 5, 1.0f), blurred(4, 5, 2.0f);
    float kernel[1] = {1.0f};
    fft.repairGaussBlur(image.ptr<float>(), blurred.ptr<float>(), 0, kernel);
    EXPECT_IMAGES_EQUAL(cv::Mat_<float>(4, 5, 2.0f), blurred);
}

// ---- Bad input ----

template <typename F>
std::string messageOf(F&& call)
{
    try {
        call();
    } catch (const Exception& e) {
        EXPECT_NE(std::string::npos,
                  e.where().find("modules/enhancement/superresolution/SrFloatFft2d:"))
            << e.where();
        return e.what();
    }
    return "(no exception)";
}

TEST(SrFloatFft2d, RejectsBadSizesAndArguments)
{
    EXPECT_EQ("invalid FFT size 0x5", messageOf([] { SrFloatFft2d(0, 5); }));
    EXPECT_EQ("invalid FFT size 5x0", messageOf([] { SrFloatFft2d(5, 0); }));
    EXPECT_EQ("invalid FFT size -4x3", messageOf([] { SrFloatFft2d(-4, 3); }));
    EXPECT_EQ("invalid FFT size 70000x70000", messageOf([] { SrFloatFft2d(70000, 70000); }));
    try {
        SrFloatFft2d(0, 5);
    } catch (const Exception& e) {
        EXPECT_NE(std::string::npos, e.where().find("velmor::kro::SrFloatFft2d::SrFloatFft2d(..)"))
            << e.where();
    }

    SrFloatFft2d fft(8, 6);
    cv::Mat spectrum = newSpectrum(fft);
    cv::Mat_<float> image(6, 8, 0.0f);
    std::vector<float> kernel(4);
    float* pixels = image.ptr<float>();
    float* weights = kernel.data();
    EXPECT_EQ("null image or spectrum", messageOf([&] { fft.forward(nullptr, bins(spectrum)); }));
    EXPECT_EQ("null image or spectrum", messageOf([&] { fft.backward(nullptr, pixels); }));
    EXPECT_EQ("invalid Gaussian radius -1",
              messageOf([&] { fft.gaussFft(-1, 1.0f, bins(spectrum), weights); }));
    EXPECT_EQ("invalid Gaussian sigma -0.5",
              messageOf([&] { fft.gaussFft(3, -0.5f, bins(spectrum), weights); }));
    EXPECT_EQ("invalid Gaussian sigma 1e+30: the kernel weights vanish",
              messageOf([&] { fft.gaussFft(3, 1e30f, bins(spectrum), weights); }));
    EXPECT_EQ("invalid Gaussian sigma nan",
              messageOf([&] { fft.gaussFft(3, std::nanf(""), bins(spectrum), weights); }));
    EXPECT_EQ("invalid Gaussian sigma inf",
              messageOf([&] { fft.gaussFft(3, INFINITY, bins(spectrum), weights); }));
    EXPECT_EQ("null spectrum or kernel",
              messageOf([&] { fft.gaussFft(3, 1.0f, bins(spectrum), nullptr); }));
    EXPECT_EQ("invalid Gaussian radius -2",
              messageOf([&] { fft.repairGaussBlur(pixels, pixels, -2, weights); }));
    EXPECT_EQ("null image, blurred image or kernel",
              messageOf([&] { fft.repairGaussBlur(nullptr, pixels, 3, weights); }));
}

} // namespace
} // namespace kro
} // namespace velmor
