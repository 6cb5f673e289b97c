#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include <omp.h>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include "Exception.h"
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

// What one registration hands back.
struct Registered {
    std::vector<PointF> shifts;    // sub-pixel remainders
    std::vector<PointF> complete;  // complete shifts
    std::vector<std::vector<char>> masks;
    std::vector<cv::Mat_<float>> work;
};

// Pointer lists for doRegistration over caller-owned buffers.
struct Buffers {
    Buffers(std::vector<cv::Mat_<float>>& frames, Registered& out)
    {
        const size_t size = frames[0].total();
        out.shifts.assign(frames.size(), PointF(-99.0f, -99.0f));
        out.masks.assign(frames.size(), std::vector<char>(size, 7));
        out.work.clear();
        for (size_t i = 0; i < frames.size(); ++i) {
            out.work.emplace_back(frames[i].size(), -1.0f);
            framePtrs.push_back(frames[i].ptr<float>());
            workPtrs.push_back(out.work.back().ptr<float>());
            maskPtrs.push_back(out.masks[i].data());
        }
    }
    std::vector<float*> framePtrs, workPtrs;
    std::vector<char*> maskPtrs;
};

// Runs doRegistration on `frames` (all prepared beforehand).
Registered registerAll(SrFloatRegistration1& reg, std::vector<cv::Mat_<float>>& frames, int refPos)
{
    Registered out;
    Buffers b(frames, out);
    EXPECT_EQ(0, reg.doRegistration(static_cast<int>(frames.size()), refPos, b.framePtrs.data(),
                                    out.shifts.data(), b.maskPtrs.data(), b.workPtrs.data()));
    reg.getCompleteShifts(out.complete);
    return out;
}

Registered prepareAndRegister(SrFloatRegistration1& reg, std::vector<cv::Mat_<float>>& frames, int refPos)
{
    for (cv::Mat_<float>& f : frames)
        reg.prepareFrame(f.ptr<float>());
    return registerAll(reg, frames, refPos);
}

int roundHalfUp(float v)
{
    return static_cast<int>(std::floor(v + 0.5f));
}

// The pixels of a work frame that the cut by `shift` fills with data.
bool hasData(int x, int y, int width, int height, PointF shift)
{
    const int sx = x + roundHalfUp(shift.x);
    const int sy = y + roundHalfUp(shift.y);
    return sx >= 0 && sx < width && sy >= 0 && sy < height;
}

// Share of the pixels with data that the mask keeps; fails if the mask keeps
// a pixel without data or holds anything but 0 and 1.
double keptShareOfData(const std::vector<char>& mask, int width, int height, PointF complete)
{
    size_t data = 0, kept = 0;
    for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width; ++x) {
            const char m = mask[size_t(y) * width + x];
            EXPECT_TRUE(m == 0 || m == 1) << "mask value " << int(m) << " at " << x << "," << y;
            if (hasData(x, y, width, height, complete)) {
                ++data;
                kept += m == 1;
            } else if (m != 0) {
                ADD_FAILURE() << "mask keeps " << x << "," << y << " where the cut has no data";
                return 0.0;
            }
        }
    }
    return double(kept) / double(data);
}

// The frame moved circularly by whole pixels: out(x, y) = in(x - dx, y - dy).
cv::Mat_<float> roll(const cv::Mat_<float>& in, int dx, int dy)
{
    cv::Mat_<float> out(in.size());
    for (int y = 0; y < in.rows; ++y)
        for (int x = 0; x < in.cols; ++x)
            out((y + dy + in.rows) % in.rows, (x + dx + in.cols) % in.cols) = in(y, x);
    return out;
}

cv::Mat_<float> crosswalk()
{
    const std::string path = std::string(KROLIB_SOURCE_DIR) + "/data/thermal/crosswalk_640x512_u16.png";
    const cv::Mat raw = cv::imread(path, cv::IMREAD_UNCHANGED);
    cv::Mat_<float> image;
    raw.convertTo(image, CV_32F);
    return image;
}

