#include <gtest/gtest.h>

#include <limits>

#include "compareMat.h"

namespace velmor {
namespace kro {
namespace {

TEST(compareMat, ToleranceIsInclusiveAndTheFirstDifferenceIsNamed)
{
    cv::Mat_<float> a(2, 3, 1.0f), b(2, 3, 1.0f);
    b(1, 2) = 1.5f;
    EXPECT_TRUE(compareMat(a, b, 0.5));
    EXPECT_FALSE(compareMat(a, b, 0.49));
    EXPECT_FALSE(compareMat(a, b));

    cv::Mat_<short> c(3, 4, short(7)), d(3, 4, short(7));
    d(1, 2) = 9;
    d(2, 0) = 0;
    std::string why;
    EXPECT_FALSE(compareMat(c, d, 1.0, &why));
    EXPECT_EQ("first difference at (x=2, y=1): expected 7, got 9 (tolerance 1)", why);
}

TEST(compareMat, SizeAndChannelMismatchesNeverMatch)
{
    std::string why;
    EXPECT_FALSE(compareMat(cv::Mat::zeros(2, 3, CV_32F), cv::Mat::zeros(3, 2, CV_32F), 1e9, &why));
    EXPECT_EQ("size differs: expected 3x2, got 2x3", why);
    EXPECT_FALSE(compareMat(cv::Mat::zeros(2, 2, CV_32F), cv::Mat::zeros(2, 2, CV_32FC3), 1e9, &why));
    EXPECT_EQ("channel count differs: expected 1, got 3", why);
}

TEST(compareMat, ComparesValuesAcrossDepthsViewsAndNaN)
{
    cv::Mat_<float> f(1, 2);
    f << 3.0f, -2.0f;
    cv::Mat_<int> i(1, 2);
    i << 3, -2;
    EXPECT_TRUE(compareMat(f, i));

    const float nan = std::numeric_limits<float>::quiet_NaN();
    cv::Mat_<float> a(1, 2, nan), b(1, 2, nan);
    EXPECT_TRUE(compareMat(a, b));
    b(0, 1) = 0.0f;
    EXPECT_FALSE(compareMat(a, b, 1e30));

    cv::Mat_<float> big(10, 10, 0.0f);
    big(cv::Rect(5, 5, 5, 5)).setTo(4.0f);
    EXPECT_TRUE(compareMat(cv::Mat_<float>(3, 3, 4.0f), big(cv::Rect(6, 6, 3, 3))));
    EXPECT_FALSE(compareMat(cv::Mat_<float>(3, 3, 4.0f), big(cv::Rect(3, 3, 3, 3))));
}

} // namespace
} // namespace kro
} // namespace velmor
