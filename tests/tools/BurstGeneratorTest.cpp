#include <gtest/gtest.h>

#include <cmath>
#include <fstream>
#include <sstream>

#include <opencv2/imgproc.hpp>

#include "BurstGenerator.h"
#include "ShiftedFrames.h"
#include "TestImages.h"

namespace krotools {
namespace {

TEST(BurstGenerator, SameSettingsGiveTheSameBurstAndSeedsDiffer)
{
    const cv::Mat_<float> scene = proceduralScene(96, 128, 3);
    BurstSettings settings;
    const Burst a = generateBurst(scene, settings);
    const Burst b = generateBurst(scene, settings);
    ASSERT_EQ(5u, a.frames.size());
    for (int i = 0; i < 5; ++i) {
        EXPECT_IMAGES_EQUAL(a.frames[i], b.frames[i]);
        EXPECT_EQ(a.shifts[i].x, b.shifts[i].x);
    }
    settings.seed = 2;
    const Burst c = generateBurst(scene, settings);
    EXPECT_NE(a.shifts[0].x, c.shifts[0].x);
}

TEST(BurstGenerator, FramesAreIntegerCountsAtTheLowResolutionWithTheReferenceUnmoved)
{
    const cv::Mat_<float> scene = proceduralScene(101, 130, 4);  // odd rows are cropped
    BurstSettings settings;
    settings.maxShift = 0.75;
    const Burst burst = generateBurst(scene, settings);
    EXPECT_EQ(cv::Size(130, 100), burst.truth.size());
    for (std::size_t i = 0; i < burst.frames.size(); ++i) {
        EXPECT_EQ(cv::Size(65, 50), burst.frames[i].size());
        EXPECT_LE(std::fabs(burst.shifts[i].x), 0.75f);
        double minimum, maximum;
        cv::minMaxLoc(burst.frames[i], &minimum, &maximum);
        EXPECT_GE(minimum, 0.0);
        EXPECT_LE(maximum, 16383.0);
        cv::Mat rounded;
        burst.frames[i].convertTo(rounded, CV_32S);
        EXPECT_IMAGES_EQUAL(rounded, burst.frames[i]);
    }
    EXPECT_EQ(0.0f, burst.shifts[1].x);
    EXPECT_EQ(0.0f, burst.shifts[1].y);
}

TEST(BurstGenerator, NoiselessFramesFollowTheirShifts)
{
    // Without noise and quantisation, a frame equals the reference moved by
    // its shift, checked away from the borders with a bicubic move.
    const cv::Mat_<float> scene = proceduralScene(160, 160, 5);
    BurstSettings settings;
    settings.noise = 0.0;
    settings.bitDepth = 0;
    const Burst burst = generateBurst(scene, settings);
    const cv::Mat_<float>& reference = burst.frames[1];
    const cv::Rect inner(8, 8, reference.cols - 16, reference.rows - 16);
    for (int i = 0; i < 5; ++i) {
        const cv::Mat_<float> moved = krotest::shiftImage(reference, burst.shifts[i]);
        cv::Mat diff;
        cv::absdiff(moved(inner), burst.frames[i](inner), diff);
        const cv::Mat_<float> unmoved = reference(inner);
        cv::Mat before;
        cv::absdiff(unmoved, burst.frames[i](inner), before);
        // Moving the reference by the shift explains the frame far better
        // than not moving it (unless the shift is tiny).
        if (std::hypot(burst.shifts[i].x, burst.shifts[i].y) > 0.2) {
            EXPECT_LT(cv::mean(diff)[0], 0.25 * cv::mean(before)[0]) << i;
        }
    }
}

// A scene made of plane waves has frames that can be written down: moving
// the content by t turns cos(w.x + p) into cos(w.(x - t) + p), a Gaussian of
// sigma s multiplies it by exp(-s^2 |w|^2 / 2), and a low-resolution pixel is
// the mean of the result over its factor x factor block of scene pixels. The
// frames must match that computation away from the borders (where the
// generator reflects the scene).
struct PlaneWave {
    double amplitude, wx, wy, phase;  // amplitude * cos(wx x + wy y + phase), x, y in scene pixels
};

double waveFrameValue(const std::vector<PlaneWave>& waves, double offset, int factor, double sigma,
                      velmor::kro::PointF shift, int lowX, int lowY)
{
    double value = offset;
    for (const PlaneWave& w : waves) {
        // Mean over the block's pixels, written as a sum: the block of
        // (lowX, lowY) holds scene pixels factor*lowX + k, factor*lowY + l.
        double blockMean = 0.0;
        for (int l = 0; l < factor; ++l)
            for (int k = 0; k < factor; ++k) {
                const double x = factor * lowX + k - shift.x * factor;
                const double y = factor * lowY + l - shift.y * factor;
                blockMean += std::cos(w.wx * x + w.wy * y + w.phase);
            }
        blockMean /= factor * factor;
        const double s = sigma * factor;
        value += w.amplitude * std::exp(-0.5 * s * s * (w.wx * w.wx + w.wy * w.wy)) * blockMean;
    }
    return value;
}

TEST(BurstGenerator, FramesOfPlaneWavesMatchTheirClosedForm)
{
    const double pi = std::acos(-1.0);
    const std::vector<PlaneWave> waves = {{1000.0, 2 * pi / 16, 2 * pi / 40, 0.3},
                                          {600.0, -2 * pi / 50, 2 * pi / 12, 1.1}};
    const double offset = 5000.0;
    cv::Mat_<float> scene(160, 192);
    for (int y = 0; y < scene.rows; ++y)
        for (int x = 0; x < scene.cols; ++x) {
            double v = offset;
            for (const PlaneWave& w : waves)
                v += w.amplitude * std::cos(w.wx * x + w.wy * y + w.phase);
            scene(y, x) = static_cast<float>(v);
        }

    for (int factor : {2, 3}) {
        for (double sigma : {0.0, 0.683}) {
            BurstSettings settings;
            settings.factor = factor;
            settings.psfSigma = sigma;
            settings.noise = 0.0;
            settings.bitDepth = 0;
            settings.maxShift = 1.0;
            settings.seed = 21;
            const Burst burst = generateBurst(scene, settings);
            const int margin = 30 / factor + 1;
            double worst = 0.0;
            for (int i = 0; i < settings.frames; ++i) {
                const cv::Mat_<float>& frame = burst.frames[i];
                for (int y = margin; y < frame.rows - margin; ++y)
                    for (int x = margin; x < frame.cols - margin; ++x) {
                        const double expected =
                            waveFrameValue(waves, offset, factor, sigma, burst.shifts[i], x, y);
                        worst = std::max(worst, std::fabs(frame(y, x) - expected));
                    }
            }
            // The generator moves the scene with an 8-tap kernel at positions
            // rounded to 1/32 pixel, which puts the moved waves off by up to
            // about 1 % of their amplitude (1600). A shift of the wrong sign,
            // a blur in scene instead of low-resolution pixels or a block grid
            // one pixel off is wrong by 200 counts or more.
            EXPECT_LT(worst, 24.0) << "factor " << factor << ", sigma " << sigma;
        }
    }
}

TEST(BurstGenerator, UnshiftedSharpFramesAreTheBlockMeansOfTheScene)
{
    const cv::Mat_<float> scene = proceduralScene(60, 84, 9);
    BurstSettings settings;
    settings.maxShift = 0.0;
    settings.psfSigma = 0.0;
    settings.noise = 0.0;
    settings.bitDepth = 0;
    const Burst burst = generateBurst(scene, settings);
    for (const cv::Mat_<float>& frame : burst.frames) {
        ASSERT_EQ(cv::Size(42, 30), frame.size());
        for (int y = 0; y < frame.rows; ++y)
            for (int x = 0; x < frame.cols; ++x) {
                const double mean = (static_cast<double>(scene(2 * y, 2 * x)) + scene(2 * y, 2 * x + 1) +
                                     scene(2 * y + 1, 2 * x) + scene(2 * y + 1, 2 * x + 1)) / 4.0;
                ASSERT_NEAR(mean, frame(y, x), 1e-3 * std::fabs(mean)) << x << ", " << y;
            }
    }
}

TEST(BurstGenerator, NoiseHasTheRequestedSpreadAndLeavesTheShiftsAlone)
{
    const cv::Mat_<float> scene = proceduralScene(200, 240, 10);
    BurstSettings settings;
    settings.bitDepth = 0;
    settings.noise = 0.0;
    const Burst clean = generateBurst(scene, settings);
    settings.noise = 32.0;
    const Burst noisy = generateBurst(scene, settings);
    for (int i = 0; i < settings.frames; ++i) {
        EXPECT_EQ(clean.shifts[i].x, noisy.shifts[i].x);
        EXPECT_EQ(clean.shifts[i].y, noisy.shifts[i].y);
        cv::Scalar mean, stddev;
        cv::meanStdDev(noisy.frames[i] - clean.frames[i], mean, stddev);
        // 12000 samples: the spread is known to about 1 %.
        EXPECT_NEAR(32.0, stddev[0], 1.5) << i;
        EXPECT_NEAR(0.0, mean[0], 1.5) << i;
    }
}

TEST(BurstGenerator, WritesRawStreamsAndAJsonDescription)
{
    krotest::TempDir dir;
    const Burst burst = generateBurst(proceduralScene(40, 48, 6), BurstSettings());
    const std::string json = writeBurst(burst, dir.path(), "burst");
    std::ifstream in(json);
    std::stringstream text;
    text << in.rdbuf();
    EXPECT_NE(std::string::npos, text.str().find("\"frames_file\": \"burst_frames_24x20x5_f32.raw\""));
    EXPECT_NE(std::string::npos, text.str().find("\"seed\": 1"));
    std::ifstream frames(dir.file("burst_frames_24x20x5_f32.raw"), std::ios::binary | std::ios::ate);
    EXPECT_EQ(24 * 20 * 5 * 4, static_cast<int>(frames.tellg()));
    std::ifstream truth(dir.file("burst_truth_48x40_f32.raw"), std::ios::binary | std::ios::ate);
    EXPECT_EQ(48 * 40 * 4, static_cast<int>(truth.tellg()));
    EXPECT_THROW(writeBurst(burst, dir.file("missing"), "x"), std::runtime_error);
}

TEST(BurstGenerator, BadSettingsAreRefused)
{
    const cv::Mat_<float> scene = proceduralScene(20, 20, 7);
    BurstSettings settings;
    settings.referencePosition = 5;
    EXPECT_THROW(generateBurst(scene, settings), std::invalid_argument);
    settings = BurstSettings();
    settings.factor = 16;
    EXPECT_THROW(generateBurst(scene, settings), std::invalid_argument);
}

} // namespace
} // namespace krotools
