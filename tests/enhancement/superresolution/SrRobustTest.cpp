#include <cmath>
#include <cstdio>
#include <fstream>
#include <vector>

#include <gtest/gtest.h>
#include <opencv2/imgproc.hpp>

#include "Exception.h"
#include "SrRobust.h"
#include "TestImages.h"
#include "detail/BoxSensorModel.h"
#include "detail/SrRobustWeights.h"

using velmor::kro::SrRobust;
using velmor::kro::SrRobustOptions;
using velmor::kro::SrRobustReport;
namespace detail = velmor::kro::detail;

namespace {

// The scene content moved by (dx, dy) whole fine pixels (reflected at the
// border), then integrated over 2x2 fine pixels, plus seeded noise.
cv::Mat_<float> binnedShift(const cv::Mat_<float>& scene, int dx, int dy, double noise, std::uint64_t seed)
{
    cv::Mat_<float> moved;
    const cv::Mat m = (cv::Mat_<double>(2, 3) << 1, 0, dx, 0, 1, dy);
    cv::warpAffine(scene, moved, m, scene.size(), cv::INTER_NEAREST, cv::BORDER_REFLECT);
    cv::Mat_<float> coarse;
    detail::binFine(moved, coarse, 1);
    if (noise > 0.0)
        coarse += krotest::randomImage(coarse.rows, coarse.cols, CV_32F, -noise, noise, seed);
    return coarse;
}

double psnr(const cv::Mat_<float>& a, const cv::Mat_<float>& b, double peak = 1000.0)
{
    const double mse = cv::norm(a, b, cv::NORM_L2SQR) / static_cast<double>(a.total());
    return 10.0 * std::log10(peak * peak / std::max(mse, 1e-12));
}

double dot(const cv::Mat_<float>& a, const cv::Mat_<float>& b)
{
    return a.dot(b);
}

cv::Mat_<float> run(const std::vector<cv::Mat_<float>>& frames, SrRobustOptions options,
                    SrRobustReport* report = nullptr)
{
    options.windowSize = static_cast<int>(frames.size());
    SrRobust engine(frames[0].cols, frames[0].rows, options);
    for (const auto& f : frames)
        engine.addFrame(f);
    cv::Mat_<float> out;
    engine.computeSR(out, report);
    return out;
}

cv::Mat_<float> referenceOnly(const cv::Mat_<float>& frame)
{
    cv::Mat_<float> fine, c, f;
    detail::referenceOnly(frame, SrRobustOptions().baseIterations, 0.0f, fine, c, f, 1);
    return fine;
}

} // namespace

// The merge is a gradient step of a least-squares problem only if each
// back-projection is the exact adjoint of its forward step.
TEST(SrRobustSensorModel, BackProjectionsAreAdjointsOfTheForwardSteps)
{
    const cv::Mat_<float> x = krotest::randomImage(24, 30, CV_32F, -1, 1, 1);
    cv::Mat_<float> y = krotest::randomImage(24, 30, CV_32F, -1, 1, 2);
    // The box's edge repetition is not part of the adjoint: test away from it.
    y.row(23).setTo(0.0f);
    y.col(29).setTo(0.0f);
    cv::Mat_<float> bx, bty;
    detail::boxImage(x, bx, 2);
    detail::boxImageAdjoint(y, bty, 2);
    EXPECT_NEAR(dot(bx, y), dot(x, bty), 1e-4);

    const cv::Mat_<float> sx = krotest::randomImage(12, 15, CV_32F, 0, 14, 3);
    const cv::Mat_<float> sy = krotest::randomImage(12, 15, CV_32F, 0, 11, 4);
    const cv::Mat_<float> v = krotest::randomImage(12, 15, CV_32F, -1, 1, 5);
    cv::Mat_<float> sampled, scattered = cv::Mat_<float>::zeros(24, 30);
    detail::sampleBox(x, sx, sy, sampled, 2);
    detail::scatterToBox(v, sx, sy, scattered);
    EXPECT_NEAR(dot(sampled, v), dot(x, scattered), 1e-4);

    // On the coarse grid itself, sampling the box image is binning.
    cv::Mat_<float> gx(12, 15), gy(12, 15), binned;
    for (int r = 0; r < 12; ++r)
        for (int c = 0; c < 15; ++c) {
            gx(r, c) = static_cast<float>(c);
            gy(r, c) = static_cast<float>(r);
        }
    detail::sampleBox(bx, gx, gy, sampled, 1);
    detail::binFine(x, binned, 3);
    EXPECT_TRUE(krotest::imagesEqual(binned, sampled, 1e-6));
}

