#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include <omp.h>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include "Exception.h"
#include "LogFacility.h"
#include "ShiftedFrames.h"
#include "SrFloatRegistration2.h"
#include "TestImages.h"

namespace velmor {
namespace kro {

// Reaches the corner list and the 8-bit range of the registration.
class SrFloatRegistration2Peer {
public:
    static void setCorners(SrFloatRegistration2& r, const std::vector<cv::Point2f>& corners)
    {
        r.corners = corners;
    }
    static float rangeMin(const SrFloatRegistration2& r) { return r.rangeMin; }
    static float rangeMax(const SrFloatRegistration2& r) { return r.rangeMax; }
};

namespace {

using Peer = SrFloatRegistration2Peer;

constexpr char kSentinelMask = 7;
constexpr float kSentinelWork = -1.0f;

// What one doRegistration hands back.
struct Registered {
    int rc = 0;
    std::vector<PointF> shifts;    // what the caller's array holds afterwards
    std::vector<PointF> complete;  // getCompleteShifts
    std::vector<std::vector<char>> masks;
    std::vector<cv::Mat_<float>> work;
};

// doRegistration on frames that are already prepared, in the same order.
Registered registerPrepared(SrFloatRegistration2& reg, std::vector<cv::Mat_<float>>& frames, int ref)
{
    const int n = static_cast<int>(frames.size());
    Registered out;
    out.shifts.assign(n, PointF(-99.0f, -99.0f));
    out.masks.assign(n, std::vector<char>(frames[0].total(), kSentinelMask));
    std::vector<float*> framePtrs, workPtrs;
    std::vector<char*> maskPtrs;
    for (int i = 0; i < n; ++i) {
        out.work.emplace_back(frames[i].size(), kSentinelWork);
        framePtrs.push_back(frames[i].ptr<float>());
        workPtrs.push_back(out.work.back().ptr<float>());
        maskPtrs.push_back(out.masks[i].data());
    }
    out.rc = reg.doRegistration(n, ref, framePtrs.data(), out.shifts.data(), maskPtrs.data(),
                                workPtrs.data());
    reg.getCompleteShifts(out.complete);
    return out;
}

Registered prepareAndRegister(SrFloatRegistration2& reg, std::vector<cv::Mat_<float>>& frames, int ref)
{
    for (cv::Mat_<float>& f : frames)
        reg.prepareFrame(f.ptr<float>());
    return registerPrepared(reg, frames, ref);
}

double maskFraction(const std::vector<char>& mask)
{
    std::size_t ones = 0;
    for (char m : mask)
        ones += m == 1;
    return double(ones) / double(mask.size());
}

int roundHalfUp(float v) { return static_cast<int>(std::floor(v + 0.5f)); }

// Checks one registered frame against its true shift (reference grid):
// the complete shift within `tolerance`, the caller's shift reduced to the
// remainder, no mask pixel outside the area the cut fills with frame data,
// and at least `keep` of that area kept.
void expectRegistered(const Registered& r, int i, PointF truth, int width, int height,
                      float tolerance, double keep)
{
    SCOPED_TRACE("frame " + std::to_string(i));
    const PointF c = r.complete[i];
    EXPECT_NEAR(truth.x, c.x, tolerance);
    EXPECT_NEAR(truth.y, c.y, tolerance);
    const int ix = roundHalfUp(c.x);
    const int iy = roundHalfUp(c.y);
    EXPECT_NEAR(c.x - ix, r.shifts[i].x, 1e-5f);
    EXPECT_NEAR(c.y - iy, r.shifts[i].y, 1e-5f);

    std::size_t inside = 0, kept = 0, strayOnes = 0;
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x) {
            const char m = r.masks[i][static_cast<std::size_t>(y) * width + x];
            const bool filled = x + ix >= 0 && x + ix < width && y + iy >= 0 && y + iy < height;
            EXPECT_TRUE(m == 0 || m == 1);
            if (filled) {
                ++inside;
                kept += m == 1;
            } else {
                strayOnes += m != 0;
            }
        }
    EXPECT_EQ(0u, strayOnes);
    EXPECT_GE(double(kept) / double(inside), keep);
}

// RMS of (work frame - reference moved by the remainder) over the mask,
// `border` pixels from the edges left out (the interpolation reflects there).
double alignedResidual(const cv::Mat_<float>& reference, const Registered& r, int i, int border)
{
    const cv::Mat_<float> expected = krotest::shiftImage(reference, r.shifts[i]);
    double sum = 0.0;
    std::size_t n = 0;
    for (int y = border; y < reference.rows - border; ++y)
        for (int x = border; x < reference.cols - border; ++x)
            if (r.masks[i][static_cast<std::size_t>(y) * reference.cols + x] == 1) {
                const double d = r.work[i](y, x) - expected(y, x);
                sum += d * d;
                ++n;
            }
    return n ? std::sqrt(sum / n) : 1e30;
}

cv::Mat_<float> crosswalkStill()
{
    const std::string path = std::string(KROLIB_SOURCE_DIR) + "/data/thermal/crosswalk_640x512_u16.png";
    const cv::Mat raw = cv::imread(path, cv::IMREAD_UNCHANGED);
    EXPECT_FALSE(raw.empty()) << path;
    cv::Mat_<float> f;
    raw.convertTo(f, CV_32F);
    return f;
}

std::vector<cv::Mat_<float>> driveFrames(int first, int count)
{
    const std::string path = std::string(KROLIB_SOURCE_DIR) + "/data/thermal/drive_crop_160x128x10_u16.raw";
    std::ifstream in(path, std::ios::binary);
    EXPECT_TRUE(in.good()) << path;
    std::vector<std::uint16_t> data(160 * 128);
    std::vector<cv::Mat_<float>> frames;
    in.seekg(static_cast<std::streamoff>(first) * 160 * 128 * 2);
    for (int k = 0; k < count; ++k) {
        in.read(reinterpret_cast<char*>(data.data()), data.size() * 2);
        cv::Mat_<float> f(128, 160);
        for (int p = 0; p < 160 * 128; ++p)
            f(p / 160, p % 160) = data[p];
        frames.push_back(f);
    }
    return frames;
}

// Low-resolution frames (half the scene size) of a textured scene at the
// given shifts, slightly blurred and noisy.
std::vector<cv::Mat_<float>> burst(int width, int height, const std::vector<PointF>& shifts,
                                   double noise = 2.0, std::uint64_t seed = 11)
{
    const cv::Mat_<float> scene = krotest::texturedScene(2 * height, 2 * width, seed);
    return krotest::makeShiftedFrames(scene, 2, shifts, 0.5, noise, seed + 1);
}

TEST(SrFloatRegistration2, RecoversKnownShiftsAndCutsFramesOntoTheReference)
{
    // The reference (index 1) is itself off the scene grid; every frame's
    // shift against it is its own shift minus the reference's.
    const std::vector<PointF> scene = {{0.5f, -0.7f}, {0.2f, -0.3f}, {2.2f, 0.7f},
                                       {-3.4f, 1.95f}, {4.6f, -6.0f}, {-1.8f, -3.3f}};
    std::vector<cv::Mat_<float>> frames = burst(160, 120, scene);
    SrFloatRegistration2 reg(160, 120, 6);
    const Registered r = prepareAndRegister(reg, frames, 1);
    ASSERT_EQ(0, r.rc);
    ASSERT_EQ(6u, r.complete.size());

    EXPECT_EQ(0.0f, r.complete[1].x);
    EXPECT_EQ(0.0f, r.complete[1].y);
    EXPECT_EQ(std::vector<char>(frames[1].total(), 1), r.masks[1]);
    for (int i = 0; i < 6; ++i) {
        const PointF truth(scene[i].x - scene[1].x, scene[i].y - scene[1].y);
        expectRegistered(r, i, truth, 160, 120, 0.05f, 0.97);
        // After the cut each frame is the reference moved by its remainder
        // only; the integer cut alone leaves a far larger mismatch.
        const double aligned = alignedResidual(frames[1], r, i, 4);
        Registered uncorrected = r;
        uncorrected.shifts[i] = PointF(0.0f, 0.0f);
        EXPECT_LT(aligned, 6.0) << "frame " << i;
        if (std::hypot(r.shifts[i].x, r.shifts[i].y) > 0.2) {
            EXPECT_LT(aligned * 2.0, alignedResidual(frames[1], uncorrected, i, 4)) << "frame " << i;
        }
    }
}

TEST(SrFloatRegistration2, IdenticalFramesGiveZeroShiftsFullMasksAndPlainCopies)
{
    std::vector<cv::Mat_<float>> frames = burst(160, 120, {{0.0f, 0.0f}});
    frames.push_back(frames[0].clone());
    frames.push_back(frames[0].clone());
    SrFloatRegistration2 reg(160, 120, 3);
    const Registered r = prepareAndRegister(reg, frames, 2);
    ASSERT_EQ(0, r.rc);
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(0.0f, r.complete[i].x) << i;
        EXPECT_EQ(0.0f, r.complete[i].y) << i;
        EXPECT_EQ(0.0f, r.shifts[i].x) << i;
        EXPECT_EQ(0.0f, r.shifts[i].y) << i;
        EXPECT_EQ(std::vector<char>(frames[0].total(), 1), r.masks[i]) << i;
        EXPECT_TRUE(krotest::imagesEqual(frames[i], r.work[i])) << i;
    }
}

TEST(SrFloatRegistration2, ShiftReachingHalfTheHeightThrowsTooLargeDisplacement)
{
    // Frames cut from a larger scene, so that the content entering the frame
    // is new (not a reflection); the tracker follows this scene's corners over
    // half the frame. The bound is half the height (120) in both axes, though
    // the width is 320.
    const int w = 320, h = 240;
    const cv::Mat_<float> scene = krotest::texturedScene(3 * h, 3 * w, 4);
    const cv::Rect window(w, h, w, h);
    struct Case {
        PointF shift;
        bool throws;
    };
    for (const Case& c : {Case{{0.0f, 120.3f}, true}, Case{{0.0f, 119.3f}, false},
                          Case{{0.0f, -120.3f}, true}, Case{{0.0f, -119.3f}, false},
                          Case{{120.3f, 0.0f}, true}, Case{{-120.3f, 0.0f}, true}}) {
        SCOPED_TRACE(std::to_string(c.shift.x) + ", " + std::to_string(c.shift.y));
        std::vector<cv::Mat_<float>> frames = {scene(window).clone(),
                                               krotest::shiftImage(scene, c.shift)(window).clone()};
        SrFloatRegistration2 reg(w, h, 2);
        if (!c.throws) {
            const Registered r = prepareAndRegister(reg, frames, 0);
            ASSERT_EQ(0, r.rc);
            EXPECT_NEAR(c.shift.x, r.complete[1].x, 0.2f);
            EXPECT_NEAR(c.shift.y, r.complete[1].y, 0.2f);
            continue;
        }
        try {
            prepareAndRegister(reg, frames, 0);
            ADD_FAILURE() << "no exception";
        } catch (const Exception& e) {
            EXPECT_STREQ("Too large displacement", e.what());
            EXPECT_NE(std::string::npos,
                      e.where().find("modules/enhancement/superresolution/SrFloatRegistration2:"))
                << e.where();
            EXPECT_NE(std::string::npos,
                      e.where().find(" : velmor::kro::SrFloatRegistration2::doRegistration(..)"))
                << e.where();
        }
        // The shift found is still reported.
        std::vector<PointF> complete;
        reg.getCompleteShifts(complete);
        ASSERT_EQ(2u, complete.size());
        EXPECT_NEAR(c.shift.x, complete[1].x, 0.2f);
        EXPECT_NEAR(c.shift.y, complete[1].y, 0.2f);
    }
}

TEST(SrFloatRegistration2, ShiftsCheckedBeforeAnyFrameIsCut)
{
    // The too-large frame is the last one; the frames before it stay uncut.
    const int w = 320, h = 240;
    const cv::Mat_<float> scene = krotest::texturedScene(3 * h, 3 * w, 4);
    const cv::Rect window(w, h, w, h);
    std::vector<cv::Mat_<float>> frames = {scene(window).clone(),
                                           krotest::shiftImage(scene, {1.5f, 0.5f})(window).clone(),
                                           krotest::shiftImage(scene, {-120.3f, 0.0f})(window).clone()};
    SrFloatRegistration2 reg(w, h, 3);
    for (cv::Mat_<float>& f : frames)
        reg.prepareFrame(f.ptr<float>());
    std::vector<cv::Mat_<float>> work(3, cv::Mat_<float>(h, w, kSentinelWork));
    for (cv::Mat_<float>& m : work)
        m = m.clone();
    std::vector<std::vector<char>> masks(3, std::vector<char>(w * h));
    std::vector<float*> framePtrs, workPtrs;
    std::vector<char*> maskPtrs;
    for (int i = 0; i < 3; ++i) {
        framePtrs.push_back(frames[i].ptr<float>());
        workPtrs.push_back(work[i].ptr<float>());
        maskPtrs.push_back(masks[i].data());
    }
    std::vector<PointF> shifts(3);
    EXPECT_THROW(reg.doRegistration(3, 0, framePtrs.data(), shifts.data(), maskPtrs.data(), workPtrs.data()),
                 Exception);
    for (int i = 0; i < 3; ++i)
        EXPECT_TRUE(krotest::imagesEqual(cv::Mat_<float>(h, w, kSentinelWork), work[i])) << i;
}

TEST(SrFloatRegistration2, FlatFramesHaveNoCornersAndGiveMinusNine)
{
    std::vector<cv::Mat_<float>> frames(3, cv::Mat_<float>(120, 160, 500.0f));
    for (cv::Mat_<float>& f : frames)
        f = f.clone();
    SrFloatRegistration2 reg(160, 120, 3);
    const Registered r = prepareAndRegister(reg, frames, 1);
    EXPECT_EQ(-9, r.rc);
    for (int i = 0; i < 3; ++i) {
        EXPECT_TRUE(krotest::imagesEqual(cv::Mat_<float>(120, 160, kSentinelWork), r.work[i])) << i;
        EXPECT_EQ(std::vector<char>(frames[i].total(), kSentinelMask), r.masks[i]) << i;
    }
}

TEST(SrFloatRegistration2, CornerCountGoesToTheLogWithItsSourcePosition)
{
    LogFacility& log = LogFacility::getInstance();
    const LogLevel savedLevel = log.getLogLevel();
    const bool savedPosition = log.getSourcePosition();
    krotest::TempDir dir;
    const std::string path = dir.file("log.txt");
    ASSERT_TRUE(log.openLogFile(path, false));
    log.setLogLevel(LOG_DEBUG);

    std::vector<cv::Mat_<float>> frames = burst(160, 120, {{0.0f, 0.0f}, {0.5f, 0.5f}});
    SrFloatRegistration2 reg(160, 120, 2);
    log.setSourcePosition(true);
    EXPECT_EQ(0, prepareAndRegister(reg, frames, 0).rc);
    log.setSourcePosition(false);
    EXPECT_EQ(0, registerPrepared(reg, frames, 0).rc);
    std::vector<cv::Mat_<float>> flat(2, cv::Mat_<float>(120, 160, 3.0f));
    for (cv::Mat_<float>& f : flat)
        f = f.clone();
    SrFloatRegistration2 flatReg(160, 120, 2);
    EXPECT_EQ(-9, prepareAndRegister(flatReg, flat, 0).rc);
    log.setLogLevel(LOG_OFF);
    EXPECT_EQ(0, registerPrepared(reg, frames, 0).rc);  // logs nothing

    log.resetStream();
    log.setLogLevel(savedLevel);
    log.setSourcePosition(savedPosition);

    std::ifstream in(path);
    std::vector<std::string> lines;
    for (std::string line; std::getline(in, line);)
        lines.push_back(line);
    ASSERT_EQ(3u, lines.size());
    // "<source path>, <line> : Num corners: <n>"
    const std::string prefix = "modules/enhancement/superresolution/SrFloatRegistration2, ";
    const std::string text = " : Num corners: ";
    ASSERT_EQ(0u, lines[0].find(prefix)) << lines[0];
    const std::size_t textAt = lines[0].find(text);
    ASSERT_NE(std::string::npos, textAt) << lines[0];
    const std::string lineNumber = lines[0].substr(prefix.size(), textAt - prefix.size());
    ASSERT_FALSE(lineNumber.empty());
    EXPECT_EQ(std::string::npos, lineNumber.find_first_not_of("0123456789")) << lines[0];
    const std::string count = lines[0].substr(textAt + text.size());
    ASSERT_FALSE(count.empty());
    EXPECT_EQ(std::string::npos, count.find_first_not_of("0123456789")) << lines[0];
    const int corners = std::stoi(count);
    EXPECT_GE(corners, 1);
    EXPECT_LE(corners, 100);
    EXPECT_EQ("Num corners: " + std::to_string(corners), lines[1]);
    EXPECT_EQ("Num corners: 0", lines[2]);
}

// A flat background with bright squares whose top-left corners sit at
// `corners`, each square moved by its own displacement.
cv::Mat_<float> squares(const std::vector<cv::Point2f>& corners, const std::vector<PointF>& moves)
{
    cv::Mat_<float> image(240, 640, 300.0f);
    for (std::size_t k = 0; k < corners.size(); ++k) {
        cv::Mat_<float> square = cv::Mat_<float>::zeros(240, 640);
        cv::rectangle(square, cv::Rect(cv::Point(cvRound(corners[k].x), cvRound(corners[k].y)), cv::Size(30, 30)),
                      cv::Scalar(500.0), cv::FILLED);
        cv::GaussianBlur(square, square, cv::Size(0, 0), 1.0);
        image += krotest::shiftImage(square, moves[k]);
    }
    return image;
}

TEST(SrFloatRegistration2, IntegerShiftIsTheMeanOfTheDisplacementsNearTheUpperMedian)
{
    const std::vector<cv::Point2f> at = {{100.0f, 100.0f}, {300.0f, 100.0f}, {500.0f, 100.0f}};
    struct Case {
        std::vector<PointF> moves;      // of the squares at `at`
        std::vector<int> tracked;       // squares whose corner is tracked, in list order
        PointI expected;
    };
    const Case cases[] = {
        // Two corners: the median is the upper one (3), and the other lies
        // 3 away, outside the inlier distance: (3, 0), not the mean 1.5.
        {{{0.0f, 0.0f}, {3.0f, 0.0f}, {0.0f, 0.0f}}, {1, 0}, PointI(3, 0)},
        {{{0.0f, 0.0f}, {3.0f, 0.0f}, {0.0f, 0.0f}}, {0, 1}, PointI(3, 0)},
        // Three corners: medians (0.8, 0); the two displacements near them
        // average to (0.4, 0.3) -> (0, 0). The plain mean would give (2, -1),
        // the median alone (1, 0).
        {{{0.0f, 0.0f}, {0.8f, 0.6f}, {5.0f, -4.0f}}, {2, 0, 1}, PointI(0, 0)},
        // Same with the outlier below the others: medians (0, 0.6)... the
        // inliers (0, 0) and (0.8, 0.6) again -> (0, 0).
        {{{0.0f, 0.0f}, {0.8f, 0.6f}, {-5.0f, 4.0f}}, {1, 2, 0}, PointI(0, 0)},
    };
    for (const Case& c : cases) {
        std::vector<cv::Mat_<float>> frames = {squares(at, {{0, 0}, {0, 0}, {0, 0}}), squares(at, c.moves)};
        SrFloatRegistration2 reg(640, 240, 2);
        for (cv::Mat_<float>& f : frames)
            reg.prepareFrame(f.ptr<float>());
        std::vector<cv::Point2f> corners;
        for (int k : c.tracked)
            corners.push_back(at[k]);
        Peer::setCorners(reg, corners);
        PointI shift(-7, -7);
        ASSERT_EQ(0, reg.registerWithCorners(0, 1, shift));
        EXPECT_EQ(c.expected.x, shift.x) << "case with " << c.tracked.size() << " corners";
        EXPECT_EQ(c.expected.y, shift.y) << "case with " << c.tracked.size() << " corners";
    }

    // No corner at all: -9 and (0, 0).
    std::vector<cv::Mat_<float>> frames = {squares(at, {{0, 0}, {0, 0}, {0, 0}}),
                                           squares(at, {{1, 0}, {1, 0}, {1, 0}})};
    SrFloatRegistration2 reg(640, 240, 2);
    for (cv::Mat_<float>& f : frames)
        reg.prepareFrame(f.ptr<float>());
    Peer::setCorners(reg, {});
    PointI shift(5, 5);
    EXPECT_EQ(-9, reg.registerWithCorners(0, 1, shift));
    EXPECT_EQ(0, shift.x);
    EXPECT_EQ(0, shift.y);
}

TEST(SrFloatRegistration2, SameBytesWithOneAndTwoThreads)
{
    const std::vector<PointF> shifts = {{0.0f, 0.0f}, {0.35f, -1.4f}, {-2.6f, 0.8f}, {3.1f, 2.45f}, {-0.5f, -3.7f}};
    const int saved = omp_get_max_threads();
    std::vector<Registered> runs;
    for (int threads : {1, 2}) {
        omp_set_num_threads(threads);
        std::vector<cv::Mat_<float>> frames = burst(320, 240, shifts);
        SrFloatRegistration2 reg(320, 240, 5);
        runs.push_back(prepareAndRegister(reg, frames, 2));
    }
    omp_set_num_threads(saved);
    ASSERT_EQ(0, runs[0].rc);
    ASSERT_EQ(0, runs[1].rc);
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(0, std::memcmp(&runs[0].complete[i], &runs[1].complete[i], sizeof(PointF))) << i;
        EXPECT_EQ(0, std::memcmp(&runs[0].shifts[i], &runs[1].shifts[i], sizeof(PointF))) << i;
        EXPECT_EQ(runs[0].masks[i], runs[1].masks[i]) << i;
        EXPECT_TRUE(krotest::imagesEqual(runs[0].work[i], runs[1].work[i])) << i;
    }
}

