#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <limits>
#include <random>
#include <string>
#include <vector>

#if defined(__SSE2__)
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
const float kNan = std::nanf("");
const float kInf = std::numeric_limits<float>::infinity();

float pattern(std::uint32_t bits)
{
    float v;
    std::memcpy(&v, &bits, sizeof v);
    return v;
}

// Median of the in-frame 8 neighbours of p, worked out plainly.
float neighbourMedian(const cv::Mat_<float>& img, cv::Point p)
{
    std::vector<float> v;
    for (int j = std::max(0, p.y - 1); j <= std::min(img.rows - 1, p.y + 1); ++j)
        for (int i = std::max(0, p.x - 1); i <= std::min(img.cols - 1, p.x + 1); ++i)
            if (i != p.x || j != p.y)
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

// The message of the Exception that `call` throws from `function` of the handler.
template <typename F>
std::string messageOf(const std::string& function, F&& call)
{
    try {
        call();
    } catch (const Exception& e) {
        // The handler's source files are SuperResolutionBadPixel*.cpp.
        EXPECT_NE(std::string::npos, e.where().find("modules/enhancement/superresolution/reference/"
                                                    "SuperResolutionBadPixel")) << e.where();
        EXPECT_NE(std::string::npos, e.where().find("SuperResolutionBadPixelHandling::" + function + "(..)"))
            << e.where();
        return e.what();
    }
    return "(no exception)";
}

// A handler holding one map per entry of `defects`: frame k (a noisy ramp)
// has the given value (NaN: status 3, or a marker) at each listed position.
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
            m(y, x) = Handler::bitPattern(sr(y, x)) == marker;
    return m;
}

// 1 inside the rectangle from (x0, y0) to (x1, y1), clipped to `size`.
cv::Mat_<unsigned char> block(cv::Size size, int x0, int y0, int x1, int y1)
{
    cv::Mat_<unsigned char> m(size, 0);
    m(cv::Rect(x0, y0, x1 - x0 + 1, y1 - y0 + 1) & cv::Rect(cv::Point(), size)).setTo(1);
    return m;
}

// --- detection ---------------------------------------------------------------

TEST(BadPixelDetection, StatusFollowsMarkersLimitsAndKindOfData)
{
    // Sensor14: setLimits(1, 16382), where 0 and 16383 are rails; then back
    // to radiance, which restores the float range.
    enum Data { kRadiance, kNuc, kSensor14, kSensor14ThenRadiance };
    struct Case {
        float value;
        Data data;
        unsigned char status;
    };
    const Case cases[] = {
        {pattern(Handler::kMarkerCold), kRadiance, Handler::kCameraMarked130},
        {pattern(Handler::kMarkerHot), kNuc, Handler::kCameraMarked129},
        {kInf, kRadiance, Handler::kAboveUpperLimit},
        {-kInf, kRadiance, Handler::kBelowLowerLimit},
        {kNan, kRadiance, Handler::kDefect},
        {pattern(Handler::kMarkerDetected), kRadiance, Handler::kDefect},  // a fed-back 132
        {pattern(5u), kNuc, Handler::kDefect},                             // any other subnormal
        {32767.0f, kNuc, Handler::kAboveUpperLimit},                       // saturation rail
        {-32768.0f, kNuc, Handler::kBelowLowerLimit},                      // floor rail
        {32767.0f, kRadiance, Handler::kDefect},                           // radiance: an outlier
        {-32768.0f, kRadiance, Handler::kDefect},
        {1040.0f, kNuc, Handler::kGood},
        {16383.0f, kSensor14, Handler::kAboveUpperLimit},
        {0.0f, kSensor14, Handler::kBelowLowerLimit},
        {16383.0f, kSensor14ThenRadiance, Handler::kDefect},
        {0.0f, kSensor14ThenRadiance, Handler::kDefect},
    };
    for (const Case& c : cases) {
        cv::Mat_<float> frame = noisyRamp(9, 11, 3);
        frame(4, 5) = c.value;
        Handler handler(1);
        handler.setDataIsNUC(c.data == kNuc);
        if (c.data >= kSensor14)
            handler.setLimits(1.0f, 16382.0f);
        if (c.data == kSensor14ThenRadiance)
            handler.setDataIsNUC(false);
        handler.detectAndReplaceBadPixel(frame);
        const cv::Mat_<unsigned char>& map = handler.getDefectMaps().back();
        EXPECT_EQ(int(c.status), int(map(4, 5))) << "bits " << Handler::bitPattern(c.value) << ", data " << c.data;
        EXPECT_EQ(c.status == Handler::kGood ? 0 : 1, cv::countNonZero(map)) << c.value;
    }
    // Near zero a subnormal pattern is no outlier by value, yet no measurement either.
    cv::Mat_<float> nearZero = noisyRamp(9, 11, 3) - 1022.0f;
    nearZero(4, 5) = pattern(5u);
    Handler handler(1);
    handler.detectAndReplaceBadPixel(nearZero);
    EXPECT_EQ(Handler::kDefect, handler.getDefectMaps()[0](4, 5));
}

