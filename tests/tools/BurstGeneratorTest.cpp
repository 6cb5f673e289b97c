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
