#pragma once

// Helpers shared by the test folders: seeded image generators and an image
// comparison that names the first differing pixel.

#include <cstdint>
#include <string>

#include <gtest/gtest.h>
#include <opencv2/core.hpp>

namespace krotest {

// Uniformly distributed values in [low, high), reproducible from `seed`.
cv::Mat randomImage(int rows, int cols, int type, double low, double high, std::uint64_t seed);

// A smooth, thermal-looking float scene with edges and blobs in roughly
// [0, 1000]; the same arguments give the same image.
cv::Mat_<float> texturedScene(int rows, int cols, std::uint64_t seed);

// gtest assertion: same size, channels and values within `tolerance`;
// on failure the message names the first differing pixel.
::testing::AssertionResult imagesEqual(const cv::Mat& expected, const cv::Mat& actual,
                                       double tolerance = 0.0);

// A fresh, empty temporary directory that is removed with the object.
class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const std::string& path() const { return path_; }
    std::string file(const std::string& name) const { return path_ + "/" + name; }

private:
    std::string path_;
};

} // namespace krotest

#define EXPECT_IMAGES_EQUAL(expected, actual, ...) \
    EXPECT_TRUE(::krotest::imagesEqual((expected), (actual), ##__VA_ARGS__))