// A scene four times finer than the frames: the frame maker's sub-pixel
// interpolation then errs by well under 0.02 low-resolution pixel.
constexpr int kFactor = 4;

cv::Mat_<float> fineScene(int width, int height, std::uint64_t seed = 11)
{
    return krotest::texturedScene(height * kFactor, width * kFactor, seed);
}

std::vector<cv::Mat_<float>> framesOf(const cv::Mat_<float>& scene, const std::vector<PointF>& shifts,
                                      double noise = 0.0)
{
    return krotest::makeShiftedFrames(scene, kFactor, shifts, 0.3, noise, 5);
}

const std::vector<PointF> kTruth = {{0.0f, 0.0f},    {0.3f, -0.2f},  {-1.45f, 2.7f}, {3.0f, -2.0f},
                                    {-4.6f, -3.35f}, {5.25f, 0.5f},  {-0.5f, -6.8f}, {2.49f, 4.51f},
                                    {-7.2f, 0.0f}};

TEST(SrFloatRegistration1, RecoversKnownShiftsToATwentiethOfAPixel)
{
    const cv::Mat_<float> scene = fineScene(160, 120);
    for (const int gaussRadius : {5, 3}) {
        std::vector<cv::Mat_<float>> frames = framesOf(scene, kTruth);
        SrFloatRegistration1 reg(160, 120, static_cast<int>(kTruth.size()));
        reg.setGaussRadius(gaussRadius);
        const Registered r = prepareAndRegister(reg, frames, 0);
        ASSERT_EQ(kTruth.size(), r.complete.size());
        for (size_t i = 0; i < kTruth.size(); ++i) {
            EXPECT_NEAR(kTruth[i].x, r.complete[i].x, 0.05) << "radius " << gaussRadius << " frame " << i;
            EXPECT_NEAR(kTruth[i].y, r.complete[i].y, 0.05) << "radius " << gaussRadius << " frame " << i;
            // The caller's list holds what the cut leaves of the complete shift.
            EXPECT_FLOAT_EQ(r.complete[i].x - float(roundHalfUp(r.complete[i].x)), r.shifts[i].x);
            EXPECT_FLOAT_EQ(r.complete[i].y - float(roundHalfUp(r.complete[i].y)), r.shifts[i].y);
        }
    }
}

// A smooth random texture that is periodic in the frame, moved by exactly
// `d` (frame(x) = texture(x - d)) through the phase of its spectrum.
cv::Mat_<float> periodicTexture(int width, int height, PointF d)
{
    const cv::Mat_<float> noise = krotest::randomImage(height, width, CV_32F, -1.0, 1.0, 21);
    cv::Mat spectrum;
    cv::dft(noise, spectrum, cv::DFT_COMPLEX_OUTPUT);
    const double sigma = 1.5;
    for (int v = 0; v < height; ++v) {
        for (int u = 0; u < width; ++u) {
            // Signed frequencies in cycles per pixel; the Nyquist bins are
            // dropped so that the moved texture stays real.
            const double fu = (u <= width / 2 ? u : u - width) / double(width);
            const double fv = (v <= height / 2 ? v : v - height) / double(height);
            cv::Vec2f& bin = spectrum.at<cv::Vec2f>(v, u);
            if (2 * u == width || 2 * v == height) {
                bin = cv::Vec2f(0.0f, 0.0f);
                continue;
            }
            const double w = 2.0 * CV_PI;
            const double gain = std::exp(-0.5 * sigma * sigma * w * w * (fu * fu + fv * fv));
            const double phase = -w * (fu * d.x + fv * d.y);
            const double re = bin[0] * gain, im = bin[1] * gain;
            bin = cv::Vec2f(float(re * std::cos(phase) - im * std::sin(phase)),
                            float(re * std::sin(phase) + im * std::cos(phase)));
        }
    }
    cv::Mat_<float> texture;
    cv::idft(spectrum, texture, cv::DFT_REAL_OUTPUT | cv::DFT_SCALE);
    return texture * 4000.0f + 2000.0f;
}