TEST(SrRobust, GlobalShiftGivesTheMultiFrameGainWithFewRejections)
{
    const cv::Mat_<float> scene = krotest::texturedScene(128, 160, 7);
    const int shifts[5][2] = {{0, 0}, {1, 0}, {0, 1}, {1, 1}, {3, 2}};
    std::vector<cv::Mat_<float>> frames;
    for (int i = 0; i < 5; ++i)
        frames.push_back(binnedShift(scene, shifts[i][0], shifts[i][1], 1.0, 10 + i));
    SrRobustReport report;
    const cv::Mat_<float> out = run(frames, SrRobustOptions(), &report);
    // Reference index 3 of 5 counted back from the newest: frame 1.
    cv::Mat_<float> truth;
    const cv::Mat m = (cv::Mat_<double>(2, 3) << 1, 0, 1, 0, 1, 0);
    cv::warpAffine(scene, truth, m, scene.size(), cv::INTER_NEAREST, cv::BORDER_REFLECT);
    const cv::Rect inner(8, 8, 144, 112);
    const double single = psnr(referenceOnly(frames[1])(inner), truth(inner));
    EXPECT_GT(psnr(out(inner), truth(inner)), single + 2.0);
    EXPECT_LT(report.rejectedFraction, 0.15);
    EXPECT_LT(report.fallbackFraction, 0.1);
    ASSERT_EQ(report.frames.size(), 5u);
    EXPECT_TRUE(report.frames[1].reference);
    EXPECT_NEAR(report.frames[4].shiftX, -1.0, 0.1); // 2 fine pixels = 1 input pixel, back to the reference
    EXPECT_NEAR(report.frames[4].shiftY, -1.0, 0.1);
    EXPECT_TRUE(report.warnings.empty());
}

