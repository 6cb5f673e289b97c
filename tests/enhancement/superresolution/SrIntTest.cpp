// The fixed-point engine end to end: settings, quality against the float
// engine on the same bursts, determinism, and input at the edges of what
// 16 bits hold.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include <opencv2/imgproc.hpp>

#include "BurstGenerator.h"
#include "Exception.h"
#include "QualityMetrics.h"
#include "SrFloat.h"
#include "SrInt.h"
#include "TestImages.h"

namespace velmor {
namespace kro {
namespace {

using Engine = SrInt<SrIntRegistration, SrIntMinimization>;

constexpr int kWindow = 5;
constexpr int kBorder = 16;

// A burst whose newest frame (of the first window) is unshifted, so that a
// result aligned with the newest frame lies on the truth's grid.
krotools::Burst makeBurst(int width, int height, std::uint64_t seed)
{
    krotools::BurstSettings settings;
    settings.frames = kWindow;
    settings.referencePosition = kWindow - 1;
    settings.seed = seed;
    return krotools::generateBurst(krotools::proceduralScene(2 * height, 2 * width, seed), settings);
}

cv::Mat_<short> toShort(const cv::Mat_<float>& f)
{
    cv::Mat_<short> s;
    f.convertTo(s, CV_16S);
    return s;
}

cv::Mat_<short> reconstruct(Engine& engine, const std::vector<cv::Mat_<float>>& frames, int* status = nullptr)
{
    for (const cv::Mat_<float>& f : frames)
        EXPECT_EQ(engine.addFrame(toShort(f)), 0);
    cv::Mat_<short> out;
    const int code = engine.computeSr(out);
    if (status)
        *status = code;
    return out;
}

template <class F>
std::string thrownText(F&& body)
{
    try {
        body();
    } catch (const char* message) {
        return std::string("const char*: ") + message;
    } catch (const Exception& e) {
        return std::string("Exception: ") + e.what();
    }
    return "nothing thrown";
}

TEST(SrInt, SettersRefuseWhatTheEngineCannotUseAndKeepTheOldValue)
{
    Engine engine(32, 24, kWindow, 2.0f);
    EXPECT_EQ(thrownText([&] { engine.setRelativeResidue(1e-7f); }),
              "const char*: Invalid total-variation term residue specified.");
    EXPECT_EQ(thrownText([&] { engine.setRelativeResidue(1e-6f); }), "nothing thrown");
    engine.setRegError(1.0f);
    EXPECT_EQ(thrownText([&] { engine.setRegError(1.0001f); }),
              "const char*: Invalid maximum registration error specified.");
    EXPECT_EQ(thrownText([&] { engine.setRegError(0.0f); }),
              "const char*: Invalid maximum registration error specified.");
    EXPECT_FLOAT_EQ(engine.getRegError(), 1.0f);
    EXPECT_EQ(thrownText([&] { engine.setWeightTV(0.5f); }),
              "const char*: Invalid total-variation term weight specified.");
    // 700 passes the driver's rule and is refused by the minimiser's 16-bit range.
    EXPECT_EQ(thrownText([&] { engine.setWeightTV(700.0f); }),
              "Exception: invalid value given for setWeightTV (allowed: 1-600)");
    EXPECT_FLOAT_EQ(engine.getWeightTV(), 400.0f);
    EXPECT_EQ(thrownText([&] { engine.setReferenceIndex(kWindow); }),
              "const char*: Invalid reference index specified.");
    EXPECT_EQ(thrownText([&] { engine.setMaxCGIters(0); }),
              "const char*: Invalid maximum number of iterations specified.");
    EXPECT_EQ(thrownText([&] { engine.setPsfSigma(0.0f); }),
              "const char*: Invalid standard deviation of the sensor psf specified.");
    EXPECT_EQ(thrownText([] { Engine bad(32, 24, 0, 2.0f); }), "const char*: Invalid reference index specified.");

    // The options refuse the same values with the same texts, before any engine exists.
    SrIntOptions options;
    options.weightTV = 700.0f;
    EXPECT_STREQ(options.validate(), "invalid value given for setWeightTV (allowed: 1-600)");
    options.weightTV = 400.0f;
    EXPECT_EQ(options.validate(), nullptr);
}

TEST(SrInt, ReconstructsSyntheticBurstsAsWellAsTheFloatEngine)
{
    for (std::uint64_t seed : {3u, 8u}) {
        const krotools::Burst burst = makeBurst(160, 120, seed);
        Engine fixed(160, 120, kWindow, 2.0f);
        int status = 1;
        const cv::Mat_<short> fixedOut = reconstruct(fixed, burst.frames, &status);
        ASSERT_GE(status, 0) << "seed " << seed;

        SrFloat<SrFloatRegistration2> reference(160, 120, kWindow, 2.0f);
        reference.setReferenceIndex(0);  // the newest frame, as the fixed engine aligns
        for (const cv::Mat_<float>& f : burst.frames)
            reference.addFrame(f);
        cv::Mat_<float> floatOut;
        ASSERT_GE(reference.computeSR(floatOut), 0.0f);

        cv::Mat_<float> fixedAsFloat, bicubic;
        fixedOut.convertTo(fixedAsFloat, CV_32F);
        cv::resize(burst.frames.back(), bicubic, burst.truth.size(), 0.0, 0.0, cv::INTER_CUBIC);
        const double fixedDb = krotools::measureQuality(burst.truth, fixedAsFloat, kBorder).psnr;
        const double floatDb = krotools::measureQuality(burst.truth, floatOut, kBorder).psnr;
        const double bicubicDb = krotools::measureQuality(burst.truth, bicubic, kBorder).psnr;
        EXPECT_GT(fixedDb, floatDb - 0.3) << "seed " << seed << ": fixed " << fixedDb << " dB, float " << floatDb;
        EXPECT_GT(fixedDb, bicubicDb) << "seed " << seed;
        EXPECT_GT(fixed.getCumIters(), 0);
    }
}

TEST(SrInt, SameBytesWithAnyThreadCount)
{
    const krotools::Burst burst = makeBurst(160, 120, 5);
    cv::Mat_<short> first;
    for (int threads : {1, 2, 7}) {
        Engine engine(160, 120, kWindow, 2.0f);
        engine.setThreads(threads);
        const cv::Mat_<short> out = reconstruct(engine, burst.frames);
        if (first.empty())
            first = out;
        else
            EXPECT_IMAGES_EQUAL(first, out) << threads << " threads";
    }
}

TEST(SrInt, OnlyOlderFramesAccumulateTheirShiftIntoTheTotal)
{
    // Whole-pixel steps of the content: frame i moved by (4 - i, 0) against the newest.
    const cv::Mat_<float> scene = krotest::texturedScene(120, 160, 4);
    std::vector<cv::Mat_<float>> frames;
    for (int i = 0; i < kWindow; ++i) {
        cv::Mat_<float> moved;
        const cv::Mat shift = (cv::Mat_<double>(2, 3) << 1, 0, kWindow - 1 - i, 0, 1, 0);
        cv::warpAffine(scene, moved, shift, scene.size(), cv::INTER_NEAREST, cv::BORDER_REFLECT);
        frames.push_back(moved * 10.0f);
    }
    Engine engine(160, 120, kWindow, 2.0f);
    reconstruct(engine, frames);
    EXPECT_NEAR(engine.getTotalShift(0).x, 4.0f, 0.1f);
    EXPECT_NEAR(engine.getTotalShift(2).x, 2.0f, 0.1f);
    // The frame just before the newest: rounded shift set, total left at zero.
    EXPECT_EQ(engine.getRoundedTotalShift(3).x, 1);
    EXPECT_EQ(engine.getTotalShift(3).x, 0.0f);
    EXPECT_EQ(engine.getTotalShift(3).y, 0.0f);
    EXPECT_EQ(engine.getRoundedTotalShift(4), cv::Point_<short>(0, 0));
}

TEST(SrInt, FullRangeFramesGiveAResultOrAClearError)
{
    // The scene stretched over the whole 16-bit range, clipped at both rails.
    const krotools::Burst burst = makeBurst(96, 80, 6);
    std::vector<cv::Mat_<float>> frames;
    for (const cv::Mat_<float>& f : burst.frames)
        frames.push_back(f * 8.0f - 40000.0f);
    Engine engine(96, 80, kWindow, 2.0f);
    int status = 1;
    std::string error;
    cv::Mat_<short> out;
    try {
        out = reconstruct(engine, frames, &status);
    } catch (const Exception& e) {
        error = e.what();
    }
    if (error.empty()) {
        ASSERT_EQ(out.size(), cv::Size(192, 160));
        double lo = 0.0, hi = 0.0;
        cv::minMaxLoc(out, &lo, &hi);
        EXPECT_LT(lo, -20000.0);  // the dark and the bright ends are both still there
        EXPECT_GT(hi, 20000.0);
    } else {
        ADD_FAILURE() << "full-range frames were refused: " << error;
    }
}

TEST(SrInt, FramesWithNothingToTrackAreReportedNotCrashedOn)
{
    Engine engine(64, 48, 3, 2.0f);
    for (int i = 0; i < 3; ++i)
        engine.addFrame(cv::Mat_<short>(48, 64, short(1000)));
    cv::Mat_<short> out;
    EXPECT_EQ(thrownText([&] { engine.computeSr(out); }), "Exception: Not enough stable correspondences");

    // Frames smaller than the registration works on.
    Engine tiny(4, 3, 2, 2.0f);
    tiny.addFrame(cv::Mat_<short>(3, 4, short(5)));
    tiny.addFrame(cv::Mat_<short>(3, 4, short(6)));
    const std::string text = thrownText([&] { tiny.computeSr(out); });
    EXPECT_EQ(text.rfind("Exception: ", 0), 0u) << text;
}

} // namespace
} // namespace kro
} // namespace velmor