// Exactly moved periodic textures leave only the error of the method
// itself (the frame maker's interpolation is not involved): the central
// differences of the gradient make the step overestimate the sub-pixel
// remainder (at most 0.5) by a few per cent.
TEST(SrFloatRegistration1, SubPixelStepIsAccurateOnExactlyShiftedTextures)
{
    const std::vector<PointF> truth = {{0.0f, 0.0f}, {0.3f, -0.2f}, {-0.45f, 0.35f}, {2.6f, -1.5f}, {-6.49f, 4.2f}};
    std::vector<cv::Mat_<float>> frames;
    for (const PointF& d : truth)
        frames.push_back(periodicTexture(160, 120, d));
    SrFloatRegistration1 reg(160, 120, 5);
    const Registered r = prepareAndRegister(reg, frames, 0);
    for (size_t i = 0; i < truth.size(); ++i) {
        EXPECT_NEAR(truth[i].x, r.complete[i].x, 0.03) << i;
        EXPECT_NEAR(truth[i].y, r.complete[i].y, 0.03) << i;
    }
}

TEST(SrFloatRegistration1, CutFramesLineUpWithTheReferenceOverTheirMasks)
{
    const cv::Mat_<float> scene = fineScene(160, 120);
    std::vector<cv::Mat_<float>> frames = framesOf(scene, kTruth);
    SrFloatRegistration1 reg(160, 120, static_cast<int>(kTruth.size()));
    const Registered r = prepareAndRegister(reg, frames, 0);
    for (size_t i = 0; i < kTruth.size(); ++i) {
        // What the scene gives at the shift that the cut leaves: the work
        // frame must equal it wherever its mask is 1. (The frame maker blurs
        // with a border reflected at each frame's own edge, so the outer two
        // rows and columns of both frames are left out.)
        const int rx = roundHalfUp(r.complete[i].x), ry = roundHalfUp(r.complete[i].y);
        const cv::Mat_<float> expected =
            framesOf(scene, {PointF(kTruth[i].x - float(rx), kTruth[i].y - float(ry))})[0];
        const cv::Rect inner(2, 2, 160 - 4, 120 - 4);
        double worst = 0.0;
        for (int y = 0; y < 120; ++y)
            for (int x = 0; x < 160; ++x)
                if (r.masks[i][size_t(y) * 160 + x] == 1 && inner.contains(cv::Point(x, y)) &&
                    inner.contains(cv::Point(x + rx, y + ry)))
                    worst = std::max(worst, double(std::abs(r.work[i](y, x) - expected(y, x))));
        EXPECT_LT(worst, 1e-2) << "frame " << i;
        // The mask is 0 where the cut has no data and keeps nearly all the rest.
        EXPECT_GT(keptShareOfData(r.masks[i], 160, 120, r.complete[i]), 0.95) << "frame " << i;
    }
    // The reference is used whole and cut by nothing.
    EXPECT_EQ(std::vector<char>(160 * 120, 1), r.masks[0]);
    EXPECT_IMAGES_EQUAL(frames[0], r.work[0]);
}

