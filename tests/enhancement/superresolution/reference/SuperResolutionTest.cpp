#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "Exception.h"
#include "ReferenceTestSupport.h"
#include "ShiftedFrames.h"
#include "SrFloat.h"
#include "SuperResolution.h"
#include "TestImages.h"

namespace velmor {
namespace kro {
namespace {

constexpr int kWidth = 96;
constexpr int kHeight = 80;

std::vector<cv::Mat_<float>> burst(int width, int height, const std::vector<PointF>& shifts, std::uint64_t seed)
{
    const cv::Mat_<float> scene = krotest::texturedScene(2 * height, 2 * width, seed);
    return krotest::makeShiftedFrames(scene, 2, shifts, 0.34, 1.0, seed + 1);
}

const std::vector<PointF> kBurst = {{0.0f, 0.0f}, {0.5f, 0.25f}, {-0.25f, 0.5f}, {1.25f, -0.75f}, {0.75f, 0.5f},
                                    {-0.5f, -1.25f}};

std::shared_ptr<krotest::MessageRecorder> listenTo(DebugChannel& channel)
{
    auto recorder = std::make_shared<krotest::MessageRecorder>();
    channel.setDebugDevice(recorder);
    channel.setOutputLevel(kDebugLevelTrace);
    return recorder;
}

// Where the two engines are the same method (phase registration, the same
// minimiser and bad-pixel repair), they give the same bytes and values for
// every fill of the window, also in a sliding window.
TEST(SuperResolution, GivesTheFloatEnginesResultsWithPhaseRegistration)
{
    const std::vector<cv::Mat_<float>> frames = burst(kWidth, kHeight, kBurst, 21);
    SrFloat<SrFloatRegistration1> plain(kWidth, kHeight, 5, 2.0f);
    SuperResolution reference(kWidth, kHeight, 5, 2.0f);
    plain.setReferenceIndex(3);
    reference.setReferenceIndex(3);
    float value = 0.0f;
    for (const cv::Mat_<float>& frame : frames) {
        EXPECT_EQ(plain.addFrame(frame), reference.addFrame(frame));
        cv::Mat_<float> expected, actual;
        const float expectedValue = plain.computeSR(expected);
        value = reference.computeSR(actual);
        EXPECT_EQ(expectedValue, value) << reference.getFramesLoaded() << " frames";
        EXPECT_TRUE(krotest::sameFloatBytes(expected, actual)) << reference.getFramesLoaded() << " frames";
    }
    EXPECT_GT(value, 1.5f);
}

// Every part follows the thread count: the same bytes with 1, 2 and 7
// threads on frames large enough for the loops to split; short output is
// the float output rounded and saturated.
TEST(SuperResolution, SameBytesWhateverTheThreadCount)
{
    const std::vector<cv::Mat_<float>> frames = burst(320, 256, {{0.0f, 0.0f}, {0.5f, 0.25f}, {-0.25f, 0.5f}}, 5);
    std::vector<cv::Mat_<float>> results;
    for (int threads : {1, 2, 7}) {
        SuperResolution engine(320, 256, 3, 2.0f);
        engine.setThreads(threads);
        for (const cv::Mat_<float>& frame : frames)
            engine.addFrame(frame);
        results.emplace_back();
        EXPECT_GT(engine.computeSR(results.back()), 1.0f);
        if (threads == 2) {
            cv::Mat_<short> rounded;
            engine.computeSR(rounded);
            cv::Mat_<short> expected;
            results.back().convertTo(expected, CV_16S);
            EXPECT_IMAGES_EQUAL(expected, rounded);
        }
    }
    EXPECT_TRUE(krotest::sameFloatBytes(results[0], results[1]));
    EXPECT_TRUE(krotest::sameFloatBytes(results[0], results[2]));
}

// The engine's own trace of one reconstruction, in order.
TEST(SuperResolution, TracesAReconstructionInTheRecordedOrder)
{
    const std::vector<cv::Mat_<float>> frames = burst(kWidth, kHeight, {{0.0f, 0.0f}, {0.5f, 0.0f}, {0.0f, 0.5f}}, 3);
    SuperResolution engine(kWidth, kHeight, 3, 2.0f);
    for (const cv::Mat_<float>& frame : frames)
        engine.addFrame(frame);
    auto recorder = listenTo(engine);
    cv::Mat_<float> out;
    engine.computeSR(out);
    const std::vector<std::string> expected = {"++++++++++ SuperResolution ++++++++++",
                                               "start computeSR",
                                               "    calling doRegistration(3, 2)",
                                               " registration:          ",
                                               "Num masked pixel ",
                                               "Num masked pixel ",
                                               "Num masked pixel 0 ratio: 0",
                                               " large_displacement:    ",
                                               "    calling minimize()",
                                               " minimization:          ",
                                               "    calling saveFrame()",
                                               " save+srfactor calc:    ",
                                               "+++++++++++++++++++++++++++++",
                                               "end computeSR"};
    ASSERT_EQ(expected.size(), recorder->messages.size());
    for (std::size_t i = 0; i < expected.size(); ++i)
        EXPECT_EQ(0u, recorder->messages[i].rfind(expected[i], 0)) << recorder->messages[i];
    EXPECT_NE(std::string::npos, recorder->messages[3].find(" [ms]"));
}

struct Outcome {
    float value = 0.0f;
    cv::Mat_<float> out;
    cv::Mat_<float> combined;
    std::shared_ptr<krotest::MessageRecorder> recorder;
};

Outcome reconstruct(const std::vector<cv::Mat_<float>>& frames)
{
    SuperResolution engine(frames[0].cols, frames[0].rows, static_cast<int>(frames.size()), 2.0f);
    Outcome o;
    o.recorder = listenTo(engine);
    for (const cv::Mat_<float>& frame : frames)
        engine.addFrame(frame);
    o.value = engine.computeSR(o.out);
    engine.simpleCombine();
    engine.getResult(o.combined);
    return o;
}

bool endsWith(const Outcome& o, const std::string& reason)
{
    const std::vector<std::string>& m = o.recorder->messages;
    return m.size() >= 2 && m.back() == "abort computeSR" && o.recorder->contains(reason);
}

// Where computing stops, the output is the simple combination and the value
// says why; a flat scene is exactly its enlargement.
TEST(SuperResolution, StopsWithTheSimpleCombinationOnFlatHugeOrFarDisplacedFrames)
{
    const Outcome flat = reconstruct({cv::Mat_<float>(kHeight, kWidth, 25.0f), cv::Mat_<float>(kHeight, kWidth, 25.0f)});
    EXPECT_EQ(static_cast<float>(SuperResolution::kFlatReference), flat.value);
    EXPECT_TRUE(endsWith(flat, "Reference frame is constant. Cannot compute SR."));
    EXPECT_IMAGES_EQUAL(cv::Mat_<float>(2 * kHeight, 2 * kWidth, 25.0f), flat.out);

    // Samples whose sum overflows float: the spectrum's mean is infinite.
    std::vector<cv::Mat_<float>> huge = burst(kWidth, kHeight, {{0.0f, 0.0f}, {0.5f, 0.5f}}, 4);
    for (cv::Mat_<float>& frame : huge)
        frame = frame * 1e34f + 3e37f;
    const Outcome overflow = reconstruct(huge);
    EXPECT_EQ(static_cast<float>(SuperResolution::kNonFiniteSpectrum), overflow.value);
    EXPECT_TRUE(endsWith(overflow, "FFT resulted in infinite values. No processing possible"));
    EXPECT_TRUE(krotest::sameFloatBytes(overflow.combined, overflow.out));

    // 44 columns on 80 rows: half the height or more, which the registration
    // cannot cut (and less than half the width, so it does not wrap).
    const cv::Mat_<float> scene = krotest::texturedScene(kHeight, kWidth, 9);
    cv::Mat_<float> rolled(kHeight, kWidth);
    scene(cv::Rect(0, 0, kWidth - 44, kHeight)).copyTo(rolled(cv::Rect(44, 0, kWidth - 44, kHeight)));
    scene(cv::Rect(kWidth - 44, 0, 44, kHeight)).copyTo(rolled(cv::Rect(0, 0, 44, kHeight)));
    const Outcome far = reconstruct({rolled, scene});
    EXPECT_EQ(static_cast<float>(SuperResolution::kTooLargeDisplacement), far.value);
    EXPECT_TRUE(endsWith(far, "Too large image displacement. Cannot compute SR."));
    EXPECT_TRUE(krotest::sameFloatBytes(far.combined, far.out));
}

// A frame 9 rows down on 80 rows (limit 8) is reported, but reconstructed;
// as in the float engine only a downward y shift counts.
TEST(SuperResolution, LargeDisplacementIsReportedWithAReconstruction)
{
    const Outcome down = reconstruct(burst(kWidth, kHeight, {{0.0f, 9.0f}, {0.5f, 0.25f}, {0.0f, 0.0f}}, 6));
    EXPECT_EQ(static_cast<float>(kSrDisplacement), down.value);
    EXPECT_TRUE(down.recorder->contains("Large image displacement (not too large at all)."));
    EXPECT_EQ("end computeSR", down.recorder->messages.back());
    EXPECT_FALSE(krotest::imagesEqual(down.combined, down.out, 1.0));

    const Outcome up = reconstruct(burst(kWidth, kHeight, {{0.0f, -9.0f}, {0.5f, 0.25f}, {0.0f, 0.0f}}, 6));
    EXPECT_GT(up.value, 1.0f);
    EXPECT_FALSE(up.recorder->contains("Large image displacement"));
}

// The map's centre of mass is the mean residual shift in half pixels of
// the output grid, and the map sums to 1.
TEST(SuperResolution, QualityMapFollowsTheRegisteredShifts)
{
    SuperResolution engine(kWidth, kHeight, 4, 2.0f);
    for (const cv::Mat_<float>& frame : burst(kWidth, kHeight, {{0.0f, 0.0f}, {0.3f, 0.1f}, {-0.2f, 0.4f}, {1.25f, 0.0f}}, 8))
        engine.addFrame(frame);
    cv::Mat_<float> out, q;
    engine.getQuality(q);
    EXPECT_EQ(0.0, cv::sum(q)[0]);
    engine.computeSR(out);
    engine.getQuality(q);
    std::vector<PointF> complete;
    engine.getCompleteShifts(complete);
    ASSERT_EQ(4u, complete.size());
    double meanX = 0.0, meanY = 0.0, centreX = 0.0, centreY = 0.0;
    for (const PointF& s : complete) {
        meanX += (s.x - std::floor(s.x + 0.5f)) / 4.0;
        meanY += (s.y - std::floor(s.y + 0.5f)) / 4.0;
    }
    for (int r = 0; r < 3; ++r)
        for (int c = 0; c < 3; ++c) {
            centreX += q(r, c) * (c - 1) * 0.5;
            centreY += q(r, c) * (r - 1) * 0.5;
        }
    EXPECT_NEAR(1.0, cv::sum(q)[0], 1e-6);
    EXPECT_NEAR(meanX, centreX, 1e-6);
    EXPECT_NEAR(meanY, centreY, 1e-6);
    EXPECT_LT(q(1, 1), 0.9f);  // the frames sample other phases than the reference's
}

TEST(SuperResolution, SettersRefuseWithTheirMessagesAndChangeNothing)
{
    SuperResolution engine(kWidth, kHeight, 5, 2.0f);
    struct Case {
        std::function<void()> set;
        const char* message;
    };
    const float nan = std::nanf("");
    const std::vector<Case> cases = {
        {[&] { engine.setPsfSigma(0.0f); }, "Invalid standard deviation of the sensor psf specified."},
        {[&] { engine.setPsfSigma(nan); }, "Invalid standard deviation of the sensor psf specified."},
        {[&] { engine.setRegError(0.0f); }, "Invalid maximum registration error specified."},
        {[&] { engine.setRegError(1.5f); }, "Invalid maximum registration error specified."},
        {[&] { engine.setRelativeResidue(1e-7f); }, "Invalid total-variation term weight specified."},
        {[&] { engine.setWeightTV(0.5f); }, "Invalid total-variation term weight specified."},
        {[&] { engine.setMaxCGIters(0); }, "Invalid maximum number of iterations specified."},
        {[&] { engine.setReferenceIndex(5); }, "Invalid reference index specified."}};
    for (const Case& c : cases) {
        try {
            c.set();
            ADD_FAILURE() << "accepted; expected \"" << c.message << "\"";
        } catch (const Exception& e) {
            EXPECT_STREQ(c.message, e.what());
            EXPECT_NE(std::string::npos, e.where().find("velmor::kro::SuperResolution::set"));
        }
    }
    EXPECT_EQ(0.683f, engine.getPsfSigma());
    EXPECT_EQ(0.0001f, engine.getRegError());
    EXPECT_EQ(0.007f, engine.getRelativeResidue());
    EXPECT_EQ(400.0f, engine.getWeightTV());
    EXPECT_EQ(8, engine.getMaxCGIters());
    engine.setRegError(1.0f);
    engine.setRelativeResidue(2e-6f);  // 1e-6f itself lies just below 1e-6
    EXPECT_EQ(1.0f, engine.getRegError());
}

TEST(SuperResolution, RefusesBadSizesAndCallsOutOfOrder)
{
    EXPECT_THROW(SuperResolution(kWidth, kHeight, 0, 2.0f), Exception);
    EXPECT_THROW(SuperResolution(kWidth, kHeight, 5, 3.0f), Exception);
    EXPECT_THROW(SuperResolution(kWidth + 1, kHeight, 5, 2.0f), Exception);
    SuperResolution engine(kWidth, kHeight, 2, 2.0f);
    cv::Mat_<float> out;
    EXPECT_THROW(engine.computeSR(out), Exception);
    EXPECT_THROW(engine.addFrame(cv::Mat_<float>(kHeight, kWidth + 2, 1.0f)), Exception);
    EXPECT_THROW(engine.addFrame(static_cast<const short*>(nullptr)), Exception);
    engine.addFrame(cv::Mat_<short>(kHeight, kWidth, short(3)));
    EXPECT_TRUE(engine.checkImageStructureQuality(cv::Mat_<short>((cv::Mat_<short>(1, 2) << 10, 12))));
    EXPECT_FALSE(engine.checkImageStructureQuality(cv::Mat_<float>(4, 4, 7.0f)));
    engine.clearFrames();
    EXPECT_THROW(engine.computeSR(out), Exception);
}

} // namespace
} // namespace kro
} // namespace velmor