TEST(SrFloatRegistration2, PreparedFramesStayInStepWithTheCallersRing)
{
    // Seven frames through a window of three, held oldest first as the
    // driver does; the reference is the oldest held frame.
    std::vector<PointF> truth;
    for (int k = 0; k < 7; ++k)
        truth.emplace_back(0.7f * k - 2.0f + (k % 2) * 0.3f, 1.5f - 0.45f * k);
    const std::vector<cv::Mat_<float>> all = burst(160, 120, truth);

    SrFloatRegistration2 reg(160, 120, 3);
    std::vector<cv::Mat_<float>> ring;
    std::vector<int> held;  // index into `all` of each ring slot
    for (int k = 0; k < 7; ++k) {
        if (ring.size() == 3) {
            ring.erase(ring.begin());
            held.erase(held.begin());
        }
        ring.push_back(all[k].clone());
        held.push_back(k);
        reg.prepareFrame(ring.back().ptr<float>());
        EXPECT_EQ(static_cast<int>(ring.size()), reg.getPreparedFrames());
        if (ring.size() < 2)
            continue;
        const Registered r = registerPrepared(reg, ring, 0);
        ASSERT_EQ(0, r.rc) << "after frame " << k;
        for (std::size_t i = 1; i < ring.size(); ++i) {
            SCOPED_TRACE("after frame " + std::to_string(k));
            const PointF t(truth[held[i]].x - truth[held[0]].x, truth[held[i]].y - truth[held[0]].y);
            expectRegistered(r, static_cast<int>(i), t, 160, 120, 0.05f, 0.95);
        }
    }

    // Forgetting the frames starts a new series.
    reg.clearFrames();
    EXPECT_EQ(0, reg.getPreparedFrames());
    EXPECT_THROW(registerPrepared(reg, ring, 0), Exception);
    std::vector<cv::Mat_<float>> two = {all[6].clone(), all[0].clone()};
    const Registered r = prepareAndRegister(reg, two, 0);
    ASSERT_EQ(0, r.rc);
    expectRegistered(r, 1, PointF(truth[0].x - truth[6].x, truth[0].y - truth[6].y), 160, 120, 0.05f, 0.95);
}

