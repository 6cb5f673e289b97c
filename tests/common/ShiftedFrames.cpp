#include "ShiftedFrames.h"

#include <cmath>

#include <opencv2/imgproc.hpp>

namespace krotest {

cv::Mat_<float> shiftImage(const cv::Mat_<float>& image, velmor::kro::PointF shift)
{
    // warpAffine without WARP_INVERSE_MAP gives dst(x) = src(x - t).
    const cv::Mat transform = (cv::Mat_<double>(2, 3) << 1, 0, shift.x, 0, 1, shift.y);
    cv::Mat_<float> moved;
    cv::warpAffine(image, moved, transform, image.size(), cv::INTER_CUBIC, cv::BORDER_REFLECT_101);
    return moved;
}

std::vector<cv::Mat_<float>> makeShiftedFrames(const cv::Mat_<float>& scene, int factor,
                                               const std::vector<velmor::kro::PointF>& shifts,
                                               double sigma, double noise, std::uint64_t seed)
{
    cv::RNG rng(seed);
    std::vector<cv::Mat_<float>> frames;
    for (const velmor::kro::PointF& shift : shifts) {
        cv::Mat_<float> moved = shiftImage(scene, velmor::kro::PointF(shift.x * factor, shift.y * factor));
        if (sigma > 0.0)
            cv::GaussianBlur(moved, moved, cv::Size(0, 0), sigma * factor, sigma * factor, cv::BORDER_REFLECT_101);
        cv::Mat_<float> small;
        cv::resize(moved, small, cv::Size(scene.cols / factor, scene.rows / factor), 0, 0, cv::INTER_AREA);
        if (noise > 0.0) {
            cv::Mat_<float> n(small.size());
            rng.fill(n, cv::RNG::NORMAL, 0.0, noise);
            small += n;
        }
        frames.push_back(small);
    }
    return frames;
}

double psnr(const cv::Mat_<float>& truth, const cv::Mat_<float>& image, double peak, int border)
{
    const cv::Rect inner(border, border, truth.cols - 2 * border, truth.rows - 2 * border);
    cv::Mat diff;
    cv::subtract(truth(inner), image(inner), diff, cv::noArray(), CV_64F);
    const double mse = cv::mean(diff.mul(diff))[0];
    return 10.0 * std::log10(peak * peak / std::max(mse, 1e-30));
}

} // namespace krotest