TEST(BadPixelDetection, AdjacentPairsBordersAndCornersAreFound)
{
    cv::Mat_<float> frame = noisyRamp(12, 12, 6);
    frame(5, 5) = frame(5, 6) = 9000.0f;  // a hot pair
    frame(8, 2) = frame(9, 3) = 0.0f;     // a diagonal dead pair
    Handler handler(1);
    EXPECT_EQ(0, handler.detectAndReplaceBadPixel(frame));
    EXPECT_EQ(4, cv::countNonZero(handler.getDefectMaps()[0]));
    EXPECT_EQ(Handler::kDefect, handler.getDefectMaps()[0](5, 6));
    EXPECT_EQ(Handler::kDefect, handler.getDefectMaps()[0](9, 3));
    EXPECT_NEAR(1000.0 + 2 * 5 + 3 * 5, frame(5, 5), 12.0);  // median of the good neighbours

    // Dead corners and edge pixels, none adjacent to another: judged and
    // refilled from the neighbours inside.
    const cv::Point spots[] = {{0, 0}, {8, 0}, {0, 6}, {8, 6}, {4, 0}, {0, 3}, {8, 3}, {4, 6}};
    frame = noisyRamp(7, 9, 8);
    for (const cv::Point& p : spots)
        frame(p) = 0.0f;
    const cv::Mat_<float> original = frame.clone();
    Handler edges(1);
    EXPECT_EQ(0, edges.detectAndReplaceBadPixel(frame));
    EXPECT_EQ(8, cv::countNonZero(edges.getDefectMaps()[0]));
    for (const cv::Point& p : spots)
        EXPECT_EQ(neighbourMedian(original, p), frame(p)) << p;
}

TEST(BadPixelDetection, ClustersUseTheOuterRingTinyFramesNeedNoNeighboursFlatFramesAreGood)
{
    cv::Mat_<float> frame(7, 7);
    for (int y = 0; y < 7; ++y)
        for (int x = 0; x < 7; ++x)
            frame(y, x) = static_cast<float>(10 * y + x);
    frame(cv::Rect(2, 2, 3, 3)).setTo(pattern(Handler::kMarkerCold));
    Handler handler(1);
    EXPECT_EQ(0, handler.detectAndReplaceBadPixel(frame));
    // Centre (3, 3): the 16 ring pixels 11..15, 21, 25, 31, 35, 41, 45,
    // 51..55; their median is (31 + 35) / 2. (2, 2): good neighbours 11, 12,
    // 13, 21, 31 -> 13.
    EXPECT_FLOAT_EQ(33.0f, frame(3, 3));
    EXPECT_FLOAT_EQ(13.0f, frame(2, 2));

    Handler tiny(3);
    cv::Mat_<float> single(1, 1, 5.0f);
    EXPECT_EQ(0, tiny.detectAndReplaceBadPixel(single));
    EXPECT_EQ(5.0f, single(0, 0));
    cv::Mat_<float> row = (cv::Mat_<float>(1, 4) << 4.0f, kNan, 8.0f, 9.0f);
    EXPECT_EQ(0, Handler(1).detectAndReplaceBadPixel(row));
    EXPECT_EQ(6.0f, row(0, 1));  // median of its two neighbours 4 and 8
    // No spread at all: the tolerance is 0, and equal neighbours are no outliers.
    cv::Mat_<float> flat(16, 16, 42.0f);
    Handler flatHandler(1);
    EXPECT_EQ(0, flatHandler.detectAndReplaceBadPixel(flat));
    EXPECT_EQ(0, cv::countNonZero(flatHandler.getDefectMaps()[0]));
}

