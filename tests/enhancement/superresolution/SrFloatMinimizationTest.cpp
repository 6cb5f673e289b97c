#include <gtest/gtest.h>

#include <cmath>
#include <iostream>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include <omp.h>
#include <opencv2/imgproc.hpp>

#include "DebugChannel.h"
#include "Exception.h"
#include "PlainSparseConvolution.h"
#include "SrFloatConvolution.h"
#include "SrFloatMinimization.h"
#include "TestImages.h"

namespace velmor {
namespace kro {

// Reaches the private steps of the minimiser.
class SrFloatMinimizationPeer {
public:
    explicit SrFloatMinimizationPeer(SrFloatMinimization& m) : m_(m) {}

    void generatePsfs(std::vector<PointF> shifts)
    {
        m_.generatePsfs(static_cast<int>(shifts.size()), shifts.data());
    }
    const std::vector<float>& psfX(int i) const { return m_.psfX[i]; }
    const std::vector<float>& psfY(int i) const { return m_.psfY[i]; }
    std::vector<float>& U() { return m_.U; }
    void computeL() { m_.computeL(); }
    // The centre weights of the whole grid.
    std::vector<float> Lc() const
    {
        std::vector<float> lc(size_t(m_.fullWidth) * m_.fullHeight);
        for (int y = 0; y < m_.fullHeight; ++y)
            for (int x = 0; x < m_.fullWidth; ++x)
                lc[size_t(y) * m_.fullWidth + x] = m_.centreWeightAt(x, y);
        return lc;
    }
    const std::vector<float>& Lr() const { return m_.Lr; }
    const std::vector<float>& Ld() const { return m_.Ld; }
    const std::vector<float>& Ldl() const { return m_.Ldl; }
    const std::vector<float>& Ldr() const { return m_.Ldr; }
    void gradient(std::vector<float>& x, std::vector<char*>& masks, std::vector<float>& out)
    {
        m_.gradient(x.data(), static_cast<int>(masks.size()), masks.data(), out.data());
    }

private:
    SrFloatMinimization& m_;
};

namespace {

using Peer = SrFloatMinimizationPeer;

std::vector<float> randomVector(size_t n, float low, float high, unsigned seed)
{
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> dist(low, high);
    std::vector<float> v(n);
    for (float& x : v)
        x = dist(rng);
    return v;
}

struct Masks {
    Masks(int count, size_t size, unsigned seed, bool random)
    {
        std::mt19937 rng(seed);
        for (int i = 0; i < count; ++i) {
            storage.emplace_back(size, 1);
            if (random)
                for (char& m : storage.back())
                    m = static_cast<char>(rng() % 3 != 0);
            pointers.push_back(storage.back().data());
        }
    }
    std::vector<std::vector<char>> storage;
    std::vector<char*> pointers;
};

const std::vector<PointF> kShifts = {{0.0f, 0.0f}, {0.5f, 0.0f}, {0.0f, 0.5f},
                                     {0.5f, 0.5f}, {0.25f, -0.25f}};

TEST(SrFloatMinimization, BasePsfIsACentredNormalisedGaussian)
{
    SrFloatMinimization m(16, 12, 5, 2.0f);
    const std::vector<float>& psf = m.getBasePsf();
    ASSERT_EQ(6u, psf.size());
    EXPECT_EQ(0.0f, psf[0]);
    EXPECT_EQ(0.0f, psf[5]);
    double sum = 0.0;
    for (int k = 0; k < 6; ++k) {
        EXPECT_EQ(psf[k], psf[5 - k]) << "tap " << k;
        sum += psf[k];
    }
    EXPECT_NEAR(1.0, sum, 1e-6);

    // Integrals of a Gaussian of sigma 0.683 over [0,1] and [1,2], normalised
    // by their sum (the approximation of erf is good to about 1e-4).
    const double s = std::sqrt(2.0) * 0.683;
    const double inner = 0.5 * std::erf(1.0 / s);
    const double outer = 0.5 * (std::erf(2.0 / s) - std::erf(1.0 / s));
    EXPECT_NEAR(inner / (2 * (inner + outer)), psf[3], 2e-4);
    EXPECT_NEAR(outer / (2 * (inner + outer)), psf[4], 2e-4);

    // A wider sigma spreads weight outwards.
    m.setPsfSigma(1.5f);
    EXPECT_GT(m.getBasePsf()[4], outer / (2 * (inner + outer)));
    EXPECT_NEAR(1.0, m.getBasePsf()[1] + m.getBasePsf()[2] + m.getBasePsf()[3] + m.getBasePsf()[4],
                1e-6);
}

TEST(SrFloatMinimization, ShiftedPsfsMoveTheirCentroidByTheShift)
{
    SrFloatMinimization m(16, 12, 5, 2.0f);
    Peer peer(m);
    const std::vector<float>& base = m.getBasePsf();
    peer.generatePsfs({{0.0f, 0.0f}, {0.3f, -0.2f}, {-0.5f, 0.5f}});

    for (int k = 0; k < 5; ++k) {
        EXPECT_EQ(base[k], peer.psfX(0)[k]) << "tap " << k;
        EXPECT_EQ(base[k], peer.psfY(0)[k]) << "tap " << k;
    }
    EXPECT_EQ(0.0f, peer.psfX(0)[5]);

    auto centroid = [](const std::vector<float>& psf) {
        double sum = 0.0, moment = 0.0;
        for (size_t k = 0; k < psf.size(); ++k) {
            sum += psf[k];
            moment += k * psf[k];
        }
        return std::make_pair(sum, moment / sum);
    };
    const double c0 = centroid(base).second;
    const struct { int frame; bool x; float shift; } cases[] = {
        {1, true, 0.3f}, {1, false, -0.2f}, {2, true, -0.5f}, {2, false, 0.5f}};
    for (const auto& c : cases) {
        const auto [sum, centre] = centroid(c.x ? peer.psfX(c.frame) : peer.psfY(c.frame));
        EXPECT_NEAR(1.0, sum, 1e-6);
        // The PSF of a frame shifted by +s samples the fine grid s*factor
        // pixels earlier.
        EXPECT_NEAR(c0 - 2.0 * c.shift, centre, 1e-5) << "frame " << c.frame;
    }
}

TEST(SrFloatMinimization, TvWeightsOfAFlatEstimateAreClampedAndBorderless)
{
    SrFloatMinimization m(4, 3, 1, 2.0f);
    Peer peer(m);
    const int W = m.getFullWidth(), H = m.getFullHeight();
    ASSERT_EQ(13, W);
    ASSERT_EQ(11, H);
    std::fill(peer.U().begin(), peer.U().end(), 5.0f);
    peer.computeL();

    // |difference| 0 is clamped to epsilon = 0.1: -1/400 / 0.1 = -0.025,
    // half that on the diagonals.
    const float straight = -0.0025f / 0.1f;
    const float diagonal = 0.5f * -0.0025f / 0.1f;
    for (int y = 0; y < H; ++y)
        for (int x = 0; x < W; ++x) {
            const int p = y * W + x;
            const bool lastRow = y == H - 1, lastCol = x == W - 1;
            ASSERT_EQ(lastCol ? 0.0f : straight, peer.Lr()[p]) << y << "," << x;
            ASSERT_EQ(lastRow ? 0.0f : straight, peer.Ld()[p]) << y << "," << x;
            ASSERT_EQ(lastRow || lastCol ? 0.0f : diagonal, peer.Ldr()[p]) << y << "," << x;
            ASSERT_EQ(lastRow || x == 0 ? 0.0f : diagonal, peer.Ldl()[p]) << y << "," << x;
        }
    // An interior point has 4 straight and 4 diagonal neighbours.
    EXPECT_FLOAT_EQ(-(4 * straight + 4 * diagonal), peer.Lc()[5 * W + 6]);
    // A corner has one of each direction.
    EXPECT_FLOAT_EQ(-(2 * straight + diagonal), peer.Lc()[0]);

    // A jump larger than 1/epsilon is clamped to 1/epsilon = 10.
    peer.U()[5 * W + 7] = 5.0f + 1000.0f;
    peer.computeL();
    EXPECT_FLOAT_EQ(-0.0025f / 10.0f, peer.Lr()[5 * W + 6]);
    EXPECT_FLOAT_EQ(-0.0025f / 10.0f, peer.Ld()[4 * W + 7]);
    peer.U()[5 * W + 7] = 5.5f;
    peer.computeL();
    EXPECT_FLOAT_EQ(-0.0025f / 0.5f, peer.Lr()[5 * W + 6]);
    EXPECT_FLOAT_EQ(0.5f * -0.0025f / (0.5f / std::sqrt(2.0f)), peer.Ldr()[4 * W + 6]);
}

struct Size {
    int width, height;
};
const Size kSizes[] = {{13, 11}, {20, 9}, {1, 1}, {5, 1}, {32, 24}};

TEST(SrFloatMinimization, TvOperatorRowsSumToZero)
{
    for (const Size& size : kSizes) {
        SCOPED_TRACE(std::to_string(size.width) + "x" + std::to_string(size.height));
        SrFloatMinimization m(size.width, size.height, 2, 2.0f);
        Peer peer(m);
        const size_t fullSize = size_t(m.getFullWidth()) * m.getFullHeight();
        peer.U() = randomVector(fullSize, -3.0f, 3.0f, 5);
        peer.computeL();
        peer.generatePsfs({{0.1f, 0.2f}, {-0.3f, 0.4f}});
        // Dropping every sample leaves only the TV term: L applied to a
        // constant is zero up to rounding.
        Masks none(2, size_t(size.width) * size.height, 0, false);
        for (auto& mask : none.storage)
            std::fill(mask.begin(), mask.end(), 0);
        std::vector<float> constant(fullSize, 7.0f), out(fullSize, 1.0f);
        peer.gradient(constant, none.pointers, out);
        const std::vector<float> lc = peer.Lc();
        for (size_t p = 0; p < fullSize; ++p)
            ASSERT_NEAR(0.0f, out[p], 1e-5f * 7.0f * std::fabs(lc[p])) << "element " << p;
    }
}

TEST(SrFloatMinimization, OperatorIsSymmetric)
{
    unsigned seed = 1;
    for (const Size& size : kSizes) {
        SCOPED_TRACE(std::to_string(size.width) + "x" + std::to_string(size.height));
        SrFloatMinimization m(size.width, size.height, 3, 2.0f);
        Peer peer(m);
        const size_t fullSize = size_t(m.getFullWidth()) * m.getFullHeight();
        peer.U() = randomVector(fullSize, -1.0f, 1.0f, seed++);
        peer.computeL();
        peer.generatePsfs({{0.1f, 0.2f}, {-0.3f, 0.4f}, {0.5f, -0.5f}});
        Masks masks(3, size_t(size.width) * size.height, seed++, true);
        std::vector<float> x = randomVector(fullSize, -1.0f, 1.0f, seed++);
        std::vector<float> y = randomVector(fullSize, -1.0f, 1.0f, seed++);
        std::vector<float> gx(fullSize), gy(fullSize);
        peer.gradient(x, masks.pointers, gx);
        peer.gradient(y, masks.pointers, gy);
        const double lhs = krotest::dot(gx, y);
        const double rhs = krotest::dot(x, gy);
        const double scale = std::sqrt(krotest::dot(gx, gx) * krotest::dot(y, y));
        EXPECT_NEAR(lhs, rhs, 1e-6 * scale) << "lhs " << lhs << ", scale " << scale;
        // Positive semi-definite as well: both terms are.
        EXPECT_GE(krotest::dot(gx, x), -1e-6 * scale);
    }
}

// The fused operator equals the plain composition: L x with the neighbours
// outside the grid omitted, then for each frame the model and its transpose
// through SrFloatConvolution, added frame by frame.
TEST(SrFloatMinimization, OperatorEqualsTheCompositionOfItsParts)
{
    unsigned seed = 40;
    for (const Size& size : kSizes) {
        SCOPED_TRACE(std::to_string(size.width) + "x" + std::to_string(size.height));
        const int nFrames = 3;
        SrFloatMinimization m(size.width, size.height, nFrames, 2.0f);
        Peer peer(m);
        const int W = m.getFullWidth(), H = m.getFullHeight();
        const size_t fullSize = size_t(W) * H;
        peer.U() = randomVector(fullSize, -1.0f, 1.0f, seed++);
        peer.computeL();
        peer.generatePsfs({{0.1f, 0.2f}, {-0.3f, 0.4f}, {0.5f, -0.5f}});
        Masks masks(nFrames, size_t(size.width) * size.height, seed++, true);
        std::vector<float> x = randomVector(fullSize, -1.0f, 1.0f, seed++);
        std::vector<float> actual(fullSize);
        peer.gradient(x, masks.pointers, actual);

        std::vector<float> expected(fullSize);
        const std::vector<float> lc = peer.Lc();
        for (int r = 0; r < H; ++r)
            for (int c = 0; c < W; ++c) {
                const int p = r * W + c;
                const bool up = r > 0, down = r < H - 1, left = c > 0, right = c < W - 1;
                float v = lc[p] * x[p];
                if (right) v += peer.Lr()[p] * x[p + 1];
                if (left) v += peer.Lr()[p - 1] * x[p - 1];
                if (down) v += peer.Ld()[p] * x[p + W];
                if (up) v += peer.Ld()[p - W] * x[p - W];
                if (down && right) v += peer.Ldr()[p] * x[p + W + 1];
                if (up && left) v += peer.Ldr()[p - W - 1] * x[p - W - 1];
                if (down && left) v += peer.Ldl()[p] * x[p + W - 1];
                if (up && right) v += peer.Ldl()[p - W + 1] * x[p - W + 1];
                expected[p] = v;
            }
        SrFloatConvolution conv(size.width * 2, size.height * 2, 6, 6, 2.0f);
        std::vector<float> low(size_t(size.width) * size.height), tmp(fullSize);
        for (int f = 0; f < nFrames; ++f) {
            std::vector<float> px = peer.psfX(f), py = peer.psfY(f);
            conv.validCorrToSparse(x.data(), px.data(), py.data(), low.data());
            conv.fullConvFromSparse(low.data(), px.data(), py.data(), masks.pointers[f], tmp.data());
            for (size_t p = 0; p < fullSize; ++p)
                expected[p] += tmp[p];
        }
#if defined(__FP_FAST_FMAF)
        // With fused multiply-add available the compiler may contract the
        // nine products of the TV stencil differently in the two codes (the
        // convolution passes stay exact, as their own tests show): allow a
        // few units in the last place of the stencil's terms (|x| <= 1, the
        // weights of a row add up to 2 |Lc|).
        for (size_t p = 0; p < fullSize; ++p)
            ASSERT_NEAR(expected[p], actual[p],
                        1e-6f * (2.0f * std::fabs(lc[p]) + std::fabs(expected[p])))
                << "element " << p;
#else
        EXPECT_TRUE(krotest::sameBytes(expected, actual));
#endif
    }
}

// --- Whole solves on frames made with the model itself ---------------------

double psnr(const cv::Mat_<float>& truth, const cv::Mat_<float>& estimate, int margin)
{
    const cv::Rect inner(margin, margin, truth.cols - 2 * margin, truth.rows - 2 * margin);
    double minValue = 0.0, maxValue = 0.0;
    cv::minMaxLoc(truth, &minValue, &maxValue);
    cv::Mat diff;
    cv::subtract(truth(inner), estimate(inner), diff, cv::noArray(), CV_64F);
    const double mse = diff.dot(diff) / inner.area();
    return 10.0 * std::log10((maxValue - minValue) * (maxValue - minValue) / mse);
}

struct Scene {
    Scene(int width_, int height_, std::vector<PointF> shifts_, unsigned seed)
        : width(width_), height(height_), shifts(std::move(shifts_)),
          truth(krotest::texturedScene(2 * height_, 2 * width_, seed))
    {
        // The truth on the padded fine grid (borders replicated), seen
        // through each frame's PSFs.
        SrFloatMinimization model(width, height, static_cast<int>(shifts.size()), 2.0f);
        Peer peer(model);
        peer.generatePsfs(shifts);
        const int o = (model.getPsfSize() - 1) / 2;
        const int extra = model.getPsfSize() - 1 - o;
        cv::Mat_<float> full;
        cv::copyMakeBorder(truth, full, o, extra, o, extra, cv::BORDER_REPLICATE);
        SrFloatConvolution conv(2 * width, 2 * height, 6, 6, 2.0f);
        for (size_t i = 0; i < shifts.size(); ++i) {
            std::vector<float> px = peer.psfX(int(i)), py = peer.psfY(int(i));
            frames.emplace_back(size_t(width) * height);
            conv.validCorrToSparse(full.ptr<float>(), px.data(), py.data(), frames.back().data());
        }
    }

