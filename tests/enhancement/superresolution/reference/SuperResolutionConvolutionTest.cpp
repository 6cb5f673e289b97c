#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Exception.h"
#include "ReferenceTestSupport.h"
#include "SrFloatConvolution.h"
#include "SuperResolutionConvolution.h"
#include "TestImages.h"

namespace velmor {
namespace kro {
namespace {

// The box sum written out: every window sample read one by one.
cv::Mat_<float> boxSum(const cv::Mat_<float>& in, int n)
{
    cv::Mat_<float> out(in.size(), 0.0f);
    const int before = n - 1 - n / 2;
    const int after = n / 2;
    for (int y = 0; y < in.rows; ++y)
        for (int x = 0; x < in.cols; ++x) {
            double sum = 0.0;
            for (int dy = -before; dy <= after; ++dy)
                for (int dx = -before; dx <= after; ++dx)
                    if (y + dy >= 0 && y + dy < in.rows && x + dx >= 0 && x + dx < in.cols)
                        sum += in(y + dy, x + dx);
            out(y, x) = static_cast<float>(sum);
        }
    return out;
}

// The reference convolution is the float one, bit for bit, in both
// directions and with a mask that drops samples.
TEST(SuperResolutionConvolution, GivesTheFloatConvolutionsBytes)
{
    SrFloatConvolution plain(64, 48, 6, 6, 2.0f);
    SuperResolutionConvolution reference(64, 48, 6, 6, 2.0f);
    const int lowSize = 32 * 24;
    const int fullSize = plain.getFullWidth() * plain.getFullHeight();
    cv::Mat_<float> sparse = krotest::randomImage(1, lowSize, CV_32F, -5.0, 5.0, 1);
    cv::Mat_<float> full = krotest::randomImage(1, fullSize, CV_32F, -5.0, 5.0, 2);
    cv::Mat mask = cv::min(krotest::randomImage(1, lowSize, CV_8S, 0, 3, 3), 1);
    std::vector<float> psfX = {0.0f, 0.1f, 0.3f, 0.4f, 0.2f, 0.0f};
    std::vector<float> psfY = {0.05f, 0.2f, 0.5f, 0.2f, 0.05f, 0.0f};

    cv::Mat_<float> fullPlain(1, fullSize), fullReference(1, fullSize);
    plain.fullConvFromSparse(sparse.ptr<float>(), psfX.data(), psfY.data(), mask.ptr<char>(), fullPlain.ptr<float>());
    reference.fullConvFromSparse(sparse.ptr<float>(), psfX.data(), psfY.data(), mask.ptr<char>(),
                                 fullReference.ptr<float>());
    EXPECT_TRUE(krotest::sameFloatBytes(fullPlain, fullReference));

    cv::Mat_<float> lowPlain(1, lowSize), lowReference(1, lowSize);
    plain.validCorrToSparse(full.ptr<float>(), psfX.data(), psfY.data(), lowPlain.ptr<float>());
    reference.validCorrToSparse(full.ptr<float>(), psfX.data(), psfY.data(), lowReference.ptr<float>());
    EXPECT_TRUE(krotest::sameFloatBytes(lowPlain, lowReference));
    EXPECT_EQ("SuperResolution", reference.getInternalDebugChannelObjects().at(0)->getDebugChannelName());
}

// Odd boxes are centred, even ones reach one sample further right and down;
// a box larger than the image sums all of it; the result does not depend
// on the thread count and the input may be the output.
TEST(SuperResolutionConvolution, SameConvOnesIsTheClippedBoxSum)
{
    SuperResolutionConvolution conv(20, 16, 6, 6, 2.0f);
    const cv::Mat_<float> in = krotest::randomImage(16, 20, CV_32F, -3.0, 7.0, 4);
    for (int n : {1, 2, 3, 4, 7, 40}) {
        cv::Mat_<float> out(16, 20, -1.0f);
        conv.sameConvOnes(const_cast<float*>(in.ptr<float>()), n, out.ptr<float>());
        EXPECT_IMAGES_EQUAL(boxSum(in, n), out, 1e-5) << "box of " << n;
    }
    cv::Mat_<float> ones(16, 20, 1.0f);
    cv::Mat_<float> counts(16, 20);
    conv.sameConvOnes(ones.ptr<float>(), 2, counts.ptr<float>());
    EXPECT_EQ(4.0f, counts(0, 0));   // (0..1) x (0..1)
    EXPECT_EQ(1.0f, counts(15, 19)); // only itself: the box reaches right and down
    EXPECT_EQ(2.0f, counts(0, 19));

    cv::Mat_<float> one(16, 20), two(16, 20), inPlace = in.clone();
    conv.setThreads(1);
    conv.sameConvOnes(const_cast<float*>(in.ptr<float>()), 5, one.ptr<float>());
    conv.setThreads(2);
    conv.sameConvOnes(const_cast<float*>(in.ptr<float>()), 5, two.ptr<float>());
    conv.sameConvOnes(inPlace.ptr<float>(), 5, inPlace.ptr<float>());
    EXPECT_TRUE(krotest::sameFloatBytes(one, two));
    EXPECT_TRUE(krotest::sameFloatBytes(one, inPlace));
}

TEST(SuperResolutionConvolution, SameConvOnesRefusesAnEmptyBoxAndNullImages)
{
    SuperResolutionConvolution conv(20, 16, 6, 6, 2.0f);
    std::vector<float> image(20 * 16, 1.0f);
    EXPECT_THROW(conv.sameConvOnes(image.data(), 0, image.data()), Exception);
    EXPECT_THROW(conv.sameConvOnes(nullptr, 3, image.data()), Exception);
    EXPECT_THROW(conv.sameConvOnes(image.data(), 3, nullptr), Exception);
}

} // namespace
} // namespace kro
} // namespace velmor