TEST(SrFloatRegistration2, MaskDropsAChangedRegionWhereTheCutFrameShowsIt)
{
    // Frame 1 is the reference moved by (12, -9) with a bright disc added at
    // (100, 50) of its own grid; after the cut the disc sits at (88, 59).
    std::vector<cv::Mat_<float>> frames = burst(160, 120, {{0.0f, 0.0f}, {12.0f, -9.0f}});
    cv::circle(frames[1], cv::Point(100, 50), 6, cv::Scalar(1200.0), cv::FILLED);
    SrFloatRegistration2 reg(160, 120, 2);
    const Registered r = prepareAndRegister(reg, frames, 0);
    ASSERT_EQ(0, r.rc);
    EXPECT_NEAR(12.0f, r.complete[1].x, 0.1f);
    EXPECT_NEAR(-9.0f, r.complete[1].y, 0.1f);

    std::size_t far = 0, farKept = 0;
    for (int y = 0; y < 120; ++y)
        for (int x = 0; x < 160; ++x) {
            const char m = r.masks[1][y * 160 + x];
            const double d = std::hypot(x - 88.0, y - 59.0);
            if (x >= 160 - 12 || y < 9)
                EXPECT_EQ(0, m) << "no frame data at " << x << ", " << y;
            else if (d <= 6.0)
                EXPECT_EQ(0, m) << "changed pixel kept at " << x << ", " << y;
            else if (d > 14.0) {
                ++far;
                farKept += m == 1;
            }
        }
    EXPECT_GT(double(farKept) / double(far), 0.97);
    // Where the disc is on the frame's own grid, the cut frame is unchanged.
    EXPECT_EQ(1, r.masks[1][50 * 160 + 100]);
}

