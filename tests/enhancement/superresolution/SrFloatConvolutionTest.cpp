#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include <omp.h>

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
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> dist(low, high);
    std::vector<float> v(n);
    for (float& x : v)
        x = dist(rng);
    return v;
}

std::vector<char> randomMask(size_t n, unsigned seed)
{
    std::mt19937 rng(seed);
    std::vector<char> m(n);
    for (char& x : m)
        x = static_cast<char>(rng() % 4 == 0 ? 0 : 1);
    return m;
}

// Buffers of the right sizes for one geometry, filled with random data.
struct Arrays {
    explicit Arrays(const SparseGeometry& g, unsigned seed)
        : full(randomVector(size_t(g.fullWidth()) * g.fullHeight(), -100.0f, 100.0f, seed)),
          sparse(randomVector(size_t(g.lowWidth()) * g.lowHeight(), -50.0f, 50.0f, seed + 1)),
          psfX(randomVector(g.psfWidth, -0.5f, 1.0f, seed + 2)),
          psfY(randomVector(g.psfHeight, -0.5f, 1.0f, seed + 3)),
          mask(randomMask(sparse.size(), seed + 4))
    {
    }
    std::vector<float> full, sparse, psfX, psfY;
    std::vector<char> mask;
};

SrFloatConvolution makeConvolution(const SparseGeometry& g)
{
    return SrFloatConvolution(g.fineWidth, g.fineHeight, g.psfWidth, g.psfHeight, g.factor);
}

// Sizes with odd dimensions, PSFs shorter than the step, longer than one
// kernel chunk (8 taps), and the factors 2, 2.5 and 3.
const SparseGeometry kGeometries[] = {
    {32, 24, 6, 6, 2.0f},   {33, 25, 6, 6, 2.0f},  {2, 2, 6, 6, 2.0f},
    {64, 9, 1, 1, 2.0f},    {30, 21, 9, 9, 3.0f},  {31, 22, 3, 5, 3.0f},
    {45, 41, 11, 13, 2.0f}, {25, 20, 7, 6, 2.5f},  {12, 30, 2, 1, 3.0f},
};

std::string describe(const SparseGeometry& g)
{
    return "fine " + std::to_string(g.fineWidth) + "x" + std::to_string(g.fineHeight) + ", psf " +
           std::to_string(g.psfWidth) + "x" + std::to_string(g.psfHeight) + ", factor " +
           std::to_string(g.factor);
}

TEST(SrFloatConvolution, ValidCorrelationIsTheTransposeOfFullConvolution)
{
    unsigned seed = 10;
    for (const SparseGeometry& g : kGeometries) {
        SCOPED_TRACE(describe(g));
        SrFloatConvolution conv = makeConvolution(g);
        Arrays x(g, seed += 10);
        std::vector<float> y = randomVector(x.sparse.size(), -1.0f, 1.0f, seed + 7);
        std::vector<char> ones(y.size(), 1);

        std::vector<float> ax(x.sparse.size());
        conv.validCorrToSparse(x.full.data(), x.psfX.data(), x.psfY.data(), ax.data());
        std::vector<float> aty(x.full.size());
        conv.fullConvFromSparse(y.data(), x.psfX.data(), x.psfY.data(), ones.data(), aty.data());

        const double lhs = krotest::dot(ax, y);
        const double rhs = krotest::dot(x.full, aty);
        // Relative to the Cauchy-Schwarz bound of both sides, which does not
        // shrink when the random terms cancel.
        const double scale = std::sqrt(krotest::dot(ax, ax) * krotest::dot(y, y));
        EXPECT_NEAR(lhs, rhs, 1e-6 * scale) << "lhs " << lhs << ", scale " << scale;
    }
}

