#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cmath>
#include <memory>
#include <string>
#include <vector>

#include <opencv2/imgproc.hpp>

#include "DebugChannel.h"
#include "Exception.h"
#include "ShiftedFrames.h"
#include "SrFloatConvolution.h"
#include "SrFloatMinimization.h"
#include "SrIntMinimization.h"
#include "TestImages.h"
#include "detail/GaussianPsf.h"
#include "detail/Parallel.h"
#include "detail/SrIntSolveState.h"

namespace velmor {
namespace kro {

// Runs the operator of the minimiser on given vectors.
class SrIntMinimizationPeer {
public:
    explicit SrIntMinimizationPeer(SrIntMinimization& m) : m_(m) {}

    // (sum_i A_i^T M_i A_i + L) x, in the units of x, with the TV weights of
    // the estimate u for a reference frame of standard deviation `sigma`
    // (data units); u and x are full-grid images, x within [-16384, 16383].
    cv::Mat_<double> apply(const cv::Mat_<short>& u, const cv::Mat_<short>& x, double sigma,
                           const std::vector<cv::Mat_<signed char>>& masks)
    {
        const int nFrames = static_cast<int>(masks.size());
        const std::size_t lowSize = std::size_t(m_.width) * m_.height;
        for (int f = 0; f < nFrames; ++f)
            for (std::size_t p = 0; p < lowSize; ++p)
                m_.maskWords[f * lowSize + p] = masks[f](static_cast<int>(p)) ? -1 : 0;
        std::copy(u.begin(), u.end(), m_.plane(m_.U));
        std::copy(x.begin(), x.end(), m_.plane(m_.S));
        int xMax = 0;
        for (short v : x)
            xMax = std::max(xMax, std::abs(int(v)));
        SrIntMinimization::Solve solve;
        m_.prepareWeights(solve);
        solve.sigma = sigma;
        m_.layoutTables(solve);
        m_.fillWeightTables(solve);
        SrIntMinimization::Scale scale;
        parallel::parallelRegion(1, [&](const parallel::Team& team) {
            m_.computeL(team, solve);
            scale = m_.applyOperator(team, solve, m_.plane(m_.S), xMax, nFrames, nullptr, m_.plane(m_.Q),
                                     SrIntMinimization::RowFinish::Plain);
        });
        cv::Mat_<double> out(u.size());
        const short* q = m_.plane(m_.Q);
        for (std::size_t p = 0; p < out.total(); ++p)
            out(static_cast<int>(p)) = std::ldexp(double(q[p]), scale.exponent);
        return out;
    }

private:
    SrIntMinimization& m_;
};

namespace {

// Opens the protected helpers.
class OpenMinimization : public SrIntMinimization {
public:
    OpenMinimization() : SrIntMinimization(4, 4, 1, 2) {}
    using SrIntMinimization::convToXBitMantissa;
    using SrIntMinimization::shiftToFactor;
};

Fixpoint fixpoint(short mantissa, signed char exponent, signed char width)
{
    Fixpoint f;
    f.setExponentWidth(width);
    f.setMantissa(mantissa);
    f.setExponent(exponent);
    return f;
}

template <class F>
std::string thrownMessage(F&& call, std::string* where = nullptr)
{
    try {
        call();
    } catch (const Exception& e) {
        if (where)
            *where = e.where();
        return e.what();
    }
    return "(nothing thrown)";
}

TEST(SrIntMinimization, ShiftToFactorDoublesA32BitPatternCountedIn8Bits)
{
    OpenMinimization m;
    EXPECT_EQ(1, m.shiftToFactor(0));
    EXPECT_EQ(2, m.shiftToFactor(1));
    EXPECT_EQ(32768, m.shiftToFactor(15));
    EXPECT_EQ(1 << 30, m.shiftToFactor(30));
    EXPECT_EQ(INT_MIN, m.shiftToFactor(31));  // the pattern 0x80000000
    EXPECT_EQ(0, m.shiftToFactor(32));
    EXPECT_EQ(0, m.shiftToFactor(127));
    EXPECT_EQ(0, m.shiftToFactor(-1));  // 255 doublings
    EXPECT_EQ(0, m.shiftToFactor(-128));
}

TEST(SrIntMinimization, ConvToXBitMantissaMovesTheExponentWithinItsWidth)
{
    OpenMinimization m;
    struct Case { short m; signed char e, width; unsigned char bits; short m2; signed char e2; };
    // Width 7: exponents -64 .. 63.
    for (const Case& c : {Case{1, 0, 7, 15, 16384, -14}, Case{0, 5, 7, 15, 0, -64}, Case{-64, 3, 7, 15, -64, 3},
                          Case{-1, 0, 7, 4, -1, 0}, Case{3000, 0, 7, 12, 3000, 0}, Case{20000, -3, 7, 12, 2500, 0},
                          Case{1, -60, 7, 15, 16, -64}, Case{5, 0, 8, 3, 5, 0}, Case{1, 0, 8, 1, 1, 0}}) {
        SCOPED_TRACE(std::to_string(c.m) + "*2^" + std::to_string(c.e) + " to " + std::to_string(c.bits) + " bits");
        const Fixpoint r = m.convToXBitMantissa(fixpoint(c.m, c.e, c.width), c.bits);
        EXPECT_EQ(c.m2, r.getMantissa());
        EXPECT_EQ(c.e2, r.getExponent());
        EXPECT_EQ(Fixpoint().getExponentWidth(), r.getExponentWidth());
    }

    std::string where;
    EXPECT_EQ("int32 below possible range of fixpoint",
              thrownMessage([&] { m.convToXBitMantissa(fixpoint(-65, 0, 7), 15); }, &where));
    EXPECT_NE(std::string::npos, where.find("velmor::kro::SrIntMinimization::convToXBitMantissa")) << where;
    // Every mantissa below -64 is refused, whatever the width.
    EXPECT_EQ("int32 below possible range of fixpoint",
              thrownMessage([&] { m.convToXBitMantissa(fixpoint(-20000, -60, 8), 16); }));
    // 1000 needs six halvings to fit 4 bits and gets only three before the
    // largest exponent, 63.
    EXPECT_EQ("int32 above possible range of fixpoint",
              thrownMessage([&] { m.convToXBitMantissa(fixpoint(1000, 60, 7), 4); }));
    const Fixpoint fits = m.convToXBitMantissa(fixpoint(1000, 56, 7), 4);
    EXPECT_EQ(15, fits.getMantissa());
    EXPECT_EQ(62, fits.getExponent());
}

TEST(SrIntMinimization, WeightTVIsAccepted1To600AndKeptAsAnInteger)
{
    SrIntMinimization m(8, 6, 2, 2);
    EXPECT_EQ(400.0f, m.getWeightTV());
    for (float bad : {0.999f, 600.5f, -3.0f, NAN, INFINITY}) {
        std::string where;
        EXPECT_EQ("invalid value given for setWeightTV (allowed: 1-600)",
                  thrownMessage([&] { m.setWeightTV(bad); }, &where)) << bad;
        EXPECT_NE(std::string::npos, where.find("velmor::kro::SrIntMinimization::setWeightTV")) << where;
        EXPECT_EQ(400.0f, m.getWeightTV());
    }
    m.setWeightTV(600.0f);
    EXPECT_EQ(600.0f, m.getWeightTV());
    m.setWeightTV(1.0f);
    EXPECT_EQ(1.0f, m.getWeightTV());
    m.setWeightTV(250.9f);
    EXPECT_EQ(250.0f, m.getWeightTV());
}

// The operator is the float engine's (sum_i A_i^T M_i A_i + L) with TV
// weights -1 / (weightTV * clamp(|difference| / sigma, epsilon, 1/epsilon)),
// half of it on the diagonals over a distance of sqrt(2): here with the TV
// term dominating (weight 1), so that its scale is pinned. The weight table
// holds each weight for the middle of a bin of differences, which is off by
// at most half a bin over epsilon * sigma (here 2 %); the data term is off by
// the PSF taps' 16-bit rounding and a few units of the passes' roundings.
TEST(SrIntMinimization, OperatorIsTheFloatModelWithinTheTablesAndRoundings)
{
    const int w = 21, h = 13, nFrames = 3;
    SrIntMinimization m(w, h, nFrames, 2);
    m.setWeightTV(1.0f);
    m.setEpsilon(0.25f);
    const std::vector<PointF> shifts = {{0.1f, -0.3f}, {-0.5f, 0.2f}, {0.45f, 0.5f}};
    m.generatePsfs(nFrames, shifts.data());
    const int W = m.getFullWidth(), H = m.getFullHeight();
    // A smooth estimate with steps of all sizes against sigma = 3000.
    cv::Mat_<short> u(H, W), x(H, W);
    const double sigma = 3000.0;
    cv::Mat_<float> smooth = krotest::texturedScene(H, W, 4) * 20.0f - 10000.0f;
    smooth.convertTo(u, CV_16S);
    cv::Mat(krotest::randomImage(H, W, CV_32S, -16384, 16384, 9)).convertTo(x, CV_16S);
    std::vector<cv::Mat_<signed char>> masks;
    for (int f = 0; f < nFrames; ++f)
        masks.push_back(cv::Mat_<signed char>(cv::min(krotest::randomImage(h, w, CV_8S, 0, 3, 30 + f), 1)));
    const cv::Mat_<double> actual = SrIntMinimizationPeer(m).apply(u, x, sigma, masks);

    // The model in double.
    cv::Mat_<double> data(H, W, 0.0), tv(H, W, 0.0), tvAbs(H, W, 0.0);
    float base[6];
    detail::buildBasePsf(0.683f, 2.0f, 6, base);
    for (int f = 0; f < nFrames; ++f) {
        float px[6], py[6];
        detail::shiftPsf(base, 6, 2.0f * shifts[f].x, px);
        detail::shiftPsf(base, 6, 2.0f * shifts[f].y, py);
        for (int i = 0; i < h; ++i)
            for (int j = 0; j < w; ++j) {
                if (!masks[f](i, j))
                    continue;
                double sample = 0.0;
                for (int k = 0; k < 6; ++k)
                    for (int l = 0; l < 6; ++l)
                        sample += double(py[k]) * px[l] * x(2 * i + k, 2 * j + l);
                for (int k = 0; k < 6; ++k)
                    for (int l = 0; l < 6; ++l)
                        data(2 * i + k, 2 * j + l) += double(py[k]) * px[l] * sample;
            }
    }
    const double eps = 0.25;
    auto weight = [&](int y0, int x0, int y1, int x1, double distance) {
        const double d = std::abs(double(u(y1, x1)) - u(y0, x0)) / (sigma * distance);
        return 1.0 / (distance * distance * std::min(std::max(d, eps), 1.0 / eps));
    };
    const int offsets[8][2] = {{0, 1}, {0, -1}, {1, 0}, {-1, 0}, {1, 1}, {-1, -1}, {1, -1}, {-1, 1}};
    for (int y = 0; y < H; ++y)
        for (int c = 0; c < W; ++c)
            for (const auto& o : offsets) {
                const int ny = y + o[0], nx = c + o[1];
                if (ny < 0 || ny >= H || nx < 0 || nx >= W)
                    continue;
                // 0.5 / clamp(d / sqrt(2)) on the diagonals.
                const double wgt = weight(y, c, ny, nx, o[0] && o[1] ? std::sqrt(2.0) : 1.0);
                tv(y, c) += wgt * (double(x(y, c)) - x(ny, nx));
                tvAbs(y, c) += std::abs(wgt * (double(x(y, c)) - x(ny, nx)));
            }
    double largestTv = 0.0;
    for (int y = 0; y < H; ++y)
        for (int c = 0; c < W; ++c) {
            const double expected = data(y, c) + tv(y, c);
            const double tolerance = 0.02 * tvAbs(y, c) + 1e-3 * std::abs(data(y, c)) + 8.0;
            ASSERT_NEAR(expected, actual(y, c), tolerance) << "at " << y << "," << c;
            largestTv = std::max(largestTv, std::abs(tv(y, c)));
        }
    EXPECT_GT(largestTv, 10 * 16384.0);  // the TV term dominates
}

// --- Whole solves --------------------------------------------------------

const std::vector<PointF> kShifts = {{0.0f, 0.0f}, {0.5f, 0.0f}, {0.0f, 0.5f}, {0.5f, 0.5f}, {0.25f, -0.25f}};

// Five frames made with the model (the float engine's PSFs and sparse
// grid) from a known fine image, with a little sensor noise, rounded to
// integers as the fixed-point engine receives them.
struct Scene {
    Scene(int width_, int height_, const cv::Mat_<float>& truth_, double noise, double offset = 0.0)
        : width(width_), height(height_), truth(truth_ + offset)
    {
        cv::Mat_<float> full;  // the six taps reach 2 pixels before a sample and 3 after
        cv::copyMakeBorder(truth, full, 2, 3, 2, 3, cv::BORDER_REPLICATE);
        SrFloatConvolution conv(2 * width, 2 * height, 6, 6, 2.0f);
        float base[6];
        detail::buildBasePsf(0.683f, 2.0f, 6, base);
        cv::RNG rng(99);
        for (const PointF& s : kShifts) {
            float px[6], py[6];
            detail::shiftPsf(base, 6, 2.0f * s.x, px);
            detail::shiftPsf(base, 6, 2.0f * s.y, py);
            cv::Mat_<float> frame(height, width);
            conv.validCorrToSparse(full.ptr<float>(), px, py, frame.ptr<float>());
            for (float& v : frame)
                v = std::round(v + static_cast<float>(rng.gaussian(noise)));
            frames.push_back(frame);
            masks.emplace_back(height, width, static_cast<signed char>(1));
        }
    }
    int width, height;
    cv::Mat_<float> truth;
    std::vector<cv::Mat_<float>> frames;
    std::vector<cv::Mat_<signed char>> masks;
};

struct Result {
    int iterations = 0;
    cv::Mat_<float> output;
};

Result solveInt(SrIntMinimization& m, const Scene& scene, int refIndex = 0)
{
    Result r;
    r.output.create(2 * scene.height, 2 * scene.width);
    m.generatePsfs(static_cast<int>(kShifts.size()), kShifts.data());
    r.iterations = m.minimize(static_cast<int>(scene.frames.size()), refIndex, scene.frames, scene.masks, r.output);
    return r;
}

Result solveFloat(SrFloatMinimization& m, const Scene& scene, int refIndex = 0)
{
    std::vector<cv::Mat_<float>> frames;
    std::vector<float*> framePointers;
    std::vector<char*> maskPointers;
    for (std::size_t i = 0; i < scene.frames.size(); ++i) {
        frames.push_back(scene.frames[i].clone());  // normalised in place
        framePointers.push_back(frames.back().ptr<float>());
        maskPointers.push_back(reinterpret_cast<char*>(const_cast<signed char*>(scene.masks[i].ptr<signed char>())));
    }
    std::vector<PointF> shifts = kShifts;
    Result r;
    r.output.create(2 * scene.height, 2 * scene.width);
    r.iterations = m.minimize(static_cast<int>(frames.size()), refIndex, framePointers.data(), shifts.data(),
                              maskPointers.data(), r.output.ptr<float>());
    return r;
}

double psnr(const Scene& scene, const cv::Mat_<float>& image)
{
    double low = 0.0, high = 0.0;
    cv::minMaxLoc(scene.truth, &low, &high);
    return krotest::psnr(scene.truth, image, high - low, 4);
}

// The fixed-point solve reaches the float solve's quality on frames made
// with the model, with the same bytes whatever the thread count, in copies
// too; and the split is real (the grid is large enough to be shared).
TEST(SrIntMinimization, ReconstructsAsWellAsTheFloatSolveWithTheSameBytesOnAnyThreadCount)
{
    const Scene scene(256, 192, cv::repeat(krotest::texturedScene(96, 128, 17), 4, 4), 2.0);
    SrFloatMinimization reference(256, 192, 5, 2.0f);
    const Result floatResult = solveFloat(reference, scene);

    SrIntMinimization m(256, 192, 5, 2);
    ASSERT_TRUE(m.setThreads(1));
    const Result one = solveInt(m, scene);
    EXPECT_EQ(1, m.getLastThreadCount());
    ASSERT_TRUE(m.setThreads(2));
    const Result two = solveInt(m, scene);
    EXPECT_EQ(2, m.getLastThreadCount());
    SrIntMinimization copy(m);
    ASSERT_TRUE(copy.setThreads(7));
    EXPECT_FALSE(copy.setThreads(-1));
    const Result seven = solveInt(copy, scene);
    EXPECT_EQ(7, copy.getLastThreadCount());

    EXPECT_GT(one.iterations, 0);
    EXPECT_EQ(one.iterations, m.getCumIters());
    EXPECT_EQ(one.iterations, two.iterations);
    EXPECT_EQ(one.iterations, seven.iterations);
    EXPECT_IMAGES_EQUAL(one.output, two.output);
    EXPECT_IMAGES_EQUAL(one.output, seven.output);

    const double intPsnr = psnr(scene, one.output);
    const double floatPsnr = psnr(scene, floatResult.output);
    cv::Mat_<float> bicubic;
    cv::resize(scene.frames[0], bicubic, scene.truth.size(), 0, 0, cv::INTER_CUBIC);
    EXPECT_GT(intPsnr, floatPsnr - 0.3) << "fixed point " << intPsnr << " dB (" << one.iterations
                                        << " iterations), float " << floatPsnr << " dB ("
                                        << floatResult.iterations << ")";
    EXPECT_GT(intPsnr, psnr(scene, bicubic) + 3.0);
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

// Misfit of an estimate to the frames through the model: the data term the
// solve minimises, measured with the float engine's operator.
double dataMisfit(const Scene& scene, const cv::Mat_<float>& estimate)
{
    cv::Mat_<float> full;
    cv::copyMakeBorder(estimate, full, 2, 3, 2, 3, cv::BORDER_REPLICATE);
    SrFloatConvolution conv(2 * scene.width, 2 * scene.height, 6, 6, 2.0f);
    float base[6];
    detail::buildBasePsf(0.683f, 2.0f, 6, base);
    double sum = 0.0;
    for (std::size_t i = 0; i < kShifts.size(); ++i) {
        float px[6], py[6];
        detail::shiftPsf(base, 6, 2.0f * kShifts[i].x, px);
        detail::shiftPsf(base, 6, 2.0f * kShifts[i].y, py);
        cv::Mat_<float> predicted(scene.height, scene.width);
        conv.validCorrToSparse(full.ptr<float>(), px, py, predicted.ptr<float>());
        sum += cv::norm(predicted, scene.frames[i], cv::NORM_L2SQR);
    }
    return sum;
}

// maxIter bounds the small iterations, and each allowed step fits the
// frames better; none gives the back-projection, as does a residue that the
// back-projection already meets.
TEST(SrIntMinimization, IterationsStopAtMaxIterAndReduceTheMisfit)
{
    const Scene scene(40, 30, krotest::texturedScene(60, 80, 3), 2.0, 5000.0);
    double previous = 0.0;
    Result none;
    for (short maxIter : {0, 1, 2, 4, 8}) {
        SCOPED_TRACE("maxIter " + std::to_string(maxIter));
        SrIntMinimization m(40, 30, 5, 2);
        m.setMaxIter(maxIter);
        m.setRelRes(1e-6f);  // never met: every allowed step is taken
        auto device = std::make_shared<TraceRecorder>();
        m.setDebugDevice(device);
        m.setOutputLevel(kDebugLevelTrace);
        const Result result = solveInt(m, scene, 2);
        EXPECT_EQ(maxIter, result.iterations);
        EXPECT_EQ(maxIter, device->count("start small iteration: "));
        EXPECT_LE(device->count("start large iteration: "), std::max<int>(maxIter, 1));
        EXPECT_EQ("start minimize", device->messages.at(0));
        EXPECT_EQ("end minimize", device->messages.back());
        const double misfit = dataMisfit(scene, result.output);
        if (maxIter == 0)
            none = result;
        else
            EXPECT_LT(misfit, 0.8 * previous);
        previous = misfit;
    }
    SrIntMinimization loose(40, 30, 5, 2);
    loose.setRelRes(10.0f);
    const Result immediate = solveInt(loose, scene, 2);
    EXPECT_EQ(0, immediate.iterations);
    EXPECT_IMAGES_EQUAL(none.output, immediate.output);
}

// Frames that use the whole 16-bit range run through every pass without
// overflow: the sanitizer build checks every integer operation; here the
// output must be written, finite, within the 16-bit range and (on frames
// large enough) keep the frames' mean. The sets: a checkerboard of the extremes, random extremes,
// and a reference that is flat but for one pixel (a tiny spread) among
// frames of random extremes; with the strongest and weakest TV weights.
TEST(SrIntMinimization, FullRange16BitFramesGiveAFiniteOutput)
{
    struct Size { int w, h; };
    for (const Size& size : {Size{24, 18}, Size{3, 2}, Size{1, 5}}) {
        const int w = size.w, h = size.h;
        SCOPED_TRACE(std::to_string(w) + "x" + std::to_string(h));
        std::vector<cv::Mat_<float>> checker, random, lonePixel;
        std::vector<cv::Mat_<signed char>> masks;
        for (int i = 0; i < 5; ++i) {
            cv::Mat_<float> c(h, w);
            for (int y = 0; y < h; ++y)
                for (int x = 0; x < w; ++x)
                    c(y, x) = (x + y + i) % 2 ? 32767.0f : -32768.0f;
            checker.push_back(c);
            cv::Mat_<float> r;
            krotest::randomImage(h, w, CV_32F, 0.0, 2.0, 40 + i).convertTo(r, CV_32F);
            random.push_back(cv::Mat_<float>(r > 1.0f) / 255.0f * 65535.0f - 32768.0f);
            lonePixel.push_back(i == 1 ? cv::Mat_<float>(h, w, 32767.0f) : random.back());
            masks.emplace_back(h, w, static_cast<signed char>(i == 2 ? 0 : 1));
        }
        lonePixel[1](h - 1, 0) = 32766.0f;
        for (const auto* frames : {&checker, &random, &lonePixel}) {
            for (float weight : {1.0f, 600.0f}) {
                SrIntMinimization m(w, h, 5, 2);
                m.setWeightTV(weight);
                m.setEpsilon(weight == 1.0f ? 0.001f : 1.0f);
                m.generatePsfs(5, kShifts.data());
                cv::Mat_<float> out(2 * h, 2 * w, NAN);
                EXPECT_GE(m.minimize(5, 1, *frames, masks, out), 0);
                double low = 0.0, high = 0.0;
                ASSERT_TRUE(cv::checkRange(out));
                cv::minMaxLoc(out, &low, &high);
                EXPECT_GE(low, -32768.0);
                EXPECT_LE(high, 32767.0);
                // On tiny frames the borders of the fine grid decide the mean.
                if (frames != &lonePixel && w * h > 100) {
                    EXPECT_NEAR(cv::mean((*frames)[1])[0], cv::mean(out)[0], 3000.0) << weight;
                }
            }
        }
    }
}

// A frame whose mask is all zero takes no part in the solve: not in the
// right-hand side, not in the operator. Its values do not matter, and the
// result is that of the solve without it (up to a unit from roundings at
// block exponents that count every frame passed).
TEST(SrIntMinimization, AFrameWithAnAllZeroMaskHasNoInfluence)
{
    const Scene scene(40, 30, krotest::texturedScene(60, 80, 8), 2.0, 300.0);
    SrIntMinimization m(40, 30, 5, 2);
    const Result four = [&] {
        Result r;
        r.output.create(60, 80);
        m.generatePsfs(4, kShifts.data());
        std::vector<cv::Mat_<float>> frames(scene.frames.begin(), scene.frames.begin() + 4);
        r.iterations = m.minimize(4, 1, frames, scene.masks, r.output);
        return r;
    }();
    std::vector<cv::Mat_<float>> frames = scene.frames;
    std::vector<cv::Mat_<signed char>> masks = scene.masks;
    masks[4] = cv::Mat_<signed char>(30, 40, static_cast<signed char>(0));
    krotest::randomImage(30, 40, CV_32F, -30000.0, 30000.0, 77).convertTo(frames[4], CV_32F);
    cv::Mat_<float> output(60, 80);
    m.generatePsfs(5, kShifts.data());
    EXPECT_EQ(four.iterations, m.minimize(5, 1, frames, masks, output));
    EXPECT_IMAGES_EQUAL(four.output, output, 1.0);
}

TEST(SrIntMinimization, ConstantReferenceOrNoUsedSampleGiveTheirCodes)
{
    const Scene scene(12, 10, krotest::texturedScene(20, 24, 5), 0.0);
    std::vector<cv::Mat_<float>> frames = scene.frames;
    frames[3].setTo(1234.0f);
    SrIntMinimization m(12, 10, 5, 2);
    m.generatePsfs(5, kShifts.data());
    cv::Mat_<float> out(20, 24, -7.0f);
    EXPECT_EQ(SrIntMinimization::kConstantReference, m.minimize(5, 3, frames, scene.masks, out));
    EXPECT_GT(m.minimize(5, 2, frames, scene.masks, out), 0);  // another reference is fine

    std::vector<cv::Mat_<signed char>> none;
    for (int i = 0; i < 5; ++i)
        none.emplace_back(10, 12, static_cast<signed char>(0));
    out.setTo(-7.0f);
    EXPECT_EQ(SrIntMinimization::kNoSampleUsed, m.minimize(5, 0, scene.frames, none, out));
    EXPECT_EQ(0, cv::countNonZero(out != -7.0f));
}

// A registration that leaves more than half a pixel (or NaN) has failed for
// that frame; it is modelled at the nearest valid shift instead.
TEST(SrIntMinimization, ShiftsBeyondHalfAPixelAreTakenAtTheLimit)
{
    const Scene scene(16, 12, krotest::texturedScene(24, 32, 2), 1.0);
    std::vector<PointF> wild = kShifts, limit = kShifts;
    wild[1] = PointF(0.9f, NAN);
    wild[3] = PointF(-7.0f, 0.5f);
    limit[1] = PointF(0.5f, 0.0f);
    limit[3] = PointF(-0.5f, 0.5f);
    SrIntMinimization m(16, 12, 5, 2);
    cv::Mat_<float> expected(24, 32), actual(24, 32);
    m.generatePsfs(5, limit.data());
    m.minimize(5, 0, scene.frames, scene.masks, expected);
    m.generatePsfs(5, wild.data());
    m.minimize(5, 0, scene.frames, scene.masks, actual);
    EXPECT_IMAGES_EQUAL(expected, actual);
}

TEST(SrIntMinimization, RejectsCallsOutsideItsSizesAndRanges)
{
    EXPECT_THROW(SrIntMinimization(16, 12, 5, 3), Exception);
    EXPECT_THROW(SrIntMinimization(16, 12, 0, 2), Exception);
    EXPECT_THROW(SrIntMinimization(0, 12, 5, 2), Exception);

    const Scene scene(8, 6, krotest::texturedScene(12, 16, 1), 0.0);
    SrIntMinimization m(8, 6, 5, 2);
    EXPECT_THROW(m.generatePsfs(6, kShifts.data()), Exception);
    EXPECT_THROW(m.setEpsilon(0.0005f), Exception);
    EXPECT_THROW(m.setPsfSigma(0.0f), Exception);
    cv::Mat_<float> out(12, 16), small(12, 15);
    EXPECT_THROW(m.minimize(6, 0, scene.frames, scene.masks, out), Exception);
    EXPECT_THROW(m.minimize(5, 5, scene.frames, scene.masks, out), Exception);
    EXPECT_THROW(m.minimize(5, 0, scene.frames, scene.masks, small), Exception);
    std::vector<cv::Mat_<float>> loud = scene.frames;
    loud[4](2, 3) = 40000.0f;
    EXPECT_EQ("convertMatFloatToMatInt: value clamped to max",
              thrownMessage([&] { m.minimize(5, 0, loud, scene.masks, out); }));
}

} // namespace
} // namespace kro
} // namespace velmor