TEST(BadPixelDetection, UnreplaceablePixelsGetGoodExtremesOrZeroAndOnlyNonMarkersCount)
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
    EXPECT_EQ(0, handler.detectAndReplaceBadPixel(frame));  // markers only: no error
    EXPECT_EQ(100.0f, frame(1, 9));                         // 130 -> smallest good value
    EXPECT_EQ(133.0f, frame(0, 8));                         // 129 -> largest good value
    frame = makeFrame();
    frame(0, 7) = kInf;
    frame(1, 8) = -kInf;
    frame(2, 9) = kNan;
    EXPECT_EQ(-2, handler.detectAndReplaceBadPixel(frame));
    EXPECT_EQ(133.0f, frame(0, 7));
    EXPECT_EQ(100.0f, frame(1, 8));
    EXPECT_EQ(0.0f, frame(2, 9));
    EXPECT_EQ(113.0f, frame(1, 4));  // next to good pixels: median of 103, 113, 123

    // Ten really bad pixels (markers do not count) are still repaired; the
    // eleventh refuses the frame, which stays as it came, its map kept in
    // step with the engine's frames.
    Handler refusing(2);
    cv::Mat_<float> tenNaN(1, 12, kNan);
    tenNaN(0, 0) = pattern(Handler::kMarkerHot);
    tenNaN(0, 11) = pattern(Handler::kMarkerCold);
    EXPECT_EQ(-2, refusing.detectAndReplaceBadPixel(tenNaN));
    EXPECT_EQ(0, cv::countNonZero(tenNaN(cv::Rect(1, 0, 10, 1))));  // no good pixel anywhere: 0
    cv::Mat_<float> elevenNaN(1, 12, kNan);
    elevenNaN(0, 0) = pattern(Handler::kMarkerHot);
    const cv::Mat_<float> before = elevenNaN.clone();
    EXPECT_EQ("Too many defect pixels. No processing possible.",
              messageOf("detectAndReplaceBadPixel", [&] { refusing.detectAndReplaceBadPixel(elevenNaN); }));
    EXPECT_IMAGES_EQUAL(before, elevenNaN);
    EXPECT_EQ(2u, refusing.getDefectMaps().size());
}

// --- defect maps ---------------------------------------------------------------

TEST(DefectMaps, FollowTheEnginesFrameRotationAndClearingAndCopiesOwnThem)
{
    Handler handler(3);
    for (int k = 1; k <= 5; ++k) {
        cv::Mat_<float> f = noisyRamp(6, 10, static_cast<std::uint64_t>(k));
        f(3, k) = kNan;
        handler.detectAndReplaceBadPixel(f);
    }
    ASSERT_EQ(3u, handler.getDefectMaps().size());
    for (int k = 0; k < 3; ++k) {  // oldest first: the defects of frames 3, 4, 5
        cv::Point p;
        cv::minMaxLoc(handler.getDefectMaps()[k], nullptr, nullptr, nullptr, &p);
        EXPECT_EQ(cv::Point(3 + k, 3), p);
    }
    Handler copy(handler), assigned(4);
    assigned = handler;
    cv::Mat_<float> clean = noisyRamp(6, 10, 9);
    handler.detectAndReplaceBadPixel(clean);  // the oldest map, rewritten as the newest
    EXPECT_EQ(0, cv::countNonZero(handler.getDefectMaps()[2]));
    EXPECT_EQ(Handler::kDefect, copy.getDefectMaps()[0](3, 3)) << "copies own their maps";
    EXPECT_EQ(Handler::kDefect, assigned.getDefectMaps()[0](3, 3));
    EXPECT_EQ(3u, assigned.getNumberOfFrames());
    cv::Mat_<float> otherSize = noisyRamp(5, 5, 1);
    EXPECT_THROW(handler.detectAndReplaceBadPixel(otherSize), Exception);
    EXPECT_EQ(3u, handler.getDefectMaps().size());
    handler.clearDefectMaps();
    EXPECT_EQ(0, handler.detectAndReplaceBadPixel(otherSize));
    EXPECT_EQ(1u, handler.getDefectMaps().size());
}

