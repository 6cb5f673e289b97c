#include <gtest/gtest.h>


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

// exp(sign * 2 pi i * m / n) with m reduced modulo n first.
Complex twiddle(long long m, int n, int sign)
{
    const double angle = 2.0 * std::acos(-1.0) * static_cast<double>(m % n) / n;
    return {std::cos(angle), sign * std::sin(angle)};
}

float (*bins(cv::Mat& spectrum))[2] { return reinterpret_cast<float(*)[2]>(spectrum.ptr<float>()); }

cv::Mat newSpectrum(const SrFloatFft2d& fft)
{
    return cv::Mat(fft.getHeight(), fft.getWidth() / 2 + 1, CV_32FC2, cv::Scalar::all(0));
}

// The transform as documented, computed plainly in double: real DFT of each
// row packed with bin 0 = (Re, 0) and last bin = (packed value at width - 1,
// 0), that is (Re, 0) for even widths and (Im, 0) for odd widths; then the
// complex DFT (sign -1) of each column. Returns height x (width / 2 + 1) bins.
cv::Mat_<cv::Vec2d> referenceForward(const cv::Mat_<double>& image)
{
    const int w = image.cols, h = image.rows, last = w / 2;
    cv::Mat_<cv::Vec2d> rows(h, last + 1), out(h, last + 1);
    for (int y = 0; y < h; ++y)
        for (int k = 0; k <= last; ++k) {
            Complex sum = 0.0;
            for (int j = 0; j < w; ++j)
                sum += image(y, j) * twiddle(static_cast<long long>(j) * k, w, -1);
            const double re = k == last && k > 0 && w % 2 != 0 ? sum.imag() : sum.real();
            rows(y, k) = k == 0 || k == last ? cv::Vec2d(re, 0.0) : cv::Vec2d(sum.real(), sum.imag());
        }
    for (int k = 0; k <= last; ++k)
        for (int y = 0; y < h; ++y) {
            Complex sum = 0.0;
            for (int v = 0; v < h; ++v)
                sum += Complex(rows(v, k)[0], rows(v, k)[1]) * twiddle(static_cast<long long>(v) * y, h, -1);
            out(y, k) = cv::Vec2d(sum.real(), sum.imag());
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
    cv::Mat_<double> image(h, w, 0.0);
    for (int v = 0; v < h; ++v)
        for (int j = 0; j < w; ++j)
            for (int k = 0; k < nc; ++k) {
                const double factor = (k == 0 || (k == last && w % 2 == 0)) ? 1.0 : 2.0;
                image(v, j) += factor * (rows[static_cast<std::size_t>(v) * nc + k] *
                                         twiddle(static_cast<long long>(j) * k, w, +1)).real();
            }
    return image;
}

// Float transforms carry an error of a few ulp times log2(n) of the signal's
// energy; a wrong sign, packing or scale errs by the order of the signal.
double fftTolerance(double norm, int w, int h) { return 2e-7 * (4.0 + std::log2(double(w) * h)) * norm; }

// Odd and even widths and heights, single rows and columns, and sizes that
// span several row blocks and column blocks of the transform.
const cv::Size kSizes[] = {{1, 1}, {1, 6}, {1, 7}, {6, 1}, {7, 1}, {2, 3},  {5, 7},
                           {8, 6}, {9, 9}, {3, 2}, {16, 17}, {37, 35}, {64, 48}, {50, 33}};

TEST(SrFloatFft2d, ForwardAndBackwardMatchTheDirectTransformsInTheirPacking)
{
    std::uint64_t seed = 1;
    for (const cv::Size& s : kSizes) {
        SCOPED_TRACE(testing::Message() << s);
        SrFloatFft2d fft(s.width, s.height);
        cv::Mat_<float> image = krotest::randomImage(s.height, s.width, CV_32F, -1.0, 1.0, seed++);
        const cv::Mat_<float> original = image.clone();
        cv::Mat spectrum = newSpectrum(fft), got;
        fft.forward(image.ptr<float>(), bins(spectrum));
        EXPECT_IMAGES_EQUAL(original, image);  // input only read
        spectrum.convertTo(got, CV_64FC2);
        EXPECT_LE(cv::norm(got, referenceForward(image), cv::NORM_INF),
                  fftTolerance(cv::norm(image, cv::NORM_L2), s.width, s.height));

        // Spectra that no real image has: the imaginary parts that the
        // inverse must ignore (row frequency 0, and the last one) are not zero.
        spectrum = krotest::randomImage(s.height, s.width / 2 + 1, CV_32FC2, -1.0, 1.0, seed++);
        const cv::Mat input = spectrum.clone();
        fft.backward(bins(spectrum), image.ptr<float>());
        EXPECT_IMAGES_EQUAL(input, spectrum);  // input only read
        image.convertTo(got, CV_64F);
        EXPECT_LE(cv::norm(got, referenceBackward(spectrum, s.width), cv::NORM_INF),
                  fftTolerance(cv::norm(spectrum, cv::NORM_L2) * 2.0, s.width, s.height));
    }
}

TEST(SrFloatFft2d, ResultsDoNotDependOnThreadsOrAlignmentAndRoundTripsScale)
{
    // 641x515 is large enough to be shared among threads and has short last
    // row and column blocks.
    for (const cv::Size s : {cv::Size(160, 120), cv::Size(641, 515)}) {
        SCOPED_TRACE(testing::Message() << s);
        const cv::Mat_<float> image = krotest::texturedScene(s.height, s.width, 7);
        const std::size_t pixels = image.total(), floats = std::size_t(s.width / 2 + 1) * s.height * 2;
        SrFloatFft2d fft(s.width, s.height);
        const int radius = 40;
        std::vector<float> kernel(radius + 1);
        cv::Mat gauss = newSpectrum(fft);
        fft.gaussFft(radius, 12.0f, bins(gauss), kernel.data());
        // Forward, backward and a border repair on arrays that start `offset`
        // floats into their storage (offset 0 is 64-byte aligned, as cv::Mat
        // data are); the three results one after the other.
        auto run = [&](int threads, std::size_t offset) {
            EXPECT_TRUE(fft.setThreads(threads));
            std::vector<float> result;
            cv::Mat_<float> in(1, int(pixels + 16)), out(1, int(pixels + 16)), store(1, int(floats + 16));
            float *image0 = in.ptr<float>() + offset, *out0 = out.ptr<float>() + offset;
            float* spectrum0 = store.ptr<float>() + 2 * offset;
            std::memcpy(image0, image.ptr<float>(), pixels * sizeof(float));
            fft.forward(image0, reinterpret_cast<float(*)[2]>(spectrum0));
            result.assign(spectrum0, spectrum0 + floats);
            fft.backward(reinterpret_cast<float(*)[2]>(spectrum0), out0);
            result.insert(result.end(), out0, out0 + pixels);
            fft.repairGaussBlur(image0, out0, radius, kernel.data());
            result.insert(result.end(), out0, out0 + pixels);
            // The large size is worth every thread asked for.
            if (s.width > 600) {
                EXPECT_EQ(fft.getLastThreadCount(), threads);
            }
            return result;
        };
        const std::vector<float> first = run(1, 0);
        for (int threads : {1, 2, 7})
            for (std::size_t offset : {0, 1, 3})
                EXPECT_TRUE(first == run(threads, offset)) << threads << " threads, offset " << offset;
        if (s.width % 2 == 0) {  // backward(forward(x)) = W * H * x
            const cv::Mat_<float> back(s.height, s.width, const_cast<float*>(first.data() + floats));
            EXPECT_LE(cv::norm(back, image * double(pixels), cv::NORM_INF),
                      2e-6 * std::log2(pixels + 2.0) * pixels * cv::norm(image, cv::NORM_INF));
        }
    }
}

TEST(SrFloatFft2d, CopiesAndSeparateObjectsRunInParallel)
{
    const cv::Mat_<float> image = krotest::texturedScene(120, 160, 11);
    SrFloatFft2d original(160, 120), assigned(8, 6);
    cv::Mat expected = newSpectrum(original);
    cv::Mat_<float> input = image.clone();
    original.forward(input.ptr<float>(), bins(expected));
    assigned = original;
    const SrFloatFft2d copies[] = {original, assigned};
    std::vector<int> failures(4, 0);
    std::vector<std::thread> workers;
    for (int t = 0; t < 4; ++t)
        workers.emplace_back([&, t] {
            // Two threads share nothing but the plans of copies; two more
            // make objects of their own sizes at the same time (planning).
            SrFloatFft2d fft = t < 2 ? copies[t] : SrFloatFft2d(160, 120);
            SrFloatFft2d other(30 + t, 20 + t);
            cv::Mat spectrum = newSpectrum(fft);
            cv::Mat_<float> in = image.clone();
            for (int i = 0; i < 20; ++i) {
                fft.forward(in.ptr<float>(), bins(spectrum));
                failures[t] += cv::norm(spectrum, expected, cv::NORM_INF) != 0.0;
            }
        });
    for (std::thread& worker : workers)
        worker.join();
    EXPECT_EQ(std::vector<int>(4, 0), failures);
}

// ---- Gaussian transfer function and border repair ----

// The normalised pixel-integrated Gaussian with the closed-form E(x), in double.
std::vector<double> referenceKernel(int radius, double sigma)
{
    const auto approximateErf = [](double x) {
        const double a = 0.1400123, x2 = x * x;
        const double e = std::sqrt(1.0 - std::exp(-x2 * (1.2732395 + a * x2) / (1.0 + a * x2)));
        return x < 0 ? -e : e;
    };
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

TEST(SrFloatFft2d, GaussKernelIsTheNormalisedPixelIntegratedGaussianOrTheIdentity)
{
    SrFloatFft2d fft(16, 12);
    cv::Mat spectrum = newSpectrum(fft);
    for (const auto& [radius, sigma] : std::vector<std::pair<int, float>>{{5, std::sqrt(3.0f)}, {3, 0.6f}, {8, 2.5f}, {2, 40.0f}}) {
        SCOPED_TRACE("radius " + std::to_string(radius) + " sigma " + std::to_string(sigma));
        std::vector<float> kernel(static_cast<std::size_t>(radius) + 1, -1.0f);
        fft.gaussFft(radius, sigma, bins(spectrum), kernel.data());
        const std::vector<double> expected = referenceKernel(radius, sigma);
        double total = kernel[0];
        for (int k = 0; k <= radius; ++k) {
            EXPECT_NEAR(expected[k], kernel[k], 2e-6) << "k=" << k;
            total += k > 0 ? 2.0 * kernel[k] : 0.0;
            // The approximation stays close to the exact integral of the
            // Gaussian over the pixel (before normalisation, which for these
            // radii changes little where the tails are small).
            const double exact = 0.5 * (std::erf((k + 0.5) / (std::sqrt(2.0) * sigma)) -
                                        std::erf((k - 0.5) / (std::sqrt(2.0) * sigma)));
            EXPECT_TRUE(radius < 3 * sigma || std::abs(exact - kernel[k]) <= 2e-3) << "k=" << k;
        }
        EXPECT_NEAR(1.0, total, 1e-6);
    }
    // Radius 0 or sigma 0 (or too small to matter): kernel {1, 0, ...} and a
    // flat spectrum 1 / (width * height).
    SrFloatFft2d small(10, 7);
    for (const auto& [radius, sigma] : std::vector<std::pair<int, float>>{{0, 1.5f}, {0, 0.0f}, {3, 0.0f}, {2, 1e-30f}}) {
        cv::Mat flat = newSpectrum(small);
        std::vector<float> kernel(static_cast<std::size_t>(radius) + 1, -1.0f), identity(kernel.size(), 0.0f);
        identity[0] = 1.0f;
        small.gaussFft(radius, sigma, bins(flat), kernel.data());
        EXPECT_EQ(identity, kernel) << "radius " << radius << " sigma " << sigma;
        EXPECT_IMAGES_EQUAL(cv::Mat(7, 6, CV_32FC2, cv::Scalar(1.0 / 70.0, 0.0)), flat, 1e-9);
    }
}

TEST(SrFloatFft2d, GaussSpectrumIsTheDftOfTheWrappedSeparableKernel)
{
    // The kernel image g(|dx|) g(|dy|) / (w h), wrapped around (weights on
    // the same pixel add), through the documented transform: for odd widths
    // the last column holds the imaginary part, zero for a symmetric kernel.
    struct Case {
        int width, height, radius;
        float sigma;
    };
    for (const Case& c : {Case{8, 6, 2, 0.8f}, Case{9, 9, 3, 1.2f}, Case{32, 24, 5, std::sqrt(3.0f)},
                          Case{12, 10, 7, 2.0f}, Case{1, 5, 1, 0.7f}, Case{6, 1, 4, 1.5f}}) {
        SCOPED_TRACE(testing::Message() << c.width << "x" << c.height << " radius " << c.radius);
        SrFloatFft2d fft(c.width, c.height);
        cv::Mat spectrum = newSpectrum(fft);
        std::vector<float> kernel(static_cast<std::size_t>(c.radius) + 1);
        fft.gaussFft(c.radius, c.sigma, bins(spectrum), kernel.data());
        const double n = double(c.width) * c.height;
        cv::Mat_<double> taps(c.height, c.width, 0.0);
        for (int dy = -c.radius; dy <= c.radius; ++dy)
            for (int dx = -c.radius; dx <= c.radius; ++dx)
                taps((dy % c.height + c.height) % c.height, (dx % c.width + c.width) % c.width) +=
                    double(kernel[std::abs(dy)]) * kernel[std::abs(dx)] / n;
        const cv::Mat_<cv::Vec2d> want = referenceForward(taps);
        for (int v = 0; v < c.height; ++v)
            for (int f = 0; f <= c.width / 2; ++f) {
                const cv::Vec2f got = spectrum.at<cv::Vec2f>(v, f);
                EXPECT_NEAR(want(v, f)[0], got[0], 1e-7 / n + 1e-6 * cv::norm(want(v, f))) << "v=" << v << " f=" << f;
                EXPECT_NEAR(want(v, f)[1], got[1], 1e-7 / n) << "v=" << v << " f=" << f;
            }
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
            for (int dy = std::max(-r, -y); dy <= std::min(r, image.rows - 1 - y); ++dy)
                for (int dx = std::max(-r, -x); dx <= std::min(r, image.cols - 1 - x); ++dx) {
                    sum += double(g[std::abs(dy)]) * g[std::abs(dx)] * image(y + dy, x + dx);
                    weight += double(g[std::abs(dy)]) * g[std::abs(dx)];
                }
            out(y, x) = sum / weight;
        }
    return out;
}

TEST(SrFloatFft2d, SpectralBlurWithRepairIsTheRenormalisedBlur)
{
    struct Case {
        int width, height, radius;
        float sigma;
    };
    for (const Case& c : {Case{40, 30, 5, std::sqrt(3.0f)}, Case{64, 48, 3, 1.0f}, Case{20, 11, 5, 2.0f},
                          Case{10, 9, 5, 1.7f}, Case{6, 4, 8, 2.0f}, Case{160, 120, 5, std::sqrt(3.0f)}}) {
        SCOPED_TRACE(testing::Message() << c.width << "x" << c.height << " radius " << c.radius);
        SrFloatFft2d fft(c.width, c.height);
        cv::Mat_<float> image = krotest::texturedScene(c.height, c.width, 21), blurred(c.height, c.width);
        cv::Mat spectrum = newSpectrum(fft), gauss = newSpectrum(fft), got;
        std::vector<float> kernel(static_cast<std::size_t>(c.radius) + 1);
        fft.gaussFft(c.radius, c.sigma, bins(gauss), kernel.data());
        fft.forward(image.ptr<float>(), bins(spectrum));
        cv::mulSpectrums(spectrum, gauss, spectrum, 0);
        fft.backward(bins(spectrum), blurred.ptr<float>());
        fft.repairGaussBlur(image.ptr<float>(), blurred.ptr<float>(), c.radius, kernel.data());
        blurred.convertTo(got, CV_64F);
        EXPECT_LE(cv::norm(got, renormalisedBlur(image, kernel), cv::NORM_INF),
                  1e-6 * (4.0 + std::log2(double(c.width) * c.height)) * cv::norm(image, cv::NORM_INF));
    }
}

TEST(SrFloatFft2d, RepairWritesExactlyTheBorderBand)
{
    struct Case {
        int width, height, radius;
    };
    for (const Case& c : {Case{33, 27, 3}, Case{12, 9, 4}, Case{1, 20, 2}, Case{25, 1, 3}, Case{7, 6, 9}, Case{5, 4, 0}}) {
        SCOPED_TRACE(testing::Message() << c.width << "x" << c.height << " radius " << c.radius);
        SrFloatFft2d fft(c.width, c.height);
        cv::Mat spectrum = newSpectrum(fft);
        std::vector<float> kernel(static_cast<std::size_t>(c.radius) + 1);
        fft.gaussFft(c.radius, 1.3f, bins(spectrum), kernel.data());
        const cv::Mat_<float> image = krotest::randomImage(c.height, c.width, CV_32F, -100.0, 100.0, 31);
        const float sentinel = -12345.0f;
        cv::Mat_<float> blurred(c.height, c.width, sentinel);
        fft.repairGaussBlur(image.ptr<float>(), blurred.ptr<float>(), c.radius, kernel.data());
        const cv::Mat_<double> expected = renormalisedBlur(image, kernel);
        for (int y = 0; y < c.height; ++y)
            for (int x = 0; x < c.width; ++x) {
                const bool band = std::min({y, c.height - 1 - y, x, c.width - 1 - x}) < c.radius;
                EXPECT_NEAR(band ? expected(y, x) : sentinel, blurred(y, x), band ? 1e-4 : 0.0) << "x=" << x << " y=" << y;
            }
    }
}

// ---- Bad input ----

template <typename F>
std::string messageOf(F&& call)
{
    try {
        call();
    } catch (const Exception& e) {
        EXPECT_NE(std::string::npos, e.where().find("modules/enhancement/superresolution/SrFloatFft2d:")) << e.where();
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

    SrFloatFft2d fft(8, 6);
    cv::Mat spectrum = newSpectrum(fft);
    cv::Mat_<float> image(6, 8, 0.0f);
    std::vector<float> kernel(4);
    float* pixels = image.ptr<float>();
    float* weights = kernel.data();
    EXPECT_EQ("null image or spectrum", messageOf([&] { fft.forward(nullptr, bins(spectrum)); }));
    EXPECT_EQ("null image or spectrum", messageOf([&] { fft.backward(nullptr, pixels); }));
    EXPECT_EQ("invalid Gaussian radius -1", messageOf([&] { fft.gaussFft(-1, 1.0f, bins(spectrum), weights); }));
    EXPECT_EQ("invalid Gaussian sigma -0.5", messageOf([&] { fft.gaussFft(3, -0.5f, bins(spectrum), weights); }));
    EXPECT_EQ("invalid Gaussian sigma 1e+30: the kernel weights vanish",
              messageOf([&] { fft.gaussFft(3, 1e30f, bins(spectrum), weights); }));
    EXPECT_EQ("invalid Gaussian sigma nan", messageOf([&] { fft.gaussFft(3, std::nanf(""), bins(spectrum), weights); }));
    EXPECT_EQ("invalid Gaussian sigma inf", messageOf([&] { fft.gaussFft(3, INFINITY, bins(spectrum), weights); }));
    EXPECT_EQ("null spectrum or kernel", messageOf([&] { fft.gaussFft(3, 1.0f, bins(spectrum), nullptr); }));
    EXPECT_EQ("invalid Gaussian radius -2", messageOf([&] { fft.repairGaussBlur(pixels, pixels, -2, weights); }));
    EXPECT_EQ("null image, blurred image or kernel", messageOf([&] { fft.repairGaussBlur(nullptr, pixels, 3, weights); }));
}

} // namespace
} // namespace kro
} // namespace velmor