TEST(SrFloatRegistration2, RealThermalFramesRegisterWithUsableMasks)
{
    // A real 16-bit still (values up to about 5300) at known shifts with
    // sensor-like noise.
    const std::vector<PointF> shifts = {{0.0f, 0.0f}, {0.5f, -0.25f}, {-1.75f, 2.5f}, {3.25f, 0.75f}, {-0.4f, -4.1f}};
    std::vector<cv::Mat_<float>> frames = krotest::makeShiftedFrames(crosswalkStill(), 2, shifts, 0.5, 8.0, 3);
    SrFloatRegistration2 reg(320, 256, 5);
    const Registered r = prepareAndRegister(reg, frames, 0);
    ASSERT_EQ(0, r.rc);
    for (int i = 0; i < 5; ++i)
        expectRegistered(r, i, shifts[i], 320, 256, 0.05f, 0.95);

    // A real driving sequence: the scene moves between frames (parallax,
    // the car's own motion), so only most of each frame can be kept; the
    // driver drops frames whose mask keeps half or less.
    std::vector<cv::Mat_<float>> drive = driveFrames(0, 5);
    SrFloatRegistration2 driveReg(160, 128, 5);
    const Registered d = prepareAndRegister(driveReg, drive, 1);
    ASSERT_EQ(0, d.rc);
    for (int i = 0; i < 5; ++i) {
        EXPECT_GT(maskFraction(d.masks[i]), 0.75) << i;
        // The cut frame matches the reference better over its mask than the
        // uncut frame does.
        double aligned = 0.0, uncut = 0.0;
        for (int p = 0; p < 160 * 128; ++p)
            if (d.masks[i][p]) {
                const float ref = drive[1](p / 160, p % 160);
                aligned += std::pow(d.work[i](p / 160, p % 160) - ref, 2.0);
                uncut += std::pow(drive[i](p / 160, p % 160) - ref, 2.0);
            }
        if (i != 1) {
            EXPECT_LT(aligned, 0.5 * uncut) << i;
        }
    }
}