// --- masking and refilling the super-resolved image ---------------------------

TEST(MaskBadPixel, MarkerKindFollowsTheStatusAndTheBlockFollowsTheShift)
{
    Handler handler = handlerWith({{{1, 1, pattern(Handler::kMarkerCold)}},
                                   {{6, 1, pattern(Handler::kMarkerHot)}},
                                   {{4, 3, kInf}}},
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

TEST(MaskBadPixel, BlocksAreClippedAndCentresOutsideTheImageSkippedExceptJustRightOfIt)
{
    Handler handler = handlerWith({{{2, 2, kNan}}}, 5, 5);
    const cv::Size size(8, 8);
    const cv::Mat_<unsigned char> none(size, 0);
    const std::pair<PointF, cv::Mat_<unsigned char>> cases[] = {
        {PointF(2.0f, 2.0f), block(size, -3, -3, 3, 3)},  // centre at the origin
        {PointF(0.0f, 2.25f), none},                      // Y = -0.5: skipped though the block reaches in
        {PointF(0.0f, -2.0f), none},                      // Y = 8 = rows
        {PointF(2.5f, 0.0f), none},                       // X = -1
        {PointF(-2.5f, 0.0f), block(size, 6, 1, 12, 7)},  // X = 9 > cols: clipped block
        {PointF(-3.5f, 0.0f), none},                      // X = 11: nothing inside
        {PointF(kNan, 0.0f), none},
    };
    for (const auto& [shift, expected] : cases) {
        cv::Mat_<float> sr(size, 3.0f);
        handler.maskBadPixel(sr, {shift});
        EXPECT_IMAGES_EQUAL(expected, markerMap(sr, Handler::kMarkerDetected)) << shift.x << "," << shift.y;
        EXPECT_EQ(64 - cv::countNonZero(expected), cv::countNonZero(sr == 3.0f)) << "nothing else touched";
    }
    cv::Mat_<float> empty;
    handler.maskBadPixel(empty, {PointF()});
}

TEST(ReplaceMaskedPixel, MarkersGetTheMeanOfTheGoodSamplesCoveringThemOrKeepTheirPattern)
{
    std::vector<cv::Mat_<float>> frames;
    Handler handler = handlerWith({{{1, 1, kNan}}, {}}, 4, 4, &frames);
    const std::vector<PointF> shifts = {PointF(0.0f, 0.0f), PointF(0.5f, 0.0f)};
    cv::Mat_<float> sr(8, 8, 5.0f);
    handler.maskBadPixel(sr, shifts);  // block rows and columns -1..5
    handler.replaceMaskedPixel(sr, shifts, frames);
    // (x, y) = (2, 2): frame 0 at (1, 1) is bad, frame 1 at (int)(1 + 0.5) = 1.
    EXPECT_EQ(frames[1](1, 1), sr(2, 2));
    // (3, 2): frame 0 at (1, 1) bad; frame 1 at (int)(1.5 + 0.5) = 2.
    EXPECT_EQ(frames[1](1, 2), sr(2, 3));
    // (4, 4): frame 0 at (2, 2), frame 1 at (int)2.5 = 2: both good.
    EXPECT_FLOAT_EQ(static_cast<float>((double(frames[0](2, 2)) + frames[1](2, 2)) / 2.0), sr(4, 4));
    // (0, 5): frame 0 at (0, 2), frame 1 at (0, 2).
    EXPECT_FLOAT_EQ(static_cast<float>((double(frames[0](2, 0)) + frames[1](2, 0)) / 2.0), sr(5, 0));
    EXPECT_EQ(5.0f, sr(6, 6));  // never marked, untouched
    EXPECT_EQ(0, cv::countNonZero(markerMap(sr, Handler::kMarkerDetected)));

    // A camera-marked pixel: the SR pixels that sample only it keep the marker.
    frames.clear();
    handler = handlerWith({{{0, 0, pattern(Handler::kMarkerCold)}}}, 4, 4, &frames);
    sr.setTo(5.0f);
    handler.maskBadPixel(sr, {PointF()});
    handler.replaceMaskedPixel(sr, {PointF()}, frames);
    for (const cv::Point p : {cv::Point(0, 0), cv::Point(1, 1), cv::Point(0, 1)})
        EXPECT_EQ(Handler::kMarkerCold, Handler::bitPattern(sr(p))) << p;
    EXPECT_EQ(frames[0](0, 1), sr(0, 2));
    // Outside every frame: -1 exactly is outside while -0.5 truncates to
    // column 0; a huge shift is simply outside.
    cv::Mat_<float> far(4, 4, pattern(Handler::kMarkerDetected));
    handler.replaceMaskedPixel(far, {PointF(-1.0f, 0.0f)}, frames);
    EXPECT_EQ(Handler::kMarkerDetected, Handler::bitPattern(far(2, 0)));
    EXPECT_EQ(frames[0](1, 0), far(2, 1));
    far.setTo(0.0f);
    Handler::writeMarker(far(0, 0), Handler::kMarkerHot);
    handler.replaceMaskedPixel(far, {PointF(100.0f, 1e30f)}, frames);
    EXPECT_EQ(Handler::kMarkerHot, Handler::bitPattern(far(0, 0)));
}

TEST(BadPixelHelpers, ColourCameraMarkersAndFindExtremesSkippingMarkersAndNonFiniteValues)
{
    cv::Mat_<float> img = (cv::Mat_<float>(2, 4) << 3.0f, kInf, -2.0f, 8.0f, kNan, -2.0f, 8.0f, -kInf);
    img(0, 1) = pattern(Handler::kMarkerCold);
    img(0, 0) = pattern(Handler::kMarkerHot);
    img(1, 2) = pattern(Handler::kMarkerDetected);
    cv::Mat_<cv::Vec3b> view(2, 4, cv::Vec3b(9, 9, 9));
    Handler::colorBadPixel(img, view);
    cv::Mat_<cv::Vec3b> expected(2, 4, cv::Vec3b(9, 9, 9));
    expected(0, 0) = cv::Vec3b(0, 0, 255);
    expected(0, 1) = cv::Vec3b(255, 0, 0);
    EXPECT_IMAGES_EQUAL(expected, view);

    const Handler handler(1);
    float lo, hi;
    cv::Point loPos, hiPos;
    handler.getMinMaxVal(img, lo, hi, &loPos, &hiPos);
    EXPECT_EQ(-2.0f, lo);
    EXPECT_EQ(8.0f, hi);
    EXPECT_EQ(cv::Point(2, 0), loPos);  // first occurrence in row order
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

TEST(BadPixelHelpers, BadInputIsRefusedWithItsReason)
{
    Handler handler = handlerWith({{}, {}}, 4, 4);
    cv::Mat_<float> sr(8, 8, 0.0f), empty, frame = noisyRamp(4, 4, 1);
    EXPECT_EQ("maskBadPixel(): number of shifts ist not equal to number of defectMaps",
              messageOf("maskBadPixel", [&] { handler.maskBadPixel(sr, {PointF()}); }));
    EXPECT_EQ("bad pixel masks not initalized",
              messageOf("replaceMaskedPixel", [&] { Handler(5).replaceMaskedPixel(sr, {}, {}); }));
    const std::vector<PointF> two(2);
    EXPECT_THROW(handler.replaceMaskedPixel(sr, {PointF()}, {frame, frame}), Exception);
    EXPECT_THROW(handler.replaceMaskedPixel(sr, two, {frame}), Exception);
    EXPECT_THROW(handler.replaceMaskedPixel(sr, two, {frame, cv::Mat_<float>(3, 4, 0.0f)}), Exception);
    EXPECT_THROW(handler.detectAndReplaceBadPixel(empty), Exception);
    EXPECT_THROW(Handler(0).detectAndReplaceBadPixel(frame), Exception);  // built before the engine checks
    EXPECT_THROW(handler.setLimits(5.0f, 5.0f), Exception);
    EXPECT_THROW(handler.setLimits(kNan, 5.0f), Exception);
    cv::Mat_<cv::Vec3b> small(1, 3);
    EXPECT_THROW(Handler::colorBadPixel(sr, small), Exception);
}

// --- flush-to-zero and real frames -------------------------------------------

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
    _mm_setcsr(saved | 0x8040u);  // FTZ and DAZ
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
    EXPECT_EQ(2, cv::countNonZero(map));
    EXPECT_EQ(49, cold);  // the 129 block, written first, loses its overlap
    EXPECT_EQ(4, left);   // the SR pixels whose only sample is the marked one
}
#endif

TEST(BadPixelDetection, RealDrivingFramesKeepTheirSceneAndGiveUpTheirDeadPixels)
{
    const std::string path = std::string(KROLIB_TEST_DATA_DIR) + "/thermal/drive_crop_160x128x10_u16.raw";
    FILE* file = std::fopen(path.c_str(), "rb");
    ASSERT_NE(nullptr, file) << "bundled thermal frames missing: " << path;
    std::vector<unsigned short> raw(128 * 160);
    Handler handler(5);
    std::mt19937 rng(3);
    int found = 0;
    for (int n = 0; n < 10; ++n) {
        ASSERT_EQ(raw.size(), std::fread(raw.data(), sizeof(unsigned short), raw.size(), file));
        cv::Mat_<float> frame;
        cv::Mat(128, 160, CV_16U, raw.data()).convertTo(frame, CV_32F);
        const cv::Mat_<float> original = frame.clone();
        EXPECT_EQ(0, handler.detectAndReplaceBadPixel(frame));
        EXPECT_EQ(0, cv::countNonZero(handler.getDefectMaps().back())) << "frame " << n;
        EXPECT_IMAGES_EQUAL(original, frame) << "frame " << n;

        // The same frame with dead (0) and stuck-high (16383) pixels.
        std::vector<cv::Point> spots;
        for (int k = 0; k < 6; ++k) {
            spots.emplace_back(static_cast<int>(rng() % 160), static_cast<int>(rng() % 128));
            frame(spots.back()) = k % 2 ? 0.0f : 16383.0f;
        }
        Handler fresh(1);
        fresh.detectAndReplaceBadPixel(frame);
        for (const cv::Point& p : spots)
            found += fresh.getDefectMaps()[0](p) != 0;
    }
    std::fclose(file);
    EXPECT_EQ(60, found);
}

// A 640x512 scene tiled from the real frames (large enough for the detector
// to share its rows between seven threads), with dead, hot, raised, NaN and
// camera-marked pixels, a dead pair, a dead corner and a marked block whose
// centre no good pixel reaches. Frames, maps and return codes must not depend on the thread count,
// also when infinite limits let infinite values into the frame's statistics.
TEST(BadPixelDetection, ResultsDoNotDependOnTheThreadCount)
{
    const std::string path = std::string(KROLIB_TEST_DATA_DIR) + "/thermal/drive_crop_160x128x10_u16.raw";
    FILE* file = std::fopen(path.c_str(), "rb");
    ASSERT_NE(nullptr, file) << "bundled thermal frames missing: " << path;
    std::vector<unsigned short> raw(10 * 128 * 160);
    ASSERT_EQ(raw.size(), std::fread(raw.data(), sizeof(unsigned short), raw.size(), file));
    std::fclose(file);

    std::mt19937 rng(11);
    std::vector<cv::Mat_<float>> inputs;
    for (int n = 0; n < 3; ++n) {
        cv::Mat_<float> frame(512, 640);
        for (int tile = 0; tile < 16; ++tile) {
            cv::Mat_<float> part;
            cv::Mat(128, 160, CV_16U, raw.data() + size_t((tile + n) % 10) * 128 * 160).convertTo(part, CV_32F);
            part.copyTo(frame(cv::Rect(tile % 4 * 160, tile / 4 * 128, 160, 128)));
        }
        for (int k = 0; k < 400; ++k) {
            float& v = frame(static_cast<int>(rng() % 512), static_cast<int>(rng() % 640));
            const float values[] = {0.0f, 16383.0f, v + 300.0f, kNan, pattern(Handler::kMarkerCold),
                                    pattern(Handler::kMarkerHot)};
            v = values[k % 6];
        }
        frame(cv::Rect(300, 200, 2, 1)).setTo(0.0f);
        frame(0, 0) = 0.0f;
        frame(cv::Rect(500, 400, 5, 5)).setTo(pattern(Handler::kMarkerCold));
        inputs.push_back(frame);
    }

    struct Run {
        std::vector<cv::Mat_<float>> frames;
        std::vector<cv::Mat_<unsigned char>> maps;
        std::vector<int> codes;
    };
    auto run = [&](int threads, bool infiniteLimits) {
        Handler handler(2);
        EXPECT_TRUE(handler.setThreads(threads));
        if (infiniteLimits)
            handler.setLimits(-kInf, kInf);
        Run r;
        for (const cv::Mat_<float>& input : inputs) {
            cv::Mat_<float> frame = input.clone();
            if (infiniteLimits)
                frame(cv::Rect(100, 100, 4, 4)).setTo(kInf);
            r.codes.push_back(handler.detectAndReplaceBadPixel(frame));
            r.frames.push_back(frame);
            r.maps.push_back(handler.getDefectMaps().back().clone());
            // Split as far as the work is worth (five threads for this size).
            const int ran = handler.getLastThreadCount();
            EXPECT_TRUE(threads == 1 ? ran == 1 : ran > 1 && ran <= threads) << ran << " of " << threads;
        }
        return r;
    };
    auto sameBytes = [](const cv::Mat& a, const cv::Mat& b) {
        return a.size() == b.size() && a.type() == b.type() && a.isContinuous() && b.isContinuous() &&
               std::memcmp(a.data, b.data, a.total() * a.elemSize()) == 0;
    };
    for (bool infiniteLimits : {false, true}) {
        const Run one = run(1, infiniteLimits);
        for (int threads : {2, 7}) {
            const Run other = run(threads, infiniteLimits);
            EXPECT_EQ(one.codes, other.codes);
            for (size_t n = 0; n < inputs.size(); ++n) {
                EXPECT_TRUE(sameBytes(one.frames[n], other.frames[n]))
                    << "frame " << n << ", infinite " << infiniteLimits << ", " << threads << " threads";
                EXPECT_TRUE(sameBytes(one.maps[n], other.maps[n]))
                    << "map " << n << ", infinite " << infiniteLimits << ", " << threads << " threads";
            }
        }
        for (size_t n = 0; n < inputs.size(); ++n) {
            // The frames really went through the outlier test: the dead pair
            // and the dead corner are found.
            EXPECT_EQ(Handler::kDefect, one.maps[n](200, 300));
            EXPECT_EQ(Handler::kDefect, one.maps[n](200, 301));
            EXPECT_EQ(Handler::kDefect, one.maps[n](0, 0));
            EXPECT_EQ(Handler::kCameraMarked130, one.maps[n](402, 502));
            EXPECT_GT(cv::countNonZero(one.maps[n] == Handler::kDefect), 100);
        }
    }
}

} // namespace
} // namespace kro
} // namespace velmor
