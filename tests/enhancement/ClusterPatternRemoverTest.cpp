#include "ClusterPatternRemover.h"

#include <cmath>
#include <limits>
#include <string>

#include <gtest/gtest.h>
#include <opencv2/imgproc.hpp>

#include "Exception.h"
#include "TestImages.h"

namespace {

using velmor::kro::ClusterPatternRemover;

// One update of the damping map, as its definition reads.
void updateModel(cv::Mat_<float>& map, const cv::Mat_<float>& frame, const cv::Mat_<float>& stdDev,
                 ClusterPatternRemover::FILTERMODE mode, float stdLimit, float alpha, float meanLimit)
{
    cv::Mat_<float> smoothed;
    if (mode == ClusterPatternRemover::MEDIAN)
        cv::medianBlur(frame, smoothed, 3);
    else
        cv::GaussianBlur(frame, smoothed, cv::Size(3, 3), 0, 0);
    if (map.size() != frame.size())
        map = cv::Mat_<float>(frame.rows, frame.cols, 1.0f);
    for (int r = 0; r < frame.rows; ++r) {
        for (int c = 0; c < frame.cols; ++c) {
            bool neighboursClose = true;
            for (int y = r - 1; y <= r + 1; ++y)
                for (int x = c - 1; x <= c + 1; ++x)
                    if (y >= 0 && x >= 0 && y < frame.rows && x < frame.cols &&
                        std::fabs(frame(r, c) - frame(y, x)) > meanLimit)
                        neighboursClose = false;
            if (stdLimit > std::fabs(stdDev(r, c)) && neighboursClose && frame(r, c) != 0.0f)
                map(r, c) = (smoothed(r, c) / frame(r, c)) * alpha + (1.0f - alpha) * map(r, c);
        }
    }
}

// Equal bit for bit, NaN matching NaN.
::testing::AssertionResult sameFloats(const cv::Mat_<float>& expected, const cv::Mat_<float>& actual)
{
    if (expected.size() != actual.size())
        return ::testing::AssertionFailure() << "sizes differ";
    for (int r = 0; r < expected.rows; ++r)
        for (int c = 0; c < expected.cols; ++c) {
            const float e = expected(r, c), a = actual(r, c);
            if (!(e == a || (std::isnan(e) && std::isnan(a))))
                return ::testing::AssertionFailure()
                       << "at (" << r << ", " << c << "): expected " << e << ", got " << a;
        }
    return ::testing::AssertionSuccess();
}

cv::Mat_<float> damping(const ClusterPatternRemover& remover)
{
    cv::Mat out;
    remover.getDamping(out, true);
    return out;
}

TEST(ClusterPatternRemover, UpdatesMatchModelForBothModes)
{
    const float nan = std::numeric_limits<float>::quiet_NaN();
    for (auto mode : {ClusterPatternRemover::MEDIAN, ClusterPatternRemover::GAUSSIAN}) {
        ClusterPatternRemover remover(4, 4, 1.0f, 0.0f, 40.0f);
        ASSERT_TRUE(remover.setAlphaDamping(0.3f));
        cv::Mat_<float> model;
        for (int update = 0; update < 3; ++update) {
            cv::Mat_<float> frame = krotest::texturedScene(23, 31, 10 + update);
            frame(3, 4) = 0.0f;
            frame(10, 10) = nan;
            frame(15, 20) += 300.0f;  // an isolated hot pixel
            const cv::Mat_<float> stdDev = krotest::randomImage(23, 31, CV_32F, -2.0, 2.0, 20 + update);
            remover.updateDamping(frame, stdDev, mode);
            updateModel(model, frame, stdDev, mode, 1.0f, 0.3f, 40.0f);
            ASSERT_TRUE(sameFloats(model, damping(remover))) << "mode " << mode << ", update " << update;
        }
    }
}

TEST(ClusterPatternRemover, AlphaZeroKeepsTheMapAtOnes)
{
    ClusterPatternRemover remover(3, 3, 100.0f, 0.0f, 1e9f);
    ASSERT_TRUE(remover.setAlphaDamping(0.0f));
    const cv::Mat_<float> frame = krotest::texturedScene(12, 15, 3);
    remover.updateDamping(frame, cv::Mat_<float>::zeros(12, 15));
    EXPECT_IMAGES_EQUAL(cv::Mat_<float>(12, 15, 1.0f), damping(remover));
}

TEST(ClusterPatternRemover, HotPixelIsDampedOnlyWithinTheMeanLimit)
{
    // Flat 100 with one pixel at 200: its 3x3 median is 100, ratio 0.5.
    cv::Mat_<float> frame(7, 7, 100.0f);
    frame(3, 3) = 200.0f;
    const cv::Mat_<float> calm = cv::Mat_<float>::zeros(7, 7);

    ClusterPatternRemover wide(3, 3, 1.0f, 0.0f, 150.0f);
    ASSERT_TRUE(wide.setAlphaDamping(0.5f));
    wide.updateDamping(frame, calm);
    EXPECT_FLOAT_EQ(damping(wide)(3, 3), 0.5f * 0.5f + 0.5f);

    ClusterPatternRemover narrow(3, 3, 1.0f, 0.0f, 50.0f);
    ASSERT_TRUE(narrow.setAlphaDamping(0.5f));
    narrow.updateDamping(frame, calm);
    EXPECT_EQ(damping(narrow)(3, 3), 1.0f) << "a pixel beyond the mean limit must not be updated";

    // A restless pixel (standard deviation at the limit) is not updated either.
    cv::Mat_<float> restless = calm.clone();
    restless(3, 3) = -1.0f;
    ClusterPatternRemover noisy(3, 3, 1.0f, 0.0f, 150.0f);
    ASSERT_TRUE(noisy.setAlphaDamping(0.5f));
    noisy.updateDamping(frame, restless);
    EXPECT_EQ(damping(noisy)(3, 3), 1.0f);
}

TEST(ClusterPatternRemover, ConstructorTakesBlendFactorFromStdDevLimit)
{
    // The third argument (0.25) sets both the std-dev limit and the blend
    // factor; the fourth (0.9) is ignored.
    cv::Mat_<float> frame(5, 5, 100.0f);
    frame(2, 2) = 200.0f;
    ClusterPatternRemover remover(3, 3, 0.25f, 0.9f, 1000.0f);
    remover.updateDamping(frame, cv::Mat_<float>::zeros(5, 5));
    EXPECT_FLOAT_EQ(damping(remover)(2, 2), 0.5f * 0.25f + 0.75f);
}

TEST(ClusterPatternRemover, ZeroPixelIsNeverUpdatedAndNanPixelBecomesNan)
{
    cv::Mat_<float> frame(5, 5, 0.0f);
    frame(0, 4) = std::numeric_limits<float>::quiet_NaN();
    ClusterPatternRemover remover(3, 3, 1.0f, 0.0f, 10.0f);
    ASSERT_TRUE(remover.setAlphaDamping(1.0f));
    remover.updateDamping(frame, cv::Mat_<float>::zeros(5, 5));
    const cv::Mat_<float> map = damping(remover);
    EXPECT_EQ(map(2, 2), 1.0f);
    EXPECT_TRUE(std::isnan(map(0, 4)));
}

TEST(ClusterPatternRemover, ClusterSizeChangeRestartsTheMap)
{
    cv::Mat_<float> frame(5, 5, 100.0f);
    frame(2, 2) = 150.0f;
    ClusterPatternRemover remover(3, 3, 1.0f, 0.0f, 100.0f);
    ASSERT_TRUE(remover.setAlphaDamping(1.0f));
    remover.updateDamping(frame, cv::Mat_<float>::zeros(5, 5));
    remover.setClusterSize(3, 3);
    EXPECT_FALSE(damping(remover).empty()) << "same size keeps the map";
    remover.setClusterWidth(4);
    EXPECT_FALSE(damping(remover).empty()) << "the single setters keep the map";
    remover.setClusterSize(4, 5);
    EXPECT_TRUE(damping(remover).empty());
    EXPECT_EQ(remover.getClusterHeight(), 5u);
}

TEST(ClusterPatternRemover, BlendFactorOutsideZeroToOneIsRefused)
{
    ClusterPatternRemover remover(3, 3, 0.5f, 0.0f, 1.0f);
    EXPECT_FALSE(remover.setAlphaDamping(1.5f));
    EXPECT_FALSE(remover.setAlphaDamping(-0.1f));
    EXPECT_FALSE(remover.setAlphaDamping(std::numeric_limits<float>::quiet_NaN()));
    EXPECT_EQ(remover.getAlphaDamping(), 0.5f);
    EXPECT_TRUE(remover.setAlphaDamping(0.0f));
    EXPECT_TRUE(remover.setAlphaDamping(1.0f));
}

TEST(ClusterPatternRemover, UnsupportedModeThrowsWithItsLocationAndChangesNothing)
{
    ClusterPatternRemover remover(3, 3, 1.0f, 0.0f, 1.0f);
    const cv::Mat_<float> frame(4, 4, 1.0f);
    try {
        remover.updateDamping(frame, cv::Mat_<float>::zeros(4, 4),
                              static_cast<ClusterPatternRemover::FILTERMODE>(2));
        FAIL() << "no exception";
    } catch (const velmor::kro::Exception& e) {
        EXPECT_STREQ(e.what(), "unsupported mode");
        EXPECT_EQ(std::string(e.where()),
                  "modules/enhancement/ClusterPatternRemover:75 : "
                  "velmor::kro::ClusterPatternRemover::calculateDamping(..)");
    }
    EXPECT_TRUE(damping(remover).empty());
}

TEST(ClusterPatternRemover, ApplyMultipliesByTheMap)
{
    cv::Mat_<float> frame(6, 6, 100.0f);
    frame(2, 3) = 200.0f;
    ClusterPatternRemover remover(3, 3, 1.0f, 0.0f, 150.0f);
    ASSERT_TRUE(remover.setAlphaDamping(1.0f));
    cv::Mat_<float> out;
    remover.applyDamping(frame, out);
    EXPECT_IMAGES_EQUAL(frame, out) << "no map learnt yet: a copy";
    remover.updateDamping(frame, cv::Mat_<float>::zeros(6, 6));
    remover.applyDamping(frame, out);
    EXPECT_FLOAT_EQ(out(2, 3), 100.0f) << "the hot pixel is pulled to its neighbourhood";
    EXPECT_FLOAT_EQ(out(0, 0), 100.0f);
    cv::Mat_<float> inPlace = frame.clone();
    remover.applyDamping(inPlace, inPlace);
    EXPECT_IMAGES_EQUAL(out, inPlace);
}

TEST(ClusterPatternRemover, RefusesEmptyAndMismatchedImages)
{
    ClusterPatternRemover remover(3, 3, 1.0f, 0.0f, 1.0f);
    cv::Mat_<float> out;
    EXPECT_THROW(remover.updateDamping(cv::Mat_<float>(), cv::Mat_<float>()), velmor::kro::Exception);
    EXPECT_THROW(remover.updateDamping(cv::Mat_<float>(4, 4, 1.0f), cv::Mat_<float>(4, 5, 0.0f)),
                 velmor::kro::Exception);
    remover.updateDamping(cv::Mat_<float>(4, 4, 1.0f), cv::Mat_<float>(4, 4, 0.0f));
    EXPECT_THROW(remover.applyDamping(cv::Mat_<float>(5, 4, 1.0f), out), velmor::kro::Exception);
    EXPECT_THROW(remover.applyDamping(cv::Mat_<float>(), out), velmor::kro::Exception);
}

} // namespace
