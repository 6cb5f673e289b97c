#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include "RegisteredFrames.h"
#include "Exception.h"
#include "IntegerModel.h"
#include "LogFacility.h"
#include "ShiftedFrames.h"
#include "SrFloatRegistration2.h"
#include "TestImages.h"

namespace velmor {
namespace kro {

// Reaches the corner list and the 8-bit range of the registration.
class SrFloatRegistration2Peer {
public:
    static void setCorners(SrFloatRegistration2& r, const std::vector<cv::Point2f>& c) { r.corners = c; }
    static float rangeMin(const SrFloatRegistration2& r) { return r.rangeMin; }
    static float rangeMax(const SrFloatRegistration2& r) { return r.rangeMax; }
};

namespace {

using Peer = SrFloatRegistration2Peer;

using Registered = krotest::RegisteredFrames;
using krotest::registerAll;

int roundHalfUp(float v) { return static_cast<int>(std::floor(v + 0.5f)); }

// Checks one registered frame against its true shift (reference grid): the
// complete shift within `tolerance`, the caller's shift reduced to the
// remainder, no mask pixel outside the area the cut fills with frame data,
// and at least `keep` of that area kept.
void expectRegistered(const Registered& r, int i, PointF truth, float tolerance, double keep)
{
    SCOPED_TRACE("frame " + std::to_string(i));
    const PointF c = r.complete[i];
    EXPECT_NEAR(truth.x, c.x, tolerance);
    EXPECT_NEAR(truth.y, c.y, tolerance);
    const int ix = roundHalfUp(c.x), iy = roundHalfUp(c.y);
    EXPECT_NEAR(c.x - ix, r.shifts[i].x, 1e-5f);
    EXPECT_NEAR(c.y - iy, r.shifts[i].y, 1e-5f);
    const cv::Size size = r.work[i].size();
    std::size_t inside = 0, kept = 0, strayOnes = 0;
    for (int y = 0; y < size.height; ++y)
        for (int x = 0; x < size.width; ++x) {
            const char m = r.masks[i][static_cast<std::size_t>(y) * size.width + x];
            const bool filled = cv::Rect(cv::Point(), size).contains({x + ix, y + iy});
            EXPECT_TRUE(m == 0 || m == 1);
            inside += filled;
            kept += filled && m == 1;
            strayOnes += !filled && m != 0;
        }
    EXPECT_EQ(0u, strayOnes);
    EXPECT_GE(double(kept) / double(inside), keep);
}

// RMS of (work frame - reference moved by `shift`) over the mask, 4 pixels
// from the edges left out (the interpolation reflects there).
double alignedResidual(const cv::Mat_<float>& reference, const Registered& r, int i, PointF shift)
{
    const cv::Mat_<float> expected = krotest::shiftImage(reference, shift);
    double sum = 0.0;
    std::size_t n = 0;
    for (int y = 4; y < reference.rows - 4; ++y)
        for (int x = 4; x < reference.cols - 4; ++x)
            if (r.masks[i][static_cast<std::size_t>(y) * reference.cols + x] == 1) {
                sum += std::pow(r.work[i](y, x) - expected(y, x), 2.0);
                ++n;
            }
    return n ? std::sqrt(sum / n) : 1e30;
}

// Low-resolution frames (half the scene size) of a textured scene at the
// given shifts, slightly blurred and noisy.
std::vector<cv::Mat_<float>> burst(int width, int height, const std::vector<PointF>& shifts)
{
    const cv::Mat_<float> scene = krotest::texturedScene(2 * height, 2 * width, 11);
    return krotest::makeShiftedFrames(scene, 2, shifts, 0.5, 2.0, 12);
}

TEST(SrFloatRegistration2, RecoversKnownShiftsAndCutsFramesOntoTheReference)
{
    // The reference (index 1) is itself off the scene grid; every frame's
    // shift against it is its own shift minus the reference's.
    const std::vector<PointF> scene = {{0.5f, -0.7f}, {0.2f, -0.3f}, {2.2f, 0.7f},
                                       {-3.4f, 1.95f}, {4.6f, -6.0f}, {-1.8f, -3.3f}};
    std::vector<cv::Mat_<float>> frames = burst(160, 120, scene);
    SrFloatRegistration2 reg(160, 120, 6);
    const Registered r = registerAll(reg, frames, 1);
    ASSERT_EQ(0, r.rc);
    ASSERT_EQ(6u, r.complete.size());
    EXPECT_EQ(0.0f, r.complete[1].x);
    EXPECT_EQ(0.0f, r.complete[1].y);
    EXPECT_EQ(std::vector<char>(frames[1].total(), 1), r.masks[1]);
    for (int i = 0; i < 6; ++i) {
        expectRegistered(r, i, PointF(scene[i].x - scene[1].x, scene[i].y - scene[1].y), 0.05f, 0.97);
        // After the cut each frame is the reference moved by its remainder
        // only; the integer cut alone leaves a far larger mismatch.
        const double aligned = alignedResidual(frames[1], r, i, r.shifts[i]);
        EXPECT_LT(aligned, 6.0) << "frame " << i;
        EXPECT_TRUE(std::hypot(r.shifts[i].x, r.shifts[i].y) <= 0.2 ||
                    aligned * 2.0 < alignedResidual(frames[1], r, i, PointF(0.0f, 0.0f))) << "frame " << i;
    }
}

TEST(SrFloatRegistration2, ShiftReachingHalfTheHeightThrowsBeforeAnyFrameIsCut)
{
    // Frames cut from a larger scene, so that the content entering the frame
    // is new (not a reflection); the tracker follows this scene's corners over
    // half the frame. The bound is half the height (120) in both axes, though
    // the width is 320. The too-large frame comes last: the ones before it stay uncut.
    const int w = 320, h = 240;
    const cv::Mat_<float> scene = krotest::texturedScene(3 * h, 3 * w, 4);
    const cv::Rect window(w, h, w, h);
    for (const PointF shift : {PointF(0.0f, 120.3f), PointF(0.0f, 119.3f), PointF(0.0f, -120.3f),
                               PointF(0.0f, -119.3f), PointF(120.3f, 0.0f), PointF(-120.3f, 0.0f)}) {
        SCOPED_TRACE(std::to_string(shift.x) + ", " + std::to_string(shift.y));
        const bool tooLarge = std::abs(shift.x) >= 120.0f || std::abs(shift.y) >= 120.0f;
        std::vector<cv::Mat_<float>> frames = {scene(window).clone(),
                                               krotest::shiftImage(scene, {1.5f, 0.5f})(window).clone(),
                                               krotest::shiftImage(scene, shift)(window).clone()};
        SrFloatRegistration2 reg(w, h, 3);
        for (cv::Mat_<float>& f : frames)
            reg.prepareFrame(f.ptr<float>());
        Registered r(frames);
        try {
            EXPECT_EQ(0, reg.doRegistration(3, 0, r.framePtrs.data(), r.shifts.data(), r.maskPtrs.data(),
                                            r.workPtrs.data()));
            EXPECT_FALSE(tooLarge) << "no exception";
        } catch (const Exception& e) {
            EXPECT_TRUE(tooLarge);
            EXPECT_STREQ("Too large displacement", e.what());
            EXPECT_NE(std::string::npos, e.where().find("modules/enhancement/superresolution/SrFloatRegistration2:"));
            EXPECT_NE(std::string::npos, e.where().find(" : velmor::kro::SrFloatRegistration2::doRegistration(..)"));
            for (int i = 0; i < 3; ++i)
                EXPECT_TRUE(krotest::imagesEqual(cv::Mat_<float>(h, w, -1.0f), r.work[i])) << i;
        }
        // The shift found is reported either way.
        reg.getCompleteShifts(r.complete);
        ASSERT_EQ(3u, r.complete.size());
        EXPECT_NEAR(shift.x, r.complete[2].x, 0.2f);
        EXPECT_NEAR(shift.y, r.complete[2].y, 0.2f);
    }
}

TEST(SrFloatRegistration2, CornerCountGoesToTheLogAndFlatFramesGiveMinusNineUntouched)
{
    LogFacility& log = LogFacility::getInstance();
    const LogLevel savedLevel = log.getLogLevel();
    const bool savedPosition = log.getSourcePosition();
    krotest::TempDir dir;
    ASSERT_TRUE(log.openLogFile(dir.file("log.txt"), false));
    log.setLogLevel(LOG_DEBUG);
    std::vector<cv::Mat_<float>> frames = burst(160, 120, {{0.0f, 0.0f}, {0.5f, 0.5f}});
    SrFloatRegistration2 reg(160, 120, 2);
    log.setSourcePosition(true);
    EXPECT_EQ(0, registerAll(reg, frames, 0).rc);
    log.setSourcePosition(false);
    EXPECT_EQ(0, registerAll(reg, frames, 0, false).rc);
    std::vector<cv::Mat_<float>> flat = {cv::Mat_<float>(120, 160, 500.0f), cv::Mat_<float>(120, 160, 500.0f)};
    SrFloatRegistration2 flatReg(160, 120, 2);
    const Registered none = registerAll(flatReg, flat, 1);
    log.setLogLevel(LOG_OFF);
    EXPECT_EQ(0, registerAll(reg, frames, 0, false).rc);  // logs nothing
    log.resetStream();
    log.setLogLevel(savedLevel);
    log.setSourcePosition(savedPosition);

    // No corner: -9, nothing cut and the masks left as they were.
    EXPECT_EQ(-9, none.rc);
    for (int i = 0; i < 2; ++i) {
        EXPECT_TRUE(krotest::imagesEqual(cv::Mat_<float>(120, 160, -1.0f), none.work[i])) << i;
        EXPECT_EQ(std::vector<char>(flat[i].total(), 7), none.masks[i]) << i;
    }
    std::ifstream in(dir.file("log.txt"));
    std::vector<std::string> lines;
    for (std::string line; std::getline(in, line);)
        lines.push_back(line);
    ASSERT_EQ(3u, lines.size());
    // "<source path>, <line> : Num corners: <n>": parsed, then rebuilt to the exact text.
    const std::string prefix = "modules/enhancement/superresolution/SrFloatRegistration2, ";
    int line = 0, corners = 0;
    ASSERT_EQ(2, std::sscanf(lines[0].c_str(), (prefix + "%d : Num corners: %d").c_str(), &line, &corners)) << lines[0];
    EXPECT_EQ(prefix + std::to_string(line) + " : Num corners: " + std::to_string(corners), lines[0]);
    EXPECT_GT(line, 0);
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
        std::vector<PointF> moves;  // of the squares at `at`
        std::vector<int> tracked;   // squares whose corner is tracked, in list order; none: -9
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
        // Same with the outlier below the others: the inliers (0, 0) and (0.8, 0.6) again.
        {{{0.0f, 0.0f}, {0.8f, 0.6f}, {-5.0f, 4.0f}}, {1, 2, 0}, PointI(0, 0)},
        {{{1.0f, 0.0f}, {1.0f, 0.0f}, {1.0f, 0.0f}}, {}, PointI(0, 0)},
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
        EXPECT_EQ(c.tracked.empty() ? -9 : 0, reg.registerWithCorners(0, 1, shift));
        EXPECT_EQ(c.expected.x, shift.x) << "case with " << c.tracked.size() << " corners";
        EXPECT_EQ(c.expected.y, shift.y) << "case with " << c.tracked.size() << " corners";
    }
}

TEST(SrFloatRegistration2, SameBytesWhateverTheThreadCount)
{
    const std::vector<PointF> shifts = {{0.0f, 0.0f}, {0.35f, -1.4f}, {-2.6f, 0.8f}, {3.1f, 2.45f}, {-0.5f, -3.7f}};
    std::vector<Registered> runs;
    for (int threads : {1, 2, 7}) {
        std::vector<cv::Mat_<float>> frames = burst(320, 240, shifts);
        SrFloatRegistration2 reg(320, 240, 5);
        ASSERT_TRUE(reg.setThreads(threads));
        runs.push_back(registerAll(reg, frames, 2));
        ASSERT_EQ(0, runs.back().rc);
        // The dense step splits as far as its work is worth (two threads
        // for four frames of 320x240).
        const int ran = reg.getLastThreadCount();
        EXPECT_TRUE(threads == 1 ? ran == 1 : ran > 1 && ran <= threads) << ran << " of " << threads;
    }
    for (size_t run = 1; run < runs.size(); ++run) {
        for (int i = 0; i < 5; ++i) {
            EXPECT_EQ(0, std::memcmp(&runs[0].complete[i], &runs[run].complete[i], sizeof(PointF))) << i;
            EXPECT_EQ(0, std::memcmp(&runs[0].shifts[i], &runs[run].shifts[i], sizeof(PointF))) << i;
            EXPECT_EQ(runs[0].masks[i], runs[run].masks[i]) << i;
            EXPECT_TRUE(krotest::imagesEqual(runs[0].work[i], runs[run].work[i])) << i;
        }
    }
}

TEST(SrFloatRegistration2, PreparedFramesStayInStepWithTheCallersRingAndCopiesOwnTheirs)
{
    // Seven frames through a window of three, held oldest first as the
    // driver does; the reference is the oldest held frame.
    std::vector<PointF> truth;
    for (int k = 0; k < 7; ++k)
        truth.emplace_back(0.7f * k - 2.0f + (k % 2) * 0.3f, 1.5f - 0.45f * k);
    const std::vector<cv::Mat_<float>> all = burst(160, 120, truth);
    SrFloatRegistration2 reg(160, 120, 3);
    std::vector<cv::Mat_<float>> ring;
    for (int k = 0; k < 7; ++k) {
        const int first = std::max(0, k - 2);  // index into `all` of the oldest held frame
        ring.assign(all.begin() + first, all.begin() + k + 1);
        reg.prepareFrame(ring.back().ptr<float>());
        EXPECT_EQ(static_cast<int>(ring.size()), reg.getPreparedFrames());
        if (k == 0)
            continue;
        const Registered r = registerAll(reg, ring, 0, false);
        ASSERT_EQ(0, r.rc) << "after frame " << k;
        for (int i = 1; i <= k - first; ++i) {
            SCOPED_TRACE("after frame " + std::to_string(k));
            expectRegistered(r, i, PointF(truth[first + i].x - truth[first].x, truth[first + i].y - truth[first].y), 0.05f, 0.95);
        }
    }
    // Copies are deep: the original moves on, they register as before.
    const Registered before = registerAll(reg, ring, 0, false);
    SrFloatRegistration2 copy(reg), assigned(40, 30, 1);
    assigned = reg;
    reg.clearFrames();  // forgetting the frames starts a new series
    EXPECT_EQ(0, reg.getPreparedFrames());
    EXPECT_THROW(registerAll(reg, ring, 0, false), Exception);
    std::vector<cv::Mat_<float>> two = {all[6].clone(), all[0].clone()};
    const Registered r = registerAll(reg, two, 0);
    ASSERT_EQ(0, r.rc);
    expectRegistered(r, 1, PointF(truth[0].x - truth[6].x, truth[0].y - truth[6].y), 0.05f, 0.95);
    for (SrFloatRegistration2* other : {&copy, &assigned}) {
        const Registered same = registerAll(*other, ring, 0, false);
        ASSERT_EQ(0, same.rc);
        for (int i = 0; i < 3; ++i) {
            EXPECT_EQ(0, std::memcmp(&before.complete[i], &same.complete[i], sizeof(PointF))) << i;
            EXPECT_EQ(before.masks[i], same.masks[i]) << i;
        }
    }
}

TEST(SrFloatRegistration2, MaskDropsAChangedRegionWhereTheCutFrameShowsIt)
{
    // Frame 1 is the reference moved by (12, -9) with a bright disc added at
    // (100, 50) of its own grid; after the cut the disc sits at (88, 59).
    std::vector<cv::Mat_<float>> frames = burst(160, 120, {{0.0f, 0.0f}, {12.0f, -9.0f}});
    cv::circle(frames[1], cv::Point(100, 50), 6, cv::Scalar(1200.0), cv::FILLED);
    SrFloatRegistration2 reg(160, 120, 2);
    const Registered r = registerAll(reg, frames, 0);
    ASSERT_EQ(0, r.rc);
    EXPECT_NEAR(12.0f, r.complete[1].x, 0.1f);
    EXPECT_NEAR(-9.0f, r.complete[1].y, 0.1f);
    std::size_t far = 0, farKept = 0;
    for (int y = 0; y < 120; ++y)
        for (int x = 0; x < 160; ++x) {
            const char m = r.masks[1][y * 160 + x];
            const double d = std::hypot(x - 88.0, y - 59.0);
            const bool data = x < 160 - 12 && y >= 9;
            EXPECT_TRUE(data || m == 0) << "no frame data at " << x << ", " << y;
            EXPECT_TRUE(!data || d > 6.0 || m == 0) << "changed pixel kept at " << x << ", " << y;
            far += data && d > 14.0;
            farKept += data && d > 14.0 && m == 1;
        }
    EXPECT_GT(double(farKept) / double(far), 0.97);
    // Where the disc is on the frame's own grid, the cut frame is unchanged.
    EXPECT_EQ(1, r.masks[1][50 * 160 + 100]);
}

TEST(SrFloatRegistration2, LargerRegErrorNeverKeepsFewerPixels)
{
    std::vector<cv::Mat_<float>> frames = burst(160, 120, {{0.0f, 0.0f}, {1.4f, -2.45f}});
    int previous = 0, first = -1;
    for (const float regError : {1e-7f, 1e-6f, 1e-5f, 1e-4f, 1.0f}) {
        SrFloatRegistration2 reg(160, 120, 2);
        reg.setRegError(regError);
        const Registered r = registerAll(reg, frames, 0);
        ASSERT_EQ(0, r.rc);
        const int kept = cv::countNonZero(cv::Mat(r.masks[1]));
        EXPECT_GE(kept, previous) << regError;
        previous = kept;
        first = first < 0 ? kept : first;
    }
    EXPECT_LT(first, previous);  // the sweep does reach pixels that only a larger error keeps
}

TEST(SrFloatRegistration2, RealThermalFramesRegisterWithUsableMasks)
{
    // A real 16-bit still (values up to about 5300) at known shifts with
    // sensor-like noise.
    cv::Mat_<float> still;
    cv::imread(std::string(KROLIB_SOURCE_DIR) + "/data/thermal/crosswalk_640x512_u16.png", cv::IMREAD_UNCHANGED)
        .convertTo(still, CV_32F);
    const std::vector<PointF> shifts = {{0.0f, 0.0f}, {0.5f, -0.25f}, {-1.75f, 2.5f}, {3.25f, 0.75f}, {-0.4f, -4.1f}};
    std::vector<cv::Mat_<float>> frames = krotest::makeShiftedFrames(still, 2, shifts, 0.5, 8.0, 3);
    SrFloatRegistration2 reg(320, 256, 5);
    const Registered r = registerAll(reg, frames, 0);
    ASSERT_EQ(0, r.rc);
    for (int i = 0; i < 5; ++i)
        expectRegistered(r, i, shifts[i], 0.05f, 0.95);

    // A real driving sequence: the scene moves between frames (parallax,
    // the car's own motion), so only most of each frame can be kept; the
    // driver drops frames whose mask keeps half or less.
    std::ifstream in(std::string(KROLIB_SOURCE_DIR) + "/data/thermal/drive_crop_160x128x10_u16.raw", std::ios::binary);
    ASSERT_TRUE(in.good());
    std::vector<std::uint16_t> data(160 * 128);
    std::vector<cv::Mat_<float>> drive(5);
    for (cv::Mat_<float>& f : drive) {
        in.read(reinterpret_cast<char*>(data.data()), data.size() * 2);
        cv::Mat(128, 160, CV_16U, data.data()).convertTo(f, CV_32F);
    }
    SrFloatRegistration2 driveReg(160, 128, 5);
    const Registered d = registerAll(driveReg, drive, 1);
    ASSERT_EQ(0, d.rc);
    for (int i = 0; i < 5; ++i) {
        EXPECT_GT(cv::countNonZero(cv::Mat(d.masks[i])), 0.75 * 160 * 128) << i;
        // The cut frame matches the reference better over its mask than the uncut frame does.
        const cv::Mat mask = cv::Mat(d.masks[i]).reshape(1, 128) != 0;
        EXPECT_TRUE(i == 1 || cv::norm(d.work[i], drive[1], cv::NORM_L2SQR, mask) <
                                  0.5 * cv::norm(drive[i], drive[1], cv::NORM_L2SQR, mask)) << i;
    }
}

TEST(SrFloatRegistration2, EightBitRangeWidensWithAMarginAndNeverNarrows)
{
    // Halves at two levels: the blur keeps both levels far from the edge, so
    // the frame's minimum and maximum are exactly the two levels.
    SrFloatRegistration2 reg(80, 60, 2);
    const auto expectRangeAfter = [&](float left, float right, float low, float high) {
        cv::Mat_<float> f(60, 80, left);
        f(cv::Rect(40, 0, 40, 60)).setTo(right);
        reg.prepareFrame(f.ptr<float>());
        EXPECT_FLOAT_EQ(low, Peer::rangeMin(reg)) << "after " << left << " / " << right;
        EXPECT_FLOAT_EQ(high, Peer::rangeMax(reg)) << "after " << left << " / " << right;
    };
    expectRangeAfter(100.0f, 200.0f, 90.0f, 210.0f);
    expectRangeAfter(120.0f, 180.0f, 90.0f, 210.0f);  // inside: kept
    expectRangeAfter(0.0f, 150.0f, -15.0f, 210.0f);   // below: the low end moves out by 15 %, the high end stays
    reg.clearFrames();                                // the range belongs to the series, not to the ring
    expectRangeAfter(50.0f, 60.0f, -15.0f, 210.0f);
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
        const Registered r = registerAll(reg, frames, 0);
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
    Registered r(frames);
    float** f = r.framePtrs.data();
    char** m = r.maskPtrs.data();
    float** w = r.workPtrs.data();
    PointF* s = r.shifts.data();
    std::vector<cv::Mat_<float>> three = {frames[0], frames[1], frames[1].clone()};
    Registered r3(three);  // the caller's arrays hold what it claims
    EXPECT_THROW(reg.doRegistration(3, 0, r3.framePtrs.data(), r3.shifts.data(), r3.maskPtrs.data(), r3.workPtrs.data()),
                 Exception);  // beyond prepared
    EXPECT_THROW(reg.doRegistration(1, 0, f, s, m, w), Exception);   // fewer than prepared
    EXPECT_THROW(reg.doRegistration(2, 2, f, s, m, w), Exception);   // reference
    EXPECT_THROW(reg.doRegistration(2, -1, f, s, m, w), Exception);
    EXPECT_THROW(reg.doRegistration(2, 0, f, s, nullptr, w), Exception);
    EXPECT_THROW(reg.doRegistration(2, 0, f, s, m, f), Exception);  // in place
    char* oneNull[] = {m[0], nullptr};
    EXPECT_THROW(reg.doRegistration(2, 0, f, s, oneNull, w), Exception);
    PointI shift;
    EXPECT_THROW(reg.registerWithCorners(0, 2, shift), Exception);
    // The dense step needs the reference's gradients first.
    EXPECT_THROW(reg.opticalFlow(0, 1, PointI(1, 1), m[1]), Exception);
    reg.initialize(m, 0);
    EXPECT_NO_THROW(reg.opticalFlow(0, 1, PointI(1, 1), m[1]));
    EXPECT_THROW(reg.opticalFlow(1, 0, PointI(1, 1), m[0]), Exception);
    reg.setRegErrBlurRadius(-1);
    EXPECT_THROW(reg.doRegistration(2, 0, f, s, m, w), Exception);
    reg.setRegErrBlurRadius(3);
    EXPECT_EQ(0, reg.doRegistration(2, 0, f, s, m, w));
}

} // namespace
} // namespace kro
} // namespace velmor
