#include <gtest/gtest.h>

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <random>
#include <string>
#include <vector>

#if defined(__SSE2__)
#include <pmmintrin.h>
#include <xmmintrin.h>
#endif

#include <opencv2/imgproc.hpp>

#include "Exception.h"
#include "SuperResolutionBadPixelHandling.h"
#include "TestImages.h"

namespace velmor {
namespace kro {
namespace {

using Handler = SuperResolutionBadPixelHandling;

float pattern(std::uint32_t bits)
{
    float v;
    std::memcpy(&v, &bits, sizeof v);
    return v;
}

std::uint32_t bitsAt(const cv::Mat_<float>& img, int y, int x) { return Handler::bitPattern(img(y, x)); }

int countNonZero(const cv::Mat_<unsigned char>& map) { return cv::countNonZero(map); }

// Median of the in-frame 8 neighbours of (x, y), worked out plainly.
float neighbourMedian(const cv::Mat_<float>& img, int x, int y)
{
    std::vector<float> v;
    for (int j = y - 1; j <= y + 1; ++j)
        for (int i = x - 1; i <= x + 1; ++i)
            if ((i != x || j != y) && i >= 0 && j >= 0 && i < img.cols && j < img.rows)
                v.push_back(img(j, i));
    std::sort(v.begin(), v.end());
    const size_t n = v.size();
    return n % 2 ? v[n / 2] : static_cast<float>((double(v[n / 2 - 1]) + v[n / 2]) / 2.0);
}

// A gentle ramp with mild noise: every border and corner pixel has
// neighbours that tell a dead pixel apart.
cv::Mat_<float> noisyRamp(int rows, int cols, std::uint64_t seed, double sigma = 2.0)
{
    cv::Mat_<float> img(rows, cols);
    std::mt19937_64 rng(seed);
    std::normal_distribution<double> noise(0.0, sigma);
    for (int y = 0; y < rows; ++y)
        for (int x = 0; x < cols; ++x)
            img(y, x) = static_cast<float>(1000.0 + 2.0 * x + 3.0 * y + noise(rng));
    return img;
}

bool bitwiseEqual(const cv::Mat_<float>& a, const cv::Mat_<float>& b)
{
    if (a.size() != b.size())
        return false;
    for (int y = 0; y < a.rows; ++y)
        if (std::memcmp(a[y], b[y], sizeof(float) * a.cols) != 0)
            return false;
    return true;
}

template <typename F>
Exception expectException(F&& call)
{
    try {
        call();
    } catch (const Exception& e) {
        return e;
    }
    ADD_FAILURE() << "no velmor::kro::Exception thrown";
    return Exception("", "");
}

// --- detection ---------------------------------------------------------------

TEST(BadPixelDetection, FindsDeadHotAndCameraMarkedPixelsAndRepairsThemFromTheirNeighbours)
{
    cv::Mat_<float> frame = krotest::texturedScene(40, 48, 7);
    frame(12, 10) = 0.0f;                      // dead
    frame(20, 30) += 5000.0f;                  // hot
    frame(30, 5) = pattern(Handler::kMarkerCold);
    frame(7, 25) = pattern(Handler::kMarkerHot);
    const cv::Mat_<float> original = frame.clone();

    Handler handler(5);
    ASSERT_EQ(0, handler.detectAndReplaceBadPixel(frame));
    const cv::Mat_<unsigned char>& map = handler.getDefectMaps().back();
    EXPECT_EQ(Handler::kDefect, map(12, 10));
    EXPECT_EQ(Handler::kDefect, map(20, 30));
    EXPECT_EQ(Handler::kCameraMarked130, map(30, 5));
    EXPECT_EQ(Handler::kCameraMarked129, map(7, 25));
    EXPECT_EQ(4, countNonZero(map));

    cv::Mat_<float> expected = original.clone();
    for (const cv::Point p : {cv::Point(10, 12), cv::Point(30, 20), cv::Point(5, 30), cv::Point(25, 7)})
        expected(p) = neighbourMedian(original, p.x, p.y);
    EXPECT_IMAGES_EQUAL(expected, frame);
}

TEST(BadPixelDetection, StatusFollowsMarkersLimitsAndKindOfData)
{
    struct Case {
        float value;
        bool nuc;
        unsigned char status;
    };
    const float inf = std::numeric_limits<float>::infinity();
    const Case cases[] = {
        {pattern(Handler::kMarkerCold), false, Handler::kCameraMarked130},
        {pattern(Handler::kMarkerHot), true, Handler::kCameraMarked129},
        {inf, false, Handler::kAboveUpperLimit},
        {-inf, false, Handler::kBelowLowerLimit},
        {std::nanf(""), false, Handler::kDefect},
        {pattern(Handler::kMarkerDetected), false, Handler::kDefect}, // a fed-back 132
        {pattern(5u), true, Handler::kDefect},                       // any other subnormal
        {32767.0f, true, Handler::kAboveUpperLimit},                 // saturation rail
        {-32768.0f, true, Handler::kBelowLowerLimit},                // floor rail
        {32767.0f, false, Handler::kDefect},                         // radiance: an outlier
        {-32768.0f, false, Handler::kDefect},
        {1040.0f, true, Handler::kGood},
    };
    for (const Case& c : cases) {
        cv::Mat_<float> frame = noisyRamp(9, 11, 3);
        frame(4, 5) = c.value;
        Handler handler(1);
        handler.setDataIsNUC(c.nuc);
        handler.detectAndReplaceBadPixel(frame);
        const cv::Mat_<unsigned char>& map = handler.getDefectMaps().back();
        EXPECT_EQ(int(c.status), int(map(4, 5))) << "value bits " << Handler::bitPattern(c.value) << " nuc " << c.nuc;
        EXPECT_EQ(c.status == Handler::kGood ? 0 : 1, countNonZero(map)) << c.value;
    }
}

TEST(BadPixelDetection, CustomLimitsAreValidatedAndApplied)
{
    Handler handler(1);
    EXPECT_THROW(handler.setLimits(5.0f, 5.0f), Exception);
    EXPECT_THROW(handler.setLimits(std::nanf(""), 5.0f), Exception);
    handler.setLimits(1.0f, 16382.0f); // 14-bit sensor: 0 and 16383 are rails
    cv::Mat_<float> frame = noisyRamp(6, 6, 4);
    frame(1, 1) = 16383.0f;
    frame(4, 4) = 0.0f;
    handler.detectAndReplaceBadPixel(frame);
    EXPECT_EQ(Handler::kAboveUpperLimit, handler.getDefectMaps()[0](1, 1));
    EXPECT_EQ(Handler::kBelowLowerLimit, handler.getDefectMaps()[0](4, 4));
    handler.setDataIsNUC(false); // back to the defaults of radiance data
    EXPECT_EQ(-FLT_MAX, handler.getLowerLimit());
    EXPECT_EQ(FLT_MAX, handler.getUpperLimit());
}

TEST(BadPixelDetection, SceneStructureAndNoiseAreNotTakenForDefects)
{
    std::vector<cv::Mat_<float>> frames = {krotest::texturedScene(120, 160, 1), krotest::texturedScene(64, 64, 2),
                                           noisyRamp(60, 80, 5, 20.0), cv::Mat_<float>(16, 16, 42.0f)};
    cv::Mat_<float> noisyScene = krotest::texturedScene(120, 160, 3);
    cv::Mat noise(noisyScene.size(), CV_32F);
    cv::randn(noise, 0.0, 4.0);
    noisyScene += noise;
    frames.push_back(noisyScene);
    for (size_t i = 0; i < frames.size(); ++i) {
        const cv::Mat_<float> original = frames[i].clone();
        Handler handler(1);
        EXPECT_EQ(0, handler.detectAndReplaceBadPixel(frames[i])) << i;
        EXPECT_EQ(0, countNonZero(handler.getDefectMaps()[0])) << "frame " << i;
        EXPECT_TRUE(bitwiseEqual(original, frames[i])) << i;
    }
}

TEST(BadPixelDetection, AdjacentDefectsDoNotHideEachOther)
{
    cv::Mat_<float> frame = noisyRamp(12, 12, 6);
    frame(5, 5) = frame(5, 6) = 9000.0f; // a hot pair
    frame(8, 2) = frame(9, 3) = 0.0f;    // a diagonal dead pair
    Handler handler(1);
    EXPECT_EQ(0, handler.detectAndReplaceBadPixel(frame));
    const cv::Mat_<unsigned char>& map = handler.getDefectMaps()[0];
    EXPECT_EQ(4, countNonZero(map));
    EXPECT_EQ(Handler::kDefect, map(5, 6));
    EXPECT_EQ(Handler::kDefect, map(9, 3));
    EXPECT_NEAR(1000.0 + 2 * 5 + 3 * 5, frame(5, 5), 12.0); // median of the good neighbours
}

TEST(BadPixelDetection, CornerAndBorderDefectsAreFoundFromTheNeighboursInside)
{
    const int rows = 7, cols = 9;
    const cv::Point spots[] = {{0, 0}, {cols - 1, 0}, {0, rows - 1}, {cols - 1, rows - 1},
                               {4, 0}, {0, 3}, {cols - 1, 3}, {4, rows - 1}};
    cv::Mat_<float> frame = noisyRamp(rows, cols, 8);
    for (const cv::Point& p : spots)
        frame(p) = 0.0f;
    const cv::Mat_<float> original = frame.clone();
    Handler handler(1);
    EXPECT_EQ(0, handler.detectAndReplaceBadPixel(frame));
    EXPECT_EQ(8, countNonZero(handler.getDefectMaps()[0]));
    for (const cv::Point& p : spots) {
        // The neighbour median leaves out the other (dead) spots: none is adjacent.
        EXPECT_EQ(Handler::kDefect, handler.getDefectMaps()[0](p)) << p;
        EXPECT_EQ(neighbourMedian(original, p.x, p.y), frame(p)) << p;
    }
}

TEST(BadPixelDetection, ClusterOfCameraMarksIsFilledFromTheOuterRing)
{
    cv::Mat_<float> frame(7, 7);
    for (int y = 0; y < 7; ++y)
        for (int x = 0; x < 7; ++x)
            frame(y, x) = static_cast<float>(10 * y + x);
    for (int y = 2; y <= 4; ++y)
        for (int x = 2; x <= 4; ++x)
            frame(y, x) = pattern(Handler::kMarkerCold);
    Handler handler(1);
    EXPECT_EQ(0, handler.detectAndReplaceBadPixel(frame));
    // Centre (3, 3): the 16 ring pixels 11..15, 21, 25, 31, 35, 41, 45, 51..55;
    // their median is (31 + 35) / 2.
    EXPECT_FLOAT_EQ(33.0f, frame(3, 3));
    // (2, 2): good neighbours 11, 12, 13, 21, 31 -> 13.
    EXPECT_FLOAT_EQ(13.0f, frame(2, 2));
}

TEST(BadPixelDetection, TinyFramesNeedNoNeighboursToBeHandled)
{
    Handler handler(3);
    cv::Mat_<float> single(1, 1, 5.0f);
    EXPECT_EQ(0, handler.detectAndReplaceBadPixel(single));
    EXPECT_EQ(5.0f, single(0, 0));

    Handler rowHandler(1);
    cv::Mat_<float> row = (cv::Mat_<float>(1, 4) << 4.0f, std::nanf(""), 8.0f, 9.0f);
    EXPECT_EQ(0, rowHandler.detectAndReplaceBadPixel(row));
    EXPECT_EQ(6.0f, row(0, 1)); // median of its two neighbours 4 and 8
}

// --- what cannot be replaced ---------------------------------------------------

TEST(BadPixelDetection, UnreplaceablePixelsGetGoodExtremesOrZeroAndOnlyNonMarkersReturnMinusTwo)
{
    // Columns 0..3 are good (values 100..137); columns 4..11 hold bad pixels,
    // and from column 6 on no good pixel lies within two columns.
    auto makeFrame = []() {
        cv::Mat_<float> f(4, 12, pattern(Handler::kMarkerCold));
        for (int y = 0; y < 4; ++y)
            for (int x = 0; x < 4; ++x)
                f(y, x) = static_cast<float>(100 + 10 * y + x);
        return f;
    };
    cv::Mat_<float> frame = makeFrame();
    frame(0, 8) = pattern(Handler::kMarkerHot);
    Handler handler(1);
    EXPECT_EQ(0, handler.detectAndReplaceBadPixel(frame)); // markers only: no error
    EXPECT_EQ(100.0f, frame(1, 9));                        // 130 -> smallest good value
    EXPECT_EQ(133.0f, frame(0, 8));                        // 129 -> largest good value

    const float inf = std::numeric_limits<float>::infinity();
    frame = makeFrame();
    frame(0, 7) = inf;
    frame(1, 8) = -inf;
    frame(2, 9) = std::nanf("");
    EXPECT_EQ(-2, handler.detectAndReplaceBadPixel(frame));
    EXPECT_EQ(133.0f, frame(0, 7));
    EXPECT_EQ(100.0f, frame(1, 8));
    EXPECT_EQ(0.0f, frame(2, 9));
    EXPECT_EQ(113.0f, frame(1, 4)); // next to good pixels: median of 103, 113, 123
}

TEST(BadPixelDetection, ElevenReallyBadPixelsAreRefusedAndTheFrameIsLeftAsItCame)
{
    Handler handler(2);
    cv::Mat_<float> ten(2, 5, std::nanf(""));
    EXPECT_EQ(-2, handler.detectAndReplaceBadPixel(ten));
    EXPECT_EQ(0, cv::countNonZero(ten)); // all set to 0: no good pixel anywhere

    Handler refusing(2);
    cv::Mat_<float> tenNaN(1, 12, std::nanf(""));
    tenNaN(0, 0) = pattern(Handler::kMarkerHot); // markers do not count
    tenNaN(0, 11) = pattern(Handler::kMarkerCold);
    EXPECT_EQ(-2, refusing.detectAndReplaceBadPixel(tenNaN));
    cv::Mat_<float> elevenNaN(1, 12, std::nanf(""));
    elevenNaN(0, 0) = pattern(Handler::kMarkerHot);
    const cv::Mat_<float> before = elevenNaN.clone();
    const Exception e = expectException([&] { refusing.detectAndReplaceBadPixel(elevenNaN); });
    EXPECT_STREQ("Too many defect pixels. No processing possible.", e.what());
    EXPECT_NE(std::string::npos,
              e.where().find("modules/enhancement/superresolution/reference/SuperResolutionBadPixelHandling:"));
    EXPECT_NE(std::string::npos,
              e.where().find(" : velmor::kro::SuperResolutionBadPixelHandling::detectAndReplaceBadPixel(..)"));
    EXPECT_TRUE(bitwiseEqual(before, elevenNaN));
    EXPECT_EQ(2u, refusing.getDefectMaps().size()); // the map stays in step with the engine's frames
}

// --- defect maps ---------------------------------------------------------------

TEST(DefectMaps, FollowTheEnginesFrameRotationAndClearing)
{
    Handler handler(3);
    auto frameWithDefectAt = [](int x) {
        cv::Mat_<float> f = noisyRamp(6, 10, static_cast<std::uint64_t>(x));
        f(3, x) = std::nanf("");
        return f;
    };
    auto defectColumn = [](const cv::Mat_<unsigned char>& map) {
        cv::Point p;
        cv::minMaxLoc(map, nullptr, nullptr, nullptr, &p);
        return p.x;
    };
    for (int k = 1; k <= 5; ++k) {
        cv::Mat_<float> f = frameWithDefectAt(k);
        handler.detectAndReplaceBadPixel(f);
    }
    ASSERT_EQ(3u, handler.getDefectMaps().size());
    EXPECT_EQ(3, defectColumn(handler.getDefectMaps()[0])); // oldest first
    EXPECT_EQ(4, defectColumn(handler.getDefectMaps()[1]));
    EXPECT_EQ(5, defectColumn(handler.getDefectMaps()[2]));

    cv::Mat_<float> otherSize = noisyRamp(5, 5, 1);
    EXPECT_THROW(handler.detectAndReplaceBadPixel(otherSize), Exception);
    EXPECT_EQ(3u, handler.getDefectMaps().size());
    handler.clearDefectMaps();
    EXPECT_TRUE(handler.getDefectMaps().empty());
    EXPECT_EQ(0, handler.detectAndReplaceBadPixel(otherSize));
    EXPECT_EQ(1u, handler.getDefectMaps().size());

    cv::Mat_<float> empty;
    EXPECT_THROW(handler.detectAndReplaceBadPixel(empty), Exception);
    Handler none(0); // an engine validates its window size after building this member
    cv::Mat_<float> f = noisyRamp(4, 4, 1);
    EXPECT_THROW(none.detectAndReplaceBadPixel(f), Exception);
}

TEST(DefectMaps, CopiesOwnTheirMaps)
{
    Handler original(1);
    cv::Mat_<float> f = noisyRamp(6, 6, 1);
    f(2, 2) = std::nanf("");
    original.detectAndReplaceBadPixel(f);
    Handler copy(original);
    Handler assigned(4);
    assigned = original;
    cv::Mat_<float> clean = noisyRamp(6, 6, 2);
    original.detectAndReplaceBadPixel(clean); // rewrites the original's only map
    EXPECT_EQ(0, countNonZero(original.getDefectMaps()[0]));
    EXPECT_EQ(Handler::kDefect, copy.getDefectMaps()[0](2, 2));
    EXPECT_EQ(Handler::kDefect, assigned.getDefectMaps()[0](2, 2));
    EXPECT_EQ(1u, assigned.getNumberOfFrames());
}

// --- masking the super-resolved image --------------------------------------

// A handler holding one map per entry of `defects`: frame k has a NaN (status
// 3) or the given marker at each listed low-resolution position.
struct Defect {
    int x, y;
    float value;
};
Handler handlerWith(const std::vector<std::vector<Defect>>& defects, int rows, int cols,
                    std::vector<cv::Mat_<float>>* frames = nullptr)
{
    Handler handler(static_cast<unsigned>(defects.size()));
    for (size_t k = 0; k < defects.size(); ++k) {
        cv::Mat_<float> f = noisyRamp(rows, cols, k + 10);
        for (const Defect& d : defects[k])
            f(d.y, d.x) = d.value;
        handler.detectAndReplaceBadPixel(f);
        if (frames)
            frames->push_back(f);
    }
    return handler;
}

// Which pixels of `sr` carry `marker`, as a 0/1 map.
cv::Mat_<unsigned char> markerMap(const cv::Mat_<float>& sr, std::uint32_t marker)
{
    cv::Mat_<unsigned char> m(sr.size(), 0);
    for (int y = 0; y < sr.rows; ++y)
        for (int x = 0; x < sr.cols; ++x)
            m(y, x) = bitsAt(sr, y, x) == marker;
    return m;
}

cv::Mat_<unsigned char> block(cv::Size size, int x0, int y0, int x1, int y1)
{
    cv::Mat_<unsigned char> m(size, 0);
    for (int y = std::max(0, y0); y <= std::min(size.height - 1, y1); ++y)
        for (int x = std::max(0, x0); x <= std::min(size.width - 1, x1); ++x)
            m(y, x) = 1;
    return m;
}

TEST(MaskBadPixel, DefectAtTheOriginMarksOnlyTheInsideOfItsBlock)
{
    const float nan = std::nanf("");
    Handler handler = handlerWith({{{0, 0, nan}}}, 5, 5);
    cv::Mat_<float> sr(10, 10, 7.0f);
    handler.maskBadPixel(sr, {PointF(0.0f, 0.0f)});
    EXPECT_IMAGES_EQUAL(block(sr.size(), 0, 0, 3, 3), markerMap(sr, Handler::kMarkerDetected));
    EXPECT_EQ(100 - 16, cv::countNonZero(sr == 7.0f));
}

TEST(MaskBadPixel, MarkerKindFollowsTheStatusAndTheBlockFollowsTheShift)
{
    const float inf = std::numeric_limits<float>::infinity();
    Handler handler = handlerWith({{{1, 1, pattern(Handler::kMarkerCold)}},
                                   {{6, 1, pattern(Handler::kMarkerHot)}},
                                   {{4, 3, inf}}},
                                  6, 9);
    cv::Mat_<float> sr(12, 18, 1.0f);
    // (x - sx) * 2, (y - sy) * 2: frame 0 -> (2, 2); frame 1 -> (12.5, 0) -> 12, 0;
    // frame 2 -> (7.5, 7.5) -> 7, 7, whose block overwrites a corner of frame 0's.
    handler.maskBadPixel(sr, {PointF(0.0f, 0.0f), PointF(-0.25f, 1.0f), PointF(0.25f, -0.75f)});
    EXPECT_IMAGES_EQUAL(block(sr.size(), -1, -1, 5, 5) & ~block(sr.size(), 4, 4, 5, 5),
                        markerMap(sr, Handler::kMarkerCold));
    EXPECT_IMAGES_EQUAL(block(sr.size(), 9, -3, 15, 3), markerMap(sr, Handler::kMarkerHot));
    EXPECT_IMAGES_EQUAL(block(sr.size(), 4, 4, 10, 10), markerMap(sr, Handler::kMarkerDetected));
}

TEST(MaskBadPixel, CentresOutsideTheImageAreSkippedExceptJustRightOfIt)
{
    const float nan = std::nanf("");
    Handler handler = handlerWith({{{2, 2, nan}}}, 5, 5);
    const cv::Size size(8, 8);
    struct Case {
        PointF shift;
        cv::Mat_<unsigned char> expected;
    };
    const Case cases[] = {
        {PointF(0.0f, 2.25f), cv::Mat_<unsigned char>(size, 0)},  // Y = -0.5: skipped though the block reaches in
        {PointF(0.0f, -2.0f), cv::Mat_<unsigned char>(size, 0)},  // Y = 8 = rows
        {PointF(2.5f, 0.0f), cv::Mat_<unsigned char>(size, 0)},   // X = -1
        {PointF(-2.5f, 0.0f), block(size, 6, 1, 12, 7)},          // X = 9 > cols: clipped block
        {PointF(-3.5f, 0.0f), cv::Mat_<unsigned char>(size, 0)},  // X = 11: nothing inside
        {PointF(std::nanf(""), 0.0f), cv::Mat_<unsigned char>(size, 0)},
    };
    for (const Case& c : cases) {
        cv::Mat_<float> sr(size, 3.0f);
        handler.maskBadPixel(sr, {c.shift});
        EXPECT_IMAGES_EQUAL(c.expected, markerMap(sr, Handler::kMarkerDetected)) << c.shift.x << "," << c.shift.y;
    }
    cv::Mat_<float> empty;
    handler.maskBadPixel(empty, {PointF()});
}

TEST(MaskBadPixel, ShiftCountMustMatchTheMaps)
{
    Handler handler = handlerWith({{}, {}}, 4, 4);
    cv::Mat_<float> sr(8, 8, 0.0f);
    const Exception e = expectException([&] { handler.maskBadPixel(sr, {PointF()}); });
    EXPECT_STREQ("maskBadPixel(): number of shifts ist not equal to number of defectMaps", e.what());
    EXPECT_NE(std::string::npos, e.where().find("velmor::kro::SuperResolutionBadPixelHandling::maskBadPixel(..)"));
}

// --- refilling the super-resolved image ------------------------------------

TEST(ReplaceMaskedPixel, MarkersGetTheMeanOfTheGoodSamplesCoveringThem)
{
    std::vector<cv::Mat_<float>> frames;
    Handler handler = handlerWith({{{1, 1, std::nanf("")}}, {}}, 4, 4, &frames);
    const std::vector<PointF> shifts = {PointF(0.0f, 0.0f), PointF(0.5f, 0.0f)};
    cv::Mat_<float> sr(8, 8, 5.0f);
    handler.maskBadPixel(sr, shifts); // block rows and columns -1..5
    handler.replaceMaskedPixel(sr, shifts, frames);
    // (x, y) = (2, 2): frame 0 at (1, 1) is bad, frame 1 at (int)(1 + 0.5) = 1.
    EXPECT_EQ(frames[1](1, 1), sr(2, 2));
    // (3, 2): frame 0 at (1, 1) bad; frame 1 at (int)(1.5 + 0.5) = 2.
    EXPECT_EQ(frames[1](1, 2), sr(2, 3));
    // (4, 4): frame 0 at (2, 2), frame 1 at (int)2.5 = 2: both good.
    EXPECT_FLOAT_EQ(static_cast<float>((double(frames[0](2, 2)) + frames[1](2, 2)) / 2.0), sr(4, 4));
    // (0, 5): frame 0 at (0, 2), frame 1 at (0, 2).
    EXPECT_FLOAT_EQ(static_cast<float>((double(frames[0](2, 0)) + frames[1](2, 0)) / 2.0), sr(5, 0));
    EXPECT_EQ(5.0f, sr(6, 6)); // never marked, untouched
    EXPECT_EQ(0, cv::countNonZero(markerMap(sr, Handler::kMarkerDetected)));
}

TEST(ReplaceMaskedPixel, MarkerThatNoGoodSampleCoversKeepsItsPattern)
{
    std::vector<cv::Mat_<float>> frames;
    Handler handler = handlerWith({{{0, 0, pattern(Handler::kMarkerCold)}}}, 4, 4, &frames);
    cv::Mat_<float> sr(8, 8, 5.0f);
    handler.maskBadPixel(sr, {PointF()});
    handler.replaceMaskedPixel(sr, {PointF()}, frames);
    // (0..1, 0..1) sample the marked pixel itself; (2, 0) samples a good one.
    for (const cv::Point p : {cv::Point(0, 0), cv::Point(1, 1), cv::Point(0, 1)})
        EXPECT_EQ(Handler::kMarkerCold, Handler::bitPattern(sr(p))) << p;
    EXPECT_EQ(frames[0](0, 1), sr(0, 2));

    // Outside every frame: shift so far that (int)(x/2 + sx) leaves the frame;
    // -1 exactly is outside while -0.75 truncates to column 0.
    cv::Mat_<float> far(4, 4, pattern(Handler::kMarkerDetected));
    handler.replaceMaskedPixel(far, {PointF(-1.0f, 0.0f)}, frames);
    EXPECT_EQ(Handler::kMarkerDetected, bitsAt(far, 2, 0));
    EXPECT_EQ(frames[0](1, 0), far(2, 1)); // x = 1: 0.5 - 1 = -0.5 -> column 0
    far.setTo(0.0f);
    Handler::writeMarker(far(0, 0), Handler::kMarkerHot);
    handler.replaceMaskedPixel(far, {PointF(100.0f, 1e30f)}, frames);
    EXPECT_EQ(Handler::kMarkerHot, bitsAt(far, 0, 0));
}

TEST(ReplaceMaskedPixel, RefusesMissingOrMismatchedMaps)
{
    Handler fresh(5);
    cv::Mat_<float> sr(8, 8, 0.0f);
    const Exception e = expectException([&] { fresh.replaceMaskedPixel(sr, {}, {}); });
    EXPECT_STREQ("bad pixel masks not initalized", e.what());
    EXPECT_NE(std::string::npos, e.where().find("velmor::kro::SuperResolutionBadPixelHandling::replaceMaskedPixel(..)"));

    std::vector<cv::Mat_<float>> frames;
    Handler handler = handlerWith({{}, {}}, 4, 4, &frames);
    EXPECT_THROW(handler.replaceMaskedPixel(sr, {PointF()}, frames), Exception);
    EXPECT_THROW(handler.replaceMaskedPixel(sr, {PointF(), PointF()}, {frames[0]}), Exception);
    EXPECT_THROW(handler.replaceMaskedPixel(sr, {PointF(), PointF()}, {frames[0], cv::Mat_<float>(3, 4, 0.0f)}),
                 Exception);
}

TEST(ReplaceMaskedPixel, DetectMaskAndReplaceTogetherLeaveNoMarkerWhereGoodSamplesExist)
{
    // Four copies of one scene on the four half-pixel phases, each with its own defects.
    const cv::Mat_<float> scene = krotest::texturedScene(60, 80, 11);
    const std::vector<PointF> shifts = {PointF(0, 0), PointF(0.5f, 0), PointF(0, 0.5f), PointF(0.5f, 0.5f)};
    const std::vector<std::vector<cv::Point>> defects = {{{5, 5}, {0, 0}}, {{20, 10}}, {{79, 59}, {6, 5}}, {{12, 25}}};
    Handler handler(4);
    std::vector<cv::Mat_<float>> frames;
    for (size_t k = 0; k < 4; ++k) {
        cv::Mat_<float> f = scene.clone();
        for (const cv::Point& p : defects[k])
            f(p) = k % 2 ? 0.0f : pattern(Handler::kMarkerHot);
        EXPECT_EQ(0, handler.detectAndReplaceBadPixel(f));
        EXPECT_EQ(static_cast<int>(defects[k].size()), countNonZero(handler.getDefectMaps().back())) << k;
        frames.push_back(f);
    }
    cv::Mat_<float> sr;
    cv::resize(scene, sr, cv::Size(160, 120), 0, 0, cv::INTER_NEAREST);
    handler.maskBadPixel(sr, shifts);
    const int marked = cv::countNonZero(markerMap(sr, Handler::kMarkerHot) | markerMap(sr, Handler::kMarkerDetected));
    EXPECT_GT(marked, 4 * 49);
    handler.replaceMaskedPixel(sr, shifts, frames);
    for (int y = 0; y < sr.rows; ++y) {
        for (int x = 0; x < sr.cols; ++x) {
            ASSERT_FALSE(Handler::isMarker(sr(y, x))) << x << "," << y;
            // A refilled value comes from scene samples near (x / 2, y / 2).
            double lo = 1e9, hi = -1e9;
            for (int j = std::max(0, y / 2 - 1); j <= std::min(scene.rows - 1, y / 2 + 1); ++j)
                for (int i = std::max(0, x / 2 - 1); i <= std::min(scene.cols - 1, x / 2 + 1); ++i) {
                    lo = std::min(lo, double(scene(j, i)));
                    hi = std::max(hi, double(scene(j, i)));
                }
            EXPECT_GE(sr(y, x), lo - 1e-3) << x << "," << y;
            EXPECT_LE(sr(y, x), hi + 1e-3) << x << "," << y;
        }
    }
}

// --- display and extremes ------------------------------------------------------

TEST(ColorBadPixel, PaintsCameraMarkersOnlyAndChecksTheViewSize)
{
    cv::Mat_<float> img(2, 3, 1.0f);
    img(0, 0) = pattern(Handler::kMarkerHot);
    img(0, 1) = pattern(Handler::kMarkerCold);
    img(1, 2) = pattern(Handler::kMarkerDetected);
    cv::Mat_<cv::Vec3b> view(2, 3, cv::Vec3b(9, 9, 9));
    Handler::colorBadPixel(img, view);
    EXPECT_EQ(cv::Vec3b(0, 0, 255), view(0, 0));
    EXPECT_EQ(cv::Vec3b(255, 0, 0), view(0, 1));
    EXPECT_EQ(cv::Vec3b(9, 9, 9), view(1, 2));
    EXPECT_EQ(cv::Vec3b(9, 9, 9), view(0, 2));
    cv::Mat_<cv::Vec3b> small(1, 3);
    EXPECT_THROW(Handler::colorBadPixel(img, small), Exception);
}

TEST(GetMinMaxVal, SkipsMarkersAndValuesThatAreNotFinite)
{
    const float inf = std::numeric_limits<float>::infinity();
    cv::Mat_<float> img = (cv::Mat_<float>(2, 4) << 3.0f, inf, -2.0f, 8.0f,
                                                    std::nanf(""), -2.0f, 8.0f, -inf);
    img(0, 1) = pattern(Handler::kMarkerCold);
    const Handler handler(1);
    float lo, hi;
    cv::Point loPos, hiPos;
    handler.getMinMaxVal(img, lo, hi, &loPos, &hiPos);
    EXPECT_EQ(-2.0f, lo);
    EXPECT_EQ(8.0f, hi);
    EXPECT_EQ(cv::Point(2, 0), loPos); // first occurrence in row order
    EXPECT_EQ(cv::Point(3, 0), hiPos);

    cv::Mat_<float> markers(1, 2, pattern(Handler::kMarkerDetected));
    markers(0, 0) = pattern(Handler::kMarkerHot);
    handler.getMinMaxVal(markers, lo, hi, &loPos);
    EXPECT_EQ(0.0f, lo);
    EXPECT_EQ(0.0f, hi);
    EXPECT_EQ(cv::Point(-1, -1), loPos);
    // Negative numbers whose pattern is small are data, not markers.
    markers(0, 1) = -pattern(Handler::kMarkerHot);
    handler.getMinMaxVal(markers, lo, hi);
    EXPECT_EQ(Handler::bitPattern(-pattern(Handler::kMarkerHot)), Handler::bitPattern(lo));
}

// --- flush-to-zero -------------------------------------------------------------

#if defined(__SSE2__)
// Out of line, so that the compiler cannot move the multiplication across
// the change of the control register.
__attribute__((noinline)) bool subnormalsAreFlushed()
{
    volatile float probe = pattern(Handler::kMarkerHot);
    return probe * 2.0f == 0.0f;
}

TEST(BadPixelMarkers, SurviveFlushToZeroAndDenormalsAreZero)
{
    const unsigned int saved = _mm_getcsr();
    _mm_setcsr(saved | 0x8040u); // FTZ and DAZ
    const bool flushing = subnormalsAreFlushed();

    std::vector<cv::Mat_<float>> frames;
    Handler handler = handlerWith({{{2, 2, pattern(Handler::kMarkerCold)}, {5, 1, pattern(Handler::kMarkerHot)}}},
                                  5, 8, &frames);
    const cv::Mat_<unsigned char> map = handler.getDefectMaps()[0].clone();
    cv::Mat_<float> sr(10, 16, 1.0f);
    handler.maskBadPixel(sr, {PointF()});
    const int cold = cv::countNonZero(markerMap(sr, Handler::kMarkerCold));
    handler.replaceMaskedPixel(sr, {PointF()}, frames);
    const int left = cv::countNonZero(markerMap(sr, Handler::kMarkerCold));
    _mm_setcsr(saved);

    ASSERT_TRUE(flushing) << "the test needs FTZ/DAZ to take effect";
    EXPECT_EQ(Handler::kCameraMarked130, map(2, 2));
    EXPECT_EQ(Handler::kCameraMarked129, map(1, 5));
    EXPECT_EQ(2, countNonZero(map));
    EXPECT_EQ(49, cold); // the 129 block, written first, loses its overlap
    EXPECT_EQ(4, left);  // the SR pixels whose only sample is the marked one
}
#endif

// --- real thermal frames ---------------------------------------------------

TEST(BadPixelDetection, RealDrivingFramesKeepTheirSceneAndGiveUpTheirDeadPixels)
{
    const std::string path = std::string(KROLIB_TEST_DATA_DIR) + "/thermal/drive_crop_160x128x10_u16.raw";
    FILE* file = std::fopen(path.c_str(), "rb");
    ASSERT_NE(nullptr, file) << "bundled thermal frames missing: " << path;
    const int rows = 128, cols = 160, count = 10;
    std::vector<unsigned short> raw(static_cast<size_t>(rows) * cols);
    Handler handler(5);
    std::mt19937 rng(3);
    int found = 0, injected = 0;
    for (int n = 0; n < count; ++n) {
        ASSERT_EQ(raw.size(), std::fread(raw.data(), sizeof(unsigned short), raw.size(), file));
        cv::Mat_<float> frame(rows, cols);
        for (int i = 0; i < rows * cols; ++i)
            frame(i / cols, i % cols) = raw[i];
        const cv::Mat_<float> original = frame.clone();
        EXPECT_EQ(0, handler.detectAndReplaceBadPixel(frame));
        EXPECT_EQ(0, countNonZero(handler.getDefectMaps().back())) << "frame " << n;
        EXPECT_TRUE(bitwiseEqual(original, frame)) << "frame " << n;

        // The same frame with dead (0) and stuck-high (16383) pixels.
        cv::Mat_<float> damaged = original.clone();
        std::vector<cv::Point> spots;
        for (int k = 0; k < 6; ++k) {
            spots.emplace_back(static_cast<int>(rng() % cols), static_cast<int>(rng() % rows));
            damaged(spots.back()) = k % 2 ? 0.0f : 16383.0f;
        }
        Handler fresh(1);
        fresh.detectAndReplaceBadPixel(damaged);
        for (const cv::Point& p : spots) {
            ++injected;
            found += fresh.getDefectMaps()[0](p) != 0;
        }
    }
    std::fclose(file);
    EXPECT_EQ(injected, found);
}

} // namespace
} // namespace kro
} // namespace velmor