TEST(SrFloatRegistration2, CopiesAreDeepAndIndependent)
{
    const std::vector<PointF> shifts = {{0.0f, 0.0f}, {1.3f, -0.6f}, {-2.2f, 1.7f}, {0.4f, 3.2f}};
    std::vector<cv::Mat_<float>> frames = burst(160, 120, shifts);
    SrFloatRegistration2 reg(160, 120, 3);
    for (int i = 0; i < 3; ++i)
        reg.prepareFrame(frames[i].ptr<float>());
    std::vector<cv::Mat_<float>> held(frames.begin(), frames.begin() + 3);
    const Registered before = registerPrepared(reg, held, 0);
    ASSERT_EQ(0, before.rc);

    SrFloatRegistration2 copy(reg);
    SrFloatRegistration2 assigned(40, 30, 1);
    assigned = reg;
    for (SrFloatRegistration2* other : {&copy, &assigned}) {
        const Registered same = registerPrepared(*other, held, 0);
        ASSERT_EQ(0, same.rc);
        for (int i = 0; i < 3; ++i) {
            EXPECT_EQ(0, std::memcmp(&before.complete[i], &same.complete[i], sizeof(PointF))) << i;
            EXPECT_EQ(before.masks[i], same.masks[i]) << i;
        }
        // The copy moves on to a new frame; the original keeps its own.
        other->prepareFrame(frames[3].ptr<float>());
    }
    const Registered after = registerPrepared(reg, held, 0);
    ASSERT_EQ(0, after.rc);
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(0, std::memcmp(&before.complete[i], &after.complete[i], sizeof(PointF))) << i;
        EXPECT_EQ(before.masks[i], after.masks[i]) << i;
    }
}

