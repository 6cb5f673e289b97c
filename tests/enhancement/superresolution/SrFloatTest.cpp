#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <string>
#include <type_traits>
#include <vector>

#include <opencv2/imgproc.hpp>

#include "Exception.h"
#include "ShiftedFrames.h"
#include "SrFloat.h"
#include "TestImages.h"

namespace velmor {
namespace kro {
namespace {

constexpr int kWidth = 96;
constexpr int kHeight = 80;

// Best PSNR of `image` against `truth` over the shifts of half a pixel
// around zero: the reconstruction's pixel grid may sit half a fine pixel
// from the truth's, which is a convention, not an error.
double alignedPsnr(const cv::Mat_<float>& truth, const cv::Mat_<float>& image, double peak, int border)
{
    double best = -1e9;
    for (float dy : {-1.0f, -0.5f, 0.0f, 0.5f, 1.0f})
        for (float dx : {-1.0f, -0.5f, 0.0f, 0.5f, 1.0f})
            best = std::max(best, krotest::psnr(truth, krotest::shiftImage(image, PointF(dx, dy)), peak, border));
    return best;
}

std::vector<PointF> burstShifts()
{
    return {PointF(0.0f, 0.0f), PointF(0.5f, 0.25f), PointF(-0.25f, 0.5f), PointF(0.0f, 0.0f),
            PointF(0.75f, -0.5f)};
}

template <typename Engine>
void feed(Engine& engine, const std::vector<cv::Mat_<float>>& frames)
{
    for (const cv::Mat_<float>& frame : frames)
        EXPECT_EQ(0, engine.addFrame(frame));
}

template <typename Registration>
class SrFloatEngine : public ::testing::Test {};
using Registrations = ::testing::Types<SrFloatRegistration1, SrFloatRegistration2>;
TYPED_TEST_SUITE(SrFloatEngine, Registrations);

// The thread count reaches every part: the same bytes for 1, 2 and 7
// threads on frames large enough for the solve to split.
TYPED_TEST(SrFloatEngine, SameBytesWhateverTheThreadCount)
{
    const cv::Mat_<float> truth = krotest::texturedScene(512, 640, 8);
    const std::vector<cv::Mat_<float>> frames = krotest::makeShiftedFrames(truth, 2, burstShifts(), 0.683, 2.0, 9);
    std::vector<cv::Mat_<float>> results;
    for (int threads : {1, 2, 7}) {
        SrFloat<TypeParam> engine(320, 256, 5, 2.0f);
        engine.setThreads(threads);
        feed(engine, frames);
        cv::Mat_<float> result(512, 640);
        EXPECT_GE(engine.computeSR(result), 0.0f);
        EXPECT_EQ(engine.getMinimization().getLastThreadCount(), threads);
        results.push_back(result);
    }
    EXPECT_TRUE(krotest::imagesEqual(results[0], results[1]));
    EXPECT_TRUE(krotest::imagesEqual(results[0], results[2]));
    SrFloat<TypeParam> engine(96, 80, 5, 2.0f);
    EXPECT_THROW(engine.setThreads(-1), const char*);
}

// One set of rules for the options, the setters and the constructor: each
// bound refused with the setter's own text, the value just inside accepted,
// and an engine built from options equal to one configured by setters.
TYPED_TEST(SrFloatEngine, OptionsAreCheckedByTheSettersRules)
{
    const struct {
        void (*set)(SrFloatOptions&, bool inside);
        const char* message;
    } cases[] = {
        {[](SrFloatOptions& o, bool in) { o.windowSize = in ? 1 : 0; }, "Invalid reference index specified."},
        {[](SrFloatOptions& o, bool in) { o.referenceIndex = in ? 4 : 5; }, "Invalid reference index specified."},
        {[](SrFloatOptions& o, bool in) { o.weightTV = in ? 1.0f : 0.999f; }, "Invalid total-variation term weight specified."},
        {[](SrFloatOptions& o, bool in) { o.regError = in ? 1.0f : 1.001f; }, "Invalid maximum registration error specified."},
        {[](SrFloatOptions& o, bool in) { o.relativeResidue = in ? 1.01e-6f : 9e-7f; }, "Invalid total-variation term weight specified."},
        {[](SrFloatOptions& o, bool in) { o.maxCGIters = in ? 1 : 0; }, "Invalid maximum number of iterations specified."},
        {[](SrFloatOptions& o, bool in) { o.psfSigma = in ? 1e-3f : 0.0f; }, "Invalid standard deviation of the sensor psf specified."},
        {[](SrFloatOptions& o, bool in) { o.threads = in ? 0 : -1; }, "Invalid thread count specified."},
    };
    EXPECT_EQ(nullptr, SrFloatOptions().validate());
    for (const auto& c : cases) {
        SrFloatOptions o;
        c.set(o, true);
        if (o.windowSize == 1)
            o.referenceIndex = 0;
        EXPECT_EQ(nullptr, o.validate()) << c.message;
        c.set(o, false);
        ASSERT_NE(nullptr, o.validate());
        EXPECT_STREQ(c.message, o.validate());
        try {
            SrFloat<TypeParam> engine(kWidth, kHeight, o);
            ADD_FAILURE() << "accepted: " << c.message;
        } catch (const char* message) {
            EXPECT_STREQ(c.message, message);
        }
    }
    SrFloatOptions o;
    o.referenceIndex = 1;
    o.weightTV = 250.0f;
    o.camera = "camera k57 FOV 25";  // decodes to its own blur
    SrFloat<TypeParam> fromOptions(kWidth, kHeight, o);
    EXPECT_EQ(1, fromOptions.getOptions().referenceIndex);
    EXPECT_EQ(250.0f, fromOptions.getOptions().weightTV);
    EXPECT_NE(o.psfSigma, fromOptions.getOptions().psfSigma);
    EXPECT_EQ(o.effectivePsfSigma(), fromOptions.getOptions().psfSigma);
}

TYPED_TEST(SrFloatEngine, BeatsBicubicOnANoisyBurstWithKnownShifts)
{
    const cv::Mat_<float> truth = krotest::texturedScene(2 * kHeight, 2 * kWidth, 5);
    std::vector<cv::Mat_<float>> frames =
        krotest::makeShiftedFrames(truth, 2, burstShifts(), 0.683, 2.0, 17);
    SrFloat<TypeParam> engine(kWidth, kHeight, 5, 2.0f);
    engine.setReferenceIndex(3);  // refPos 1: the frame with shift (0.5, 0.25)
    feed(engine, frames);
    cv::Mat_<float> result;
    const float quality = engine.computeSR(result);
    ASSERT_GT(quality, 1.0f);
    ASSERT_EQ(cv::Size(2 * kWidth, 2 * kHeight), result.size());

    // Compare in the reference frame's coordinates: move the truth by the
    // reference's own shift.
    const cv::Mat_<float> refTruth = krotest::shiftImage(truth, PointF(1.0f, 0.5f));
    cv::Mat_<float> bicubic;
    cv::resize(frames[1], bicubic, result.size(), 0, 0, cv::INTER_CUBIC);
    const double peak = 1000.0;
    const double psnrSr = alignedPsnr(refTruth, result, peak, 8);
    const double psnrBicubic = alignedPsnr(refTruth, bicubic, peak, 8);
    EXPECT_GT(psnrSr, psnrBicubic + 1.5) << "super-resolved " << psnrSr << " dB, bicubic " << psnrBicubic << " dB";
}

TYPED_TEST(SrFloatEngine, ReferencePositionCountsBackFromTheNewestFrame)
{
    const cv::Mat_<float> truth = krotest::texturedScene(2 * kHeight, 2 * kWidth, 9);
    const std::vector<PointF> shifts = {PointF(1.0f, 0.0f), PointF(2.0f, 1.0f), PointF(0.0f, 2.0f),
                                        PointF(-1.0f, 1.0f), PointF(1.0f, -1.0f)};
    const std::vector<cv::Mat_<float>> frames = krotest::makeShiftedFrames(truth, 2, shifts, 0.5, 0.0, 1);
    cv::Mat_<float> result;
    std::vector<PointF> found;

    // 5 frames, index 3 -> position 1: shifts are relative to shifts[1].
    SrFloat<TypeParam> full(kWidth, kHeight, 5, 2.0f);
    full.setReferenceIndex(3);
    feed(full, frames);
    full.computeSR(result);
    full.getCompleteShifts(found);
    ASSERT_EQ(5u, found.size());
    for (int i = 0; i < 5; ++i) {
        EXPECT_NEAR(shifts[i].x - shifts[1].x, found[i].x, 0.1f) << i;
        EXPECT_NEAR(shifts[i].y - shifts[1].y, found[i].y, 0.1f) << i;
    }

    // 2 frames, index 3 -> position raised to 0.
    SrFloat<TypeParam> partial(kWidth, kHeight, 5, 2.0f);
    partial.setReferenceIndex(3);
    feed(partial, {frames[0], frames[1]});
    partial.computeSR(result);
    partial.getCompleteShifts(found);
    EXPECT_TRUE(found[0].x == 0.0f && found[0].y == 0.0f);
    EXPECT_NEAR(1.0f, found[1].x, 0.1f);
    EXPECT_NEAR(1.0f, found[1].y, 0.1f);
}

// A copy taken from a full window goes its own way: the original moves on
// first, and the copy given the same frame gives the same bytes.
TYPED_TEST(SrFloatEngine, SixthFrameDropsTheOldestAndCopiesAreIndependent)
{
    const cv::Mat_<float> truth = krotest::texturedScene(2 * kHeight, 2 * kWidth, 3);
    // No shift lies half a pixel from the reference's (the newest frame's):
    // there the integer cut may round either way and both results are right.
    const std::vector<PointF> shifts = {PointF(0.3f, 0.6f),   PointF(0.1f, 0.1f), PointF(0.4f, 0.3f),
                                        PointF(-0.2f, 0.2f), PointF(0.0f, 0.0f), PointF(0.25f, -0.15f)};
    const std::vector<cv::Mat_<float>> frames = krotest::makeShiftedFrames(truth, 2, shifts, 0.683, 1.0, 4);

    SrFloat<TypeParam> sliding(kWidth, kHeight, 5, 2.0f);
    feed(sliding, std::vector<cv::Mat_<float>>(frames.begin(), frames.end() - 1));
    SrFloat<TypeParam> copy(sliding);
    sliding.addFrame(frames[5]);
    EXPECT_EQ(5, sliding.getFramesLoaded());
    SrFloat<TypeParam> fresh(kWidth, kHeight, 5, 2.0f);
    feed(fresh, std::vector<cv::Mat_<float>>(frames.begin() + 1, frames.end()));

    // The corner registration keeps the 8-bit range of every frame it has
    // seen (it only widens), so its tracking input differs slightly from a
    // fresh engine's; the phase registration keeps no such state.
    const double tolerance = std::is_same<TypeParam, SrFloatRegistration1>::value ? 0.0 : 1.0;
    cv::Mat_<float> a, b, c;
    const float quality = sliding.computeSR(a);
    const float qualityFresh = fresh.computeSR(b);
    EXPECT_NEAR(qualityFresh, quality, tolerance * 0.01);
    EXPECT_IMAGES_EQUAL(b, a, tolerance);
    copy.addFrame(frames[5]);
    EXPECT_EQ(quality, copy.computeSR(c));
    EXPECT_IMAGES_EQUAL(a, c);

    // After clearFrames the engine starts over from an empty window, the
    // registration's own frames included: a window of two frames is theirs.
    sliding.clearFrames();
    EXPECT_EQ(0, sliding.getFramesLoaded());
    SrFloat<TypeParam> two(kWidth, kHeight, 5, 2.0f);
    for (SrFloat<TypeParam>* engine : {&sliding, &two})
        feed(*engine, {frames[4], frames[5]});
    EXPECT_EQ(two.computeSR(b), sliding.computeSR(a));
    EXPECT_IMAGES_EQUAL(b, a);
}

TYPED_TEST(SrFloatEngine, FarDisplacementInXOrPositiveYGivesMinusSix)
{
    // 120 lines: the limit is 12 low-resolution pixels.
    const int width = 160, height = 120;
    const cv::Mat_<float> truth = krotest::texturedScene(2 * height, 2 * width, 21);
    auto run = [&](PointF far) {
        std::vector<PointF> shifts(5, PointF(0.0f, 0.0f));
        shifts[4] = far;  // the newest frame; the reference is the newest but one
        const std::vector<cv::Mat_<float>> frames = krotest::makeShiftedFrames(truth, 2, shifts, 0.5, 0.0, 2);
        SrFloat<TypeParam> engine(width, height, 5, 2.0f);
        engine.setReferenceIndex(1);
        feed(engine, frames);
        cv::Mat_<float> result;
        return engine.computeSR(result);
    };
    EXPECT_EQ(-6.0f, run(PointF(-13.0f, 0.0f)));
    EXPECT_EQ(-6.0f, run(PointF(13.0f, 0.0f)));
    EXPECT_EQ(-6.0f, run(PointF(0.0f, 13.0f)));
    EXPECT_NE(-6.0f, run(PointF(0.0f, -13.0f)));  // negative y is let through on purpose
    EXPECT_NE(-6.0f, run(PointF(-11.5f, 11.5f)));
}

TYPED_TEST(SrFloatEngine, IdenticalFramesGiveQualityTwoAndAMostlyForeignFrameMinusThree)
{
    const cv::Mat_<float> scene = krotest::texturedScene(kHeight, kWidth, 8);
    SrFloat<TypeParam> identical(kWidth, kHeight, 5, 2.0f);
    feed(identical, std::vector<cv::Mat_<float>>(5, scene));
    cv::Mat_<float> result(1, 1, -1.0f);
    EXPECT_FLOAT_EQ(2.0f, identical.computeSR(result));
    std::vector<cv::Mat_<unsigned char>> masks;
    identical.getMasks(masks);
    ASSERT_EQ(5u, masks.size());
    for (const cv::Mat_<unsigned char>& mask : masks)
        EXPECT_EQ(kWidth * kHeight, cv::countNonZero(mask));
    std::vector<PointF> shifts;
    identical.getCompleteShifts(shifts);
    for (const PointF& s : shifts)
        EXPECT_LE(std::max(std::fabs(s.x), std::fabs(s.y)), 1e-3f);

    // Two thirds of one frame show something else: it cannot be aligned
    // there, and the image is still made.
    std::vector<cv::Mat_<float>> frames(5, scene);
    frames[0] = scene.clone();
    krotest::texturedScene(kHeight, kWidth, 99)(cv::Rect(0, 0, kWidth * 2 / 3, kHeight))
        .copyTo(frames[0](cv::Rect(0, 0, kWidth * 2 / 3, kHeight)));
    SrFloat<TypeParam> foreign(kWidth, kHeight, 5, 2.0f);
    feed(foreign, frames);
    result = cv::Mat_<float>(1, 1, -1.0f);
    EXPECT_EQ(-3.0f, foreign.computeSR(result));
    EXPECT_EQ(2 * kHeight, result.rows);
}

TEST(SrFloat, RefusesBadSettingsWithTheirMessagesKeepingStateAndBadFrames)
{
    SrFloat<SrFloatRegistration2> engine(32, 24, 5, 2.0f);
    auto message = [](auto call) -> std::string {
        try { call(); } catch (const char* text) { return text; }
        return "(nothing thrown)";
    };
    EXPECT_EQ("Invalid reference index specified.", message([&] { engine.setReferenceIndex(5); }));
    EXPECT_EQ("Invalid reference index specified.", message([&] { engine.setReferenceIndex(-1); }));
    EXPECT_EQ("Invalid maximum number of iterations specified.", message([&] { engine.setMaxCGIters(0); }));
    EXPECT_EQ("Invalid standard deviation of the sensor psf specified.", message([&] { engine.setPsfSigma(0.0f); }));
    EXPECT_EQ("Invalid maximum registration error specified.", message([&] { engine.setRegError(0.0f); }));
    EXPECT_EQ("Invalid maximum registration error specified.", message([&] { engine.setRegError(1.5f); }));
    EXPECT_EQ("Invalid total-variation term weight specified.", message([&] { engine.setRelativeResidue(0.0f); }));
    EXPECT_EQ("Invalid total-variation term weight specified.", message([&] { engine.setWeightTV(0.5f); }));
    EXPECT_EQ("(nothing thrown)", message([&] { engine.setRegError(1.0f); }));
    // The bound is compared in double: 1e-6f is 9.99999997e-7 there and is refused.
    EXPECT_EQ("Invalid total-variation term weight specified.", message([&] { engine.setRelativeResidue(1e-6f); }));
    EXPECT_EQ("(nothing thrown)", message([&] { engine.setRelativeResidue(1.1e-6f); }));
    EXPECT_EQ("(nothing thrown)", message([&] { engine.setReferenceIndex(4); }));

    EXPECT_EQ(4, engine.getReferenceIndex());
    EXPECT_FLOAT_EQ(0.683f, engine.getPsfSigma());
    EXPECT_EQ(8, engine.getMaxCGIters());
    EXPECT_FLOAT_EQ(400.0f, engine.getWeightTV());

    EXPECT_EQ("Invalid reference index specified.",
              message([] { SrFloat<SrFloatRegistration1> empty(32, 24, 0, 2.0f); }));

    // A frame of another size, and a reconstruction from no frame.
    EXPECT_THROW(engine.addFrame(cv::Mat_<float>(24, 31, 0.0f)), Exception);
    cv::Mat_<float> out;
    EXPECT_THROW(engine.computeSR(out), Exception);
}

TEST(SrFloat, StructureCheckNeedsARangeOfAtLeastTheThreshold)
{
    SrFloat<SrFloatRegistration2> engine(4, 3, 5, 2.0f);
    cv::Mat_<float> image(3, 4, 10.0f);
    EXPECT_FALSE(engine.checkImageStructureQuality(image));
    image(2, 3) = 12.0f;
    EXPECT_TRUE(engine.checkImageStructureQuality(image));
    image(2, 3) = 11.99f;
    EXPECT_FALSE(engine.checkImageStructureQuality(image));
    engine.setMinStructureThreshold(1.0f);
    EXPECT_TRUE(engine.checkImageStructureQuality(image));
}

} // namespace
} // namespace kro
} // namespace velmor
