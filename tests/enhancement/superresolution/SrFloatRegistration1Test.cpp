#include <gtest/gtest.h>

#include <cmath>
#include <complex>
#include <string>
#include <vector>

#include <opencv2/imgcodecs.hpp>

#include "RegisteredFrames.h"
#include "Exception.h"
#include "IntegerModel.h"
#include "ShiftedFrames.h"
#include "SrFloatRegistration1.h"
#include "TestImages.h"

namespace velmor {
namespace kro {

// Reaches the private peak unwrapping.
class SrFloatRegistration1Peer {
public:
    static PointI unwrapPeak(int index, int width, int height)
    {
        return SrFloatRegistration1::unwrapPeak(index, width, height);
    }
};

namespace {

using Registered = krotest::RegisteredFrames;

Registered registerAll(SrFloatRegistration1& reg, std::vector<cv::Mat_<float>>& frames, int refPos, bool prepare = true)
{
    Registered r = krotest::registerAll(reg, frames, refPos, prepare);
    EXPECT_EQ(0, r.rc);
    return r;
}

int roundHalfUp(float v) { return static_cast<int>(std::floor(v + 0.5f)); }

// The pixels of a work frame that the cut by `shift` fills with data.
bool hasData(int x, int y, const cv::Size& size, PointF shift)
{
    return cv::Rect(cv::Point(), size).contains(cv::Point(x + roundHalfUp(shift.x), y + roundHalfUp(shift.y)));
}

// Share of the pixels with data that the mask keeps; fails if the mask keeps
// a pixel without data or holds anything but 0 and 1.
double keptShareOfData(const std::vector<char>& mask, const cv::Size& size, PointF complete)
{
    size_t data = 0, kept = 0, stray = 0;
    for (int y = 0; y < size.height; ++y)
        for (int x = 0; x < size.width; ++x) {
            const char m = mask[size_t(y) * size.width + x];
            EXPECT_TRUE(m == 0 || m == 1) << "mask value " << int(m) << " at " << x << "," << y;
            const bool inside = hasData(x, y, size, complete);
            data += inside;
            kept += inside && m == 1;
            stray += !inside && m != 0;
        }
    EXPECT_EQ(0u, stray) << "mask pixels kept where the cut has no data";
    return double(kept) / double(data);
}

// A scene four times finer than the frames: the frame maker's sub-pixel
// interpolation then errs by well under 0.02 low-resolution pixel.
std::vector<cv::Mat_<float>> framesOf(const std::vector<PointF>& shifts, double noise = 0.0)
{
    static const cv::Mat_<float> scene = krotest::texturedScene(120 * 4, 160 * 4, 11);
    return krotest::makeShiftedFrames(scene, 4, shifts, 0.3, noise, 5);
}

const cv::Size kSize(160, 120);

TEST(SrFloatRegistration1, RecoversKnownShiftsToATwentiethOfAPixelAndCutsOntoTheReference)
{
    const std::vector<PointF> truth = {{0.0f, 0.0f}, {0.3f, -0.2f}, {-1.45f, 2.7f}, {3.0f, -2.0f}, {-4.6f, -3.35f},
                                       {5.25f, 0.5f}, {-0.5f, -6.8f}, {2.49f, 4.51f}, {-7.2f, 0.0f}};
    for (const int gaussRadius : {5, 3}) {
        SCOPED_TRACE("radius " + std::to_string(gaussRadius));
        std::vector<cv::Mat_<float>> frames = framesOf(truth);
        SrFloatRegistration1 reg(160, 120, static_cast<int>(truth.size()));
        reg.setGaussRadius(gaussRadius);
        const Registered r = registerAll(reg, frames, 0);
        ASSERT_EQ(truth.size(), r.complete.size());
        for (size_t i = 0; i < truth.size(); ++i) {
            EXPECT_NEAR(truth[i].x, r.complete[i].x, 0.05) << "frame " << i;
            EXPECT_NEAR(truth[i].y, r.complete[i].y, 0.05) << "frame " << i;
            // The caller's list holds what the cut leaves of the complete shift.
            const int rx = roundHalfUp(r.complete[i].x), ry = roundHalfUp(r.complete[i].y);
            EXPECT_FLOAT_EQ(r.complete[i].x - float(rx), r.shifts[i].x);
            EXPECT_FLOAT_EQ(r.complete[i].y - float(ry), r.shifts[i].y);
            // The work frame equals the scene at the shift the cut leaves,
            // wherever its mask is 1. (The frame maker reflects the border at
            // each frame's own edge: the outer two rows and columns are left out.)
            const cv::Mat_<float> expected = framesOf({PointF(truth[i].x - float(rx), truth[i].y - float(ry))})[0];
            const cv::Rect inner(2, 2, 160 - 4, 120 - 4);
            double worst = 0.0;
            for (int y = 0; y < 120; ++y)
                for (int x = 0; x < 160; ++x)
                    if (r.masks[i][size_t(y) * 160 + x] == 1 && inner.contains({x, y}) && inner.contains({x + rx, y + ry}))
                        worst = std::max(worst, double(std::abs(r.work[i](y, x) - expected(y, x))));
            EXPECT_LT(worst, 1e-2) << "frame " << i;
            // The mask is 0 where the cut has no data and keeps nearly all the rest.
            EXPECT_GT(keptShareOfData(r.masks[i], kSize, r.complete[i]), 0.95) << "frame " << i;
        }
        // The reference is used whole and cut by nothing.
        EXPECT_EQ(std::vector<char>(160 * 120, 1), r.masks[0]);
        EXPECT_IMAGES_EQUAL(frames[0], r.work[0]);
    }
}

// A smooth random texture, periodic in the frame, moved by exactly `d`
// (frame(x) = texture(x - d)) through the phase of its spectrum; the Nyquist
// bins are dropped so that the moved texture stays real.
cv::Mat_<float> periodicTexture(PointF d)
{
    cv::Mat spectrum;
    cv::dft(krotest::randomImage(120, 160, CV_32F, -1.0, 1.0, 21), spectrum, cv::DFT_COMPLEX_OUTPUT);
    for (int v = 0; v < 120; ++v)
        for (int u = 0; u < 160; ++u) {
            const double fu = (u <= 80 ? u : u - 160) / 160.0, fv = (v <= 60 ? v : v - 120) / 120.0;
            const double w = 2.0 * CV_PI, phase = -w * (fu * d.x + fv * d.y);
            const double gain = u == 80 || v == 60 ? 0.0 : std::exp(-0.5 * 1.5 * 1.5 * w * w * (fu * fu + fv * fv));
            cv::Vec2f& bin = spectrum.at<cv::Vec2f>(v, u);
            const std::complex<double> moved = std::complex<double>(bin[0], bin[1]) * std::polar(gain, phase);
            bin = cv::Vec2f(float(moved.real()), float(moved.imag()));
        }
    cv::Mat_<float> texture;
    cv::idft(spectrum, texture, cv::DFT_REAL_OUTPUT | cv::DFT_SCALE);
    return texture * 4000.0f + 2000.0f;
}

// Exactly moved periodic textures leave only the error of the method itself
// (no frame maker's interpolation): the central differences of the gradient
// make the step overestimate the sub-pixel remainder (at most 0.5) by a few
// per cent, no more.
TEST(SrFloatRegistration1, SubPixelStepIsAccurateOnExactlyShiftedTextures)
{
    const std::vector<PointF> truth = {{0.0f, 0.0f}, {0.3f, -0.2f}, {-0.45f, 0.35f}, {2.6f, -1.5f}, {-6.49f, 4.2f}};
    std::vector<cv::Mat_<float>> frames;
    for (const PointF& d : truth)
        frames.push_back(periodicTexture(d));
    SrFloatRegistration1 reg(160, 120, 5);
    const Registered r = registerAll(reg, frames, 0);
    for (size_t i = 0; i < truth.size(); ++i) {
        EXPECT_NEAR(truth[i].x, r.complete[i].x, 0.03) << i;
        EXPECT_NEAR(truth[i].y, r.complete[i].y, 0.03) << i;
    }
}

TEST(SrFloatRegistration1, MaskDropsWhatDoesNotMatchTheReference)
{
    // Frame 1 carries a warm object that the reference lacks, at frame
    // coordinates (100..129, 30..59); the mask lives on the reference grid
    // of the cut frame, so the object appears there moved back by the
    // frame's whole-pixel shift.
    std::vector<cv::Mat_<float>> frames = framesOf({PointF(0.0f, 0.0f), PointF(5.1f, -3.9f)});
    frames[1](cv::Rect(100, 30, 30, 30)).setTo(1500.0f);
    SrFloatRegistration1 reg(160, 120, 2);
    const Registered r = registerAll(reg, frames, 0);
    // The object pulls the least-squares step a little; the whole-pixel part stays right.
    ASSERT_EQ(5, roundHalfUp(r.complete[1].x));
    ASSERT_EQ(-4, roundHalfUp(r.complete[1].y));
    const cv::Rect object(100 - 5, 30 + 4, 30, 30);
    const cv::Rect inner(object.x + 3, object.y + 3, object.width - 6, object.height - 6);
    const cv::Rect wide(object.x - 12, object.y - 12, object.width + 24, object.height + 24);
    size_t droppedInside = 0, keptOutside = 0, outside = 0;
    for (int y = 0; y < 120; ++y)
        for (int x = 0; x < 160; ++x) {
            const char m = r.masks[1][size_t(y) * 160 + x];
            droppedInside += inner.contains({x, y}) && m == 0;
            const bool far = !wide.contains({x, y}) && hasData(x, y, kSize, r.complete[1]);
            outside += far;
            keptOutside += far && m == 1;
        }
    EXPECT_EQ(size_t(inner.area()), droppedInside);
    EXPECT_GT(double(keptOutside) / double(outside), 0.97);
}

TEST(SrFloatRegistration1, RegErrorSetsHowMuchResidualAPixelMayHave)
{
    std::vector<cv::Mat_<float>> frames = framesOf({{0.0f, 0.0f}, {1.4f, -2.45f}}, 2.0);
    double previous = 0.0;
    for (const float regError : {1e-9f, 1e-7f, 1e-5f, 1e-4f, 1.0f}) {
        SrFloatRegistration1 reg(160, 120, 2);
        reg.setRegError(regError);
        const Registered r = registerAll(reg, frames, 0);
        const double kept = keptShareOfData(r.masks[1], kSize, r.complete[1]);
        EXPECT_GE(kept, previous) << regError;
        previous = kept;
        EXPECT_TRUE(regError != 1e-9f || kept < 0.05) << kept;
        EXPECT_TRUE(regError != 1e-4f || kept > 0.99) << kept;  // the default keeps a well registered frame
        EXPECT_TRUE(regError != 1.0f || kept == 1.0) << kept;
    }
}

TEST(SrFloatRegistration1, ShiftsReachingHalfTheHeightThrowInEitherAxisAndPeaksWrap)
{
    // Whole-pixel circular moves put the correlation peak exactly on the
    // move; the bound is 120 / 2 = 60 for both axes although the frame is 160 wide.
    const cv::Mat_<float> reference = framesOf({PointF()})[0];
    for (const cv::Point move : {cv::Point(70, 0), cv::Point(-70, 0), cv::Point(0, 60), cv::Point(59, 0), cv::Point(0, -59)}) {
        SCOPED_TRACE(testing::Message() << move);
        cv::Mat_<float> moved(reference.size());
        for (int y = 0; y < 120; ++y)
            for (int x = 0; x < 160; ++x)
                moved((y + move.y + 120) % 120, (x + move.x + 160) % 160) = reference(y, x);
        std::vector<cv::Mat_<float>> frames = {reference.clone(), moved};
        SrFloatRegistration1 reg(160, 120, 2);
        for (cv::Mat_<float>& f : frames)
            reg.prepareFrame(f.ptr<float>());
        Registered r(frames);
        const bool tooLarge = std::abs(move.x) >= 60 || std::abs(move.y) >= 60;
        try {
            EXPECT_EQ(0, r.run(reg, 0));
            EXPECT_FALSE(tooLarge) << "no throw";
        } catch (const Exception& e) {
            EXPECT_TRUE(tooLarge);
            EXPECT_STREQ("Too large displacement", e.what());
            EXPECT_NE(std::string::npos, e.where().find("modules/enhancement/superresolution/SrFloatRegistration1:"));
            EXPECT_NE(std::string::npos, e.where().find("velmor::kro::SrFloatRegistration1::doRegistration"));
            for (const cv::Mat_<float>& w : r.work)  // nothing was cut
                EXPECT_EQ(0, cv::countNonZero(w != -1.0f));
            reg.getCompleteShifts(r.complete);
        }
        EXPECT_NEAR(move.x, r.complete[1].x, 0.2);
        EXPECT_NEAR(move.y, r.complete[1].y, 0.2);
    }
    // Rows past height / 2 and columns past width / 2 wrap to negative shifts.
    const std::pair<int, cv::Point> peaks[] = {{0, {0, 0}},         {61 * 160, {0, -59}}, {60 * 160, {0, 60}}, {80, {80, 0}},
                                               {81, {-79, 0}}, {120 * 160 - 1, {-1, -1}}, {3 * 160 + 7, {7, 3}}};
    for (const auto& [index, expected] : peaks) {
        const PointI p = SrFloatRegistration1Peer::unwrapPeak(index, 160, 120);
        EXPECT_EQ(expected, cv::Point(p.x, p.y)) << "peak index " << index;
    }
}

TEST(SrFloatRegistration1, StructurelessFramesAreLeftUnregistered)
{
    // No gradient (a constant scene) or gradients in one direction only
    // (vertical stripes): the sub-pixel step is undetermined, so the frame
    // keeps its integer shift and an empty mask instead of a made-up shift.
    cv::Mat_<float> stripes(120, 160);
    for (int x = 0; x < 160; ++x)
        stripes.col(x).setTo(float(1000.0 + 200.0 * std::sin(0.3 * x)));
    for (const cv::Mat_<float>& base : {cv::Mat_<float>(120, 160, 1500.0f), stripes}) {
        std::vector<cv::Mat_<float>> frames = {base.clone(), base.clone()};
        SrFloatRegistration1 reg(160, 120, 2);
        const Registered r = registerAll(reg, frames, 0);
        EXPECT_EQ(0.0f, r.complete[1].x);
        EXPECT_EQ(0.0f, r.complete[1].y);
        EXPECT_EQ(std::vector<char>(160 * 120, 0), r.masks[1]);
        EXPECT_EQ(std::vector<char>(160 * 120, 1), r.masks[0]);
    }
}

TEST(SrFloatRegistration1, RealThermalFramesGiveTheSameBitsWhateverTheThreadCount)
{
    // Raw 16-bit counts (73..5331) at 640x512, where the passes share their
    // rows among threads; the error threshold is scale-free, so the masks
    // keep nearly every pixel with data at these intensities too.
    cv::Mat_<float> scene;
    cv::imread(std::string(KROLIB_SOURCE_DIR) + "/data/thermal/crosswalk_640x512_u16.png", cv::IMREAD_UNCHANGED)
        .convertTo(scene, CV_32F);
    ASSERT_EQ(640, scene.cols);
    const std::vector<PointF> shifts = {{0.0f, 0.0f}, {0.3f, -0.2f}, {-2.6f, 1.45f}, {4.1f, 3.7f}};
    std::vector<Registered> runs;
    const std::vector<cv::Mat_<float>> frames = krotest::makeShiftedFrames(scene, 1, shifts, 0.4, 8.0, 3);
    for (const int threads : {1, 2, 7}) {
        SrFloatRegistration1 reg(640, 512, 4);
        EXPECT_TRUE(reg.setThreads(threads));
        std::vector<cv::Mat_<float>> copies;
        for (const auto& f : frames)
            copies.push_back(f.clone());
        runs.push_back(registerAll(reg, copies, 0));
        // 640x512 is worth every thread asked for.
        EXPECT_EQ(reg.getLastThreadCount(), threads);
    }
    for (size_t i = 0; i < shifts.size(); ++i) {
        for (size_t run = 1; run < runs.size(); ++run) {
            EXPECT_EQ(runs[0].complete[i].x, runs[run].complete[i].x) << i;
            EXPECT_EQ(runs[0].complete[i].y, runs[run].complete[i].y) << i;
            EXPECT_EQ(runs[0].masks[i], runs[run].masks[i]) << i;
            EXPECT_IMAGES_EQUAL(runs[0].work[i], runs[run].work[i]);
        }
        // The frame maker's own interpolation at unit scale is off by a few
        // hundredths of a pixel, hence the looser bound here.
        EXPECT_NEAR(shifts[i].x, runs[0].complete[i].x, 0.1) << i;
        EXPECT_NEAR(shifts[i].y, runs[0].complete[i].y, 0.1) << i;
        EXPECT_GT(keptShareOfData(runs[0].masks[i], cv::Size(640, 512), runs[0].complete[i]), 0.97) << i;
    }
}

TEST(SrFloatRegistration1, SpectraStayInStepWithTheFramesAndCopiesOwnTheirs)
{
    // A window of 3 slides over 7 frames; at every step frame i of the
    // window must be registered as itself, not as a frame that left.
    const std::vector<PointF> track = {{0.0f, 0.0f}, {1.2f, -0.4f}, {2.5f, -1.1f}, {3.1f, 0.6f},
                                       {1.7f, 2.2f}, {-0.8f, 1.5f}, {-2.4f, -0.3f}};
    std::vector<cv::Mat_<float>> all = framesOf(track);
    const auto expectTrack = [&](const Registered& r, size_t first, size_t ref, const std::string& what) {
        for (size_t i = 0; i < r.complete.size(); ++i) {
            EXPECT_NEAR(track[first + i].x - track[ref].x, r.complete[i].x, 0.05) << what << " frame " << i;
            EXPECT_NEAR(track[first + i].y - track[ref].y, r.complete[i].y, 0.05) << what << " frame " << i;
        }
    };
    SrFloatRegistration1 reg(160, 120, 3);
    reg.setGaussRadius(4);
    reg.setRegErrBlurRadius(2);
    reg.setRegError(1e-7f);  // masks keep only part of a frame: the blur radius shows in them
    std::vector<cv::Mat_<float>> last(all.end() - 3, all.end());
    std::vector<Registered> lastRun;
    for (size_t k = 0; k < all.size(); ++k) {
        reg.prepareFrame(all[k].ptr<float>());
        EXPECT_EQ(int(std::min<size_t>(k + 1, 3)), reg.getFramesPrepared());
        std::vector<cv::Mat_<float>> window(all.begin() + long(std::max<size_t>(k, 2)) - 2, all.begin() + long(k) + 1);
        if (k >= 2) {
            lastRun.assign(1, registerAll(reg, window, 1, false));
            expectTrack(lastRun[0], k - 2, k - 1, "after " + std::to_string(k));
            // Once the ring has turned, it gives the bits of one filled with this window afresh.
            SrFloatRegistration1 fresh(reg);
            fresh.clearFrames();
            const Registered again = registerAll(fresh, window, 1);
            EXPECT_EQ(lastRun[0].masks, again.masks) << k;
            EXPECT_EQ(lastRun[0].complete[0].x, again.complete[0].x) << k;
            EXPECT_EQ(lastRun[0].complete[2].y, again.complete[2].y) << k;
        }
    }
    // The original moves on (after clearFrames its ring fills again from its
    // start); copies keep the spectra and settings they were made with.
    SrFloatRegistration1 copy(reg), assigned(160, 120, 3);
    assigned = reg;
    reg.clearFrames();
    EXPECT_EQ(0, reg.getFramesPrepared());
    std::vector<cv::Mat_<float>> two = {all[5], all[2]};
    const Registered r = registerAll(reg, two, 0);
    EXPECT_NEAR(track[2].x - track[5].x, r.complete[1].x, 0.05);
    EXPECT_NEAR(track[2].y - track[5].y, r.complete[1].y, 0.05);
    for (SrFloatRegistration1* other : {&copy, &assigned}) {
        const Registered again = registerAll(*other, last, 1, false);
        EXPECT_EQ(lastRun[0].masks, again.masks);
        for (size_t i = 0; i < 3; ++i) {
            EXPECT_EQ(lastRun[0].complete[i].x, again.complete[i].x) << i;
            EXPECT_EQ(lastRun[0].complete[i].y, again.complete[i].y) << i;
        }
    }
}

TEST(SrFloatRegistration1, RejectsBadArguments)
{
    EXPECT_THROW(SrFloatRegistration1(161, 120, 5), Exception);
    EXPECT_THROW(SrFloatRegistration1(10, 120, 5), Exception);
    EXPECT_THROW(SrFloatRegistration1(160, 11, 5), Exception);
    EXPECT_THROW(SrFloatRegistration1(160, 120, 0), Exception);

    SrFloatRegistration1 reg(160, 120, 3);
    EXPECT_THROW(reg.setGaussRadius(0), Exception);
    EXPECT_THROW(reg.setGaussRadius(60), Exception);  // 2 * 60 + 2 > 120
    EXPECT_EQ(5, reg.getGaussRadius());
    EXPECT_THROW(reg.setRegErrBlurRadius(-1), Exception);
    EXPECT_EQ(3, reg.getRegErrBlurRadius());
    EXPECT_THROW(reg.prepareFrame(nullptr), Exception);
    EXPECT_EQ(0, reg.getFramesPrepared());

    std::vector<cv::Mat_<float>> frames = framesOf({{0.0f, 0.0f}, {0.5f, 0.5f}});
    Registered r(frames);
    const auto call = [&](int count, int refPos, bool nullFrames = false, bool nullShifts = false) {
        return reg.doRegistration(count, refPos, nullFrames ? nullptr : r.framePtrs.data(),
                                  nullShifts ? nullptr : r.shifts.data(), r.maskPtrs.data(), r.workPtrs.data());
    };
    EXPECT_THROW(call(2, 0), Exception);  // nothing prepared
    for (cv::Mat_<float>& frame : frames)
        reg.prepareFrame(frame.ptr<float>());
    EXPECT_THROW(call(1, 0), Exception);  // out of step
    EXPECT_THROW(call(3, 0), Exception);
    EXPECT_THROW(call(2, -1), Exception);
    EXPECT_THROW(call(2, 2), Exception);
    EXPECT_THROW(call(2, 0, true), Exception);
    EXPECT_THROW(call(2, 0, false, true), Exception);
    r.workPtrs[1] = r.framePtrs[1];  // cutting in place would overwrite its own source
    EXPECT_THROW(call(2, 0), Exception);
    r.workPtrs[1] = r.work[1].ptr<float>();
    r.maskPtrs[1] = nullptr;
    EXPECT_THROW(call(2, 0), Exception);
    r.maskPtrs[1] = r.masks[1].data();
    EXPECT_EQ(0, call(2, 0));
}

} // namespace
} // namespace kro
} // namespace velmor