TEST(SrFloatRegistration2, EightBitRangeWidensWithAMarginAndNeverNarrows)
{
    // Halves at two levels: the blur keeps both levels far from the edge, so
    // the frame's minimum and maximum are exactly the two levels.
    auto halves = [](float left, float right) {
        cv::Mat_<float> f(60, 80, left);
        f(cv::Rect(40, 0, 40, 60)) = right;
        return f;
    };
    SrFloatRegistration2 reg(80, 60, 2);
    cv::Mat_<float> f = halves(100.0f, 200.0f);
    reg.prepareFrame(f.ptr<float>());
    EXPECT_FLOAT_EQ(90.0f, Peer::rangeMin(reg));
    EXPECT_FLOAT_EQ(210.0f, Peer::rangeMax(reg));
    f = halves(120.0f, 180.0f);  // inside: kept
    reg.prepareFrame(f.ptr<float>());
    EXPECT_FLOAT_EQ(90.0f, Peer::rangeMin(reg));
    EXPECT_FLOAT_EQ(210.0f, Peer::rangeMax(reg));
    f = halves(0.0f, 150.0f);  // below: the low end moves out by 15 % ...
    reg.prepareFrame(f.ptr<float>());
    EXPECT_FLOAT_EQ(-15.0f, Peer::rangeMin(reg));
    EXPECT_FLOAT_EQ(210.0f, Peer::rangeMax(reg));  // ... the high end stays
    reg.clearFrames();  // the range belongs to the series, not to the ring
    f = halves(50.0f, 60.0f);
    reg.prepareFrame(f.ptr<float>());
    EXPECT_FLOAT_EQ(-15.0f, Peer::rangeMin(reg));
    EXPECT_FLOAT_EQ(210.0f, Peer::rangeMax(reg));
}

