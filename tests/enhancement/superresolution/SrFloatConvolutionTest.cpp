#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <memory>
#include <string>
#include <vector>

#include <opencv2/imgproc.hpp>

#include "DebugChannel.h"
#include "Exception.h"
#include "PlainSparseConvolution.h"
#include "SrFloatConvolution.h"
#include "TestImages.h"

namespace velmor {
namespace kro {
namespace {

using krotest::SparseGeometry;

std::vector<float> randomVector(size_t n, float low, float high, unsigned seed)
{
    return cv::Mat_<float>(krotest::randomImage(1, static_cast<int>(n), CV_32F, low, high, seed));
}

// Buffers of the right sizes for one geometry, filled with random data; the
// mask drops about a quarter of the samples.
struct Arrays {
    Arrays(const SparseGeometry& g, unsigned seed)
        : full(randomVector(size_t(g.fullWidth()) * g.fullHeight(), -100.0f, 100.0f, seed)),
          sparse(randomVector(size_t(g.lowWidth()) * g.lowHeight(), -50.0f, 50.0f, seed + 1)),
          psfX(randomVector(g.psfWidth, -0.5f, 1.0f, seed + 2)),
          psfY(randomVector(g.psfHeight, -0.5f, 1.0f, seed + 3)), mask(sparse.size())
    {
        const cv::Mat m = cv::min(krotest::randomImage(1, int(mask.size()), CV_8S, 0, 4, seed + 4), 1);
        mask.assign(m.ptr<char>(), m.ptr<char>() + mask.size());
    }
    std::vector<float> full, sparse, psfX, psfY;
    std::vector<char> mask;
};

SrFloatConvolution makeConvolution(const SparseGeometry& g)
{
    return SrFloatConvolution(g.fineWidth, g.fineHeight, g.psfWidth, g.psfHeight, g.factor);
}

// The optimised passes must reproduce the plain tap-outermost loops bit for
// bit, masks with other weights than 0/1 and a fully dropped row included,
// and write every element of their output. With an all-ones mask they are
// each other's transpose. Sizes with odd dimensions, PSFs shorter than the
// step, longer than one kernel chunk (8 taps), and the factors 2, 2.5 and 3.
TEST(SrFloatConvolution, MatchesPlainTapOutermostLoopsExactlyAndIsItsOwnTranspose)
{
    const SparseGeometry geometries[] = {
        {32, 24, 6, 6, 2.0f},   {33, 25, 6, 6, 2.0f},  {2, 2, 6, 6, 2.0f},
        {64, 9, 1, 1, 2.0f},    {30, 21, 9, 9, 3.0f},  {31, 22, 3, 5, 3.0f},
        {45, 41, 11, 13, 2.0f}, {25, 20, 7, 6, 2.5f},  {12, 30, 2, 1, 3.0f},
    };
    const float nan = std::numeric_limits<float>::quiet_NaN();
    unsigned seed = 100;
    for (const SparseGeometry& g : geometries) {
        SCOPED_TRACE(::testing::Message() << "fine " << g.fineWidth << "x" << g.fineHeight << ", psf "
                                          << g.psfWidth << "x" << g.psfHeight << ", factor " << g.factor);
        SrFloatConvolution conv = makeConvolution(g);
        Arrays a(g, seed += 10);
        a.mask[0] = 3;
        if (a.mask.size() > 2)
            a.mask[a.mask.size() / 2] = -2;
        std::fill(a.mask.end() - g.lowWidth(), a.mask.end(), 0);

        std::vector<float> expectedFull(a.full.size()), actualFull(a.full.size(), nan);
        krotest::plainFullConvFromSparse(g, a.sparse.data(), a.psfX.data(), a.psfY.data(),
                                         a.mask.data(), expectedFull.data());
        conv.fullConvFromSparse(a.sparse.data(), a.psfX.data(), a.psfY.data(), a.mask.data(),
                                actualFull.data());
        EXPECT_TRUE(krotest::sameBytes(expectedFull, actualFull));

        std::vector<float> expectedSparse(a.sparse.size()), actualSparse(a.sparse.size(), nan);
        krotest::plainValidCorrToSparse(g, a.full.data(), a.psfX.data(), a.psfY.data(),
                                        expectedSparse.data());
        conv.validCorrToSparse(a.full.data(), a.psfX.data(), a.psfY.data(), actualSparse.data());
        EXPECT_TRUE(krotest::sameBytes(expectedSparse, actualSparse));

        // <A x, y> = <x, A^T y>, relative to the Cauchy-Schwarz bound of both
        // sides, which does not shrink when the random terms cancel.
        std::vector<float> y = randomVector(a.sparse.size(), -1.0f, 1.0f, seed + 7), aty(a.full.size());
        std::vector<char> ones(y.size(), 1);
        conv.fullConvFromSparse(y.data(), a.psfX.data(), a.psfY.data(), ones.data(), aty.data());
        const double scale = std::sqrt(krotest::dot(actualSparse, actualSparse) * krotest::dot(y, y));
        EXPECT_NEAR(krotest::dot(actualSparse, y), krotest::dot(a.full, aty), 1e-6 * scale);
    }
}

// Sample (i, j) sits on row 2i and column step*j of the full array: the
// vertical step stays 2 when the horizontal one follows the factor.
TEST(SrFloatConvolution, OneTapPsfSamplesEveryOtherRowAndEveryStepthColumn)
{
    const struct { float factor; int lowWidth, lowHeight, step; } cases[] = {
        {2.0f, 15, 10, 2}, {3.0f, 10, 7, 3}, {2.5f, 12, 8, 2}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.factor);
        const SparseGeometry g{30, 21, 1, 1, c.factor};
        SrFloatConvolution conv = makeConvolution(g);
        ASSERT_EQ(c.lowWidth, conv.getLowWidth());
        ASSERT_EQ(c.lowHeight, conv.getLowHeight());
        ASSERT_EQ(c.step, conv.getStep());
        Arrays a(g, 3);
        float one = 1.0f;
        std::vector<float> sparse(size_t(c.lowWidth) * c.lowHeight, -7.0f);
        conv.validCorrToSparse(a.full.data(), &one, &one, sparse.data());
        for (int i = 0; i < c.lowHeight; ++i)
            for (int j = 0; j < c.lowWidth; ++j)
                ASSERT_EQ(a.full[size_t(2 * i) * g.fullWidth() + size_t(c.step) * j], sparse[size_t(i) * c.lowWidth + j])
                    << "sample " << i << "," << j;

        // One sample at (4, 5) lands on row 8, column 5 * step alone.
        std::fill(sparse.begin(), sparse.end(), 0.0f);
        sparse[4 * c.lowWidth + 5] = 2.5f;
        std::vector<char> ones(sparse.size(), 1);
        conv.fullConvFromSparse(sparse.data(), &one, &one, ones.data(), a.full.data());
        for (int r = 0; r < g.fullHeight(); ++r)
            for (int col = 0; col < g.fullWidth(); ++col)
                ASSERT_EQ(r == 8 && col == 5 * c.step ? 2.5f : 0.0f, a.full[size_t(r) * g.fullWidth() + col])
                    << "at " << r << "," << col;
    }
}

// Large enough for the passes to run on every thread asked for; the copies
// (which keep the thread count) are used after the original is gone.
TEST(SrFloatConvolution, ResultDoesNotDependOnTheThreadCountAndCopiesOwnTheirScratch)
{
    const SparseGeometry g{1280, 1024, 6, 6, 2.0f};
    auto original = std::make_unique<SrFloatConvolution>(makeConvolution(g));
    Arrays a(g, 77);
    // Each pass splits among the threads asked for, as far as its work is
    // worth (the sampled pass of this size: five threads at most).
    auto split = [](const SrFloatConvolution& conv) {
        const int asked = conv.getThreads(), ran = conv.getLastThreadCount();
        return asked == 1 ? ran == 1 : ran > 1 && ran <= asked;
    };
    auto run = [&](SrFloatConvolution& conv) {
        std::vector<float> full(a.full.size()), sparse(a.sparse.size());
        conv.fullConvFromSparse(a.sparse.data(), a.psfX.data(), a.psfY.data(), a.mask.data(), full.data());
        EXPECT_TRUE(split(conv)) << conv.getLastThreadCount() << " of " << conv.getThreads();
        conv.validCorrToSparse(a.full.data(), a.psfX.data(), a.psfY.data(), sparse.data());
        EXPECT_TRUE(split(conv)) << conv.getLastThreadCount() << " of " << conv.getThreads();
        return std::make_pair(full, sparse);
    };
    ASSERT_TRUE(original->setThreads(1));
    EXPECT_FALSE(original->setThreads(-1));
    const auto one = run(*original);
    ASSERT_TRUE(original->setThreads(7));
    SrFloatConvolution copy(*original);
    SrFloatConvolution assigned = makeConvolution({10, 10, 3, 3, 2.0f});
    ASSERT_TRUE(original->setThreads(2));
    assigned = *original;
    original.reset();
    for (SrFloatConvolution* conv : {&copy, &assigned}) {
        const auto other = run(*conv);
        EXPECT_TRUE(krotest::sameBytes(one.first, other.first)) << conv->getThreads() << " threads";
        EXPECT_TRUE(krotest::sameBytes(one.second, other.second)) << conv->getThreads() << " threads";
    }
}

class RecordingDevice : public DebugDeviceBase {
public:
    void write(const std::string&, const std::string& message, int) override { messages.push_back(message); }
    std::vector<std::string> messages;
};

TEST(SrFloatConvolution, TracesEachPassOnTheSrFloatChannelAndRefusesNullArrays)
{
    SrFloatConvolution conv(8, 8, 6, 6, 2.0f);
    EXPECT_EQ("SrFloat", conv.getDebugChannelName());
    auto device = std::make_shared<RecordingDevice>();
    conv.setDebugDevice(device);
    conv.setOutputLevel(kDebugLevelTrace);
    std::vector<float> full(13 * 13, 1.0f), sparse(16, 1.0f), psf(6, 0.2f);
    std::vector<char> mask(16, 1);
    conv.fullConvFromSparse(sparse.data(), psf.data(), psf.data(), mask.data(), full.data());
    conv.validCorrToSparse(full.data(), psf.data(), psf.data(), sparse.data());
    const std::vector<std::string> expected = {
        "start SrFloat_Convolution.fullConvFromSparse", "end SrFloat_Convolution.fullConvFromSparse",
        "start SrFloat_Convolution.validCorrToSparse", "end SrFloat_Convolution.validCorrToSparse"};
    EXPECT_EQ(expected, device->messages);

    EXPECT_THROW(conv.fullConvFromSparse(nullptr, psf.data(), psf.data(), mask.data(), full.data()), Exception);
    EXPECT_THROW(conv.fullConvFromSparse(sparse.data(), psf.data(), psf.data(), nullptr, full.data()), Exception);
    EXPECT_THROW(conv.validCorrToSparse(full.data(), nullptr, psf.data(), sparse.data()), Exception);
    EXPECT_THROW(conv.validCorrToSparse(full.data(), psf.data(), psf.data(), nullptr), Exception);
}

TEST(SrFloatConvolution, RejectsGeometriesThatDoNotFit)
{
    // Factor 1 would put the sample rows (step 2) below the full array.
    EXPECT_THROW(SrFloatConvolution(20, 20, 3, 3, 1.5f), Exception);
    EXPECT_THROW(SrFloatConvolution(0, 20, 6, 6, 2.0f), Exception);
    EXPECT_THROW(SrFloatConvolution(20, 20, 0, 6, 2.0f), Exception);
    EXPECT_THROW(SrFloatConvolution(1, 20, 6, 6, 2.0f), Exception);  // no low-resolution column
    EXPECT_THROW(SrFloatConvolution(20, 20, 6, 6, std::nanf("")), Exception);
    try {
        SrFloatConvolution(20, 20, 3, 3, 1.0f);
        FAIL() << "no exception";
    } catch (const Exception& e) {
        EXPECT_NE(std::string::npos, std::string(e.what()).find("does not fit")) << e.what();
        EXPECT_NE(std::string::npos, e.where().find("modules/enhancement/superresolution/SrFloatConvolution:"))
            << e.where();
    }
    EXPECT_NO_THROW(SrFloatConvolution(2, 2, 1, 1, 2.0f));
}

// Mean over the window clipped to the image, in double: the window's sum over
// the number of its samples inside the image.
cv::Mat clippedMean(const cv::Mat_<float>& src, int r)
{
    cv::Mat values, sums, counts, mean;
    src.convertTo(values, CV_64F);
    const cv::Size window(2 * r + 1, 2 * r + 1);
    cv::boxFilter(values, sums, -1, window, cv::Point(-1, -1), false, cv::BORDER_CONSTANT);
    cv::boxFilter(cv::Mat::ones(src.size(), CV_64F), counts, -1, window, cv::Point(-1, -1), false, cv::BORDER_CONSTANT);
    cv::Mat(sums / counts).convertTo(mean, CV_32F);
    return mean;
}

TEST(SrFloatConvolution, MeanFilterAveragesOverTheClippedWindowAlsoInPlace)
{
    struct Case { int rows, cols, radius; };
    for (const Case& c : {Case{20, 31, 3}, Case{7, 7, 3}, Case{16, 5, 2}, Case{1, 9, 0}, Case{33, 40, 1}}) {
        SCOPED_TRACE(std::to_string(c.rows) + "x" + std::to_string(c.cols) + " r=" + std::to_string(c.radius));
        cv::Mat_<float> src = krotest::randomImage(c.rows, c.cols, CV_32F, 0.0, 100.0, 4), dst;
        SrFloatConvolution::blurImageMeanFilter(src, c.radius, dst);
        EXPECT_IMAGES_EQUAL(clippedMean(src, c.radius), dst, c.radius ? 1e-3 : 0.0);
        SrFloatConvolution::blurImageMeanFilter(src, c.radius, src);
        EXPECT_IMAGES_EQUAL(dst, src);
    }

    cv::Mat_<float> small(6, 10, 1.0f), empty, dst;
    EXPECT_THROW(SrFloatConvolution::blurImageMeanFilter(small, 3, dst), Exception);  // 7 > 6 rows
    EXPECT_THROW(SrFloatConvolution::blurImageMeanFilter(small, -1, dst), Exception);
    EXPECT_THROW(SrFloatConvolution::blurImageMeanFilter(empty, 0, dst), Exception);
    SrFloatConvolution::blurImageMeanFilter(small, 2, dst);
    EXPECT_IMAGES_EQUAL(small, dst);  // a constant stays, and the largest window fits
}

} // namespace
} // namespace kro
} // namespace velmor
