#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

#include "Exception.h"
#include "ReferenceTestSupport.h"
#include "ShiftedFrames.h"
#include "SuperResolution.h"
#include "TestImages.h"

namespace velmor {
namespace kro {

// Sets the residual shifts of a registration and runs the quality map.
class SuperResolutionPeer {
public:
    static cv::Mat_<float> qualityFor(SuperResolution& engine, const std::vector<PointF>& shifts)
    {
        engine.framesLoaded = static_cast<int>(shifts.size());
        std::copy(shifts.begin(), shifts.end(), engine.shifts.begin());
        engine.computeQuality_();
        cv::Mat_<float> q;
        engine.getQuality(q);
        return q;
    }
};

namespace {

// Frames of the calibration tests: the engine's smallest size.
constexpr int kSide = 12;

// A calibration of one gain and offset per pixel, seen at raw values 1000
// and 3000: the radiances g * raw + o are exact in float for gains in
// eighths and whole offsets, so the gains and offsets come back exactly.
struct Calibration {
    Calibration() : nuc1(kSide, kSide, short(1000)), nuc2(kSide, kSide, short(3000)), gain(kSide, kSide, 0.125f),
                    offset(kSide, kSide, 100.0f) {}

    void set(int y, int x, float g, float o)
    {
        gain(y, x) = g;
        offset(y, x) = o;
    }
    // Both raw values equal at (y, x).
    void flat(int y, int x)
    {
        nuc1(y, x) = 500;
        nuc2(y, x) = 500;
    }
    void apply(SuperResolution& engine) const
    {
        cv::Mat_<float> rad1(kSide, kSide), rad2(kSide, kSide);
        for (int y = 0; y < kSide; ++y)
            for (int x = 0; x < kSide; ++x) {
                rad1(y, x) = gain(y, x) * nuc1(y, x) + offset(y, x);
                rad2(y, x) = gain(y, x) * nuc2(y, x) + offset(y, x);
            }
        engine.setNucToRad(nuc1, rad1, nuc2, rad2);
    }

