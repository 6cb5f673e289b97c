#include "DemoImages.h"

#include <algorithm>
#include <cmath>

#include <opencv2/imgproc.hpp>

namespace kroenhance {

namespace {

constexpr int kGap = 4;           // pixels between panels and rows
constexpr int kTextMargin = 4;    // pixels around the label lines
constexpr int kFont = cv::FONT_HERSHEY_SIMPLEX;
constexpr double kLargestFontScale = 0.6;
constexpr double kSmallestFontScale = 0.3;
constexpr unsigned char kBackground = 0;
constexpr unsigned char kInk = 255;
constexpr unsigned char kGapShade = 96;

// The largest font scale (up to kLargestFontScale) at which every label fits
// into `width` pixels; below kSmallestFontScale labels are cut by the panel.
double fontScaleFor(const std::vector<ComparisonPanel>& panels, int width)
{
    double scale = kLargestFontScale;
    for (const ComparisonPanel& panel : panels)
        for (const std::string* text : {&panel.title, &panel.caption}) {
            int baseline = 0;
            const cv::Size size = cv::getTextSize(*text, kFont, 1.0, 1, &baseline);
            if (size.width > 0)
                scale = std::min(scale, (width - 2.0 * kTextMargin) / size.width);
        }
    return std::max(scale, kSmallestFontScale);
}

} // namespace

DisplayRange percentileRange(const cv::Mat_<float>& image, double lowPercent, double highPercent)
{
    std::vector<float> values;
    values.reserve(image.total());
    for (int y = 0; y < image.rows; ++y) {
        const float* row = image[y];
        for (int x = 0; x < image.cols; ++x)
            if (std::isfinite(row[x]))
                values.push_back(row[x]);
    }
    DisplayRange range;
    if (values.empty())
        return range;
    const auto rank = [&](double percent) {
        const double clamped = std::min(100.0, std::max(0.0, percent));
        const std::size_t k = static_cast<std::size_t>(std::lround(clamped / 100.0 * (values.size() - 1)));
        std::nth_element(values.begin(), values.begin() + static_cast<std::ptrdiff_t>(k), values.end());
        return static_cast<double>(values[k]);
    };
    range.low = rank(lowPercent);
    range.high = rank(highPercent);
    if (!(range.high - range.low > 1e-6 * std::max(1.0, std::fabs(range.low))))
        range.high = range.low + 1.0;
    return range;
}

cv::Mat_<unsigned char> toDisplay(const cv::Mat_<float>& image, const DisplayRange& range)
{
    const double gain = 255.0 / (range.high - range.low);
    cv::Mat_<unsigned char> out;
    image.convertTo(out, CV_8U, gain, -range.low * gain);
    return out;
}

cv::Rect detailRegion(const cv::Mat_<float>& image, cv::Size size)
{
    size.width = std::max(1, std::min(size.width, image.cols));
    size.height = std::max(1, std::min(size.height, image.rows));
    cv::Mat_<float> gx, gy;
    cv::Sobel(image, gx, CV_32F, 1, 0);
    cv::Sobel(image, gy, CV_32F, 0, 1);
    cv::Mat_<double> energy = cv::abs(gx) + cv::abs(gy);
    cv::Mat_<double> sums;
    cv::integral(energy, sums, CV_64F);
    const int stepX = std::max(1, size.width / 4);
    const int stepY = std::max(1, size.height / 4);
    cv::Rect best(0, 0, size.width, size.height);
    double bestSum = -1.0;
    for (int y = 0; y + size.height <= image.rows; y += stepY)
        for (int x = 0; x + size.width <= image.cols; x += stepX) {
            const double sum = sums(y + size.height, x + size.width) - sums(y, x + size.width) -
                               sums(y + size.height, x) + sums(y, x);
            if (sum > bestSum) {
                bestSum = sum;
                best = cv::Rect(x, y, size.width, size.height);
            }
        }
    return best;
}

cv::Mat_<unsigned char> comparisonImage(const std::vector<ComparisonPanel>& panels, const DisplayRange& range,
                                        const cv::Rect& detail, int zoom)
{
    if (panels.empty())
        return cv::Mat_<unsigned char>();
    const cv::Size panelSize = panels[0].image.size();
    const double scale = fontScaleFor(panels, panelSize.width);
    int baseline = 0;
    const int lineHeight = cv::getTextSize("Ag", kFont, scale, 1, &baseline).height + baseline;
    const int labelHeight = 2 * lineHeight + 3 * kTextMargin;

    const cv::Rect shownDetail = detail & cv::Rect(cv::Point(0, 0), panelSize);
    const bool withDetail = shownDetail.area() > 0 && zoom >= 1;
    const cv::Size zoomed(shownDetail.width * zoom, shownDetail.height * zoom);
    const int cellWidth = std::max(panelSize.width, withDetail ? zoomed.width : 0);
    const int columns = static_cast<int>(panels.size());
    const int width = columns * cellWidth + (columns - 1) * kGap;
    const int height = labelHeight + panelSize.height + (withDetail ? kGap + zoomed.height : 0);

    cv::Mat_<unsigned char> canvas(height, width, kBackground);
    for (int c = 0; c < columns; ++c) {
        const ComparisonPanel& panel = panels[c];
        const int left = c * (cellWidth + kGap);
        if (c > 0)
            canvas(cv::Rect(left - kGap, 0, kGap, height)).setTo(kGapShade);
        cv::putText(canvas, panel.title, cv::Point(left + kTextMargin, kTextMargin + lineHeight - baseline),
                    kFont, scale, cv::Scalar(kInk), 1, cv::LINE_AA);
        cv::putText(canvas, panel.caption,
                    cv::Point(left + kTextMargin, 2 * (kTextMargin + lineHeight) - baseline), kFont, scale,
                    cv::Scalar(kInk), 1, cv::LINE_AA);

        cv::Mat_<unsigned char> view = toDisplay(panel.image, range);
        if (view.size() != panelSize)
            cv::resize(view, view, panelSize, 0.0, 0.0, cv::INTER_NEAREST);
        if (withDetail) {
            cv::Mat_<unsigned char> enlarged;
            cv::resize(view(shownDetail), enlarged, zoomed, 0.0, 0.0, cv::INTER_NEAREST);
            enlarged.copyTo(canvas(cv::Rect(left, labelHeight + panelSize.height + kGap, zoomed.width,
                                            zoomed.height)));
            if (c == 0)
                cv::rectangle(view, shownDetail, cv::Scalar(kInk), 1);
        }
        view.copyTo(canvas(cv::Rect(left, labelHeight, panelSize.width, panelSize.height)));
    }
    if (withDetail)
        canvas(cv::Rect(0, labelHeight + panelSize.height, width, kGap)).setTo(kGapShade);
    return canvas;
}

} // namespace kroenhance