// A bright block moves over a still background: its samples in other frames
// disagree with the reference and must be rejected, so that no ghost of it
// appears, while the background, which agrees, is used.
TEST(SrRobust, MovingObjectLeavesNoGhostAndOnlyDisagreeingSamplesAreRejected)
{
    const cv::Mat_<float> background = krotest::texturedScene(256, 320, 3);
    std::vector<cv::Mat_<float>> frames, scenes;
    std::vector<cv::Rect> blocks; // in coarse pixels
    for (int i = 0; i < 5; ++i) {
        cv::Mat_<float> fine = background.clone();
        fine(cv::Rect(60 + 12 * i, 80, 24, 24)).setTo(2000.0f);
        blocks.emplace_back(30 + 6 * i, 40, 12, 12);
        scenes.push_back(fine);
        frames.push_back(binnedShift(fine, 0, 0, 1.0, 20 + i));
    }
    SrRobustReport report;
    const cv::Mat_<float> out = run(frames, SrRobustOptions(), &report);
    const cv::Mat_<float> alone = referenceOnly(frames[1]);

    // Where the block is in any frame, the result is no further from the
    // truth than the reference alone: no ghost.
    const cv::Rect swept(2 * blocks[0].x - 8, 2 * blocks[0].y - 8, 2 * (blocks[4].br().x - blocks[0].x) + 16, 40);
    const cv::Mat_<float>& truth = scenes[1];
    EXPECT_LE(cv::norm(out(swept), truth(swept)), 1.02 * cv::norm(alone(swept), truth(swept)));
    EXPECT_LE(cv::norm(out(swept), truth(swept), cv::NORM_INF),
              cv::norm(alone(swept), truth(swept), cv::NORM_INF) + 0.02 * 2000.0);

    // Frame 4's samples: every one that disagrees with the true reference
    // scene at the position where it is used is rejected (whether the flow
    // followed the block or not); away from both blocks almost none is.
    detail::SrRobustWeights weights(frames[0].cols, frames[0].rows);
    std::vector<const cv::Mat_<float>*> window;
    const cv::Mat_<uchar> finite(frames[0].size(), 255);
    for (const auto& f : frames)
        window.push_back(&f);
    detail::FlowChain chain(frames[0].cols, frames[0].rows, 5);
    for (int i = 1; i < 5; ++i)
        chain.link(i, frames[i - 1], frames[i]);
    weights.compute(window, std::vector<const cv::Mat_<uchar>*>(5, &finite), 1, chain, {0, 1, 2, 3, 4}, alone,
                    SrRobustOptions(), 1, report);
    cv::Mat_<float> truthBox, truthAtSamples, clean4;
    detail::boxImage(truth, truthBox, 1);
    detail::sampleBox(truthBox, weights.positionX(4), weights.positionY(4), truthAtSamples, 1);
    detail::binFine(scenes[4], clean4, 1);
    const cv::Mat_<float>& w = weights.weight(4);
    // The flow is smoothed over about one and a half of its patches around
    // a moving boundary: samples up to 12 input pixels from it may go too.
    const int margin = 12;
    const cv::Rect near = (blocks[1] | blocks[4]) + cv::Point(-margin, -margin) + cv::Size(2 * margin, 2 * margin);
    int disagreeing = 0, missed = 0, wrong = 0, far = 0;
    for (int r = 0; r < w.rows; ++r)
        for (int c = 0; c < w.cols; ++c) {
            if (std::fabs(clean4(r, c) - truthAtSamples(r, c)) > 100.0f) {
                ++disagreeing;
                missed += w(r, c) > 0.0f ? 1 : 0;
            }
            if (!near.contains(cv::Point(c, r))) {
                ++far;
                wrong += w(r, c) == 0.0f ? 1 : 0;
            }
        }
    EXPECT_GT(disagreeing, 20); // the block's edges, at least, cannot be matched
    EXPECT_EQ(missed, 0);
    EXPECT_LT(wrong, far / 50);
}

TEST(SrRobust, HostileWindowsFallBackToTheReferenceWithoutNaN)
{
    SrRobustOptions options;
    // Constant frames: the output is the constant.
    std::vector<cv::Mat_<float>> flat(5, cv::Mat_<float>(40, 48, 300.0f));
    cv::Mat_<float> out = run(flat, options);
    EXPECT_NEAR(cv::norm(out - 300.0f, cv::NORM_INF), 0.0, 1e-3);

    // Unrelated scenes in every frame: nothing agrees, the reference alone.
    std::vector<cv::Mat_<float>> unrelated;
    for (int i = 0; i < 5; ++i) {
        cv::Mat_<float> s;
        detail::binFine(krotest::texturedScene(80, 96, 100 + i), s, 1);
        unrelated.push_back(s);
    }
    SrRobustReport report;
    out = run(unrelated, options, &report);
    EXPECT_GT(report.rejectedFraction, 0.9);
    EXPECT_LT(cv::norm(out, referenceOnly(unrelated[1]), cv::NORM_INF), 0.05 * 1000.0);

    // A scene cut after the reference: the new scene is rejected and named.
    std::vector<cv::Mat_<float>> cut;
    const cv::Mat_<float> before = krotest::texturedScene(80, 96, 200), after = krotest::texturedScene(80, 96, 201);
    for (int i = 0; i < 5; ++i)
        cut.push_back(binnedShift(i < 3 ? before : after, i % 2, 0, 1.0, 40 + i));
    out = run(cut, options, &report);
    EXPECT_LT(report.frames[0].rejectedFraction, 0.5);
    EXPECT_GT(report.frames[3].rejectedFraction, 0.95);
    EXPECT_GT(report.frames[4].rejectedFraction, 0.95);
    ASSERT_EQ(report.warnings.size(), 2u);
    EXPECT_NE(report.warnings[0].find("window frame 3 disagrees"), std::string::npos) << report.warnings[0];

    // NaN and infinity: counted, warned about, never in the output.
    std::vector<cv::Mat_<float>> bad = unrelated;
    bad[3](5, 5) = std::nanf("");
    bad[1](7, 9) = INFINITY;
    out = run(bad, options, &report);
    EXPECT_EQ(report.nonFiniteSamples, 2);
    EXPECT_FALSE(report.warnings.empty());
    EXPECT_TRUE(cv::checkRange(out));
}

