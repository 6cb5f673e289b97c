#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <memory>
#include <string>
#include <vector>

#include <opencv2/imgproc.hpp>

#include "DebugChannel.h"
#include "Exception.h"
#include "PlainSparseConvolution.h"
#include "ShiftedFrames.h"
#include "SrFloatConvolution.h"
#include "SrFloatMinimization.h"
#include "detail/Parallel.h"
#include "TestImages.h"

namespace velmor {
namespace kro {

// Reaches the private steps of the minimiser.
class SrFloatMinimizationPeer {
public:
    explicit SrFloatMinimizationPeer(SrFloatMinimization& m) : m_(m) {}
    void generatePsfs(std::vector<PointF> shifts) { m_.generatePsfs(int(shifts.size()), shifts.data()); }
    const std::vector<float>& psfX(int i) const { return m_.psfX[i]; }
    const std::vector<float>& psfY(int i) const { return m_.psfY[i]; }
    std::vector<float>& U() { return m_.U; }
    void computeL()
    {
        parallel::parallelRegion(1, [&](const parallel::Team& team) { m_.computeL(team); });
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
    return cv::Mat_<float>(krotest::randomImage(1, static_cast<int>(n), CV_32F, low, high, seed));
}

// One mask per frame: all ones, or about a third of the samples dropped.
struct Masks {
    Masks(int count, int size, unsigned seed, bool random)
    {
        for (int i = 0; i < count; ++i) {
            cv::Mat mask(1, size, CV_8S, cv::Scalar(1));
            if (random)
                mask = cv::min(krotest::randomImage(1, size, CV_8S, 0, 3, seed + i), 1);
            storage.push_back(mask);
            pointers.push_back(mask.ptr<char>());
        }
    }
    std::vector<cv::Mat> storage;
    std::vector<char*> pointers;
};

const std::vector<PointF> kShifts = {{0.0f, 0.0f}, {0.5f, 0.0f}, {0.0f, 0.5f}, {0.5f, 0.5f}, {0.25f, -0.25f}};

TEST(SrFloatMinimization, PsfsAreTheNormalisedPixelIntegratedGaussianMovedByTheShift)
{
    SrFloatMinimization m(16, 12, 5, 2.0f);
    const std::vector<float> psf = m.getBasePsf();
    // Integrals of a Gaussian of sigma 0.683 over [0,1] and [1,2], normalised
    // by their sum (the approximation of erf is good to about 1e-4); the
    // outer taps are exactly 0 and leave room for the shift.
    const double s = std::sqrt(2.0) * 0.683;
    const double e1 = std::erf(1.0 / s), inner = 0.5 * e1, outer = 0.5 * (std::erf(2.0 / s) - e1);
    const double expected[] = {0.0, outer, inner, inner, outer, 0.0};
    ASSERT_EQ(6u, psf.size());
    for (int k = 0; k < 6; ++k) {
        EXPECT_NEAR(expected[k] / (2 * (inner + outer)), psf[k], k % 5 ? 2e-4 : 0.0) << "tap " << k;
        EXPECT_EQ(psf[k], psf[5 - k]) << "tap " << k;
    }

    // The PSF of a frame shifted by +s samples the fine grid s*factor pixels
    // earlier, keeping the sum 1; an unshifted frame gets the base PSF itself.
    Peer peer(m);
    peer.generatePsfs({{0.0f, 0.0f}, {0.3f, -0.2f}, {-0.5f, 0.5f}});
    EXPECT_EQ(psf, peer.psfX(0));
    EXPECT_EQ(psf, peer.psfY(0));
    const struct { int frame; bool x; float shift; } cases[] = {
        {1, true, 0.3f}, {1, false, -0.2f}, {2, true, -0.5f}, {2, false, 0.5f}};
    for (const auto& c : cases) {
        const std::vector<float>& taps = c.x ? peer.psfX(c.frame) : peer.psfY(c.frame);
        double sum = 0.0, moment = 0.0;
        for (size_t k = 0; k < taps.size(); ++k) {
            sum += taps[k];
            moment += k * taps[k];
        }
        EXPECT_NEAR(1.0, sum, 1e-6) << "frame " << c.frame;
        EXPECT_NEAR(2.5 - 2.0 * c.shift, moment / sum, 1e-5) << "frame " << c.frame;
    }

    // A wider sigma rebuilds the base PSF with more weight outwards.
    m.setPsfSigma(1.5f);
    EXPECT_GT(m.getBasePsf()[4], psf[4] + 0.05f);
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
    // half that on the diagonals; 0 towards neighbours outside the grid.
    const float straight = -0.0025f / 0.1f, diagonal = 0.5f * -0.0025f / 0.1f;
    for (int y = 0; y < H; ++y)
        for (int x = 0; x < W; ++x) {
            const int p = y * W + x;
            const bool lastRow = y == H - 1, lastCol = x == W - 1;
            ASSERT_EQ(lastCol ? 0.0f : straight, peer.Lr()[p]) << y << "," << x;
            ASSERT_EQ(lastRow ? 0.0f : straight, peer.Ld()[p]) << y << "," << x;
            ASSERT_EQ(lastRow || lastCol ? 0.0f : diagonal, peer.Ldr()[p]) << y << "," << x;
            ASSERT_EQ(lastRow || x == 0 ? 0.0f : diagonal, peer.Ldl()[p]) << y << "," << x;
        }

    // A jump larger than 1/epsilon is clamped to 1/epsilon = 10; diagonal
    // differences are divided by sqrt(2).
    peer.U()[5 * W + 7] = 5.0f + 1000.0f;
    peer.computeL();
    EXPECT_FLOAT_EQ(-0.0025f / 10.0f, peer.Lr()[5 * W + 6]);
    EXPECT_FLOAT_EQ(-0.0025f / 10.0f, peer.Ld()[4 * W + 7]);
    peer.U()[5 * W + 7] = 5.5f;
    peer.computeL();
    EXPECT_FLOAT_EQ(-0.0025f / 0.5f, peer.Lr()[5 * W + 6]);
    EXPECT_FLOAT_EQ(0.5f * -0.0025f / (0.5f / std::sqrt(2.0f)), peer.Ldr()[4 * W + 6]);
}

// The fused operator equals the plain composition: L x, then for each frame
// the model and its transpose through SrFloatConvolution, added frame by
// frame. It is also symmetric and positive semi-definite, as conjugate
// gradients need.
TEST(SrFloatMinimization, OperatorIsTheSymmetricCompositionOfItsParts)
{
    struct Size { int width, height; };
    unsigned seed = 40;
    for (const Size& size : {Size{13, 11}, Size{20, 9}, Size{1, 1}, Size{5, 1}, Size{32, 24}}) {
        SCOPED_TRACE(std::to_string(size.width) + "x" + std::to_string(size.height));
        const int nFrames = 3;
        SrFloatMinimization m(size.width, size.height, nFrames, 2.0f);
        Peer peer(m);
        const int W = m.getFullWidth(), H = m.getFullHeight();
        const size_t fullSize = size_t(W) * H;
        peer.U() = randomVector(fullSize, -3.0f, 3.0f, seed++);
        peer.computeL();
        peer.generatePsfs({{0.1f, 0.2f}, {-0.3f, 0.4f}, {0.5f, -0.5f}});
        Masks masks(nFrames, size.width * size.height, seed++, true);
        std::vector<float> x = randomVector(fullSize, -1.0f, 1.0f, seed++);
        std::vector<float> y = randomVector(fullSize, -1.0f, 1.0f, seed++);
        std::vector<float> actual(fullSize), gy(fullSize), expected(fullSize), lc(fullSize);
        peer.gradient(x, masks.pointers, actual);
        peer.gradient(y, masks.pointers, gy);

        // L x with the neighbours outside the grid omitted; the centre weight
        // is minus the sum of the weights to the neighbours inside the grid
        // (so that every row of L sums to zero), added in the operator's order.
        const std::vector<float>& Lr = peer.Lr();
        const std::vector<float>& Ld = peer.Ld();
        const std::vector<float>& Ldl = peer.Ldl();
        const std::vector<float>& Ldr = peer.Ldr();
        for (int r = 0; r < H; ++r)
            for (int c = 0; c < W; ++c) {
                const int p = r * W + c;
                const bool up = r > 0, down = r < H - 1, left = c > 0, right = c < W - 1;
                float sum = 0.0f;
                if (right) sum += Lr[p];
                if (down) sum += Ld[p];
                if (down && left) sum += Ldl[p];
                if (down && right) sum += Ldr[p];
                if (left) sum += Lr[p - 1];
                if (up) sum += Ld[p - W];
                if (up && left) sum += Ldr[p - W - 1];
                if (up && right) sum += Ldl[p - W + 1];
                lc[p] = -sum;
                float v = lc[p] * x[p];
                if (right) v += Lr[p] * x[p + 1];
                if (left) v += Lr[p - 1] * x[p - 1];
                if (down) v += Ld[p] * x[p + W];
                if (up) v += Ld[p - W] * x[p - W];
                if (down && right) v += Ldr[p] * x[p + W + 1];
                if (up && left) v += Ldr[p - W - 1] * x[p - W - 1];
                if (down && left) v += Ldl[p] * x[p + W - 1];
                if (up && right) v += Ldl[p - W + 1] * x[p - W + 1];
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
            ASSERT_NEAR(expected[p], actual[p], 1e-6f * (2.0f * std::fabs(lc[p]) + std::fabs(expected[p])))
                << "element " << p;
#else
        EXPECT_TRUE(krotest::sameBytes(expected, actual));
#endif
        const double scale = std::sqrt(krotest::dot(actual, actual) * krotest::dot(y, y));
        EXPECT_NEAR(krotest::dot(actual, y), krotest::dot(x, gy), 1e-6 * scale);
        EXPECT_GE(krotest::dot(actual, x), -1e-6 * scale);
    }
}

// --- Whole solves on frames made with the model itself ---------------------

struct Scene {
    Scene(int width_, int height_, cv::Mat_<float> truth_) : width(width_), height(height_), truth(truth_)
    {
        // The truth on the padded fine grid (borders replicated), seen
        // through each frame's PSFs.
        SrFloatMinimization model(width, height, static_cast<int>(kShifts.size()), 2.0f);
        Peer peer(model);
        peer.generatePsfs(kShifts);
        cv::Mat_<float> full;  // the 6 PSF taps reach 2 pixels before a sample and 3 after
        cv::copyMakeBorder(truth, full, 2, 3, 2, 3, cv::BORDER_REPLICATE);
        SrFloatConvolution conv(2 * width, 2 * height, 6, 6, 2.0f);
        for (size_t i = 0; i < kShifts.size(); ++i) {
            psfX.push_back(peer.psfX(int(i)));
            psfY.push_back(peer.psfY(int(i)));
            frames.emplace_back(size_t(width) * height);
            conv.validCorrToSparse(full.ptr<float>(), psfX[i].data(), psfY[i].data(), frames[i].data());
        }
    }
    int width, height;
    cv::Mat_<float> truth;
    std::vector<std::vector<float>> psfX, psfY, frames;
};

struct Solve {
    int iterations = 0;
    cv::Mat_<float> output;
};

Solve solve(SrFloatMinimization& m, const Scene& scene, int refIndex, const Masks& masks)
{
    std::vector<std::vector<float>> frames = scene.frames;  // minimize normalises them in place
    std::vector<float*> framePointers;
    for (auto& f : frames)
        framePointers.push_back(f.data());
    std::vector<PointF> shifts = kShifts;
    std::vector<char*> maskPointers = masks.pointers;
    Solve result;
    result.output.create(2 * scene.height, 2 * scene.width);
    result.iterations = m.minimize(static_cast<int>(frames.size()), refIndex, framePointers.data(),
                                   shifts.data(), maskPointers.data(), result.output.ptr<float>());
    return result;
}

// Large enough for the solve to run on every thread asked for.
TEST(SrFloatMinimization, ReconstructionBeatsBicubicWithTheSameBytesWhateverTheThreadCountAndInCopies)
{
    // Tiles of a scene of the small size keep its detail at the pixel scale.
    const Scene scene(256, 192, cv::repeat(krotest::texturedScene(96, 128, 17), 4, 4));
    Masks masks(5, 256 * 192, 0, false);
    SrFloatMinimization m(256, 192, 5, 2.0f);
    ASSERT_TRUE(m.setThreads(1));
    const Solve one = solve(m, scene, 1, masks);
    EXPECT_EQ(m.getLastThreadCount(), 1);
    ASSERT_TRUE(m.setThreads(2));
    const Solve two = solve(m, scene, 1, masks);
    EXPECT_EQ(m.getLastThreadCount(), 2);
    SrFloatMinimization copy(m);
    ASSERT_TRUE(copy.setThreads(7));
    EXPECT_FALSE(copy.setThreads(-1));
    const Solve copied = solve(copy, scene, 1, masks);
    EXPECT_EQ(copy.getLastThreadCount(), 7);

    EXPECT_EQ(one.iterations, two.iterations);
    const std::vector<float> bytes = cv::Mat_<float>(one.output.reshape(1, 1));
    EXPECT_TRUE(krotest::sameBytes(bytes, cv::Mat_<float>(two.output.reshape(1, 1))));
    EXPECT_TRUE(krotest::sameBytes(bytes, cv::Mat_<float>(copied.output.reshape(1, 1))));

    cv::Mat_<float> bicubic;
    cv::resize(cv::Mat_<float>(192, 256, const_cast<float*>(scene.frames[0].data())), bicubic,
               scene.truth.size(), 0, 0, cv::INTER_CUBIC);
    double low = 0.0, high = 0.0;
    cv::minMaxLoc(scene.truth, &low, &high);
    const double srPsnr = krotest::psnr(scene.truth, one.output, high - low, 4);
    const double cubicPsnr = krotest::psnr(scene.truth, bicubic, high - low, 4);
    EXPECT_GT(srPsnr, cubicPsnr + 3.0) << "super-resolution " << srPsnr << " dB, bicubic "
                                       << cubicPsnr << " dB after " << one.iterations << " iterations";
}

class TraceRecorder : public DebugDeviceBase {
public:
    void write(const std::string&, const std::string& message, int) override { messages.push_back(message); }
    long count(const std::string& prefix) const
    {
        return std::count_if(messages.begin(), messages.end(),
                             [&](const std::string& m) { return m.rfind(prefix, 0) == 0; });
    }
    std::vector<std::string> messages;
};

// maxIter bounds the small iterations; without any the output is the
// back-projection B = sum of A_i^T M_i f_i of the frames normalised by the
// reference's mean and standard deviation, brought back to the reference's
// range, and so it is when the back-projection already meets the residue.
TEST(SrFloatMinimization, IterationsStopAtMaxIterAndNoneGiveTheBackProjection)
{
    const Scene scene(24, 18, krotest::texturedScene(36, 48, 3));
    Masks masks(5, 24 * 18, 21, true);
    const int refIndex = 2;
    Solve backProjection;
    for (int maxIter : {0, 1, 2, 3, 5, 8, 30}) {
        SCOPED_TRACE("maxIter " + std::to_string(maxIter));
        SrFloatMinimization m(24, 18, 5, 2.0f);
        m.setMaxIter(maxIter);
        m.setRelRes(1e-6f);  // never met: every allowed step is taken
        auto device = std::make_shared<TraceRecorder>();
        m.setDebugDevice(device);
        m.setOutputLevel(kDebugLevelTrace);
        const Solve result = solve(m, scene, refIndex, masks);
        EXPECT_EQ(maxIter, result.iterations);
        EXPECT_EQ(maxIter, device->count("start small iteration: "));
        EXPECT_LE(device->count("start large iteration: "), maxIter);
        EXPECT_EQ("start minimize", device->messages.at(0));
        EXPECT_EQ("end minimize", device->messages.back());
        if (maxIter == 0)
            backProjection = result;
    }

    // Population mean and standard deviation, as minimize uses them.
    cv::Scalar mean, sigma;
    cv::meanStdDev(cv::Mat_<float>(scene.frames[refIndex], false), mean, sigma);
    SrFloatConvolution conv(48, 36, 6, 6, 2.0f);
    const int W = conv.getFullWidth();
    std::vector<float> B(size_t(W) * conv.getFullHeight(), 0.0f), tmp(B.size());
    for (size_t i = 0; i < scene.frames.size(); ++i) {
        std::vector<float> px = scene.psfX[i], py = scene.psfY[i], frame = scene.frames[i];
        for (float& v : frame)
            v = static_cast<float>((v - mean[0]) / sigma[0]);
        conv.fullConvFromSparse(frame.data(), px.data(), py.data(), masks.pointers[i], tmp.data());
        for (size_t p = 0; p < B.size(); ++p)
            B[p] += tmp[p];
    }
    for (int y = 0; y < 36; ++y)
        for (int x = 0; x < 48; ++x) {
            const double expected = B[size_t(y + 2) * W + x + 2] * sigma[0] + mean[0];
            ASSERT_NEAR(expected, backProjection.output(y, x), 1e-4 * (1.0 + std::fabs(expected)))
                << "at " << y << "," << x;
        }

    SrFloatMinimization loose(24, 18, 5, 2.0f);
    loose.setRelRes(10.0f);
    const Solve immediate = solve(loose, scene, refIndex, masks);
    EXPECT_EQ(0, immediate.iterations);
    EXPECT_IMAGES_EQUAL(backProjection.output, immediate.output);
}

TEST(SrFloatMinimization, RejectsCallsOutsideItsSizes)
{
    EXPECT_THROW(SrFloatMinimization(16, 12, 0, 2.0f), Exception);
    // 3 * 2.5 = 7.5 fine pixels are truncated to 7, which hold only 2 samples.
    EXPECT_THROW(SrFloatMinimization(3, 12, 5, 2.5f), Exception);

    SrFloatMinimization m(8, 6, 2, 2.0f);
    std::vector<float> f0(48, 1.0f), f1(48, 2.0f), out(16 * 12);
    std::vector<float*> frames = {f0.data(), f1.data()};
    std::vector<char> mask(48, 1);
    std::vector<char*> masks = {mask.data(), mask.data()};
    std::vector<PointF> shifts(3);
    auto call = [&](int n, int ref, float* output) { m.minimize(n, ref, frames.data(), shifts.data(), masks.data(), output); };
    EXPECT_THROW(call(3, 0, out.data()), Exception);
    EXPECT_THROW(call(2, 2, out.data()), Exception);
    EXPECT_THROW(call(2, -1, out.data()), Exception);
    EXPECT_THROW(call(2, 0, nullptr), Exception);
    masks[1] = nullptr;
    EXPECT_THROW(call(2, 0, out.data()), Exception);
}

} // namespace
} // namespace kro
} // namespace velmor
