#include "UnsharpMask.h"

#include <algorithm>
#include <vector>

#include <gtest/gtest.h>
#include <opencv2/imgproc.hpp>

#include "TestImages.h"

namespace {

using velmor::kro::UnsharpMask;

// Single-channel 8-bit unsharp masking written per pixel: the difference is
// saturated at 0 from below, scaled and saturated, then added where it
// exceeds the threshold.
cv::Mat_<uchar> unsharpModel8u(const cv::Mat_<uchar>& src, double amount, double sigma, double threshold)
{
    cv::Mat_<uchar> blurred;
    cv::GaussianBlur(src, blurred, cv::Size(0, 0), sigma, sigma);
    cv::Mat_<uchar> dst = src.clone();
    for (int r = 0; r < src.rows; ++r)
        for (int c = 0; c < src.cols; ++c) {
            const int diff = std::max(0, int(src(r, c)) - int(blurred(r, c)));
            if (diff > 255.0 * threshold)
                dst(r, c) = cv::saturate_cast<uchar>(int(src(r, c)) + cv::saturate_cast<uchar>(diff * amount));
        }
    return dst;
}

// A bright spot at (7, 7) and a dark one at (2, 12) on a mid-grey field.
cv::Mat spotImage(int type)
{
    const bool f = type == CV_32F;
    cv::Mat image(15, 15, type, cv::Scalar::all(f ? 0.4 : 60));
    cv::circle(image, {7, 7}, 2, cv::Scalar::all(f ? 0.8 : 110), cv::FILLED);
    cv::circle(image, {2, 12}, 1, cv::Scalar::all(f ? 0.1 : 10), cv::FILLED);
    return image;
}

TEST(UnsharpMask, SingleChannelByteImageMatchesPerPixelModel)
{
    cv::Mat src = krotest::randomImage(31, 27, CV_8U, 0, 256, 4);
    cv::GaussianBlur(src, src, cv::Size(3, 3), 0.8);
    for (double amount : {0.5, 1.0, 3.0})
        for (double threshold : {0.0, 0.02, 0.1, 1.0}) {
            cv::Mat dst;
            ASSERT_EQ(UnsharpMask::unsharp(src, dst, amount, 1.5, threshold), 0);
            EXPECT_IMAGES_EQUAL(unsharpModel8u(src, amount, 1.5, threshold), dst)
                << "amount " << amount << ", threshold " << threshold;
        }
}

TEST(UnsharpMask, OnlyBrighterPixelsAreSharpenedInSingleChannelImagesButAllInColour)
{
    for (int type : {CV_32F, CV_8S, CV_8U}) {
        cv::Mat src = spotImage(type), dst, srcF, dstF;
        ASSERT_EQ(UnsharpMask::unsharp(src, dst, 2.0, 1.0, 0.01), 0);
        src.convertTo(srcF, CV_32F);
        dst.convertTo(dstF, CV_32F);
        EXPECT_GT(dstF.at<float>(7, 7), srcF.at<float>(7, 7)) << "type " << type << ": bright spot";
        EXPECT_EQ(dstF.at<float>(12, 2), srcF.at<float>(12, 2)) << "type " << type << ": dark spot";
    }
    // Float: dst = src + amount * (src - blur) exactly; in colour the
    // threshold is not used and the darker pixel changes too.
    cv::Mat gray = spotImage(CV_32F), dst, blurred, colour;
    ASSERT_EQ(UnsharpMask::unsharp(gray, dst, 2.0, 1.0, 0.01), 0);
    cv::GaussianBlur(gray, blurred, cv::Size(0, 0), 1.0, 1.0);
    EXPECT_FLOAT_EQ(dst.at<float>(7, 7), gray.at<float>(7, 7) + 2.0f * (gray.at<float>(7, 7) - blurred.at<float>(7, 7)));
    // A difference only equal to the threshold does not exceed it.
    const float atSpot = gray.at<float>(7, 7) - blurred.at<float>(7, 7);
    ASSERT_EQ(UnsharpMask::unsharp(gray, dst, 2.0, 1.0, atSpot), 0);
    EXPECT_EQ(dst.at<float>(7, 7), gray.at<float>(7, 7));
    // 8-bit signed: full scale 127 and the blur rounded back to integers (in
    // row 6, column 7 it is 96.9). A threshold just under the difference
    // there adds it once.
    cv::Mat signedSpot = spotImage(CV_8S), blurredSigned;
    signedSpot.convertTo(blurredSigned, CV_32F);
    cv::GaussianBlur(blurredSigned, blurredSigned, cv::Size(0, 0), 1.0, 1.0);
    const int d = 110 - cvRound(blurredSigned.at<float>(6, 7));
    ASSERT_EQ(UnsharpMask::unsharp(signedSpot, dst, 1.0, 1.0, (d - 0.02) / 127.0), 0);
    EXPECT_EQ(110 + d, dst.at<schar>(6, 7));
    cv::merge(std::vector<cv::Mat>{gray, gray, gray}, colour);
    ASSERT_EQ(UnsharpMask::unsharp(colour, dst, 1.0, 1.0, 0.9), 0);
    EXPECT_NEAR(dst.at<cv::Vec3f>(12, 2)[1], 2.0f * gray.at<float>(12, 2) - blurred.at<float>(12, 2), 1e-6);
}

TEST(UnsharpMask, ConstantImagesPassUnchangedAndUnsupportedDepthsReturnMinusOne)
{
    for (int type : {CV_8UC1, CV_8SC1, CV_32FC1, CV_8UC3}) {
        cv::Mat flat(9, 9, type, cv::Scalar::all(42)), dst;
        ASSERT_EQ(UnsharpMask::unsharp(flat, dst, 3.0, 1.2, 0.0), 0);
        EXPECT_IMAGES_EQUAL(flat, dst) << "type " << type;
    }
    for (int type : {CV_16UC1, CV_16SC1, CV_32SC1, CV_64FC1}) {
        cv::Mat src(4, 4, type, cv::Scalar(3)), dst(2, 2, CV_8U, cv::Scalar(9));
        const uchar* before = dst.data;
        EXPECT_EQ(UnsharpMask::unsharp(src, dst, 1.0, 1.0, 0.0), -1) << "type " << type;
        EXPECT_EQ(dst.data, before);
        EXPECT_EQ(dst.at<uchar>(0, 0), 9);
    }
}

} // namespace