TEST(SrRobust, ResultDoesNotDependOnTheThreadCount)
{
    const cv::Mat_<float> scene = krotest::texturedScene(128, 160, 9);
    std::vector<cv::Mat_<float>> frames;
    for (int i = 0; i < 5; ++i)
        frames.push_back(binnedShift(scene, i % 3, i / 2, 2.0, 30 + i));
    SrRobustOptions options;
    options.threads = 1;
    const cv::Mat_<float> one = run(frames, options);
    for (int threads : {2, 7}) {
        options.threads = threads;
        EXPECT_TRUE(krotest::imagesEqual(one, run(frames, options))) << threads << " threads";
    }
}

TEST(SrRobust, OptionsAndInputAreChecked)
{
    const struct {
        void (*set)(SrRobustOptions&);
        const char* message;
    } cases[] = {
        {[](SrRobustOptions& o) { o.windowSize = 0; }, "window size 0 out of range 1..32"},
        {[](SrRobustOptions& o) { o.referenceIndex = 5; }, "reference index 5 out of range 0..4"},
        {[](SrRobustOptions& o) { o.iterations = 51; }, "iterations 51 out of range 0..50"},
        {[](SrRobustOptions& o) { o.consistency = 0.0f; }, "consistency 0 out of range (0, 100]"},
        {[](SrRobustOptions& o) { o.maxFlowError = NAN; }, "flow error bound nan out of range (0, 10]"},
        {[](SrRobustOptions& o) { o.threads = -1; }, "thread count -1 is negative"},
    };
    EXPECT_EQ(SrRobustOptions().validate(), "");
    for (const auto& c : cases) {
        SrRobustOptions o;
        c.set(o);
        EXPECT_EQ(o.validate(), c.message);
        EXPECT_THROW(SrRobust(32, 32, o), velmor::kro::Exception);
    }
    SrRobust engine(32, 24);
    EXPECT_THROW(engine.addFrame(cv::Mat_<float>(24, 31, 0.0f)), velmor::kro::Exception);
    EXPECT_THROW(engine.addFrame(cv::Mat(24, 32, CV_32FC2)), velmor::kro::Exception);
    cv::Mat_<float> out;
    engine.addFrame(cv::Mat_<float>(24, 32, 1.0f));
    EXPECT_THROW(engine.computeSR(out), velmor::kro::Exception); // window not full
    EXPECT_THROW(SrRobust(7, 32), velmor::kro::Exception);
}

// Real footage: a crop of a driving recording, binned 2x2 and enlarged
// again, must come out at least as close to the real frames as bicubic
// enlargement of the same binned frame.
TEST(SrRobust, RealDrivingFootageIsNotWorseThanBicubic)
{
    const int w = 160, h = 128, n = 10;
    std::ifstream in(std::string(KROLIB_TEST_DATA_DIR) + "/thermal/drive_crop_160x128x10_u16.raw", std::ios::binary);
    ASSERT_TRUE(in);
    std::vector<cv::Mat_<float>> truth, binned;
    for (int i = 0; i < n; ++i) {
        cv::Mat_<unsigned short> raw(h, w);
        in.read(reinterpret_cast<char*>(raw.data), w * h * 2);
        ASSERT_TRUE(in);
        cv::Mat_<float> f, b;
        raw.convertTo(f, CV_32F);
        detail::binFine(f, b, 1);
        truth.push_back(f);
        binned.push_back(b);
    }
    SrRobust engine(w / 2, h / 2);
    cv::Mat_<float> out, bicubic;
    for (int i = 0; i < n; ++i) {
        engine.addFrame(binned[i]);
        if (i < 4)
            continue;
        engine.computeSR(out);
        const int ref = i - 3;
        cv::resize(binned[ref], bicubic, out.size(), 0, 0, cv::INTER_CUBIC);
        EXPECT_GE(psnr(out, truth[ref], 65535.0), psnr(bicubic, truth[ref], 65535.0)) << "frame " << ref;
    }
}
