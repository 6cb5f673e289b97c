#include "SrQualityChart.h"

#include <algorithm>
#include <cmath>
#include <sstream>
#include <stdexcept>

#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

namespace {

const cv::Scalar kInk(40, 40, 40);
const cv::Scalar kGrid(225, 225, 225);
constexpr int kFont = cv::FONT_HERSHEY_SIMPLEX;

// Colour-blind-safe palette (BGR).
const cv::Scalar kPalette[] = {{178, 114, 0},  {0, 94, 213},  {115, 158, 0}, {167, 121, 204},
                               {66, 228, 240}, {233, 180, 86}, {0, 0, 0}};

cv::Scalar colour(int series)
{
    const int n = static_cast<int>(sizeof(kPalette) / sizeof(kPalette[0]));
    return kPalette[((series % n) + n) % n];
}

void drawMarker(cv::Mat& image, cv::Point c, int marker, const cv::Scalar& fill)
{
    const int r = 7;
    std::vector<cv::Point> poly;
    switch (marker) {
    case 1:
        poly = {{c.x - r, c.y - r}, {c.x + r, c.y - r}, {c.x + r, c.y + r}, {c.x - r, c.y + r}};
        break;
    case 2:
        poly = {{c.x, c.y - r - 2}, {c.x + r + 1, c.y + r}, {c.x - r - 1, c.y + r}};
        break;
    case 3:
        poly = {{c.x, c.y - r - 2}, {c.x + r + 2, c.y}, {c.x, c.y + r + 2}, {c.x - r - 2, c.y}};
        break;
    default:
        cv::circle(image, c, r, fill, cv::FILLED, cv::LINE_AA);
        cv::circle(image, c, r, kInk, 1, cv::LINE_AA);
        return;
    }
    cv::fillConvexPoly(image, poly, fill, cv::LINE_AA);
    cv::polylines(image, poly, true, kInk, 1, cv::LINE_AA);
}

void text(cv::Mat& image, const std::string& s, cv::Point at, double scale = 0.45, int thickness = 1,
          const cv::Scalar& ink = kInk)
{
    cv::putText(image, s, at, kFont, scale, ink, thickness, cv::LINE_AA);
}

int textWidth(const std::string& s, double scale = 0.45, int thickness = 1)
{
    int baseline = 0;
    return cv::getTextSize(s, kFont, scale, thickness, &baseline).width;
}

std::string msLabel(double ms)
{
    std::ostringstream s;
    if (ms >= 1000.0)
        s << ms / 1000.0 << " s";
    else
        s << ms << " ms";
    return s.str();
}

// The plot area on a log time axis (whole decades) and a PSNR axis (whole
// dB with half a dB of margin) around the points.
struct Axes {
    cv::Rect plot{80, 70, 700, 540};
    double x0 = 0.0, x1 = 0.0, y0 = 0.0, y1 = 0.0;

    explicit Axes(const std::vector<ChartPoint>& shown)
    {
        double minMs = shown[0].ms, maxMs = shown[0].ms, minDb = shown[0].psnr, maxDb = shown[0].psnr;
        for (const ChartPoint& p : shown) {
            minMs = std::min(minMs, p.ms);
            maxMs = std::max(maxMs, p.ms);
            minDb = std::min(minDb, p.psnr);
            maxDb = std::max(maxDb, p.psnr);
        }
        x0 = std::floor(std::log10(minMs));
        x1 = std::ceil(std::log10(maxMs) + 1e-9);
        y0 = std::floor(minDb - 0.5);
        y1 = std::ceil(maxDb + 0.5);
    }

