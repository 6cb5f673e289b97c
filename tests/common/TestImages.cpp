#include "TestImages.h"

#include <cmath>
#include <filesystem>
#include <memory>
#include <random>
#include <stdexcept>
#include <stdlib.h>
#include <vector>

#include <opencv2/imgproc.hpp>

#include "DebugChannel.h"
#include "compareMat.h"

namespace krotest {

cv::Mat randomImage(int rows, int cols, int type, double low, double high, std::uint64_t seed)
{
    cv::Mat image(rows, cols, type);
    cv::RNG rng(seed);
    rng.fill(image, cv::RNG::UNIFORM, low, high);
    return image;
}

cv::Mat_<float> texturedScene(int rows, int cols, std::uint64_t seed)
{
    std::mt19937_64 rng(seed);
    std::uniform_real_distribution<double> unit(0.0, 1.0);
    cv::Mat_<float> scene(rows, cols, 300.0f);
    // A few warm blobs and bars of different sizes give structure at every
    // scale; a gentle gradient adds the large-scale shading of real scenes.
    for (int i = 0; i < 12; ++i) {
        const cv::Point centre(static_cast<int>(unit(rng) * cols), static_cast<int>(unit(rng) * rows));
        const int radius = 2 + static_cast<int>(unit(rng) * std::max(3, std::min(rows, cols) / 6));
        cv::circle(scene, centre, radius, cv::Scalar(200.0 + 600.0 * unit(rng)), cv::FILLED);
    }
    for (int i = 0; i < 6; ++i) {
        const cv::Point a(static_cast<int>(unit(rng) * cols), static_cast<int>(unit(rng) * rows));
        const cv::Point b(static_cast<int>(unit(rng) * cols), static_cast<int>(unit(rng) * rows));
        cv::line(scene, a, b, cv::Scalar(100.0 + 800.0 * unit(rng)), 1 + static_cast<int>(unit(rng) * 3));
    }
    for (int y = 0; y < rows; ++y)
        for (int x = 0; x < cols; ++x)
            scene(y, x) += static_cast<float>(50.0 * std::sin(0.05 * x) * std::cos(0.07 * y));
    cv::GaussianBlur(scene, scene, cv::Size(0, 0), 0.8);
    return scene;
}

namespace {

// Keeps the last message sent to it.
class LastMessage : public velmor::kro::DebugDeviceBase {
public:
    void write(const std::string&, const std::string& message, int) override { text = message; }
    std::string text;
};

} // namespace

::testing::AssertionResult imagesEqual(const cv::Mat& expected, const cv::Mat& actual,
                                       double tolerance)
{
    // compareMat reports the first difference on a debug channel; a private
    // channel listening at its level brings that line into the failure.
    auto device = std::make_shared<LastMessage>();
    velmor::kro::DebugChannel channel("imagesEqual");
    channel.setDebugDevice(device);
    channel.setOutputLevel(velmor::kro::kCompareMatDebugLevel);
    if (velmor::kro::compareMat(&channel, expected, actual, "expected", "actual",
                                static_cast<float>(tolerance)))
        return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << device->text;
}

TempDir::TempDir()
{
    std::string pattern =
        (std::filesystem::temp_directory_path() / "krolib-test-XXXXXX").string();
    std::vector<char> buffer(pattern.begin(), pattern.end());
    buffer.push_back('\0');
    if (mkdtemp(buffer.data()) == nullptr)
        throw std::runtime_error("cannot create a temporary directory");
    path_ = buffer.data();
}

TempDir::~TempDir()
{
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

} // namespace krotest
