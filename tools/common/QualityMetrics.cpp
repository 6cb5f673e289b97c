#include "QualityMetrics.h"

#include <cmath>
#include <limits>
#include <stdexcept>

#include <opencv2/imgproc.hpp>

namespace krotools {

namespace {

cv::Rect innerRect(const cv::Mat& image, int border)
{
    const cv::Rect inner(border, border, image.cols - 2 * border, image.rows - 2 * border);
    if (inner.width <= 0 || inner.height <= 0)
        throw std::invalid_argument("border leaves nothing to measure");
    return inner;
}

void checkSameSize(const cv::Mat& a, const cv::Mat& b)
{
    if (a.size() != b.size())
        throw std::invalid_argument("images to compare differ in size");
}

} // namespace

double psnr(const cv::Mat_<float>& truth, const cv::Mat_<float>& image, double peak, int border)
{
    checkSameSize(truth, image);
    const cv::Rect inner = innerRect(truth, border);
    cv::Mat diff;
    cv::subtract(truth(inner), image(inner), diff, cv::noArray(), CV_64F);
    const double mse = cv::mean(diff.mul(diff))[0];
    if (mse == 0.0)
        return std::numeric_limits<double>::infinity();
    return 10.0 * std::log10(peak * peak / mse);
}

double ssim(const cv::Mat_<float>& truth, const cv::Mat_<float>& image, double peak, int border)
{
    checkSameSize(truth, image);
    const cv::Rect inner = innerRect(truth, border);
    cv::Mat x, y;
    truth(inner).convertTo(x, CV_64F);
    image(inner).convertTo(y, CV_64F);
    const double c1 = (0.01 * peak) * (0.01 * peak);
    const double c2 = (0.03 * peak) * (0.03 * peak);
    auto blur = [](const cv::Mat& in) {
        cv::Mat out;
        cv::GaussianBlur(in, out, cv::Size(11, 11), 1.5, 1.5, cv::BORDER_REFLECT_101);
        return out;
    };
    const cv::Mat muX = blur(x), muY = blur(y);
    const cv::Mat muX2 = muX.mul(muX), muY2 = muY.mul(muY), muXY = muX.mul(muY);
    const cv::Mat sigmaX2 = blur(x.mul(x)) - muX2;
    const cv::Mat sigmaY2 = blur(y.mul(y)) - muY2;
    const cv::Mat sigmaXY = blur(x.mul(y)) - muXY;
    cv::Mat numerator = (2.0 * muXY + c1).mul(2.0 * sigmaXY + c2);
    cv::Mat denominator = (muX2 + muY2 + c1).mul(sigmaX2 + sigmaY2 + c2);
    cv::Mat map;
    cv::divide(numerator, denominator, map);
    return cv::mean(map)[0];
}

cv::Point2d estimateOffset(const cv::Mat_<float>& truth, const cv::Mat_<float>& image, int border)
{
    checkSameSize(truth, image);
    const cv::Rect inner = innerRect(truth, border);
    cv::Mat a, b, window;
    truth(inner).convertTo(a, CV_64F);
    image(inner).convertTo(b, CV_64F);
    cv::createHanningWindow(window, a.size(), CV_64F);
    // Phase correlation finds the offset to about a pixel (its sub-pixel
    // part is biased); Gauss-Newton steps on the squared difference refine
    // it: with w the image moved back by the offset, w - truth ~ -grad(truth) . delta.
    cv::Point2d offset = cv::phaseCorrelate(a, b, window);

    cv::Mat gx, gy;
    cv::Sobel(truth, gx, CV_64F, 1, 0, 3, 1.0 / 8.0);
    cv::Sobel(truth, gy, CV_64F, 0, 1, 3, 1.0 / 8.0);
    gx = gx(inner);
    gy = gy(inner);
    const double sxx = gx.dot(gx), sxy = gx.dot(gy), syy = gy.dot(gy);
    const double det = sxx * syy - sxy * sxy;
    if (!(det > 0.0))
        return offset;
    for (int iteration = 0; iteration < 8; ++iteration) {
        cv::Mat residual;
        cv::subtract(removeOffset(image, offset)(inner), truth(inner), residual, cv::noArray(), CV_64F);
        const double bx = gx.dot(residual), by = gy.dot(residual);
        const double dx = -(syy * bx - sxy * by) / det;
        const double dy = -(sxx * by - sxy * bx) / det;
        // w(x) = image(x + offset); w - truth = -g . delta means the image is
        // further off by delta.
        offset.x += dx;
        offset.y += dy;
        if (std::fabs(dx) < 1e-4 && std::fabs(dy) < 1e-4)
            break;
    }
    return offset;
}

cv::Mat_<float> removeOffset(const cv::Mat_<float>& image, cv::Point2d offset)
{
    const cv::Mat transform = (cv::Mat_<double>(2, 3) << 1, 0, -offset.x, 0, 1, -offset.y);
    cv::Mat_<float> moved;
    cv::warpAffine(image, moved, transform, image.size(), cv::INTER_CUBIC, cv::BORDER_REFLECT_101);
    return moved;
}

Quality measureQuality(const cv::Mat_<float>& truth, const cv::Mat_<float>& image, int border, double peak,
                       double maxOffset)
{
    Quality quality;
    if (peak <= 0.0) {
        double low = 0.0, high = 0.0;
        cv::minMaxLoc(truth(innerRect(truth, border)), &low, &high);
        peak = high > low ? high - low : 1.0;
    }
    cv::Point2d offset = estimateOffset(truth, image, border);
    if (!(std::fabs(offset.x) <= maxOffset && std::fabs(offset.y) <= maxOffset))
        offset = cv::Point2d(0.0, 0.0);
    const cv::Mat_<float> aligned =
        offset == cv::Point2d(0.0, 0.0) ? image : removeOffset(image, offset);
    quality.offset = offset;
    quality.psnr = psnr(truth, aligned, peak, border);
    quality.ssim = ssim(truth, aligned, peak, border);
    return quality;
}

} // namespace krotools