    cv::Point toPixel(double ms, double db) const
    {
        const double fx = (std::log10(ms) - x0) / std::max(1.0, x1 - x0);
        const double fy = (db - y0) / std::max(1.0, y1 - y0);
        return cv::Point(plot.x + static_cast<int>(std::lround(fx * plot.width)),
                         plot.y + plot.height - static_cast<int>(std::lround(fy * plot.height)));
    }
};

void drawGrid(cv::Mat& image, const Axes& a, const std::string& title, const std::string& subtitle)
{
    const cv::Rect& plot = a.plot;
    for (double e = a.x0; e <= a.x1 + 1e-9; e += 1.0) {
        for (int m = 1; m < 10 && e + std::log10(m) <= a.x1 + 1e-9; ++m) {
            const cv::Point p = a.toPixel(std::pow(10.0, e) * m, a.y0);
            cv::line(image, {p.x, plot.y}, {p.x, plot.y + plot.height}, m == 1 ? cv::Scalar(200, 200, 200) : kGrid, 1);
        }
        const cv::Point p = a.toPixel(std::pow(10.0, e), a.y0);
        const std::string label = msLabel(std::pow(10.0, e));
        text(image, label, {p.x - textWidth(label) / 2, plot.y + plot.height + 20});
    }
    const double step = (a.y1 - a.y0) > 12 ? 2.0 : 1.0;
    for (double db = a.y0; db <= a.y1 + 1e-9; db += step) {
        const cv::Point p = a.toPixel(std::pow(10.0, a.x0), db);
        cv::line(image, {plot.x, p.y}, {plot.x + plot.width, p.y}, kGrid, 1);
        std::ostringstream s;
        s << db;
        text(image, s.str(), {plot.x - 10 - textWidth(s.str()), p.y + 5});
    }
    cv::rectangle(image, plot, kInk, 1);
    text(image, "milliseconds per output frame (log scale)",
         {plot.x + plot.width / 2 - textWidth("milliseconds per output frame (log scale)", 0.5) / 2,
          plot.y + plot.height + 45},
         0.5);
    cv::Mat yLabel(30, 260, CV_8UC3, cv::Scalar(255, 255, 255));
    text(yLabel, "PSNR (dB)", {130 - textWidth("PSNR (dB)", 0.5) / 2, 20}, 0.5);
    cv::rotate(yLabel, yLabel, cv::ROTATE_90_COUNTERCLOCKWISE);
    yLabel.copyTo(image(cv::Rect(15, plot.y + plot.height / 2 - 130, 30, 260)));
    text(image, title, {plot.x, 30}, 0.65, 2);
    text(image, subtitle, {plot.x, 55}, 0.45);
}

// Points, then their labels (to the right, or to the left near the edge).
// A label that would overlap one already placed (or a marker) moves down,
// up, then to the other side, in steps of a text line.
void drawPoints(cv::Mat& image, const Axes& a, const std::vector<ChartPoint>& shown)
{
    for (const ChartPoint& p : shown)
        drawMarker(image, a.toPixel(p.ms, p.psnr), p.marker, colour(p.series));
    std::vector<cv::Rect> taken;
    for (const ChartPoint& p : shown) {
        const cv::Point c = a.toPixel(p.ms, p.psnr);
        taken.emplace_back(c.x - 8, c.y - 8, 17, 17);
    }
    for (const ChartPoint& p : shown) {
        const cv::Point c = a.toPixel(p.ms, p.psnr);
        const int w = textWidth(p.label, 0.4), h = 12;
        const bool right = c.x + 12 + w < a.plot.x + a.plot.width;
        cv::Rect box;
        bool placed = false;
        for (int side = 0; side < 2 && !placed; ++side) {
            const int x = (right == (side == 0)) ? c.x + 11 : c.x - 11 - w;
            for (int dy : {0, 13, -13, 26, -26, 39, -39}) {
                box = cv::Rect(x, c.y - 6 - h + dy, w, h + 2);
                placed = std::none_of(taken.begin(), taken.end(),
                                      [&](const cv::Rect& r) { return (r & box).area() > 0; });
                if (placed)
                    break;
            }
        }
        if (!placed)
            box = cv::Rect(right ? c.x + 11 : c.x - 11 - w, c.y - 6 - h, w, h + 2);
        taken.push_back(box);
        text(image, p.label, {box.x, box.y + h}, 0.4, 1, colour(p.series) * 0.7);
    }
}

void drawLegends(cv::Mat& image, const cv::Rect& plot, const std::vector<std::string>& seriesNames,
                 const std::vector<std::string>& markerNames)
{
    int y = plot.y + 10;
    text(image, "method", {plot.x + plot.width + 25, y}, 0.5, 1);
    y += 25;
    for (std::size_t s = 0; s < seriesNames.size(); ++s, y += 24) {
        drawMarker(image, {plot.x + plot.width + 35, y - 5}, 0, colour(static_cast<int>(s)));
        text(image, seriesNames[s], {plot.x + plot.width + 50, y});
    }
    y += 20;
    text(image, "input size", {plot.x + plot.width + 25, y}, 0.5, 1);
    y += 25;
    for (std::size_t m = 0; m < markerNames.size(); ++m, y += 24) {
        drawMarker(image, {plot.x + plot.width + 35, y - 5}, static_cast<int>(m), cv::Scalar(200, 200, 200));
        text(image, markerNames[m], {plot.x + plot.width + 50, y});
    }
}

} // namespace

void drawQualityChart(const std::vector<ChartPoint>& points, const std::vector<std::string>& seriesNames,
                      const std::vector<std::string>& markerNames, const std::string& title,
                      const std::string& subtitle, const std::string& path)
{
    std::vector<ChartPoint> shown;
    for (const ChartPoint& p : points)
        if (p.ms > 0.0 && std::isfinite(p.ms) && std::isfinite(p.psnr))
            shown.push_back(p);
    if (shown.empty())
        throw std::runtime_error("no point to draw in " + path);

    cv::Mat image(680, 1100, CV_8UC3, cv::Scalar(255, 255, 255));
    const Axes axes(shown);
    drawGrid(image, axes, title, subtitle);
    drawPoints(image, axes, shown);
    drawLegends(image, axes.plot, seriesNames, markerNames);
    if (!cv::imwrite(path, image))
        throw std::runtime_error("cannot write " + path);
}
