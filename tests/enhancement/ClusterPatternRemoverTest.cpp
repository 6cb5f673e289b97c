#include "ClusterPatternRemover.h"

#include <algorithm>
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
    for (int r = 0; r < frame.rows; ++r)
        for (int c = 0; c < frame.cols; ++c) {
            bool neighboursClose = true;
            for (int y = std::max(r - 1, 0); y <= std::min(r + 1, frame.rows - 1); ++y)
                for (int x = std::max(c - 1, 0); x <= std::min(c + 1, frame.cols - 1); ++x)
                    neighboursClose = neighboursClose && !(std::fabs(frame(r, c) - frame(y, x)) > meanLimit);
            if (stdLimit > std::fabs(stdDev(r, c)) && neighboursClose && frame(r, c) != 0.0f)
                map(r, c) = (smoothed(r, c) / frame(r, c)) * alpha + (1.0f - alpha) * map(r, c);
        }
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
            frame(cv::Rect(2, 3, 3, 3)).setTo(0.0f);  // its calm centre (4, 3) must keep its entry
            frame(10, 10) = nan;                      // passes the limits: its entry becomes NaN
            frame(15, 20) += 300.0f;                  // an isolated hot pixel
            cv::Mat_<float> stdDev = krotest::randomImage(23, 31, CV_32F, -2.0, 2.0, 20 + update);
            stdDev(4, 3) = stdDev(10, 10) = 0.0f;
            remover.updateDamping(frame, stdDev, mode);
            updateModel(model, frame, stdDev, mode, 1.0f, 0.3f, 40.0f);
            ASSERT_TRUE(krotest::imagesEqual(model, damping(remover))) << "mode " << mode << ", update " << update;
        }
    }
}

TEST(ClusterPatternRemover, HotPixelIsDampedOnlyWhenCalmAndWithinTheMeanLimit)
{
    // Flat 100 with one pixel at 200: its 3x3 median is 100, ratio 0.5.
    cv::Mat_<float> frame(7, 7, 100.0f), restless(7, 7, 0.0f);
    frame(3, 3) = 200.0f;
    restless(3, 3) = -1.0f;  // a standard deviation at the limit
    const auto centreAfterUpdate = [&](float meanLimit, const cv::Mat_<float>& stdDev) {
        ClusterPatternRemover remover(3, 3, 1.0f, 0.0f, meanLimit);
        EXPECT_TRUE(remover.setAlphaDamping(0.5f));
        remover.updateDamping(frame, stdDev);
        return damping(remover)(3, 3);
    };
    EXPECT_FLOAT_EQ(centreAfterUpdate(150.0f, cv::Mat_<float>::zeros(7, 7)), 0.5f * 0.5f + 0.5f);
    EXPECT_EQ(centreAfterUpdate(50.0f, cv::Mat_<float>::zeros(7, 7)), 1.0f) << "beyond the mean limit";
    EXPECT_EQ(centreAfterUpdate(150.0f, restless), 1.0f) << "restless";
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

TEST(ClusterPatternRemover, ApplyMultipliesByTheMapAndOnlyAClusterSizeChangeRestartsIt)
{
    cv::Mat_<float> frame(6, 6, 100.0f), out;
    frame(2, 3) = 200.0f;
    ClusterPatternRemover remover(3, 3, 1.0f, 0.0f, 150.0f);
    ASSERT_TRUE(remover.setAlphaDamping(1.0f));
    remover.applyDamping(frame, out);
    EXPECT_IMAGES_EQUAL(frame, out) << "no map learnt yet: a copy";
    remover.updateDamping(frame, cv::Mat_<float>::zeros(6, 6));
    remover.applyDamping(frame, out);
    EXPECT_IMAGES_EQUAL(cv::Mat_<float>(6, 6, 100.0f), out) << "the hot pixel is pulled to its neighbourhood";
    cv::Mat_<float> inPlace = frame.clone();
    remover.applyDamping(inPlace, inPlace);
    EXPECT_IMAGES_EQUAL(out, inPlace);

    remover.setClusterSize(3, 3);
    remover.setClusterWidth(4);
    EXPECT_FALSE(damping(remover).empty()) << "the same size and the single setters keep the map";
    remover.setClusterSize(4, 5);
    EXPECT_TRUE(damping(remover).empty());
}

TEST(ClusterPatternRemover, BadParametersAndImagesAreRefused)
{
    ClusterPatternRemover remover(3, 3, 0.5f, 0.0f, 1.0f);
    EXPECT_FALSE(remover.setAlphaDamping(1.5f));
    EXPECT_FALSE(remover.setAlphaDamping(-0.1f));
    EXPECT_FALSE(remover.setAlphaDamping(std::numeric_limits<float>::quiet_NaN()));
    EXPECT_EQ(remover.getAlphaDamping(), 0.5f);
    EXPECT_TRUE(remover.setAlphaDamping(0.0f));
    EXPECT_TRUE(remover.setAlphaDamping(1.0f));

    const cv::Mat_<float> frame(4, 4, 1.0f), calm(4, 4, 0.0f);
    try {
        remover.updateDamping(frame, calm, static_cast<ClusterPatternRemover::FILTERMODE>(2));
        ADD_FAILURE() << "no exception";
    } catch (const velmor::kro::Exception& e) {
        EXPECT_STREQ(e.what(), "unsupported mode");
        EXPECT_EQ(std::string(e.where()),
                  "modules/enhancement/ClusterPatternRemover:75 : "
                  "velmor::kro::ClusterPatternRemover::calculateDamping(..)");
    }
    EXPECT_TRUE(damping(remover).empty()) << "a refused update changes nothing";
    cv::Mat_<float> out;
    EXPECT_THROW(remover.updateDamping(cv::Mat_<float>(), cv::Mat_<float>()), velmor::kro::Exception);
    EXPECT_THROW(remover.updateDamping(frame, cv::Mat_<float>(4, 5, 0.0f)), velmor::kro::Exception);
    remover.updateDamping(frame, calm);
    EXPECT_THROW(remover.applyDamping(cv::Mat_<float>(5, 4, 1.0f), out), velmor::kro::Exception);
    EXPECT_THROW(remover.applyDamping(cv::Mat_<float>(), out), velmor::kro::Exception);
}

} // namespace
