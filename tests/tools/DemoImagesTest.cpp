// The display images of kroenhance demo: percentile stretch, detail choice
// and the layout of the comparison.
#include <gtest/gtest.h>
#include <opencv2/imgproc.hpp>

#include "DemoImages.h"
#include "TestImages.h"

namespace {

using kroenhance::ComparisonPanel;
using kroenhance::DisplayRange;

TEST(DemoImages, PercentilesAreTakenByNearestRank)
{
    // The values 0..999 in a scrambled order.
    cv::Mat_<float> image(25, 40);
    for (int i = 0; i < 1000; ++i)
        image(i) = static_cast<float>((i * 37) % 1000);
    DisplayRange range = kroenhance::percentileRange(image, 0.5, 99.5);
    EXPECT_EQ(range.low, 5.0);    // rank round(0.005 * 999) = 5
    EXPECT_EQ(range.high, 994.0); // rank round(0.995 * 999) = 994
    range = kroenhance::percentileRange(image, 0.0, 100.0);
    EXPECT_EQ(range.low, 0.0);
    EXPECT_EQ(range.high, 999.0);

    // NaN samples are ignored; a flat image still gives a usable range.
    image(3) = std::numeric_limits<float>::quiet_NaN();
    EXPECT_EQ(kroenhance::percentileRange(image, 0.0, 100.0).high, 999.0);
    const cv::Mat_<float> flat(8, 8, 42.0f);
    range = kroenhance::percentileRange(flat, 0.5, 99.5);
    EXPECT_EQ(range.low, 42.0);
    EXPECT_GT(range.high, range.low);
}

TEST(DemoImages, DisplayMapsTheRangeOntoEightBitsAndSaturates)
{
    const cv::Mat_<float> image = (cv::Mat_<float>(1, 6) << 90.0f, 100.0f, 160.0f, 200.0f, 300.0f, 101.0f);
    const cv::Mat_<unsigned char> shown = kroenhance::toDisplay(image, DisplayRange{100.0, 200.0});
    const cv::Mat_<unsigned char> expected = (cv::Mat_<unsigned char>(1, 6) << 0, 0, 153, 255, 255, 3);
    EXPECT_IMAGES_EQUAL(expected, shown);  // 2.55 is rounded to 3, not cut to 2
}

TEST(DemoImages, DetailIsWhereTheGradientsAre)
{
    cv::Mat_<float> image(120, 160, 10.0f);
    cv::Mat_<float> texture = krotest::randomImage(20, 20, CV_32F, 0.0, 100.0, 3);
    texture.copyTo(image(cv::Rect(110, 70, 20, 20)));
    const cv::Rect detail = kroenhance::detailRegion(image, cv::Size(40, 40));
    EXPECT_EQ(detail.size(), cv::Size(40, 40));
    EXPECT_EQ(detail & cv::Rect(110, 70, 20, 20), cv::Rect(110, 70, 20, 20)) << detail;
    // A region larger than the image is cut to it.
    EXPECT_EQ(kroenhance::detailRegion(image, cv::Size(400, 30)).width, 160);
}

TEST(DemoImages, ComparisonShowsEveryPanelThroughTheSameStretch)
{
    const cv::Mat_<float> a = krotest::randomImage(30, 40, CV_32F, 0.0, 1000.0, 1);
    const cv::Mat_<float> b = krotest::randomImage(30, 40, CV_32F, -200.0, 1200.0, 2);
    const DisplayRange range{100.0, 900.0};
    const cv::Rect detail(10, 5, 10, 10);
    const cv::Mat_<unsigned char> canvas =
        kroenhance::comparisonImage({{"truth", "0 .. 1000", a}, {"SR", "PSNR 30.00 dB", b}}, range, detail, 3);

    // Two cells of max(panel, zoomed detail) width and a 4-pixel gap; the
    // label strip, the panels, a gap and the zoomed details stacked.
    ASSERT_EQ(canvas.cols, 2 * 40 + 4);
    const int zoomedTop = canvas.rows - 30;
    const int panelTop = zoomedTop - 4 - 30;
    ASSERT_GT(panelTop, 10) << "room for two label lines";

    // The second panel is exactly its display image; the first has the
    // detail outlined and is its display image elsewhere.
    const cv::Mat_<unsigned char> shownB = kroenhance::toDisplay(b, range);
    EXPECT_IMAGES_EQUAL(shownB, canvas(cv::Rect(44, panelTop, 40, 30)));
    const cv::Mat_<unsigned char> shownA = kroenhance::toDisplay(a, range);
    EXPECT_IMAGES_EQUAL(shownA(cv::Rect(0, 20, 40, 10)), canvas(cv::Rect(0, panelTop + 20, 40, 10)));
    EXPECT_EQ(canvas(panelTop + 5, 10), 255) << "outline of the detail";

    // Below: the detail enlarged three times by pixel replication, from the
    // display image without the outline.
    cv::Mat_<unsigned char> zoomed;
    cv::resize(shownB(detail), zoomed, cv::Size(30, 30), 0.0, 0.0, cv::INTER_NEAREST);
    EXPECT_IMAGES_EQUAL(zoomed, canvas(cv::Rect(44, zoomedTop, 30, 30)));
    cv::resize(shownA(detail), zoomed, cv::Size(30, 30), 0.0, 0.0, cv::INTER_NEAREST);
    EXPECT_IMAGES_EQUAL(zoomed, canvas(cv::Rect(0, zoomedTop, 30, 30)));
}

} // namespace