TEST(SrFloatRegistration1, MaskDropsWhatDoesNotMatchTheReference)
{
    // Frame 1 carries a warm object that the reference lacks, at frame
    // coordinates (100..129, 30..59); the mask lives on the reference grid
    // of the cut frame, so the object appears there moved back by the
    // frame's whole-pixel shift.
    const PointF shift(5.1f, -3.9f);
    std::vector<cv::Mat_<float>> frames = framesOf(fineScene(160, 120), {PointF(0.0f, 0.0f), shift});
    frames[1](cv::Rect(100, 30, 30, 30)).setTo(1500.0f);
    SrFloatRegistration1 reg(160, 120, 2);
    const Registered r = prepareAndRegister(reg, frames, 0);
    // The object pulls the least-squares step a little; the whole-pixel
    // part stays right.
    ASSERT_EQ(5, roundHalfUp(r.complete[1].x));
    ASSERT_EQ(-4, roundHalfUp(r.complete[1].y));
    const cv::Rect object(100 - 5, 30 + 4, 30, 30);
    const cv::Rect inner(object.x + 3, object.y + 3, object.width - 6, object.height - 6);
    const cv::Rect wide(object.x - 12, object.y - 12, object.width + 24, object.height + 24);
    size_t droppedInside = 0, keptOutside = 0, outside = 0;
    for (int y = 0; y < 120; ++y) {
        for (int x = 0; x < 160; ++x) {
            const char m = r.masks[1][size_t(y) * 160 + x];
            if (inner.contains(cv::Point(x, y))) {
                droppedInside += m == 0;
            } else if (!wide.contains(cv::Point(x, y)) && hasData(x, y, 160, 120, r.complete[1])) {
                ++outside;
                keptOutside += m == 1;
            }
        }
    }
    EXPECT_EQ(size_t(inner.area()), droppedInside);
    EXPECT_GT(double(keptOutside) / double(outside), 0.97);
}

TEST(SrFloatRegistration1, RegErrorSetsHowMuchResidualAPixelMayHave)
{
    std::vector<cv::Mat_<float>> frames = framesOf(fineScene(160, 120), {{0.0f, 0.0f}, {1.4f, -2.45f}}, 2.0);
    double previous = 0.0;
    for (const float regError : {1e-9f, 1e-7f, 1e-5f, 1e-4f, 1.0f}) {
        SrFloatRegistration1 reg(160, 120, 2);
        reg.setRegError(regError);
        const Registered r = prepareAndRegister(reg, frames, 0);
        const double kept = keptShareOfData(r.masks[1], 160, 120, r.complete[1]);
        EXPECT_GE(kept, previous) << regError;
        previous = kept;
        if (regError == 1e-9f) {
            EXPECT_LT(kept, 0.05);
        } else if (regError == 1e-4f) {
            EXPECT_GT(kept, 0.99);  // the default keeps a well registered frame
        } else if (regError == 1.0f) {
            EXPECT_EQ(1.0, kept);
        }
    }
}

TEST(SrFloatRegistration1, IdenticalFramesGiveZeroShiftsAndFullMasks)
{
    const cv::Mat_<float> frame = framesOf(fineScene(160, 120), {PointF()})[0];
    std::vector<cv::Mat_<float>> frames = {frame.clone(), frame.clone(), frame.clone()};
    SrFloatRegistration1 reg(160, 120, 3);
    const Registered r = prepareAndRegister(reg, frames, 1);
    for (size_t i = 0; i < frames.size(); ++i) {
        EXPECT_EQ(0.0f, r.complete[i].x) << i;
        EXPECT_EQ(0.0f, r.complete[i].y) << i;
        EXPECT_EQ(0.0f, r.shifts[i].x) << i;
        EXPECT_EQ(0.0f, r.shifts[i].y) << i;
        EXPECT_EQ(std::vector<char>(160 * 120, 1), r.masks[i]) << i;
        EXPECT_IMAGES_EQUAL(frame, r.work[i]);
    }
}