    cv::Mat_<short> nuc1, nuc2;
    cv::Mat_<float> gain, offset;
};

struct Result {
    cv::Mat_<float> gain, offset;
};

Result calibrate(const Calibration& c)
{
    SuperResolution engine(kSide, kSide, 1, 2.0f);
    c.apply(engine);
    Result r;
    engine.getNucToRad(r.gain, r.offset);
    return r;
}

// Two equal raw values give no gain; the pixel takes the mean gain and
// offset of its four neighbours (summed left, right, above, below).
TEST(SuperResolutionCalibration, EqualRawValuesTakeTheMeanOfTheFourNeighbours)
{
    Calibration c;
    c.set(1, 0, 0.5f, 10.0f);
    c.set(1, 2, 1.0f, 20.0f);
    c.set(0, 1, 0.25f, -4.0f);
    c.set(2, 1, 0.75f, 2.0f);
    c.flat(1, 1);
    const Result r = calibrate(c);
    EXPECT_EQ(0.625f, r.gain(1, 1));
    EXPECT_EQ(7.0f, r.offset(1, 1));
    // Valid pixels keep their own values.
    EXPECT_EQ(0.5f, r.gain(1, 0));
    EXPECT_EQ(2.0f, r.offset(2, 1));
    EXPECT_EQ(0.125f, r.gain(5, 5));
}

// In row-major order a repaired pixel counts for the pixels after it, a
// pixel still waiting for repair does not; a gain of 1000 or more (and its
// absurd offset) is repaired like the marker.
TEST(SuperResolutionCalibration, RepairsRunInRowMajorOrderThroughRepairedNeighbours)
{
    Calibration c;
    c.set(1, 0, 0.5f, 3.0f);
    c.set(0, 2, 1.0f, 6.0f);
    c.set(1, 1, 1.5f, 9.0f);
    c.flat(0, 0);  // right neighbour not yet repaired: only the one below counts
    c.flat(0, 1);  // left neighbour repaired: counts with the right and lower ones
    // (3, 3): raw values one apart for 1500 radiance units.
    c.nuc1(3, 3) = 1000;
    c.nuc2(3, 3) = 1001;
    c.set(3, 3, 1500.0f, 50000.0f);
    c.set(2, 3, 0.25f, 8.0f);
    c.set(3, 2, 0.75f, 16.0f);
    c.set(3, 4, 0.5f, 4.0f);
    c.set(4, 3, 0.5f, 4.0f);
    const Result r = calibrate(c);
    EXPECT_EQ(0.5f, r.gain(0, 0));
    EXPECT_EQ(3.0f, r.offset(0, 0));
    EXPECT_EQ((0.5f + 1.0f + 1.5f) / 3.0f, r.gain(0, 1));
    EXPECT_EQ(6.0f, r.offset(0, 1));
    EXPECT_EQ(0.5f, r.gain(3, 3));    // (0.75 + 0.5 + 0.25 + 0.5) / 4
    EXPECT_EQ(8.0f, r.offset(3, 3));  // (16 + 4 + 8 + 4) / 4
}

// A pixel whose neighbours are all invalid when its turn comes stays NaN
// (0/0), on purpose; its radiance is then NaN, and the bad-pixel detector
// repairs it, so the result has no NaN.
TEST(SuperResolutionCalibration, APixelWithoutValidNeighbourStaysNanAndTheDetectorRepairsIt)
{
    Calibration c;
    c.set(0, 2, 1.0f, 6.0f);
    c.set(2, 0, 0.5f, 2.0f);
    c.set(1, 2, 0.25f, 10.0f);
    c.set(2, 1, 0.75f, 4.0f);
    for (int y : {0, 1})
        for (int x : {0, 1})
            c.flat(y, x);
    const Result r = calibrate(c);
    EXPECT_TRUE(std::isnan(r.gain(0, 0)));
    EXPECT_TRUE(std::isnan(r.offset(0, 0)));
    EXPECT_EQ(1.0f, r.gain(0, 1));    // right neighbour only
    EXPECT_EQ(0.5f, r.gain(1, 0));    // lower neighbour only
    EXPECT_EQ(0.625f, r.gain(1, 1));  // (0.5 + 0.25 + 1.0 + 0.75) / 4
    EXPECT_EQ(5.5f, r.offset(1, 1));  // (2 + 10 + 6 + 4) / 4

    Calibration allFlat;
    for (int y = 0; y < kSide; ++y)
        for (int x = 0; x < kSide; ++x)
            allFlat.flat(y, x);
    EXPECT_TRUE(std::isnan(calibrate(allFlat).gain(kSide - 1, kSide - 1)));

    SuperResolution engine(kSide, kSide, 1, 2.0f);
    c.apply(engine);
    const cv::Mat_<short> raw = krotest::randomImage(kSide, kSide, CV_16S, 900, 1100, 6);
    cv::Mat_<float> out(2 * kSide, 2 * kSide);
    engine.processFrame2(raw.ptr<short>(), out.ptr<float>());
    cv::Mat_<float> radiance;
    engine.getRadiance(radiance);
    EXPECT_TRUE(std::isnan(radiance(0, 0)));
    EXPECT_EQ(raw(5, 7) * 0.125f + 100.0f, radiance(5, 7));
    EXPECT_TRUE(cv::checkRange(out));
}

TEST(SuperResolutionCalibration, ProcessFrameBeforeTheCalibrationAndBadCalibrationsAreRefused)
{
    SuperResolution engine(kSide, kSide, 2, 2.0f);
    std::vector<short> raw(kSide * kSide, 1000);
    std::vector<float> out(4 * kSide * kSide);
    try {
        engine.processFrame2(raw.data(), out.data());
        FAIL() << "no exception";
    } catch (const Exception& e) {
        EXPECT_STREQ("NucToRad() not initialized", e.what());
        EXPECT_NE(std::string::npos, e.where().find("velmor::kro::SuperResolution::processFrame2"));
    }

    const cv::Mat_<short> nuc(kSide, kSide, short(1000)), nucHigh(kSide, kSide, short(2000));
    const cv::Mat_<float> rad(kSide, kSide, 1.0f), small(kSide - 1, kSide, 1.0f);
    EXPECT_THROW(engine.setNucToRad(nuc, small, nucHigh, rad), Exception);
    EXPECT_THROW(engine.setNucToRad(nuc, rad, cv::Mat_<short>(), rad), Exception);
    EXPECT_FALSE(engine.hasNucToRad());
    EXPECT_THROW(engine.processFrame2(raw.data(), out.data()), Exception);

    engine.setNucToRad(nuc, rad, nucHigh, rad + 1.0f);
    EXPECT_THROW(engine.setNucToRad(nuc, rad, nucHigh, small), Exception);
    cv::Mat_<float> gain, offset;
    engine.getNucToRad(gain, offset);
    EXPECT_EQ(0.001f, gain(3, 3));  // the first calibration is kept
}

// processFrame2 is the conversion followed by addFrame and computeSR: the
// same bytes as an engine fed the radiances.
TEST(SuperResolutionCalibration, ProcessFrameIsTheConversionThenTheReconstruction)
{
    const int w = 64, h = 48;
    const cv::Mat_<float> scene = krotest::texturedScene(2 * h, 2 * w, 4);
    const std::vector<cv::Mat_<float>> frames =
        krotest::makeShiftedFrames(scene, 2, {{0.0f, 0.0f}, {0.5f, 0.25f}, {-0.25f, 0.5f}}, 0.34, 1.0, 2);
    const cv::Mat_<short> nuc1(h, w, short(2000)), nuc2(h, w, short(6000));
    const cv::Mat_<float> rad1 = krotest::randomImage(h, w, CV_32F, 1.0, 2.0, 7);
    const cv::Mat_<float> rad2 = rad1 + 4.0f;

    SuperResolution calibrated(w, h, 3, 2.0f), fed(w, h, 3, 2.0f);
    calibrated.setNucToRad(nuc1, rad1, nuc2, rad2);
    cv::Mat_<float> gain, offset;
    calibrated.getNucToRad(gain, offset);
    for (const cv::Mat_<float>& frame : frames) {
        cv::Mat_<short> raw;
        frame.convertTo(raw, CV_16S, 4.0, 2000.0);
        cv::Mat_<float> viaRaw(2 * h, 2 * w), viaRadiance(2 * h, 2 * w), radiance(h, w);
        const float value = calibrated.processFrame2(raw.ptr<short>(), viaRaw.ptr<float>());
        for (int y = 0; y < h; ++y)
            for (int x = 0; x < w; ++x)
                radiance(y, x) = static_cast<float>(raw(y, x)) * gain(y, x) + offset(y, x);
        fed.addFrame(radiance);
        EXPECT_EQ(fed.computeSR(viaRadiance.ptr<float>()), value);
        EXPECT_TRUE(krotest::sameFloatBytes(viaRadiance, viaRaw));
    }

    // A copy converts into radiance and phase maps of its own.
    cv::Mat_<float> radiance, quality, out(2 * h, 2 * w);
    calibrated.getRadiance(radiance);
    calibrated.getQuality(quality);
    SuperResolution copy(calibrated);
    cv::Mat_<short> raw;
    frames[0].convertTo(raw, CV_16S, 4.0, 2000.0);
    copy.processFrame2(raw.ptr<short>(), out.ptr<float>());
    cv::Mat_<float> after;
    copy.getRadiance(after);
    ASSERT_FALSE(krotest::sameFloatBytes(radiance, after));
    calibrated.getRadiance(after);
    EXPECT_TRUE(krotest::sameFloatBytes(radiance, after));
    calibrated.getQuality(after);
    EXPECT_TRUE(krotest::sameFloatBytes(quality, after));
}

// --- Quality map and simple combination ---------------------------------

TEST(SuperResolutionQuality, MapSpreadsEachShiftBilinearlyOverTheHalfPixelPhases)
{
    SuperResolution engine(kSide, kSide, 4, 2.0f);
    cv::Mat_<float> expected(3, 3, 0.0f);
    expected(1, 1) = 1.0f;
    EXPECT_IMAGES_EQUAL(expected, SuperResolutionPeer::qualityFor(engine, {{0.0f, 0.0f}}));

    // u = 1.5, v = 2: half on (2, 1), half on (2, 2).
    expected.setTo(0.0f);
    expected(2, 1) = 0.5f;
    expected(2, 2) = 0.5f;
    EXPECT_IMAGES_EQUAL(expected, SuperResolutionPeer::qualityFor(engine, {{0.25f, 0.5f}}));

    // Four frames: each adds weights summing to 1, the map is divided by 4.
    // (-0.5, 0) -> (1, 0); (0.25, -0.25) -> u 1.5, v 0.5 over rows 0 and 1.
    expected.setTo(0.0f);
    expected(1, 1) = 2.0f;
    expected(1, 0) += 1.0f;
    expected(0, 1) += 0.25f;
    expected(0, 2) += 0.25f;
    expected(1, 1) += 0.25f;
    expected(1, 2) += 0.25f;
    const cv::Mat_<float> four =
        SuperResolutionPeer::qualityFor(engine, {{0.0f, 0.0f}, {0.0f, 0.0f}, {-0.5f, 0.0f}, {0.25f, -0.25f}});
    EXPECT_IMAGES_EQUAL(expected / 4.0f, four, 1e-7);
    EXPECT_NEAR(1.0, cv::sum(four)[0], 1e-6);
}

TEST(SuperResolutionQuality, SimpleCombineReplicatesTheMeanOfTheHeldFrames)
{
    SuperResolution engine(kSide, kSide, 3, 2.0f);
    EXPECT_THROW(engine.simpleCombine(), Exception);
    const cv::Mat_<float> a = krotest::randomImage(kSide, kSide, CV_32F, 0.0, 100.0, 1);
    const cv::Mat_<float> b = krotest::randomImage(kSide, kSide, CV_32F, 0.0, 100.0, 2);
    const cv::Mat_<float> c = krotest::randomImage(kSide, kSide, CV_32F, 0.0, 100.0, 3);
    engine.addFrame(a);
    engine.simpleCombine();
    cv::Mat_<float> out;
    engine.getResult(out);
    ASSERT_EQ(cv::Size(2 * kSide, 2 * kSide), out.size());
    for (int y = 0; y < 2 * kSide; ++y)
        for (int x = 0; x < 2 * kSide; ++x)
            ASSERT_EQ(a(y / 2, x / 2), out(y, x)) << x << ", " << y;

    engine.addFrame(b);
    engine.addFrame(c);
    engine.simpleCombine();
    engine.getResult(out);
    for (int y = 0; y < 2 * kSide; ++y)
        for (int x = 0; x < 2 * kSide; ++x) {
            const double mean = (static_cast<double>(a(y / 2, x / 2)) + b(y / 2, x / 2) + c(y / 2, x / 2)) / 3.0;
            ASSERT_EQ(static_cast<float>(mean), out(y, x)) << x << ", " << y;
        }
}

} // namespace
} // namespace kro
} // namespace velmor