TEST(SrFloatConvolution, OneTapPsfSamplesTheSparseGrid)
{
    for (float factor : {2.0f, 3.0f, 2.5f}) {
        SCOPED_TRACE(factor);
        const SparseGeometry g{19, 17, 1, 1, factor};
        SrFloatConvolution conv = makeConvolution(g);
        Arrays a(g, 3);
        float one = 1.0f;
        std::vector<float> sparse(size_t(g.lowWidth()) * g.lowHeight(), -7.0f);
        conv.validCorrToSparse(a.full.data(), &one, &one, sparse.data());
        for (int i = 0; i < g.lowHeight(); ++i)
            for (int j = 0; j < g.lowWidth(); ++j)
                ASSERT_EQ(a.full[size_t(2 * i) * g.fullWidth() + size_t(g.step()) * j],
                          sparse[size_t(i) * g.lowWidth() + j])
                    << "sample " << i << "," << j;
    }
}

TEST(SrFloatConvolution, FactorThreeStepsThreeColumnsButTwoRows)
{
    const SparseGeometry g{30, 21, 1, 1, 3.0f};
    SrFloatConvolution conv = makeConvolution(g);
    EXPECT_EQ(10, conv.getLowWidth());
    EXPECT_EQ(7, conv.getLowHeight());
    EXPECT_EQ(3, conv.getStep());

    // One sample at (i, j) = (4, 5) lands on row 8, column 15 of the full array.
    std::vector<float> sparse(70, 0.0f);
    sparse[4 * 10 + 5] = 2.5f;
    std::vector<char> ones(70, 1);
    float one = 1.0f;
    std::vector<float> full(size_t(g.fullWidth()) * g.fullHeight(), 99.0f);
    conv.fullConvFromSparse(sparse.data(), &one, &one, ones.data(), full.data());
    for (int r = 0; r < g.fullHeight(); ++r)
        for (int c = 0; c < g.fullWidth(); ++c)
            ASSERT_EQ(r == 8 && c == 15 ? 2.5f : 0.0f, full[size_t(r) * g.fullWidth() + c])
                << "at " << r << "," << c;
}

TEST(SrFloatConvolution, MaskedOutSamplesContributeNothing)
{
    const SparseGeometry g{33, 25, 6, 6, 2.0f};
    SrFloatConvolution conv = makeConvolution(g);
    Arrays a(g, 5);
    std::vector<char> zeros(a.sparse.size(), 0);
    std::vector<float> full(a.full.size(), std::numeric_limits<float>::quiet_NaN());
    conv.fullConvFromSparse(a.sparse.data(), a.psfX.data(), a.psfY.data(), zeros.data(),
                            full.data());
    for (size_t p = 0; p < full.size(); ++p)
        ASSERT_EQ(0.0f, full[p]) << "element " << p;

    // Dropping one sample removes exactly its footprint.
    std::vector<char> ones(a.sparse.size(), 1);
    std::vector<char> oneDropped = ones;
    oneDropped[3 * g.lowWidth() + 4] = 0;
    std::vector<float> withAll(full.size()), withoutOne(full.size());
    std::vector<float> single(a.sparse.size(), 0.0f);
    single[3 * g.lowWidth() + 4] = a.sparse[3 * g.lowWidth() + 4];
    std::vector<float> footprint(full.size());
    conv.fullConvFromSparse(a.sparse.data(), a.psfX.data(), a.psfY.data(), ones.data(),
                            withAll.data());
    conv.fullConvFromSparse(a.sparse.data(), a.psfX.data(), a.psfY.data(), oneDropped.data(),
                            withoutOne.data());
    conv.fullConvFromSparse(single.data(), a.psfX.data(), a.psfY.data(), ones.data(),
                            footprint.data());
    for (size_t p = 0; p < full.size(); ++p)
        ASSERT_NEAR(withAll[p], withoutOne[p] + footprint[p], 1e-3f) << "element " << p;
}