TEST(SrFloatRegistration1, ShiftsReachingHalfTheHeightThrowInEitherAxis)
{
    // Whole-pixel circular moves put the correlation peak exactly on the
    // move; the bound is 120 / 2 = 60 for both axes although the frame is
    // 160 wide.
    const cv::Mat_<float> reference = framesOf(fineScene(160, 120), {PointF()})[0];
    struct Case {
        int dx, dy;
        bool throws;
    };
    for (const Case c : {Case{70, 0, true}, Case{-70, 0, true}, Case{0, 60, true}, Case{59, 0, false},
                         Case{0, -59, false}}) {
        std::vector<cv::Mat_<float>> frames = {reference.clone(), roll(reference, c.dx, c.dy)};
        SrFloatRegistration1 reg(160, 120, 2);
        for (cv::Mat_<float>& f : frames)
            reg.prepareFrame(f.ptr<float>());
        Registered r;
        Buffers b(frames, r);
        if (c.throws) {
            try {
                reg.doRegistration(2, 0, b.framePtrs.data(), r.shifts.data(), b.maskPtrs.data(), b.workPtrs.data());
                ADD_FAILURE() << "no throw for " << c.dx << "," << c.dy;
            } catch (const Exception& e) {
                EXPECT_STREQ("Too large displacement", e.what());
                EXPECT_NE(std::string::npos, std::string(e.where()).find(
                                                 "velmor::kro::SrFloatRegistration1::doRegistration"))
                    << e.where();
                EXPECT_NE(std::string::npos,
                          std::string(e.where()).find("modules/enhancement/superresolution/SrFloatRegistration1"))
                    << e.where();
            }
            // Nothing was cut.
            for (const cv::Mat_<float>& w : r.work)
                EXPECT_EQ(0, cv::countNonZero(w != -1.0f));
        } else {
            EXPECT_EQ(0, reg.doRegistration(2, 0, b.framePtrs.data(), r.shifts.data(), b.maskPtrs.data(),
                                            b.workPtrs.data()));
        }
        reg.getCompleteShifts(r.complete);
        EXPECT_NEAR(c.dx, r.complete[1].x, 0.2) << c.dx << "," << c.dy;
        EXPECT_NEAR(c.dy, r.complete[1].y, 0.2) << c.dx << "," << c.dy;
    }
}

TEST(SrFloatRegistration1, CorrelationPeaksPastTheMiddleWrapToNegativeShifts)
{
    using Peer = SrFloatRegistration1Peer;
    auto expectShift = [](PointI expected, PointI actual) {
        EXPECT_EQ(expected.x, actual.x);
        EXPECT_EQ(expected.y, actual.y);
    };
    expectShift(PointI(0, 0), Peer::unwrapPeak(0, 160, 120));
    expectShift(PointI(0, -59), Peer::unwrapPeak(61 * 160, 160, 120));
    expectShift(PointI(0, 60), Peer::unwrapPeak(60 * 160, 160, 120));
    expectShift(PointI(80, 0), Peer::unwrapPeak(80, 160, 120));
    expectShift(PointI(-79, 0), Peer::unwrapPeak(81, 160, 120));
    expectShift(PointI(-1, -1), Peer::unwrapPeak(120 * 160 - 1, 160, 120));
    expectShift(PointI(7, 3), Peer::unwrapPeak(3 * 160 + 7, 160, 120));
}

TEST(SrFloatRegistration1, StructurelessFramesAreLeftUnregistered)
{
    // No gradient (a constant scene) or gradients in one direction only
    // (vertical stripes): the sub-pixel step is undetermined, so the frame
    // keeps its integer shift and an empty mask instead of a made-up shift.
    cv::Mat_<float> stripes(120, 160);
    for (int y = 0; y < 120; ++y)
        for (int x = 0; x < 160; ++x)
            stripes(y, x) = float(1000.0 + 200.0 * std::sin(0.3 * x));
    for (const cv::Mat_<float>& base : {cv::Mat_<float>(120, 160, 1500.0f), stripes}) {
        std::vector<cv::Mat_<float>> frames = {base.clone(), base.clone()};
        SrFloatRegistration1 reg(160, 120, 2);
        const Registered r = prepareAndRegister(reg, frames, 0);
        EXPECT_EQ(0.0f, r.complete[1].x);
        EXPECT_EQ(0.0f, r.complete[1].y);
        EXPECT_EQ(std::vector<char>(160 * 120, 0), r.masks[1]);
        EXPECT_EQ(std::vector<char>(160 * 120, 1), r.masks[0]);
    }
}