    // Fresh copies of the frames (minimize normalises them in place).
    std::vector<std::vector<float>> copies() const { return frames; }

    int width, height;
    std::vector<PointF> shifts;
    cv::Mat_<float> truth;
    std::vector<std::vector<float>> frames;
};

struct Solve {
    int iterations = 0;
    cv::Mat_<float> output;
    std::vector<std::vector<float>> frames;  // as normalised by minimize
};

Solve solve(SrFloatMinimization& m, const Scene& scene, int refIndex, const Masks& masks)
{
    Solve result;
    result.frames = scene.copies();
    std::vector<float*> framePointers;
    for (auto& f : result.frames)
        framePointers.push_back(f.data());
    std::vector<PointF> shifts = scene.shifts;
    std::vector<char*> maskPointers = masks.pointers;
    result.output.create(2 * scene.height, 2 * scene.width);
    result.iterations = m.minimize(static_cast<int>(framePointers.size()), refIndex,
                                   framePointers.data(), shifts.data(), maskPointers.data(),
                                   result.output.ptr<float>());
    return result;
}

TEST(SrFloatMinimization, ReconstructionBeatsInterpolationOfOneFrame)
{
    const Scene scene(64, 48, kShifts, 11);
    Masks ones(5, size_t(64) * 48, 0, false);
    SrFloatMinimization m(64, 48, 5, 2.0f);
    const Solve result = solve(m, scene, 0, ones);
    EXPECT_GT(result.iterations, 0);
    EXPECT_LE(result.iterations, 8);

    cv::Mat_<float> reference(48, 64, const_cast<float*>(scene.frames[0].data()));
    cv::Mat_<float> bilinear, bicubic;
    cv::resize(reference, bilinear, scene.truth.size(), 0, 0, cv::INTER_LINEAR);
    cv::resize(reference, bicubic, scene.truth.size(), 0, 0, cv::INTER_CUBIC);

    const int margin = 4;
    const double srPsnr = psnr(scene.truth, result.output, margin);
    const double linearPsnr = psnr(scene.truth, bilinear, margin);
    const double cubicPsnr = psnr(scene.truth, bicubic, margin);
    const std::string report = "PSNR super-resolution " + std::to_string(srPsnr) +
                               " dB, bilinear " + std::to_string(linearPsnr) + " dB, bicubic " +
                               std::to_string(cubicPsnr) + " dB after " +
                               std::to_string(result.iterations) + " iterations";
    std::cout << "[          ] " << report << std::endl;
    EXPECT_GT(srPsnr, linearPsnr + 3.0) << report;
    EXPECT_GT(srPsnr, cubicPsnr + 3.0) << report;
}

TEST(SrFloatMinimization, WithoutIterationsTheOutputIsTheBackProjection)
{
    const Scene scene(24, 18, kShifts, 3);
    Masks masks(5, size_t(24) * 18, 21, true);
    SrFloatMinimization m(24, 18, 5, 2.0f);
    m.setMaxIter(0);
    const int refIndex = 2;

    // Mean and standard deviation of the reference, as minimize uses them.
    double sum = 0.0, squares = 0.0;
    for (float v : scene.frames[refIndex])
        sum += v;
    const double mean = sum / scene.frames[refIndex].size();
    for (float v : scene.frames[refIndex])
        squares += (v - mean) * (v - mean);
    const double sigma = std::sqrt(squares / scene.frames[refIndex].size());

    const Solve result = solve(m, scene, refIndex, masks);
    EXPECT_EQ(0, result.iterations);
    for (size_t i = 0; i < scene.frames.size(); ++i)
        for (size_t p = 0; p < scene.frames[i].size(); p += 7)
            ASSERT_NEAR((scene.frames[i][p] - mean) / sigma, result.frames[i][p], 1e-4)
                << "frame " << i << " was not normalised in place";

    // B = sum of A_i^T M_i f_i over the normalised frames.
    Peer peer(m);
    SrFloatConvolution conv(48, 36, 6, 6, 2.0f);
    const int W = conv.getFullWidth();
    std::vector<float> B(size_t(W) * conv.getFullHeight(), 0.0f), tmp(B.size());
    for (size_t i = 0; i < scene.frames.size(); ++i) {
        std::vector<float> px = peer.psfX(int(i)), py = peer.psfY(int(i));
        std::vector<float> frame = result.frames[i];
        conv.fullConvFromSparse(frame.data(), px.data(), py.data(), masks.pointers[i], tmp.data());
        for (size_t p = 0; p < B.size(); ++p)
            B[p] += tmp[p];
    }
    for (int y = 0; y < 36; ++y)
        for (int x = 0; x < 48; ++x) {
            const double expected = B[size_t(y + 2) * W + x + 2] * sigma + mean;
            ASSERT_NEAR(expected, result.output(y, x), 1e-4 * (1.0 + std::fabs(expected)))
                << "at " << y << "," << x;
        }

    // A residue that the back-projection already meets stops the solve at
    // once with the same output.
    SrFloatMinimization loose(24, 18, 5, 2.0f);
    loose.setRelRes(10.0f);
    const Solve immediate = solve(loose, scene, refIndex, masks);
    EXPECT_EQ(0, immediate.iterations);
    EXPECT_IMAGES_EQUAL(result.output, immediate.output);
}

class TraceCounter : public DebugDeviceBase {
public:
    void write(const std::string&, const std::string& message, int) override
    {
        messages.push_back(message);
    }
    int count(const std::string& prefix) const
    {
        int n = 0;
        for (const auto& m : messages)
            n += m.compare(0, prefix.size(), prefix) == 0;
        return n;
    }
    std::vector<std::string> messages;
};

TEST(SrFloatMinimization, SmallIterationsNeverExceedMaxIter)
{
    const Scene scene(20, 16, kShifts, 5);
    Masks ones(5, size_t(20) * 16, 0, false);
    for (int maxIter : {1, 2, 3, 5, 8, 30}) {
        SCOPED_TRACE("maxIter " + std::to_string(maxIter));
        SrFloatMinimization m(20, 16, 5, 2.0f);
        m.setMaxIter(maxIter);
        m.setRelRes(1e-6f);  // never met: every allowed step is taken
        auto device = std::make_shared<TraceCounter>();
        m.setDebugDevice(device);
        m.setOutputLevel(kDebugLevelTrace);
        const Solve result = solve(m, scene, 0, ones);
        EXPECT_EQ(maxIter, result.iterations);
        EXPECT_EQ(result.iterations, device->count("start small iteration: "));
        EXPECT_LE(device->count("start large iteration: "), maxIter);
        ASSERT_FALSE(device->messages.empty());
        EXPECT_EQ("start minimize", device->messages.front());
        EXPECT_EQ("end minimize", device->messages.back());
    }
    // With the default residue the solve may stop early, never late.
    SrFloatMinimization m(20, 16, 5, 2.0f);
    m.setMaxIter(3);
    EXPECT_LE(solve(m, scene, 0, ones).iterations, 3);
}

TEST(SrFloatMinimization, ResultDoesNotDependOnTheThreadCount)
{
    // Large enough for the solve to run on two threads.
    const Scene scene(256, 192, kShifts, 17);
    Masks masks(5, size_t(256) * 192, 8, true);
    SrFloatMinimization m(256, 192, 5, 2.0f);
    const int savedThreads = omp_get_max_threads();
    omp_set_num_threads(1);
    const Solve one = solve(m, scene, 1, masks);
    omp_set_num_threads(2);
    const Solve two = solve(m, scene, 1, masks);
    SrFloatMinimization copy(m);
    const Solve copied = solve(copy, scene, 1, masks);
    omp_set_num_threads(savedThreads);

    EXPECT_EQ(one.iterations, two.iterations);
    auto bytes = [](const cv::Mat_<float>& image) {
        return std::vector<float>(image.begin(), image.end());
    };
    EXPECT_TRUE(krotest::sameBytes(bytes(one.output), bytes(two.output)));
    EXPECT_TRUE(krotest::sameBytes(bytes(one.output), bytes(copied.output)));
}

TEST(SrFloatMinimization, RejectsCallsOutsideItsSizes)
{
    EXPECT_THROW(SrFloatMinimization(16, 12, 0, 2.0f), Exception);
    EXPECT_THROW(SrFloatMinimization(0, 12, 5, 2.0f), Exception);
    EXPECT_THROW(SrFloatMinimization(16, 12, 5, 1.0f), Exception);
    // 3 * 2.5 = 7.5 fine pixels are truncated to 7, which hold only 2 samples.
    EXPECT_THROW(SrFloatMinimization(3, 12, 5, 2.5f), Exception);

    SrFloatMinimization m(8, 6, 2, 2.0f);
    std::vector<float> f0(48, 1.0f), f1(48, 2.0f), out(16 * 12);
    std::vector<float*> frames = {f0.data(), f1.data()};
    std::vector<char> mask(48, 1);
    std::vector<char*> masks = {mask.data(), mask.data()};
    std::vector<PointF> shifts(3);
    EXPECT_THROW(m.minimize(3, 0, frames.data(), shifts.data(), masks.data(), out.data()),
                 Exception);
    EXPECT_THROW(m.minimize(2, 2, frames.data(), shifts.data(), masks.data(), out.data()),
                 Exception);
    EXPECT_THROW(m.minimize(2, -1, frames.data(), shifts.data(), masks.data(), out.data()),
                 Exception);
    EXPECT_THROW(m.minimize(2, 0, frames.data(), shifts.data(), masks.data(), nullptr), Exception);
    masks[1] = nullptr;
    EXPECT_THROW(m.minimize(2, 0, frames.data(), shifts.data(), masks.data(), out.data()),
                 Exception);
}

} // namespace
} // namespace kro
} // namespace velmor