// The optimised passes must reproduce the plain tap-outermost loops bit for
// bit, masks with other weights than 0/1 included.
TEST(SrFloatConvolution, MatchesPlainTapOutermostLoopsExactly)
{
    unsigned seed = 100;
    for (const SparseGeometry& g : kGeometries) {
        SCOPED_TRACE(describe(g));
        SrFloatConvolution conv = makeConvolution(g);
        Arrays a(g, seed += 10);
        a.mask[0] = 3;
        if (a.mask.size() > 2)
            a.mask[a.mask.size() / 2] = -2;

        std::vector<float> expectedFull(a.full.size()), actualFull(a.full.size(), 1.0f);
        krotest::plainFullConvFromSparse(g, a.sparse.data(), a.psfX.data(), a.psfY.data(),
                                         a.mask.data(), expectedFull.data());
        conv.fullConvFromSparse(a.sparse.data(), a.psfX.data(), a.psfY.data(), a.mask.data(),
                                actualFull.data());
        EXPECT_TRUE(krotest::sameBytes(expectedFull, actualFull));

        std::vector<float> expectedSparse(a.sparse.size()), actualSparse(a.sparse.size(), 1.0f);
        krotest::plainValidCorrToSparse(g, a.full.data(), a.psfX.data(), a.psfY.data(),
                                        expectedSparse.data());
        conv.validCorrToSparse(a.full.data(), a.psfX.data(), a.psfY.data(), actualSparse.data());
        EXPECT_TRUE(krotest::sameBytes(expectedSparse, actualSparse));
    }
}

TEST(SrFloatConvolution, ResultDoesNotDependOnTheThreadCount)
{
    // Large enough for the passes to run on two threads.
    const SparseGeometry g{1280, 1024, 6, 6, 2.0f};
    SrFloatConvolution conv = makeConvolution(g);
    Arrays a(g, 77);
    const int savedThreads = omp_get_max_threads();
    std::vector<float> full1(a.full.size()), full2(a.full.size());
    std::vector<float> sparse1(a.sparse.size()), sparse2(a.sparse.size());

    omp_set_num_threads(1);
    conv.fullConvFromSparse(a.sparse.data(), a.psfX.data(), a.psfY.data(), a.mask.data(),
                            full1.data());
    conv.validCorrToSparse(a.full.data(), a.psfX.data(), a.psfY.data(), sparse1.data());
    omp_set_num_threads(2);
    conv.fullConvFromSparse(a.sparse.data(), a.psfX.data(), a.psfY.data(), a.mask.data(),
                            full2.data());
    conv.validCorrToSparse(a.full.data(), a.psfX.data(), a.psfY.data(), sparse2.data());
    omp_set_num_threads(savedThreads);

    EXPECT_TRUE(krotest::sameBytes(full1, full2));
    EXPECT_TRUE(krotest::sameBytes(sparse1, sparse2));
}

TEST(SrFloatConvolution, CopiesOwnTheirScratch)
{
    const SparseGeometry g{40, 30, 6, 6, 2.0f};
    Arrays a(g, 9);
    std::vector<float> expected(a.sparse.size()), actual(a.sparse.size());
    makeConvolution(g).validCorrToSparse(a.full.data(), a.psfX.data(), a.psfY.data(),
                                         expected.data());

    auto original = std::make_unique<SrFloatConvolution>(makeConvolution(g));
    SrFloatConvolution copy(*original);
    SrFloatConvolution assigned = makeConvolution({10, 10, 3, 3, 2.0f});
    assigned = *original;
    original.reset();
    copy.validCorrToSparse(a.full.data(), a.psfX.data(), a.psfY.data(), actual.data());
    EXPECT_TRUE(krotest::sameBytes(expected, actual));
    assigned.validCorrToSparse(a.full.data(), a.psfX.data(), a.psfY.data(), actual.data());
    EXPECT_TRUE(krotest::sameBytes(expected, actual));
    EXPECT_EQ(g.fullWidth(), assigned.getFullWidth());
}

TEST(SrFloatConvolution, RejectsGeometriesThatDoNotFit)
{
    // Factor 1 would put the sample rows (step 2) below the full array.
    EXPECT_THROW(SrFloatConvolution(20, 20, 3, 3, 1.0f), Exception);
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

TEST(SrFloatConvolution, RejectsNullArrays)
{
    SrFloatConvolution conv(8, 8, 6, 6, 2.0f);
    std::vector<float> full(13 * 13), sparse(16), psf(6, 0.2f);
    std::vector<char> mask(16, 1);
    EXPECT_THROW(conv.fullConvFromSparse(nullptr, psf.data(), psf.data(), mask.data(), full.data()),
                 Exception);
    EXPECT_THROW(conv.fullConvFromSparse(sparse.data(), psf.data(), psf.data(), nullptr, full.data()),
                 Exception);
    EXPECT_THROW(conv.validCorrToSparse(full.data(), nullptr, psf.data(), sparse.data()), Exception);
    EXPECT_THROW(conv.validCorrToSparse(full.data(), psf.data(), psf.data(), nullptr), Exception);
}

class RecordingDevice : public DebugDeviceBase {
public:
    void write(const std::string&, const std::string& message, int level) override
    {
        if (level == kDebugLevelTrace)
            messages.push_back(message);
    }
    std::vector<std::string> messages;
};

TEST(SrFloatConvolution, TracesEachPassOnTheSrFloatChannel)
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
}