TEST(SrFloatRegistration2, TinyFramesRegisterOrReportNoCorners)
{
    // Smaller than the tracking window and the mean filter; random content.
    for (cv::Size size : {cv::Size(1, 1), cv::Size(3, 2), cv::Size(8, 6), cv::Size(24, 16)}) {
        std::vector<cv::Mat_<float>> frames;
        for (int i = 0; i < 2; ++i)
            frames.push_back(krotest::randomImage(size.height, size.width, CV_32F, 0.0, 100.0, 5 + i));
        frames.push_back(frames[0].clone());
        SrFloatRegistration2 reg(size.width, size.height, 3);
        const Registered r = prepareAndRegister(reg, frames, 0);
        EXPECT_TRUE(r.rc == 0 || r.rc == -9) << size;
        if (r.rc != 0)
            continue;
        for (int i = 0; i < 3; ++i)
            for (char m : r.masks[i])
                EXPECT_TRUE(m == 0 || m == 1) << size;
        EXPECT_EQ(0.0f, r.complete[2].x) << size;  // the copy of the reference
        EXPECT_EQ(0.0f, r.complete[2].y) << size;
    }
}

TEST(SrFloatRegistration2, RejectsBadArguments)
{
    EXPECT_THROW(SrFloatRegistration2(0, 10, 2), Exception);
    EXPECT_THROW(SrFloatRegistration2(10, -1, 2), Exception);
    EXPECT_THROW(SrFloatRegistration2(10, 10, 0), Exception);

    std::vector<cv::Mat_<float>> frames = burst(160, 120, {{0.0f, 0.0f}, {1.0f, 1.0f}});
    SrFloatRegistration2 reg(160, 120, 3);
    EXPECT_THROW(reg.prepareFrame(nullptr), Exception);
    for (cv::Mat_<float>& f : frames)
        reg.prepareFrame(f.ptr<float>());
    std::vector<char> m0(160 * 120), m1(160 * 120);
    std::vector<float> w0(160 * 120), w1(160 * 120);
    float* framePtrs[] = {frames[0].ptr<float>(), frames[1].ptr<float>()};
    char* masks[] = {m0.data(), m1.data()};
    float* work[] = {w0.data(), w1.data()};
    PointF shifts[2];
    EXPECT_THROW(reg.doRegistration(3, 0, framePtrs, shifts, masks, work), Exception);   // beyond prepared
    EXPECT_THROW(reg.doRegistration(1, 0, framePtrs, shifts, masks, work), Exception);   // fewer than prepared
    EXPECT_THROW(reg.doRegistration(2, 2, framePtrs, shifts, masks, work), Exception);   // reference
    EXPECT_THROW(reg.doRegistration(2, -1, framePtrs, shifts, masks, work), Exception);
    EXPECT_THROW(reg.doRegistration(2, 0, framePtrs, shifts, nullptr, work), Exception);
    EXPECT_THROW(reg.doRegistration(2, 0, framePtrs, shifts, masks, framePtrs), Exception);  // in place
    char* oneNull[] = {m0.data(), nullptr};
    EXPECT_THROW(reg.doRegistration(2, 0, framePtrs, shifts, oneNull, work), Exception);
    PointI shift;
    EXPECT_THROW(reg.registerWithCorners(0, 2, shift), Exception);
    // The dense step needs the reference's gradients first.
    EXPECT_THROW(reg.opticalFlow(0, 1, PointI(1, 1), m1.data()), Exception);
    reg.initialize(masks, 0);
    EXPECT_NO_THROW(reg.opticalFlow(0, 1, PointI(1, 1), m1.data()));
    EXPECT_THROW(reg.opticalFlow(1, 0, PointI(1, 1), m0.data()), Exception);
    reg.setRegErrBlurRadius(-1);
    EXPECT_THROW(reg.doRegistration(2, 0, framePtrs, shifts, masks, work), Exception);
    reg.setRegErrBlurRadius(3);
    EXPECT_EQ(0, reg.doRegistration(2, 0, framePtrs, shifts, masks, work));
}

} // namespace
} // namespace kro
} // namespace velmor
