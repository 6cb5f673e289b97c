#include <gtest/gtest.h>

#include <cmath>

#include "BurstGenerator.h"
#include "QualityMetrics.h"
#include "ShiftedFrames.h"

namespace krotools {
namespace {

TEST(QualityMetrics, PsnrAndSsimOfKnownDifferences)
{
    cv::Mat_<float> truth(20, 20, 100.0f);
    cv::Mat_<float> image = truth + 10.0f;  // every pixel off by 10
    // peak 1000: 10 log10(1000^2 / 100) = 40 dB
    EXPECT_NEAR(40.0, psnr(truth, image, 1000.0, 2), 1e-9);
    EXPECT_TRUE(std::isinf(psnr(truth, truth, 1000.0, 0)));
    const cv::Mat_<float> scene = proceduralScene(64, 64, 1);
    EXPECT_NEAR(1.0, ssim(scene, scene, 16383.0, 4), 1e-12);
    cv::Mat_<float> noisy = scene.clone();
    cv::Mat_<float> noise(scene.size());
    cv::randn(noise, 0.0, 300.0);
    noisy += noise;
    const double noisySsim = ssim(scene, noisy, 16383.0, 4);
    EXPECT_LT(noisySsim, 0.95);
    EXPECT_GT(noisySsim, 0.0);
    // The border is left out: a change there does not count.
    image = truth.clone();
    image(0, 0) = 0.0f;
    EXPECT_TRUE(std::isinf(psnr(truth, image, 1000.0, 1)));
    EXPECT_THROW(psnr(truth, image, 1000.0, 10), std::invalid_argument);
}

TEST(QualityMetrics, AlignmentFindsAndRemovesADeliberateShift)
{
    const cv::Mat_<float> truth = proceduralScene(128, 160, 2);
    const velmor::kro::PointF shift(0.5f, -0.25f);
    const cv::Mat_<float> moved = krotest::shiftImage(truth, shift);
    const cv::Point2d offset = estimateOffset(truth, moved, 16);
    EXPECT_NEAR(0.5, offset.x, 0.05);
    EXPECT_NEAR(-0.25, offset.y, 0.05);

    const Quality raw{psnr(truth, moved, 16383.0, 16), 0.0, {}};
    const Quality aligned = measureQuality(truth, moved, 16, 16383.0);
    EXPECT_GT(aligned.psnr, raw.psnr + 6.0) << "raw " << raw.psnr << " dB, aligned " << aligned.psnr << " dB";
    EXPECT_NEAR(0.5, aligned.offset.x, 0.05);
}

TEST(QualityMetrics, AnImplausibleOffsetIsNotApplied)
{
    const cv::Mat_<float> truth = proceduralScene(96, 96, 3);
    const cv::Mat_<float> far = krotest::shiftImage(truth, velmor::kro::PointF(6.0f, 0.0f));
    const Quality quality = measureQuality(truth, far, 16, 0.0, 2.0);
    EXPECT_EQ(0.0, quality.offset.x);
    EXPECT_EQ(0.0, quality.offset.y);
}

} // namespace
} // namespace krotools