// Mean over the window clipped to the image, in double.
cv::Mat_<float> clippedMean(const cv::Mat_<float>& src, int r)
{
    cv::Mat_<float> out(src.size());
    for (int y = 0; y < src.rows; ++y)
        for (int x = 0; x < src.cols; ++x) {
            double rowMeans = 0.0;
            // Separable: mean over the clipped columns of the mean over the clipped rows.
            const int x0 = std::max(0, x - r), x1 = std::min(src.cols - 1, x + r);
            const int y0 = std::max(0, y - r), y1 = std::min(src.rows - 1, y + r);
            for (int yy = y0; yy <= y1; ++yy) {
                double sum = 0.0;
                for (int xx = x0; xx <= x1; ++xx)
                    sum += src(yy, xx);
                rowMeans += sum / (x1 - x0 + 1);
            }
            out(y, x) = static_cast<float>(rowMeans / (y1 - y0 + 1));
        }
    return out;
}

TEST(SrFloatConvolution, MeanFilterAveragesOverTheClippedWindow)
{
    struct Case { int rows, cols, radius; };
    for (const Case& c : {Case{20, 31, 3}, Case{7, 7, 3}, Case{16, 5, 2}, Case{1, 9, 0},
                          Case{33, 40, 1}}) {
        SCOPED_TRACE(std::to_string(c.rows) + "x" + std::to_string(c.cols) + " r=" +
                     std::to_string(c.radius));
        cv::Mat_<float> src = krotest::randomImage(c.rows, c.cols, CV_32F, 0.0, 100.0, 4);
        cv::Mat_<float> dst;
        SrFloatConvolution::blurImageMeanFilter(src, c.radius, dst);
        EXPECT_IMAGES_EQUAL(clippedMean(src, c.radius), dst, 1e-3);
    }
}

TEST(SrFloatConvolution, MeanFilterKeepsConstantsAndRadiusZero)
{
    cv::Mat_<float> constant(12, 17, 37.25f), dst;
    SrFloatConvolution::blurImageMeanFilter(constant, 4, dst);
    EXPECT_IMAGES_EQUAL(constant, dst, 1e-4);

    cv::Mat_<float> src = krotest::randomImage(9, 14, CV_32F, -5.0, 5.0, 8);
    cv::Mat_<float> same;
    SrFloatConvolution::blurImageMeanFilter(src, 0, same);
    EXPECT_IMAGES_EQUAL(src, same);

    // In place.
    cv::Mat_<float> inPlace = src.clone();
    SrFloatConvolution::blurImageMeanFilter(inPlace, 2, inPlace);
    cv::Mat_<float> expected;
    SrFloatConvolution::blurImageMeanFilter(src, 2, expected);
    EXPECT_IMAGES_EQUAL(expected, inPlace);
}

TEST(SrFloatConvolution, MeanFilterRejectsWindowsLargerThanTheImage)
{
    cv::Mat_<float> src(6, 10, 1.0f), dst;
    EXPECT_THROW(SrFloatConvolution::blurImageMeanFilter(src, 3, dst), Exception);  // 7 > 6 rows
    EXPECT_THROW(SrFloatConvolution::blurImageMeanFilter(src, -1, dst), Exception);
    cv::Mat_<float> empty;
    EXPECT_THROW(SrFloatConvolution::blurImageMeanFilter(empty, 0, dst), Exception);
    EXPECT_NO_THROW(SrFloatConvolution::blurImageMeanFilter(src, 2, dst));
    EXPECT_EQ(src.size(), dst.size());
}

} // namespace
} // namespace kro
} // namespace velmor