TEST(SrFloatRegistration1, RealThermalFramesGiveTheSameBitsWithOneAndTwoThreads)
{
    // Raw 16-bit counts (73..5331) at 640x512, where the passes share their
    // rows among threads; the error threshold is scale-free, so the masks
    // keep nearly every pixel with data at these intensities too.
    const cv::Mat_<float> scene = crosswalk();
    ASSERT_EQ(640, scene.cols);
    const std::vector<PointF> shifts = {{0.0f, 0.0f}, {0.3f, -0.2f}, {-2.6f, 1.45f}, {4.1f, 3.7f}};
    const std::vector<cv::Mat_<float>> frames = krotest::makeShiftedFrames(scene, 1, shifts, 0.4, 8.0, 3);
    const int saved = omp_get_max_threads();
    std::vector<Registered> runs;
    for (const int threads : {1, 2}) {
        omp_set_num_threads(threads);
        std::vector<cv::Mat_<float>> copies;
        for (const cv::Mat_<float>& f : frames)
            copies.push_back(f.clone());
        SrFloatRegistration1 reg(640, 512, 4);
        runs.push_back(prepareAndRegister(reg, copies, 0));
    }
    omp_set_num_threads(saved);
    for (size_t i = 0; i < shifts.size(); ++i) {
        EXPECT_EQ(runs[0].complete[i].x, runs[1].complete[i].x) << i;
        EXPECT_EQ(runs[0].complete[i].y, runs[1].complete[i].y) << i;
        EXPECT_EQ(runs[0].masks[i], runs[1].masks[i]) << i;
        EXPECT_IMAGES_EQUAL(runs[0].work[i], runs[1].work[i]);
        // The frame maker's own interpolation at unit scale is off by a few
        // hundredths of a pixel, hence the looser bound here.
        EXPECT_NEAR(shifts[i].x, runs[0].complete[i].x, 0.1) << i;
        EXPECT_NEAR(shifts[i].y, runs[0].complete[i].y, 0.1) << i;
        EXPECT_GT(keptShareOfData(runs[0].masks[i], 640, 512, runs[0].complete[i]), 0.97) << i;
    }
}

TEST(SrFloatRegistration1, SpectraStayInStepWithTheFramesPastTheWindow)
{
    // A window of 3 slides over 7 frames; at every step frame i of the
    // window must be registered as itself, not as a frame that left.
    const std::vector<PointF> track = {{0.0f, 0.0f},  {1.2f, -0.4f}, {2.5f, -1.1f}, {3.1f, 0.6f},
                                       {1.7f, 2.2f},  {-0.8f, 1.5f}, {-2.4f, -0.3f}};
    std::vector<cv::Mat_<float>> all = framesOf(fineScene(160, 120), track);
    SrFloatRegistration1 reg(160, 120, 3);
    for (size_t k = 0; k < all.size(); ++k) {
        reg.prepareFrame(all[k].ptr<float>());
        EXPECT_EQ(int(std::min<size_t>(k + 1, 3)), reg.getFramesPrepared());
        if (k < 2)
            continue;
        std::vector<cv::Mat_<float>> window(all.begin() + long(k) - 2, all.begin() + long(k) + 1);
        const Registered r = registerAll(reg, window, 1);
        for (size_t i = 0; i < 3; ++i) {
            EXPECT_NEAR(track[k - 2 + i].x - track[k - 1].x, r.complete[i].x, 0.05) << k << "/" << i;
            EXPECT_NEAR(track[k - 2 + i].y - track[k - 1].y, r.complete[i].y, 0.05) << k << "/" << i;
        }
    }

    // After clearFrames the ring fills again from its start.
    reg.clearFrames();
    EXPECT_EQ(0, reg.getFramesPrepared());
    std::vector<cv::Mat_<float>> two = {all[5], all[2]};
    const Registered r = prepareAndRegister(reg, two, 0);
    EXPECT_NEAR(track[2].x - track[5].x, r.complete[1].x, 0.05);
    EXPECT_NEAR(track[2].y - track[5].y, r.complete[1].y, 0.05);
}

