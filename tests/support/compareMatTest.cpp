#include <gtest/gtest.h>

#include <limits>
#include <memory>
#include <string>
#include <vector>

#include "DebugChannel.h"
#include "TestImages.h"
#include "compareMat.h"

namespace velmor {
namespace kro {
namespace {

class RecordingDevice : public DebugDeviceBase {
public:
    void write(const std::string&, const std::string& message, int level) override
    {
        lines.push_back(message + "|" + std::to_string(level));
    }
    std::vector<std::string> lines;
};

// A channel that listens at compareMat's level, and what it heard last.
struct Listener {
    Listener() : device(std::make_shared<RecordingDevice>()), channel("compare")
    {
        channel.setDebugDevice(device);
        channel.setOutputLevel(kCompareMatDebugLevel);
    }
    std::string last() const { return device->lines.empty() ? "" : device->lines.back(); }
    std::shared_ptr<RecordingDevice> device;
    DebugChannel channel;
};

const std::string kLevel = "|" + std::to_string(kCompareMatDebugLevel);

TEST(compareMat, ToleranceIsInclusiveAndTheFirstDifferenceInRowMajorOrderIsNamed)
{
    Listener l;
    cv::Mat_<float> a(2, 3, 1.0f), b(2, 3, 1.0f);
    b(1, 2) = 1.5f;
    EXPECT_TRUE(compareMat(&l.channel, a, b, "sr", "model", 0.5f));
    EXPECT_EQ("compareMat: sr and model match (tolerance 0.5)" + kLevel, l.last());
    EXPECT_FALSE(compareMat(&l.channel, a, b, "sr", "model", 0.49f));
    EXPECT_FALSE(compareMat(nullptr, a, b, "sr", "model", 0.0f));

    cv::Mat_<short> c(3, 4, short(7)), d(3, 4, short(7));
    d(2, 0) = 0;  // later row, earlier column: not the first
    d(1, 2) = 9;
    EXPECT_FALSE(compareMat(&l.channel, c, d, "frame", "reference", 1.0f));
    EXPECT_EQ("compareMat: frame and reference differ at (x=2, y=1): frame 7, reference 9 "
              "(tolerance 1)" + kLevel, l.last());

    cv::Mat_<cv::Vec3f> e(1, 2, cv::Vec3f(0.1f, 0.2f, 0.3f)), f = e.clone();
    f(0, 1)[2] = 0.25f;
    EXPECT_FALSE(compareMat(&l.channel, e, f, "e", "f", 0.01f));
    EXPECT_EQ("compareMat: e and f differ at (x=1, y=0, channel 2): e 0.300000012, f 0.25 "
              "(tolerance 0.01)" + kLevel, l.last());
    EXPECT_EQ(4u, l.device->lines.size());  // one line per call; none for the null channel
}

TEST(compareMat, SizeAndChannelMismatchesNeverMatch)
{
    Listener l;
    EXPECT_FALSE(compareMat(&l.channel, cv::Mat::zeros(2, 3, CV_32F), cv::Mat::zeros(3, 2, CV_32F),
                            "A", "B", 1e9f));
    EXPECT_EQ("compareMat: A and B differ in size: A 3x2, B 2x3" + kLevel, l.last());
    EXPECT_FALSE(compareMat(&l.channel, cv::Mat::zeros(2, 2, CV_32F),
                            cv::Mat::zeros(2, 2, CV_32FC3), "A", "B", 1e9f));
    EXPECT_EQ("compareMat: A and B differ in channel count: A 1, B 3" + kLevel, l.last());
}

TEST(compareMat, ComparesValuesAcrossDepthsViewsAndNaN)
{
    cv::Mat_<float> f(1, 2);
    f << 3.0f, -2.0f;
    cv::Mat_<int> i(1, 2);
    i << 3, -2;
    EXPECT_TRUE(compareMat(nullptr, f, i, "f", "i", 0.0f));

    const float nan = std::numeric_limits<float>::quiet_NaN();
    cv::Mat_<float> a(1, 2, nan), b(1, 2, nan);
    EXPECT_TRUE(compareMat(nullptr, a, b, "a", "b", 0.0f));
    b(0, 1) = 0.0f;
    Listener l;
    EXPECT_FALSE(compareMat(&l.channel, a, b, "a", "b", 1e30f));
    EXPECT_EQ("compareMat: a and b differ at (x=1, y=0): a nan, b 0 (tolerance 1e+30)" + kLevel,
              l.last());

    cv::Mat_<float> big(10, 10, 0.0f);
    big(cv::Rect(5, 5, 5, 5)).setTo(4.0f);
    const cv::Mat_<float> four(3, 3, 4.0f);
    EXPECT_TRUE(compareMat(nullptr, four, big(cv::Rect(6, 6, 3, 3)), "four", "view", 0.0f));
    EXPECT_FALSE(compareMat(nullptr, four, big(cv::Rect(3, 3, 3, 3)), "four", "view", 0.0f));
}

TEST(compareMat, AQuietChannelHearsNothingAndTheResultIsTheSame)
{
    Listener l;
    l.channel.setOutputLevel(kCompareMatDebugLevel - 1);
    const cv::Mat_<short> a(2, 2, short(1)), b(2, 2, short(2));
    EXPECT_FALSE(compareMat(&l.channel, a, b, "a", "b", 0.5f));
    EXPECT_TRUE(compareMat(&l.channel, a, b, "a", "b", 1.0f));
    EXPECT_TRUE(l.device->lines.empty());
}

TEST(compareMat, TestAssertionNamesTheFirstDifferingPixel)
{
    cv::Mat_<short> expected(2, 3, short(1)), actual(2, 3, short(1));
    actual(1, 0) = 2;
    const ::testing::AssertionResult result = krotest::imagesEqual(expected, actual, 0.5);
    EXPECT_FALSE(result);
    EXPECT_STREQ("compareMat: expected and actual differ at (x=0, y=1): expected 1, actual 2 "
                 "(tolerance 0.5)", result.message());
    EXPECT_TRUE(krotest::imagesEqual(expected, actual, 1.0));
}

} // namespace
} // namespace kro
} // namespace velmor