TEST(SrFloatRegistration1, CopiesOwnTheirBuffers)
{
    std::vector<cv::Mat_<float>> all = framesOf(fineScene(160, 120), {{0.0f, 0.0f}, {1.3f, 0.7f}, {-2.1f, 1.9f}, {0.6f, -3.3f}});
    std::vector<cv::Mat_<float>> first(all.begin(), all.begin() + 3);
    std::vector<cv::Mat_<float>> last(all.begin() + 1, all.end());

    SrFloatRegistration1 original(160, 120, 3);
    original.setGaussRadius(4);
    const Registered expectedFirst = prepareAndRegister(original, first, 0);

    SrFloatRegistration1 copy(original);
    SrFloatRegistration1 assigned(160, 120, 3);
    // The original moves on: its new spectrum must not reach the copy.
    original.prepareFrame(all[3].ptr<float>());
    const Registered fromCopy = registerAll(copy, first, 0);
    assigned = original;
    original.clearFrames();
    original.prepareFrame(all[0].ptr<float>());
    const Registered fromAssigned = registerAll(assigned, last, 0);
    for (size_t i = 0; i < 3; ++i) {
        EXPECT_EQ(expectedFirst.complete[i].x, fromCopy.complete[i].x) << i;
        EXPECT_EQ(expectedFirst.complete[i].y, fromCopy.complete[i].y) << i;
        EXPECT_EQ(expectedFirst.masks[i], fromCopy.masks[i]) << i;
    }
    EXPECT_EQ(4, assigned.getGaussRadius());
    EXPECT_NEAR(-2.1f - 1.3f, fromAssigned.complete[1].x, 0.05);
    EXPECT_NEAR(1.9f - 0.7f, fromAssigned.complete[1].y, 0.05);
    EXPECT_NEAR(0.6f - 1.3f, fromAssigned.complete[2].x, 0.05);
    EXPECT_NEAR(-3.3f - 0.7f, fromAssigned.complete[2].y, 0.05);
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

    std::vector<cv::Mat_<float>> frames = framesOf(fineScene(160, 120), {{0.0f, 0.0f}, {0.5f, 0.5f}});
    Registered r;
    Buffers b(frames, r);
    float** f = b.framePtrs.data();
    char** m = b.maskPtrs.data();
    float** w = b.workPtrs.data();
    EXPECT_THROW(reg.doRegistration(2, 0, f, r.shifts.data(), m, w), Exception);  // nothing prepared
    for (cv::Mat_<float>& frame : frames)
        reg.prepareFrame(frame.ptr<float>());
    EXPECT_THROW(reg.doRegistration(1, 0, f, r.shifts.data(), m, w), Exception);  // out of step
    EXPECT_THROW(reg.doRegistration(3, 0, f, r.shifts.data(), m, w), Exception);
    EXPECT_THROW(reg.doRegistration(2, -1, f, r.shifts.data(), m, w), Exception);
    EXPECT_THROW(reg.doRegistration(2, 2, f, r.shifts.data(), m, w), Exception);
    EXPECT_THROW(reg.doRegistration(2, 0, nullptr, r.shifts.data(), m, w), Exception);
    EXPECT_THROW(reg.doRegistration(2, 0, f, nullptr, m, w), Exception);
    b.workPtrs[1] = b.framePtrs[1];  // cutting in place would overwrite its own source
    EXPECT_THROW(reg.doRegistration(2, 0, f, r.shifts.data(), m, w), Exception);
    b.workPtrs[1] = r.work[1].ptr<float>();
    b.maskPtrs[1] = nullptr;
    EXPECT_THROW(reg.doRegistration(2, 0, f, r.shifts.data(), m, w), Exception);
    b.maskPtrs[1] = r.masks[1].data();
    EXPECT_EQ(0, reg.doRegistration(2, 0, f, r.shifts.data(), m, w));
}

} // namespace
} // namespace kro
} // namespace velmor
